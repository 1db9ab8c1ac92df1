// What is written into the receiver's file, and how it ends.
#include "transfer/legacy/destination.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/code_tables.h"
#include "base/error_text.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "transfer/ftx/files.h"
#include "transfer/legacy/destination_work.h"

namespace {

constexpr size_t flush_size = 65536;
constexpr int64_t block_time_max_ms = 20000;  // the agent does nothing else while it unpacks a block

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
    if (target_open_folder(area.get()) != 0) {
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
