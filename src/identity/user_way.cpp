// The walk along a path that finds out who has a say about it, and file work at such places.
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "base/context.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/time.h"
#include "identity/switch_user.h"
#include "identity/user_files.h"

namespace {

constexpr int link_limit = 40;
constexpr int way_flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr size_t link_text_size = PATH_MAX;

uid_t agent_uid() {
    return GlbPcx == nullptr ? geteuid() : GlbPcx->pcx_run_euid;
}

// The state of one walk: where it stands, and what is still to be gone, the next part first.
struct walker {
    file_way* way;
    uid_t root_owner = 0;  // of "/": in a user namespace the host's root shows under another number
    std::string rest;
    int links = 0;

    void note_owner(uid_t owner) {
        if (owner == 0 || owner == root_owner || owner == agent_uid()) {
            return;
        }
        if (way->trusted) {
            way->trusted = false;
            way->single_stranger = true;
            way->stranger = owner;
        } else if (way->stranger != owner) {
            way->single_stranger = false;
        }
    }

    int start_at_root() {
        const int fd = open("/", way_flags | O_DIRECTORY);
        struct stat status;
        if (fd < 0) {
            return -1;
        }
        way->dir.reset(fd);
        if (fstat(fd, &status) != 0) {
            return -1;
        }
        root_owner = status.st_uid;
        return 0;
    }

    // Takes the next part off `rest`; false when only the last part is left, which is then `name`.
    bool next_part(std::string* name) {
        const size_t begin = rest.find_first_not_of('/');
        if (begin == std::string::npos) {
            name->clear();
            return false;
        }
        const size_t end = rest.find('/', begin);
        *name = rest.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
        if (end == std::string::npos) {
            return false;
        }
        rest.erase(0, end);
        return true;
    }

    int follow_link(int fd) {
        if (++links > link_limit) {
            errno = ELOOP;
            return -1;
        }
        char target[link_text_size];
        const ssize_t length = readlinkat(fd, "", target, sizeof target);
        if (length < 0) {
            return -1;
        }
        if (length == 0 || static_cast<size_t>(length) == sizeof target) {
            errno = ENAMETOOLONG;
            return -1;
        }
        rest.insert(0, std::string(target, static_cast<size_t>(length)));
        return target[0] == '/' ? start_at_root() : 0;
    }

