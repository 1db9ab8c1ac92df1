#include "identity/user_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/files.h"
#include "identity/accounts.h"
#include "identity/switch_user.h"
#include "log/trace.h"

namespace {

int failure(const char* function, qx7_error* error) {
    const int error_number = errno;
    return qx_error_set(error, -1, error_number, 0, "%s error '%s'", function,
                        error_text(error_number).c_str());
}

// The shape of all operations: borrow, work, give back. `work` returns -1 with errno for a failure.
template <class Work>
int as_user(const char* user, const char* function, qx7_error* error, Work work) {
    qx_error_clear(error);
    effective_user as(user, error);
    if (!as.ok()) {
        return -1;
    }
    int result = work();
    if (result < 0) {
        failure(function, error);
    }
    if (trc_on(TRC_FILE)) {
        _TraceText("%s as '%s' = %d", function, user == nullptr ? "" : user, result);
    }
    const int finished = as.finish(result, error);
    if (finished < 0 && error != nullptr) {
        errno = error->qx_errno;
    }
    return finished;
}

// A descriptor that was opened but may not be given out, since the way back to the agent failed.
template <class Work>
int open_as_user(const char* user, const char* function, qx7_error* error, Work work) {
    int opened = -1;
    const int result = as_user(user, function, error, [&] {
        opened = work();
        return opened;
    });
    if (result < 0 && opened >= 0) {
        close(opened);
    }
    return result;
}

// A kernel before 5.6 does not know the call, and the filter of an old container refuses it.
bool openat2_is_missing(int error_number) {
    if (error_number != EPERM) {
        return error_number == ENOSYS;
    }
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    const qx_descriptor root(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how)));
    return !root.valid();
}

// open(2), but ELOOP where the way leads over a descriptor or folder of a process (/proc/self/fd/3,
// /proc/self/cwd): over those of the agent a user would get past folders that are closed to him.
int open_by_names(const char* path, int flags, mode_t mode) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;  // anything else is refused without O_CREAT
    how.resolve = RESOLVE_NO_MAGICLINKS;
    const long fd = syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how);
    if (fd >= 0) {
        return static_cast<int>(fd);
    }
    const int error_number = errno;
    if (openat2_is_missing(error_number)) {
        return open(path, flags, mode);
    }
    errno = error_number;
    return -1;
}

// Opens what exists; makes what doesn't. O_CREAT never meets an existing file, which kernels that protect
// sticky directories refuse even to root.
int open_or_make(const char* path, int flags, mode_t mode) {
    constexpr int attempts = 8;  // somebody may remove and make the file between the two calls
    const int how = flags | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
    for (int i = 0; i < attempts; ++i) {
        if ((flags & O_EXCL) != 0) {
            return open_by_names(path, how | O_CREAT, mode);
        }
        int fd = open_by_names(path, how & ~O_TRUNC, 0);
        if (fd < 0 && errno == ENOENT) {
            fd = open_by_names(path, how | O_CREAT | O_EXCL, mode);
            if (fd < 0 && errno == EEXIST) {
                continue;
            }
        }
        return fd;
    }
    errno = EAGAIN;
    return -1;
}

// Only regular files; the waiting that open was spared is allowed again for reading and writing.
int checked(int fd, int flags) {
    if (fd < 0) {
        return -1;
    }
    qx_descriptor file(fd);
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    if (is_kernel_file(fd)) {
        errno = EACCES;
        return -1;
    }
    if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) {
        return -1;
    }
    if (fcntl(fd, F_SETFL, flags & O_APPEND) != 0) {
        return -1;
    }
    return file.release();
}

int open_to_write(const char* path, int flags, mode_t mode) {
    return checked(open_or_make(path, flags, mode), flags);
}

int open_to_read(const char* path, int flags) {
    return checked(open_by_names(path, flags | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, 0), flags);
}

// The flags of an fopen mode; -1 for one that isn't known.
int flags_of_mode(const char* mode) {
    const bool both = strchr(mode, '+') != nullptr;
    switch (*mode) {
        case 'r':
            return both ? O_RDWR : O_RDONLY;
        case 'w':
            return (both ? O_RDWR : O_WRONLY) | O_TRUNC | (strchr(mode, 'x') != nullptr ? O_EXCL : 0);
        case 'a':
            return (both ? O_RDWR : O_WRONLY) | O_APPEND;
        default:
            errno = EINVAL;
            return -1;
    }
}

constexpr mode_t stream_mode = 0666;  // less the umask, as fopen makes files

int open_for_stream(const char* path, const char* mode) {
    const int flags = flags_of_mode(mode);
    if (flags < 0) {
        return -1;
    }
    if (*mode == 'r') {
        return open_to_read(path, flags);
    }
    return open_to_write(path, flags, stream_mode);
}

FILE* to_stream(int fd, const char* mode, const char* function, qx7_error* error) {
    if (fd < 0) {
        return nullptr;
    }
    FILE* stream = fdopen(fd, mode);
    if (stream == nullptr) {
        failure(function, error);
        close(fd);
    }
    return stream;
}

