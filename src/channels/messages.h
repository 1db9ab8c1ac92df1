// Messages: the pool, the queues between main and network thread, and the send calls.
//
// A send call takes the message over in every case, also when it fails. A received message is freed by the
// main loop; a handler copies what it wants to keep.
#pragma once

#include "channels/ccm.h"
#include "messages/frame.h"
#include "messages/view.h"

enum ccm_msg_type : int {
    CCM_MSG_NATIVE = 0,  // connection-level item
    CCM_MSG_GSS = 1,     // handshake frame, header included
    CCM_MSG_NAT = 2,     // application message
    CCM_MSG_IPC = 3,     // internal record
};

enum ccm_msg_flag : int {
    CCM_MSG_FLAG_SEAL = 2,          // seal before sending
    CCM_MSG_FLAG_KEEP = 8,          // wait when the channel doesn't exist yet
    CCM_MSG_FLAG_RAW = 32,          // no conversion (XML)
    CCM_MSG_FLAG_CAME_SEALED = 64,  // received under a seal
};

// Who a received message comes from, as the network thread knew it when the message arrived.
enum ccm_origin : int {
    CCM_FROM_SELF = 1,        // posted by this process
    CCM_FROM_AGENT = 2,       // a child's socket pair to the agent
    CCM_FROM_LISTENER = 4,    // the agent's socket pair to a listener
    CCM_FROM_WORKER = 8,      // the agent's socket pair to a worker
    CCM_FROM_SERVER = 16,     // type 3, sealed
    CCM_FROM_CANDIDATE = 32,  // type 6
    CCM_FROM_PARTNER = 64,    // type 4, sealed
    CCM_FROM_CALLED = 128,    // type 4, not sealed yet
    CCM_FROM_STRANGER = 256,  // type 0
};

inline constexpr int ccm_msg_standard_size = 32768;
inline constexpr int ccm_msg_headroom = 256;  // in front of a body, for prefixes
inline constexpr int ccm_msg_tailroom = 512;  // behind `size` bytes, for source items and the seal
inline constexpr int ccm_msg_pool_size = 64;
inline constexpr int ccm_msg_kept_max = 1000;
inline constexpr int ccm_msg_fit_below = 8192;  // bytes up to which a queued message is fitted
inline constexpr int ccm_frame_max = frame_length_max;
inline constexpr int ccm_frame_open_max = 65536;  // on a TCP channel before sealing
inline constexpr int ccm_frame_gss_max = 4096;
inline constexpr int ccm_write_piece = 32768;  // at most in one sendmsg, for the other channels' sake
inline constexpr size_t ccm_control_size =
    CMSG_SPACE(sizeof(int));  // one descriptor; thousands of messages may wait

struct ccm_msg_t {
    char eyec[16];  // "##CCM#MESSAGE###"
    ccm_msg_t* nxt;
    ccm_msg_t* prv;  // on msgq_inuse only
    bool inuse;      // stands on msgq_inuse
    ccm_addr_t addr;
    int type;
    unsigned char protocol_key;  // key of the connection-level item
    int flag;
    int origin;  // ccm_origin of a received message
    unsigned long ID;
    int size;    // payload capacity behind the headroom of each buffer
    int len;     // bytes from msg_start on
    int pos;     // bytes of it already written to the socket
    int queued;  // bytes that its channel's queue counts for it
    int passfd;  // descriptor that the message owns, -1 without one
    int agentID;
    gss_ctx_id_t pATctx;       // of the channel that it is queued on, not owned
    gss_cred_id_t pDelegCred;  // not owned
    ccm_backlog_t* backlog;    // of the channel that it came on
    size_t control_len;
    alignas(16) unsigned char control_data[ccm_control_size];
    unsigned char* msg_start;
    unsigned char* buffer1;      // ccm_msg_headroom + size + ccm_msg_tailroom bytes
    unsigned char* buffer2;      // likewise; target of sealing. Null while a fitted message needs none
    bool fitted;                 // made for what it holds, with buffer2 on its own
    unsigned char* plain_start;  // of a message with flag KEEP, once it is sealed: the frame before the seal
    int plain_len;
    int ahead_ID;  // of the channel for which buffer2 holds the sealed form, as the message `ahead_counter`; 0 for none
    uint32_t ahead_counter;
    int ahead_len;
};

inline unsigned char* ccm_msg_body(ccm_msg_t* msg) {
    return msg->msg_start;
}

// A received message as its handlers read it (messages/view.h); lives as long as the message.
inline message_view view_of(const ccm_msg_t* msg) {
    return view_message(msg->msg_start, msg->len < 0 ? 0 : static_cast<size_t>(msg->len));
}

// ---- pool

