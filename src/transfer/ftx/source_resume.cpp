// Where the sender goes on with a file that an earlier run has begun.
//
// Both sides read what the file begins with before they go on. For a long beginning the receiver is told at
// once, and padding pushes that item out of the compressor, so that both read at the same time. When the sender
// finds a difference in the end, a second file_open without a position replaces the first.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_data.h"
#include "transfer/ftx/restart.h"
#include "transfer/ftx/source_read.h"

namespace {

constexpr int64_t long_prefix = 16 << 20;
constexpr int paddings = 3;

// Whether there is a record of an earlier run that the receiver has one for as well.
bool has_records(const ftx_entry* ftx, const ftx_elem* elem) {
    return ftx->ftx_restart == ftx_resume && elem->sender_record.size() == sizeof(__ftx_restart_info) &&
           !elem->receiver_record.empty();
}

// Whether it is worth a look at the file: what has no digest must have its size at least.
bool may_fit(const ftx_elem* elem, const __ftx_restart_info& record, int64_t size_then) {
    const bool proven = (elem->ftxe_flag & FTXE_MD5) != 0 && ftx_has_digest(record);
    const int64_t size_now = elem->ftxe_fileSize;
    return record.rst_filepos <= size_now && (proven || size_now == size_then);
}

void begin_anew(ftx_elem* elem) {
    elem->sender_record.clear();
    elem->receiver_record.clear();
    elem->ftxe_transferedBytes = 0;
    elem->ftxe_records = 0;
    elem->ftxe_text_coding = TEXT_CODE_BINARY;
}

int rewind_file(ftx_entry* ftx, ftx_elem* elem) {
    begin_anew(elem);
    md5_init(&ftx->md5);
    return lseek(ftx->file.get(), 0, SEEK_SET) == 0 ? 0 : -1;
}

void resume(ftx_elem* elem, const __ftx_restart_info& record, ControlStream* cbs) {
    cbsPutByteStream(cbs, "RST", elem->receiver_record.data(), elem->receiver_record.size());
    elem->ftxe_transferedBytes = record.rst_filepos;
    elem->ftxe_records = elem->ftxe_rss_records;
}

// Bytes that no method packs, for which the receiver does nothing.
int give_padding(ftx_entry* ftx, const src_item& item) {
    static uint64_t state = 1;
    const int length = std::min(item.size, compress_item_max);
    for (int i = 0; i < length; ++i) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        item.buf[i] = static_cast<char>(state >> 56);
    }
    --ftx->prefix_padding;
    ++ftx->items;
    *item.ctrl = CTRL_NO_OPERATION;
    return length;
}

}  // namespace

int src_setPosition(ftx_entry* ftx, ftx_elem* elem, int64_t size_then, ControlStream* cbs) {
    if (!has_records(ftx, elem)) {
        begin_anew(elem);
        return 0;
    }
    memcpy(&ftx->prefix, elem->sender_record.data(), sizeof ftx->prefix);
    if (!may_fit(elem, ftx->prefix, size_then)) {
        return rewind_file(ftx, elem);
    }
    if ((elem->ftxe_flag & FTXE_MD5) != 0 && ftx->prefix.rst_filepos >= long_prefix) {
        ftx->prefix_unproven = true;
        ftx->prefix_padding = paddings;
        resume(elem, ftx->prefix, cbs);
        return 0;
    }
    qx7_error ignored;  // a prefix that cannot be read is sent anew, and fails then
    if (check_fileConsistency(ftx, elem, ftx->prefix, &ignored) != 0) {
        errno = ECANCELED;
        return ftx->interrupted ? -1 : rewind_file(ftx, elem);
    }
    resume(elem, ftx->prefix, cbs);
    return 0;
}

int src_provePrefix(ftx_entry* ftx, const src_item& item, ErrMsg* err) {
    ftx_elem* const elem = ftx->current;
    if (ftx->prefix_padding > 0) {
        return give_padding(ftx, item);
    }
    ftx->prefix_unproven = false;
    qx7_error ignored;
    if (check_fileConsistency(ftx, elem, ftx->prefix, &ignored) == 0) {
        return 0;
    }
    if (ftx->interrupted) {
        return src_breakOff(ftx, err);
    }
    if (rewind_file(ftx, elem) != 0) {
        return src_fileError(ftx, errno, item);
    }
    ++ftx->items;
    ControlStream cbs;
    src_describe(elem, &cbs);
    return src_give(cbs, CTRL_FILE_OPEN, item);
}
