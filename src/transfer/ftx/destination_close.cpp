// A file of the receiver ends: it gets its final name when all of it has come.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>
#include <vector>

#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/destination_write.h"
#include "transfer/ftx/files.h"

namespace {

constexpr size_t unsynced_most = 64;  // with two descriptors each

void fail(ftx_entry* ftx, ftx_elem* elem, const qx7_error& error) {
    __log_error(error);
    ftxe_take_error(elem, error);
    update_FtxStatus(ftx, elem, FTXE_ERROR);
}

void close_failed(ftx_entry* ftx, ftx_elem* elem, int error_number) {
    qx7_error error;
    qx_error_set(&error, -1, error_number, number_transfer_write_failed, "%d|%s|fd close errno %d(%s)",
                 ftx->ftx_transfer_id, printable(elem->destination_name).c_str(), error_number,
                 error_text(error_number).c_str());
    fail(ftx, elem, error);
}

void rename_failed(ftx_entry* ftx, ftx_elem* elem, const ftx_unsynced& whole, int error_number) {
    qx7_error error;
    if (error_number == EEXIST) {
        qx_error_set(&error, -1, EEXIST, number_destination_exists, "%s|",
                     printable(elem->destination_name).c_str());
    } else {
        qx_error_set(&error, -1, error_number, number_system_call, "rename(%s, %s)|%d|%s|",
                     printable(whole.working_name).c_str(), printable(whole.final_name).c_str(), error_number,
                     error_text(error_number).c_str());
    }
    fail(ftx, elem, error);
}

// The sender could not read the file to its end: what came of it keeps its temporary name.
void take_source_error(ftx_entry* ftx, ftx_elem* elem, std::string_view item, int number) {
    std::string insert;
    cbsGetString(item, "ERROR_INSERT", &insert);
    ftxe_set_message(elem, number > 0 ? number : number_transfer_read_failed, 0, insert);
    // The number is the partner's; in this log it would speak for this agent.
    __log(-1, "%d|%s", elem->ftxe_msgnr, printable(elem->insert).c_str());
    update_FtxStatus(ftx, elem, FTXE_ERROR);
}

// Gives the file its final name. When a repeat finds it taken by the same content, an earlier run has completed
// the file and could not tell. 0 or -1 with errno.
int give_final_name(const ftx_entry* ftx, const ftx_unsynced& whole, int folder) {
    const char* const temp = whole.working_name.c_str();
    const char* const name = whole.final_name.c_str();
    if (FTX_renameFile(folder, temp, name, whole.may_replace) == 0) {
        return 0;
    }
    if (errno != EEXIST || ftx->ftx_ah_idnr2 == 0) {
        return -1;
    }
    if (!FTX_sameContent(folder, temp, name, ftx->ftx_erase == ftx_yes)) {
        errno = EEXIST;
        return -1;
    }
    return unlinkat(folder, temp, 0);
}

// The file is closed and, if that went well, gets its name.
void name_closed(ftx_entry* ftx, ftx_elem* elem, const ftx_unsynced& whole, int folder, int closed) {
    if (closed != 0) {
        close_failed(ftx, elem, errno);
    } else if (elem->dst_Temp_File == 1 && give_final_name(ftx, whole, folder) != 0) {
        rename_failed(ftx, elem, whole, errno);
    }
}

// The source goes when the receiver says 'C': until then nothing may be left to chance.
void complete_on_disk(ftx_entry* ftx, ftx_elem* elem, ftx_unsynced whole) {
    whole.folder.reset(fcntl(ftx->folder.get(), F_DUPFD_CLOEXEC, 0));
    if (!whole.folder.valid()) {
        close_failed(ftx, elem, errno);
        return;
    }
    ftx->unsynced.push_back(std::move(whole));
    // The next file may be appended to this one.
    if (ftx->unsynced.size() >= unsynced_most || dst_ordered_overwrite(ftx) == ftx_append) {
        dst_settle(ftx);
    }
}

void complete(ftx_entry* ftx, ftx_elem* elem) {
    ftx_unsynced whole{.oid = elem->ftxe_oId,
                       .file = std::move(ftx->file),
                       .folder = {},
                       .working_name = std::move(ftx->working_name),
                       .final_name = std::move(ftx->final_name),
                       .may_replace = ftx->may_replace};
    if (ftx->ftx_erase == ftx_yes) {
        complete_on_disk(ftx, elem, std::move(whole));
        return;
    }
    name_closed(ftx, elem, whole, ftx->folder.get(), FTX_closeFdFile(&whole.file));
    if (elem->ftxe_status == FTXE_ACTIVE) {
        update_FtxStatus(ftx, elem, FTXE_COMPLETE);
    }
}

// ---- Down to the disk

std::vector<int> sync_files(const std::vector<ftx_unsynced>& files) {
    std::vector<int> descriptors;
    for (const ftx_unsynced& one : files) {
        descriptors.push_back(one.file.get());
    }
    return ftx_sync_all(descriptors);
}

// The folders behind the files, each once; for each file: 0, or the errno of its folder's failure.
std::vector<int> sync_folders(const std::vector<ftx_unsynced>& files) {
    std::map<std::pair<dev_t, ino_t>, size_t> places;
    std::vector<size_t> place_of;
    std::vector<qx_descriptor> folders;
    std::vector<int> descriptors;
    for (const ftx_unsynced& one : files) {
        struct stat status = {};
        fstat(one.folder.get(), &status);
        const auto [found, fresh] = places.try_emplace({status.st_dev, status.st_ino}, folders.size());
        place_of.push_back(found->second);
        if (fresh) {
            folders.emplace_back(openat(one.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            descriptors.push_back(folders.back().get());
        }
    }
    const std::vector<int> of_folders = ftx_sync_all(descriptors);
    std::vector<int> failures;
    for (const size_t place : place_of) {
        failures.push_back(of_folders[place]);
    }
    return failures;
}

}  // namespace

void dst_closeFile(ftx_entry* ftx, std::string_view item) {
    ftx_elem* const elem = ftx->current;
    if (elem == nullptr || !ftx->file.valid() || dst_textWriteOut(ftx) != 0) {
        return;
    }
    int number = 0;
    const bool failed_at_source = cbsGetInt(item, "ERROR_NR", &number) == 0;
    if (!failed_at_source && elem->ftxe_status == FTXE_ACTIVE) {
        complete(ftx, elem);
        return;
    }
    // The element has or gets an error that says more than one of the close could.
    ftx->file.reset();
    if (failed_at_source && elem->ftxe_status == FTXE_ACTIVE) {
        take_source_error(ftx, elem, item, number);
    }
}

void dst_settle(ftx_entry* ftx) {
    std::vector<ftx_unsynced> files = std::exchange(ftx->unsynced, {});
    const std::vector<int> of_files = sync_files(files);
    for (size_t i = 0; i < files.size(); ++i) {
        const int closed = FTX_closeFdFile(&files[i].file);
        errno = of_files[i] != 0 ? of_files[i] : errno;
        name_closed(ftx, &ftx->elements.at(files[i].oid), files[i], files[i].folder.get(),
                    of_files[i] != 0 ? -1 : closed);
    }
    const std::vector<int> of_folders = sync_folders(files);
    for (size_t i = 0; i < files.size(); ++i) {
        ftx_elem* const elem = &ftx->elements.at(files[i].oid);
        if (elem->ftxe_status == FTXE_ACTIVE && of_folders[i] != 0) {
            close_failed(ftx, elem, of_folders[i]);
        } else if (elem->ftxe_status == FTXE_ACTIVE) {
            update_FtxStatus(ftx, elem, FTXE_COMPLETE);
        }
    }
}
