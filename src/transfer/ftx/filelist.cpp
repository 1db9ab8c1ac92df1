// The list of the files that a transfer sends: found in the file system, or taken from the store of a run that
// goes on.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/error_text.h"
#include "base/file_data.h"
#include "base/folder_walk.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/folders.h"
#include "transfer/ftx/interrupt.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

namespace {

constexpr char area_mark[] = "%MY_AREA_FORFTX%";
constexpr size_t base_folder_max = 511;
constexpr size_t link_target_max = 253;
constexpr int with_folders = 1;  // of the area's flag
constexpr char no_subfolders = 'N';

// What the walk works for.
struct list_context {
    ftx_entry* ftx;
    int folders = 0;
    qx7_error error;  // of a store that cannot be written, which ends the walk
};

void clear_list(ftx_entry* ftx) {
    ftxe_remove_all(ftx);
    ftx->ftx_size_total = 0;
    ftx->ftx_files_total = 0;
    ftx->ftx_nof_active = ftx->ftx_nof_sent = ftx->ftx_nof_completed = ftx->ftx_nof_error = 0;
}

ftx_elem* add_element(ftx_entry* ftx, const std::string& name, int kind, int64_t size) {
    ftx_elem* const elem = ftxe_addnew(ftx, static_cast<int>(ftx->elements.size()));
    // One that is too long cannot be opened, now or in a later run; its beginning says so as well.
    elem->source_name = name.substr(0, ftx_name_max + 1);
    elem->ftxe_fileSize = size;
    elem->ftxe_flag |= kind;
    elem->dst_Temp_File = ftx->ftx_Temp_File == '1' ? 1 : 0;
    return elem;
}

void tell_file(ftx_entry* ftx, const std::string& name, int64_t size) {
    const std::string shown = printable(name);
    putFtxLog(ftx, number_filelist_file, "%s|%lld|", shown.c_str(), static_cast<long long>(size));
    __log(number_transfer_lists_file, "%d|%s|", ftx->ftx_transfer_id, shown.c_str());
}

void tell_folder(ftx_entry* ftx, const std::string& name) {
    const std::string shown = printable(name);
    putFtxLog(ftx, number_filelist_folder, "%s|", shown.c_str());
    __log(number_transfer_lists_folder, "%d|%s|", ftx->ftx_transfer_id, shown.c_str());
}

int keep_element(list_context* list, ftx_elem* elem) {
    elem->ftxe_flag |= FTXE_SAVE_SOURCE;
    return ss_saveFTXE(list->ftx, elem, &list->error);
}

int take_file(list_context* list, const std::string& name, const walk_entry& entry, int kind) {
    const int64_t size = entry.status.st_size;
    ftx_elem* const elem = add_element(list->ftx, name, kind, size);
    list->ftx->ftx_size_total += size;
    tell_file(list->ftx, name, size);
    return keep_element(list, elem);
}

int take_folder(list_context* list, const std::string& name) {
    ftx_elem* const elem = add_element(list->ftx, name, FTXE_DIRECTORY, 0);
    ++list->folders;
    tell_folder(list->ftx, name);
    return keep_element(list, elem);
}

// What the folder holds is missing from the transfer. An element of its own says so, in later runs as well: it
// cannot be opened as a file.
int take_failed_folder(list_context* list, const std::string& name, int error_number) {
    ftx_entry* const ftx = list->ftx;
    ftx_elem* const elem = add_element(ftx, name, FTXE_FILE, 0);
    ftxe_set_message(elem, number_file_call, error_number,
                     call_insert("DirOpen()", printable(name), error_number));
    update_FtxStatus(ftx, elem, FTXE_ERROR);
    tell_file(ftx, name, 0);
    putFtxLog(ftx, elem->ftxe_msgnr, "%s", elem->insert.c_str());
    __log(elem->ftxe_msgnr, "%s", elem->insert.c_str());
    return keep_element(list, elem);
}

// Whether the order leaves names of that kind out.
bool is_left_out(const _My_Area& area, const walk_entry& entry) {
    switch (entry.kind) {
        case FILE_KIND_REGULAR:
            return false;
        case FILE_KIND_LINK:
            return !area.follow || !entry.leads_to_file;
        default:
            return true;
    }
}

int ftx_filelist_callback_handler(_My_Area* area, const std::string& name, const walk_entry& entry,
                                  folder_walk_event event) {
    auto* const list = static_cast<list_context*>(area->my_struct);
    if (ftx_is_interrupted(list->ftx)) {
        return 1;
    }
    if (event == WALK_FOLDER_FAILED) {
        return take_failed_folder(list, name, entry.error_number);
    }
    if (event != WALK_ENTRY) {
        return 0;
    }
    if (entry.kind == FILE_KIND_DIRECTORY) {
        return area->recursion && (area->flag & with_folders) != 0 ? take_folder(list, name) : 0;
    }
    if (is_left_out(*area, entry)) {
        return 0;
    }
    return take_file(list, name, entry, entry.kind == FILE_KIND_LINK ? FTXE_LINK : FTXE_FILE);
}

// Without a wildcard what is no file, or not there, becomes an element that fails when it is opened.
int single_callback(_My_Area* area, const std::string& name, const walk_entry& entry,
                    folder_walk_event event) {
    auto* const list = static_cast<list_context*>(area->my_struct);
    if (event == WALK_ENTRY && entry.kind == FILE_KIND_DIRECTORY && (area->flag & with_folders) != 0) {
        return take_folder(list, name);
    }
    walk_entry told = entry;
    if (event == WALK_MISSING || (entry.kind != FILE_KIND_REGULAR && !entry.leads_to_file)) {
        told.status.st_size = 0;
    }
    return take_file(list, name, told, entry.kind == FILE_KIND_LINK ? FTXE_LINK : FTXE_FILE);
}

// ---- The folder in front of the mask

// Target of a link that leads nowhere; empty when the path is none.
std::string broken_link(const std::string& path) {
    char target[PATH_MAX];
    struct stat status;
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length <= 0 || stat(path.c_str(), &status) == 0) {
        return {};
    }
    return {target, std::min(static_cast<size_t>(length), link_target_max)};
}

