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

void drain_pipe(int fd) {
    char bytes[256];
    while (read(fd, bytes, sizeof bytes) == sizeof bytes) {
    }
    // Less than that was all. A failure shows at the next wait.
}

int make_pipe(int (&ends)[2]) {
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) {
        return -1;
    }
    return descriptors_in_range(ends);
}

// `awake` tells that no byte is wanted: one stands in the pipe already, or the reader is at work and looks for
// more by itself. The reader clears it before it looks for work and waits.
int wake(int fd, std::atomic<int>* awake, char letter) {
    if (awake->exchange(1) != 0) {
        return 0;
    }
    int saved = errno;
    // A full pipe wakes as well as one byte more would.
    bool ok = fd >= 0 && (write(fd, &letter, 1) == 1 || errno == EAGAIN);
    errno = saved;
    if (!ok) {
        awake->store(0);
    }
    return ok ? 0 : -1;
}

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
    __log(2000134, "%s|", thread_name(ccm->pcx));
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

bool send_queue_filled(ccm_channel_t* channel) {
    spin_guard guard(&channel->queue_lock);
    return channel->sendq.first != nullptr;
}

struct wait_plan {
    int highest = -1;
    int timeout_seconds;
};

void plan_channel(ccm_context_t* ccm, ccm_channel_t* channel, time_t now, wait_plan* plan) {
    if (channel_has(channel, CH_FLAG_DELETED)) {
        ccm->flag.fetch_or(CCM_FLAG_CHANNELS_TO_DELETE);
        return;
    }
    int s = channel->s.load();
    if (channel->type.load(std::memory_order_acquire) == CH_TYPE_PLACEHOLDER || s < 0) {
        return;
    }
    bool to_send = send_queue_filled(channel);
    if (!to_send && channel_has(channel, CH_FLAG_DELETE_WHEN_SENT)) {
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
            channel_fail(ccm, channel, 2002036, "%s|%d(%s),S(%d(ID=%d))|", channel->addr, EBADF,
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
    ccm_error_set(err, number, 2000102, "select(%d,RSET[%s],WSET[%s])|%d-%s|", plan.highest + 1,
                  set_text(read_set, plan.highest).c_str(), set_text(write_set, plan.highest).c_str(), number,
                  strerror(number));
    ccm_error_t copy;
    __log(2000102, "%s", (err != nullptr ? err : &copy)->msginsert);
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

// What has waited for the server must not overtake the logon, nor come before the server's answer to it.
bool waits_for_logon(const ccm_context_t* ccm, const ccm_channel_t* channel, const ccm_msg_t* msg) {
    return ccm->pcx->running_mode == MODE_AGENT && msg->type == CCM_MSG_NAT &&
           (msg->flag & CCM_MSG_FLAG_KEEP) != 0 && channel->type.load() == CH_TYPE_SERVER &&
           (ccm->pcx->pcx_flag.load() & PCX_FLAG_LOGGED_IN) == 0;
}

// Destination of a queued message. With a channel channel_lock is held.
ccm_channel_t* find_destination(ccm_context_t* ccm, ccm_msg_t* msg) {
    if (msg->addr.dst_ID != 0) {
        return ccm_channel_getbyID(ccm, msg->addr.dst_ID);
    }
    if (strncmp(msg->addr.dst_addr, "*CP", 3) == 0) {
        copy_text(msg->addr.dst_addr, ccm_name_server);
    }
    ccm_channel_t* channel = ccm_channel_getbyName(ccm, msg->addr.dst_addr);
    if (channel != nullptr && msg->type == CCM_MSG_NAT && field_text(channel->name) == ccm_name_server &&
        (channel->type.load() != CH_TYPE_SERVER || !channel_has(channel, CH_FLAG_SEALED))) {
        ccm_channel_unlock(ccm);  // chosen, but not the server yet
        return nullptr;
    }
    if (channel != nullptr && waits_for_logon(ccm, channel, msg)) {
        ccm_channel_unlock(ccm);
        return nullptr;
    }
    return channel;
}

// Under channel_lock and the channel's queue_lock.
bool takes_no_more(const ccm_channel_t* channel, const ccm_msg_t* msg) {
    return channel->sendq.first != nullptr && channel->sendq_bytes + msg->len > ccm_queue_limit;
}

void give_up_full_channel(ccm_context_t* ccm, ccm_channel_t* channel) {
    char reason[256];
    snprintf(reason, sizeof reason,
             "%.63s(ID=%d) takes nothing: %lld bytes in %d messages wait for it, the connection is closed",
             channel->addr, channel->ID, static_cast<long long>(channel->sendq_bytes), channel->nof_sendq);
    channel_note_reason(channel, -1, reason);
    ccm_channel_delete(ccm, channel);
}

// True when the message has found its channel.
bool dispatch_one(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_channel_t* channel = find_destination(ccm, msg);
    if (channel == nullptr) {
        return false;
    }
    bool full;
    {
        spin_guard guard(&channel->queue_lock);
        full = takes_no_more(channel, msg);
    }
    if (full) {
        give_up_full_channel(ccm, channel);
        ccm_channel_unlock(ccm);
        return false;
    }
    msg->pATctx = channel->pATctx;
    if (msg->type == CCM_MSG_NAT && channel_has(channel, CH_FLAG_SEALED)) {
        msg->flag |= CCM_MSG_FLAG_SEAL;
    }
    {
        spin_guard guard(&channel->queue_lock);
        queue_append(&channel->sendq, msg);
        sendq_joined(channel, msg);
    }
    ccm_channel_unlock(ccm);
    return true;
}

// Messages that wait for their channel: the oldest go when there are too many.
struct kept_messages {
    ccm_msg_queue queue{};
    int count = 0;
    int64_t bytes = 0;
};

void keep_or_free(ccm_context_t* ccm, ccm_msg_t* msg, kept_messages* kept) {
    if ((msg->flag & CCM_MSG_FLAG_KEEP) == 0) {
        ccm_msg_free(ccm, msg);
        return;
    }
    queue_append(&kept->queue, msg);
    ++kept->count;
    kept->bytes += msg->len;
    while (kept->count > 1 && (kept->count > ccm_msg_kept_max || kept->bytes > ccm_queue_limit)) {
        ccm_msg_t* oldest = queue_take(&kept->queue);
        --kept->count;
        kept->bytes -= oldest->len;
        __log(-1, "more than %d messages or %lld bytes wait for a partner: the oldest is given up", ccm_msg_kept_max,
              static_cast<long long>(ccm_queue_limit));
        ccm_msg_free(ccm, oldest);
    }
}

}  // namespace

int64_t ccm_queue_limit = 128LL << 20;

void sendq_joined(ccm_channel_t* channel, ccm_msg_t* msg) {
    msg->queued = msg->len;
    ++channel->nof_sendq;
    channel->sendq_bytes += msg->queued;
}

void sendq_left(ccm_channel_t* channel, const ccm_msg_t* msg) {
    --channel->nof_sendq;
    channel->sendq_bytes -= msg->queued;
}

void keep_unsent(ccm_context_t* ccm, ccm_channel_t* channel) {
    ccm_msg_queue unsent{};
    {
        spin_guard guard(&channel->queue_lock);
        std::swap(unsent, channel->sendq);
        channel->nof_sendq = 0;
        channel->sendq_bytes = 0;
    }
    kept_messages kept;
    while (ccm_msg_t* msg = queue_take(&unsent)) {
        // One for this channel alone has nowhere else to go.
        if ((msg->flag & CCM_MSG_FLAG_KEEP) == 0 || msg->addr.dst_ID != 0) {
            ccm_msg_free(ccm, msg);
            continue;
        }
        if (msg->plain_start != nullptr) {
            msg->msg_start = msg->plain_start;
            msg->len = msg->plain_len;
            msg->plain_start = nullptr;
        }
        msg->pos = 0;
        msg->pATctx = nullptr;
        keep_or_free(ccm, msg, &kept);
    }
    if (kept.count == 0) {
        return;
    }
    spin_guard guard(&ccm->queue_lock);
    kept.queue.last->nxt = ccm->msgq_kept.first;
    if (ccm->msgq_kept.first == nullptr) {
        ccm->msgq_kept.last = kept.queue.last;
    }
    ccm->msgq_kept.first = kept.queue.first;
    ccm->nof_kept += kept.count;
    ccm->kept_bytes += kept.bytes;
}

int ccm_thread_start(ccm_context_t* ccm, ccm_error_t* err) {
    if ((ccm->network_wakeup[0] < 0 && make_pipe(ccm->network_wakeup) != 0) ||
        (ccm->processor_wakeup[0] < 0 && make_pipe(ccm->processor_wakeup) != 0)) {
        return ccm_error_set(err, errno, 2000102, "pipe(wakeups)|%d-%s|", errno, strerror(errno));
    }
    // Only here: a stop that comes before the thread first runs must not be overwritten by it.
    ccm->loop.store(1);
    sigset_t old;
    block_all_signals(&old);
    int result = pthread_create(&ccm->thread, nullptr, ccm_thread_run, ccm);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (result != 0) {
        ccm->loop.store(0);
        return ccm_error_set(err, result, 2000136, "%s|%s=%d(%d-%s)", "CCM-thread", "pthread_create()",
                             result, result, strerror(result));
    }
    ccm->thread_started.store(1);
    return 0;
}

int ccm_thread_stop(ccm_context_t* ccm) {
    ccm->loop.store(0);
    ccm->network_awake.store(0);  // the thread may have looked at its loop already: it needs the byte
    return ccm_wakeup_network(ccm);
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

int ccm_wakeup_network(ccm_context_t* ccm) {
    return wake(ccm->network_wakeup[1], &ccm->network_awake, 'N');
}

int ccm_wakeup_processor(ccm_context_t* ccm) {
    return wake(ccm->processor_wakeup[1], &ccm->processor_awake, 'P');
}

namespace {

int wait_processor_ms(ccm_context_t* ccm, int milliseconds, ccm_error_t* err) {
    pollfd wait{ccm->processor_wakeup[0], POLLIN, 0};
    int ready = poll(&wait, 1, milliseconds);
    int number = errno;
    if (ready > 0 && (wait.revents & POLLNVAL) != 0) {
        ready = -1;
        number = EBADF;
    }
    if (ready < 0 && number != EINTR) {
        return ccm_error_set(err, number, 2000102, "select(processor_wakeup(%d))|%d-%s", wait.fd, number,
                             strerror(number));
    }
    if (ready > 0) {
        drain_pipe(wait.fd);
        ccm->processor_awake.store(0);
    }
    return 0;
}

ccm_msg_t* take_received(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    return queue_take(&ccm->recvq);
}

int receive_within(ccm_context_t* ccm, int milliseconds, ccm_msg_t** out, ccm_error_t* err) {
    *out = take_received(ccm);
    if (*out == nullptr) {
        if (wait_processor_ms(ccm, milliseconds, err) != 0) {
            return -1;
        }
        *out = take_received(ccm);
    }
    return *out == nullptr ? 0 : 1;
}

}  // namespace

int ccm_wait_processor(ccm_context_t* ccm, int seconds, ccm_error_t* err) {
    return wait_processor_ms(ccm, seconds * 1000, err);
}

int ccm_receive_message(ccm_context_t* ccm, int timeout_seconds, ccm_msg_t** out, ccm_error_t* err) {
    return receive_within(ccm, timeout_seconds * 1000, out, err);
}

int ccm_receive_message_until(ccm_context_t* ccm, time_t due, ccm_msg_t** out, ccm_error_t* err) {
    // Whatever is due already was seen to in the pass before this wait; what that left alone must not make the
    // loop spin.
    constexpr int64_t shortest = 20;
    constexpr int64_t longest = INT_MAX;
    const int64_t left = static_cast<int64_t>(due) * 1000 - alarm_now_ms();
    return receive_within(ccm, static_cast<int>(std::clamp(left, shortest, longest)), out, err);
}

bool ccm_recvq_empty(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    return ccm->recvq.first == nullptr;
}

int ccm_network_sync(ccm_context_t* ccm, int milliseconds) {
    if (ccm->thread_started.load() == 0) {
        return -1;
    }
    // The cycle that runs now may have begun before the call; the one behind it has not.
    unsigned long wanted = ccm->cycles.load() + 2;
    int64_t end = alarm_now_ms() + milliseconds;
    while (static_cast<long>(ccm->cycles.load() - wanted) < 0) {
        if (alarm_now_ms() > end) {
            return -1;
        }
        ccm_wakeup_network(ccm);
        timespec pause{0, 100000};
        nanosleep(&pause, nullptr);
    }
    return 0;
}

int ccm_channel_hold(ccm_context_t* ccm, int id) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    channel->flag.fetch_or(CH_FLAG_NO_READ);
    ccm_channel_unlock(ccm);
    return ccm_network_sync(ccm, 5000);
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

// Messages that wait for their channel come first, in their order; then what was sent since the last cycle.
void ccm_dispatch_send_messages(ccm_context_t* ccm) {
    ccm_msg_queue waiting{};
    {
        spin_guard guard(&ccm->queue_lock);
        if (ccm->sendq.first == nullptr && ccm->msgq_kept.first == nullptr) {
            return;
        }
        std::swap(ccm->msgq_2dispatch, ccm->sendq);
        std::swap(waiting, ccm->msgq_kept);
        ccm->in_dispatch = true;
    }
    kept_messages kept;
    while (ccm_msg_t* msg = queue_take(&waiting)) {
        if (!dispatch_one(ccm, msg)) {
            keep_or_free(ccm, msg, &kept);
        }
    }
    for (;;) {
        ccm_msg_t* msg;
        {
            spin_guard guard(&ccm->queue_lock);
            msg = queue_take(&ccm->msgq_2dispatch);
        }
        if (msg == nullptr) {
            break;
        }
        if (!dispatch_one(ccm, msg)) {
            keep_or_free(ccm, msg, &kept);
        }
    }
    spin_guard guard(&ccm->queue_lock);
    ccm->msgq_kept = kept.queue;
    ccm->nof_kept = kept.count;
    ccm->kept_bytes = kept.bytes;
    ccm->in_dispatch = false;
}

int ccm_network_select(ccm_context_t* ccm, int timeout_seconds, ccm_error_t* err) {
    ccm->network_awake.exchange(0);
    {
        spin_guard guard(&ccm->channel_lock);
        ccm_channel_merge_newq(ccm);
    }
    ccm_dispatch_send_messages(ccm);
    wait_plan plan = plan_wait(ccm, timeout_seconds);
    timeval timeout{plan.timeout_seconds, 0};
    // No exception set: one urgent byte of a stranger would keep it ready for ever.
    int ready = select(plan.highest + 1, read_set.native(), write_set.native(), nullptr, &timeout);
    ccm->network_awake.store(1);
    if (ready < 0) {
        return report_select(ccm, plan, errno, err);
    }
    if (ready == 0) {
        return 0;
    }
    int pipe = ccm->network_wakeup[0];
    if (pipe >= 0 && read_set.has(pipe)) {
        drain_pipe(pipe);
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
            queue_append(channel_has(channel, CH_FLAG_DELETED) ? &dead : &live, channel);
        }
        ccm->channelq = live;
    }
    for (ccm_channel_t *channel = dead.first, *next; channel != nullptr; channel = next) {
        next = channel->nxt;
        channel_destroy(ccm, channel);
    }
}
