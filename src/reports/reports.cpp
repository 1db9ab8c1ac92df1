#include "reports/reports.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/outgoing.h"
#include "identity/accounts.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "reports/report_open.h"

namespace {

constexpr char module_reports[] = "QXREPEX";

// ---- REP_END

struct report_end {
    int ah_idnr = 0;
    int rep_ah_idnr = 0;
    char rep_type[8] = {};
    int rep_blk = 0;
    QX_HEADM header = {};
    int msgnr = 0;
    std::string insert;
    int64_t bytes = 0;
    int64_t records = 0;
};

template <class Request>
report_end end_from(const Request& request, int msgnr, std::string_view insert) {
    report_end end;
    end.ah_idnr = request.ah_idnr;
    end.rep_ah_idnr = request.rep_ah_idnr;
    memcpy(end.rep_type, request.rep_type, sizeof end.rep_type);
    end.rep_blk = request.rep_blk;
    end.header = request.header;
    end.msgnr = msgnr;
    end.insert = insert;
    return end;
}

report_end iFillRepGetToRepEnd(const MSG_TYPE_REP_GET& get, int msgnr, std::string_view insert) {
    return end_from(get, msgnr, insert);
}

report_end iFillRepQuitToRepEnd(const MSG_TYPE_REP_QUIT& quit, int msgnr, std::string_view insert) {
    return end_from(quit, msgnr, insert);
}

void iChangeRepEndMessage(report_end* end, int msgnr, std::string_view insert) {
    end->msgnr = msgnr;
    end->insert = insert;
}

int send_report_end(EX_PCX* pcx, const report_end& end, const char* module, uint32_t acv) {
    message_builder<MSG_TYPE_REP_END> message(end.header);
    MSG_TYPE_REP_END& body = message.record;
    body.ah_idnr = end.ah_idnr;
    body.rep_ah_idnr = end.rep_ah_idnr;
    memcpy(body.rep_type, end.rep_type, sizeof body.rep_type);
    body.rep_blk = end.rep_blk;
    body.msgnr = end.msgnr;
    put_text(body.msg_insert, std::string_view{end.insert}.substr(0, sizeof body.msg_insert - 1));
    body.totalsize = end.bytes;
    body.transfered = end.bytes;
    body.reccnt = end.records;
    ccm_msg_t* msg = message_of(pcx->ccm, message);
    if (msg == nullptr) {
        return -1;
    }
    send_outgoing(pcx->ccm, msg, to_server(pcx, module, module_reports, static_cast<int>(acv)));
    return 1;
}

// ---- data

bool start_block(EX_PCX* pcx, report_block* block, const REP_Area* area) {
    block->msg = outgoing_message(pcx->ccm, report_data_offset + static_cast<size_t>(area->i4Blksize));
    return block->msg != nullptr;
}

// Who the block is for and which one it is: what the request says. Everything else follows from the file.
template <class Request>
void address_block(report_block* block, const Request& request) {
    CreateQxHeadm(&block->head.header, "REP_DATA", request.header.i2Mandant, request.header.i4UsrIdNr);
    block->head.ah_idnr = request.ah_idnr;
    block->head.rep_ah_idnr = request.rep_ah_idnr;
    block->head.rep_rh_idnr = request.rep_rh_idnr;
    memcpy(block->head.rep_type, request.rep_type, sizeof block->head.rep_type);
    block->head.rep_blk = request.rep_blk;
}

void complete_block(EX_PCX* pcx, report_block* block, const REP_Area* area) {
    block->head.transfered = area->llByteSend;
    block->head.reccnt = area->llRecCount;
    block->head.data_dist = report_data_offset;
    block->head.data_len = block->length;
    memcpy(block->body(), &block->head, sizeof block->head);
    block->msg->msg_start = block->body();
    block->msg->len = report_data_offset + block->length;
    set_route(block->msg,
              to_server(pcx, report_server_module, module_reports, static_cast<int>(area->RepGet_bAcv)));
}

int send_block(EX_PCX* pcx, report_block* block, const REP_Area* area) {
    complete_block(pcx, block, area);
    send_NAT_message(pcx->ccm, block->msg);
    block->msg = nullptr;
    return 0;
}

int send_prepared(EX_PCX* pcx, report_block* block) {
    ccm_send_prepared(pcx->ccm, block->msg);
    block->msg = nullptr;
    return 0;
}

void note_start_of_block(REP_Area* area) {
    area->rep_llByteSend = area->llByteSend;
    area->rep_llRecCount = area->llRecCount;
}

// While the server takes the block that was just sent: the next one need not wait for the disk, nor for its
// seal, if the server asks for it as it asked for this one.
void make_ahead(EX_PCX* pcx, REP_Area* area, const MSG_TYPE_REP_DATA& sent) {
    constexpr size_t spare = 4096;  // so that the line behind the block shows that it is full
    if (area->line_in_hand && area->pLastRec.data() != area->cut_record.data()) {
        area->cut_record = area->pLastRec;
        area->pLastRec = area->cut_record;
    }
    text_reader_read_ahead(&area->pFile, static_cast<size_t>(area->i4Blksize) + spare);
    report_block& next = area->ahead;
    if (area->lLastRec < 0 || area->lRetCode != 0 || !start_block(pcx, &next, area)) {
        return;
    }
    note_start_of_block(area);
    next.full = report_fill_block(area, next.text(), &next.length, static_cast<size_t>(area->i4Blksize) - 2,
                                  REPORT_AHEAD) == REPORT_FILL_FULL;
    if (!next.full) {
        return;
    }
    next.head = sent;
    next.head.rep_blk += 1;
    next.head.totalsize = 0;
    complete_block(pcx, &next, area);
    next.prepared = true;
    if (ccm_prepare_NAT_message(pcx->ccm, next.msg) != 0) {
        next = {};
        area->i4Errno = EINVAL;  // its lines are gone: the transfer must not go on without them
        area->lLastRec = read_failed;
    }
}

// The block as the request wants it: what was made ahead, or a new one.
bool next_block(EX_PCX* pcx, report_block* block, REP_Area* area, const MSG_TYPE_REP_QUIT& quit) {
    *block = std::exchange(area->ahead, {});
    if (block->msg == nullptr) {
        note_start_of_block(area);
        if (!start_block(pcx, block, area)) {
            return false;
        }
    }
    const MSG_TYPE_REP_DATA expected = block->head;
    address_block(block, quit);
    block->prepared = block->prepared && memcmp(&expected, &block->head, sizeof expected) == 0;
    return true;
}

int erase_file(const REP_Area* area, int* error_number) {
    qx7_error error;
    const int result = area->erase_user.empty()
                           ? remove_on_order(area->cFile.c_str())
                           : removeFile_EffUser(area->erase_user.c_str(), area->cFile.c_str(), &error);
    *error_number = area->erase_user.empty() ? errno : error.qx_errno;
    return result;
}

// The end of a transfer: counters, erasing, log lines, REP_END.
int finish_transfer(EX_PCX* pcx, const REP_Area* area, report_end end) {
    end.bytes = area->llByteSend;
    end.records = area->llRecCount;
    if (end.msgnr == 0 && area->cErase == '1') {
        int error_number = 0;
        if (erase_file(area, &error_number) != 0) {
            iChangeRepEndMessage(
                &end, number_report_erase_failed,
                area->cFile + "|" + std::to_string(error_number) + "|" + error_text(error_number) + "|");
        }
    }
    if (end.msgnr != 0) {
        __log(end.msgnr, "%s", end.insert.c_str());
        __log(number_report_failed, "%u|", static_cast<unsigned>(area->iRepGet_ah_idnr));
    } else {
        __log(number_report_ended, "%u|", static_cast<unsigned>(area->iRepGet_ah_idnr));
    }
    return send_report_end(pcx, end, area->RepEnd_bName.c_str(), area->RepGet_bAcv);
}

std::string read_failure(const REP_Area* area) {
    return area->cFile + "|" + std::to_string(area->i4Errno) + "|" + error_text(area->i4Errno) + "|";
}

// Fills the block that the server wants first; earlier ones are read and thrown away, each with counters of
// its own.
report_fill fill_first_block(REP_Area* area, report_block* block, int wanted) {
    size_t size = static_cast<size_t>(area->i4Blksize) - 1;
    for (int number = 0;; ++number) {
        const report_fill fill = report_fill_block(area, block->text(), &block->length, size, REPORT_FIRST);
        if (fill != REPORT_FILL_FULL || number >= wanted) {
            if (number < wanted) {
                block->length = 0;  // the file ends before the wanted block
            }
            return fill;
        }
        block->length = 0;
        area->llByteSend = 0;
        area->llRecCount = 0;
        size = static_cast<size_t>(area->i4Blksize) - 2;
    }
}

int refuse_opening(EX_PCX* pcx, const MSG_TYPE_REP_GET& get, const report_source& source,
                   const ccm_addr_t& from) {
    __log(source.number, "%s", source.insert.c_str());
    const int result = send_report_end(pcx, iFillRepGetToRepEnd(get, source.number, source.insert),
                                       from.src_name, static_cast<uint32_t>(from.src_acv));
    __log(number_report_failed, "%u|", static_cast<unsigned>(get.ah_idnr));
    return result;
}

int send_first_block(EX_PCX* pcx, std::unique_ptr<REP_Area> area, const MSG_TYPE_REP_GET& get) {
    report_block block;
    if (!start_block(pcx, &block, area.get())) {
        return -1;
    }
    address_block(&block, get);
    const report_fill fill = fill_first_block(area.get(), &block, get.rep_blk);
    if (block.length == 0) {
        drop_block(pcx, &block);
        report_end end = iFillRepGetToRepEnd(get, 0, "");
        if (fill == REPORT_FILL_ERROR) {
            iChangeRepEndMessage(&end, number_report_read_failed, read_failure(area.get()));
        }
        return finish_transfer(pcx, area.get(), end);
    }
    block.head.totalsize = area->llByteSend;
    const int result = send_block(pcx, &block, area.get());
    make_ahead(pcx, area.get(), block.head);
    addReportEntry(pcx, std::move(area));
    return result;
}

// ---- later blocks

void note_asker(REP_Area* area, const ccm_addr_t& from) {
    area->last_use = alarm_now();
    area->RepQuit_bAddr = from.src_addr;
    area->RepQuit_bName = from.src_name;
    area->RepQuit_bAcv = static_cast<uint32_t>(from.src_acv);
}

int end_transfer(EX_PCX* pcx, REP_Area* area, const report_end& end) {
    const int result = finish_transfer(pcx, area, end);
    deleteReportEntry(pcx, end.ah_idnr);
    return result;
}

// The server has what it wanted or wants no more, or the last block said why nothing follows it.
int end_as_asked(EX_PCX* pcx, REP_Area* area, const MSG_TYPE_REP_QUIT& quit) {
    if (area->ahead.msg != nullptr) {  // not sent, and not counted
        area->llByteSend = area->rep_llByteSend;
        area->llRecCount = area->rep_llRecCount;
    }
    report_end end = iFillRepQuitToRepEnd(quit, quit.msgnr, get_text(quit.msg_insert));
    if (quit.msgnr == 0 && area->lRetCode != 0) {
        iChangeRepEndMessage(&end, area->lRetCode, area->cRetText);
    }
    if (area->lLastRec == read_failed && end.msgnr == 0) {
        // Half a report must not pass for the whole one: it would be erased.
        iChangeRepEndMessage(&end, number_report_read_failed, read_failure(area));
    } else if (area->lLastRec == read_failed) {
        __log(number_report_read_failed, "%s", read_failure(area).c_str());
    }
    return end_transfer(pcx, area, end);
}

report_fill fill_next_block(REP_Area* area, report_block* block, int number) {
    if (area->lMaxBlk > 0 && number >= area->lMaxBlk) {
        area->lRetCode = number_report_block_limit;
        area->cRetText = area->cFile + "|" + std::to_string(area->lMaxBlk) + "|";
    }
    if (block->full) {
        return REPORT_FILL_FULL;
    }
    const report_fill fill = report_fill_block(area, block->text(), &block->length,
                                               static_cast<size_t>(area->i4Blksize) - 2, REPORT_LATER);
    if (fill == REPORT_FILL_END && area->lRetCode == number_report_block_limit) {
        area->lRetCode = 0;  // the rest of the file fits into the last block
    }
    return fill;
}

int end_without_block(EX_PCX* pcx, REP_Area* area, report_block* block, const MSG_TYPE_REP_QUIT& quit,
                      report_fill fill) {
    drop_block(pcx, block);
    report_end end = iFillRepQuitToRepEnd(quit, 0, "");
    if (fill == REPORT_FILL_ERROR) {
        iChangeRepEndMessage(&end, number_report_read_failed, read_failure(area));
    } else if (fill == REPORT_FILL_LIMIT) {
        iChangeRepEndMessage(&end, area->lRetCode, area->cRetText);
    }
    return end_transfer(pcx, area, end);
}

// The last block that a limit allows, where the file goes on.
int send_last_lines(EX_PCX* pcx, REP_Area* area, report_block* block, const MSG_TYPE_REP_QUIT& quit) {
    qx7_error error;
    if (create_lastRecBuf(area, block->text(), &block->length, &error) != 0) {
        __log_error(error);
        area->i4Errno = error.qx_errno;
        block->length = 0;
        return end_without_block(pcx, area, block, quit, REPORT_FILL_ERROR);
    }
    send_block(pcx, block, area);
    return 1;
}

}  // namespace

