#include "agent/log_stream.h"

#include <cstring>

#include "base/context.h"
#include "base/log.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/messages.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "messages/view.h"

namespace {

constexpr int block_max = 32708;  // with its head it fits a standard message
constexpr int block_min = 256;
constexpr int room_to_leave = 100;
constexpr char line_end[] = "\r\n";
constexpr int line_end_size = 2;
constexpr char report_module[] = "QXREPRTR";
constexpr char variables_module[] = "QXVAREXR";

int block_capacity(const EX_PCX* pcx) {
    return pcx->logBlksize >= block_min && pcx->logBlksize < block_max ? pcx->logBlksize : block_max;
}

void fill_write_head(const EX_PCX* pcx, int length, MSG_TYPE_WRITE* head) {
    CreateQxHeadm(&head->header, "WRITE", 0, 0);
    memcpy(head->typ, pcx->report_type, sizeof head->typ);
    head->ah_idnr = pcx->report_id;
    head->timestamp = timestamp_now();
    head->blksize = pcx->logBlksize;
    head->inhalt_dist = sizeof(MSG_TYPE_WRITE);
    head->inhalt_len = length;
}

// Lines into `out` until the next one would not leave room; they stay, marked as being sent. A line that does
// not fit an empty block is cut.
int take_lines(EX_PCX* pcx, unsigned char* out, int capacity, int* used) {
    int lines = 0;
    const log_guard guard;
    while (ZULOGG_MSG_BUFFER* line = ZULOGG_GetMsg(pcx->logHnd)) {
        int length = static_cast<int>(line->length);
        if (lines > 0 && *used + length + line_end_size + room_to_leave > capacity) {
            ZULOGG_PutMsg(pcx->logHnd, line);
            break;
        }
        if (length > capacity - line_end_size) {
            length = capacity - line_end_size;
        }
        memcpy(out + *used, line->text, static_cast<size_t>(length));
        memcpy(out + *used + length, line_end, line_end_size);
        *used += length + line_end_size;
        ++lines;
    }
    return lines;
}

void start_new_log(EX_PCX* pcx) {
    if (OpenLogFile(pcx) != 0) {
        __log(2003041, "OpenLogFile()|%s|%u|%s|", pcx->logFile, static_cast<unsigned>(errno),
              strerror(errno));
    }
    __log(2000059, "%s|", pcx->logFile);
    __log(2000130, "%s|%s|", pcx->exName, pcx->exVers);
    LOG_LogMsgStack(pcx);
}

void take_report_id(EX_PCX* pcx, int id) {
    pcx->report_id = pcx->report_id_neu = id;
}

message_view view_of(const ccm_msg_t* msg) {
    return view_message(msg->msg_start, msg->len < 0 ? 0 : static_cast<size_t>(msg->len));
}

}  // namespace

int send_logblock2server(EX_PCX* pcx) {
    ccm_msg_t* msg = ccm_msg_alloc(pcx->ccm, nullptr);
    if (msg == nullptr) {
        return 0;  // the lines wait for the next turn
    }
    int used = 0;
    const int lines = take_lines(pcx, ccm_msg_body(msg) + sizeof(MSG_TYPE_WRITE), block_capacity(pcx), &used);
    if (lines == 0) {
        ccm_msg_free(pcx->ccm, msg);
        return 0;
    }
    MSG_TYPE_WRITE head = {};
    fill_write_head(pcx, used, &head);
    memcpy(ccm_msg_body(msg), &head, sizeof head);
    msg->len = static_cast<int>(sizeof head) + used;
    ccm_setaddr(msg, 0, 0, ccm_name_server, report_module, 0);
    ccm_setback(msg, pcx->exName, "QXREPEX", 0);
    if (send_NAT_message(pcx->ccm, msg) != 0) {
        ZULOGG_PutMsg(pcx->logHnd, nullptr);  // for the next turn
        return 0;
    }
    ZULOGG_DelMsg(pcx->logHnd);
    return lines;
}

int send_log2server(EX_PCX* pcx, int max_blocks) {
    // Without a server a block would be freed unsent, and before its answer to the logon the server does not
    // know the report: the lines wait in memory.
    constexpr int logged_on = PCX_FLAG_SERVER_CHANNEL | PCX_FLAG_LOGGED_IN;
    if (pcx->waitForChglogQu > 0 || (pcx->pcx_flag & logged_on) != logged_on) {
        return 0;
    }
    int blocks = 0;
    while (blocks < max_blocks && send_logblock2server(pcx) > 0) {
        ++blocks;
    }
    if (pcx->report_id != pcx->report_id_neu) {
        pcx->Log_alarm_time = 0;
        return blocks;
    }
    return 0;
}

int process_chglog(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto order = view_record<MSG_TYPE_CHGLOG>(view_of(msg));
    __log(2000067, "%d|", order.ah_idnr);
    send_log2server(pcx, log_blocks_at_end);
    pcx->report_b_acv = msg->addr.src_acv;
    put_field(pcx->report_b_name, get_field(msg->addr.src_name));
    start_new_log(pcx);

    MSG_TYPE_CHGLOGQU answer = {};
    CreateQxHeadm(&answer.header, "CHGLOGQU", order.header.i2Mandant, order.header.i4UsrIdNr);
    answer.ah_idnr_old = pcx->report_id;
    answer.ah_idnr_new = order.ah_idnr;
    answer.timestamp = timestamp_now();
    memset(answer.filler, ' ', sizeof answer.filler);
    put_field(answer.wp_name, "");
    take_report_id(pcx, order.ah_idnr);
    ccm_msg_t* reply = ccm_msg_alloc_cleared(pcx->ccm, sizeof answer, nullptr);
    if (reply == nullptr) {
        return -1;
    }
    memcpy(ccm_msg_body(reply), &answer, sizeof answer);
    ccm_setaddr_reply(reply, msg);
    return send_NAT_message(pcx->ccm, reply);
}

int send_chglogr(EX_PCX* pcx) {
    send_log2server(pcx, log_blocks_at_end);
    start_new_log(pcx);
    MSG_TYPE_CHGLOGR request = {};
    CreateQxHeadm(&request.header, "CHGLOGR", 0, 0);
    request.ah_idnr_old = pcx->report_id;
    memset(request.filler, ' ', sizeof request.filler);
    // Set also when the request can't be made: the next logon ends it.
    pcx->waitForChglogQu = 1;
    ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx->ccm, sizeof request, nullptr);
    if (msg == nullptr) {
        return -1;
    }
    memcpy(ccm_msg_body(msg), &request, sizeof request);
    ccm_setaddr(msg, 0, 0, ccm_name_server, variables_module, 0);
    ccm_setback(msg, pcx->exName, "QXEXVAR", 0);
    return send_NAT_message(pcx->ccm, msg);
}

int process_chglogqu(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto answer = view_record<MSG_TYPE_CHGLOGQU>(view_of(msg));
    take_report_id(pcx, answer.ah_idnr_new);
    pcx->waitForChglogQu = 0;
    return 0;
}

void check_log_change(EX_PCX* pcx) {
    const uint64_t megabytes = ZULOGG_GetLogFileSize(pcx->logHnd) >> 20;
    const bool large = pcx->pcx_chglogSize != 0 && megabytes >= pcx->pcx_chglogSize;
    const bool old = pcx->pcx_chglogIntvl > 0 &&
                     ZULOGG_GetLogFileStartTime(pcx->logHnd) + pcx->pcx_chglogIntvl < time(nullptr);
    if (large || old) {
        send_chglogr(pcx);
    }
}
