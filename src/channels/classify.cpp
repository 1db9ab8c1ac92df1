// What a received frame is: judged by its header, opened, read item by item, converted.

#include <cstring>

#include "base/message_numbers.h"
#include "channels/handshake.h"
#include "channels/internal.h"
#include "messages/conversion.h"
#include "messages/frame.h"
#include "messages/head.h"

namespace {

struct frame_source {
    int type;
    bool sealed;
    char name[64];
    char addr[64];
};

frame_source source_of(ccm_context_t* ccm, ccm_channel_t* channel) {
    frame_source source{};
    spin_guard guard(&ccm->channel_lock);
    source.type = channel->type.load();
    source.sealed = channel_has(channel, CH_FLAG_SEALED);
    memcpy(source.name, channel->name, sizeof source.name);
    memcpy(source.addr, channel->addr, sizeof source.addr);
    return source;
}

int origin_of(const frame_source& source) {
    std::string_view name = field_text(source.name);
    switch (source.type) {
        case CH_TYPE_IPC:
            if (name == ccm_name_ipc_agent) {
                return CCM_FROM_AGENT;
            }
            if (name == ccm_name_ipc_listener) {
                return CCM_FROM_LISTENER;
            }
            return name.starts_with(ccm_name_ipc_worker_prefix) ? CCM_FROM_WORKER : 0;
        case CH_TYPE_SERVER:
            return source.sealed ? CCM_FROM_SERVER : 0;
        case CH_TYPE_CP_CANDIDATE:
            return CCM_FROM_CANDIDATE;
        case CH_TYPE_AGENT:
            return source.sealed ? CCM_FROM_PARTNER : CCM_FROM_CALLED;
        case CH_TYPE_ACCEPTED:
            return CCM_FROM_STRANGER;
        default:
            return 0;
    }
}

ccm_classified refuse(ccm_context_t* ccm, ccm_channel_t* channel, int number, const char* what) {
    channel_fail(ccm, channel, number, "%s|%s(ID=%d)|", what, channel->addr, channel->ID);
    return CCM_CLASS_END;
}

void step_over_header(ccm_msg_t* msg) {
    msg->msg_start += frame_header_size;
    msg->len -= static_cast<int>(frame_header_size);
}

ccm_classified classify_ipc(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg,
                            const frame_source& source) {
    if (source.type != CH_TYPE_IPC) {
        return refuse(ccm, channel, number_frame_bad_header, "Protocol");
    }
    step_over_header(msg);
    msg->type = CCM_MSG_IPC;
    memcpy(msg->addr.src_addr, source.name, sizeof msg->addr.src_addr);
    // The descriptor stands in the stream at the record's first byte, so the oldest one belongs to the oldest
    // record, however the reads were split.
    bool passfd = msg->len >= 16 && memcmp(msg->msg_start, ipc_passfd, sizeof ipc_passfd) == 0;
    if (passfd && !channel->fifo.empty()) {
        msg->passfd = channel->fifo.front().release();
        channel->fifo.erase(channel->fifo.begin());
    }
    return CCM_CLASS_QUEUE;
}

ccm_classified classify_gss(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg,
                            const frame_source& source) {
    if (source.sealed || source.type == CH_TYPE_IPC) {
        return refuse(ccm, channel, number_frame_bad_header, "Protocol");
    }
    if (msg->len > ccm_frame_gss_max) {
        channel_fail(ccm, channel, number_frame_too_long, "%d|%s(ID=%d)|%d|", msg->len, channel->addr,
                     channel->ID, ccm_frame_gss_max);
        return CCM_CLASS_END;
    }
    msg->type = CCM_MSG_GSS;
    return CCM_CLASS_QUEUE;
}

void take_address(ccm_msg_t* msg, const frame_address& from) {
    memcpy(msg->addr.dst_addr, from.dst_addr, sizeof msg->addr.dst_addr);
    memcpy(msg->addr.dst_name, from.dst_name, sizeof msg->addr.dst_name);
    msg->addr.dst_acv = static_cast<int>(from.dst_acv);
    memcpy(msg->addr.src_addr, from.src_addr, sizeof msg->addr.src_addr);
    memcpy(msg->addr.src_name, from.src_name, sizeof msg->addr.src_name);
    msg->addr.src_acv = static_cast<int>(from.src_acv);
}

// A stranger's report of a job keeps its connection alive for one more round.
void renew_time_limit(ccm_context_t* ccm, ccm_channel_t* channel) {
    spin_guard guard(&ccm->channel_lock);
    if (channel->connect_timeout != 0) {
        channel->connect_timeout = alarm_now() + channel->connect_timeout_secs;
    }
}

ccm_classified classify_message_item(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg,
                                     const frame_source& source, bool is_xml) {
    msg->type = CCM_MSG_NAT;
    if (source.sealed) {
        channel->flag.fetch_and(~CH_FLAG_CONNECTING);
    } else if (source.type != CH_TYPE_IPC) {
        bool meld = source.type == CH_TYPE_ACCEPTED &&
                    message_type_is(msg->msg_start, static_cast<size_t>(msg->len), "MELD");
        if (!meld) {
            char type[9] = "";
            memcpy(type, msg->msg_start, static_cast<size_t>(std::min(msg->len, 8)));
            return refuse(ccm, channel, number_type_not_allowed, printable(type).c_str());
        }
        renew_time_limit(ccm, channel);
    }
    if (is_xml) {
        msg->flag |= CCM_MSG_FLAG_RAW;
        return CCM_CLASS_QUEUE;
    }
    // A body that can't be converted is the sender's fault in this one message, the stream is sound.
    int result = msgconv_ToHost(msg->msg_start, static_cast<size_t>(msg->len), ccm->pcx->pcx_msgctx);
    return result == 0 ? CCM_CLASS_QUEUE : CCM_CLASS_DROP;
}

ccm_classified classify_native(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg,
                               const frame_source& source) {
    if (source.sealed) {
        ccm_error_t error;
        if (ccm_dechiffre_gss(channel, msg, &error) != 0) {
            channel_fail(ccm, channel, error.qx_msgnr, "%s", error.qx_msgInsert);
            return CCM_CLASS_END;
        }
        msg->flag |= CCM_MSG_FLAG_CAME_SEALED;
    } else {
        step_over_header(msg);
    }
    frame_body body;
    qx7_error fault;
    if (frame_parse_body(msg->msg_start, static_cast<size_t>(msg->len), &body, &fault) != 0) {
        channel_fail(ccm, channel, fault.qx_msgnr, "%s%s(ID=%d)|", fault.qx_msgInsert, channel->addr,
                     channel->ID);
        return CCM_CLASS_END;
    }
    take_address(msg, body.address);
    msg->msg_start += body.offset;
    msg->len = static_cast<int>(body.length);
    if (body.is_message) {
        return classify_message_item(ccm, channel, msg, source, body.is_xml);
    }
    msg->type = CCM_MSG_NATIVE;
    msg->protocol_key = body.protocol_key;
    return CCM_CLASS_QUEUE;
}

}  // namespace

ccm_classified ccm_classify_message(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg) {
    frame_source source = source_of(ccm, channel);
    msg->addr.src_type = source.type;
    msg->origin = origin_of(source);
    if (frame_protocol_is(msg->msg_start, protocol_ipc)) {
        return classify_ipc(ccm, channel, msg, source);
    }
    if (frame_protocol_is(msg->msg_start, protocol_gss)) {
        return classify_gss(ccm, channel, msg, source);
    }
    return classify_native(ccm, channel, msg, source);
}
