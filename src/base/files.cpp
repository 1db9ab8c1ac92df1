#include "base/files.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/notes.h"

namespace {

constexpr int descriptor_limit = 65536;

// Closes and leaves errno as the failed step had set it.
int give_up(int fd) {
    const int kept = errno;
    close(fd);
    errno = kept;
    return -1;
}

// Removes what stands under the name, if it is a regular file or a link.
int clear_name(int directory, const char* name) {
    struct stat old;
    if (fstatat(directory, name, &old, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    if (!S_ISREG(old.st_mode) && !S_ISLNK(old.st_mode)) {
        errno = EEXIST;
        return -1;
    }
    return unlinkat(directory, name, 0) == 0 || errno == ENOENT ? 0 : -1;
}

int undo_creation(int directory, const char* name, int fd) {
    const int kept = errno;
    struct stat made;
    struct stat named;
    // Only what was created here: the name may already stand for somebody else's file.
    if (fstat(fd, &made) == 0 && fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        made.st_dev == named.st_dev && made.st_ino == named.st_ino) {
        unlinkat(directory, name, 0);
    }
    close(fd);
    errno = kept;
    return -1;
}

void set_step(const char** failed_step, const char* step) {
    if (failed_step != nullptr) {
        *failed_step = step;
    }
}

int require_regular(int fd) {
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return give_up(fd);
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return give_up(fd);
    }
    return fd;
}

int drop_nonblock(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        return give_up(fd);
    }
    return fd;
}

int open_regular_with(int directory, const char* name, int flags) {
    const int fd =
        openat(directory, name, (flags & ~(O_CREAT | O_TRUNC)) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 || require_regular(fd) < 0 || drop_nonblock(fd) < 0) {
        return -1;
    }
    if ((flags & O_TRUNC) != 0 && ftruncate(fd, 0) != 0) {
        return give_up(fd);
    }
    return fd;
}

int reported(int fd, const char* function, const char* path, qx7_error* error) {
    qx_error_clear(error);
    if (fd < 0) {
        file_error(error, function, path, errno);
    }
    if (trc_on(TRC_FILE)) {
        note_trace("%s '%s' = %d", function, path, fd);
    }
    return fd;
}

}  // namespace

int create_new_file_at(int directory, const char* name, mode_t mode, uid_t uid, gid_t gid,
                       const char** failed_step, int access) {
    set_step(failed_step, step_create);
    if (clear_name(directory, name) != 0) {
        return -1;
    }
    const int fd = openat(directory, name, access | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return -1;
    }
    // The owner first: a change of owner may clear set-id bits of the mode.
    if ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) && fchown(fd, uid, gid) != 0) {
        set_step(failed_step, step_chown);
        return undo_creation(directory, name, fd);
    }
    if (fchmod(fd, mode) != 0) {
        set_step(failed_step, step_chmod);
        return undo_creation(directory, name, fd);
    }
    set_step(failed_step, nullptr);
    return fd;
}

int create_new_file(const char* path, mode_t mode, uid_t uid, gid_t gid, const char** failed_step) {
    return create_new_file_at(AT_FDCWD, path, mode, uid, gid, failed_step);
}

int open_regular_at(int directory, const char* name, int flags) {
    return open_regular_with(directory, name, flags | O_NOFOLLOW);
}

FILE* FileFOpenNoTrace(const char* path, const char* mode) {
    char close_on_exec[16];
    snprintf(close_on_exec, sizeof close_on_exec, "%.8se", mode);
    return fopen(path, close_on_exec);
}

FILE* FileFOpen(const char* path, const char* mode) {
    FILE* stream = FileFOpenNoTrace(path, mode);
    if (trc_on(TRC_FILE)) {
        const int kept = errno;
        note_trace("FileFOpen '%s' %s = %p", path, mode, static_cast<void*>(stream));
        errno = kept;
    }
    return stream;
}

int FileFClose(FILE* stream) {
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    return fclose(stream) == 0 ? 0 : -1;
}

int FileOpen(const char* path, int flags, mode_t mode) {
    return open(path, flags | O_CLOEXEC | O_NOCTTY, mode);
}

int FileOpenRead(const char* path) {
    return open_regular_with(AT_FDCWD, path, O_RDONLY);
}

