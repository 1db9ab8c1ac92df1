// The stream of the sender: opened, read where the file is binary, ended.
#include "transfer/ftx/source.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "transfer/ftx/files.h"
#include "transfer/ftx/folders.h"
#include "transfer/ftx/interrupt.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/restart.h"
#include "transfer/ftx/source_read.h"

namespace {

int set_compressSize(void* hIn, long* size, ErrMsg*) {
    *size = static_cast<ftx_entry*>(hIn)->ftx_size_total;
    return 0;
}

int compress_id(ftx_entry* ftx) {
    switch (ftx->ftx_compress) {
        case '0':
            return compress_none;
        case 'S':
            return compress_strong;
        default:
            ftx->ftx_compress = '1';
            return compress_default;
    }
}

int compress_failed(const ErrMsg& message, qx7_error* err) {
    qx_error_set(err, -1, 0, message.code, "%s", message.text);
    __log_error(*err);
    return -1;
}

}  // namespace

int src_openCompress(ftx_entry* ftx, qx7_error* err) {
    qx_error_clear(err);
    const bool text = ftx->ftx_type == ftx_text;
    CompressParameter parameters;
    const int id = compress_id(ftx);
    if (id == compress_strong) {
        parameters.strongBuf = static_cast<unsigned>(ftx_glb().ft_compress_strong);
    }
    memset(ftx->ftx_Used, 0, sizeof ftx->ftx_Used);
    ftx->compressor.reset(cs4Open(ftx, id, (text ? compress_record : 0) | compress_framed,
                                  text ? src_textRead : src_binRead, set_compressSize, nullptr, &parameters,
                                  ftx->ftx_Used, &ftx->message, nullptr, nullptr, nullptr, nullptr));
    return ftx->compressor == nullptr ? compress_failed(ftx->message, err) : 0;
}

void src_closeCompress(ftx_entry* ftx) {
    ftx->compressor.reset();
    ftx->items_of_ended = ftx->items;
    memset(ftx->ftx_Used, 0, sizeof ftx->ftx_Used);
}

void src_closeFile(ftx_entry* ftx) {
    ftx->file.reset();
    ftx->prefix_unproven = false;
    ftx->rb_pos = ftx->rb_len = 0;
}

bool src_restart_due(ftx_entry* ftx, int wanted) {
    const bool due = alarm_now() >= ftx->ftx_rst_timeStamp ||
                     (ftx->ftx_attr_rifreq > 0 && rand() % ftx->ftx_attr_rifreq == wanted);
    // Nothing was read since the last one.
    return due && lseek(ftx->file.get(), 0, SEEK_CUR) != ftx->restart_position;
}

int send_restartInfo(ftx_entry* ftx, const src_item& item) {
    const __ftx_restart_info point = ftx_restart_point(ftx, ftx->current);
    ftx->ftx_rst_timeStamp = alarm_now() + ftx->ftx_rstrt_interval;
    ftx->restart_position = point.rst_filepos;
    ftx->current->ftxe_rss_records = ftx->current->ftxe_records;
    ControlStream cbs;
    cbsPutByteStream(&cbs, "RST", &point, sizeof point);
    return src_give(cbs, CTRL_RESTART_INFO, item);
}

ssize_t src_readFile(ftx_entry* ftx, void* to, size_t size, const char* simulation) {
    ftx_tell_status_when_due(ftx);  // what packs well is read for long before a block is full
    if (ftx_simulated(ftx->simulate_readerror)) {
        __PutLogText("FT '%d': simulate READ/%s error", ftx->ftx_transfer_id, simulation);
        errno = EIO;
        return -1;
    }
    ssize_t got;
    do {
        got = read(ftx->file.get(), to, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

int src_binRead(void* hIn, char* buf, int size, int, int*, int* ctrl, ErrMsg* err) {
    auto* const ftx = static_cast<ftx_entry*>(hIn);
    const src_item item{buf, size, ctrl};
    if (ftx_is_interrupted(ftx)) {
        return src_breakOff(ftx, err);
    }
    if (ftx->ftx_progress != FTX_IN_FILE) {
        return src_openNextFile(ftx, item, err);
    }
    if (ftx->prefix_unproven) {
        if (const int length = src_provePrefix(ftx, item, err); length != 0) {
            return length;
        }
    }
    if (src_restart_due(ftx, 1)) {
        return send_restartInfo(ftx, item);
    }
    const ssize_t length = src_readFile(ftx, buf, static_cast<size_t>(size), "BIN");
    if (length < 0) {
        return src_fileError(ftx, errno, item);
    }
    if (length == 0) {
        return src_fileEof(ftx, item);
    }
    if ((ftx->current->ftxe_flag & FTXE_MD5) != 0) {
        md5_update(&ftx->md5, buf, static_cast<size_t>(length));
    }
    ++ftx->items;
    return static_cast<int>(length);
}

int FTX_removeFile(ftx_entry* ftx, ftx_elem* elem, qx7_error* err) {
    qx_error_clear(err);
    std::string name;
    struct stat now;
    int failed = 0;
    if (src_enterFolder(ftx, elem->source_name, &name) != 0 ||
        fstatat(ftx->folder.get(), name.c_str(), &now, 0) != 0) {
        failed = errno;
    } else if (elem->source_inode == 0 || now.st_ino != elem->source_inode ||
               now.st_dev != elem->source_device || now.st_size != elem->ftxe_fileSize ||
               now.st_mtim.tv_sec != elem->source_mtime.tv_sec ||
               now.st_mtim.tv_nsec != elem->source_mtime.tv_nsec) {
        failed = ESTALE;
    } else if (unlinkat(ftx->folder.get(), name.c_str(), 0) != 0) {
        failed = errno;
    }
    if (failed == 0) {
        return 0;
    }
    return qx_error_set(err, -1, failed, number_source_erase_failed, "%d|%s|%d(%s)|", ftx->ftx_transfer_id,
                        printable(elem->source_name).c_str(), failed, error_text(failed).c_str());
}
