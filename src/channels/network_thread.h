// The network thread: distributes messages to channels, reads, cuts, unseals and classifies frames, seals and
// writes what is queued, and destroys deleted channels. It runs no application logic and waits only in
// select.
#pragma once

#include "channels/messages.h"

// Creates the wake-up pipes and starts the thread. -1 with 2000102 "pipe(wakeups)|%d-%s|" or 2000136.
// Main thread.
int ccm_thread_start(ccm_context_t* ccm, ccm_error_t* err);
// Tells the thread to end; the caller joins `ccm->thread`.
int ccm_thread_stop(ccm_context_t* ccm);
// Stops and joins, when it runs.
void ccm_thread_end(ccm_context_t* ccm);
// The same, but waits `seconds` at most: false when it still runs then, and what it uses must not be freed.
bool ccm_thread_end_within(ccm_context_t* ccm, int seconds);

// Async-signal safe, keep errno, never block. A full pipe is a success.
int ccm_wakeup_network(ccm_context_t* ccm);
int ccm_wakeup_processor(ccm_context_t* ccm);

// Head of the receive queue, after waiting at most `timeout_seconds` for one. 1 with a message, 0 without, -1
// on an error of the wait. Main thread.
int ccm_receive_message(ccm_context_t* ccm, int timeout_seconds, ccm_msg_t** out, ccm_error_t* err);
// The same, waiting at most until the alarm clock shows `due`.
int ccm_receive_message_until(ccm_context_t* ccm, time_t due, ccm_msg_t** out, ccm_error_t* err);
// Waits for the processor's wake-up pipe and empties it. 0, or -1 with 2000102. A signal ends the wait.
int ccm_wait_processor(ccm_context_t* ccm, int seconds, ccm_error_t* err);
// Whether the receive queue is empty.
bool ccm_recvq_empty(ccm_context_t* ccm);
// Whether a message waits there for which `wanted` is true. That is called with the queue's lock held, and only
// looks. Main thread.
bool ccm_message_waits(ccm_context_t* ccm, bool (*wanted)(const ccm_msg_t* msg, const void* context),
                       const void* context);

// Wakes the thread and waits until it has ended a cycle that began after the call: what was marked before is
// in force then. 0, or -1 after `milliseconds` or without a thread. Main thread.
int ccm_network_sync(ccm_context_t* ccm, int milliseconds);
// Sets CH_FLAG_NO_READ and waits for that cycle, so that nobody reads the socket any more.
int ccm_channel_hold(ccm_context_t* ccm, int id);

// ---- one cycle and its steps, for the thread and for tests without one

int ccm_network_select(ccm_context_t* ccm, int timeout_seconds, ccm_error_t* err);
void ccm_channel_merge_newq(ccm_context_t* ccm);
void ccm_dispatch_send_messages(ccm_context_t* ccm);
void ccm_destroy_deleted_channels(ccm_context_t* ccm);