// `msg_start` stands at buffer1 + 256, `len` is 0, the record is cleared, the buffers are not. Null with 3301
// "CCMMSG..." without memory, for a negative size and for one above what a frame can carry. Any thread.
ccm_msg_t* ccm_msg_alloc(ccm_context_t* ccm, ccm_error_t* err);
ccm_msg_t* ccm_msg_alloc_huge(ccm_context_t* ccm, int size, ccm_error_t* err);
// The smallest fitting of the two above, with the first `size` body bytes zero and `len` set to it.
ccm_msg_t* ccm_msg_alloc_cleared(ccm_context_t* ccm, int size, ccm_error_t* err);
// Whoever waits in a queue shall take no more memory than what it carries: a short message in a large buffer
// is moved to a fitted one and freed. The result is the message to go on with.
ccm_msg_t* ccm_msg_fit(ccm_context_t* ccm, ccm_msg_t* msg);
// Gives a fitted message its second buffer. 0, or -1 without memory.
int ccm_msg_second_buffer(ccm_msg_t* msg);
// Frees the pool but for `keep` messages, for a process that has become quiet.
void ccm_msg_pool_trim(ccm_context_t* ccm, int keep);
// Closes a descriptor that it owns. Null allowed. Any thread, no spin lock held.
int ccm_msg_free(ccm_context_t* ccm, ccm_msg_t* msg);

// Owner of a message that is not queued and not given to a send call yet: `ccm_msg_ptr msg(ccm_msg_alloc(…),
// {ccm})`.
struct ccm_msg_owner {
    ccm_context_t* ccm;
    void operator()(ccm_msg_t* msg) const { ccm_msg_free(ccm, msg); }
};
using ccm_msg_ptr = std::unique_ptr<ccm_msg_t, ccm_msg_owner>;

// ---- addresses

// Destination: channel ID, or a channel name when the ID is 0; module; handle. Longer texts are cut.
void ccm_setaddr(ccm_msg_t* msg, int dst_ID, int unused, const char* dst_addr, const char* dst_name,
                 int dst_acv);
void ccm_setback(ccm_msg_t* msg, const char* src_addr, const char* src_name, int src_acv);
// The request's source becomes the destination; the reply's source stays empty.
void ccm_setaddr_reply(ccm_msg_t* msg, const ccm_msg_t* request);

// ---- sending

// 48-byte header in front of the body: the length (header included), "QX7:global", "001", `kind`, blanks.
// The result is -1 when the frame would be longer than eight digits tell.
int ccm_msg_set_protocol_header(ccm_msg_t* msg, const char* kind);
// A connection-level item of key 4 as the body: key, one length byte, data. Other keys are ignored.
void ccm_msg_write_native_data(ccm_msg_t* msg, int key, const void* data, int length);

// All: 0, or -1 when the message was freed unsent. Any thread, no spin lock held.
int send_native_message(ccm_context_t* ccm, ccm_msg_t* msg);
// `coding`, blank padded to 8, goes to the header's cCoding.
int send_GSS_message(ccm_context_t* ccm, ccm_msg_t* msg, const char* coding);
// Application message: conversion to the wire's form (not with flag 32), addressing items, header. In a child
// what is meant for "*SERVER", "*CP..." or the channel "*IPC(AGENT)" goes as ROUTENAT. In the agent a message
// for the server is freed while no server connection is reported, unless it has flag 8.
int send_NAT_message(ccm_context_t* ccm, ccm_msg_t* msg);
// The two steps of it, for a message in the agent that will be asked for soon: it is framed, and sealed where
// its connection stands free; then it is sent as it is. The first is -1 when the message was freed.
int ccm_prepare_NAT_message(ccm_context_t* ccm, ccm_msg_t* msg);
int ccm_send_prepared(ccm_context_t* ccm, ccm_msg_t* msg);
// The two ways to reach another process of this agent, and the own main loop.
int send_IPC_message(ccm_context_t* ccm, ccm_msg_t* msg);
int send_IPC_internal(ccm_context_t* ccm, ccm_msg_t* msg);
// An internal record that has only its name. 0 or -1.
int send_IPC_internal_name(ccm_context_t* ccm, const char* msgtype);

// Sends a received body on to the channel `id`, or `name` when `id` is 0. Module and source fields stay those
// of the request, which is not changed. `mode` 1: -1 with an error when no live channel has that ID or name;
// `mode` 0: no test, the message waits for its channel.
int ccm_forward_NAT_message(ccm_context_t* ccm, const ccm_msg_t* msg, int id, const char* name,
                            ccm_error_t* err, int mode);
// PASSFD with a duplicate of `fd` to the channel `addr`. 0 or -1. Main thread.
int send_file_descriptor(ccm_context_t* ccm, const char* addr, int fd, int agentID, int listenerID,
                         const char* name);
// Queues a message whose bytes from msg_start on are a complete frame. `label` is for the trace.
int ccm_send_message_common(ccm_context_t* ccm, ccm_msg_t* msg, const char* label);

// ---- queues

// Frees everything that waits: the context's queues and those of all channels; receive buffers are emptied.
// Only while no network thread runs.
void ccm_msg_emptying_queues(ccm_context_t* ccm);
// Frees both queues of one channel.
void ccm_channel_emptying_msg_queue(ccm_context_t* ccm, ccm_channel_t* channel);
