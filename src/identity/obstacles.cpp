#include "identity/obstacles.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "base/locks.h"
#include "base/log.h"
#include "base/text.h"
#include "identity/accounts.h"

namespace {

const char* kind_of(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return "directory";
        case S_IFIFO:
            return "pipe";
        case S_IFSOCK:
            return "socket";
        default:
            return "device";
    }
}

void log_moved(const struct stat& obstacle, const char* made, const char* path) {
    my_passwd_unlimited owner;
    const bool known = GetPwdIdEntry(obstacle.st_uid, &owner, nullptr);
    __PutLogText("'%.500s' was taken: a %s of user '%s' (%u) stood there, and is called '%s' in that folder now.",
                 printable(path).c_str(), kind_of(obstacle.st_mode), known ? owner.pw_name : "?",
                 static_cast<unsigned>(obstacle.st_uid), made);
}

// An order may name what the system or another user needs: only what a stranger put where everybody may.
bool may_be_moved(int directory, const struct stat& obstacle) {
    struct stat folder;
    return obstacle.st_uid != 0 && obstacle.st_uid != geteuid() && fstat(directory, &folder) == 0 &&
           (folder.st_uid == 0 || folder.st_uid == geteuid()) && (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// `made` has the name now, and the obstacle has the name that `made` had.
void put_aside(int directory, const struct stat& obstacle, const char* made, const char* path) {
    if (!S_ISREG(obstacle.st_mode) && !S_ISLNK(obstacle.st_mode)) {
        log_moved(obstacle, made, path);
    } else if (unlinkat(directory, made, 0) != 0) {
        __PutLogText("'%.500s': the file that was there is called '%s' now and cannot be removed: %s",
                     printable(path).c_str(), made, error_text(errno).c_str());
    }
}

}  // namespace

std::string hidden_name() {
    uint64_t number = 0;
    // The kernel always has eight bytes; without them the name is as unknown as this address.
    if (getrandom(&number, sizeof number, 0) != sizeof number) {
        number ^= reinterpret_cast<uintptr_t>(&number);
    }
    char name[32];
    snprintf(name, sizeof name, ".qx-%016llx", static_cast<unsigned long long>(number));
    return name;
}

int take_place(int directory, const char* made, const char* name, const char* path) {
    constexpr int attempts = 8;  // somebody may take away and put back what is in the way
    effUser_guard lock;
    for (int i = 0; i < attempts; ++i) {
        if (renameat2(directory, made, directory, name, RENAME_NOREPLACE) == 0) {
            return 0;
        }
        struct stat obstacle;
        if (errno != EEXIST || fstatat(directory, name, &obstacle, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) {
                continue;
            }
            return -1;
        }
        if (!may_be_moved(directory, obstacle)) {
            errno = EEXIST;
            return -1;
        }
        if (renameat2(directory, made, directory, name, RENAME_EXCHANGE) == 0) {
            // Looked at again: it may have been another one by then.
            if (fstatat(directory, made, &obstacle, AT_SYMLINK_NOFOLLOW) == 0) {
                put_aside(directory, obstacle, made, path);
            }
            return 0;
        }
        if (errno != ENOENT) {
            return -1;
        }
    }
    errno = EAGAIN;
    return -1;
}
