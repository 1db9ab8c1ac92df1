#include "base/obstacles.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/descriptor.h"
#include "base/locks.h"
#include "base/memory.h"
#include "base/notes.h"
#include "base/paths.h"
#include "base/text.h"

namespace {

constexpr size_t longest_line = 2048;

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

// An order may name what the system or another user needs: only what a stranger put where everybody may.
bool may_be_moved(int directory, const struct stat& obstacle) {
    struct stat folder;
    return obstacle.st_uid != 0 && obstacle.st_uid != geteuid() && fstat(directory, &folder) == 0 &&
           (folder.st_uid == 0 || folder.st_uid == geteuid()) && (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// `made` has the name now, and the obstacle has the name that `made` had.
void put_aside(int directory, const struct stat& obstacle, const char* made, const char* path) {
    if (!S_ISREG(obstacle.st_mode) && !S_ISLNK(obstacle.st_mode)) {
        const moved_obstacle moved{path, made, obstacle.st_mode, obstacle.st_uid};
        note_text("%s", obstacle_line(moved, owner_name(moved.owner)).c_str());
    } else if (unlinkat(directory, made, 0) != 0) {
        note_text("'%.500s': the file that was there is called '%s' now and cannot be removed: %s",
                  printable(path).c_str(), made, strerror(errno));
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

moved_obstacle move_aside(const char* path) {
    const std::string folder(path_folder_name(path));
    const std::string name(path_file_name(path));
    const qx_descriptor directory(
        open(folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string made = hidden_name();
    struct stat obstacle;
    if (!directory.valid() || fstatat(directory.get(), name.c_str(), &obstacle, AT_SYMLINK_NOFOLLOW) != 0 ||
        S_ISREG(obstacle.st_mode) || S_ISLNK(obstacle.st_mode) || !may_be_moved(directory.get(), obstacle) ||
        renameat2(directory.get(), name.c_str(), directory.get(), made.c_str(), RENAME_NOREPLACE) != 0) {
        return {};
    }
    return {path, made, obstacle.st_mode, obstacle.st_uid};
}

std::string obstacle_line(const moved_obstacle& moved, const std::string& owner) {
    char line[longest_line];
    snprintf(line, sizeof line,
             "'%.500s' was taken: a %s of user '%s' (%u) stood there, and is called '%s' in that folder now.",
             printable(moved.path).c_str(), kind_of(moved.mode), owner.c_str(),
             static_cast<unsigned>(moved.owner), moved.name.c_str());
    return line;
}

std::string owner_name(uid_t uid) {
    effUser_guard lock;
    std::vector<char> room(65536);
    passwd found{};
    passwd* entry = nullptr;
    const bool known = getpwuid_r(uid, &found, room.data(), room.size(), &entry) == 0 && entry != nullptr;
    const std::string name = known ? found.pw_name : "?";
    qx_wipe(room.data(), room.size());  // the record may hold the hash
    return name;
}
