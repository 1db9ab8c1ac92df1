#include "base/threads.h"

#include <cstring>

#include "base/message_numbers.h"

namespace {

int thread_error(qx7_error* error, const char* name, const char* step, int result) {
    return qx_error_set(error, -1, result, number_thread_failed, "%s|%s=%d '%s'|", name, step, result,
                        strerror(result));
}

int set_attributes(pthread_attr_t* attributes, const char* name, qx7_error* error) {
    size_t stack_size = 0;
    int result = pthread_attr_getstacksize(attributes, &stack_size);
    if (result != 0) {
        return thread_error(error, name, "pthread_attr_getstacksize()", result);
    }
    if (stack_size < worker_stack_minimum) {
        result = pthread_attr_setstacksize(attributes, worker_stack_minimum);
        if (result != 0) {
            return thread_error(error, name, "pthread_attr_setstacksize()", result);
        }
    }
    result = pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
    if (result != 0) {
        return thread_error(error, name, "pthread_attr_setdetachstate(PTHREAD_CREATE_DETACHED)", result);
    }
    return 0;
}

}  // namespace

int block_all_signals(sigset_t* old) {
    sigset_t all;
    sigfillset(&all);
    return pthread_sigmask(SIG_SETMASK, &all, old);
}

int StartWorkerThread(__qx_thread* thread, void* (*start)(void*), void* arg, qx7_error* error) {
    qx_error_clear(error);
    thread->th_loop = 1;
    pthread_attr_t attributes;
    const int result = pthread_attr_init(&attributes);
    if (result != 0) {
        return thread_error(error, thread->th_name, "pthread_attr_init()", result);
    }
    int outcome = set_attributes(&attributes, thread->th_name, error);
    if (outcome == 0) {
        // The new thread inherits the mask, so no signal can reach it before it runs.
        sigset_t before;
        block_all_signals(&before);
        const int created = pthread_create(&thread->th_thread, &attributes, start, arg);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        if (created != 0) {
            // This text for a failed create as well: operators know it.
            outcome = thread_error(error, thread->th_name,
                                   "pthread_attr_setdetachstate(PTHREAD_CREATE_DETACHED)", created);
        } else {
            thread->th_threadID = thread->th_thread;
        }
    }
    pthread_attr_destroy(&attributes);  // cannot fail on this platform
    return outcome;
}
