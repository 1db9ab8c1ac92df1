// The sender's window: how many blocks are under way, and when the transfer is over.
//
// The count of open blocks is that of what the receiver has not taken yet; nothing but its FTXQUIT lowers it. The
// receiver quits each async_quit_num blocks and those that are left at the end of a stream, so that the sender knows
// how many each FTXQUIT speaks of, also while one stream follows the other.
#include <algorithm>
#include <cerrno>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

namespace {

bool exhausted(const ftx_entry* ftx) {
    return (ftx->ftx_send_flag & FTX_SEND_EXHAUSTED) != 0;
}

bool resend_wanted(const ftx_entry* ftx) {
    return (ftx->ftx_send_flag & FTX_SEND_RESEND_WANTED) != 0;
}

// Files that the receiver wants anew go out in a stream of their own.
int begin_resend(ftx_entry* ftx) {
    qx7_error err;
    ftx->ftx_send_flag &= ~(FTX_SEND_EXHAUSTED | FTX_SEND_NO_END | FTX_SEND_RESEND_WANTED);
    ftx->ftx_send_flag |= FTX_SEND_RESENDING;
    ftx->ftx_progress = FTX_BETWEEN_FILES;
    ftx->ftx_status_flag = FTX_STATUS_RUNNING;
    ftx->current = nullptr;
    if (src_openCompress(ftx, &err) == 0) {
        return 0;
    }
    __log_error(err);
    ftx_set_message(ftx, err.qx_msgnr, err.qx_msgInsert);
    return -1;
}

void close_group(ftx_entry* ftx) {
    if (ftx->filling_group > 0) {
        ftx->open_groups.push_back(ftx->filling_group);
        ftx->filling_group = 0;
    }
}

void count_block(ftx_entry* ftx) {
    ++ftx->ftx_nof_unquitted;
    if (++ftx->filling_group == ftx->ftx_async_quit_num) {
        close_group(ftx);
    }
}

void count_quit(ftx_entry* ftx) {
    int taken = ftx->ftx_async_quit_num;
    if (!ftx->open_groups.empty()) {
        taken = ftx->open_groups.front();
        ftx->open_groups.pop_front();
    }
    ftx->ftx_nof_unquitted = std::max(0, ftx->ftx_nof_unquitted - taken);
}

// A stream without its sync cannot be ended at the receiver.
int stream_ended(ftx_entry* ftx) {
    close_group(ftx);
    if (ftx->ftx_progress == FTX_SYNC_ISSUED) {
        ftx->ftx_send_flag |= FTX_SEND_EXHAUSTED;
        return 0;
    }
    const std::string file = ftx->current == nullptr ? ftx->source_file : ftx->current->source_name;
    const std::string insert = std::to_string(ftx->ftx_transfer_id) + "|" + printable(file) + "|" +
                               std::to_string(EIO) + "(" + error_text(EIO) + ")";
    __log(number_transfer_read_failed, "%s", insert.c_str());
    ftx_set_message(ftx, number_transfer_read_failed, insert);
    return -1;
}

// One block, or the step from one stream to the next. Above 0: a block went out.
int send_next(EX_PCX* pcx, ftx_entry* ftx) {
    if (ftx->compressor == nullptr && begin_resend(ftx) != 0) {
        return -1;
    }
    const int sent = ftx_send_ftxdata(pcx, ftx);
    return sent == 0 ? stream_ended(ftx) : sent;
}

void fail(EX_PCX* pcx, ftx_entry* ftx) {
    if (ftx->current != nullptr) {
        update_FtxStatus(ftx, ftx->current, FTXE_ERROR);
    }
    ftx_end_with_error(pcx, ftx);
}

// Whether the files have come to an end that FTXEND tells.
bool judge_end(EX_PCX* pcx, ftx_entry* ftx) {
    if (ftx->has(FTX_ABORT_ON_ERROR) && ftx->ftx_nof_error > 0) {
        ftx->ftx_status_flag = FTX_STATUS_ERROR;
    } else if (ftx->ftx_nof_error + ftx->ftx_nof_completed == ftx->ftx_files_total) {
        ftx->ftx_status_flag = ftx->ftx_nof_error > 0 ? FTX_STATUS_ERROR : FTX_STATUS_FINISHED;
    } else {
        return false;
    }
    ftx_send_end(pcx, ftx);
    return true;
}

// The receiver has taken all and leaves files without a word.
void give_up_untold(EX_PCX* pcx, ftx_entry* ftx) {
    for (auto& [oid, elem] : ftx->elements) {
        const char status = elem.ftxe_status;
        if (status == FTXE_COMPLETE || status == FTXE_ERROR || status == FTXE_LEFT_OUT) {
            continue;
        }
        const std::string insert = std::to_string(ftx->ftx_transfer_id) + "|" + printable(elem.source_name) +
                                   "|errno " + std::to_string(EPROTO) + "(" + error_text(EPROTO) + ")";
        __log(number_transfer_write_failed, "%s", insert.c_str());
        putFtxLog(ftx, number_transfer_write_failed, "%s", insert.c_str());
        ftxe_set_message(&elem, number_transfer_write_failed, EPROTO, insert);
        update_FtxStatus(ftx, &elem, FTXE_ERROR);
    }
    ftx->ftx_status_flag = FTX_STATUS_ERROR;
    ftx_send_end(pcx, ftx);
}

bool must_wait(const ftx_entry* ftx) {
    const int open = ftx->ftx_nof_unquitted;
    return open != 0 && open >= ftx->ftx_async_quit_min && open >= ftx->ftx_async_quit_num;
}

}  // namespace

