#include "retrieval/file_retrieval.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <span>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/outgoing.h"
#include "identity/accounts.h"
#include "identity/password_check.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/records_report.h"
#include "messages/records_server.h"
#include "messages/view.h"

namespace {

constexpr char global_eye_catcher[] = "%GLOBAL_GETFILE%";
constexpr char request_eye_catcher[] = "%%GETFILE     %%";
constexpr char server_resources[] = "QXVAREXR";
constexpr size_t login_info_size = 200;

struct GLB_GET {
    char gg_kz[16] = {};  // the eye-catcher while the module is open
    std::list<GETF_PL> gg_firstFile;
    int gg_checkStamp = file_request_time_limit;
};

GLB_GET the_requests;

bool is_open() {
    return memcmp(the_requests.gg_kz, global_eye_catcher, sizeof the_requests.gg_kz) == 0;
}

// The newest first.
std::list<GETF_PL>& requests() {
    std::list<GETF_PL>& all = the_requests.gg_firstFile;
    if (!all.empty() && memcmp(all.front().gf_kz, request_eye_catcher, sizeof all.front().gf_kz) != 0) {
        LogDump("file request error", &all.front(), sizeof all.front().gf_kz);
        all.clear();
    }
    return all;
}

std::string_view body_text(const ccm_msg_t* msg) {
    return {reinterpret_cast<const char*>(msg->msg_start), static_cast<size_t>(std::max(msg->len, 0))};
}

// As text, by name: the connection on which the request came may be gone.
int send_text(EX_PCX* pcx, const ccm_addr_t& to, std::string_view text) {
    message_route route = to_kept(to);
    route.src_addr = pcx->exName;
    route.src_name = getfile_module;
    route.flag = CCM_MSG_FLAG_RAW;
    return send_built(pcx->ccm, built_message(text), route);
}

// The end of a request that failed: the log, the asker, and the key is free again.
int fail_request(EX_PCX* pcx, GETF_PL* request, const qx7_error& error) {
    __log_error(error);
    getfile_sendXmlError(pcx, request->gf_b, request->gf_request, error);
    free_fileReqEntry(pcx, request);
    return -1;
}

int continue_request(EX_PCX* pcx, GETF_PL* request) {
    if (request->gf_lastAct == FILE_ACTION_LOGIN_ASKED) {
        return 0;  // no file is open yet; the first block comes unasked
    }
    request->gf_lastAct = FILE_ACTION_XML;
    request->gf_getfPl = FILE_REQUEST_CONTINUED;
    qx7_error error;
    return getfile_sendXmlData(pcx, request, &error) == 0 ? 0 : fail_request(pcx, request, error);
}

int refuse(EX_PCX* pcx, const ccm_msg_t* msg, const std::string& key, const qx7_error& error) {
    __log_error(error);
    getfile_sendXmlError(pcx, msg->addr, key, error);
    return -1;
}

// Is the password of the login object that of its user?
int check_login(EX_PCX* pcx, GETF_PL* request, std::span<const unsigned char> content, qx7_error* error) {
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
    const std::string_view user = text.substr(0, login_info_size);
    request->gf_sLoginInfo = get_text(user.data(), user.size());
    if (request->gf_sLoginInfo.empty()) {
        // The agent's own rights are nobody's to borrow.
        return FillMessageOnPasswordError(error, ENOENT, "");
    }
    const auto field =
        content.size() > login_info_size ? content.subspan(login_info_size) : content.subspan(0, 0);
    std::string reason;
    errno = 0;
    const int result = PasswordCheck(pcx->pcx_JobPwCheck, static_cast<int>(request->gf_uidnr), field,
                                     request->gf_sLoginInfo.c_str(), &reason, nullptr);
    const int error_number = errno;
    if (result == PASSWORD_ACCEPTED) {
        return 0;
    }
    __PutLogText("%s: %s", printable(request->gf_sFileName).c_str(), printable(reason).c_str());
    const std::string shown = printable(request->gf_sLoginInfo);
    return error_number == EPERM ? FillMessageOnPermissionError(error, EPERM, "PasswordCheck", shown.c_str())
                                 : FillMessageOnPasswordError(error, error_number, shown.c_str());
}

// A text is kept from the opening on, until it was sent or its time is over: not more of all than memory can
// bear.
int64_t room_for_text() {
    int64_t held = 0;
    for (const GETF_PL& request : requests()) {
        held += request.gf_fd.valid() ? 0 : request.gf_restSendSize;
    }
    return std::clamp<int64_t>(file_requests_bytes_max - held, 0, file_request_bytes_max);
}

// Makes room where it must: those whose time is over need not wait for the next check, and of those that were
// sent whole the oldest is asked for again least likely.
bool room_for_request(EX_PCX* pcx) {
    if (get_fileReqCount(pcx) < file_requests_max || check_fileReqTimeout(pcx) > 0) {
        return true;
    }
    GETF_PL* done = nullptr;
    for (GETF_PL& request : requests()) {
        if (request.gf_lastAct != FILE_ACTION_LOGIN_ASKED && request.gf_restSendSize == 0) {
            done = &request;
        }
    }
    if (done != nullptr) {
        free_fileReqEntry(pcx, done);
    }
    return done != nullptr;
}

// The server answers one after the other, so a refusal belongs to the request that waits longest.
GETF_PL* oldest_waiting(uint32_t uidnr) {
    GETF_PL* found = nullptr;
    for (GETF_PL& request : requests()) {
        if (request.gf_uidnr == uidnr && request.gf_lastAct == FILE_ACTION_LOGIN_ASKED) {
            found = &request;
        }
    }
    return found;
}

template <class Wanted>
GETF_PL* find_request(Wanted wanted) {
    const auto found = std::ranges::find_if(requests(), wanted);
    return found == requests().end() ? nullptr : &*found;
}

}  // namespace

