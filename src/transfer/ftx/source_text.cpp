// The stream of the sender where the file is text: lines or records of one of four codings.
//
// A read fills the buffer, from which the callback takes a line at a time. What cannot be judged yet at the end
// of the buffer (a CR that may belong to a line end, half a unit of two bytes) waits in it for the next read.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/error_text.h"
#include "base/file_data.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "transfer/ftx/interrupt.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/source_read.h"

namespace {

constexpr unsigned char line_feed = '\n';
constexpr unsigned char carriage_return = '\r';
constexpr char strip_cr = 'M';
constexpr size_t nowhere = static_cast<size_t>(-1);

struct text_view {
    const unsigned char* data;
    size_t length;
};

text_view unread(const ftx_entry* ftx) {
    return {ftx->buffer.get() + ftx->rb_pos, static_cast<size_t>(ftx->rb_len - ftx->rb_pos)};
}

size_t unit_of(const ftx_entry* ftx) {
    return static_cast<size_t>(text_code_unit(ftx->current->ftxe_text_coding));
}

// Bytes of a record, whole units and at most the buffer; 0 where lines end by LF.
size_t record_length(const ftx_entry* ftx, size_t unit) {
    if (ftx->ftx_reclen <= 0) {
        return 0;
    }
    const size_t length = std::min(static_cast<size_t>(ftx->ftx_reclen), ftx_flush_size);
    return std::max(length - length % unit, unit);
}

// Where the first line end of one byte or of two in either order begins.
size_t find_line_end(char coding, text_view text) {
    size_t at = 0;
    while (at < text.length) {
        const void* const found = memchr(text.data + at, line_feed, text.length - at);
        if (found == nullptr) {
            return nowhere;
        }
        const auto place = static_cast<size_t>(static_cast<const unsigned char*>(found) - text.data);
        if (coding == TEXT_CODE_UCS2BE && place % 2 == 1 && text.data[place - 1] == 0) {
            return place - 1;
        }
        if (coding == TEXT_CODE_UCS2LE && place % 2 == 0 && place + 1 < text.length &&
            text.data[place + 1] == 0) {
            return place;
        }
        if (coding != TEXT_CODE_UCS2BE && coding != TEXT_CODE_UCS2LE) {
            return place;
        }
        at = place + 1;
    }
    return nowhere;
}

// Whether the text ends in a CR. With a code table what counts is what the byte becomes.
bool ends_in_cr(const ftx_entry* ftx, char coding, text_view text) {
    const unsigned char* const end = text.data + text.length;
    switch (coding) {
        case TEXT_CODE_UCS2BE:
            return text.length >= 2 && end[-2] == 0 && end[-1] == carriage_return;
        case TEXT_CODE_UCS2LE:
            return text.length >= 2 && end[-2] == carriage_return && end[-1] == 0;
        case TEXT_CODE_NORMAL:
            return text.length >= 1 && ftx->code_table[end[-1]] == ftx->code_table[carriage_return];
        default:
            return text.length >= 1 && end[-1] == carriage_return;
    }
}

// Of a file's beginning; '0' without a byte-order mark.
char marked_coding(text_view text) {
    for (const char code : {TEXT_CODE_UTF8, TEXT_CODE_UCS2BE, TEXT_CODE_UCS2LE}) {
        const std::string_view mark = text_code_mark(code);
        if (text.length >= mark.size() && memcmp(text.data, mark.data(), mark.size()) == 0) {
            return code;
        }
    }
    return TEXT_CODE_BINARY;
}

// -1 when the file's mark contradicts the order.
int decide_coding(ftx_entry* ftx) {
    ftx_elem* const elem = ftx->current;
    if (elem->ftxe_text_coding != TEXT_CODE_BINARY) {
        return 0;
    }
    elem->ftxe_text_coding = ftx->ftx_text_coding;
    if (ftx->ftx_text_coding == TEXT_CODE_NORMAL) {
        return 0;
    }
    const char marked = marked_coding(unread(ftx));
    return marked == TEXT_CODE_BINARY || marked == ftx->ftx_text_coding ? 0 : -1;
}

// A text of another coding than ordered ends the stream: none of its lines could be told.
int wrong_coding(ftx_entry* ftx, ErrMsg* err) {
    char text[sizeof err->text];
    snprintf(text, sizeof text, "%d|%s|%d(%s)", ftx->ftx_transfer_id,
             printable(ftx->current->source_name).c_str(), EILSEQ, error_text(EILSEQ).c_str());
    ftxe_set_message(ftx->current, number_transfer_read_failed, EILSEQ, text);
    copy_text(err->text, text);
    err->code = number_transfer_read_failed;
    return -1;
}

// ---- One line

struct text_line {
    size_t length = 0;    // bytes that are sent
    size_t consumed = 0;  // with the line end
    bool whole = false;   // it ends here
};

// What of the unread text can go out now. At the file's end all of it can.
text_line next_line(const ftx_entry* ftx, bool at_end) {
    const char coding = ftx->current->ftxe_text_coding;
    const size_t unit = unit_of(ftx);
    const text_view text = unread(ftx);
    if (const size_t record = record_length(ftx, unit); record != 0) {
        const size_t length = std::min(record, at_end ? text.length : text.length - text.length % unit);
        return {length, length, length != 0};
    }
    if (const size_t end = find_line_end(coding, text); end != nowhere) {
        return {end, end + unit, true};
    }
    size_t length = text.length;
    if (!at_end) {
        length -= length % unit;
        const bool waits = ftx->ftx_separate == strip_cr && ends_in_cr(ftx, coding, {text.data, length});
        length -= waits ? unit : 0;
    }
    return {length, length, false};
}

void copy_line(const ftx_entry* ftx, const unsigned char* from, size_t length, char* to) {
    if (ftx->current->ftxe_text_coding != TEXT_CODE_NORMAL) {
        memcpy(to, from, length);
        return;
    }
    for (size_t i = 0; i < length; ++i) {
        to[i] = static_cast<char>(ftx->code_table[from[i]]);
    }
}

int give_line(ftx_entry* ftx, text_line line, const src_item& item) {
    const char coding = ftx->current->ftxe_text_coding;
    const text_view text = unread(ftx);
    if (ftx->ftx_separate == strip_cr && line.whole && ends_in_cr(ftx, coding, {text.data, line.length})) {
        if (unit_of(ftx) != 1) {
            return src_fileError(ftx, EIO, item);  // such a line cannot be told without its CR
        }
        --line.length;
    }
    copy_line(ftx, text.data, line.length, item.buf);
    ftx->rb_pos += static_cast<int>(line.consumed);
    if (line.whole) {
        *item.ctrl = CTRL_RECORD_END;
        ftx->current->ftxe_records += ftx->ftx_reclen > 0 ? 0 : 1;
    }
    ++ftx->items;
    return static_cast<int>(line.length);
}

// ---- The buffer

// Reads behind what waits. The bytes that came, 0 at the end, -1 with errno.
ssize_t fill(ftx_entry* ftx) {
    const auto waiting = static_cast<size_t>(ftx->rb_len - ftx->rb_pos);
    memmove(ftx->buffer.get(), ftx->buffer.get() + ftx->rb_pos, waiting);
    ftx->rb_pos = 0;
    ftx->rb_len = static_cast<int>(waiting);
    const size_t record = record_length(ftx, unit_of(ftx));
    const size_t room = ftx_flush_size - (record == 0 ? waiting : ftx_flush_size % record);
    const ssize_t got = src_readFile(ftx, ftx->buffer.get() + waiting, room, "TEXT");
    if (got > 0) {
        if ((ftx->current->ftxe_flag & FTXE_MD5) != 0) {
            md5_update(&ftx->md5, ftx->buffer.get() + waiting, static_cast<size_t>(got));
        }
        ftx->rb_len += static_cast<int>(got);
    }
    return got;
}

}  // namespace

