#include "agent/instance_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

constexpr char suffix[] = ".lock";

struct flock whole_file() {
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return range;
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
    range = whole_file();
    if (fcntl(fd, F_GETLK, &range) == 0 && range.l_type != F_UNLCK && range.l_pid > 0) {
        *holder = range.l_pid;
    }
    close(fd);
    return instance_lock_foreign;
}
