// The way out for application messages: what messages/build.h has built, or a message that was filled in its
// place, goes to whoever a route names. Main thread.
#pragma once

#include "channels/messages.h"
#include "messages/build.h"

struct EX_PCX;

// Texts are borrowed.
struct message_route {
    int dst_ID = 0;  // of the channel; 0: the one named `dst_addr`
    const char* dst_addr = "";
    const char* dst_name = "";  // module
    int dst_acv = 0;
    const char* src_addr = "";
    const char* src_name = "";
    int src_acv = 0;
    int flag = 0;  // ccm_msg_flag
};

// The answer to a message that is at hand.
message_route to_sender(const ccm_msg_t* request);
// The answer to a message that is gone. Its channel may be gone too, so it goes by name: to the kept source
// when that begins "*CP", else to "*SERVER".
message_route to_kept(const ccm_addr_t& kept);
// The server's module `module`, from this agent's module `own`.
message_route to_server(const EX_PCX* pcx, const char* module, const char* own, int acv = 0);

// An empty message with room for `size` bytes. Null without memory: the failure stands in `error`, or is
// logged when that is null.
ccm_msg_t* outgoing_message(ccm_context_t* ccm, size_t size, ccm_error_t* error = nullptr);
// The message as built, or null likewise.
ccm_msg_t* message_of(ccm_context_t* ccm, const built_message& message, ccm_error_t* error = nullptr);
void set_route(ccm_msg_t* msg, const message_route& route);
// Takes the message over. 0, or -1 when it was freed unsent.
int send_outgoing(ccm_context_t* ccm, ccm_msg_t* msg, const message_route& route);
// 0, or -1 when nothing was sent.
int send_built(ccm_context_t* ccm, const built_message& message, const message_route& route);
