// How the two threads wake each other, and what the main thread waits for.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "base/message_numbers.h"
#include "channels/internal.h"

namespace {

enum wake_state : int {
    WAKE_BUSY = 0,     // looks at its queues before it waits again
    WAKE_CALLED = 1,   // the same, and has something to look for
    WAKE_WAITING = 2,  // needs a byte in its pipe
};

void drain_pipe(int fd) {
    char bytes[256];
    while (read(fd, bytes, sizeof bytes) == static_cast<ssize_t>(sizeof bytes)) {
    }
    // Emptied, or EAGAIN: the caller took its time with the byte. Anything else shows at the next wait.
}

int make_pipe(int (&ends)[2]) {
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) {
        return -1;
    }
    return descriptors_in_range(ends);
}

int write_letter(int fd, char letter) {
    int saved = errno;
    // A full pipe wakes as well as one byte more would.
    bool ok = write(fd, &letter, 1) == 1 || errno == EAGAIN;
    errno = saved;
    return ok ? 0 : -1;
}

// A thread that does not wait finds the mark before it does.
int wake(int fd, std::atomic<int>* state, char letter) {
    return state->exchange(WAKE_CALLED) == WAKE_WAITING ? write_letter(fd, letter) : 0;
}

// False when the thread was called since its last wait: it looks at everything again first.
bool begin_wait(std::atomic<int>* state) {
    int busy = WAKE_BUSY;
    if (state->compare_exchange_strong(busy, WAKE_WAITING)) {
        return true;
    }
    state->store(WAKE_BUSY);
    return false;
}

}  // namespace

int ccm_wakeup_network(ccm_context_t* ccm) {
    return wake(ccm->network_wakeup[1], &ccm->network_wake, 'N');
}

int ccm_wakeup_processor(ccm_context_t* ccm) {
    return wake(ccm->processor_wakeup[1], &ccm->processor_wake, 'P');
}

int network_call_to_end(ccm_context_t* ccm) {
    ccm->network_wake.store(WAKE_WAITING);
    return ccm_wakeup_network(ccm);
}

int wakeups_open(ccm_context_t* ccm) {
    return (ccm->network_wakeup[0] < 0 && make_pipe(ccm->network_wakeup) != 0) ||
                   (ccm->processor_wakeup[0] < 0 && make_pipe(ccm->processor_wakeup) != 0)
               ? -1
               : 0;
}

void network_looks(ccm_context_t* ccm) {
    ccm->network_wake.store(WAKE_BUSY);
}

bool network_begins_wait(ccm_context_t* ccm) {
    return begin_wait(&ccm->network_wake);
}

void network_ends_wait(ccm_context_t* ccm, bool called) {
    ccm->network_wake.store(WAKE_BUSY);
    if (called) {
        drain_pipe(ccm->network_wakeup[0]);
    }
}

void wake_for_message(ccm_context_t* ccm) {
    int waiting = WAKE_WAITING;
    if (ccm->processor_wake.compare_exchange_strong(waiting, WAKE_CALLED)) {
        write_letter(ccm->processor_wakeup[1],
                     'P');  // it fails only where the main thread's wait fails as well
    }
}

namespace {

ccm_msg_t* take_received(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    return queue_take(&ccm->recvq);
}

int poll_processor(ccm_context_t* ccm, int milliseconds, ccm_error_t* err) {
    pollfd wait{ccm->processor_wakeup[0], POLLIN, 0};
    int ready = poll(&wait, 1, milliseconds);
    int number = errno;
    if (ready > 0 && (wait.revents & POLLNVAL) != 0) {
        ready = -1;
        number = EBADF;
    }
    if (ready < 0 && number != EINTR) {
        return qx_error_set(err, -1, number, number_call_failed, "select(processor_wakeup(%d))|%d-%s",
                            wait.fd, number, strerror(number));
    }
    if (ready > 0) {
        drain_pipe(wait.fd);
    }
    return 0;
}

// wake_for_message leaves no mark on a thread that is busy: the queue is looked at once more before the poll.
int wait_processor_ms(ccm_context_t* ccm, int milliseconds, ccm_error_t* err) {
    if (!begin_wait(&ccm->processor_wake)) {
        return 0;
    }
    int result = ccm_recvq_empty(ccm) ? poll_processor(ccm, milliseconds, err) : 0;
    ccm->processor_wake.store(WAKE_BUSY);
    return result;
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
    // Whatever is due already was seen to in the pass before this wait; what that left alone must not make
    // the loop spin.
    constexpr int64_t shortest = 20;
    constexpr int64_t longest = INT_MAX;
    const int64_t left = static_cast<int64_t>(due) * 1000 - alarm_now_ms();
    return receive_within(ccm, static_cast<int>(std::clamp(left, shortest, longest)), out, err);
}

bool ccm_recvq_empty(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    return ccm->recvq.first == nullptr;
}

bool ccm_message_waits(ccm_context_t* ccm, bool (*wanted)(const ccm_msg_t* msg, const void* context),
                       const void* context) {
    spin_guard guard(&ccm->queue_lock);
    for (const ccm_msg_t* msg = ccm->recvq.first; msg != nullptr; msg = msg->nxt) {
        if (wanted(msg, context)) {
            return true;
        }
    }
    return false;
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
