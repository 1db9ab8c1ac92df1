// The log file: its lines, generations and copy in memory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/file_data.h"
#include "base/files.h"
#include "base/hex_dump.h"
#include "base/locks.h"
#include "base/log.h"
#include "base/log_origin.h"
#include "base/log_output.h"
#include "base/text.h"
#include "base/time.h"
#include "base/trace.h"

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

constexpr size_t longest_line = log_line_size - 1;
constexpr size_t thread_column = 17;
constexpr size_t dump_column = 69;
constexpr int reopen_seconds = 60;
constexpr int write_error_message = 2003031;
constexpr int write_good_again_message = 2003032;

bool is_log(const _pzulogg* handle) {
    return handle != nullptr && memcmp(handle->id, "%LOG", 4) == 0;
}

// Time stamp, " - " and the thread column; the length of the stamp part goes to *stamp_length.
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

// ---- Memory copy
// -------------------------------------------------------------------------------------------------

ZULOGG_MSG_BUFFER* make_line(std::string_view text) {
    ZULOGG_MSG_BUFFER* line = static_cast<ZULOGG_MSG_BUFFER*>(malloc(sizeof *line + text.size()));
    if (line != nullptr) {
        line->nxt = nullptr;
        line->MsgStatus = LOG_LINE_TO_SEND;
        line->length = static_cast<uint32_t>(text.size());
        memcpy(line->text, text.data(), text.size());
        line->text[text.size()] = '\0';
    }
    return line;
}

void count_lines(_pzulogg* handle, int change) {
    handle->msgCount += change;
    if (GlbPcx != nullptr) {
        GlbPcx->LogBuffRecNr.store(handle->msgCount, std::memory_order_relaxed);
    }
}

void drop_first_line(_pzulogg* handle) {
    ZULOGG_MSG_BUFFER* first = handle->pFirstMsg;
    handle->pFirstMsg = first->nxt;
    if (first->nxt == nullptr) {
        handle->pLastMsg = nullptr;
    }
    free(first);
    count_lines(handle, -1);
}

void (*line_waker)() = nullptr;  // under the log lock

void Put_MsgBuff(_pzulogg* handle, std::string_view text) {
    const bool first = handle->pFirstMsg == nullptr;
    while (handle->msgCount >= log_memory_lines) {
        drop_first_line(handle);
        ++handle->dropped;
    }
    ZULOGG_MSG_BUFFER* line = make_line(text);
    if (line == nullptr) {
        ++handle->dropped;
        return;
    }
    (handle->pLastMsg == nullptr ? handle->pFirstMsg : handle->pLastMsg->nxt) = line;
    handle->pLastMsg = line;
    count_lines(handle, 1);
    if (first && line_waker != nullptr && !on_main_thread()) {
        line_waker();
    }
}

// The server's log has a hole: the first line behind it tells how many are missing.
void note_dropped_lines(_pzulogg* handle) {
    if (handle->dropped == 0) {
        return;
    }
    size_t stamp_length = 0;
    ZULOGG_MSG_BUFFER* note = make_line(INT_Header(handle, &stamp_length) + std::to_string(handle->dropped) +
                                        " log lines were dropped here: the server took none for too long");
    if (note == nullptr) {
        return;
    }
    note->nxt = handle->pFirstMsg;
    handle->pFirstMsg = note;
    if (handle->pLastMsg == nullptr) {
        handle->pLastMsg = note;
    }
    handle->dropped = 0;
    count_lines(handle, 1);
}

// ---- File
// --------------------------------------------------------------------------------------------------------

void close_file(_pzulogg* handle) {
    if (handle->fcb != nullptr) {
        fclose(handle->fcb);  // unbuffered: every line was written and its result looked at
        handle->fcb = nullptr;
    }
    handle->logFileSize = 0;
}

// Command lines stand in it, and with a job trace whole scripts: nobody reads it but the agent and its group.
constexpr mode_t log_mode = 0640;

// Under the log lock. There is one log in a process.
gid_t log_group = static_cast<gid_t>(-1);
bool open_error_told = false;

bool is_device(const char* name) {
    struct stat status;
    return lstat(name, &status) == 0 && S_ISCHR(status.st_mode);
}

