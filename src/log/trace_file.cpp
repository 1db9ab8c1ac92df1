// The trace file: its lines, names, limit and trigger.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/file_data.h"
#include "base/files.h"
#include "base/hex_dump.h"
#include "base/locks.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "log/log_parts.h"
#include "log/trace.h"
#include "log/trace_lines.h"

namespace {

qx_recursive_lock trace_lock;
[[maybe_unused]] const bool trace_lock_registered =
    (fork_lock_register_recursive(FORK_LOCK_TRACE, &trace_lock), true);

constexpr int whole_string = 65535;
constexpr size_t longest_text = 2047;
constexpr size_t dump_column = 83;
constexpr size_t row_column = 37;

// A trace may be sent to a device; everything else is a new file.
int create_trace_descriptor(const char* name) {
    struct stat status;
    if (lstat(name, &status) == 0 && S_ISCHR(status.st_mode)) {
        return open(name, O_WRONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    }
    // Messages stand in it whole, with scripts and file contents.
    return create_new_file(name, 0600, static_cast<uid_t>(-1), static_cast<gid_t>(-1), nullptr);
}

std::string stamped_name(std::string_view format) {
    char stamp[32];
    GetDtChar2(stamp, sizeof stamp);
    str_replace_char(stamp, '/', '-');
    std::string name(format);
    const size_t marker = name.find("%s");
    return marker == std::string::npos ? name : name.replace(marker, 2, stamp);
}

// Runs zutrace_trigger_hit for a trigger that was met while the lock was held.
void act_on_trigger(PZUTRACE handle) {
    if ((handle->flag & TRACE_TRIGGER_HIT) != 0) {
        zutrace_trigger_hit(handle);
    }
}

}  // namespace

void init_traceLock() {
    trace_lock.init();
}
void set_traceLock() {
    trace_lock.lock();
}
void reset_traceLock() {
    trace_lock.unlock();
}
void destroy_traceLock() {
    pthread_mutex_destroy(&trace_lock.mutex);
}

bool is_trace(const _pzutrace* handle) {
    return handle != nullptr && memcmp(handle->id, "%TRC", 4) == 0;
}

trace_line_head current_trace_head() {
    trace_line_head head{};
    head.main_thread = on_main_thread();
    head.thread = static_cast<uint64_t>(pthread_self());
    GetDtChar2(head.time, sizeof head.time);
    return head;
}

std::string trace_head_text(const trace_line_head& head) {
    char text[64];
    if (head.main_thread) {
        snprintf(text, sizeof text, "MAIN-THREAD      %.31s ", head.time);
    } else {
        snprintf(text, sizeof text, "%.16lX %.31s ", static_cast<unsigned long>(head.thread), head.time);
    }
    return text;
}

std::string trace_text_line(const trace_line_head& head, std::string_view text) {
    return trace_head_text(head).append(text).append("\n");
}

std::string trace_dump_lines(const trace_line_head& head, std::string_view title, const void* shown_address,
                             const void* data, size_t length) {
    std::string lines = trace_head_text(head).append("U0009909 TRACE: (").append(title).append(")");
    lines.resize(std::max(lines.size(), dump_column), ' ');
    char figures[48];
    snprintf(figures, sizeof figures, "  %p %.5zu\n", shown_address, length);
    lines += figures;
    append_hex_rows(&lines, row_column, data, length);
    return lines;
}

int trace_write(PZUTRACE handle, std::string_view lines) {
    if (handle->fcb == nullptr && zutrace_create_tracefile(handle) != 0) {
        return -1;
    }
    if (WriteFwrite(handle->fcb, lines.data(), lines.size()) != 0) {
        handle->ErrNum = errno;
        clearerr(handle->fcb);
        // Said once for each kind of failure, and to the log's memory only by number: the trace must not stop
        // work.
        if (handle->PutErrNum != handle->ErrNum) {
            handle->PutErrNum = handle->ErrNum;
            printf("The trace file '%s' could not be written, error=%d(%s)\n", handle->filename,
                   handle->ErrNum, strerror(handle->ErrNum));
            fflush(stdout);
        }
        return -1;
    }
    handle->PutErrNum = 0;
    handle->uCurrentLength += lines.size();
    ZUTRACE_check_trace_limit(handle);
    return 0;
}

PZUTRACE ZUTRACE_Open(const char* name) {
    PZUTRACE handle = new (std::nothrow) _pzutrace;
    if (handle == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (name != nullptr && strlen(name) >= sizeof handle->trc_file) {
        delete handle;
        errno = ENAMETOOLONG;
        return nullptr;
    }
    copy_text(handle->trc_file, name == nullptr ? "" : name);
    handle->mainThreadID = pthread_self();
    return handle;
}

PZUTRACE ZUTRACE_OpenDescriptor(int fd) {
    PZUTRACE handle = ZUTRACE_Open("");
    FILE* stream = handle == nullptr ? nullptr : fdopen(fd, "a");
    if (stream == nullptr) {
        const int kept = errno;
        close(fd);
        delete handle;
        errno = kept;
        return nullptr;
    }
    setvbuf(stream, nullptr, _IONBF, 0);
    handle->fcb = stream;
    handle->flag = TRACE_ACTIVE;
    return handle;
}

int ZUTRACE_Close(PZUTRACE handle) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    zutrace_close_file(handle);
    trc_set_rt_size(handle, 0);
    free(handle->trigger_text);
    memset(handle->id, 0, sizeof handle->id);
    delete handle;
    return 0;
}

int ZUTRACE_Text(PZUTRACE handle, const char* text, int length) {
    {
        trace_guard guard;
        if (!is_trace(handle) || text == nullptr) {
            return 1;
        }
        if ((handle->flag & TRACE_ACTIVE) == 0) {
            return 0;
        }
        const bool string = length < 0 || length == whole_string;
        std::string_view line(
            text, string ? strnlen(text, longest_text) : std::min(static_cast<size_t>(length), longest_text));
        while (!line.empty() && line.back() == ' ') {
            line.remove_suffix(1);
        }
        copy_text(handle->record, line);
        ZUTRACE_check_trigger(handle, handle->record);
        if ((handle->flag & TRACE_RING) != 0) {
            trc_rt_add(handle, TRACE_ENTRY_TEXT, line.data(), line.size(), nullptr, 0);
        } else {
            trace_write(handle, trace_text_line(current_trace_head(), line));
        }
    }
    act_on_trigger(handle);
    return 0;
}

int ZUTRACE_Trace(PZUTRACE handle, const char* title, const void* address, int length) {
    {
        trace_guard guard;
        if (!is_trace(handle)) {
            return 1;
        }
        if ((handle->flag & TRACE_ACTIVE) == 0) {
            return 0;
        }
        const std::string_view name = title == nullptr ? "" : title;
        const size_t size = address == nullptr || length < 0 ? 0 : static_cast<size_t>(length);
        ZUTRACE_check_trigger(handle, std::string(name).c_str());
        if ((handle->flag & TRACE_RING) != 0) {
            trc_rt_add(handle, TRACE_ENTRY_DUMP, name.data(), std::min(name.size(), longest_text), address,
                       size);
        } else {
            trace_write(handle, trace_dump_lines(current_trace_head(), name, address, address, size));
        }
    }
    act_on_trigger(handle);
    return 0;
}

void ZUTRACE_check_trace_limit(PZUTRACE handle) {
    if (handle->uFileLimit != 0 && handle->uCurrentLength >= handle->uFileLimit && GlbPcx != nullptr) {
        GlbPcx->pcx_todo_flag.fetch_or(PCX_TODO_TRACE_FILE);
    }
}

int ZUTRACE_check_trigger(PZUTRACE handle, const char* text) {
    trace_guard guard;
    if (!is_trace(handle) || handle->trigger_text == nullptr || MyStrMatch(text, handle->trigger_text) == 0) {
        return 0;
    }
    free(handle->trigger_text);
    handle->trigger_text = nullptr;
    handle->flag.fetch_or(TRACE_TRIGGER_HIT);
    return 1;
}

int ZUTRACE_set_trigger(PZUTRACE handle, char type, const char* text) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    free(handle->trigger_text);
    handle->trigger_text = text == nullptr || text[0] == '\0' ? nullptr : strdup(text);
    handle->trigger_type = type;
    return 0;
}