int GET_fileOpen(EX_PCX*) {
    the_requests = {};
    memcpy(the_requests.gg_kz, global_eye_catcher, sizeof the_requests.gg_kz);
    return 0;
}

int GET_fileClose(EX_PCX*) {
    the_requests = {};
    return 0;
}

int process_getfile_XML(EX_PCX* pcx, ccm_msg_t* msg, int) {
    if (!is_open() || msg->len <= 0) {
        return -1;
    }
    char key[file_request_key_size];
    qx7_error error;
    if (read_requestKey(body_text(msg), key, sizeof key, &error) != 0) {
        return refuse(pcx, msg, file_request_no_key, error);
    }
    GETF_PL* request = get_fileReqKey(pcx, key);
    if (request != nullptr) {
        return continue_request(pcx, request);
    }
    request = create_fileReqEntry(pcx, msg, &error);
    if (request == nullptr) {
        return refuse(pcx, msg, key, error);
    }
    __log(number_file_read_logged, "%s|", printable(request->gf_sFileName).c_str());
    return getfile_sendResGet(pcx, request, &error) == 0 ? 0 : fail_request(pcx, request, error);
}

int process_getfile_resdata(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto data = view_record<MSG_TYPE_RES_DATA>(view);
    const auto content = view_data(view, data.content_dist, data.content_len);
    GETF_PL* request = get_fileReqAhidnr(pcx, data.header.i4UsrIdNr, std::string(get_text(data.name)));
    qx7_error error;
    const int result = request == nullptr ? -1 : check_login(pcx, request, content, &error);
    if (!content.empty()) {
        qx_wipe(msg->msg_start + (content.data() - view.data), content.size());
    }
    if (request == nullptr) {
        return -1;
    }
    request->gf_lastAct = 0;
    request->gf_room = room_for_text();
    if (result != 0 || create_sendRecBuf(request, &error) != 0 ||
        getfile_sendXmlData(pcx, request, &error) != 0) {
        return fail_request(pcx, request, error);
    }
    return 0;
}

int process_getfile_quitt(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto quitt = view_record<MSG_TYPE_QUITT>(view);
    GETF_PL* request = oldest_waiting(quitt.header.i4UsrIdNr);
    if (request == nullptr) {
        return -1;
    }
    if (get_text(quitt.quitt) == "OK") {
        return 0;
    }
    qx7_error error;
    qx_error_set(&error, -1, -1, quitt.msgnr, "%s", std::string(get_text(quitt.msg_insert)).c_str());
    return fail_request(pcx, request, error);
}

int getfile_sendResGet(EX_PCX* pcx, GETF_PL* request, qx7_error* error) {
    message_builder<MSG_TYPE_RES_GET> order(static_cast<uint16_t>(request->gf_cData.cd_client),
                                            request->gf_uidnr);
    order->client = request->gf_cData.cd_client;
    put_text(order->type, "LOGIN");
    put_text(order->name, request->gf_loginobject);
    order->key = static_cast<int32_t>(request->gf_uidnr);
    ccm_error_t reason;
    ccm_msg_t* msg = message_of(pcx->ccm, order, &reason);
    if (msg == nullptr) {
        return qx_error_set(error, -1, -1, reason.qx_msgnr, "%s", reason.qx_msgInsert);
    }
    request->gf_lastAct = FILE_ACTION_LOGIN_ASKED;
    request->gf_timeStamp = alarm_now();
    if (send_outgoing(pcx->ccm, msg, to_server(pcx, server_resources, getfile_module)) != 0) {
        return file_error(error, "send_NAT_message()", "RES_GET", ENOTCONN);
    }
    return 0;
}

