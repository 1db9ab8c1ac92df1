#include "channels/replies.h"

#include <cstring>

#include "channels/internal.h"
#include "messages/head.h"
#include "messages/records_server.h"

namespace {

static_assert(sizeof(MSG_TYPE_QUITT) == quitt_size);

struct quitt_content {
    std::string_view answered_type;
    uint16_t client;
    uint32_t user;
    int msgnr;
    const char* insert;
    const char* status;  // null: "NK"
};

ccm_msg_t* build_quitt(ccm_context_t* ccm, const quitt_content& content, const void* data, int data_len) {
    int extra = data == nullptr || data_len < 0 ? 0 : data_len;
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, quitt_size + extra, nullptr);
    if (msg == nullptr) {
        return nullptr;
    }
    MSG_TYPE_QUITT record{};
    CreateQxHeadm(&record.header, "QUITT", content.client, content.user);
    put_text(record.quitt, content.status == nullptr ? "NK" : content.status);
    put_text(record.filler, "");
    put_text(record.msg, content.answered_type);
    record.msgnr = content.msgnr;
    put_text(record.msg_insert, content.insert == nullptr ? "" : content.insert);
    if (data != nullptr) {
        record.msg_dist = quitt_size;
        record.msg_len = extra;
        memcpy(msg->msg_start + quitt_size, data, static_cast<size_t>(extra));
    }
    memcpy(msg->msg_start, &record, sizeof record);
    return msg;
}

// Type, client and user of a message that may be shorter than a head.
struct request_head {
    char type[8];
    QX_HEADM head;
};

request_head head_of(const ccm_msg_t* request) {
    request_head result{};
    size_t length = std::min(sizeof result.head, static_cast<size_t>(std::max(request->len, 0)));
    memcpy(&result.head, request->msg_start, length);
    put_text(result.type, {result.head.msg_typ, std::min(length, sizeof result.type)});
    return result;
}

ccm_msg_t* build_reply(ccm_context_t* ccm, const ccm_msg_t* request, int msgnr, const char* insert,
                       const char* status, const void* data, int data_len) {
    request_head from = head_of(request);
    quitt_content content{
        {from.type, sizeof from.type}, from.head.i2Mandant, from.head.i4UsrIdNr, msgnr, insert, status};
    ccm_msg_t* msg = build_quitt(ccm, content, data, data_len);
    if (msg != nullptr) {
        ccm_setaddr_reply(msg, request);
    }
    return msg;
}

}  // namespace

int send_quitt(ccm_msg_t* request, int msgnr, const char* insert) {
    ccm_context_t* ccm = GlbPcx->ccm;
    ccm_msg_t* msg = build_reply(ccm, request, msgnr, insert, nullptr, nullptr, 0);
    if (msg == nullptr) {
        return -1;
    }
    // The record is built, but the body that leaves is empty: partners tell an unknown module by just that.
    msg->len = 0;
    send_NAT_message(ccm, msg);
    return 0;
}

int send_quitt_reply(EX_PCX* pcx, ccm_msg_t* request, int msgnr, const char* insert, const char* status,
                     const void* data, int data_len) {
    ccm_msg_t* msg = build_reply(pcx->ccm, request, msgnr, insert, status, data, data_len);
    if (msg == nullptr) {
        return -1;
    }
    send_NAT_message(pcx->ccm, msg);
    return 0;
}

int send_quitt_extended(EX_PCX* pcx, int dst_ID, const char* dst_name, const char* src_name, int dst_acv,
                        const char* answered_type, int client, int user, int msgnr, const char* insert,
                        const char* status, const void* data, int data_len) {
    quitt_content content{{answered_type, strnlen(answered_type, message_type_size)},
                          static_cast<uint16_t>(client),
                          static_cast<uint32_t>(user),
                          msgnr,
                          insert,
                          status};
    ccm_msg_t* msg = build_quitt(pcx->ccm, content, data, data_len);
    if (msg == nullptr) {
        return -1;
    }
    ccm_setaddr(msg, dst_ID, 0, dst_ID == 0 ? ccm_name_server : "", dst_name, dst_acv);
    if (src_name != nullptr && src_name[0] != '\0') {
        ccm_setback(msg, "", src_name, 0);
    }
    send_NAT_message(pcx->ccm, msg);
    return 0;
}