int zutrace_generate_filename(PZUTRACE handle, const char* fallback) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    if (handle->trc_file[0] == '\0') {
        copy_text(handle->filename, stamped_name(fallback));
        return 0;
    }
    copy_text(handle->filename, handle->trc_file);
    moved_obstacle moved;
    const int result =
        log_move_generations(handle->filename, sizeof handle->filename, handle->iFileCount, &moved);
    if (!moved.name.empty()) {
        // Under the trace lock neither the log nor an account may be asked.
        printf("%s\n", obstacle_line(moved, "?").c_str());
        fflush(stdout);
    }
    return result;
}

int zutrace_create_tracefile(PZUTRACE handle) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    if (handle->createFailed != 0 && alarm_now() < handle->createFailed + 60) {
        return -1;
    }
    zutrace_close_file(handle);
    if (handle->filename[0] == '\0') {
        zutrace_generate_filename(handle, trace_default_name);
    }
    // Not while a thread stands as another user: the file would be his.
    if (!try_effUserLock()) {
        return -1;
    }
    const int fd = create_trace_descriptor(handle->filename);
    reset_effUserLock();
    if (fd < 0) {
        const int number = errno;
        handle->createFailed = alarm_now();
        printf("The trace file '%s' could not be created, error=%d(%s)\n", handle->filename, number,
               strerror(number));
        fflush(stdout);
        return -1;
    }
    handle->fcb = fdopen(fd, "a");
    if (handle->fcb == nullptr) {
        const int number = errno;
        close(fd);
        handle->createFailed = alarm_now();
        printf("The trace file '%s' could not be opened, error=%d(%s)\n", handle->filename, number,
               strerror(number));
        fflush(stdout);
        return -1;
    }
    setvbuf(handle->fcb, nullptr, _IONBF, 0);
    handle->createFailed = 0;
    handle->uCurrentLength = 0;
    return 0;
}

