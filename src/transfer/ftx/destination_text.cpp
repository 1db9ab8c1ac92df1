// The stream of the receiver where the file is text: lines get their ends back.
#include <cstring>

#include "base/file_data.h"
#include "transfer/ftx/destination_write.h"

namespace {

// How lines end here.
enum line_end : char { LINE_END_LF = 'L', LINE_END_CRLF = 'C' };
constexpr size_t line_end_max = 4;

std::string_view line_end_of(char separate, char coding) {
    const bool crlf = separate == LINE_END_CRLF;
    if (!crlf && separate != LINE_END_LF) {
        return {};
    }
    switch (coding) {
        case TEXT_CODE_UCS2BE:
            return crlf ? std::string_view("\0\r\0\n", 4) : std::string_view("\0\n", 2);
        case TEXT_CODE_UCS2LE:
            return crlf ? std::string_view("\r\0\n\0", 4) : std::string_view("\n\0", 2);
        default:
            return crlf ? "\r\n" : "\n";
    }
}

void append(ftx_entry* ftx, std::string_view text, bool translate) {
    unsigned char* const to = ftx->buffer.get() + ftx->ftx_fiob_size;
    if (translate) {
        for (size_t i = 0; i < text.size(); ++i) {
            to[i] = ftx->code_table[static_cast<unsigned char>(text[i])];
        }
    } else if (!text.empty()) {
        memcpy(to, text.data(), text.size());
    }
    ftx->ftx_fiob_size += static_cast<int>(text.size());
}

}  // namespace

static_assert(ftx_flush_size + compress_item_max + line_end_max <= ftx_buffer_size);

int dst_textWrite(void* hOut, const char* buf, int len, int, int ctrl, ErrMsg* err) {
    auto* const ftx = static_cast<ftx_entry*>(hOut);
    if (dst_control(ftx, buf, len, ctrl, err) || ftx->current == nullptr || !ftx->file.valid() || len < 0 ||
        len > compress_item_max) {
        return 0;
    }
    if (ftx->ftx_fiob_size > static_cast<int>(ftx_flush_size) && dst_textWriteOut(ftx) != 0) {
        return -1;
    }
    append(ftx, {buf, static_cast<size_t>(len)}, ftx->ftx_text_coding == TEXT_CODE_NORMAL);
    if (ctrl == CTRL_RECORD_END) {
        append(ftx, line_end_of(ftx->ftx_separate, ftx->ftx_text_coding), false);
    }
    return 0;
}

int dst_textWriteOut(ftx_entry* ftx) {
    const int length = ftx->ftx_fiob_size;
    if (length == 0) {
        return 0;
    }
    if (dst_writeOut(ftx, reinterpret_cast<const char*>(ftx->buffer.get()), static_cast<size_t>(length),
                     "TEXT") != 0) {
        return -1;
    }
    ftx->ftx_fiob_size = 0;
    ++ftx->current->ftxe_records;
    return 0;
}
