// The files of a transfer that goes on: what has arrived stays so, the others are sent.
#include "base/message_numbers.h"
#include "log/log.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/store.h"
#include "transfer/ftx/store_reads.h"

namespace {

void tell(ftx_entry* ftx, int number) {
    putFtxLog(ftx, number, "%s", "");
    __log(number, "%s", "");
}

void clear_totals(ftx_entry* ftx) {
    ftx->ftx_files_total = 0;
    ftx->ftx_size_total = 0;
    ftx->ftx_compressed_size = 0;
    ftx->ftx_nof_active = 0;
    ftx->ftx_nof_sent = 0;
    ftx->ftx_nof_completed = 0;
    ftx->ftx_nof_error = 0;
}

// As if it had just been listed; its restart records stay.
int take_up(ftx_entry* ftx, ftx_elem* elem, qx7_error* err) {
    const bool changed = elem->ftxe_status != FTXE_WAITING || elem->ftxe_msgnr != 0;
    elem->ftxe_status = FTXE_WAITING;
    ftxe_set_message(elem, 0, 0, "");
    elem->ftxe_startStamp = 0;
    elem->ftxe_flag &= ~(FTXE_REPORTED | FTXE_CHANGED);
    if (elem->sender_record.empty()) {
        elem->ftxe_transferedBytes = 0;
        elem->ftxe_records = 0;
    }
    ++ftx->ftx_files_total;
    ++ftx->ftx_nof_active;
    if (__builtin_add_overflow(ftx->ftx_size_total, elem->ftxe_fileSize, &ftx->ftx_size_total)) {
        ftx->ftx_size_total = INT64_MAX;
    }
    return changed ? ss_saveFTXE(ftx, elem, err) : 0;
}

// The list that the store says it has.
int load_list(ftx_entry* ftx, qx7_error* err) {
    if (ss_loadFTXEall(ftx, ss_storeId(ftx), err) != 0) {
        return -1;
    }
    const bool whole = ftx->store == nullptr || ftx->elements.size() == static_cast<size_t>(ftx->ftx_max_oid);
    return whole ? 0 : ss_keyFault("list of files", err);
}

}  // namespace

int ftx_create_filelist_from_statusstore(ftx_entry* ftx, qx7_error* err) {
    if (load_list(ftx, err) != 0) {
        return -1;
    }
    tell(ftx, number_restart_begins);
    tell(ftx, number_restart_list);
    ftx->ftx_max_oid = static_cast<int32_t>(ftx->elements.size());
    clear_totals(ftx);
    for (auto next = ftx->elements.begin(); next != ftx->elements.end();) {
        ftx_elem* const elem = &(next++)->second;
        if (elem->ftxe_status == FTXE_COMPLETE) {
            ftx_report_arrived(ftx, elem);
            ftxe_remove(ftx, elem);
        } else if (take_up(ftx, elem, err) != 0) {
            return -1;
        }
    }
    tell(ftx, number_restart_list_ends);
    return 0;
}