// A log may be sent to a device; everything else is a new file.
int open_log_descriptor(const char* name) {
    if (is_device(name)) {
        return open(name, O_WRONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    }
    return create_new_file(name, log_mode, static_cast<uid_t>(-1), log_group, nullptr);
}

// The file that stands there, when it is a log of this agent's own; else a new one.
int continue_log_descriptor(const char* name) {
    constexpr int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = is_device(name) ? -1 : open(name, flags);
    struct stat status;
    if (fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
        status.st_nlink == 1) {
        return fd;
    }
    if (fd >= 0) {
        close(fd);
    }
    return open_log_descriptor(name);
}

// `fd` is the opened file, or -1 with errno.
int use_file(_pzulogg* handle, int fd) {
    handle->retryTime = alarm_now() + reopen_seconds;
    handle->fcb = fd < 0 ? nullptr : fdopen(fd, "a");
    if (handle->fcb == nullptr) {
        const int number = errno;
        if (fd >= 0) {
            close(fd);
        }
        errno = number;
        return -1;
    }
    setvbuf(handle->fcb, nullptr, _IONBF, 0);
    return 0;
}

int open_file(_pzulogg* handle) {
    close_file(handle);
    handle->logStartedTime = time(nullptr);
    handle->retryTime = alarm_now() + reopen_seconds;
    if (handle->filename[0] == '\0') {
        return 0;
    }
    return use_file(handle, open_log_descriptor(handle->filename));
}

void retry_open(_pzulogg* handle) {
    const bool child = GlbPcx != nullptr && GlbPcx->running_mode != MODE_AGENT;
    if (child || handle->filename[0] == '\0' || alarm_now() < handle->retryTime) {
        return;
    }
    handle->retryTime = alarm_now() + reopen_seconds;
    // The user lock comes before the log lock, which is held here: it is only taken when it is free.
    if (try_effUserLock()) {
        open_file(handle);
        reset_effUserLock();
    }
}

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

// Whoever looks for the log finds nothing there, so the first error goes where a person or the service manager
// sees it. That it cannot be written either changes nothing.
void note_write_error(_pzulogg* handle) {
    const bool first = handle->PutErrNum == 0;
    handle->PutErrNum = handle->ErrNum;
    const std::string line = Put_ErrMsg(handle, write_error_message,
                                        std::string(handle->filename) + "|" + strerror(handle->ErrNum));
    if (first) {
        fprintf(stderr, "%s\n", line.c_str());
    }
}

// -1 with errno kept. The first line that is written again ends it, as after a failed write.
int note_open_error(_pzulogg* handle) {
    const int number = errno;
    fprintf(stderr, "log file '%s' cannot be opened: %s; lines are kept in memory until it can\n",
            handle->filename, strerror(number));
    open_error_told = true;
    errno = number;
    return -1;
}

void write_to_file(_pzulogg* handle, const std::string& line) {
    if (handle->fcb == nullptr) {
        retry_open(handle);
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
            Put_ErrMsg(handle, write_good_again_message, std::string(handle->filename) + "|");
        fprintf(stderr, "%s\n", text.c_str());
    }
}

// One line to memory, standard output, trace and file. The log lock is held.
int put_line(_pzulogg* handle, std::string line, size_t stamp_length, bool to_trace = true) {
    line.resize(std::min(line.size(), longest_line));
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

// ---- Generations
// -------------------------------------------------------------------------------------------------

void put_generation(char* run, int digits, int number) {
    char text[16];
    snprintf(text, sizeof text, "%.*d", digits, number);
    memcpy(run, text, static_cast<size_t>(digits));
}

}  // namespace

PZULOGG ZULOGG_Open(const char* filename, _pzutrace* trcHandle, PZUHELP hlpHandle, int /*cache*/) {
    PZULOGG handle = new (std::nothrow) _pzulogg;
    if (handle == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    handle->trcHandle = trcHandle;
    handle->hlpHandle = hlpHandle;
    handle->mainThreadID = pthread_self();
    if (filename != nullptr && strlen(filename) >= sizeof handle->filename) {
        errno = ENAMETOOLONG;
    } else if (copy_text(handle->filename, filename == nullptr ? "" : filename); open_file(handle) == 0) {
        return handle;
    }
    const int kept = errno;
    delete handle;
    errno = kept;
    return nullptr;
}

int ZULOGG_Close(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    close_file(handle);
    ZULOGG_FreeMsg(handle);
    memset(handle->id, 0, sizeof handle->id);
    delete handle;
    return 0;
}

int log_reopen(PZULOGG handle, const char* filename) {
    log_guard guard;
    if (!is_log(handle) || filename == nullptr || strlen(filename) >= sizeof handle->filename) {
        errno = EINVAL;
        return -1;
    }
    copy_text(handle->filename, filename);
    return open_file(handle) == 0 ? 0 : note_open_error(handle);
}

void log_set_waker(void (*waker)()) {
    log_guard guard;
    line_waker = waker;
}

void log_set_group(gid_t group) {
    log_guard guard;
    log_group = group;
}

int log_file_anew(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        errno = EBADF;
        return -1;
    }
    if (handle->filename[0] == '\0') {
        return 0;
    }
    close_file(handle);
    if (use_file(handle, continue_log_descriptor(handle->filename)) != 0) {
        return note_open_error(handle);
    }
    struct stat status;
    if (fstat(fileno(handle->fcb), &status) == 0 && status.st_size > 0) {
        handle->logFileSize = static_cast<uint64_t>(status.st_size);
    } else {
        handle->logStartedTime = time(nullptr);
    }
    return 0;
}

int log_close_file(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return -1;
    }
    close_file(handle);
    handle->filename[0] = '\0';
    return 0;
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
    const size_t size = length < 0 ? strnlen(text, longest_line) : static_cast<size_t>(length);
    return put_line(handle, std::string(head).append(text, std::min(size, longest_line)).append(log_origin()),
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

int ZULOGG_Reorg(char* filename, size_t size, int count) {
    char* run = filename == nullptr ? nullptr : strstr(filename, "##");
    if (run == nullptr) {
        return 0;
    }
    const int digits = static_cast<int>(std::min<size_t>(strspn(run, "#"), 7));
    int highest = 1;
    for (int i = 0; i < digits; ++i) {
        highest *= 10;
    }
    count = std::clamp(count, 0, highest - 1);
    put_generation(run, digits, count);
    FileRemove(filename);  // usually there is none; what cannot be removed is met again by the rename
    std::string older(filename, strnlen(filename, size));
    for (int number = count; number > 0; --number) {
        put_generation(run, digits, number - 1);
        rename(filename, older.c_str());  // a generation that does not exist yet is no failure
        older = filename;
    }
    put_generation(run, digits, 0);
    return 0;
}

int ZULOGG_UseMsg(PZULOGG handle, bool on) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->msgFlg = on ? 1 : 0;
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

ZULOGG_MSG_BUFFER* ZULOGG_GetMsg(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return nullptr;
    }
    note_dropped_lines(handle);
    for (ZULOGG_MSG_BUFFER* line = handle->pFirstMsg; line != nullptr; line = line->nxt) {
        if (line->MsgStatus == LOG_LINE_TO_SEND) {
            line->MsgStatus = LOG_LINE_BEING_SENT;
            return line;
        }
    }
    return nullptr;
}

int ZULOGG_PutMsg(PZULOGG handle, ZULOGG_MSG_BUFFER* line) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    for (ZULOGG_MSG_BUFFER* each = handle->pFirstMsg; each != nullptr; each = each->nxt) {
        if (line == nullptr || each == line) {
            each->MsgStatus = LOG_LINE_TO_SEND;
        }
    }
    return 0;
}

