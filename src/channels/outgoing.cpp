#include "channels/outgoing.h"

#include <cstring>

#include "base/context.h"
#include "log/log.h"

message_route to_sender(const ccm_msg_t* request) {
    const ccm_addr_t& from = request->addr;
    return {
        .dst_ID = from.src_ID, .dst_addr = from.src_addr, .dst_name = from.src_name, .dst_acv = from.src_acv};
}

message_route to_kept(const ccm_addr_t& kept) {
    return {.dst_addr = strncmp(kept.src_addr, "*CP", 3) == 0 ? kept.src_addr : ccm_name_server,
            .dst_name = kept.src_name,
            .dst_acv = kept.src_acv};
}

message_route to_server(const EX_PCX* pcx, const char* module, const char* own, int acv) {
    return {.dst_addr = ccm_name_server,
            .dst_name = module,
            .dst_acv = acv,
            .src_addr = pcx->exName,
            .src_name = own};
}

ccm_msg_t* outgoing_message(ccm_context_t* ccm, size_t size, ccm_error_t* error) {
    ccm_error_t own;
    ccm_error_t* reason = error == nullptr ? &own : error;
    ccm_msg_t* msg = size <= ccm_msg_standard_size ? ccm_msg_alloc(ccm, reason)
                                                   : ccm_msg_alloc_huge(ccm, static_cast<int>(size), reason);
    if (msg == nullptr && error == nullptr) {
        __log_error(own);
    }
    return msg;
}

ccm_msg_t* message_of(ccm_context_t* ccm, const built_message& message, ccm_error_t* error) {
    ccm_msg_t* msg = outgoing_message(ccm, message.size(), error);
    if (msg != nullptr) {
        message.write(msg->msg_start);
        msg->len = static_cast<int>(message.size());
    }
    return msg;
}

void set_route(ccm_msg_t* msg, const message_route& route) {
    msg->flag |= route.flag;
    ccm_setaddr(msg, route.dst_ID, 0, route.dst_addr, route.dst_name, route.dst_acv);
    ccm_setback(msg, route.src_addr, route.src_name, route.src_acv);
}

int send_outgoing(ccm_context_t* ccm, ccm_msg_t* msg, const message_route& route) {
    set_route(msg, route);
    return send_NAT_message(ccm, msg);
}

int send_built(ccm_context_t* ccm, const built_message& message, const message_route& route) {
    ccm_msg_t* msg = message_of(ccm, message);
    return msg == nullptr ? -1 : send_outgoing(ccm, msg, route);
}
