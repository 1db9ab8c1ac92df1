// The stream of the sender between two files: the next one is opened, and an ended one is closed.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/error_text.h"
#include "base/file_data.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "transfer/ftx/files.h"
#include "transfer/ftx/folders.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/source_read.h"

namespace {

int open_failed(const ftx_entry* ftx, const ftx_elem* elem, int error_number, qx7_error* err) {
    return qx_error_set(err, -1, error_number, number_transfer_open_failed, "%d|%s|errno %d, %s",
                        ftx->ftx_transfer_id, printable(elem->source_name).c_str(), error_number,
                        error_text(error_number).c_str());
}

// The descriptor, or -1 with errno.
int open_source(ftx_entry* ftx, const ftx_elem* elem, struct stat* status) {
    const bool links = ftx_glb().fgx_Linkfiles;
    for (int attempt = 0;; ++attempt) {
        std::string last;
        if (src_enterFolder(ftx, elem->source_name, &last) != 0) {
            return -1;
        }
        const int fd = FTX_openFileRead(ftx->folder.get(), last.empty() ? "." : last.c_str(), links, status);
        // The folder that is kept may have been replaced by another one.
        if (fd >= 0 || errno != ENOENT || attempt > 0) {
            return fd;
        }
        ftx_leave_folder(ftx);
    }
}

void note_source(ftx_elem* elem, const struct stat& status) {
    elem->source_device = status.st_dev;
    elem->source_inode = status.st_ino;
    elem->source_mtime = status.st_mtim;
    elem->ftxe_fileSize = status.st_size;
}

// The digest counts where both agents can make it and the file is large.
void decide_digest(ftx_entry* ftx, ftx_elem* elem, int64_t size) {
    const bool wanted = size > ftx_digest_from && ftx_glb().ft_use_md5 && ftx->has(FTX_CAN_CONTINUE);
    elem->ftxe_flag = (elem->ftxe_flag & ~FTXE_MD5) | (wanted ? FTXE_MD5 : 0);
    md5_init(&ftx->md5);
}

// ---- The next item

// The sync, behind which nothing comes.
int give_sync(ftx_entry* ftx, const src_item& item) {
    ftx->ftx_progress = FTX_SYNC_ISSUED;
    *item.ctrl = CTRL_SYNC;
    ++ftx->items;
    return 0;
}

bool is_to_be_sent(const ftx_entry* ftx, const ftx_elem* elem) {
    if ((ftx->ftx_send_flag & FTX_SEND_RESENDING) != 0) {
        return elem->ftxe_status == FTXE_AGAIN;
    }
    return elem->ftxe_status == FTXE_WAITING || elem->ftxe_status == FTXE_ACTIVE ||
           elem->ftxe_status == FTXE_AGAIN;
}

int give_folder(ftx_entry* ftx, const ftx_elem* elem, const src_item& item) {
    __log(number_folder_sent, "%d|%s", ftx->ftx_transfer_id, printable(elem->source_name).c_str());
    ControlStream cbs;
    cbsPutInt(&cbs, "OID", elem->ftxe_oId);
    cbsPutString(&cbs, "FNAME", elem->source_name);
    return src_give(cbs, CTRL_MAKE_DIR, item);
}

int give_file(ftx_entry* ftx, ftx_elem* elem, const ControlStream& cbs, const src_item& item) {
    ftx->rb_len = ftx->rb_pos = 0;
    ftx->ftx_progress = FTX_IN_FILE;
    update_FtxStatus(ftx, elem, FTXE_ACTIVE);
    return src_give(cbs, CTRL_FILE_OPEN, item);
}

// What stands in the place of a destination that only the receiver could have told.
std::string name_not_known() {
    const log_guard lock;
    char line[128] = "";
    constexpr size_t number_width = 10;  // letter, eight digits and a blank
    const bool found = GlbHlpHnd != nullptr &&
                       ZUHELP_Msg(GlbHlpHnd, number_name_not_known, 0, "", sizeof line, line, nullptr) == 0;
    const std::string_view text(line);
    return found && text.size() > number_width && !strip(text.substr(number_width)).empty()
               ? std::string(text.substr(number_width))
               : "         <name not yet determined>";
}

// A file that cannot be opened never reaches the receiver, so its lines of the report are written here.
void report_failed_open(ftx_entry* ftx, ftx_elem* elem, const qx7_error& error) {
    std::string destination = name_not_known();
    elem->destination_name.swap(destination);
    ftx_report_not_arrived(ftx, elem);
    elem->destination_name.swap(destination);
    putFtxLog(ftx, error.qx_msgnr, "%s", error.qx_msgInsert);
    __log_error(error);
    ftxe_take_error(elem, error);
    elem->ftxe_endStamp = static_cast<int32_t>(time(nullptr));
    update_FtxStatus(ftx, elem, FTXE_ERROR);
}

}  // namespace

