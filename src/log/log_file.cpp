// The log file: opening, closing, what the handle knows of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "base/files.h"
#include "base/locks.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "log/log_output.h"
#include "log/log_parts.h"

namespace {

constexpr int reopen_seconds = 60;

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

}  // namespace

void log_retry_open(_pzulogg* handle) {
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
    return open_file(handle) == 0 ? 0 : log_note_open_error(handle);
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
        return log_note_open_error(handle);
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
