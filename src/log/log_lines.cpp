// The log's lines: their form, and the way of each to memory, standard output, trace and file.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/file_data.h"
#include "base/hex_dump.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "log/log_origin.h"
#include "log/log_parts.h"
#include "log/trace.h"

namespace {

thread_local std::string origin_text;

}  // namespace

log_origin_mark::log_origin_mark(std::string_view origin) {
    origin_text.assign(" [").append(origin).append("]");
}

log_origin_mark::~log_origin_mark() {
    origin_text.clear();
}

std::string_view log_origin() {
    return origin_text;
}

namespace {

constexpr size_t thread_column = 17;
constexpr size_t dump_column = 69;

bool open_error_told = false;  // under the log lock; there is one log in a process

// Returns the line.
std::string Put_ErrMsg(_pzulogg* handle, int number, const std::string& inserts) {
    char text[log_line_size];
    size_t stamp_length = 0;
    const std::string head = INT_Header(handle, &stamp_length);
    if (ZUHELP_Msg(handle->hlpHandle, number, -1, inserts.c_str(), sizeof text, text, nullptr) != 0) {
        snprintf(text, sizeof text, "U%.8d %.1000s", number, inserts.c_str());
    }
    const std::string line = head + text;
    Put_MsgBuff(handle, line);
    return line;
}

// Whoever looks for the log finds nothing there, so the first error goes where a person or the service
// manager sees it. That it cannot be written either changes nothing.
void note_write_error(_pzulogg* handle) {
    const bool first = handle->PutErrNum == 0;
    handle->PutErrNum = handle->ErrNum;
    const std::string line = Put_ErrMsg(handle, number_log_not_written,
                                        std::string(handle->filename) + "|" + strerror(handle->ErrNum));
    if (first) {
        fprintf(stderr, "%s\n", line.c_str());
    }
}

void write_to_file(_pzulogg* handle, const std::string& line) {
    if (handle->fcb == nullptr) {
        log_retry_open(handle);
    }
    if (handle->fcb == nullptr) {
        return;
    }
    const std::string ended = line + "\n";
    if (WriteFwrite(handle->fcb, ended.data(), ended.size()) != 0 || fflush(handle->fcb) != 0) {
        handle->ErrNum = errno;
        clearerr(handle->fcb);
        if (handle->ErrNum != handle->PutErrNum) {
            note_write_error(handle);
        }
        return;
    }
    handle->logFileSize += ended.size();
    if (handle->PutErrNum != 0 || open_error_told) {
        handle->PutErrNum = 0;
        open_error_told = false;
        const std::string text =
            Put_ErrMsg(handle, number_log_written_again, std::string(handle->filename) + "|");
        fprintf(stderr, "%s\n", text.c_str());
    }
}

// One line to memory, standard output, trace and file. The log lock is held.
int put_line(_pzulogg* handle, std::string line, size_t stamp_length, bool to_trace = true) {
    line.resize(std::min(line.size(), log_longest_line));
    // A line stays one line: texts of partners and of the system may hold line ends.
    line = printable(line);
    copy_text(handle->buffer, line);
    if (handle->msgFlg != 0) {
        Put_MsgBuff(handle, line);
    }
    if (handle->printFlg != 0 || (GlbPcx != nullptr && GlbPcx->iMsgToStdout != 0)) {
        printf("%s\n", line.c_str());
        fflush(stdout);
    }
    if (to_trace && handle->trcHandle != nullptr) {
        ZUTRACE_Text(handle->trcHandle, line.c_str() + stamp_length, -1);
    }
    write_to_file(handle, line);
    return 0;
}

}  // namespace

std::string INT_Header(const _pzulogg* handle, size_t* stamp_length) {
    char stamp[32];
    GetDtChar2(stamp, sizeof stamp);
    std::string line = std::string(stamp) + " - ";
    *stamp_length = line.size();
    if (handle->logThreadFlag != 0) {
        char column[24];
        snprintf(column, sizeof column, "%.16lX ", static_cast<unsigned long>(pthread_self()));
        line += on_main_thread() ? std::string(thread_column, ' ') : column;
    }
    return line;
}

// The first line that is written again ends it, as after a failed write.
int log_note_open_error(_pzulogg* handle) {
    const int number = errno;
    fprintf(stderr, "log file '%s' cannot be opened: %s; lines are kept in memory until it can\n",
            handle->filename, strerror(number));
    open_error_told = true;
    errno = number;
    return -1;
}

int ZULOGG_Msg(PZULOGG handle, int number, int insLen, const char* insTxt) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    size_t stamp_length = 0;
    const std::string head = INT_Header(handle, &stamp_length);
    char text[log_line_size];
    if (ZUHELP_Msg(handle->hlpHandle, number, insLen, insTxt, sizeof text, text, nullptr) != 0) {
        const std::string_view inserts = insTxt == nullptr || insLen == 0 ? std::string_view()
                                         : insLen < 0                     ? std::string_view(insTxt)
                                                      : std::string_view(insTxt, static_cast<size_t>(insLen));
        snprintf(text, sizeof text, "U%.8d %.*s", number,
                 static_cast<int>(std::min<size_t>(inserts.size(), 2000)), inserts.data());
    }
    return put_line(handle, (head + text).append(log_origin()), stamp_length);
}

int ZULOGG_Text(PZULOGG handle, const char* text, int length) {
    log_guard guard;
    if (!is_log(handle) || text == nullptr) {
        return 1;
    }
    size_t stamp_length = 0;
    const std::string head = INT_Header(handle, &stamp_length);
    const size_t size = length < 0 ? strnlen(text, log_longest_line) : static_cast<size_t>(length);
    return put_line(handle,
                    std::string(head).append(text, std::min(size, log_longest_line)).append(log_origin()),
                    stamp_length);
}

int ZULOGG_Dump(PZULOGG handle, const char* title, const void* address, int length) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    size_t stamp_length = 0;
    std::string line = INT_Header(handle, &stamp_length);
    const size_t indent = line.size();
    const size_t column = dump_column + (handle->logThreadFlag != 0 ? thread_column : 0);
    line.append("U0009909 DUMP: (").append(title == nullptr ? "" : title).append(")");
    line.resize(std::max(line.size(), column), ' ');
    char figures[48];
    snprintf(figures, sizeof figures, "%p %.5d", address, length);
    put_line(handle, line + figures, stamp_length, false);
    std::string rows;
    append_hex_rows(&rows, indent, address,
                    address == nullptr || length < 0 ? 0 : static_cast<size_t>(length));
    for (std::string_view row : split_words(rows, '\n')) {
        if (!row.empty()) {
            put_line(handle, std::string(row), 0, false);
        }
    }
    if (handle->trcHandle != nullptr) {
        ZUTRACE_Trace(handle->trcHandle, title, address, length);
    }
    return 0;
}

int ZULOGG_Trace(PZULOGG handle, _pzutrace* trcHandle) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->trcHandle = trcHandle;
    return 0;
}

int ZULOGG_UsePrintMsg(PZULOGG handle, bool on) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->printFlg = on ? 1 : 0;
    return 0;
}

int ZULOGG_SetLogThreadFlag(PZULOGG handle, bool on) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->logThreadFlag = on ? 1 : 0;
    return 0;
}
