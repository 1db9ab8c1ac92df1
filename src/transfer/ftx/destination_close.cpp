// A file of the receiver ends: it gets its final name when all of it has come.
#include <unistd.h>

#include <cerrno>

#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/destination_write.h"
#include "transfer/ftx/files.h"

namespace {

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

void rename_failed(ftx_entry* ftx, ftx_elem* elem, int error_number) {
    qx7_error error;
    if (error_number == EEXIST) {
        qx_error_set(&error, -1, EEXIST, number_destination_exists, "%s|",
                     printable(elem->destination_name).c_str());
    } else {
        qx_error_set(&error, -1, error_number, number_system_call, "rename(%s, %s)|%d|%s|",
                     printable(ftx->working_name).c_str(), printable(ftx->final_name).c_str(), error_number,
                     error_text(error_number).c_str());
    }
    fail(ftx, elem, error);
}

// The sender could not read the file to its end: what came of it keeps its temporary name.
void take_source_error(ftx_entry* ftx, ftx_elem* elem, std::string_view item, int number) {
    std::string insert;
    cbsGetString(item, "ERROR_INSERT", &insert);
    ftxe_set_message(elem, number > 0 ? number : number_transfer_read_failed, 0, insert);
    __log(elem->ftxe_msgnr, "%s", printable(elem->insert).c_str());
    update_FtxStatus(ftx, elem, FTXE_ERROR);
}

// Closes the written file; with an erase of the source only what is on the disk may count as arrived.
int close_written(ftx_entry* ftx, bool to_disk) {
    const int synced = to_disk ? fsync(ftx->file.get()) : 0;
    const int error_number = errno;
    if (FTX_closeFdFile(&ftx->file) != 0) {
        return -1;
    }
    errno = error_number;
    return synced;
}

// Gives the file its final name. When a repeat finds it taken by the same content, an earlier run has completed
// the file and could not tell. 0 or -1 with errno.
int give_final_name(const ftx_entry* ftx, bool to_disk) {
    const int folder = ftx->folder.get();
    const char* const temp = ftx->working_name.c_str();
    const char* const name = ftx->final_name.c_str();
    if (FTX_renameFile(folder, temp, name, ftx->may_replace) == 0) {
        return 0;
    }
    if (errno != EEXIST || ftx->ftx_ah_idnr2 == 0) {
        return -1;
    }
    if (!FTX_sameContent(folder, temp, name, to_disk)) {
        errno = EEXIST;
        return -1;
    }
    return unlinkat(folder, temp, 0);
}

void complete(ftx_entry* ftx, ftx_elem* elem) {
    const bool to_disk = ftx->ftx_erase == ftx_yes;
    if (close_written(ftx, to_disk) != 0) {
        close_failed(ftx, elem, errno);
        return;
    }
    if (elem->dst_Temp_File == 1 && give_final_name(ftx, to_disk) != 0) {
        rename_failed(ftx, elem, errno);
        return;
    }
    if (to_disk && ftx_sync_folder(ftx->folder.get()) != 0) {
        close_failed(ftx, elem, errno);
        return;
    }
    update_FtxStatus(ftx, elem, FTXE_COMPLETE);
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
