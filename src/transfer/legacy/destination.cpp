#include "transfer/legacy/destination.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "base/time.h"
#include "identity/switch_user.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "transfer/ftx/files.h"
#include "transfer/ftx/module.h"

namespace {

constexpr size_t flush_size = 65536;
constexpr int64_t block_time_max_ms = 20000;  // the agent does nothing else while it unpacks a block
constexpr mode_t permission_bits = 0777;
constexpr char usual_template[] = "T&runtxt.tmp";
constexpr char test_sink[] = "qx7_testdata_receive";

// Work as the user of the order, whose result is 0 or a descriptor, or -1 with errno.
template <class Work>
int as_owner(const FT_AREA* area, Work work) {
    qx7_error error;
    effective_user as(area->user(), &error);
    if (!as.ok()) {
        errno = error.qx_errno;
        return -1;
    }
    const int result = as.finish(work(), &error);
    if (result < 0 && error.qx_errno != 0) {
        errno = error.qx_errno;
    }
    return result;
}

// Where a stranger owns a part of the way, root's rights would work wherever he leads them.
bool may_write_there(const FT_AREA* area, const file_way& way) {
    return !area->Userid.empty() || geteuid() != 0 || way.trusted;
}

int open_folder(FT_AREA* area) {
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

std::string working_path(const FT_AREA* area) {
    return std::string(path_folder_name(area->file)) + "/" + area->target.working_name;
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

// ---- Writing

void write_error(FT_AREA* area, int error_number, ErrMsg* error) {
    const std::string text = area->file + ": " + error_text(error_number) + "|";
    ft_fail(area, number_legacy_write_failed, text);
    if (error != nullptr) {
        error->code = number_legacy_write_failed;
        copy_text(error->text, area->ft_Insert);
    }
}

int write_waiting(FT_AREA* area, ErrMsg* error) {
    ft_target& target = area->target;
    if (target.waiting.empty()) {
        return 0;
    }
    if (alarm_now_ms() - area->block_started_ms > block_time_max_ms) {
        write_error(area, ETIME, error);
        return -1;
    }
    if (WriteFdWrite(target.file.get(), target.waiting.data(), target.waiting.size()) != 0) {
        write_error(area, errno, error);
        return -1;
    }
    target.position += static_cast<int64_t>(target.waiting.size());
    target.waiting.clear();
    return 0;
}

void put_line_end(FT_AREA* area) {
    if (area->separate == FT_LINE_CRLF) {
        area->target.waiting += "\r\n";
    } else if (area->separate != FT_LINE_NONE) {
        area->target.waiting += '\n';
    }
}

bool same_file(int folder, const char* name, const struct stat& opened) {
    struct stat now;
    return fstatat(folder, name, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_ino == opened.st_ino &&
           now.st_dev == opened.st_dev;
}

bool is_pending(const ft_pending_rename& each, std::string_view peer_name, std::string_view path,
                std::string_view temp_name) {
    return each.peer_name == peer_name && each.path == path && each.temp_name == temp_name;
}

void forget_pending(const FT_AREA* area) {
    ft_pending_renames().remove_if([area](const ft_pending_rename& each) {
        return is_pending(each, area->peer_name, area->file, area->target.working_name);
    });
}

void note_pending(const FT_AREA* area) {
    auto& pending = ft_pending_renames();
    forget_pending(area);
    if (pending.size() >= ft_pending_max) {
        pending.pop_front();
    }
    const ft_target& target = area->target;
    pending.push_back({area->peer_name, area->Userid, area->file, target.working_name, area->overwrite,
                       target.opened.st_dev, target.opened.st_ino});
}

}  // namespace

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
    return open_folder(area);
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

int WriteAfterDeCompress(void* handle, const char* bytes, int length, int, ErrMsg* error) {
    FT_AREA* area = static_cast<FT_AREA*>(handle);
    std::string& waiting = area->target.waiting;
    if (area->text() && area->recCount > 0) {
        put_line_end(area);
    }
    const size_t before = waiting.size();
    waiting.append(bytes, static_cast<size_t>(length));
    area->transferedBytes += length;
    if (area->text()) {
        AreaConv(waiting.data() + before, static_cast<size_t>(length), area->code_table.data());
        area->transferedBytes += 2;
        ++area->recCount;
    }
    return waiting.size() < flush_size ? 0 : write_waiting(area, error);
}

void target_last_end(FT_AREA* area) {
    if (area->text() && area->recCount > 0) {
        put_line_end(area);
    }
}

int target_flush(FT_AREA* area) {
    return write_waiting(area, nullptr);
}

int target_close(FT_AREA* area) {
    ft_target& target = area->target;
    if (target_flush(area) != 0) {
        return -1;
    }
    if (area->erase == FT_ERASE && !target.discard && fsync(target.file.get()) != 0) {
        return ft_call_failed(area, "fsync", working_path(area), errno);
    }
    if (fstat(target.file.get(), &target.opened) != 0 || close(target.file.release()) != 0) {
        return ft_call_failed(area, "FileFClose()", working_path(area), errno);
    }
    area->fileSize = target.opened.st_size;
    const bool there =
        target.discard ||
        as_owner(area, [&] {
            errno = ENOENT;
            return same_file(target.folder.get(), target.working_name.c_str(), target.opened) ? 0 : -1;
        }) == 0;
    return there ? 0 : ft_call_failed(area, "fileExists", working_path(area), ENOENT);
}

int target_rename(FT_AREA* area) {
    ft_target& target = area->target;
    const int folder = target.folder.get();
    if (target.temporary()) {
        const int result = as_owner(area, [&] {
            errno = EPERM;
            return ft_config().rename_file
                       ? FTX_renameFile(folder, target.working_name.c_str(), target.name.c_str(),
                                        area->overwrite == FT_REPLACE)
                       : -1;
        });
        if (result != 0) {
            const std::string reason = error_text(errno);
            area->status = FT_END_FAILED;
            note_pending(area);
            return ft_fail(area, number_legacy_rename_failed,
                           working_path(area) + "|" + area->file + "|" + reason + "|");
        }
        forget_pending(area);
    }
    if (area->erase == FT_ERASE && !target.discard &&
        as_owner(area, [&] { return ftx_sync_folder(folder); }) != 0) {
        return ft_call_failed(area, "fsync", path_folder_name(area->file), errno);
    }
    return 0;
}

void target_give_up(FT_AREA* area) {
    ft_target& target = area->target;
    target.waiting.clear();
    if (!target.file.valid()) {
        return;
    }
    target.file.reset();
    if (target.temporary() && area->flagResume == FT_NO_RESUME) {
        as_owner(area, [&] {
            const int folder = target.folder.get();
            const char* name = target.working_name.c_str();
            // It stays when it cannot be removed: then a repeat says so.
            return same_file(folder, name, target.opened) ? FileRemoveAt(folder, name) : 0;
        });
    }
}

std::unique_ptr<FT_AREA> Ft_ContEnd(EX_PCX* pcx, int transfer_id, std::string_view peer_name,
                                    const DATA_FT_STP& stp) {
    auto& pending = ft_pending_renames();
    const std::string path = (stp.folder == "/" ? "" : stp.folder) + "/" + stp.file_name;
    const auto found = std::find_if(pending.begin(), pending.end(), [&](const ft_pending_rename& each) {
        return is_pending(each, peer_name, path, stp.temp_name);
    });
    if (found == pending.end()) {
        return nullptr;
    }
    auto area = std::make_unique<FT_AREA>();
    area->pcx = pcx;
    area->transfer_id = transfer_id;
    area->destination = true;
    area->peer_name = peer_name;
    area->Userid = found->Userid;
    area->file = found->path;
    area->overwrite = found->overwrite;
    area->flagResume = FT_DO_RESUME;
    area->fileSize = stp.file_size;
    area->transferedBytes = stp.transferred;
    area->recCount = stp.records;
    area->anzahl_compr = stp.compressed;
    if (open_folder(area.get()) != 0) {
        return area;
    }
    area->target.working_name = found->temp_name;
    area->target.opened.st_dev = found->device;
    area->target.opened.st_ino = found->inode;
    const bool same =
        as_owner(area.get(), [&] {
            return same_file(area->target.folder.get(), found->temp_name.c_str(), area->target.opened) ? 0
                                                                                                       : -1;
        }) == 0;
    if (!same) {
        ft_call_failed(area.get(), "fileExists", working_path(area.get()), ENOENT);
    }
    return area;
}