int src_textRead(void* hIn, char* buf, int size, int, int*, int* ctrl, ErrMsg* err) {
    auto* const ftx = static_cast<ftx_entry*>(hIn);
    const src_item item{buf, size, ctrl};
    if (ftx->ftx_progress != FTX_IN_FILE) {
        return ftx_is_interrupted(ftx) ? src_breakOff(ftx, err) : src_openNextFile(ftx, item, err);
    }
    if (ftx->prefix_unproven) {
        if (const int length = src_provePrefix(ftx, item, err); length != 0) {
            return length;
        }
    }
    for (bool at_end = false;;) {
        const text_line line = next_line(ftx, at_end);
        if (line.length != 0 || line.whole) {
            return give_line(ftx, line, item);
        }
        if (at_end) {
            return src_fileEof(ftx, item);
        }
        if (ftx->rb_pos == ftx->rb_len && src_restart_due(ftx, 0)) {
            return send_restartInfo(ftx, item);
        }
        if (ftx_is_interrupted(ftx)) {
            return src_breakOff(ftx, err);
        }
        const ssize_t got = fill(ftx);
        if (got < 0) {
            return src_fileError(ftx, errno, item);
        }
        at_end = got == 0;
        if (got > 0 && decide_coding(ftx) != 0) {
            src_closeFile(ftx);
            return wrong_coding(ftx, err);
        }
    }
}
