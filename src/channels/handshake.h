// The handshake on channels (main thread) and the seal on their frames (network thread).
#pragma once

#include "channels/messages.h"

// The first step of the side that connects: sends an init token made with the delegated credential, once for
// each channel. `cred` null: nothing to do. The credential belongs to this call. A failure is logged
// (2000105) and deletes the channel; -1 then. Main thread, no lock held.
int send_gss_request(EX_PCX* pcx, ccm_context_t* ccm, int channel_id, gss_cred_id_t cred);

// A received handshake frame. In the listener it goes to the agent as GSSHS_REMOTE; elsewhere it is answered
// or taken as the answer, and GSSHS_OK is posted when the context stands. Frames that the policy doesn't
// allow end the channel. A failure stores its reason on the channel and deletes it. Main thread.
int process_gss_protocol_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg);

bool is_gss_message(const unsigned char* frame, int length);

// Acceptor's step without a channel: `frame` is a complete GSS frame with an init token; `answer` (room in
// `*answer_length`, at least 148) becomes a complete frame, `*context` the new context. Only tokens, no
// packages of the key exchange. 0, or -1 with `error`.
int gss_request(EX_PCX* pcx, const unsigned char* frame, int length, unsigned char* answer,
                int* answer_length, gss_ctx_id_t* context, qx7_error* error);

// Seals the body behind the 48-byte header into the second buffer and rewrites the header. 0, or -1 with
// 2000143 "gss_wrap()/ret=%.8X(rsn=%d)". With the channel's pen.
int ccm_chiffre_gss(ccm_channel_t* channel, ccm_msg_t* msg, ccm_error_t* error);
// Opens the body behind the header in place; `msg_start` and `len` then tell the plain body without header.
// -1 with 2000098 "%s|%u|%u|". Network thread.
int ccm_dechiffre_gss(ccm_channel_t* channel, ccm_msg_t* msg, ccm_error_t* error);