int ZULOGG_DelMsg(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return 0;
    }
    int removed = 0;
    ZULOGG_MSG_BUFFER** link = &handle->pFirstMsg;
    handle->pLastMsg = nullptr;
    while (*link != nullptr) {
        ZULOGG_MSG_BUFFER* line = *link;
        if (line->MsgStatus == LOG_LINE_BEING_SENT) {
            *link = line->nxt;
            free(line);
            ++removed;
        } else {
            handle->pLastMsg = line;
            link = &line->nxt;
        }
    }
    count_lines(handle, -removed);
    return removed;
}

int ZULOGG_SetMsg(PZULOGG handle, const char* text, int length) {
    log_guard guard;
    if (!is_log(handle) || text == nullptr) {
        return 1;
    }
    Put_MsgBuff(handle,
                {text, std::min(length < 0 ? strlen(text) : static_cast<size_t>(length), longest_line)});
    return 0;
}

int ZULOGG_FreeMsg(PZULOGG handle) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    while (handle->pFirstMsg != nullptr) {
        drop_first_line(handle);
    }
    return 0;
}

int ZULOGG_NrMsg(PZULOGG handle) {
    log_guard guard;
    return is_log(handle) ? handle->msgCount : 0;
}

uint64_t ZULOGG_GetLogFileSize(PZULOGG handle) {
    log_guard guard;
    return is_log(handle) ? handle->logFileSize : 0;
}

int ZULOGG_SetLogFileSize(PZULOGG handle, unsigned megabytes) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->logFileSize = static_cast<uint64_t>(megabytes) << 20;
    return 0;
}

time_t ZULOGG_GetLogFileStartTime(PZULOGG handle) {
    log_guard guard;
    return is_log(handle) ? handle->logStartedTime : 0;
}

int ZULOGG_SetLogFileStartTime(PZULOGG handle, time_t start) {
    log_guard guard;
    if (!is_log(handle)) {
        return 1;
    }
    handle->logStartedTime = start;
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