    int enter(const std::string& part) {
        qx_descriptor next(openat(way->dir.get(), part.c_str(), way_flags));
        struct stat status;
        if (!next.valid() || fstat(next.get(), &status) != 0) {
            return -1;
        }
        note_owner(status.st_uid);
        if (S_ISLNK(status.st_mode)) {
            return follow_link(next.get());
        }
        if (!S_ISDIR(status.st_mode)) {
            errno = ENOTDIR;
            return -1;
        }
        way->dir = std::move(next);
        return 0;
    }
};

// ---- Folders that were walked to lately

constexpr int64_t folder_kept_ms = 5000;
constexpr size_t folders_kept = 16;

struct kept_folder {
    std::string path;
    qx_descriptor dir;
    struct stat status;
    int64_t walked_ms;
};
std::vector<kept_folder> kept_folders;  // the oldest first; under the effective-user lock

bool is_old(const kept_folder& folder) {
    return alarm_now_ms() - folder.walked_ms >= folder_kept_ms;
}

// A folder that still stands under its path, belonging to whom it did. Nobody but root and the agent had a
// say about the way, and files are made and opened in the folder itself, so whatever happens to the way
// meanwhile leads nobody elsewhere.
int find_kept(const std::string& path) {
    for (auto at = kept_folders.begin(); at != kept_folders.end(); ++at) {
        if (at->path != path) {
            continue;
        }
        struct stat now;
        if (!is_old(*at) && stat(path.c_str(), &now) == 0 && now.st_ino == at->status.st_ino &&
            now.st_dev == at->status.st_dev && now.st_uid == at->status.st_uid) {
            return at->dir.get();
        }
        kept_folders.erase(at);
        break;
    }
    return -1;
}

void keep_folder(const std::string& path, file_way* way) {
    struct stat status;
    // The three standard descriptors may be given to something else at any time.
    if (!way->trusted || way->dir.get() <= STDERR_FILENO || fstat(way->dir.get(), &status) != 0) {
        return;
    }
    if (kept_folders.size() >= folders_kept) {
        kept_folders.erase(kept_folders.begin());
    }
    kept_folders.push_back({path, std::move(way->dir), status, alarm_now_ms()});
}

// A way whose folder is its own or one that is kept.
struct found_way {
    file_way way;
    int dir = -1;
};

int find_way(const char* path, found_way* found) {
    const char* slash = path == nullptr || *path != '/' ? nullptr : strrchr(path, '/');
    const std::string name = slash == nullptr ? "" : slash + 1;
    if (name.empty() || name == "." || name == ".." || strlen(path) >= PATH_MAX) {
        return walk_way(path, &found->way);  // which tells the reason
    }
    const std::string folder(path, slash == path ? 1 : static_cast<size_t>(slash - path));
    found->dir = find_kept(folder);
    if (found->dir >= 0) {
        found->way.trusted = true;
        found->way.name = name;
        return 0;
    }
    if (walk_way(path, &found->way) != 0) {
        return -1;
    }
    found->dir = found->way.dir.get();
    keep_folder(folder, &found->way);
    return 0;
}

int fail(file_result* result, file_step step) {
    result->failed = step;
    result->error_number = errno;
    return -1;
}

int write_all(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            errno = written == 0 ? ENOSPC : errno;
            return -1;
        }
        content.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

struct new_file {
    std::string_view content;
    mode_t mode;
    uid_t uid;
    gid_t gid;
    qx_descriptor* kept;
};

// Content, mode and owner of a file that was just made. The mode comes before the owner, as its failure is
// told first.
int fill_file(int fd, const new_file& wanted, file_result* result) {
    struct stat status;
    if (write_all(fd, wanted.content) != 0) {
        return fail(result, FILE_STEP_WRITE);
    }
    if (fchmod(fd, wanted.mode) != 0) {
        return fail(result, FILE_STEP_CHMOD);
    }
    if (fchown(fd, wanted.uid, wanted.gid) != 0) {
        return fail(result, FILE_STEP_CHOWN);
    }
    if (fstat(fd, &status) != 0) {
        return fail(result, FILE_STEP_CREATE);
    }
    result->device = status.st_dev;
    result->inode = status.st_ino;
    return 0;
}

void make_file_at(int directory, const char* name, const new_file& wanted, file_result* result) {
    const uid_t keep_uid = static_cast<uid_t>(-1);
    const gid_t keep_gid = static_cast<gid_t>(-1);
    const int access = O_WRONLY | O_APPEND;
    qx_descriptor file(create_new_file_at(directory, name, 0600, keep_uid, keep_gid, nullptr, access));
    if (!file.valid()) {
        fail(result, FILE_STEP_CREATE);
        return;
    }
    int failed = fill_file(file.get(), wanted, result);
    if (failed == 0 && wanted.kept != nullptr) {
        *wanted.kept = std::move(file);
    } else if (close(file.release()) != 0 && errno != EINTR && failed == 0) {
        failed = fail(result, FILE_STEP_CLOSE);
    }
    if (failed != 0) {
        // Half a file must not stay; when even that fails, the first failure is the one to tell.
        unlinkat(directory, name, 0);
    }
}

// The file in a folder of a stranger must be that stranger's own.
bool is_strangers(const file_way& way, const struct stat& status) {
    return way.trusted || (way.single_stranger && status.st_uid == way.stranger);
}

// Where everybody may make names, a second name of a file may have been put there by somebody who may not
// read it.
bool may_be_planted(const found_way& found, const struct stat& status) {
    struct stat folder;
    return found.way.trusted && status.st_nlink > 1 &&
           (fstat(found.dir, &folder) != 0 || (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0);
}

}  // namespace

int walk_way(const char* path, file_way* way) {
    *way = file_way{};
    if (path == nullptr || *path != '/') {
        errno = EINVAL;
        return -1;
    }
    if (strlen(path) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    way->trusted = true;
    walker walk{way, 0, path, 0};
    if (walk.start_at_root() != 0) {
        return -1;
    }
    std::string part;
    while (walk.next_part(&part)) {
        if (part != "." && walk.enter(part) != 0) {
            return -1;
        }
    }
    if (part.empty() || part == "." || part == "..") {
        errno = EINVAL;
        return -1;
    }
    way->name = part;
    return 0;
}

file_result make_file_for(const char* path, std::string_view content, mode_t mode, const char* user,
                          uid_t uid, gid_t gid, qx_descriptor* kept) {
    file_result result;
    const new_file wanted{content, mode, uid, gid, kept};
    effUser_guard lock;
    found_way found;
    const file_way& way = found.way;
    if (find_way(path, &found) != 0) {
        fail(&result, FILE_STEP_CREATE);
        return result;
    }
    if (way.trusted) {
        make_file_at(found.dir, way.name.c_str(), wanted, &result);
        return result;
    }
    if (!way.single_stranger || way.stranger != uid) {
        errno = EPERM;
        fail(&result, FILE_STEP_CREATE);
        return result;
    }
    // With the user's own rights nobody gains by leading the path elsewhere.
    qx7_error error;
    effective_user as(user, &error);
    if (!as.ok()) {
        errno = error.qx_errno;
        fail(&result, FILE_STEP_CREATE);
        return result;
    }
    make_file_at(AT_FDCWD, path, wanted, &result);
    if (as.finish(0, &error) != 0 && result.failed == FILE_STEP_NONE) {
        errno = error.qx_errno;
        fail(&result, FILE_STEP_CREATE);
    }
    return result;
}

int open_read_on_order(const char* path) {
    effUser_guard lock;
    found_way found;
    if (find_way(path, &found) != 0) {
        return -1;
    }
    qx_descriptor file(open_regular_at(found.dir, found.way.name.c_str(), O_RDONLY));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        return -1;
    }
    if (!is_strangers(found.way, status) || may_be_planted(found, status) || is_kernel_file(file.get())) {
        errno = EACCES;
        return -1;
    }
    return file.release();
}

int remove_on_order(const char* path) {
    effUser_guard lock;
    found_way found;
    const file_way& way = found.way;
    if (find_way(path, &found) != 0) {
        return -1;
    }
    struct stat status;
    if (!way.trusted) {
        if (fstatat(found.dir, way.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return -1;
        }
        if (!is_strangers(way, status)) {
            errno = EACCES;
            return -1;
        }
    }
    return FileRemoveAt(found.dir, way.name.c_str());
}

void close_old_folders() {
    effUser_guard lock;
    std::erase_if(kept_folders, is_old);
}
