// One cycle: take over new channels, hand queued messages to their channels, cut the frames that still lie in
// receive buffers, name what is waited for, `select`, serve what is ready; after it, free what was deleted
// meanwhile.
//
// Whatever the main thread does is either seen before the wait or ends it: it changes a queue or a channel
// first and calls then, and a call since the start of the cycle (`network_looks`) makes the wait one of zero
// seconds
// (`network_begins_wait`). Channels are chained by anybody into `channel_newq`, under the lock; the chain
// itself is followed, and channels are taken out of it and freed, by this thread alone. So a cycle follows
// `nxt` without a lock, and a channel that is deleted, by whomever, stays where it is until the cycle's end,
// and longer while a sender holds its pen. Its socket may be closed and the number used again: the sets count
// only for a channel that has the socket still.
#include "channels/network_thread.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>

#include "base/message_numbers.h"
#include "base/threads.h"
#include "channels/internal.h"

namespace {

// The sets of select, larger than the C library's own so that the number of sockets isn't bound to its limit.
struct descriptor_set {
    static constexpr size_t word_bits = 8 * sizeof(unsigned long);
    unsigned long words[ccm_descriptor_limit / word_bits];

    void clear(int highest) {
        memset(words, 0, (static_cast<size_t>(highest) / word_bits + 1) * sizeof words[0]);
    }
    void add(int fd) { words[static_cast<size_t>(fd) / word_bits] |= bit(fd); }
    bool has(int fd) const { return (words[static_cast<size_t>(fd) / word_bits] & bit(fd)) != 0; }
    fd_set* native() { return reinterpret_cast<fd_set*>(words); }
    static unsigned long bit(int fd) { return 1UL << (static_cast<size_t>(fd) % word_bits); }
};
static_assert(sizeof(descriptor_set) == 8192);

constexpr int failure_pause_ms = 1000;
// Whoever queues a message, makes a channel or marks one wakes the thread: the limit is a safety net only.
constexpr int longest_wait_seconds = 300;

// Network thread only (in tests: the one thread that runs cycles).
descriptor_set read_set;
descriptor_set write_set;
int highest_used = 0;

const char* thread_name(const EX_PCX* pcx) {
    switch (pcx->running_mode) {
        case MODE_LISTENER:
            return "LISTENER/CCM";
        case MODE_FTX:
            return "FTX/CCM";
        default:
            return "AGENT/CCM";
    }
}

void* ccm_thread_run(void* argument) {
    auto* ccm = static_cast<ccm_context_t*>(argument);
    __log(number_network_thread, "%s|", thread_name(ccm->pcx));
    while (ccm->loop.load() != 0) {
        ccm_error_t error;
        ccm_network_select(ccm, longest_wait_seconds, &error);
        if ((ccm->flag.load() & CCM_FLAG_CHANNELS_TO_DELETE) != 0) {
            ccm_destroy_deleted_channels(ccm);
        }
        ccm->cycles.fetch_add(1);
    }
    return nullptr;
}

std::string set_text(const descriptor_set& set, int highest) {
    std::string text;
    for (int fd = 0; fd <= highest && text.size() < 300; ++fd) {
        if (set.has(fd)) {
            text += (text.empty() ? "" : ",") + std::to_string(fd);
        }
    }
    return text;
}

struct wait_plan {
    int highest = -1;
    int timeout_seconds;
};

// What was sent before a channel is to end may not have reached its queue yet.
bool to_be_distributed(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    return ccm->sendq.first != nullptr || ccm->msgq_2dispatch.first != nullptr;
}

void plan_channel(ccm_context_t* ccm, ccm_channel_t* channel, time_t now, wait_plan* plan) {
    if (channel_has(channel, CH_FLAG_DELETED)) {
        ccm->flag.fetch_or(CCM_FLAG_CHANNELS_TO_DELETE);
        return;
    }
    int s = channel->s.load();
    if (channel->type.load(std::memory_order_acquire) == CH_TYPE_PLACEHOLDER || s < 0) {
        return;
    }
    bool filled = send_queue_filled(channel);
    if (!filled && channel_has(channel, CH_FLAG_DELETE_WHEN_SENT) && !to_be_distributed(ccm)) {
        ccm_channel_delete(ccm, channel);
        return;
    }
    // Frames that had to wait in the buffer go on without anything new from the socket.
    if (channel->recv_ready && !channel_held_back(channel) && !channel_has(channel, CH_FLAG_NO_READ)) {
        if (ccm_cut_frames(ccm, channel) != 0) {
            return;
        }
    }
    bool to_read = !channel_has(channel, CH_FLAG_NO_READ) && !channel_held_back(channel);
    if (channel->accept_rest > now) {
        to_read = false;
        plan->timeout_seconds = std::min(plan->timeout_seconds, 1);
    }
    bool to_send = filled && !channel->pen.load();  // who holds it calls when something is left
    if (to_read) {
        read_set.add(s);
    }
    if (to_send) {
        write_set.add(s);
    }
    if ((to_read || to_send) && s > plan->highest) {
        plan->highest = s;
    }
}

// Only this thread unlinks channels, and nobody changes a chained channel's nxt but this thread: the walk
// needs no lock.
wait_plan plan_wait(ccm_context_t* ccm, int timeout_seconds) {
    wait_plan plan;
    plan.timeout_seconds = timeout_seconds;
    read_set.clear(highest_used);
    write_set.clear(highest_used);
    time_t now = alarm_now();
    for (ccm_channel_t* channel = ccm->channelq.first; channel != nullptr; channel = channel->nxt) {
        plan_channel(ccm, channel, now, &plan);
    }
    int pipe = ccm->network_wakeup[0];
    if (pipe >= 0) {
        read_set.add(pipe);
        plan.highest = std::max(plan.highest, pipe);
    }
    highest_used = std::max(plan.highest, 0);
    if ((ccm->flag.load() & CCM_FLAG_CHANNELS_TO_DELETE) != 0) {
        plan.timeout_seconds = 0;
    }
    return plan;
}

// A closed descriptor would fail every wait from now on: the channel that holds it ends.
bool delete_bad_descriptors(ccm_context_t* ccm) {
    bool found = false;
    for (ccm_channel_t* channel = ccm->channelq.first; channel != nullptr; channel = channel->nxt) {
        int s = channel->s.load();
        if (s >= 0 && !channel_has(channel, CH_FLAG_DELETED) && fcntl(s, F_GETFD) < 0) {
            channel_fail(ccm, channel, number_read_failed, "%s|%d(%s),S(%d(ID=%d))|", channel->addr, EBADF,
                         strerror(EBADF), s, channel->ID);
            channel->s.store(-1);  // not ours any more: it must not be closed once it means something else
            found = true;
        }
    }
    return found;
}

int report_select(ccm_context_t* ccm, const wait_plan& plan, int number, ccm_error_t* err) {
    if (number == EINTR || number == EAGAIN) {
        return 0;
    }
    qx_error_set(err, -1, number, number_call_failed, "select(%d,RSET[%s],WSET[%s])|%d-%s|", plan.highest + 1,
                 set_text(read_set, plan.highest).c_str(), set_text(write_set, plan.highest).c_str(), number,
                 strerror(number));
    ccm_error_t copy;
    __log(number_call_failed, "%s", (err != nullptr ? err : &copy)->qx_msgInsert);
    if (number != EBADF || !delete_bad_descriptors(ccm)) {
        poll(nullptr, 0, failure_pause_ms);  // nothing was mended: the next wait would fail at once, for ever
    }
    return -1;
}

void serve_channel(ccm_context_t* ccm, ccm_channel_t* channel, int s, bool readable, bool writable) {
    if (readable) {
        if (channel->type.load() == CH_TYPE_LISTEN) {
            ccm_signal_on_listen(ccm, channel);
            return;
        }
        if (!channel_has(channel, CH_FLAG_NO_READ) && ccm_read_channel(ccm, channel) != 0) {
            return;
        }
    }
    if (writable && !channel_has(channel, CH_FLAG_DELETED) && channel->s.load() == s) {
        ccm_write_channel(ccm, channel);
    }
}

}  // namespace

