// The stream of the receiver: opened, taken apart into control items and data, written, ended.
#include "transfer/ftx/destination.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/error_text.h"
#include "base/file_data.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/destination_write.h"
#include "transfer/ftx/files.h"
#include "transfer/ftx/restart.h"

namespace {

int decompress_failed(const ErrMsg& message, qx7_error* err) {
    return qx_error_set(err, -1, 0, message.code, "%s", message.text);
}

// The element takes the error; the log tells of it.
int failed(ftx_entry* ftx, ftx_elem* elem, const qx7_error& error) {
    __log_error(error);
    ftxe_take_error(elem, error);
    update_FtxStatus(ftx, elem, FTXE_ERROR);
    return DST_FAILED;
}

// Whatever else comes for a file, the one that is whole ends first.
void settle_before_reuse(ftx_entry* ftx, const ftx_elem* elem) {
    const auto is_it = [elem](const ftx_unsynced& one) { return one.oid == elem->ftxe_oId; };
    if (std::any_of(ftx->unsynced.begin(), ftx->unsynced.end(), is_it)) {
        dst_settle(ftx);
    }
}

int take_file_open(ftx_entry* ftx, std::string_view item) {
    dst_closeUnfinished(ftx);
    ftx_elem* const elem = dst_element(ftx, item);
    if (elem == nullptr) {
        return DST_VIOLATION;
    }
    settle_before_reuse(ftx, elem);
    qx7_error error;
    if (dst_openFile(ftx, elem, item, &error) != 0) {
        ftx->file.reset();
        return ftx->interrupted ? DST_FAILED : failed(ftx, elem, error);
    }
    elem->ftxe_flag &= ~FTXE_REPORTED;
    if (elem->ftxe_status != FTXE_AGAIN) {
        update_FtxStatus(ftx, elem, FTXE_ACTIVE);
    }
    return 0;
}

int take_make_dir(ftx_entry* ftx, std::string_view item) {
    dst_closeUnfinished(ftx);
    ftx_elem* const elem = dst_element(ftx, item);
    if (elem == nullptr) {
        return DST_VIOLATION;
    }
    settle_before_reuse(ftx, elem);
    qx7_error error;
    if (dst_createDir(ftx, elem, item, &error) != 0) {
        return failed(ftx, elem, error);
    }
    elem->ftxe_flag &= ~FTXE_REPORTED;
    return 0;
}

int take_sync(ftx_entry* ftx) {
    dst_closeUnfinished(ftx);
    ftx->current = nullptr;
    ftx->ftx_flag |= FTX_SYNC_SEEN;
    return 0;
}

// Keeps the sender's record and an own one of what is in the file by now; both leave with the next FTXQUIT.
int process_restartinfo(ftx_entry* ftx, std::string_view item) {
    if (ftx->current == nullptr || !ftx->file.valid() || dst_textWriteOut(ftx) != 0) {
        return 0;
    }
    char record[ftx_restart_item_max];
    size_t length = sizeof record;
    if (cbsGetByteStream(item, "RST", record, &length) != 0) {
        return 0;
    }
    const __ftx_restart_info own = ftx_restart_point(ftx, ftx->current);
    ftx->current->sender_record.assign(record, length);
    ftx->current->receiver_record.assign(reinterpret_cast<const char*>(&own), sizeof own);
    return 0;
}

int dst_processControlData(ftx_entry* ftx, std::string_view item, int control) {
    switch (control) {
        case CTRL_FILE_OPEN:
            return take_file_open(ftx, item);
        case CTRL_FILE_CLOSE:
            dst_closeFile(ftx, item);
            return 0;
        case CTRL_SYNC:
            return take_sync(ftx);
        case CTRL_NO_OPERATION:
            return 0;
        case CTRL_RESTART_INFO:
            return process_restartinfo(ftx, item);
        case CTRL_MAKE_DIR:
            return take_make_dir(ftx, item);
        default:
            return DST_VIOLATION;
    }
}

int write_failed(ftx_entry* ftx, int error_number) {
    ftx_elem* const elem = ftx->current;
    const std::string name = printable(elem->destination_name);
    const std::string reason = error_text(error_number);
    __PutLogText("   fwrite(...,%s) error %d: %s", name.c_str(), error_number, reason.c_str());
    ftx->file.reset();
    ftx->ftx_fiob_size = 0;
    qx7_error error;
    qx_error_set(&error, -1, error_number, number_transfer_write_failed, "%d|%s|errno %d(%s)",
                 ftx->ftx_transfer_id, name.c_str(), error_number, reason.c_str());
    failed(ftx, elem, error);
    return -1;
}

}  // namespace

int dst_openCompress(ftx_entry* ftx, qx7_error* err) {
    qx_error_clear(err);
    const bool text = ftx->ftx_type == ftx_text;
    ftx->decompressor.reset(dcs4Open(ftx, (text ? compress_record : 0) | compress_framed,
                                     text ? dst_textWrite : dst_binWrite, &ftx->message, nullptr, nullptr,
                                     nullptr, nullptr));
    if (ftx->decompressor == nullptr) {
        decompress_failed(ftx->message, err);
        __log_error(*err);
        return -1;
    }
    return 0;
}

int dst_closeCompress(ftx_entry* ftx, qx7_error* err) {
    qx_error_clear(err);
    if (dcsClose(ftx->decompressor.release(), &ftx->message) == 0) {
        return 0;
    }
    return decompress_failed(ftx->message, err);
}

bool dst_control(ftx_entry* ftx, const char* buf, int len, int ctrl, ErrMsg* err) {
    if (ctrl == CTRL_DATA || ctrl == CTRL_RECORD_END) {
        return false;
    }
    const int result = dst_processControlData(ftx, {buf, static_cast<size_t>(len)}, ctrl);
    if (result == DST_VIOLATION || ftx->interrupted) {
        copy_text(err->text, std::to_string(ftx->ftx_transfer_id) + "|");
        err->code = ftx->interrupted ? number_transfer_connection_closed : number_partner_misbehaves;
    }
    return true;
}

int dst_writeOut(ftx_entry* ftx, const char* data, size_t length, const char* simulation) {
    ftx_elem* const elem = ftx->current;
    if (ftx_simulated(ftx->simulate_writeerror)) {
        __PutLogText("FT '%d': simulate WRITE/%s error", ftx->ftx_transfer_id, simulation);
        return write_failed(ftx, EIO);
    }
    if (WriteFdWrite(ftx->file.get(), data, length) != 0) {
        return write_failed(ftx, errno);
    }
    elem->ftxe_transferedBytes += static_cast<int64_t>(length);
    elem->ftxe_fileSize += static_cast<int64_t>(length);
    if ((elem->ftxe_flag & FTXE_MD5) != 0) {
        md5_update(&ftx->md5, data, length);
    }
    return 0;
}

int dst_binWrite(void* hOut, const char* buf, int len, int, int ctrl, ErrMsg* err) {
    auto* const ftx = static_cast<ftx_entry*>(hOut);
    if (dst_control(ftx, buf, len, ctrl, err) || ftx->current == nullptr || !ftx->file.valid() || len <= 0) {
        return 0;
    }
    return dst_writeOut(ftx, buf, static_cast<size_t>(len), "BIN");
}

void dst_closeUnfinished(ftx_entry* ftx) {
    if (ftx->current != nullptr && ftx->file.valid()) {
        dst_textWriteOut(ftx);
    }
    ftx->file.reset();
    ftx->ftx_fiob_size = 0;
}
