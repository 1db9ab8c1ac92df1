// The agent's front of the log: the context's handle, the fixed messages and the logger of all modules.
#include "log/log.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/notes.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log_output.h"
#include "log/log_parts.h"
#include "log/trace.h"

namespace {

constexpr size_t insert_size = 1024;
// Of the lines that each new log begins with. Far below the smallest size at which a log is changed: an agent
// that had waited days for its server would otherwise begin one log after the other.
constexpr size_t stack_bytes_max = 256U << 10;
constexpr char no_lines_in_memory = 'N';  // value of cLogToDb

qx_recursive_lock log_lock;
[[maybe_unused]] const bool log_lock_registered =
    (fork_lock_register_recursive(FORK_LOCK_LOG, &log_lock), true);

std::atomic<log_function> current_logger = nullptr;
// What a log change carries over; under the log lock.
std::vector<std::string> carried_lines;

struct static_message {
    int number;
    const char* text;
};

constexpr static_message staticMessageDefs[] = {
    {number_agent_ended_abnormally, "Agent '&01' version '&02' ended abnormally."},
    {number_agent_shutdown, "Shutdown Agent '&01'."},
    {number_file_call, "Invalid '&01' call, file name '&02'. Error code: ('&03' - '&04')"},
    {0, nullptr},
};

bool in_child() {
    return GlbPcx != nullptr && GlbPcx->running_mode != MODE_AGENT;
}

std::string nine_inserts(std::string_view inserts) {
    std::string kept;
    const std::vector<std::string_view> parts = split_words(inserts, '|');
    for (size_t i = 0; i < parts.size() && i < 9; ++i) {
        kept.append(i == 0 ? "" : "|").append(parts[i]);
    }
    return kept;
}

// The way before there is a log and after it has gone.
void PrintToStdout(int number, const char* inserts) {
    char stamp[32];
    GetDtChar2(stamp, sizeof stamp);
    if (number < 0) {
        printf("%s %s\n", stamp, inserts);
    } else if (number == number_agent_ended_abnormally) {
        const std::string name(get_word_delimited(inserts, '|', 1));
        const std::string version(get_word_delimited(inserts, '|', 2));
        printf("%s U2000002 QX7 agent '%s' version '%s' ended abnormaly\n", stamp, name.c_str(),
               version.c_str());
    } else {
        const static_message* known = staticMessageDefs;
        while (known->number != 0 && known->number != number) {
            ++known;
        }
        if (known->number == 0) {
            printf("%s U%07i Invalid LogMessage-call %s\n", stamp, number, inserts);
        } else {
            const std::string text = zuhelp_fill(known->text, nine_inserts(inserts));
            printf("%s U%07i %s\n", stamp, number, printable(text).c_str());
        }
    }
    fflush(stdout);
}

PZULOGG agent_log() {
    return GlbPcx == nullptr ? nullptr : GlbPcx->logHnd;
}

void send_to_logger(int number, const char* inserts) {
    const log_function logger = current_logger.load(std::memory_order_acquire);
    (logger == nullptr ? LogMessage : logger)(number, inserts);
}

[[maybe_unused]] const bool notes_connected =
    (notes_go_to({send_to_logger, [](const char* text) { __PutLogText("%s", text); },
                  [](const char* text) { _TraceText("%s", text); }}),
     true);

// The first and the last lines, with a note between them where not all fit.
void copy_ends(const ZULOGG_MSG_BUFFER* first, std::vector<std::string>* lines) {
    size_t total = 0;
    for (const ZULOGG_MSG_BUFFER* line = first; line != nullptr; line = line->nxt) {
        total += line->length;
    }
    size_t place = 0;
    bool noted = false;
    for (const ZULOGG_MSG_BUFFER* line = first; line != nullptr; line = line->nxt) {
        place += line->length;
        if (place <= stack_bytes_max / 2 || total - place < stack_bytes_max / 2) {
            lines->emplace_back(line->text, line->length);
        } else if (!noted) {
            lines->emplace_back("... lines are left out here ...");
            noted = true;
        }
    }
}

// The group that the settings name; false when it is none of this host. The user lock is held, as around all
// account database calls.
bool take_log_group(EX_PCX* pcx, std::string* name) {
    char text[256];
    pcx->getProfileString(pcx, "GLOBAL", "log_group", "", text, sizeof text);
    EatString(text);
    *name = text;
    std::vector<char> room(65536);
    group found{};
    group* entry = nullptr;
    const bool known =
        !name->empty() && getgrnam_r(text, &found, room.data(), room.size(), &entry) == 0 && entry != nullptr;
    log_set_group(known ? found.gr_gid : static_cast<gid_t>(-1));
    return known || name->empty();
}

std::string separator_line() {
    return std::string(132, '=');
}

}  // namespace

void init_logLock() {
    log_lock.init();
}
void __set_logLock() {
    log_lock.lock();
}
void __reset_logLock() {
    log_lock.unlock();
}
void destroy_logLock() {
    pthread_mutex_destroy(&log_lock.mutex);
}

int CreateLogHandle(EX_PCX* pcx) {
    log_guard guard;
    pcx->logHnd = ZULOGG_Open("", pcx->trcHnd, pcx->hlpHnd, 0);
    return pcx->logHnd == nullptr ? -1 : 0;
}

void DeleteLogHandle(EX_PCX* pcx) {
    log_guard guard;
    if (pcx->logHnd != nullptr) {
        ZULOGG_Close(pcx->logHnd);
        pcx->logHnd = nullptr;
    }
}

