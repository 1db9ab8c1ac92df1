#include "agent/instance_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/descriptor.h"

namespace {

constexpr char suffix[] = ".lock";

struct flock whole_file() {
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return range;
}

// 0 when it is free, or when the holder is of another container.
pid_t holder_of(int fd) {
    struct flock range = whole_file();
    return fcntl(fd, F_GETLK, &range) == 0 && range.l_type != F_UNLCK && range.l_pid > 0 ? range.l_pid : 0;
}

}  // namespace

instance_lock_result instance_lock(const char* ini, pid_t* holder) {
    *holder = 0;
    const std::string name = std::string(ini) + suffix;
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // Kept open until the process ends: closing it would give the lock up.
    const int fd = open(name.c_str(), flags, 0600);
    if (fd < 0) {
        return instance_lock_failed;
    }
    struct flock range = whole_file();
    if (fcntl(fd, F_SETLK, &range) == 0) {
        return instance_lock_taken;
    }
    const int number = errno;
    if (number != EACCES && number != EAGAIN) {
        close(fd);
        errno = number;
        return instance_lock_failed;
    }
    *holder = holder_of(fd);
    close(fd);
    return instance_lock_foreign;
}

pid_t instance_lock_holder(const char* ini) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const qx_descriptor file(open((std::string(ini) + suffix).c_str(), flags));
    return file.valid() ? holder_of(file.get()) : -1;
}
