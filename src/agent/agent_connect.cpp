#include "agent/agent_connect.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/connect.h"
#include "channels/messages.h"
#include "channels/order_token.h"
#include "channels/replies.h"
#include "log/log.h"
#include "messages/records_server.h"
#include "messages/view.h"
#include "security/mechanism.h"
#include "transfer/legacy/module.h"

namespace {

constexpr char answered_type[] = "CONNECT ";
// Of a connection whose order has its answer.
constexpr char connect_key_answered[] = "FT answered";
constexpr int port_max = 65535;

int check_partner(const MSG_TYPE_CONNECT& order, qx7_error* error) {
    const std::string name(get_text(order.name));
    const bool good = ccm_name_acceptable(name.data(), name.size()) && !get_text(order.ipaddr).empty() &&
                      order.port > 0 && order.port <= port_max;
    return good ? 0
                : qx_error_set(error, -1, EINVAL, number_read_failed, "%s:%d|%s|",
                               printable(get_text(order.ipaddr)).c_str(), order.port, strerror(EINVAL));
}

ccm_connect_user_context_t* new_context(const MSG_TYPE_CONNECT& order, const ccm_msg_t* msg,
                                        std::span<const unsigned char> token) {
    ccm_connect_user_context_t* context = ccm_user_context_new(static_cast<int>(token.size()));
    if (context == nullptr) {
        return nullptr;
    }
    copy_text(context->key, connect_key_transfer);
    copy_text(context->name, get_text(order.name));
    context->client = order.header.i2Mandant;
    context->user = static_cast<int>(order.header.i4UsrIdNr);
    context->ccmaddr = msg->addr;
    if (!token.empty()) {
        memcpy(ccm_user_context_content(context), token.data(), token.size());
    }
    return context;
}

int connect_partner(EX_PCX* pcx, const ccm_msg_t* msg, const MSG_TYPE_CONNECT& order,
                    std::span<const unsigned char> token, qx7_error* error) {
    ccm_connect_user_context_t* context = new_context(order, msg, token);
    if (context == nullptr) {
        return call_error(error, "calloc", ENOMEM);
    }
    int result = take_order_token(pcx, token, &context->pDelegCred, error);
    if (result == 0) {
        const std::string address(get_text(order.ipaddr));
        result =
            ccm_connect(pcx->ccm, address.c_str(), order.port, CH_TYPE_AGENT, context, pcx->connwait, error);
    }
    if (result < 0) {
        ccm_user_context_free(context);
        return -1;
    }
    return 0;
}

}  // namespace

int process_connect(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto order = view_record<MSG_TYPE_CONNECT>(view);
    const auto token = view_data(view, order.gss_dist, order.gss_len);
    qx7_error error;
    if (check_partner(order, &error) == 0 && connect_partner(pcx, msg, order, token, &error) == 0) {
        return 0;
    }
    __log(error.qx_msgnr, "%s", error.qx_msgInsert);
    return send_quitt_reply(pcx, msg, error.qx_msgnr, error.qx_msgInsert, "NK", nullptr, 0);
}

int agent_connection_established(EX_PCX* pcx, int id) {
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    if (channel->cuc == nullptr || field_text(channel->cuc->key) != connect_key_transfer) {
        ccm_channel_unlock(pcx->ccm);
        return 0;  // the partner's connection
    }
    copy_text(channel->cuc->key, connect_key_answered);
    ccm_connect_user_context_t context = *channel->cuc;
    context.pDelegCred = nullptr;
    ccm_channel_unlock(pcx->ccm);
    return ft_connection_success(pcx, context);
}

void agent_connection_closed(EX_PCX* pcx, const ccm_channel_image_t& channel,
                             const ccm_connect_user_context_t& context) {
    if ((channel.flag & CH_FLAG_SEALED) != 0) {
        process_ft_stop(pcx, channel.ID);
    }
    if (channel.cuc == 0 || field_text(context.key) != connect_key_transfer) {
        return;
    }
    const std::string insert =
        channel.msgnr == 0 ? printable(field_text(channel.name)) + "|" : std::string(channel.msginsert);
    // By name: the server's channel may be another one by now.
    send_quitt_extended(pcx, 0, context.ccmaddr.src_name, context.ccmaddr.dst_name, context.ccmaddr.src_acv,
                        answered_type, context.client, context.user,
                        channel.msgnr == 0 ? number_transfer_connection_closed : channel.msgnr,
                        insert.c_str(), "NK", nullptr, 0);
}
