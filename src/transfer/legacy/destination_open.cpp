// Where the receiver's file comes from: its folder, what stands under the name, a new file or that of an
// earlier run.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "transfer/ftx/files.h"
#include "transfer/ftx/module.h"
#include "transfer/legacy/destination.h"
#include "transfer/legacy/destination_work.h"

namespace {

constexpr mode_t permission_bits = 0777;
constexpr char usual_template[] = "T&runtxt.tmp";
constexpr char test_sink[] = "qx7_testdata_receive";

// Where a stranger owns a part of the way, root's rights would work wherever he leads them.
bool may_write_there(const FT_AREA* area, const file_way& way) {
    return !area->Userid.empty() || geteuid() != 0 || way.trusted;
}

// ---- Opening

std::string replaced(std::string text, std::string_view word, std::string_view value) {
    for (size_t at = 0; (at = lower(text).find(word, at)) != std::string::npos; at += value.size()) {
        text.replace(at, word.size(), value);
    }
    return text;
}

int open_temporary(FT_AREA* area) {
    const std::string name = Ft_CreateTempFile(area);
    if (name.empty()) {
        return -1;
    }
    area->target.working_name = name;
    const int fd =
        as_owner(area, [&] { return FTX_openFileWrite(area->target.folder.get(), name.c_str(), true); });
    if (fd < 0) {
        const int error_number = errno;
        const std::string path = working_path(area);
        area->target.working_name = area->target.name;
        return error_number == EEXIST ? ft_fail(area, number_legacy_temp_exists, path + "|")
                                      : ft_call_failed(area, "FileFOpen()", path, error_number);
    }
    area->target.file.reset(fd);
    return 0;
}

int open_named(FT_AREA* area) {
    const ft_target& target = area->target;
    const int folder = target.folder.get();
    const char* name = target.name.c_str();
    const int fd = as_owner(area, [&] {
        if (area->overwrite == FT_APPEND && target.existed) {
            // A second name of a file may be a trap for who has more rights than its maker.
            errno = EACCES;
            return area->Userid.empty() && target.before.st_nlink > 1
                       ? -1
                       : FTX_openFileAppend(folder, name, false);
        }
        if (area->overwrite == FT_REPLACE && target.existed && FileRemoveAt(folder, name) != 0) {
            return -1;
        }
        return FTX_openFileWrite(folder, name, true);
    });
    if (fd < 0) {
        return ft_call_failed(area, "FileFOpen()", area->file, errno);
    }
    area->target.file.reset(fd);
    return 0;
}

bool replaces_file(const ft_target& target) {
    return target.existed && S_ISREG(target.before.st_mode);
}

// Owner and mode of a file that was just made, by its descriptor: its name may mean another one by now.
void set_owner(FT_AREA* area) {
    const ft_target& target = area->target;
    const auto owner_of = [&](char rule, uint32_t parent, uint32_t user, uint32_t before) -> uint32_t {
        if (rule == FT_OWNER_PARENT) {
            return parent;
        }
        if (!area->Userid.empty()) {
            return rule == FT_OWNER_USER ? user : static_cast<uint32_t>(-1);
        }
        return replaces_file(target) ? before : static_cast<uint32_t>(-1);
    };
    const uid_t uid =
        owner_of(area->Ft_Owner_uid, target.place.st_uid, area->ft_pw_uid, target.before.st_uid);
    const gid_t gid =
        owner_of(area->Ft_Owner_gid, target.place.st_gid, area->ft_pw_gid, target.before.st_gid);
    const int fd = target.file.get();
    if ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) && fchown(fd, uid, gid) != 0) {
        __log(number_file_call, "chown|%s|%i/%i|%s|", printable(area->file).c_str(), static_cast<int>(uid),
              static_cast<int>(gid), error_text(errno).c_str());
    }
    const mode_t mode = target.before.st_mode & permission_bits;
    if (replaces_file(target) && fchmod(fd, mode) != 0) {
        __log(number_file_call, "chmod|%s|%u|%s|", printable(area->file).c_str(), mode,
              error_text(errno).c_str());
    }
}

int open_anew(FT_AREA* area, bool repeat) {
    ft_target& target = area->target;
    const bool kept =
        target.existed && (area->overwrite == FT_KEEP || (area->overwrite == FT_APPEND && repeat));
    if (kept) {
        return ft_call_failed(area, "FT_Recv()", area->file, EEXIST);
    }
    const bool temporary = !target.existed && ftx_glb().fgx_Temp_File == '1';
    if ((temporary ? open_temporary(area) : open_named(area)) != 0) {
        return -1;
    }
    const bool appended = area->overwrite == FT_APPEND && target.existed;
    if (!appended) {
        set_owner(area);
    }
    target.position = appended ? target.before.st_size : 0;
    return 0;
}

// ---- An earlier run

bool is_of_this_order(const FT_AREA* area) {
    const DATA_FT_STP& stp = area->restart;
    return !stp.file_name.empty() && stp.file_name == area->target.name &&
           stp.folder == path_folder_name(area->file);
}

