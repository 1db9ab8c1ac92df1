// What the receiver tells of each file. Nothing in it is believed before it is known to be possible.
#include <algorithm>
#include <cerrno>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

namespace {

constexpr int resends_most = 2;  // the next one is given up
constexpr size_t quit_head = sizeof(MSG_TYPE_FTXQUIT);

// A record whose parts all stand inside the message.
struct quit_record {
    MSG_TYPE_FTXQUIT_RECORD fixed;
    std::string_view name;
    std::string_view insert;
    std::string_view restart;
};

enum record_result { RECORD_TAKEN = 0, RECORD_UNKNOWN = -1, RECORD_IMPOSSIBLE = -2 };

bool take_part(const message_view& view, int dist, int length, std::string_view* part) {
    *part = view_text(view, dist, length);
    return length >= 0 && part->size() == static_cast<size_t>(length);
}

bool read_record(const message_view& view, table_cursor* cursor, quit_record* record) {
    record->fixed = cursor_record<MSG_TYPE_FTXQUIT_RECORD>(cursor);
    const MSG_TYPE_FTXQUIT_RECORD& fixed = record->fixed;
    if (cursor->failed || !take_part(view, fixed.dstname_dist, fixed.dstname_len, &record->name) ||
        !take_part(view, fixed.msl_dist, fixed.msl_len, &record->insert) ||
        !take_part(view, fixed.res_dist, fixed.res_len, &record->restart)) {
        return false;
    }
    const size_t behind = record->name.size() + record->insert.size() + record->restart.size();
    if (behind > 0) {
        cursor_bytes(cursor, behind);
    }
    return !cursor->failed && fixed.filesize >= 0;
}

bool is_letter(char status) {
    return std::string_view("WARSCEX").find(status) != std::string_view::npos;
}

bool is_directory(const ftx_elem* elem) {
    return (elem->ftxe_flag & FTXE_DIRECTORY) != 0;
}

// ---- Lines of the report

void put_times(ftx_elem* elem) {
    elem->ftxe_endStamp = static_cast<int32_t>(time(nullptr));
    elem->ftxe_lifeTime =
        elem->ftxe_startStamp == 0 ? 0 : std::max(0, elem->ftxe_endStamp - elem->ftxe_startStamp);
}

void report_failure(ftx_entry* ftx, const ftx_elem* elem) {
    ftx_report_not_arrived(ftx, elem);
    if (elem->ftxe_msgnr > 0) {
        putFtxLog(ftx, elem->ftxe_msgnr, "%s", elem->insert.c_str());
    }
}

// ---- The letters

void save_changed(ftx_entry* ftx, ftx_elem* elem) {
    qx7_error err;
    if ((elem->ftxe_flag & FTXE_MUST_SAVE) != 0 && ss_saveFTXE(ftx, elem, &err) != 0) {
        __log_error(err);
    }
}

void remove_source(ftx_entry* ftx, ftx_elem* elem) {
    qx7_error err;
    if (ftx->ftx_erase != ftx_yes || is_directory(elem) || FTX_removeFile(ftx, elem, &err) == 0) {
        return;
    }
    const std::string insert = std::to_string(ftx->ftx_transfer_id) + "|" + printable(elem->source_name) +
                               "|" + std::to_string(err.qx_errno) + "(" + error_text(err.qx_errno) + ")|";
    __log(number_source_erase_failed, "%s", insert.c_str());
    putFtxLog(ftx, number_source_erase_failed, "%s", insert.c_str());
    ftxe_set_message(elem, number_source_erase_failed, err.qx_errno, insert);
    update_FtxStatus(ftx, elem, FTXE_ERROR);
}

bool may_be_complete(const ftx_entry* ftx, const ftx_elem* elem) {
    if (is_directory(elem)) {
        return elem->ftxe_status == FTXE_WAITING || elem->ftxe_status == FTXE_ACTIVE ||
               elem->ftxe_status == FTXE_SENT;
    }
    return elem->ftxe_status == FTXE_SENT && ftx->close_is_out(*elem);
}

record_result take_complete(ftx_entry* ftx, ftx_elem* elem, const quit_record& record) {
    if (elem->ftxe_status == FTXE_COMPLETE || (elem->ftxe_flag & FTXE_REPORTED) != 0) {
        return RECORD_TAKEN;
    }
    if (!may_be_complete(ftx, elem)) {
        return RECORD_IMPOSSIBLE;
    }
    put_times(elem);
    elem->ftxe_flag |= FTXE_REPORTED;
    update_FtxStatus(ftx, elem, FTXE_COMPLETE);
    // A line that a crash leaves out comes with the next run, a file that was told of must not be sent again.
    save_changed(ftx, elem);
    if (record.fixed.msl_id != -1) {
        ftx_report_arrived(ftx, elem);
    }
    remove_source(ftx, elem);
    return RECORD_TAKEN;
}

record_result take_failed(ftx_entry* ftx, ftx_elem* elem, const quit_record& record) {
    if (elem->ftxe_status == FTXE_COMPLETE) {
        return RECORD_IMPOSSIBLE;
    }
    if ((elem->ftxe_flag & FTXE_REPORTED) != 0) {
        return RECORD_TAKEN;
    }
    put_times(elem);
    if (record.fixed.msl_id > 0) {
        ftxe_set_message(elem, record.fixed.msl_id, 0, printable(record.insert));
    }
    report_failure(ftx, elem);
    elem->ftxe_flag |= FTXE_REPORTED;
    update_FtxStatus(ftx, elem, FTXE_ERROR);
    return RECORD_TAKEN;
}

// The receiver wants it anew again and again: the file changes, or its disk.
void give_up_resend(ftx_entry* ftx, ftx_elem* elem) {
    const std::string insert = std::to_string(ftx->ftx_transfer_id) + "|" + printable(elem->source_name) +
                               "|" + std::to_string(ESTALE) + "(" + error_text(ESTALE) + ")";
    __log(number_transfer_read_failed, "%s", insert.c_str());
    put_times(elem);
    ftxe_set_message(elem, number_transfer_read_failed, ESTALE, insert);
    report_failure(ftx, elem);
    elem->ftxe_flag |= FTXE_REPORTED;
    update_FtxStatus(ftx, elem, FTXE_ERROR);
}

void forget_progress(ftx_elem* elem) {
    elem->ftxe_records = 0;
    elem->ftxe_transferedBytes = 0;
    elem->ftxe_rss_records = 0;
    elem->sender_record.clear();
    elem->receiver_record.clear();
    elem->ftxe_startStamp = 0;
    elem->ftxe_endStamp = 0;
    elem->ftxe_lifeTime = 0;
    elem->closed_item = 0;
    ftxe_set_message(elem, 0, 0, "");
    elem->ftxe_flag &= FTXE_KINDS;
    elem->ftxe_flag |= FTXE_SAVE_RESTART;
}

record_result take_again(ftx_entry* ftx, ftx_elem* elem) {
    switch (elem->ftxe_status) {
        case FTXE_ACTIVE:
        case FTXE_SENT:
            break;
        case FTXE_ERROR:
        case FTXE_LEFT_OUT:
        case FTXE_AGAIN:
            return RECORD_TAKEN;  // an error of the own side counts more, and once is enough
        default:
            return RECORD_IMPOSSIBLE;
    }
    if (ftx->current == elem) {
        src_closeFile(ftx);
        ftx->ftx_progress = ftx->ftx_progress == FTX_IN_FILE ? FTX_BETWEEN_FILES : ftx->ftx_progress;
    }
    if (++elem->resends > resends_most) {
        give_up_resend(ftx, elem);
        return RECORD_TAKEN;
    }
    forget_progress(elem);
    update_FtxStatus(ftx, elem, FTXE_AGAIN);
    if (ftx->ftx_status_flag == FTX_STATUS_RUNNING) {
        ftx->ftx_send_flag |= FTX_SEND_RESEND_WANTED;
        ftx->ftx_send_flag &= ~FTX_SEND_EXHAUSTED;
    }
    return RECORD_TAKEN;
}

record_result take_left_out(ftx_entry* ftx, ftx_elem* elem) {
    if (elem->ftxe_status == FTXE_COMPLETE) {
        return RECORD_IMPOSSIBLE;
    }
    if (elem->ftxe_status != FTXE_ERROR) {
        put_times(elem);
        update_FtxStatus(ftx, elem, FTXE_LEFT_OUT);
    }
    return RECORD_TAKEN;
}

record_result take_letter(ftx_entry* ftx, ftx_elem* elem, const quit_record& record) {
    switch (record.fixed.status_flag) {
        case FTXE_COMPLETE:
            return take_complete(ftx, elem, record);
        case FTXE_ERROR:
            // The rest of a file that the receiver cannot write need not be read.
            if (ftx->current == elem && elem->ftxe_status == FTXE_ACTIVE) {
                src_closeFile(ftx);
                ftx->ftx_progress = ftx->ftx_progress == FTX_IN_FILE ? FTX_BETWEEN_FILES : ftx->ftx_progress;
            }
            return take_failed(ftx, elem, record);
        case FTXE_AGAIN:
            return take_again(ftx, elem);
        case FTXE_LEFT_OUT:
            return take_left_out(ftx, elem);
        default:
            return RECORD_TAKEN;
    }
}

// ---- Restart records

// The text behind the next length byte, cut at what a record may hold.
std::string next_counted(std::string_view* rest) {
    if (rest->empty()) {
        return {};
    }
    const size_t length = static_cast<unsigned char>(rest->front());
    rest->remove_prefix(1);
    const std::string text(rest->substr(0, std::min(length, ftx_restart_item_max)));
    rest->remove_prefix(std::min(length, rest->size()));
    return text;
}

void take_restart(ftx_elem* elem, std::string_view pair) {
    if (pair.empty() || elem->ftxe_status == FTXE_AGAIN) {
        return;
    }
    elem->sender_record = next_counted(&pair);
    elem->receiver_record = next_counted(&pair);
    elem->ftxe_flag |= FTXE_SAVE_RESTART;
}

record_result process_ftxquitt_record(ftx_entry* ftx, const quit_record& record) {
    if (!is_letter(record.fixed.status_flag)) {
        return RECORD_IMPOSSIBLE;
    }
    ftx_elem* elem = ftxe_getbyOID(ftx, record.fixed.file_id);
    if (elem == nullptr) {
        return RECORD_UNKNOWN;
    }
    if (!record.name.empty() && elem->destination_name.empty()) {
        elem->destination_name = record.name.substr(0, ftx_name_max);
        elem->ftxe_flag |= FTXE_SAVE_DESTINATION;
    }
    if (elem->ftxe_status != FTXE_COMPLETE) {
        elem->ftxe_transferedBytes = record.fixed.filesize;
    }
    const record_result result = take_letter(ftx, elem, record);
    if (result == RECORD_IMPOSSIBLE) {
        return result;
    }
    take_restart(elem, record.restart);
    save_changed(ftx, elem);
    return RECORD_TAKEN;
}

}  // namespace

int ftx_take_quit_records(EX_PCX*, ftx_entry* ftx, const message_view& view, int count) {
    if (count < 0 || (count > 0 && view.length < quit_head)) {
        return -1;
    }
    table_cursor cursor = view_table(view, static_cast<int64_t>(quit_head));
    for (int i = 0; i < count; ++i) {
        quit_record record;
        if (!read_record(view, &cursor, &record) ||
            process_ftxquitt_record(ftx, record) == RECORD_IMPOSSIBLE) {
            return -1;
        }
    }
    return 0;
}