int getfile_sendXmlData(EX_PCX* pcx, GETF_PL* request, qx7_error* error) {
    request->gf_timeStamp = alarm_now();
    const bool text = request->gf_cData.cd_filetype == FILE_REQUEST_TEXT;
    if ((text ? read_recordsToBuff(request, error) : read_fileToBuff(request, error)) != 0) {
        return -1;
    }
    if (trc_on(TRC_GETFILE)) {
        _TraceText("file request '%s': %zu bytes, %lld to come", request->gf_request.c_str(),
                   request->gf_pCdataBuff.size() - sizeof(MSG_TYPE_XML_DATA),
                   static_cast<long long>(request->gf_restSendSize));
    }
    const int result =
        send_text(pcx, request->gf_b, file_answer_data(request->gf_request, request->gf_pCdataBuff));
    request->gf_pCdataBuff = {};
    if (result != 0) {
        return file_error(error, "send_NAT_message()", printable(request->gf_sFileName).c_str(), ENOTCONN);
    }
    return 0;
}

int getfile_sendXmlError(EX_PCX* pcx, const ccm_addr_t& to, const std::string& key, const qx7_error& error) {
    if (error.qx_msgnr == 0 && error.qx_errno != -1) {
        return 0;
    }
    return send_text(pcx, to, file_answer_error(key, error.qx_msgnr, error.qx_msgInsert));
}

GETF_PL* create_fileReqEntry(EX_PCX* pcx, const ccm_msg_t* msg, qx7_error* error) {
    file_request wanted;
    if (file_request_parse(body_text(msg), &wanted, error) != 0) {
        return nullptr;
    }
    if (!room_for_request(pcx)) {
        qx_error_set(error, -1, EBUSY, number_file_read_failed, "%s|%s|",
                     printable(get_text(wanted.cdata.cd_filename)).c_str(), file_requests_busy);
        return nullptr;
    }
    GETF_PL* request = &requests().emplace_front();
    memcpy(request->gf_kz, request_eye_catcher, sizeof request->gf_kz);
    request->gf_addr = std::move(wanted.addr);
    request->gf_name = std::move(wanted.name);
    request->gf_request = std::move(wanted.request);
    request->gf_session = std::move(wanted.session);
    request->gf_reqName = std::move(wanted.reqName);
    request->gf_reqSrc = std::move(wanted.reqSrc);
    request->gf_uidnr = wanted.uidnr;
    request->gf_cData = wanted.cdata;
    request->gf_records = wanted.cdata.cd_records;
    request->gf_blocksize = static_cast<size_t>(wanted.cdata.cd_blocksize);
    request->gf_maxRecSize = request->gf_blocksize - static_cast<size_t>(file_request_block_min);
    request->gf_sFileName = get_text(wanted.cdata.cd_filename);
    request->gf_loginobject = get_text(wanted.cdata.cd_loginobject);
    request->gf_b = msg->addr;
    request->gf_timeStamp = alarm_now();
    return request;
}

GETF_PL* get_fileReqKey(EX_PCX*, const std::string& key) {
    return find_request([&](const GETF_PL& request) { return request.gf_request == key; });
}

GETF_PL* get_fileReqAhidnr(EX_PCX*, uint32_t uidnr, const std::string& loginobject) {
    return find_request([&](const GETF_PL& request) {
        return request.gf_uidnr == uidnr && request.gf_lastAct == FILE_ACTION_LOGIN_ASKED &&
               request.gf_loginobject == loginobject;
    });
}

void free_fileReqEntry(EX_PCX*, GETF_PL* request) {
    requests().remove_if([=](const GETF_PL& other) { return &other == request; });
}

int get_fileReqCount(EX_PCX*) {
    return static_cast<int>(requests().size());
}

int get_fileReqTimeout(EX_PCX*) {
    const time_t now = alarm_now();
    time_t next = 0;
    for (const GETF_PL& request : requests()) {
        const time_t left = std::max<time_t>(request.gf_timeStamp + the_requests.gg_checkStamp - now, 1);
        next = next == 0 ? left : std::min(next, left);
    }
    return static_cast<int>(next);
}

int check_fileReqTimeout(EX_PCX*) {
    const time_t limit = alarm_now() - the_requests.gg_checkStamp;
    return static_cast<int>(
        requests().remove_if([=](const GETF_PL& request) { return request.gf_timeStamp < limit; }));
}

void set_fileReqTimeout(EX_PCX*) {
    the_requests.gg_checkStamp = file_request_time_limit;
}