int FileOpenWrite(const char* path) {
    return open_regular_with(AT_FDCWD, path, O_WRONLY);
}

int FileOpenReadWrite(const char* path) {
    return open_regular_with(AT_FDCWD, path, O_RDWR);
}

int FileOpenAppend(const char* path) {
    return open_regular_with(AT_FDCWD, path, O_WRONLY | O_APPEND);
}

int FileClose(int fd) {
    // The descriptor is gone also after EINTR; closing again would hit somebody else's.
    return close(fd) == 0 || errno == EINTR ? 0 : -1;
}

int FileCreate(const char* path, mode_t mode) {
    return create_new_file(path, mode, static_cast<uid_t>(-1), static_cast<gid_t>(-1), nullptr);
}

bool is_kernel_file(int fd) {
    // Of the magic numbers, not all of which every kernel's headers know.
    static constexpr unsigned long kernels_own[] = {
        PROC_SUPER_MAGIC,   SYSFS_MAGIC,         DEBUGFS_MAGIC, TRACEFS_MAGIC, SECURITYFS_MAGIC,
        CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, BPF_FS_MAGIC,  SELINUX_MAGIC, PSTOREFS_MAGIC,
        EFIVARFS_MAGIC,     BINFMTFS_MAGIC,      NSFS_MAGIC,    0x62656570 /* configfs */};
    struct statfs status;
    if (fstatfs(fd, &status) != 0) {
        return true;
    }
    for (unsigned long magic : kernels_own) {
        if (static_cast<unsigned long>(status.f_type) == magic) {
            return true;
        }
    }
    return false;
}

int FileRemoveAt(int directory, const char* name) {
    struct stat status;
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        errno = EPERM;
        return -1;
    }
    return unlinkat(directory, name, 0);
}

int FileRemove(const char* path) {
    return FileRemoveAt(AT_FDCWD, path);
}

int fdFileOpen(const char* path, int flags, mode_t mode, qx7_error* error) {
    return reported(FileOpen(path, flags, mode), "fdFileOpen()", path, error);
}

int fdFileOpenRead(const char* path, qx7_error* error) {
    return reported(FileOpenRead(path), "fdFileOpenRead()", path, error);
}

int fdFileOpenReadWrite(const char* path, qx7_error* error) {
    return reported(FileOpenReadWrite(path), "fdFileOpenReadWrite()", path, error);
}

int fdFileOpenNewFile(const char* path, qx7_error* error) {
    return reported(FileOpen(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600), "fdFileOpenNewFile()", path,
                    error);
}

int fdFileOpenNewVer(const char* path, qx7_error* error) {
    return reported(FileCreate(path, 0600), "fdFileOpenNewVer()", path, error);
}

int fdFileClose(int fd, qx7_error* error) {
    qx_error_clear(error);
    return FileClose(fd) == 0 ? 0 : file_error(error, "fdFileClose()", "", errno);
}

int fdFileCloseLock(int fd, qx7_error* error) {
    effUser_guard guard;
    return fdFileClose(fd, error);
}

int SetFdCloexec(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    return flags < 0 ? -1 : fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

int SetMaxFileLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return -1;
    }
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, descriptor_limit);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return -1;
    }
    return static_cast<int>(limit.rlim_cur);
}

void AllFdClose(int first, const int* keep, int count) {
    std::vector<int> kept(keep, keep + count);
    std::sort(kept.begin(), kept.end());
    int from = first;
    for (int fd : kept) {
        if (fd < from) {
            continue;
        }
        if (fd > from) {
            close_range(static_cast<unsigned>(from), static_cast<unsigned>(fd - 1), 0);
        }
        from = fd + 1;
    }
    if (close_range(static_cast<unsigned>(from), UINT_MAX, 0) == 0) {
        return;
    }
    // Kernels before 5.9 do not know the call.
    for (int fd = first; fd < descriptor_limit; ++fd) {
        if (!std::binary_search(kept.begin(), kept.end(), fd)) {
            close(fd);
        }
    }
}

int change_mode(const char* path, mode_t mode) {
    return chmod(path, mode);
}

int change_owner(const char* path, uid_t uid, gid_t gid) {
    return chown(path, uid, gid);
}
