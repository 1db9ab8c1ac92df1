#include "base/locks.h"

#include <signal.h>

#include <cstdio>
#include <new>

namespace {

qx_recursive_lock effective_user_lock;
int effective_user_depth = 0;  // of the thread that holds it
fork_lock registered[FORK_LOCK_RANKS];
sigset_t mask_before_fork;

void lock_callback(void* context) {
    static_cast<qx_recursive_lock*>(context)->lock();
}
void unlock_callback(void* context) {
    static_cast<qx_recursive_lock*>(context)->unlock();
}
void reinit_callback(void* context) {
    static_cast<qx_recursive_lock*>(context)->init();
}

// The effective-user lock is always in the register: identity is changed before anything else is opened.
[[maybe_unused]] const bool effective_user_registered =
    (fork_lock_register(FORK_LOCK_EFF_USER,
                        {[](void*) { set_effUserLock(); }, [](void*) { reset_effUserLock(); },
                         [](void*) { init_effUserLock(); }, nullptr}),
     true);

}  // namespace

void qx_recursive_lock::init() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);  // cannot fail on this platform
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void qx_recursive_lock::lock() {
    pthread_mutex_lock(&mutex);
}

bool qx_recursive_lock::try_lock() {
    return pthread_mutex_trylock(&mutex) == 0;
}

void qx_recursive_lock::unlock() {
    pthread_mutex_unlock(&mutex);
}

void init_effUserLock() {
    effective_user_lock.init();
    effective_user_depth = 0;
}

void set_effUserLock() {
    effective_user_lock.lock();
    ++effective_user_depth;
}

void reset_effUserLock() {
    --effective_user_depth;
    effective_user_lock.unlock();
}

bool try_effUserLock() {
    if (!effective_user_lock.try_lock()) {
        return false;
    }
    if (effective_user_depth != 0) {
        effective_user_lock.unlock();
        return false;
    }
    ++effective_user_depth;
    return true;
}

void destroy_effUserLock() {
    pthread_mutex_destroy(&effective_user_lock.mutex);
}

void fork_lock_register(fork_lock_rank rank, const fork_lock& lock) {
    registered[rank] = lock;
}

void fork_lock_register_recursive(fork_lock_rank rank, qx_recursive_lock* lock) {
    registered[rank] = {lock_callback, unlock_callback, reinit_callback, lock};
}

void fork_lock_unregister(fork_lock_rank rank) {
    registered[rank] = {};
}

void global_fork_lock(EX_PCX* /*pcx*/) {
    // Unflushed output would be written twice, once by each process.
    fflush(nullptr);
    sigset_t all;
    sigfillset(&all);
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &all, &before);
    for (const fork_lock& lock : registered) {
        if (lock.acquire != nullptr) {
            lock.acquire(lock.context);
        }
    }
    mask_before_fork = before;
}

void global_fork_unlock(EX_PCX* /*pcx*/) {
    const sigset_t before = mask_before_fork;
    for (int rank = FORK_LOCK_RANKS - 1; rank >= 0; --rank) {
        const fork_lock& lock = registered[rank];
        if (lock.release != nullptr) {
            lock.release(lock.context);
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void global_fork_init_locks(EX_PCX* pcx) {
    for (const fork_lock& lock : registered) {
        if (lock.reinit != nullptr) {
            lock.reinit(lock.context);
        }
    }
    if (pcx != nullptr) {
        pcx->pcx_main_threadID = pthread_self();
    }
    // Last: a signal that waits must find the child's own dispositions.
    pthread_sigmask(SIG_SETMASK, &mask_before_fork, nullptr);
}

int atomic_lock_init(atomic_lock_t* lock) {
    return pthread_mutex_init(&lock->mutex, nullptr);
}
void atomic_lock(atomic_lock_t* lock) {
    pthread_mutex_lock(&lock->mutex);
}
void atomic_unlock(atomic_lock_t* lock) {
    pthread_mutex_unlock(&lock->mutex);
}
void atomic_lock_destroy(atomic_lock_t* lock) {
    pthread_mutex_destroy(&lock->mutex);
}

int atomic_int_init(atomic_int_t* number, int value) {
    number->value = value;
    return atomic_lock_init(&number->lock);
}

void atomic_int_set(atomic_int_t* number, int value) {
    atomic_lock(&number->lock);
    number->value = value;
    atomic_unlock(&number->lock);
}

int atomic_int_get(atomic_int_t* number) {
    atomic_lock(&number->lock);
    const int value = number->value;
    atomic_unlock(&number->lock);
    return value;
}