int ccm_thread_start(ccm_context_t* ccm, ccm_error_t* err) {
    if (wakeups_open(ccm) != 0) {
        return qx_error_set(err, -1, errno, number_call_failed, "pipe(wakeups)|%d-%s|", errno,
                            strerror(errno));
    }
    // Only here: a stop that comes before the thread first runs must not be overwritten by it.
    ccm->loop.store(1);
    sigset_t old;
    block_all_signals(&old);
    int result = pthread_create(&ccm->thread, nullptr, ccm_thread_run, ccm);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (result != 0) {
        ccm->loop.store(0);
        return qx_error_set(err, -1, result, number_thread_failed, "%s|%s=%d(%d-%s)", "CCM-thread",
                            "pthread_create()", result, result, strerror(result));
    }
    ccm->thread_started.store(1);
    return 0;
}

int ccm_thread_stop(ccm_context_t* ccm) {
    ccm->loop.store(0);
    return network_call_to_end(ccm);
}

void ccm_thread_end(ccm_context_t* ccm) {
    if (ccm != nullptr && ccm->thread_started.exchange(0) != 0) {
        ccm_thread_stop(ccm);
        pthread_join(ccm->thread, nullptr);
    }
}

bool ccm_thread_end_within(ccm_context_t* ccm, int seconds) {
    if (ccm == nullptr || ccm->thread_started.load() == 0) {
        return true;
    }
    ccm_thread_stop(ccm);
    timespec limit{};
    clock_gettime(CLOCK_REALTIME, &limit);  // the only clock that this join knows
    limit.tv_sec += seconds;
    if (pthread_timedjoin_np(ccm->thread, nullptr, &limit) != 0) {
        return false;
    }
    ccm->thread_started.store(0);
    return true;
}