int close_stream(FILE* stream) {
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    return fclose(stream) == 0 ? 0 : -1;
}

// Closes the stream and gives the file its times; a second descriptor holds the file, so that the times meet
// it and not what its name may mean by then.
int close_with_times(FILE* stream, time_t accessed, time_t modified) {
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    const qx_descriptor file(fcntl(fileno(stream), F_DUPFD_CLOEXEC, 3));
    const bool held = file.valid();
    if (fclose(stream) != 0 || !held) {
        return -1;
    }
    const timespec times[2] = {{accessed, 0}, {modified, 0}};
    return futimens(file.get(), times);
}

int make_directory(const char* path, mode_t mode) {
    if (mkdir(path, mode) != 0) {
        return -1;
    }
    const qx_descriptor made(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made.valid()) {
        // A mode without the read bit for its owner: by name then, it is the user's own directory.
        return chmod(path, mode);
    }
    return fchmod(made.get(), mode);
}

}  // namespace

int RemoveWithEffUser(const char* user, const char* path, qx7_error* error) {
    return as_user(user, "FileRemove()", error, [&] {
        if (FileRemove(path) == 0) {
            return 1;
        }
        return errno == ENOENT ? 0 : -1;
    });
}

int removeFile_EffUser(const char* user, const char* path, qx7_error* error) {
    return as_user(user, "FileRemove()", error, [&] { return FileRemove(path); });
}

int removeDir_EffUser(const char* user, const char* path, qx7_error* error) {
    return as_user(user, "rmdir()", error, [&] { return rmdir(path); });
}

int rename_fileEffUser(const char* user, const char* from, const char* to, qx7_error* error) {
    return as_user(user, "rename()", error, [&] { return rename(from, to); });
}

int Open_ReadEffUser(const char* user, const char* path, qx7_error* error, bool links) {
    return open_as_user(user, "FileOpenRead()", error,
                        [&] { return open_to_read(path, links ? O_RDONLY : O_RDONLY | O_NOFOLLOW); });
}

int Open_WriteEffUser(const char* user, const char* path, mode_t mode, qx7_error* error) {
    return open_as_user(user, "FileOpenWrite()", error,
                        [&] { return open_to_write(path, O_WRONLY | O_TRUNC, mode); });
}

int Open_AppendEffUser(const char* user, const char* path, mode_t mode, qx7_error* error) {
    return open_as_user(user, "FileOpenAppend()", error,
                        [&] { return open_to_write(path, O_WRONLY | O_APPEND, mode); });
}

int close_fdEffUser(const char* user, int fd, qx7_error* error) {
    return as_user(user, "FileClose()", error, [&] { return FileClose(fd); });
}

FILE* StreamOpen_EffUser(const char* user, const char* path, const char* mode, qx7_error* error) {
    constexpr char function[] = "FileFOpen()";
    const int fd = open_as_user(user, function, error, [&] { return open_for_stream(path, mode); });
    return to_stream(fd, mode, function, error);
}

FILE* StreamOpenChmod_EffUser(const char* user, const char* path, const char* mode, mode_t file_mode,
                              qx7_error* error) {
    constexpr char function[] = "FileFOpen()";
    const int fd = open_as_user(user, function, error, [&] {
        qx_descriptor file(open_for_stream(path, mode));
        if (!file.valid() || fchmod(file.get(), file_mode) != 0) {
            return -1;
        }
        return file.release();
    });
    return to_stream(fd, mode, function, error);
}

int StreamClose_EffUser(const char* user, FILE* stream, qx7_error* error) {
    return as_user(user, "FileFClose()", error, [&] { return close_stream(stream); });
}

int StreamCloseSetTimes_EffUser(const char* user, FILE* stream, const char* path, time_t accessed,
                                time_t modified, qx7_error* error) {
    if (trc_on(TRC_FILE)) {
        _TraceText("StreamCloseSetTimes_EffUser '%s'", path);
    }
    return as_user(user, "FileFClose()", error, [&] { return close_with_times(stream, accessed, modified); });
}

int createDir_EffUser(const char* user, const char* path, mode_t mode, qx7_error* error) {
    return as_user(user, "mkdir()", error, [&] { return make_directory(path, mode); });
}

int createDirFile_EffUser(const char* user, const char* path, mode_t mode, qx7_error* error) {
    return open_as_user(user, "FileCreate()", error, [&] {
        const char* last = strrchr(path, '/');
        qx7_error reason;
        if (last != nullptr && last != path &&
            create_Dir(std::string(path, static_cast<size_t>(last - path)).c_str(), &reason) != 0) {
            errno = reason.qx_errno;
            return -1;
        }
        const uid_t keep_uid = static_cast<uid_t>(-1);
        const gid_t keep_gid = static_cast<gid_t>(-1);
        return create_new_file(path, mode, keep_uid, keep_gid, nullptr);
    });
}
