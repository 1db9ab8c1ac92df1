#include "agent/log_stream.h"

#include <cstring>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/messages.h"
#include "channels/outgoing.h"
#include "log/log.h"
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

MSG_TYPE_WRITE write_head(const EX_PCX* pcx, int length) {
    auto head = new_message<MSG_TYPE_WRITE>(0, 0);
    memcpy(head.typ, pcx->report_type, sizeof head.typ);
    head.ah_idnr = pcx->report_id;
    head.timestamp = timestamp_now();
    head.blksize = pcx->logBlksize;
    MSG_TYPE_WRITE::inhalt(&head, sizeof head, static_cast<size_t>(length));
    return head;
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
        __log(number_file_call, "%s", call_insert("OpenLogFile()", pcx->logFile, errno).c_str());
    }
    __log(number_log_started, "%s|", pcx->logFile);
    __log(number_log_continued, "%s|%s|", pcx->exName, pcx->exVers);
    LOG_LogMsgStack(pcx);
}

void take_report_id(EX_PCX* pcx, int id) {
    pcx->report_id = pcx->report_id_neu = id;
}

}  // namespace

int send_logblock2server(EX_PCX* pcx) {
    // Filled in its place, for it is large.
    ccm_msg_t* msg = outgoing_message(pcx->ccm, ccm_msg_standard_size);
    if (msg == nullptr) {
        return 0;  // the lines wait for the next turn
    }
    int used = 0;
    const int lines = take_lines(pcx, ccm_msg_body(msg) + sizeof(MSG_TYPE_WRITE), block_capacity(pcx), &used);
    if (lines == 0) {
        ccm_msg_free(pcx->ccm, msg);
        return 0;
    }
    const MSG_TYPE_WRITE head = write_head(pcx, used);
    memcpy(ccm_msg_body(msg), &head, sizeof head);
    msg->len = static_cast<int>(sizeof head) + used;
    if (send_outgoing(pcx->ccm, msg, to_server(pcx, report_module, "QXREPEX")) != 0) {
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
    __log(number_log_report, "%d|", order.ah_idnr);
    send_log2server(pcx, log_blocks_at_end);
    put_text(pcx->report_b_name, get_text(msg->addr.src_name));
    start_new_log(pcx);

    message_builder<MSG_TYPE_CHGLOGQU> answer(order.header);
    answer->ah_idnr_old = pcx->report_id;
    answer->ah_idnr_new = order.ah_idnr;
    answer->timestamp = timestamp_now();
    put_text(answer->filler, "");
    take_report_id(pcx, order.ah_idnr);
    return send_built(pcx->ccm, answer, to_sender(msg));
}

int send_chglogr(EX_PCX* pcx) {
    send_log2server(pcx, log_blocks_at_end);
    start_new_log(pcx);
    message_builder<MSG_TYPE_CHGLOGR> request(0, 0);
    request->ah_idnr_old = pcx->report_id;
    put_text(request->filler, "");
    // Set also when the request can't be made: the next logon ends it.
    pcx->waitForChglogQu = 1;
    return send_built(pcx->ccm, request, to_server(pcx, variables_module, "QXEXVAR"));
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