void ccm_channel_merge_newq(ccm_context_t* ccm) {
    if (ccm->channel_newq.first == nullptr) {
        return;
    }
    if (ccm->channelq.last == nullptr) {
        ccm->channelq.first = ccm->channel_newq.first;
    } else {
        ccm->channelq.last->nxt = ccm->channel_newq.first;
    }
    ccm->channelq.last = ccm->channel_newq.last;
    ccm->channel_newq = {};
}

int ccm_network_select(ccm_context_t* ccm, int timeout_seconds, ccm_error_t* err) {
    network_looks(ccm);
    {
        spin_guard guard(&ccm->channel_lock);
        ccm_channel_merge_newq(ccm);
    }
    ccm_dispatch_send_messages(ccm);
    wait_plan plan = plan_wait(ccm, timeout_seconds);
    timeval timeout{network_begins_wait(ccm) ? plan.timeout_seconds : 0, 0};
    // No exception set: one urgent byte of a stranger would keep it ready for ever.
    int ready = select(plan.highest + 1, read_set.native(), write_set.native(), nullptr, &timeout);
    int number = errno;
    int pipe = ccm->network_wakeup[0];
    network_ends_wait(ccm, ready > 0 && pipe >= 0 && read_set.has(pipe));
    if (ready < 0) {
        return report_select(ccm, plan, number, err);
    }
    if (ready == 0) {
        return 0;
    }
    for (ccm_channel_t *channel = ccm->channelq.first, *next; channel != nullptr; channel = next) {
        next = channel->nxt;
        int s = channel->s.load();
        if (s < 0 || channel_has(channel, CH_FLAG_DELETED) || s > plan.highest) {
            continue;
        }
        if (channel->type.load(std::memory_order_acquire) != CH_TYPE_PLACEHOLDER) {
            serve_channel(ccm, channel, s, read_set.has(s), write_set.has(s));
        }
    }
    return 0;
}

void ccm_destroy_deleted_channels(ccm_context_t* ccm) {
    ccm_channel_queue dead{};
    {
        spin_guard guard(&ccm->channel_lock);
        ccm->flag.fetch_and(~CCM_FLAG_CHANNELS_TO_DELETE);
        ccm_channel_merge_newq(ccm);
        ccm_channel_queue live{};
        for (ccm_channel_t *channel = ccm->channelq.first, *next; channel != nullptr; channel = next) {
            next = channel->nxt;
            const bool in_use = channel->pen.load();  // then the next cycle finds it
            queue_append(channel_has(channel, CH_FLAG_DELETED) && !in_use ? &dead : &live, channel);
        }
        ccm->channelq = live;
    }
    for (ccm_channel_t *channel = dead.first, *next; channel != nullptr; channel = next) {
        next = channel->nxt;
        channel_destroy(ccm, channel);
    }
}
