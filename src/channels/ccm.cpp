#include "channels/ccm.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/locks.h"
#include "base/message_numbers.h"
#include "channels/connect.h"
#include "channels/internal.h"
#include "channels/resolver.h"

namespace {

constexpr int spins_before_yield = 200;

thread_local int spin_locks_held = 0;

void acquire_channel_lock(void* context) {
    pthread_spin_lock(&static_cast<ccm_context_t*>(context)->channel_lock);
}

void release_channel_lock(void* context) {
    pthread_spin_unlock(&static_cast<ccm_context_t*>(context)->channel_lock);
}

void acquire_queue_lock(void* context) {
    pthread_spin_lock(&static_cast<ccm_context_t*>(context)->queue_lock);
}

void release_queue_lock(void* context) {
    pthread_spin_unlock(&static_cast<ccm_context_t*>(context)->queue_lock);
}

// channel_lock is held, so no channel comes or goes.
template <class Action>
void for_all_channels(void* context, Action action) {
    auto* ccm = static_cast<ccm_context_t*>(context);
    for (ccm_channel_t* head : {ccm->channelq.first, ccm->channel_newq.first}) {
        for (ccm_channel_t* channel = head; channel != nullptr; channel = channel->nxt) {
            action(channel);
        }
    }
}

void acquire_channel_queues(void* context) {
    for_all_channels(context, [](ccm_channel_t* channel) { pthread_spin_lock(&channel->queue_lock); });
}

void release_channel_queues(void* context) {
    for_all_channels(context, [](ccm_channel_t* channel) { pthread_spin_unlock(&channel->queue_lock); });
}

void renew_channel_lock(void* context) {
    pthread_spin_init(&static_cast<ccm_context_t*>(context)->channel_lock, PTHREAD_PROCESS_PRIVATE);
    spin_forget();
}

void renew_queue_lock(void* context) {
    pthread_spin_init(&static_cast<ccm_context_t*>(context)->queue_lock, PTHREAD_PROCESS_PRIVATE);
}

void renew_channel_queues(void* context) {
    for_all_channels(context, [](ccm_channel_t* channel) {
        pthread_spin_init(&channel->queue_lock, PTHREAD_PROCESS_PRIVATE);
    });
}

// The network thread's sets hold so many descriptors; a higher one could not be watched.
void cap_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= ccm_descriptor_limit) {
        return;
    }
    limit.rlim_cur = ccm_descriptor_limit;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        // Not fatal: every new descriptor is tested as well.
        __log(number_call_failed, "setrlimit(RLIMIT_NOFILE)|%d(%s)|", errno, strerror(errno));
    }
}

void close_pipe(int ends[2]) {
    for (int i = 0; i < 2; ++i) {
        if (ends[i] >= 0) {
            close(ends[i]);
            ends[i] = -1;
        }
    }
}

}  // namespace

void spin_take(pthread_spinlock_t* lock) {
    // Held for a few instructions, except across a fork: then the processor is worth more elsewhere.
    for (int tries = 0; pthread_spin_trylock(lock) != 0; ++tries) {
        if (tries >= spins_before_yield) {
            sched_yield();
        }
    }
    ++spin_locks_held;
}

void spin_release(pthread_spinlock_t* lock) {
    --spin_locks_held;
    pthread_spin_unlock(lock);
}

void spin_forget() {
    spin_locks_held = 0;
}

bool ccm_holds_spin_lock() {
    return spin_locks_held != 0;
}

void ccm_assert_no_spin_lock() {
    if (spin_locks_held != 0) {
        static constexpr char text[] = "channel manager: a spin lock is held over a call that may wait\n";
        // The process ends in the next statement; a failed write changes nothing.
        [[maybe_unused]] ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
        abort();
    }
}

void register_fork_locks(ccm_context_t* ccm) {
    fork_lock_register(FORK_LOCK_CHANNEL,
                       {acquire_channel_lock, release_channel_lock, renew_channel_lock, ccm});
    fork_lock_register(FORK_LOCK_QUEUE, {acquire_queue_lock, release_queue_lock, renew_queue_lock, ccm});
    fork_lock_register(FORK_LOCK_CHANNEL_QUEUES,
                       {acquire_channel_queues, release_channel_queues, renew_channel_queues, ccm});
}

void unregister_fork_locks() {
    fork_lock_unregister(FORK_LOCK_CHANNEL_QUEUES);
    fork_lock_unregister(FORK_LOCK_QUEUE);
    fork_lock_unregister(FORK_LOCK_CHANNEL);
}

