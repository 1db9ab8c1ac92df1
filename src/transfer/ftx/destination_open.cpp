// A file of the receiver begins: where it is written, and from which position.
//
// What is written has a temporary name beside the destination unless something stands in the way; the final
// name comes with the file_close (destination_close.cpp).
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "messages/view.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/destination_write.h"
#include "transfer/ftx/files.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/restart.h"

namespace {

constexpr int link_limit = 40;
constexpr char no_overwrite = 'N';
constexpr int64_t size_unknown = ftx_digest_from + 1;

int open_failed(const ftx_entry* ftx, const ftx_elem* elem, int error_number, qx7_error* err) {
    return qx_error_set(err, -1, error_number, number_transfer_open_failed, "%d|%s|errno %d, %s",
                        ftx->ftx_transfer_id, printable(elem->destination_name).c_str(), error_number,
                        error_text(error_number).c_str());
}

int exists_already(const ftx_elem* elem, qx7_error* err) {
    return qx_error_set(err, -1, EEXIST, number_destination_exists, "%s|",
                        printable(elem->destination_name).c_str());
}

// A new run of an earlier transfer, whose files may be there.
bool is_repeat(const ftx_entry* ftx) {
    return ftx->ftx_ah_idnr2 != 0;
}

bool appends(const ftx_entry* ftx) {
    return !is_repeat(ftx) && ftx->ftx_overwrite == ftx_append;
}

// ---- Where

// The name in its folder, which is open then; what has that name already is in `status`.
struct target {
    std::string name;
    struct stat status = {};
    bool exists = false;
};

// The path that a link in the open folder leads to; empty when it leads nowhere or is not to be trusted. The
// link is held while it is looked at, so that no other one takes its place.
std::string link_target(const ftx_entry* ftx, const std::string& name) {
    const int folder = ftx->folder.get();
    const qx_descriptor link(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!link.valid() || fstat(link.get(), &status) != 0 || !ftx_link_is_trusted(status, folder)) {
        return {};
    }
    char text[PATH_MAX];
    const ssize_t length = readlinkat(link.get(), "", text, sizeof text);
    if (length <= 0 || static_cast<size_t>(length) == sizeof text ||
        fstatat(folder, name.c_str(), &status, 0) != 0) {
        return {};
    }
    const std::string to(text, static_cast<size_t>(length));
    return to.front() == '/' ? to : ftx->folder_path + "/" + to;
}

bool set_name(const std::string& path, target* found) {
    found->name = path.substr(path.rfind('/') + 1);
    return !found->name.empty() && found->name != "." && found->name != "..";
}

// Goes to the folder of the destination, which is made when it is missing, and on through links that may be
// trusted. 0 or -1 with errno.
int find_target(ftx_entry* ftx, const ftx_elem* elem, target* found) {
    std::string path = ftx_absolute(ftx, elem->destination_name);
    const size_t home = path.size() - elem->destination_name.size();
    ftx_place place = ftx_place_of(path, home + dst_fixed_length(ftx, elem->destination_name));
    place.make = true;
    place.links_below = true;
    for (int links = 0;; ++links) {
        if (!set_name(path, found)) {
            errno = EISDIR;
            return -1;
        }
        if (links > link_limit || ftx_enter_folder(ftx, place) != 0) {
            errno = links > link_limit ? ELOOP : errno;
            return -1;
        }
        found->exists =
            fstatat(ftx->folder.get(), found->name.c_str(), &found->status, AT_SYMLINK_NOFOLLOW) == 0;
        if (!found->exists) {
            return errno == ENOENT ? 0 : -1;
        }
        const std::string to = S_ISLNK(found->status.st_mode) ? link_target(ftx, found->name) : std::string();
        if (to.empty()) {
            return 0;
        }
        path = to;
        place = ftx_place_of(path, path.rfind('/') + 1);
    }
}

// ---- Under which name

void use_temp(ftx_entry* ftx, ftx_elem* elem, bool use) {
    elem->dst_Temp_File = use ? 1 : 0;
    ftx->working_name = use ? create_TempPath(ftx, elem) : ftx->final_name;
}

// Only a regular file or a link makes room for the new one.
bool clear_old(const ftx_entry* ftx, const target& found) {
    return (S_ISREG(found.status.st_mode) || S_ISLNK(found.status.st_mode)) &&
           unlinkat(ftx->folder.get(), found.name.c_str(), 0) == 0;
}

bool temp_exists(const ftx_entry* ftx) {
    struct stat status;
    return fstatat(ftx->folder.get(), ftx->working_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// Whosever it is, it is not of this run, which writes to the destination itself then.
void leave_foreign_temp(ftx_entry* ftx, ftx_elem* elem) {
    elem->dst_temp_alive = 1;
    use_temp(ftx, elem, false);
}

int name_for_first_run(ftx_entry* ftx, ftx_elem* elem, const target& found, bool goes_on, qx7_error* err) {
    if (found.exists && ftx->ftx_overwrite == no_overwrite) {
        return exists_already(elem, err);
    }
    if (found.exists && ftx->ftx_overwrite == ftx_yes && clear_old(ftx, found)) {
        elem->dst_file_alive = 0;
    }
    use_temp(ftx, elem, GetFtTempFile() == '1' && elem->dst_file_alive == 0);
    if (elem->dst_Temp_File == 1 && goes_on && temp_exists(ftx)) {
        leave_foreign_temp(ftx, elem);
    }
    ftx->may_replace = ftx->ftx_overwrite == ftx_yes;
    return 0;
}

// What the earlier run has begun wins, then what it may have completed.
int name_for_repeat(ftx_entry* ftx, ftx_elem* elem, bool goes_on, qx7_error* err) {
    const bool temp_wanted = GetFtTempFile() == '1';
    use_temp(ftx, elem, temp_wanted);
    elem->dst_temp_alive = temp_wanted && temp_exists(ftx) ? 1 : 0;
    ftx->may_replace = dst_ordered_overwrite(ftx) == ftx_yes;
    if (elem->dst_temp_alive == 1 || elem->dst_file_alive == 0) {
        return 0;
    }
    if (!goes_on && dst_ordered_overwrite(ftx) == ftx_append) {
        return exists_already(elem, err);
    }
    ftx->may_replace = true;
    use_temp(ftx, elem, temp_wanted && !goes_on);
    return 0;
}

// ---- From where

// What the file_open tells of an earlier run.
struct restart_item {
    bool given = false;
    bool usable = false;  // of the right length
    __ftx_restart_info record = {};
};

restart_item read_restart(std::string_view item) {
    restart_item restart;
    char bytes[ftx_restart_item_max];
    size_t length = sizeof bytes;
    const char* address;
    size_t ignored;
    restart.given = cbsGetAddrLen(item, "RST", &address, &ignored) == 0;
    restart.usable = cbsGetByteStream(item, "RST", bytes, &length) == 0 && length == sizeof restart.record;
    if (restart.usable) {
        memcpy(&restart.record, bytes, sizeof restart.record);
    }
    return restart;
}

// The sender shall send the file from its beginning; what still comes of it is dropped.
int ask_anew(ftx_entry* ftx, ftx_elem* elem) {
    ftx->file.reset();
    update_FtxStatus(ftx, elem, FTXE_AGAIN);
    return 0;
}

bool has_prefix(ftx_entry* ftx, ftx_elem* elem, const __ftx_restart_info& record) {
    struct stat status;
    qx7_error ignored;
    const bool proven = (elem->ftxe_flag & FTXE_MD5) == 0 || ftx_has_digest(record);
    return proven && fstat(ftx->file.get(), &status) == 0 && status.st_size >= record.rst_filepos &&
           check_fileConsistency(ftx, elem, record, &ignored) == 0;
}

// A file that has its final name already loses it while more is written, or half of it could be taken for the
// whole. What is appended to keeps it, and so does what cannot be renamed.
void take_final_name_back(ftx_entry* ftx, ftx_elem* elem) {
    if (elem->dst_Temp_File == 1 || !is_repeat(ftx) || GetFtTempFile() != '1' ||
        dst_ordered_overwrite(ftx) == ftx_append || !ftx_is_own_file(ftx->file.get())) {
        return;
    }
    const std::string temp = create_TempPath(ftx, elem);
    if (FTX_renameFile(ftx->folder.get(), ftx->final_name.c_str(), temp.c_str(), false) == 0) {
        use_temp(ftx, elem, true);
        ftx->may_replace = dst_ordered_overwrite(ftx) == ftx_yes;
    }
}

int go_on(ftx_entry* ftx, ftx_elem* elem, const restart_item& restart) {
    const int64_t position = restart.record.rst_filepos;
    if (!restart.usable) {
        return ask_anew(ftx, elem);
    }
    ftx->file.reset(FTX_openFileReadWrite(ftx->folder.get(), ftx->working_name.c_str()));
    if (!ftx->file.valid() || (elem->dst_Temp_File == 1 && !ftx_is_own_file(ftx->file.get())) ||
        !has_prefix(ftx, elem, restart.record)) {
        return ask_anew(ftx, elem);
    }
    take_final_name_back(ftx, elem);
    if (ftruncate(ftx->file.get(), position) != 0) {
        return ask_anew(ftx, elem);
    }
    elem->ftxe_transferedBytes = elem->ftxe_fileSize = position;
    return 0;
}

// Appending goes on only where the earlier run stopped, for nothing is ever cut off there.
int go_on_appending(ftx_entry* ftx, ftx_elem* elem, const restart_item& restart) {
    struct stat status;
    ftx->file.reset(FTX_openFileAppend(ftx->folder.get(), ftx->working_name.c_str(), true));
    if (!restart.usable || !ftx->file.valid() || fstat(ftx->file.get(), &status) != 0 ||
        status.st_size != restart.record.rst_filepos || !has_prefix(ftx, elem, restart.record)) {
        return ask_anew(ftx, elem);
    }
    elem->ftxe_transferedBytes = elem->ftxe_fileSize = status.st_size;
    return 0;
}

int open_appending(ftx_entry* ftx, ftx_elem* elem, qx7_error* err) {
    const bool digest = (elem->ftxe_flag & FTXE_MD5) != 0;
    ftx->file.reset(FTX_openFileAppend(ftx->folder.get(), ftx->working_name.c_str(), digest));
    struct stat status;
    if (!ftx->file.valid() || fstat(ftx->file.get(), &status) != 0) {
        return open_failed(ftx, elem, errno, err);
    }
    return digest && ftx_digest_prefix(ftx, elem, status.st_size, err) < 0 ? -1 : 0;
}

int open_descriptor(const ftx_entry* ftx, const ftx_elem* elem) {
    const int folder = ftx->folder.get();
    const char* const name = ftx->working_name.c_str();
    if (elem->dst_Temp_File == 1 && elem->dst_temp_alive == 1) {
        return FTX_openFileReadWrite(folder, name);
    }
    return FTX_openFileWrite(folder, name, elem->dst_Temp_File == 1 || elem->dst_file_alive == 0);
}

int open_anew(ftx_entry* ftx, ftx_elem* elem, qx7_error* err) {
    ftx->file.reset(open_descriptor(ftx, elem));
    if (!ftx->file.valid() && errno == EEXIST && elem->dst_Temp_File == 1 && !is_repeat(ftx)) {
        leave_foreign_temp(ftx, elem);
        ftx->file.reset(open_descriptor(ftx, elem));
    }
    if (!ftx->file.valid() && errno == EEXIST && elem->dst_Temp_File == 0) {
        if (!ftx->may_replace) {
            return exists_already(elem, err);
        }
        ftx->file.reset(FTX_openFileWrite(ftx->folder.get(), ftx->working_name.c_str(), false));
    }
    if (!ftx->file.valid()) {
        return open_failed(ftx, elem, errno, err);
    }
    if (elem->dst_temp_alive == 1 && elem->dst_Temp_File == 1) {
        if (!ftx_is_own_file(ftx->file.get())) {
            return open_failed(ftx, elem, EPERM, err);
        }
        if (ftruncate(ftx->file.get(), 0) != 0) {
            return open_failed(ftx, elem, errno, err);
        }
    }
    return 0;
}

int open_working(ftx_entry* ftx, ftx_elem* elem, const restart_item& restart, qx7_error* err) {
    md5_init(&ftx->md5);
    const bool goes_on = ftx->ftx_restart == ftx_resume && restart.given;
    if (appends(ftx) && elem->dst_file_alive == 1) {
        return goes_on ? go_on_appending(ftx, elem, restart) : open_appending(ftx, elem, err);
    }
    return goes_on ? go_on(ftx, elem, restart) : open_anew(ftx, elem, err);
}

int64_t told_size(std::string_view item) {
    int64_t size = size_unknown;
    cbsGetInt64(item, "SIZ", &size);
    return size;
}

void decide_digest(const ftx_entry* ftx, ftx_elem* elem, int64_t size) {
    const bool wanted = size > ftx_digest_from && ftx_glb().ft_use_md5 && ftx->has(FTX_CAN_CONTINUE);
    elem->ftxe_flag = (elem->ftxe_flag & ~FTXE_MD5) | (wanted ? FTXE_MD5 : 0);
}

int check_room(const ftx_entry* ftx, const ftx_elem* elem, int64_t size, qx7_error* err) {
    if (!ftx_glb().fgx_fsSpaceCheck || size <= 0) {
        return 0;
    }
    const std::string path = ftx_absolute(ftx, elem->destination_name);
    return ftx_check_space(ftx, path.substr(0, path.rfind('/') + 1), elem->destination_name, size, err);
}

int open_in_folder(ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err) {
    target found;
    if (find_target(ftx, elem, &found) != 0) {
        return open_failed(ftx, elem, errno, err);
    }
    const restart_item restart = read_restart(item);
    ftx->final_name = found.name;
    elem->dst_file_alive = found.exists ? 1 : 0;
    elem->dst_temp_alive = 0;
    const bool goes_on = ftx->ftx_restart == ftx_resume && restart.given;
    const int named = is_repeat(ftx) ? name_for_repeat(ftx, elem, goes_on, err)
                                     : name_for_first_run(ftx, elem, found, goes_on, err);
    return named != 0 ? named : open_working(ftx, elem, restart, err);
}

}  // namespace

char dst_ordered_overwrite(const ftx_entry* ftx) {
    const auto order = view_record<MSG_TYPE_FTXRECV>(view_message(ftx->order.data(), ftx->order.size()));
    return order.ftxsndrcv.override;
}

int dst_openFile(ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err) {
    qx_error_clear(err);
    if (dst_file_names(ftx, elem, item, err) != 0) {
        return -1;
    }
    __log(number_file_received, "%d|%s", ftx->ftx_transfer_id, printable(elem->destination_name).c_str());
    const int64_t size = told_size(item);
    decide_digest(ftx, elem, size);
    if (check_room(ftx, elem, size, err) != 0) {
        return -1;
    }
    elem->ftxe_fileSize = elem->ftxe_transferedBytes = 0;
    if (open_in_folder(ftx, elem, item, err) == 0) {
        return 0;
    }
    if (err->qx_errno != ENOENT) {
        return -1;
    }
    // The folder that is kept may have been removed.
    ftx_leave_folder(ftx);
    return open_in_folder(ftx, elem, item, err);
}

int dst_createDir(ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err) {
    qx_error_clear(err);
    if (dst_folder_names(ftx, elem, item, err) != 0) {
        return -1;
    }
    const std::string& name = elem->destination_name;
    __log(number_folder_received, "%d|%s", ftx->ftx_transfer_id, printable(name).c_str());
    const std::string path = ftx_absolute(ftx, name);
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        ftxe_set_message(elem, -1, 0, name);
        update_FtxStatus(ftx, elem, FTXE_COMPLETE);
        return 0;
    }
    ftx_place place = ftx_place_of(path + "/", path.size() - name.size() + dst_fixed_length(ftx, name));
    place.make = true;
    place.links_below = true;
    if (ftx_enter_folder(ftx, place) != 0) {
        const int error_number = errno;
        return qx_error_set(err, -1, error_number, number_folder_not_made, "%s|%d(%s)",
                            printable(name).c_str(), error_number, error_text(error_number).c_str());
    }
    update_FtxStatus(ftx, elem, FTXE_COMPLETE);
    return 0;
}
