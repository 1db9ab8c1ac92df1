#include "jobs/job_send.h"

#include <cstdio>
#include <cstring>

#include "base/context.h"
#include "base/log.h"
#include "channels/replies.h"
#include "jobs/job_area.h"
#include "messages/records_server.h"

namespace {

// Bodies above this need a message of their own size.
constexpr size_t standard_body = 32000;
constexpr size_t huge_extra = 768;

ccm_msg_t* message_with(EX_PCX* pcx, const std::vector<unsigned char>& body) {
    ccm_error_t error;
    ccm_msg_t* msg = body.size() <= standard_body
                         ? ccm_msg_alloc(pcx->ccm, &error)
                         : ccm_msg_alloc_huge(pcx->ccm, static_cast<int>(body.size() + huge_extra), &error);
    if (msg == nullptr) {
        __log(error.msgnr, "%s", error.msginsert);
        return nullptr;
    }
    memcpy(msg->msg_start, body.data(), body.size());
    msg->len = static_cast<int>(body.size());
    return msg;
}

const char* kept_destination(const ccm_addr_t& kept) {
    return strncmp(kept.src_addr, "*CP", 3) == 0 ? kept.src_addr : ccm_name_server;
}

int send_to_kept(EX_PCX* pcx, const ccm_addr_t& kept, const std::vector<unsigned char>& body, int flag) {
    ccm_msg_t* msg = message_with(pcx, body);
    if (msg == nullptr) {
        return -1;
    }
    msg->flag |= flag;
    ccm_setaddr(msg, 0, 0, kept_destination(kept), kept.src_name, kept.src_acv);
    return send_NAT_message(pcx->ccm, msg);
}

}  // namespace

bool job_server_reachable(EX_PCX* pcx) {
    return pcx->ccm != nullptr && (pcx->pcx_flag.load() & PCX_FLAG_SERVER_CHANNEL) != 0 &&
           ccm_channel_existbyName(pcx->ccm, ccm_name_server) != 0;
}

int job_send_reply(EX_PCX* pcx, const ccm_msg_t* request, const std::vector<unsigned char>& body) {
    ccm_msg_t* msg = message_with(pcx, body);
    if (msg == nullptr) {
        return -1;
    }
    ccm_setaddr_reply(msg, request);
    return send_NAT_message(pcx->ccm, msg);
}

int job_send_kept(EX_PCX* pcx, const ccm_addr_t& kept, const std::vector<unsigned char>& body) {
    return send_to_kept(pcx, kept, body, 0);
}

int job_send_kept_surely(EX_PCX* pcx, const ccm_addr_t& kept, const std::vector<unsigned char>& body) {
    return send_to_kept(pcx, kept, body, CCM_MSG_FLAG_KEEP);
}

int job_send_server(EX_PCX* pcx, const ccm_addr_t* kept, const std::vector<unsigned char>& body) {
    ccm_msg_t* msg = message_with(pcx, body);
    if (msg == nullptr) {
        return -1;
    }
    ccm_setaddr(msg, 0, 0, ccm_name_server, kept == nullptr ? "" : kept->src_name, 0);
    return send_NAT_message(pcx->ccm, msg);
}

int create_and_send_quitt_message(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert) {
    return send_quitt_reply(pcx, msg, msgnr, insert, msgnr == 0 ? "OK" : "NK", nullptr, 0);
}

int job_send_quitt_ok(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert) {
    return send_quitt_reply(pcx, msg, msgnr, insert, "OK", nullptr, 0);
}

int create_and_send_aktj_quitt_message(EX_PCX* pcx, JP_AREA* job, int msgnr, const char* insert,
                                       const void* extra, size_t extraLen) {
    if (job->ccmaddr == nullptr) {
        return -1;
    }
    std::vector<unsigned char> body =
        job_new_body(sizeof(MSG_TYPE_QUITT) + extraLen, "QUITT", 1, job->jp_headm);
    MSG_TYPE_QUITT quitt;
    memcpy(&quitt, body.data(), sizeof quitt);
    put_text(quitt.quitt, msgnr == 0 ? "OK" : "NK");
    put_text(quitt.msg, get_text(job->jp_headm.msg_typ));
    quitt.msgnr = msgnr;
    put_text(quitt.msg_insert, insert);
    if (extraLen != 0) {
        quitt.msg_dist = static_cast<int32_t>(sizeof quitt);
        quitt.msg_len = static_cast<int32_t>(extraLen);
        memcpy(body.data() + sizeof quitt, extra, extraLen);
    }
    memcpy(body.data(), &quitt, sizeof quitt);
    return job_send_kept(pcx, *job->ccmaddr, body);
}

std::vector<unsigned char> job_new_body(size_t size, std::string_view type, int version,
                                        const QX_HEADM& like) {
    std::vector<unsigned char> body(size);
    QX_HEADM head;
    CreateQxHeadm(&head, type, like.i2Mandant, like.i4UsrIdNr);
    set_message_version(&head, version);
    memcpy(body.data(), &head, sizeof head);
    return body;
}

void job_put_pid(char (&field)[10], uint32_t pid) {
    put_text(field, std::to_string(pid));
}

ccm_addr_t* job_keep_address(const ccm_msg_t* msg) {
    return new ccm_addr_t(msg->addr);
}