int zutrace_close_file(PZUTRACE handle) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    if (handle->fcb != nullptr) {
        fclose(handle->fcb);  // unbuffered: each line was written and its result looked at
        handle->fcb = nullptr;
    }
    return 0;
}

void zutrace_forget_file(PZUTRACE handle) {
    if (zutrace_close_file(handle) == 0) {
        handle->filename[0] = '\0';
    }
}

int zutrace_start_tracing(PZUTRACE handle) {
    if (!is_trace(handle)) {
        return 1;
    }
    handle->flag.fetch_or(TRACE_ACTIVE);
    return 0;
}

int zutrace_stop_tracing(PZUTRACE handle) {
    if (!is_trace(handle)) {
        return 1;
    }
    handle->flag.fetch_and(~TRACE_ACTIVE);
    return zutrace_close_file(handle);
}

int zutrace_trigger_hit(PZUTRACE handle) {
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    handle->flag.fetch_and(~TRACE_TRIGGER_HIT);
    if (GlbPcx != nullptr) {
        trc_set_flags(GlbPcx, "");
    }
    if ((handle->flag & TRACE_RING) != 0) {
        handle->filename[0] = '\0';
        zutrace_generate_filename(handle, trace_default_name);
        if (zutrace_create_tracefile(handle) == 0) {
            trc_rt_writeout_all(handle);
        }
    }
    return zutrace_stop_tracing(handle);
}

int ChangeTraceFile(PZUTRACE handle, const char* name) {
    constexpr char own_pattern[] = "WK.TRACE.%s";
    trace_guard guard;
    if (!is_trace(handle)) {
        return 1;
    }
    zutrace_close_file(handle);
    if (name != nullptr && name[0] != '\0') {
        copy_text(handle->filename, name);
    } else {
        zutrace_generate_filename(handle, own_pattern);
    }
    if (zutrace_create_tracefile(handle) == 0) {
        return 0;
    }
    if (name != nullptr && name[0] != '\0') {
        handle->createFailed = 0;  // of the other name
        zutrace_generate_filename(handle, own_pattern);
        zutrace_create_tracefile(handle);  // tried again with the next line
    }
    return 1;
}
