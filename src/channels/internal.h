// What the files of this folder share. Not for others.
#pragma once

#include <netinet/in.h>

#include "base/context.h"
#include "base/memory.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/ipc_records.h"
#include "channels/messages.h"
#include "channels/network_thread.h"
#include "log/log.h"
#include "log/trace.h"

// ---- locks: counted for each thread, so that a lock held over something slow is found at once

void spin_take(pthread_spinlock_t* lock);
void spin_release(pthread_spinlock_t* lock);

struct spin_guard {
    pthread_spinlock_t* lock;
    explicit spin_guard(pthread_spinlock_t* spin) : lock(spin) { spin_take(lock); }
    ~spin_guard() { spin_release(lock); }
    spin_guard(const spin_guard&) = delete;
    spin_guard& operator=(const spin_guard&) = delete;
};

// Forked child: this thread holds nothing any more.
void spin_forget();
void register_fork_locks(ccm_context_t* ccm);
void unregister_fork_locks();

// ---- queues: chained through nxt

void queue_append(ccm_msg_queue* queue, ccm_msg_t* msg);
ccm_msg_t* queue_take(ccm_msg_queue* queue);
void queue_append(ccm_channel_queue* queue, ccm_channel_t* channel);
// Under the context's queue_lock.
void inuse_link(ccm_context_t* ccm, ccm_msg_t* msg);
void inuse_unlink(ccm_context_t* ccm, ccm_msg_t* msg);

// Takes everything out of a queue and frees it; `lock` guards the queue.
void queue_free_all(ccm_context_t* ccm, ccm_msg_queue* queue, pthread_spinlock_t* lock);

void backlog_release(ccm_backlog_t* backlog);

// ---- channels

inline bool channel_has(const ccm_channel_t* channel, int flag) {
    return (channel->flag.load(std::memory_order_acquire) & flag) != 0;
}

