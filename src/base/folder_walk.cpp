#include "base/folder_walk.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/text.h"
#include "base/time.h"

namespace {

constexpr int reading = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY;
constexpr int passing = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr unsigned clock_every = 256;  // entries between two looks at the clock

// A folder that is still to be read: its place below the first one, empty or with its '/'.
struct waiting_folder {
    std::string below;
    unsigned depth;
};

struct walker {
    _My_Area* area;
    My_func func;
    std::vector<waiting_folder> waiting;  // the next one last
    std::vector<waiting_folder> found;    // in the folder that is being read
    std::string name;
    unsigned since_clock = 0;
    bool ended_by_func = false;

    bool ended() const { return ended_by_func || area->files_met || area->deadline_met; }

    void tell(const walk_entry& entry, folder_walk_event event) {
        ended_by_func = func(area, name, entry, event) != 0;
    }
    void look_at_clock() {
        if (area->deadline_ms != 0 && ++since_clock >= clock_every) {
            since_clock = 0;
            area->deadline_met = alarm_now_ms() >= area->deadline_ms;
        }
    }
};

// Another one than the folder that was seen may stand there now: then it is passed over.
bool has_gone(int error_number) {
    return error_number == ENOENT || error_number == ENOTDIR || error_number == ELOOP;
}

int open_below(int first, std::string_view below) {
    qx_descriptor at;
    int from = first;
    while (!below.empty()) {
        const size_t slash = below.find('/');
        const std::string part(below.substr(0, slash));
        below.remove_prefix(slash + 1);
        const int next = openat(from, part.c_str(), below.empty() ? reading | O_NOFOLLOW : passing);
        if (next < 0) {
            return -1;
        }
        at.reset(next);
        from = next;
    }
    return at.valid() ? at.release() : openat(first, ".", reading);
}

unsigned char kind_of(unsigned char type) {
    switch (type) {
        case DT_REG:
            return FILE_KIND_REGULAR;
        case DT_DIR:
            return FILE_KIND_DIRECTORY;
        case DT_LNK:
            return FILE_KIND_LINK;
        default:
            return FILE_KIND_NONE;
    }
}

// Kind and status; false when it has gone.
bool look_at(walk_entry* entry, bool follow) {
    if (fstatat(entry->folder, entry->name, &entry->status, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    entry->kind = mapFileTypeResult(entry->status.st_mode);
    struct stat target;
    if (entry->kind == FILE_KIND_LINK && follow && fstatat(entry->folder, entry->name, &target, 0) == 0 &&
        S_ISREG(target.st_mode)) {
        entry->status = target;
        entry->leads_to_file = true;
    }
    return true;
}

void take_folder(walker* walk, const waiting_folder& in, const walk_entry& entry) {
    ++walk->area->folders;
    walk->tell(entry, WALK_ENTRY);
    if (!walk->area->recursion) {
        return;
    }
    if (walk->area->max_depth != 0 && in.depth >= walk->area->max_depth) {
        walk->area->depth_met = true;
        return;
    }
    walk->found.push_back({in.below + entry.name + "/", in.depth + 1});
}

void take_entry(walker* walk, const waiting_folder& in, int folder, const dirent& found) {
    walk_entry entry;
    entry.folder = folder;
    entry.name = found.d_name;
    entry.depth = in.depth;
    entry.matches = MyStrMatch(found.d_name, walk->area->mask) == 1;
    entry.kind = kind_of(found.d_type);
    const bool may_be_folder = entry.kind == FILE_KIND_DIRECTORY || entry.kind == FILE_KIND_NONE;
    if ((!entry.matches && !may_be_folder) || !look_at(&entry, walk->area->follow)) {
        return;
    }
    walk->name.assign(walk->area->path).append(in.below).append(found.d_name);
    if (entry.kind == FILE_KIND_DIRECTORY) {
        take_folder(walk, in, entry);
        return;
    }
    if (!entry.matches) {
        return;
    }
    if (walk->area->max_files != 0 && walk->area->files >= walk->area->max_files) {
        walk->area->files_met = true;
        return;
    }
    ++walk->area->files;
    walk->tell(entry, WALK_ENTRY);
}

// 0, or -1 with errno when the folder cannot be read.
int read_folder(walker* walk, const waiting_folder& in) {
    qx_descriptor folder(open_below(walk->area->folder, in.below));
    if (!folder.valid()) {
        return -1;
    }
    const qx_directory reader(fdopendir(folder.get()));
    if (reader.dir == nullptr) {
        return -1;
    }
    const int fd = folder.release();  // the reader's now
    walk->name.assign(walk->area->path).append(in.below);
    walk_entry entered;
    entered.folder = fd;
    entered.depth = in.depth;
    walk->tell(entered, WALK_FOLDER_ENTERED);
    walk->found.clear();
    int error_number = 0;
    while (!walk->ended()) {
        errno = 0;
        const dirent* const next = readdir(reader.dir);
        if (next == nullptr) {
            error_number = errno;
            break;
        }
        const std::string_view name = next->d_name;
        if (name != "." && name != "..") {
            take_entry(walk, in, fd, *next);
            walk->look_at_clock();
        }
    }
    std::move(walk->found.rbegin(), walk->found.rend(), std::back_inserter(walk->waiting));
    errno = error_number;
    return error_number == 0 ? 0 : -1;
}

void tell_failed_folder(walker* walk, const waiting_folder& in, int error_number) {
    walk_entry entry;
    entry.kind = FILE_KIND_DIRECTORY;
    entry.error_number = error_number;
    entry.depth = in.depth;
    walk->name.assign(walk->area->path).append(in.below.substr(0, in.below.size() - 1));
    walk->tell(entry, WALK_FOLDER_FAILED);
}

}  // namespace

int tq_FileHandler(_My_Area* area, My_func func, qx7_error* error) {
    qx_error_clear(error);
    walker walk{area, func, {{"", 0}}, {}, {}};
    while (!walk.waiting.empty() && !walk.ended()) {
        const waiting_folder next = std::move(walk.waiting.back());
        walk.waiting.pop_back();
        if (read_folder(&walk, next) == 0) {
            continue;
        }
        const int error_number = errno;
        if (next.below.empty()) {
            return file_error(error, "DirOpen()", area->path, error_number);
        }
        if (!has_gone(error_number)) {
            tell_failed_folder(&walk, next, error_number);
        }
    }
    return walk.ended_by_func ? 1 : 0;
}

int single_FileHandler(_My_Area* area, My_func func) {
    walk_entry entry;
    entry.folder = area->folder;
    entry.name = area->mask.c_str();
    entry.matches = true;
    const bool found = look_at(&entry, area->follow);
    entry.error_number = found ? 0 : errno;
    return func(area, area->path, entry, found ? WALK_ENTRY : WALK_MISSING) == 0 ? 0 : 1;
}
