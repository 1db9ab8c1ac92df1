#include "transfer/ftx/folders.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>

#include "base/paths.h"
#include "transfer/ftx/entry.h"

namespace {

constexpr int link_limit = 40;
constexpr int passing = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t folder_mode = 0755;

struct walker {
    const ftx_place* place;
    qx_descriptor at;
    std::string rest;  // begins with '/' or is empty
    int links = 0;

    // What is left lies in the part below; what a link leads to stands in front of it and never does.
    bool is_below() const { return rest.size() <= place->below.size() + 1 && !place->below.empty(); }
    // Behind the next part no more is left than the part below.
    bool may_make(std::string_view part) const {
        const size_t behind = rest.size() - 1 - part.size();
        return place->make && behind <= (place->below.empty() ? 0 : place->below.size() + 1);
    }

    int start() {
        at.reset(open("/", passing | O_DIRECTORY));
        return at.valid() ? 0 : -1;
    }

    int follow(int link) {
        char target[PATH_MAX];
        const ssize_t length = readlinkat(link, "", target, sizeof target);
        if (length < 0) {
            return -1;
        }
        if (length == 0 || static_cast<size_t>(length) == sizeof target) {
            errno = ENAMETOOLONG;
            return -1;
        }
        rest.insert(0, "/" + std::string(target, static_cast<size_t>(length)));
        return target[0] == '/' ? start() : 0;
    }

    int pass_link(int link, const struct stat& status, bool below) {
        if (++links > link_limit || (below && !place->links_below)) {
            errno = ELOOP;
            return -1;
        }
        if (!ftx_link_is_trusted(status, at.get())) {
            errno = EACCES;
            return -1;
        }
        return follow(link);
    }

    int open_part(const std::string& part, bool make) {
        int fd = openat(at.get(), part.c_str(), passing);
        if (fd < 0 && errno == ENOENT && make) {
            if (mkdirat(at.get(), part.c_str(), folder_mode) != 0 && errno != EEXIST) {
                return -1;
            }
            fd = openat(at.get(), part.c_str(), passing);
        }
        return fd;
    }

    int step() {
        const size_t begin = rest.find_first_not_of('/');
        if (begin == std::string::npos) {
            rest.clear();
            return 0;
        }
        rest.erase(0, begin - 1);
        const std::string part = rest.substr(1, rest.find('/', 1) - 1);
        const bool below = is_below();
        const bool make = may_make(part);
        rest.erase(0, 1 + part.size());
        qx_descriptor next(open_part(part, make));
        struct stat status;
        if (!next.valid() || fstat(next.get(), &status) != 0) {
            return -1;
        }
        if (S_ISLNK(status.st_mode)) {
            return pass_link(next.get(), status, below);
        }
        if (!S_ISDIR(status.st_mode)) {
            errno = ENOTDIR;
            return -1;
        }
        at = std::move(next);
        return 0;
    }
};

}  // namespace

ftx_place ftx_place_of(std::string_view path, size_t fixed) {
    ftx_place place;
    place.fixed = path_clean(path_folder_name(path.substr(0, fixed)));
    if (place.fixed.empty()) {
        place.fixed = "/";
    }
    place.below = path_clean(path_folder_name(path.substr(fixed)));
    return place;
}

bool ftx_link_is_trusted(const struct stat& link, int folder) {
    struct stat holder;
    return link.st_uid == geteuid() || link.st_uid == 0 ||
           (fstat(folder, &holder) == 0 && link.st_uid == holder.st_uid);
}

std::string ftx_absolute(const ftx_entry* ftx, std::string_view name) {
    if (!name.empty() && name.front() == '/') {
        return std::string(name);
    }
    return ftx->home_dir + "/" + std::string(name);
}

int ftx_enter_folder(ftx_entry* ftx, const ftx_place& place) {
    std::string path = place.path();
    if (ftx->folder.valid() && ftx->folder_path == path) {
        return 0;
    }
    ftx_leave_folder(ftx);
    walker walk{&place, {}, "/" + path, 0};
    if (walk.start() != 0) {
        return -1;
    }
    while (!walk.rest.empty()) {
        if (walk.step() != 0) {
            return -1;
        }
    }
    ftx->folder = std::move(walk.at);
    ftx->folder_path = std::move(path);
    return 0;
}

void ftx_leave_folder(ftx_entry* ftx) {
    ftx->folder.reset();
    ftx->folder_path.clear();
}
