// Locks that threads share with fork: the effective-user lock, and the register of locks that a fork takes.
#pragma once

#include <pthread.h>

#include "base/context.h"

// A recursive mutex that a forked child can make new, whoever held it in the parent.
struct qx_recursive_lock {
    pthread_mutex_t mutex;

    qx_recursive_lock() { init(); }
    qx_recursive_lock(const qx_recursive_lock&) = delete;
    qx_recursive_lock& operator=(const qx_recursive_lock&) = delete;
    void init();
    void lock();
    bool try_lock();
    void unlock();
};

// Held while the effective user is not the agent's own, and around account database calls. Taken before all
// others.
void init_effUserLock();
void set_effUserLock();
void reset_effUserLock();
// Takes it only if nobody holds it, the caller included; for code that makes files of the agent's own while
// it already holds a lock of a later rank.
bool try_effUserLock();
void destroy_effUserLock();

struct effUser_guard {
    effUser_guard() { set_effUserLock(); }
    ~effUser_guard() { reset_effUserLock(); }
    effUser_guard(const effUser_guard&) = delete;
    effUser_guard& operator=(const effUser_guard&) = delete;
};

// The order in which a fork takes the locks; all code that takes two of them follows it.
// Mutexes come before spin locks: nobody waits for a mutex while holding a spin lock.
enum fork_lock_rank : int {
    FORK_LOCK_EFF_USER = 0,
    FORK_LOCK_FILE_EVENT,
    FORK_LOCK_PATH_INFO,
    FORK_LOCK_SERVICE_POOL,
    FORK_LOCK_RESOLVER,
    FORK_LOCK_LOG,
    FORK_LOCK_TRACE,
    FORK_LOCK_TIME_ZONE,
    FORK_LOCK_CHANNEL,         // channel_lock
    FORK_LOCK_QUEUE,           // queue_lock of the context
    FORK_LOCK_CHANNEL_QUEUES,  // queue_lock of every channel
    FORK_LOCK_TIMER,
    FORK_LOCK_SIGNALS,  // no lock: the child's signal dispositions are set back here
    FORK_LOCK_RANKS
};

// acquire and release run in the forking process, reinit in the child; each may be null.
// In the child all locks are in the state in which acquire left them, held by nobody who exists.
struct fork_lock {
    void (*acquire)(void* context);
    void (*release)(void* context);
    void (*reinit)(void* context);
    void* context;
};

// Registers the locks of a rank; a second call replaces the first. Several of one rank are one callback's
// matter. Called while only one thread runs, or by the thread that forks.
void fork_lock_register(fork_lock_rank rank, const fork_lock& lock);
// The same for a recursive lock, with the three functions that fit it.
void fork_lock_register_recursive(fork_lock_rank rank, qx_recursive_lock* lock);
void fork_lock_unregister(fork_lock_rank rank);

// Before a fork: flushes all output streams, blocks all signals, takes the registered locks in order. Main
// thread.
void global_fork_lock(EX_PCX* pcx);
// In the parent: releases in reverse order and gives the signal mask back.
void global_fork_unlock(EX_PCX* pcx);
// In the child: makes all locks new, in order, then gives the signal mask back. on_main_thread() holds for
// the child.
void global_fork_init_locks(EX_PCX* pcx);

// An integer and a mutex: the portable atomic of shared code.
struct atomic_lock_t {
    pthread_mutex_t mutex;
};
int atomic_lock_init(atomic_lock_t* lock);
void atomic_lock(atomic_lock_t* lock);
void atomic_unlock(atomic_lock_t* lock);
void atomic_lock_destroy(atomic_lock_t* lock);
struct atomic_int_t {
    atomic_lock_t lock;
    int value;
};
int atomic_int_init(atomic_int_t* number, int value);
void atomic_int_set(atomic_int_t* number, int value);
int atomic_int_get(atomic_int_t* number);
