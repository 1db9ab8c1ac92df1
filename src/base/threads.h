// Worker threads: detached, with all signals blocked and a stack of at least two megabytes.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <atomic>

#include "base/error.h"

inline constexpr size_t worker_stack_minimum = 2097152;

struct __qx_thread {
    char th_ID[16] = {};
    __qx_thread* th_nxt = nullptr;
    int th_socket = -1;
    char th_name[32] = {};
    pthread_t th_thread = {};
    pthread_t th_threadID = {};
    std::atomic<int> th_loop = 0;  // 1 while the thread is wanted
    int th_ah_idnr = 0;
    short th_incsubdirs = 0;
    short th_iFiller = 0;
    // File events
    void* fse_ios = nullptr;
    char fse_userName[33] = {};
    char fse_homeDir[4096] = {};
    uid_t fse_uid = 0;
    gid_t fse_gid = 0;
    int fse_ahidnr = 0;
    int login_failed = 0;
    char login_error_info[256] = {};
};

// Starts `start(arg)` on a detached thread; th_loop is 1 before it runs. The record belongs to the caller and
// must outlive the thread. 0, or -1 with message 2000136 in the error.
int StartWorkerThread(__qx_thread* thread, void* (*start)(void*), void* arg, qx7_error* error);

// Blocks all signals in the calling thread, so that handlers run on the main thread only; the former mask, if
// wanted, goes to `old`. For threads that are started by other means.
int block_all_signals(sigset_t* old);
