#include "channels/replies.h"

#include <cstring>

#include "channels/internal.h"
#include "channels/outgoing.h"

namespace {

std::string_view text_or(const char* text, std::string_view other) {
    return text == nullptr ? other : text;
}

// Type, client and user of a message that may be shorter than a head.
QX_HEADM head_of(const ccm_msg_t* request) {
    QX_HEADM head{};
    put_text(head.msg_typ, "");
    memcpy(&head, request->msg_start, std::min(sizeof head, static_cast<size_t>(std::max(request->len, 0))));
    return head;
}

message_builder<MSG_TYPE_QUITT> make_answer(const quitt_content& content, const void* data, int data_len) {
    message_builder<MSG_TYPE_QUITT> quitt = make_quitt(content);
    put_text(quitt->filler, "");
    if (data != nullptr && data_len > 0) {
        quitt.add(MSG_TYPE_QUITT::msg_content,
                  std::span(static_cast<const unsigned char*>(data), static_cast<size_t>(data_len)));
    }
    return quitt;
}

message_builder<MSG_TYPE_QUITT> make_reply(const ccm_msg_t* request, int msgnr, const char* insert,
                                           const char* status, const void* data, int data_len) {
    const QX_HEADM head = head_of(request);
    return make_answer({{head.msg_typ, sizeof head.msg_typ},
                        head.i2Mandant,
                        head.i4UsrIdNr,
                        msgnr,
                        text_or(insert, ""),
                        text_or(status, "NK")},
                       data, data_len);
}

// Whether it reaches the asker is nobody's concern.
int send_answer(ccm_context_t* ccm, const built_message& answer, const message_route& route) {
    ccm_msg_t* msg = message_of(ccm, answer);
    if (msg == nullptr) {
        return -1;
    }
    send_outgoing(ccm, msg, route);
    return 0;
}

}  // namespace

message_builder<MSG_TYPE_QUITT> make_quitt(const quitt_content& content) {
    message_builder<MSG_TYPE_QUITT> quitt(content.client, content.user);
    put_text(quitt->quitt, content.status);
    put_text(quitt->msg, content.answered_type);
    quitt->msgnr = content.msgnr;
    put_text(quitt->msg_insert, content.insert);
    return quitt;
}

int send_quitt(ccm_msg_t* request, int, const char*) {
    // The body that leaves is empty: partners tell an unknown module by just that.
    return send_answer(GlbPcx->ccm, {}, to_sender(request));
}

int send_quitt_reply(EX_PCX* pcx, ccm_msg_t* request, int msgnr, const char* insert, const char* status,
                     const void* data, int data_len) {
    const auto quitt = make_reply(request, msgnr, insert, status, data, data_len);
    return send_answer(pcx->ccm, quitt, to_sender(request));
}

int send_quitt_extended(EX_PCX* pcx, int dst_ID, const char* dst_name, const char* src_name, int dst_acv,
                        const char* answered_type, int client, int user, int msgnr, const char* insert,
                        const char* status, const void* data, int data_len) {
    const auto quitt = make_answer({{answered_type, strnlen(answered_type, message_type_size)},
                                    static_cast<uint16_t>(client),
                                    static_cast<uint32_t>(user),
                                    msgnr,
                                    text_or(insert, ""),
                                    text_or(status, "NK")},
                                   data, data_len);
    return send_answer(pcx->ccm, quitt,
                       {.dst_ID = dst_ID,
                        .dst_addr = dst_ID == 0 ? ccm_name_server : "",
                        .dst_name = dst_name,
                        .dst_acv = dst_acv,
                        .src_name = src_name});
}
