// The report of a transfer: its lines, and how the server gets them block by block.
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
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
#include "transfer/ftx/server_orders.h"
#include "transfer/ftx/store.h"

namespace {

constexpr size_t line_size = 1024;
constexpr size_t block_max = 32768;
using write_record = MSG_TYPE_FTXWRITE_RECORD;
using write_message = message_builder<MSG_TYPE_FTXWRITE>;

// A store that cannot be written costs the report of a lost worker, not the transfer.
void store_line(ftx_entry* ftx) {
    if (ftx->store == nullptr) {
        return;  // it takes the lines when it is opened
    }
    qx7_error error;
    const bool failed = ss_saveREPORT(ftx, ftx->report.back(), &error) != 0;
    if (failed && !ftx->store_failing) {
        __log_error(error);
    }
    ftx->store_failing = failed;
}

size_t block_size_of(const ftx_entry* ftx) {
    return std::min(static_cast<size_t>(std::max(ftx->ftx_report_block_size, 0)), block_max);
}

// Looks no further than a block.
bool fills_block(const ftx_entry* ftx) {
    size_t size = sizeof(MSG_TYPE_FTXWRITE);
    const size_t wanted = block_size_of(ftx);
    for (auto line = ftx->report.begin(); size < wanted && line != ftx->report.end(); ++line) {
        size += sizeof(write_record) + line->insert.size();
    }
    return size >= wanted;
}

void put_line(write_message* message, const ftx_log_line& line) {
    write_record record{};
    memcpy(&record.timestamp, line.timestamp, sizeof record.timestamp);
    record.msl_id = line.msl_id;
    if (!line.insert.empty()) {
        write_record::text(&record, message->size() + sizeof record, line.insert.size());
    }
    message->put_record(record);
    message->put(line.insert);
    ++(*message)->count;
}

// As many lines as the block holds, the first one in any case. True when none is left.
bool fill_block(const ftx_entry* ftx, write_message* message) {
    const size_t room = block_size_of(ftx);
    for (const ftx_log_line& line : ftx->report) {
        if (line.msl_id != 0) {
            const size_t size = message->size() + sizeof(write_record) + line.insert.size();
            if ((*message)->count > 0 && size > room) {
                return false;
            }
            put_line(message, line);
        }
        (*message)->last_id = line.log_nr;
    }
    return true;
}

std::string element_insert(const ftx_elem* elem) {
    const std::string source = printable(elem->source_name);
    const std::string destination = printable(elem->destination_name);
    if ((elem->ftxe_flag & FTXE_DIRECTORY) != 0) {
        return destination + "|" + source;
    }
    return destination + "|" + std::to_string(elem->ftxe_transferedBytes) + "|" +
           std::to_string(elem->ftxe_records) + "|" + source + "|" + sec2hhmmss3(elem->ftxe_lifeTime);
}

int number_for(const ftx_elem* elem, int of_file, int of_folder) {
    return (elem->ftxe_flag & FTXE_DIRECTORY) != 0 ? of_folder : of_file;
}

bool due(int64_t alarm) {
    return alarm <= alarm_now();
}

void check_report(EX_PCX* pcx, ftx_entry* ftx) {
    if (due(ftx->ftx_rep_timeStamp)) {
        ftx_send_ftxwrite(pcx, ftx, 1);
        ftx->ftx_rep_timeStamp = alarm_now() + pcx->ftx_report_intervall;
    }
    if (ftx->ftx_con_timeStamp != 0 && pcx->ftx_con_timeout > 0 && due(ftx->ftx_con_timeStamp)) {
        ftx->ftx_flag |= FTX_IDLE;
        ftx->ftx_con_timeStamp = alarm_now() + pcx->ftx_con_timeout;
        // A partner that says nothing does not answer a cancel either.
        if (ftx->ftx_status_flag == FTX_STATUS_CANCELLED && ftx->ftx_progress != FTX_FINISHED) {
            ccm_channel_deletebyID(pcx->ccm, ftx->partnerID);
        }
    }
}

}  // namespace

void putFtxLog(ftx_entry* ftx, int number, const char* format, ...) {
    if (ftx->has(FTX_RECEIVER) || ftx->ftx_last_log_nr == INT_MAX) {
        return;
    }
    char text[line_size];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    const MSG_TYPE_TIMESTAMP now = timestamp_now();
    ftx_log_line& line = ftx->report.emplace_back();
    line.log_nr = ++ftx->ftx_last_log_nr;
    static_assert(sizeof now == sizeof line.timestamp);
    memcpy(line.timestamp, &now, sizeof now);
    line.msl_id = number;
    line.insert = text;
    store_line(ftx);
}

void freeFtxLog(ftx_entry* ftx) {
    ftx->report.clear();
}

void ftx_report_arrived(ftx_entry* ftx, const ftx_elem* elem) {
    putFtxLog(ftx, number_for(elem, number_file_transferred, number_folder_transferred), "%s",
              element_insert(elem).c_str());
}

void ftx_report_not_arrived(ftx_entry* ftx, const ftx_elem* elem) {
    putFtxLog(ftx, number_for(elem, number_file_not_transferred, number_folder_not_transferred), "%s",
              element_insert(elem).c_str());
}

int ftx_send_ftxwrite(EX_PCX* pcx, ftx_entry* ftx, int mode) {
    if (!ftx->has(FTX_REPORT_ASKED) || (mode == 0 && !fills_block(ftx))) {
        return -1;
    }
    write_message message(ftx->ftx_Mandant, ftx->ftx_UsrIdNr);
    message->ah_idnr = ftx->ftx_transfer_id;
    const bool at_end = fill_block(ftx, &message) && ftx->ftx_progress == FTX_FINISHED;
    if (!at_end && message->count == 0) {
        return -1;
    }
    message->status = at_end ? 'E' : 'C';
    if (message->count == 0) {
        message->last_id = ++ftx->ftx_last_log_nr;
    }
    const int result = send_built(
        pcx->ccm, message, to_server(pcx, ftx_server_module, ftx_module, static_cast<int>(ftx->ftx_srv_acv)));
    ftx->ftx_rep_timeStamp = alarm_now() + pcx->ftx_report_intervall;
    qx7_error error;
    if (ftx->store != nullptr && ss_saveFTX(ftx, &error) != 0) {
        __log_error(error);
    }
    ftx->ftx_flag &= ~FTX_REPORT_ASKED;
    return result;
}

int ftx_process_ftxrepg(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto order = view_record<MSG_TYPE_FTXREPG>(view_of(msg));
    if (pcx->running_mode == MODE_AGENT) {
        return ftx_pass_to_worker(pcx, msg, order.ah_idnr, "FTXREPG");
    }
    ftx_entry* const ftx = getFtxByIdnr(order.ah_idnr);
    if (ftx == nullptr) {
        return ftx_say_unknown(msg, order.ah_idnr, "FTXREPG");
    }
    ftx->ftx_flag |= FTX_REPORT_ASKED;
    ftx->ftx_report_block_size = order.block_size;
    while (!ftx->report.empty() && ftx->report.front().log_nr <= order.last_id) {
        ftx->report.pop_front();
    }
    ftx_send_ftxwrite(pcx, ftx, ftx->ftx_progress == FTX_FINISHED ? 1 : 0);
    return 0;
}

void ftx_periodical_report_check(EX_PCX* pcx) {
    for (const auto& entry : ftx_entries()) {
        if (entry->is_sender() && !entry->has(FTX_DELETED)) {
            check_report(pcx, entry.get());
        }
    }
}