int src_enterFolder(ftx_entry* ftx, const std::string& name, std::string* last) {
    if (name.size() > ftx_name_max) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (name.find('\0') != std::string::npos) {
        errno = EINVAL;
        return -1;
    }
    const std::string path = ftx_absolute(ftx, name);
    const size_t order_folder = ftx->source_file.rfind('/') + 1;
    const size_t fixed = ftx->ftx_wildcard == ftx_yes && order_folder <= name.size()
                             ? path.size() - name.size() + order_folder
                             : path.rfind('/') + 1;
    *last = path.substr(path.rfind('/') + 1);
    return ftx_enter_folder(ftx, ftx_place_of(path, fixed));
}

int src_give(const ControlStream& cbs, int control, const src_item& item) {
    const size_t length = std::min(cbs.size(), static_cast<size_t>(item.size));
    memcpy(item.buf, cbs.data(), length);
    *item.ctrl = control;
    return static_cast<int>(length);
}

int src_breakOff(const ftx_entry* ftx, ErrMsg* err) {
    err->code = number_cancel_begun;
    copy_text(err->text, std::to_string(ftx->ftx_transfer_id));
    return -1;
}

int src_fileEof(ftx_entry* ftx, const src_item& item) {
    ftx_elem* const elem = ftx->current;
    ftx->ftx_progress = FTX_BETWEEN_FILES;
    if (FTX_closeFdFile(&ftx->file) != 0) {
        const int error_number = errno;
        ftxe_set_message(elem, number_file_call, error_number,
                         call_insert("close()", printable(elem->source_name), error_number));
        update_FtxStatus(ftx, elem, FTXE_ERROR);
    } else if (elem->ftxe_status == FTXE_ACTIVE) {
        update_FtxStatus(ftx, elem, FTXE_SENT);
    }
    elem->closed_item = ++ftx->items;
    *item.ctrl = CTRL_FILE_CLOSE;
    return 0;
}

int src_fileError(ftx_entry* ftx, int error_number, const src_item& item) {
    ftx_elem* const elem = ftx->current;
    qx7_error error;
    qx_error_set(&error, -1, error_number, number_transfer_read_failed, "%d|%s|%d(%s)", ftx->ftx_transfer_id,
                 printable(elem->source_name).c_str(), error_number, error_text(error_number).c_str());
    __log_error(error);
    ftxe_take_error(elem, error);
    update_FtxStatus(ftx, elem, FTXE_ERROR);
    src_closeFile(ftx);
    ftx->ftx_progress = ftx->has(FTX_ABORT_ON_ERROR) ? FTX_SYNC_DUE : FTX_BETWEEN_FILES;
    ControlStream cbs;
    cbsPutInt(&cbs, "ERROR_NR", error.qx_msgnr);
    cbsPutString(&cbs, "ERROR_INSERT", elem->insert);
    elem->closed_item = ++ftx->items;
    return src_give(cbs, CTRL_FILE_CLOSE, item);
}

void src_describe(const ftx_elem* elem, ControlStream* cbs) {
    cbsPutInt(cbs, "OID", elem->ftxe_oId);
    cbsPutString(cbs, "FNAME", elem->source_name);
    cbsPutInt64(cbs, "SIZ", elem->ftxe_fileSize);
}

int src_openFile(ftx_entry* ftx, ftx_elem* elem, ControlStream* cbs, qx7_error* err) {
    qx_error_clear(err);
    src_closeFile(ftx);
    struct stat status;
    ftx->file.reset(open_source(ftx, elem, &status));
    if (!ftx->file.valid()) {
        return open_failed(ftx, elem, errno, err);
    }
    const int64_t size_then = elem->ftxe_fileSize;
    note_source(elem, status);
    ftx->ftx_rst_timeStamp = alarm_now() + ftx->ftx_rstrt_interval;
    ftx->restart_position = 0;
    decide_digest(ftx, elem, status.st_size);
    src_describe(elem, cbs);
    if (src_setPosition(ftx, elem, size_then, cbs) != 0) {
        return open_failed(ftx, elem, errno, err);
    }
    elem->ftxe_startStamp = static_cast<int32_t>(time(nullptr));
    __log(number_file_sent, "%d|%s|", ftx->ftx_transfer_id, printable(elem->source_name).c_str());
    return 0;
}

int src_openNextFile(ftx_entry* ftx, const src_item& item, ErrMsg* err) {
    if (ftx->ftx_progress == FTX_SYNC_ISSUED) {
        return -1;
    }
    if (ftx->ftx_progress == FTX_SYNC_DUE) {
        return give_sync(ftx, item);
    }
    while (ftx_elem* const elem = getFtxElemNext(ftx)) {
        if (!is_to_be_sent(ftx, elem)) {
            continue;
        }
        if ((elem->ftxe_flag & FTXE_DIRECTORY) != 0) {
            ++ftx->items;
            return give_folder(ftx, elem, item);
        }
        ControlStream cbs;
        qx7_error error;
        if (src_openFile(ftx, elem, &cbs, &error) == 0) {
            ++ftx->items;
            return give_file(ftx, elem, cbs, item);
        }
        if (ftx->interrupted) {
            return src_breakOff(ftx, err);
        }
        report_failed_open(ftx, elem, error);
        if (ftx->has(FTX_ABORT_ON_ERROR)) {
            ftx_set_message(ftx, elem->ftxe_msgnr, elem->insert);
            break;
        }
    }
    return give_sync(ftx, item);
}