int OpenLogFile(EX_PCX* pcx) {
    if (pcx->running_mode != MODE_AGENT) {
        errno = EPERM;
        return -1;
    }
    effUser_guard user;
    log_guard guard;
    if (pcx->logHnd == nullptr) {
        errno = EBADF;
        return -1;
    }
    char name[qx_path_size];
    copy_text(name, pcx->logFile);
    log_close_file(pcx->logHnd);
    moved_obstacle moved;
    log_move_generations(name, sizeof name, pcx->logCount, &moved);
    std::string group_name;
    const bool group_known = take_log_group(pcx, &group_name);
    const int result = log_reopen(pcx->logHnd, name);
    const int kept = errno;
    ZULOGG_UseMsg(pcx->logHnd, pcx->cLogToDb != no_lines_in_memory);
    ZULOGG_SetLogThreadFlag(pcx->logHnd, pcx->logThreadFlag != 0);
    if (!moved.name.empty()) {
        __PutLogText("%s", obstacle_line(moved, owner_name(moved.owner)).c_str());
    }
    if (!group_known) {
        __log(-1,
              "setting 'log_group' in section [GLOBAL] names '%s', which is no group of this host: the log "
              "keeps the agent's own group",
              printable(group_name).c_str());
    }
    errno = kept;
    return result;
}

int log_open_anew(EX_PCX* pcx) {
    effUser_guard user;
    log_guard guard;
    return log_file_anew(pcx->logHnd);
}

int CloseLogFile(EX_PCX* pcx) {
    log_guard guard;
    return pcx->logHnd == nullptr ? -1 : log_close_file(pcx->logHnd);
}

void log_leave_in_child(EX_PCX* pcx) {
    log_guard guard;
    __log_set_logger(log_dummy);
    DeleteLogHandle(pcx);
    LOG_FreeMsgStack(pcx);
    pcx->LogBuffRecNr = 0;
}

void log_forget_in_child(EX_PCX* pcx) {
    log_guard guard;
    log_leave_in_child(pcx);
    if (pcx->hlpHnd != nullptr) {
        ZUHELP_Close(pcx->hlpHnd);
        pcx->hlpHnd = nullptr;
    }
}

void log_drop_in_child(EX_PCX* pcx) {
    __log_set_logger(log_dummy);
    pcx->logHnd = nullptr;
    pcx->hlpHnd = nullptr;
}

void LogMessage(int number, const char* inserts) {
    const char* given = inserts == nullptr ? "" : inserts;
    log_guard guard;
    PZULOGG handle = agent_log();
    if (handle == nullptr) {
        if (!in_child()) {
            PrintToStdout(number, given);
        }
    } else if (number < 0) {
        ZULOGG_Text(handle, given, -1);
    } else {
        ZULOGG_Msg(handle, number, -1, given);
    }
}

void LogText(const char* text, int length) {
    log_guard guard;
    if (PZULOGG handle = agent_log(); handle != nullptr) {
        ZULOGG_Text(handle, text, length);
    } else if (text != nullptr) {
        const std::string line =
            length < 0 ? std::string(text) : std::string(text, static_cast<size_t>(length));
        LogMessage(-1, line.c_str());
    }
}

void LogDump(const char* title, const void* address, int length) {
    log_guard guard;
    if (PZULOGG handle = agent_log(); handle != nullptr) {
        ZULOGG_Dump(handle, title, address, length);
    }
}

log_function __log_set_logger(log_function logger) {
    const log_function former = current_logger.exchange(logger == LogMessage ? nullptr : logger);
    return former == nullptr ? LogMessage : former;
}

void log_dummy(int /*number*/, const char* /*inserts*/) {}

void __log(int number, const char* format, ...) {
    char inserts[insert_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(inserts, sizeof inserts, format, arguments);
    va_end(arguments);
    send_to_logger(number, inserts);
}

void __log_error(const qx7_error& error) {
    if (error.qx_msgnr != 0) {
        send_to_logger(error.qx_msgnr, error.qx_msgInsert);
    }
}

void __PutLogMessage(int number, const char* format, ...) {
    char inserts[insert_size] = "";
    if (format != nullptr && format[0] != '\0') {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(inserts, sizeof inserts, format, arguments);
        va_end(arguments);
    }
    in_child() ? send_to_logger(number, inserts) : LogMessage(number, inserts);
}

void __PutLogText(const char* format, ...) {
    char text[log_line_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    in_child() ? send_to_logger(-1, text) : LogText(text, -1);
}

int LOG_CreateMsgStack(EX_PCX* pcx) {
    log_guard guard;
    if (pcx->logHnd == nullptr) {
        return 0;
    }
    if (carried_lines.empty()) {
        carried_lines.push_back(separator_line());
        copy_ends(pcx->logHnd->pFirstMsg, &carried_lines);
        carried_lines.push_back(separator_line());
    }
    return static_cast<int>(carried_lines.size());
}

int LOG_LogMsgStack(EX_PCX*) {
    log_guard guard;
    for (const std::string& line : carried_lines) {
        LogText(line.c_str(), -1);
    }
    return static_cast<int>(carried_lines.size());
}

int LOG_TraceMsgStack(EX_PCX* pcx) {
    log_guard guard;
    for (const std::string& line : carried_lines) {
        ZUTRACE_Text(pcx->trcHnd, line.c_str(), -1);
    }
    return static_cast<int>(carried_lines.size());
}

int LOG_FreeMsgStack(EX_PCX*) {
    log_guard guard;
    const int count = static_cast<int>(carried_lines.size());
    carried_lines = {};
    return count;
}