// The file that an earlier run wrote: the user's own, or, with an owner of its own, the folder's.
int open_earlier(FT_AREA* area, const std::string& name) {
    const ft_target& target = area->target;
    const bool temporary = name != target.name;
    return as_owner(area, [&] {
        qx_descriptor file(FTX_openFileReadWrite(target.folder.get(), name.c_str()));
        struct stat status;
        if (!file.valid() || fstat(file.get(), &status) != 0) {
            return -1;
        }
        const bool given_away = area->Ft_Owner_uid == FT_OWNER_PARENT && status.st_nlink == 1 &&
                                status.st_uid == target.place.st_uid;
        const bool own = ftx_is_own_file(file.get()) || given_away;
        if ((temporary || area->Userid.empty()) && !own) {
            errno = EACCES;
            return -1;
        }
        return file.release();
    });
}

// 0, or the number that tells why it cannot go on.
int Ft_ContRecv(FT_AREA* area) {
    ft_target& target = area->target;
    const DATA_FT_STP& stp = area->restart;
    if (!is_of_this_order(area)) {
        return number_legacy_restart_impossible;
    }
    const std::string name = stp.temp_name.empty() ? target.name : stp.temp_name;
    qx_descriptor file(open_earlier(area, name));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        return number_legacy_restart_impossible;
    }
    if (status.st_size < stp.seek || ftruncate(file.get(), stp.seek) != 0 ||
        lseek(file.get(), stp.seek, SEEK_SET) != stp.seek) {
        return number_legacy_restart_refused;
    }
    target.file = std::move(file);
    target.working_name = name;
    target.position = stp.seek;
    area->transferedBytes = stp.transferred;
    area->recCount = stp.records;
    area->anzahl_compr = stp.compressed;
    return 0;
}

// What an earlier run of this order left under its temporary name stands in the way of a new one.
void drop_earlier(FT_AREA* area) {
    const std::string& name = area->restart.temp_name;
    if (!is_of_this_order(area) || name.empty() || name == area->target.name) {
        return;
    }
    const qx_descriptor file(open_earlier(area, name));
    if (file.valid()) {
        // When it stays, making the new one tells why.
        as_owner(area, [&] { return FileRemoveAt(area->target.folder.get(), name.c_str()); });
    }
}

}  // namespace

int target_open_folder(FT_AREA* area) {
    file_way way;
    const int result = as_owner(area, [&] {
        if (walk_way(area->file.c_str(), &way) != 0) {
            return -1;
        }
        if (!may_write_there(area, way)) {
            errno = EACCES;
            return -1;
        }
        return fstat(way.dir.get(), &area->target.place);
    });
    if (result != 0) {
        return ft_call_failed(area, "stat", path_folder_name(area->file), errno);
    }
    area->target.folder = std::move(way.dir);
    area->target.name = area->target.working_name = way.name;
    return 0;
}

std::string Ft_CreateTempFile(FT_AREA* area) {
    char run_text[8];
    Zudnst_LongToB26(static_cast<uint32_t>(area->transfer_id), run_text);
    char client[8];
    snprintf(client, sizeof client, "%04i", area->head.i2Mandant);
    const std::string& ordered = ftx_glb().fgx_TmpTemplate;
    std::string name = ordered.empty() ? usual_template : ordered;
    name = replaced(name, "&user", area->Userid.empty() ? area->pcx->pcx_runUserName : area->Userid);
    name = replaced(name, "&client", client);
    name = replaced(name, "&runnr", std::to_string(area->transfer_id));
    name = replaced(name, "&runtxt", run_text);
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        ft_call_failed(area, "Ft_CreateTempFile()", name, EINVAL);
        return {};
    }
    return name;
}

int target_find(FT_AREA* area) {
    const std::string& ordered = area->orig_file;
    area->file = ordered.starts_with('/') ? ordered : area->home + "/" + ordered;
    const std::string_view name = path_file_name(area->file);
    if (name.empty() || name == "." || name == "..") {
        return ft_fail(area, number_legacy_no_file_name, area->file + "|");
    }
    if (ftx_glb().fgx_Performance_Test && name.starts_with(test_sink)) {
        area->type = FT_BINARY;
        area->flagResume = FT_NO_RESUME;
        area->target.discard = true;
    }
    return target_open_folder(area);
}

int FT_WriteFF(FT_AREA* area) {
    ft_target& target = area->target;
    const int result = as_owner(area, [&] {
        if (fstatat(target.folder.get(), target.name.c_str(), &target.before, AT_SYMLINK_NOFOLLOW) != 0) {
            target.before = {};
            return errno == ENOENT ? 0 : -1;
        }
        target.existed = true;
        errno = S_ISDIR(target.before.st_mode) ? EISDIR : EINVAL;
        return S_ISREG(target.before.st_mode) || S_ISLNK(target.before.st_mode) ? 0 : -1;
    });
    return result == 0 ? 0 : ft_call_failed(area, "FT_WiteFF()", area->file, errno);
}

int FT_RecvOpen(FT_AREA* area) {
    ft_target& target = area->target;
    if (target.discard) {
        target.file.reset(open("/dev/null", O_WRONLY | O_CLOEXEC));
        return target.file.valid() ? 0 : ft_call_failed(area, "FileFOpen()", "/dev/null", errno);
    }
    const bool resume = area->flagResume == FT_DO_RESUME;
    const int refused = resume ? Ft_ContRecv(area) : 0;
    if (!resume || refused != 0) {
        drop_earlier(area);
        if (open_anew(area, resume || is_of_this_order(area)) != 0) {
            return -1;
        }
    }
    if (fstat(target.file.get(), &target.opened) != 0) {
        return ft_call_failed(area, "stat", working_path(area), errno);
    }
    return refused;
}