int folder_failed(const ftx_entry* ftx, const std::string& folder, int error_number, qx7_error* err) {
    const std::string shown = printable(folder);
    if (error_number != ENOENT && error_number != ENOTDIR) {
        return file_error(err, "DirOpen()", shown, error_number);
    }
    std::string path = ftx_absolute(ftx, folder);
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    if (const std::string target = broken_link(path); !target.empty()) {
        return qx_error_set(err, -1, error_number, number_source_link_broken, "%d|%s|%s|",
                            ftx->ftx_transfer_id, shown.c_str(), printable(target).c_str());
    }
    return qx_error_set(err, -1, error_number,
                        error_number == ENOENT ? number_folder_missing : number_source_unusable, "%d|%s|",
                        ftx->ftx_transfer_id, shown.c_str());
}

int walk_mask(ftx_entry* ftx, _My_Area* area, qx7_error* err) {
    const std::string& source = ftx->source_file;
    const size_t slash = source.rfind('/');
    area->path = slash == std::string::npos ? "./" : source.substr(0, slash + 1);
    area->mask = slash == std::string::npos ? source : source.substr(slash + 1);
    if (area->mask.empty()) {
        area->mask = "*";
    }
    if (area->path.size() > base_folder_max) {
        return folder_failed(ftx, area->path, ENAMETOOLONG, err);
    }
    const std::string path = ftx_absolute(ftx, area->path);
    if (ftx_enter_folder(ftx, ftx_place_of(path, path.size())) != 0) {
        return folder_failed(ftx, area->path, errno, err);
    }
    area->folder = ftx->folder.get();
    return tq_FileHandler(area, ftx_filelist_callback_handler, err);
}

int find_files(ftx_entry* ftx, list_context* list, qx7_error* err) {
    _My_Area area;
    memcpy(area.my_id, area_mark, sizeof area.my_id);
    area.my_struct = list;
    area.recursion = ftx->ftx_subdir != no_subfolders;
    area.flag = ftx->has(FTX_SUBDIRSTRUCT) ? with_folders : 0;
    area.follow = ftx_glb().fgx_Linkfiles;
    int result;
    if (ftx->ftx_wildcard == ftx_yes) {
        result = walk_mask(ftx, &area, err);
    } else {
        area.path = ftx->source_file;
        area.mask = ftx_absolute(ftx, ftx->source_file);
        area.folder = AT_FDCWD;
        result = single_FileHandler(&area, single_callback);
    }
    if (result > 0) {
        *err = list->error;
        return -1;
    }
    return result;
}

void tell_totals(ftx_entry* ftx, int folders) {
    const int files = ftx->ftx_files_total - folders;
    putFtxLog(ftx, number_filelist_files, "%d|", files);
    __log(number_transfer_listed_files, "%d|%d|", ftx->ftx_transfer_id, files);
    if (folders > 0) {
        putFtxLog(ftx, number_filelist_folders, "%d|", folders);
        __log(number_transfer_listed_folders, "%d|%d|", ftx->ftx_transfer_id, folders);
    }
}

int ftx_create_filelist_from_filesystem(ftx_entry* ftx, qx7_error* err) {
    qx_error_clear(err);
    clear_list(ftx);
    if (ftx->ftx_ah_idnr2 != 0) {
        putFtxLog(ftx, number_repeat_anew, "%s", "");
    }
    putFtxLog(ftx, number_filelist_started, "%s", "");
    __log(number_transfer_lists, "%d|%s|", ftx->ftx_transfer_id, printable(ftx->source_file).c_str());
    list_context list{ftx, 0, {}};
    if (find_files(ftx, &list, err) != 0) {
        return -1;
    }
    ftx->ftx_files_total = static_cast<int32_t>(ftx->elements.size());
    tell_totals(ftx, list.folders);
    return 0;
}

}  // namespace

int ftx_create_filelist(ftx_entry* ftx, qx7_error* err) {
    return ftx->ftx_restart == ftx_resume ? ftx_create_filelist_from_statusstore(ftx, err)
                                          : ftx_create_filelist_from_filesystem(ftx, err);
}
