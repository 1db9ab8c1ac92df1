// FTXSTA: where a transfer stands, for the server.
#include <algorithm>
#include <cstring>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/build.h"
#include "messages/records_transfer.h"
#include "messages/timestamp.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/store.h"

namespace {

struct first_message {
    int number = 0;
    std::string_view insert;
};

// Sizes come from partners and stored files: a sum stops at the largest number.
void add_size(int64_t* sum, int64_t size) {
    if (__builtin_add_overflow(*sum, size, sum)) {
        *sum = INT64_MAX;
    }
}

void count_folder(MSG_TYPE_FTXSTA* status, const ftx_elem& elem) {
    ++status->dir_total;
    if (elem.ftxe_status == FTXE_COMPLETE) {
        ++status->dir_sent;
        ++status->dir_successfull;
    } else if (elem.ftxe_status == FTXE_ERROR) {
        ++status->dir_sent;
    }
}

void count_file(MSG_TYPE_FTXSTA* status, const ftx_elem& elem, int64_t sizes[3]) {
    ++status->files_total;
    if (elem.ftxe_status == FTXE_COMPLETE) {
        ++status->files_sent;
        ++status->files_successful;
    } else if (elem.ftxe_status == FTXE_ERROR) {
        ++status->files_sent;
    }
    add_size(&sizes[0], elem.ftxe_fileSize);
    add_size(&sizes[1], elem.ftxe_transferedBytes);
    add_size(&sizes[2], elem.ftxe_records);
}

// Fills the sums; the message of the first element that has one.
first_message sum_up(const ftx_entry* ftx, MSG_TYPE_FTXSTA* status) {
    first_message found;
    int64_t sizes[3] = {};
    for (const auto& [oid, elem] : ftx->elements) {
        if ((elem.ftxe_flag & FTXE_DIRECTORY) != 0) {
            count_folder(status, elem);
        } else if ((elem.ftxe_flag & (FTXE_FILE | FTXE_LINK)) != 0) {
            count_file(status, elem, sizes);
        }
        if (found.number == 0 && elem.ftxe_msgnr > 0) {
            found = {elem.ftxe_msgnr, elem.insert};
        }
    }
    status->sent_size = sizes[1];
    status->file_size = ftx->ftx_status_flag == FTX_STATUS_FINISHED ? sizes[1] : sizes[0];
    status->compressed_size = std::min({ftx->ftx_compressed_size, int64_t{status->file_size}, sizes[1]});
    status->records = sizes[2];
    return found;
}

int end_number(const ftx_entry* ftx) {
    switch (ftx->ftx_status_flag) {
        case FTX_STATUS_FINISHED:
            return number_transfer_ended;
        case FTX_STATUS_CANCELLED:
            return number_transfer_cancelled;
        default:
            return number_transfer_failed;
    }
}

void save(ftx_entry* ftx) {
    qx7_error error;
    if (ftx->store != nullptr && ss_saveFTX(ftx, &error) != 0) {
        __log_error(error);
    }
}

// Once for each transfer.
void note_end(ftx_entry* ftx) {
    if (ftx->has(FTX_END_LOGGED)) {
        return;
    }
    ftx->ftx_flag |= FTX_END_LOGGED;
    const MSG_TYPE_TIMESTAMP now = timestamp_now();
    static_assert(sizeof now == sizeof ftx->ftx_etime);
    memcpy(ftx->ftx_etime, &now, sizeof now);
    const int number = end_number(ftx);
    __log(number, "%d|", ftx->ftx_transfer_id);
    if (!ftx->has(FTX_END_REPORTED)) {
        ftx->ftx_flag |= FTX_END_REPORTED;
        putFtxLog(ftx, number, "%d|", ftx->ftx_transfer_id);
    }
    save(ftx);
}

void check_status(EX_PCX* pcx, ftx_entry* ftx) {
    if (ftx->is_sender() && ftx->ftx_progress > FTX_STARTING && ftx->ftx_sta_timeStamp <= alarm_now()) {
        ftx_send_ftxsta(pcx, ftx);
    }
}

}  // namespace

int ftx_send_ftxsta(EX_PCX* pcx, ftx_entry* ftx) {
    message_builder<MSG_TYPE_FTXSTA> status(ftx->ftx_Mandant, ftx->ftx_UsrIdNr);
    status->ah_idnr = ftx->ftx_transfer_id;
    const first_message of_element = sum_up(ftx, &status.record);
    status->count = ++ftx->ftx_sta_count;
    status->status_flag = FTX_STATUS_RUNNING;
    if (ftx->ftx_progress == FTX_FINISHED) {
        note_end(ftx);
        status->status_flag = ftx->ftx_status_flag;
        memcpy(&status->end_time, ftx->ftx_etime, sizeof status->end_time);
    }
    status->msl_no = ftx->ftx_msgNr != 0 ? ftx->ftx_msgNr : of_element.number;
    status.add(MSG_TYPE_FTXSTA::msl_text,
               ftx->ftx_msgNr != 0 ? std::string_view(ftx->ftx_Insert) : of_element.insert);
    if (ftx_glb().fgx_ftxinf_simulation) {
        return 0;
    }
    const int result = send_built(
        pcx->ccm, status, to_server(pcx, ftx_server_module, ftx_module, static_cast<int>(ftx->ftx_srv_acv)));
    ftx->ftx_sta_timeStamp = alarm_now() + pcx->ftx_sta_intervall;
    return result;
}

void ftx_tell_status_when_due(ftx_entry* ftx) {
    if (ftx->ftx_sta_timeStamp != 0) {
        check_status(ftx->pcx, ftx);
    }
}

void ftx_periodical_status_check(EX_PCX* pcx) {
    auto& entries = ftx_entries();
    for (auto next = entries.begin(); next != entries.end();) {
        ftx_entry* const ftx = (next++)->get();
        if (!ftx->has(FTX_DELETED)) {
            check_status(pcx, ftx);
            continue;
        }
        if (pcx->running_mode == MODE_FTX) {
            ftx_process_shutdown(pcx, ftx);
        }
        FreeFtxEntry(ftx);
    }
}