void drop_block(EX_PCX* pcx, report_block* block) {
    if (block->msg != nullptr && !block->prepared) {
        block->msg->type = CCM_MSG_NAT;  // so that its text is wiped
        block->msg->len = report_data_offset + block->length;
    }
    ccm_msg_free(pcx->ccm, block->msg);
    *block = {};
}

int process_repget(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    auto get = view_record<MSG_TYPE_REP_GET>(view);
    close_idle_reports(pcx);
    report_source source;
    my_passwd_unlimited passwd;
    if (find_source(pcx, &get, &source, &passwd) != 0) {
        return refuse_opening(pcx, get, source, msg->addr);
    }
    __log(number_report_started, "%u|%s|", static_cast<unsigned>(get.ah_idnr), source.file.c_str());
    qx_descriptor file;
    if (open_source(pcx, &source, passwd, &file) != 0) {
        return refuse_opening(pcx, get, source, msg->addr);
    }
    std::unique_ptr<REP_Area> area = make_area(pcx, get, view, source, msg->addr);
    area->rep_fd = std::move(file);
    text_reader_open(&area->pFile, area->rep_fd.fd, TEXT_CODE_BINARY + 1, 0);
    return send_first_block(pcx, std::move(area), get);
}

int process_repquit(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto quit = view_record<MSG_TYPE_REP_QUIT>(view_of(msg));
    REP_Area* area = getReportEntry(pcx, quit.ah_idnr);
    if (area == nullptr) {
        __log(number_report_unknown, "%u|", static_cast<unsigned>(quit.ah_idnr));
        return 0;
    }
    note_asker(area, msg->addr);
    if (area->lLastRec < 0 || quit.msgnr != 0 || area->lRetCode != 0) {
        return end_as_asked(pcx, area, quit);
    }
    report_block block;
    if (!next_block(pcx, &block, area, quit)) {
        return -1;
    }
    const report_fill fill = fill_next_block(area, &block, quit.rep_blk);
    if (fill == REPORT_FILL_FULL && area->lRetCode == number_report_block_limit) {
        return send_last_lines(pcx, area, &block, quit);
    }
    if (block.length == 0) {
        return end_without_block(pcx, area, &block, quit, fill);
    }
    const int result = block.prepared ? send_prepared(pcx, &block) : send_block(pcx, &block, area);
    make_ahead(pcx, area, block.head);
    return result;
}

int process_repstop(EX_PCX* pcx, ccm_msg_t*, int) {
    if (getReportCount() != 0) {
        __PutLogText("The server ended all report transfers (REP_STOP).");
    }
    deleteAllReportEntry(pcx);
    return 0;
}