// Network thread: notes the reason (0: none) and marks the channel deleted. Takes channel_lock.
void channel_fail(ccm_context_t* ccm, ccm_channel_t* channel, int msgnr, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// Under channel_lock: notes the reason if there is none yet.
void channel_note_reason(ccm_channel_t* channel, int msgnr, const char* insert);
// Under channel_lock or before chaining.
void channel_image(const ccm_channel_t* channel, ccm_channel_image_t* out);
// The channel is in no queue any more: logs, posts CHANNEL_CLOSE, frees. No lock held.
void channel_destroy(ccm_context_t* ccm, ccm_channel_t* channel);
void channel_post_close(ccm_context_t* ccm, const ccm_channel_t* channel, bool with_user_context);
// Frees the record and what it owns, without log or event. `free_user_context` false leaves `cuc`.
void channel_free(ccm_context_t* ccm, ccm_channel_t* channel, bool free_user_context);

// A socket whose connect is on its way, or -1; `id` is its channel's, for the error. Any thread.
int connect_socket(int id, const sockaddr_in6& address, ccm_error_t* err);

// Whether a descriptor can be watched; one that is too high is closed, with errno EMFILE.
int descriptor_in_range(int fd);
// Both ends of a pair: 0, or -1 with both closed and set to -1, errno EMFILE.
int descriptors_in_range(int (&ends)[2]);

// ---- wake-ups

// Makes the pipes that are not there. 0, or -1 with errno.
int wakeups_open(ccm_context_t* ccm);
// The network thread calls the first before it looks at what is to be done, the others around its wait.
// False: it was called since it looked, and must not wait.
void network_looks(ccm_context_t* ccm);
bool network_begins_wait(ccm_context_t* ccm);
void network_ends_wait(ccm_context_t* ccm, bool called);
// The thread may have looked at its loop before it looks at anything else: it gets its byte in any case.
int network_call_to_end(ccm_context_t* ccm);
// The main thread, once a message stands in the receive queue: costs nothing while it is busy.
void wake_for_message(ccm_context_t* ccm);

// ---- network thread

// 0, or -1 when the channel was marked deleted.
int ccm_read_channel(ccm_context_t* ccm, ccm_channel_t* channel);
int ccm_write_channel(ccm_context_t* ccm, ccm_channel_t* channel);
// Cuts and queues what stands whole in the receive buffer. 0 or -1 likewise.
int ccm_cut_frames(ccm_context_t* ccm, ccm_channel_t* channel);
// Whether frames of the channel wait until the main thread has caught up.
bool channel_held_back(ccm_channel_t* channel);
// How many callers a listener bears, how many of these places only processes of this host get, and how many
// callers of one group (ccm_caller_group) may come from other hosts. The jobs of this host all report from
// one address and must reach their agent whoever else calls. Changed by tests only.
struct ccm_accept_limits {
    int all = 512;
    int own_host = 128;
    int group = 32;
};
extern ccm_accept_limits ccm_limits;
struct ccm_caller_counts {
    int all = 0;
    int remote = 0;  // from other hosts
    int group = 0;   // of the new caller's group
};
enum ccm_room { CCM_ROOM_FREE, CCM_ROOM_GROUP_FULL, CCM_ROOM_REMOTE_FULL, CCM_ROOM_FULL };
// Whether there is room for one more caller.
ccm_room ccm_judge_caller(const ccm_caller_counts& now, bool own_host);
void ccm_signal_on_listen(ccm_context_t* ccm, ccm_channel_t* channel);

// What may wait for one partner, and for partners to come. A line on which more waits, since nobody reads at
// its other end, is given up: what has flag 8 then waits for the next one, everything else asks again by
// itself or is repeated. One message alone may be larger. Changed by tests only.
extern int64_t ccm_queue_limit;
// The counts of a channel's send queue, under its queue_lock. The seal changes a message's length in between.
void sendq_joined(ccm_channel_t* channel, ccm_msg_t* msg);
void sendq_left(ccm_channel_t* channel, const ccm_msg_t* msg);
bool send_queue_filled(ccm_channel_t* channel);
// Who holds a channel's pen seals and writes: one thread at a time, so that the order of the seals is the
// order of the bytes. The channel is not destroyed meanwhile. Taken by other threads under channel_lock;
// false while somebody holds it.
bool pen_take(ccm_channel_t* channel);
// Calls the network thread when something is left for it. Not for the network thread itself.
void pen_give_back(ccm_context_t* ccm, ccm_channel_t* channel);
// What is queued, as far as the socket takes it. 0, or -1 when the channel was marked deleted. With the pen.
int write_queued(ccm_context_t* ccm, ccm_channel_t* channel);
// Spares the way through the network thread: a message that nothing stands in front of is written by its
// sender. False when it has to go that way. Any thread, no spin lock held.
bool ccm_write_at_once(ccm_context_t* ccm, ccm_msg_t* msg);
// The channel that such a message leads to, with channel_lock and its pen held, or null with neither.
ccm_channel_t* ccm_find_to_write(ccm_context_t* ccm, ccm_msg_t* msg);
// Seals a framed message that is sent later, if its channel is free now. What is sent before makes it void.
void ccm_seal_ahead(ccm_context_t* ccm, ccm_msg_t* msg);
inline constexpr int ccm_write_at_once_max = 2 * ccm_write_piece;  // longer ones are sealed beside other work
// Messages with flag 8 that a dying channel has not sent go back to those that wait, in front of them.
// Network thread, or when none runs.
void keep_unsent(ccm_context_t* ccm, ccm_channel_t* channel);

enum ccm_classified : int {
    CCM_CLASS_QUEUE = 0,
    CCM_CLASS_DROP = 1,  // the message is freed, the connection stays
    CCM_CLASS_END = -1,  // the connection ends; the reason is noted
};
// Judges a whole frame (`len` bytes at `msg_start`), opens its seal, reads its items, converts it.
ccm_classified ccm_classify_message(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg);
