// The seal on the frames of a channel: made by whoever holds its pen, opened by the network thread.

#include <cerrno>
#include <cstring>

#include "base/message_numbers.h"
#include "channels/handshake.h"
#include "channels/internal.h"
#include "messages/frame.h"

namespace {

// Where the data stand inside a sealed message: behind the outer tag, its length and the inner head. 0 when
// the head makes no sense.
size_t data_offset(const unsigned char* sealed, size_t length) {
    if (length < 2) {
        return 0;
    }
    size_t length_bytes = sealed[1] < 0x80 ? 1 : 1 + static_cast<size_t>(sealed[1] & 0x7F);
    size_t offset = 1 + length_bytes + gss_sealed_head_size;
    return length_bytes <= 5 && offset < length ? offset : 0;
}

// The sealed form goes into the second buffer; the plain one stays.
int seal(ccm_msg_t* msg, const gss_ctx_id_struct* context, size_t* written, uint32_t* counter,
         ccm_error_t* error) {
    if (ccm_msg_second_buffer(msg) != 0) {
        return qx_error_set(error, -1, ENOMEM, number_no_memory, "%s/%s(%d)", "CCMMSG", __FILE__, __LINE__);
    }
    const unsigned char* body = msg->msg_start + frame_header_size;
    size_t length = static_cast<size_t>(msg->len) - frame_header_size;
    size_t room = static_cast<size_t>(ccm_msg_headroom) + static_cast<size_t>(msg->size) + ccm_msg_tailroom -
                  frame_header_size;
    auto qop = static_cast<gss_qop_t>(GlbPcx->pcx_iGssQop);
    OM_uint32 minor = 0;
    OM_uint32 major = context == nullptr
                          ? static_cast<OM_uint32>(GSS_S_NO_CONTEXT)
                          : gss_wrap_ahead(&minor, context, qop != 0 ? 1 : 0, qop, {body, length},
                                           {msg->buffer2 + frame_header_size, room}, written, counter);
    if (major != GSS_S_COMPLETE) {
        return qx_error_set(error, -1, 0, number_seal_failed, "gss_wrap()/ret=%.8X(rsn=%d)", major,
                            static_cast<int>(minor));
    }
    return 0;
}

}  // namespace

void ccm_seal_ahead(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_channel_t* channel = ccm_find_to_write(ccm, msg);
    if (channel == nullptr) {
        return;
    }
    const bool sealed = channel_has(channel, CH_FLAG_SEALED);
    ccm_channel_unlock(ccm);
    size_t written = 0;
    uint32_t counter = 0;
    if (sealed && seal(msg, channel->pATctx, &written, &counter, nullptr) == 0) {
        msg->ahead_ID = channel->ID;
        msg->ahead_counter = counter;
        msg->ahead_len = static_cast<int>(written);
    }
    pen_give_back(ccm, channel);
}

int ccm_chiffre_gss(ccm_channel_t* channel, ccm_msg_t* msg, ccm_error_t* error) {
    auto written = static_cast<size_t>(msg->ahead_len);
    uint32_t counter = 0;
    if (msg->ahead_ID != channel->ID || !gss_use_ahead(msg->pATctx, msg->ahead_counter)) {
        if (seal(msg, msg->pATctx, &written, &counter, error) != 0) {
            return -1;
        }
        gss_use_ahead(msg->pATctx, counter);
    }
    if ((msg->flag & CCM_MSG_FLAG_KEEP) != 0) {
        msg->plain_start = msg->msg_start;  // for another connection, should this one end before it is sent
        msg->plain_len = msg->len;
    } else {
        qx_wipe(msg->msg_start, static_cast<size_t>(msg->len));  // the plain form has served
    }
    msg->msg_start = msg->buffer2;
    msg->len = static_cast<int>(frame_header_size + written);
    if (ccm_msg_set_protocol_header(msg, protocol_native) != 0) {
        return qx_error_set(error, -1, 0, number_seal_failed, "gss_wrap()/ret=%.8X(rsn=%d)", 0U, msg->len);
    }
    return 0;
}

int ccm_dechiffre_gss(ccm_channel_t* channel, ccm_msg_t* msg, ccm_error_t* error) {
    unsigned char* sealed = msg->msg_start + frame_header_size;
    size_t length = static_cast<size_t>(msg->len) - frame_header_size;
    size_t offset = data_offset(sealed, length);
    auto own_qop = static_cast<gss_qop_t>(GlbPcx->pcx_iGssQop);
    OM_uint32 minor = GSS_MINOR_PARAMETER;
    OM_uint32 major = GSS_S_DEFECTIVE_TOKEN;
    size_t written = 0;
    gss_qop_t qop = 0;
    if (offset != 0 && channel->pATctx != nullptr) {
        major = gss_unwrap_ex(&minor, channel->pATctx, own_qop, {sealed, length},
                              {sealed + offset, length - offset}, &written, &qop);
    }
    if (major != GSS_S_COMPLETE) {
        return qx_error_set(error, -1, 0, number_unseal_failed, "%s|%u|%u|", channel->name, major, minor);
    }
    msg->msg_start = sealed + offset;
    msg->len = static_cast<int>(written);
    return 0;
}