void ftx_transfer_data(EX_PCX* pcx, ftx_entry* ftx) {
    while (ftx->ftx_nof_unquitted < ftx->ftx_async_quit_max && (!exhausted(ftx) || resend_wanted(ftx))) {
        const int sent = send_next(pcx, ftx);
        if (ftx->interrupted) {
            return;  // what waits ends the transfer
        }
        if (sent < 0) {
            fail(pcx, ftx);
            return;
        }
        if (sent > 0) {
            count_block(ftx);
        }
    }
}

void ftx_group_quitted(EX_PCX* pcx, ftx_entry* ftx) {
    count_quit(ftx);
    if (ftx->interrupted || ftx->ftx_status_flag != FTX_STATUS_RUNNING || judge_end(pcx, ftx)) {
        return;
    }
    if (exhausted(ftx) && !resend_wanted(ftx)) {
        if (ftx->ftx_nof_unquitted == 0) {
            give_up_untold(pcx, ftx);
        }
        return;
    }
    if (must_wait(ftx)) {
        return;
    }
    ftx_transfer_data(pcx, ftx);
    // This FTXQUIT may have been the last.
    if (exhausted(ftx) && !resend_wanted(ftx) && ftx->ftx_status_flag == FTX_STATUS_RUNNING) {
        judge_end(pcx, ftx);
    }
}

void ftx_send_end(EX_PCX* pcx, ftx_entry* ftx) {
    if (ftx->ftx_status_flag != FTX_STATUS_FINISHED) {
        ftx->ftx_send_flag &= ~(FTX_SEND_RESEND_WANTED | FTX_SEND_RESENDING);
    }
    src_closeFile(ftx);
    src_closeCompress(ftx);
    ftx->ftx_send_flag |= FTX_SEND_EXHAUSTED;
    ftx_send_ftxend(pcx, ftx);
}

void ftx_finish(EX_PCX* pcx, ftx_entry* ftx) {
    ftx->ftx_progress = FTX_FINISHED;
    qx7_error err;
    if (ss_saveFTX(ftx, &err) != 0) {
        __log_error(err);
    }
    ftx_send_ftxsta(pcx, ftx);
    ftx_send_ftxwrite(pcx, ftx, 1);
}

void ftx_end_with_error(EX_PCX* pcx, ftx_entry* ftx) {
    if (ftx->ftx_status_flag != FTX_STATUS_CANCELLED) {
        ftx->ftx_status_flag = FTX_STATUS_ERROR;
    }
    src_closeFile(ftx);
    src_closeCompress(ftx);
    ftx_finish(pcx, ftx);
}
