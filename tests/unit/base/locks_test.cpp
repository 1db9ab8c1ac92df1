#include "base/locks.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <semaphore>
#include <string>
#include <thread>

#include "base/threads.h"
#include "base/time.h"

namespace {

std::string calls;

fork_lock recording(const char* name) {
    return {[](void* context) { calls += std::string("+") + static_cast<char*>(context); },
            [](void* context) { calls += std::string("-") + static_cast<char*>(context); },
            [](void* context) { calls += std::string("!") + static_cast<char*>(context); },
            const_cast<char*>(name)};
}

int child_result(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

}  // namespace

TEST(ForkLocks, AreTakenInOrderAndReleasedInReverse) {
    fork_lock_register(FORK_LOCK_QUEUE, recording("queue"));
    fork_lock_register(FORK_LOCK_CHANNEL, recording("channel"));
    fork_lock_register(FORK_LOCK_FILE_EVENT, recording("event"));
    calls.clear();
    global_fork_lock(nullptr);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    const pid_t pid = fork();
    if (pid == 0) {
        calls.clear();
        global_fork_init_locks(nullptr);
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        _exit(calls == "!event!channel!queue" && sigismember(&mask, SIGTERM) == 0 ? 0 : 1);
    }
    global_fork_unlock(nullptr);
    EXPECT_EQ(calls, "+event+channel+queue-queue-channel-event");
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
    EXPECT_EQ(child_result(pid), 0);
    fork_lock_unregister(FORK_LOCK_QUEUE);
    fork_lock_unregister(FORK_LOCK_CHANNEL);
    fork_lock_unregister(FORK_LOCK_FILE_EVENT);
}

// Other threads take the locks all the time: every child must find them free.
TEST(ForkLocks, AreFreeInEveryChild) {
    std::atomic<bool> stop = false;
    std::thread busy([&] {
        char stamp[32];
        while (!stop) {
            effUser_guard guard;
            GetDtChar2(stamp, sizeof stamp);
        }
    });
    for (int i = 0; i < 50; ++i) {
        global_fork_lock(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            global_fork_init_locks(nullptr);
            alarm(10);  // a lock that is held ends the child by signal
            effUser_guard outer;
            effUser_guard inner;
            char stamp[32];
            GetDtChar2(stamp, sizeof stamp);
            _exit(0);
        }
        global_fork_unlock(nullptr);
        EXPECT_EQ(child_result(pid), 0);
    }
    stop = true;
    busy.join();
}

TEST(EffectiveUserLock, IsTriedOnlyWhenNobodyHoldsIt) {
    EXPECT_TRUE(try_effUserLock());
    EXPECT_FALSE(try_effUserLock()) << "the caller may be standing as another user";
    std::thread([] { EXPECT_FALSE(try_effUserLock()); }).join();
    reset_effUserLock();
    EXPECT_TRUE(try_effUserLock());
    reset_effUserLock();
}

TEST(Workers, StartDetachedWithSignalsBlockedAndEnoughStack) {
    static std::binary_semaphore done(0);
    static bool good;
    __qx_thread record;
    qx7_error error;
    const auto body = [](void* arg) -> void* {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        size_t stack = 0;
        int detached = 0;
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_getdetachstate(&attributes, &detached);
        pthread_attr_destroy(&attributes);
        good = sigismember(&mask, SIGTERM) == 1 && stack >= worker_stack_minimum &&
               detached == PTHREAD_CREATE_DETACHED && static_cast<__qx_thread*>(arg)->th_loop == 1;
        done.release();
        return nullptr;
    };
    ASSERT_EQ(StartWorkerThread(&record, body, &record, &error), 0);
    ASSERT_TRUE(done.try_acquire_for(std::chrono::seconds(20)));
    EXPECT_TRUE(good);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0) << "the starter's own mask comes back";
}