int ccm_open(EX_PCX* pcx, ccm_context_t** out, ccm_error_t* err) {
    *out = nullptr;
    void* memory = calloc(1, sizeof(ccm_context_t));
    if (memory == nullptr) {
        return qx_error_set(err, -1, errno, number_no_memory, "%s/%s(%d)", "CCM_OPEN", __FILE__, __LINE__);
    }
    auto* ccm = new (memory) ccm_context_t{};
    memcpy(ccm->eyec, "##CCM_CONEXT####", sizeof ccm->eyec);
    ccm->pcx = pcx;
    pthread_spin_init(&ccm->channel_lock, PTHREAD_PROCESS_PRIVATE);
    pthread_spin_init(&ccm->queue_lock, PTHREAD_PROCESS_PRIVATE);
    ccm->unique_channel_ID = 1;
    ccm->unique_msg_ID = 1;
    for (int* end : {&ccm->network_wakeup[0], &ccm->network_wakeup[1], &ccm->processor_wakeup[0],
                     &ccm->processor_wakeup[1]}) {
        *end = -1;
    }
    cap_descriptor_limit();
    ccm_error_t ipv6;
    if (ccm_check_ipv6_support(&ipv6) == 0) {
        ccm->flag.fetch_or(CCM_FLAG_IPV6);
    } else {
        __log(ipv6.qx_msgnr, "%s|", ipv6.qx_msgInsert);
        __log(number_no_ipv6, "%s", "");
    }
    register_fork_locks(ccm);
    *out = ccm;
    return 0;
}

int ccm_close(ccm_context_t* ccm, ccm_error_t*) {
    if (ccm == nullptr) {
        return 0;
    }
    resolver_forget(ccm);
    unregister_fork_locks();
    for (ccm_msg_queue* queue : {&ccm->sendq, &ccm->recvq, &ccm->msgq_2dispatch, &ccm->msgq_kept}) {
        queue_free_all(ccm, queue, &ccm->queue_lock);
    }
    while (ccm->msgq_inuse != nullptr) {
        ccm_msg_free(ccm, ccm->msgq_inuse);
    }
    ccm_msg_queue pool{};
    {
        spin_guard guard(&ccm->queue_lock);
        std::swap(pool, ccm->msg_freeq);
        ccm->nof_freemsg = 0;
    }
    while (ccm_msg_t* msg = queue_take(&pool)) {
        free(msg);
    }
    pthread_spin_destroy(&ccm->channel_lock);
    pthread_spin_destroy(&ccm->queue_lock);
    close_pipe(ccm->network_wakeup);
    close_pipe(ccm->processor_wakeup);
    ccm->~ccm_context_t();
    free(ccm);
    return 0;
}

void ccm_channel_closeall(ccm_context_t* ccm) {
    resolver_forget(ccm);
    if (ccm == nullptr) {
        return;
    }
    ccm_channel_t* first;
    {
        spin_guard guard(&ccm->channel_lock);
        ccm_channel_merge_newq(ccm);
        first = ccm->channelq.first;
        ccm->channelq = {};
    }
    while (first != nullptr) {
        ccm_channel_t* next = first->nxt;
        channel_destroy(ccm, first);
        first = next;
    }
}

ccm_connect_user_context_t* ccm_user_context_new(int gss_len) {
    if (gss_len < 0) {
        return nullptr;
    }
    auto* context = static_cast<ccm_connect_user_context_t*>(
        calloc(1, sizeof(ccm_connect_user_context_t) + static_cast<size_t>(gss_len)));
    if (context != nullptr) {
        memcpy(context->ccmaddr.eyec, "#CCMADDR", sizeof context->ccmaddr.eyec);
        context->gss_len = gss_len;
    }
    return context;
}

unsigned char* ccm_user_context_content(ccm_connect_user_context_t* context) {
    return reinterpret_cast<unsigned char*>(context) + offsetof(ccm_connect_user_context_t, gss_content);
}

void ccm_user_context_free(ccm_connect_user_context_t* context) {
    if (context == nullptr) {
        return;
    }
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &context->pDelegCred);
    qx_wipe(context, sizeof *context + static_cast<size_t>(context->gss_len));
    free(context);
}

bool ccm_name_acceptable(const char* name, size_t length) {
    constexpr size_t longest = 32;
    if (length == 0 || length > longest || name[0] == '*') {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        auto byte = static_cast<unsigned char>(name[i]);
        if (byte < 33 || byte > 126) {
            return false;
        }
    }
    return true;
}
