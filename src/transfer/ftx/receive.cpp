// The receiver, from the order to the end: FTXRECV in the agent, FTXDATA and FTXEND in its worker.
#include <algorithm>
#include <cerrno>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/orders.h"

namespace {

constexpr std::string_view keeps_silent = "skip_ftxrecvq";
constexpr int longest_answer = 4096;  // of an FTXSENDQ that is handed on

// ---- The order

// The sender must carry out what this agent was ordered.
bool repeats(const __ftx_reverse_connect_savearea& area, const message_view& order) {
    const message_view wanted_view = view_message(area.ftxsend.data(), area.ftxsend.size());
    const auto wanted = view_record<MSG_TYPE_FTXSEND>(wanted_view).ftxsndrcv;
    const auto given = view_record<MSG_TYPE_FTXSEND>(order).ftxsndrcv;
    return view_text(wanted_view, wanted.dst_file_dist, wanted.dst_file_len) ==
               view_text(order, given.dst_file_dist, given.dst_file_len) &&
           get_text(wanted.dst_logininfo) == get_text(given.dst_logininfo) &&
           wanted.override == given.override && wanted.wildcard == given.wildcard;
}

int refuse_order(EX_PCX* pcx, ccm_msg_t* msg, ftx_entry* ftx, int ah_idnr, const qx7_error& err) {
    __log_error(err);
    __log(number_transfer_failed, "%d|", ah_idnr);
    ftx_send_ftxrecvq(pcx, msg, ftx, err.qx_msgnr, err.qx_msgInsert);
    return -1;
}

// The worker's first step; the agent has nothing to do with the transfer any more.
int begin_as_worker(EX_PCX* pcx, ccm_msg_t* msg, ftx_entry* ftx) {
    qx7_error err;
    if (ftx_take_identity(ftx, &err) == 0) {
        return ftx_send_ftxrecvq(pcx, msg, ftx, 0, "");
    }
    refuse_order(pcx, msg, ftx, ftx->ftx_transfer_id, err);
    ftx_process_shutdown(pcx, ftx);
    FreeFtxEntry(ftx);
    return -1;
}

int start_worker(EX_PCX* pcx, ccm_msg_t* msg, ftx_entry* ftx) {
    const int ah_idnr = ftx->ftx_transfer_id;
    qx7_error err;
    const pid_t pid = ftx_start_process(pcx, ftx, &err);
    if (pid == 0) {
        return begin_as_worker(pcx, msg, ftx);
    }
    if (pid > 0) {
        ftx_free_area(ftx_area_of(ah_idnr));
        return 0;
    }
    refuse_order(pcx, msg, ftx, ah_idnr, err);
    FreeFtxEntry(ftx);
    return -1;
}

int accept_order(EX_PCX* pcx, ccm_msg_t* msg, std::unique_ptr<ftx_entry> entry, char can_continue) {
    __log(number_transfer_receives, "%d|%d|", entry->ftx_transfer_id, entry->ftx_ah_idnr2);
    if (entry->rest_text == keeps_silent) {
        return 0;
    }
    entry->partnerID = msg->addr.src_ID;
    ftx_name_channel(pcx, entry->partnerID, entry->ftx_transfer_id);
    entry->ftx_flag |= can_continue == ftx_yes ? FTX_CAN_CONTINUE : 0;
    entry->ftx_progress = FTX_STARTED;
    return start_worker(pcx, msg, AddFtxEntry(std::move(entry)));
}

// ---- Data

bool log_compression(const ErrMsg& message) {
    if (message.code != 0) {
        __log(message.code, "%s", message.text);
    }
    return message.code != 0;
}

int open_stream(ftx_entry* ftx) {
    if (ftx->decompressor != nullptr) {
        return 0;
    }
    qx7_error err;
    if (dst_openCompress(ftx, &err) == 0) {
        return 0;
    }
    __log_error(err);
    return -1;
}

// The sync ends the stream, for zlib with its own end, which may come with the next block.
int close_stream(ftx_entry* ftx) {
    qx7_error err;
    if (dst_closeCompress(ftx, &err) == 0) {
        return 0;
    }
    __log_error(err);
    return -1;
}

bool stream_has_ended(const ftx_entry* ftx) {
    return ftx->has(FTX_SYNC_SEEN) && dcsEnded(ftx->decompressor.get());
}

void quit_group(EX_PCX* pcx, ftx_entry* ftx) {
    ftx_send_ftxquitt(pcx, ftx);
    ftx->ftx_nof_unquitted = std::max(0, ftx->ftx_nof_unquitted - ftx->ftx_async_quit_num);
}

int take_block(EX_PCX* pcx, ftx_entry* ftx, std::span<const unsigned char> block) {
    if (open_stream(ftx) != 0) {
        return -1;
    }
    dcsWrite(ftx->decompressor.get(), reinterpret_cast<const char*>(block.data()),
             static_cast<int>(block.size()), &ftx->message);
    if (ftx->interrupted || log_compression(ftx->message)) {
        return -1;
    }
    ++ftx->ftx_nof_unquitted;
    const bool ended = stream_has_ended(ftx);
    if (ended && close_stream(ftx) != 0) {
        return -1;
    }
    if (ended || ftx->ftx_nof_unquitted >= ftx->ftx_async_quit_num) {
        quit_group(pcx, ftx);
    }
    if (ended) {
        ftx->ftx_flag &= ~FTX_SYNC_SEEN;
    }
    return 0;
}

// ---- The end

bool something_untold(const ftx_entry* ftx) {
    return std::any_of(ftx->elements.begin(), ftx->elements.end(), [](const auto& item) {
        return item.second.ftxe_status != FTXE_WAITING && (item.second.ftxe_flag & FTXE_REPORTED) == 0;
    });
}

void take_status(ftx_entry* ftx, const MSG_TYPE_FTXEND& end, std::string_view text) {
    if (end.msl_no != 0) {
        // The number is the partner's; in this log it would speak for this agent.
        __log(-1, "%d|%s", end.msl_no, printable(text).c_str());
        ftx->ftx_status_flag = FTX_STATUS_CANCELLED;
    } else {
        ftx->ftx_status_flag = ftx->ftx_nof_error > 0 ? FTX_STATUS_ERROR : FTX_STATUS_FINISHED;
    }
}

// ---- FTXSENDQ on its way to the server

int hand_on(EX_PCX* pcx, const ccm_msg_t* msg) {
    return send_built(pcx->ccm, built_message({msg->msg_start, static_cast<size_t>(msg->len)}),
                      {.dst_addr = ccm_name_server,
                       .dst_name = ftx_server_module,
                       .dst_acv = msg->addr.dst_acv,
                       .src_addr = pcx->exName,
                       .src_name = ftx_module});
}

}  // namespace

int ftx_process_ftxrecv(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto record = view_record<MSG_TYPE_FTXRECV>(view).ftxsndrcv;
    if (pcx->running_mode != MODE_AGENT || msg->origin != CCM_FROM_PARTNER) {
        return ftx_refuse_partner(pcx, msg, record.ah_idnr);
    }
    __ftx_reverse_connect_savearea* area = ftx_area_of(record.ah_idnr);
    const bool expected =
        area != nullptr && area->sent && !area->answered && area->partnerID == msg->addr.src_ID;
    if (expected) {
        if (!repeats(*area, view)) {
            return ftx_refuse_partner(pcx, msg, record.ah_idnr);
        }
        area->answered = true;
    }
    qx7_error err;
    if (!expected && ftx_is_known(record.ah_idnr)) {
        qx_error_set(&err, -1, EEXIST, number_transfer_known, "%d|", record.ah_idnr);
        return refuse_order(pcx, msg, nullptr, record.ah_idnr, err);
    }
    std::unique_ptr<ftx_entry> entry = CreateFtxEntry(pcx, msg, &err);
    if (err.qx_result != 0) {
        return refuse_order(pcx, msg, entry.get(), record.ah_idnr, err);
    }
    return accept_order(pcx, msg, std::move(entry), record.can_continue);
}

int ftx_process_ftxdata(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const int ah_idnr = view_record<MSG_TYPE_FTXDATA>(view).ah_idnr;
    if (pcx->running_mode == MODE_FTX && getFtxByIdnr(ah_idnr) == nullptr) {
        __log(number_data_unknown, "%d|%s|", ah_idnr, printable(field_text(msg->addr.src_addr)).c_str());
        trcdump_limited("FTXDATA", msg->msg_start, msg->len, 64);
        ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
        return -1;
    }
    ftx_entry* ftx = ftx_entry_of_partner(pcx, msg, ah_idnr, FTX_RECEIVER);
    constexpr size_t head = sizeof(MSG_TYPE_FTXDATA);
    if (ftx == nullptr || ftx->end_seen || view.length <= head || view.length > ftx_data_max) {
        return ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    if (take_block(pcx, ftx, {view.data + head, view.length - head}) != 0) {
        ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
        return -1;
    }
    return 0;
}

int ftx_process_ftxend(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto end = view_record<MSG_TYPE_FTXEND>(view);
    ftx_entry* ftx = ftx_entry_of_partner(pcx, msg, end.ah_idnr, FTX_RECEIVER);
    if (ftx == nullptr || ftx->end_seen) {
        return ftx_refuse_partner(pcx, msg, end.ah_idnr);
    }
    ftx->end_seen = true;
    dst_closeUnfinished(ftx);
    dst_settle(ftx);
    take_status(ftx, end, view_text(view, end.msl_dist, end.msl_len));
    ftx->decompressor.reset();
    if (something_untold(ftx)) {
        quit_group(pcx, ftx);
    }
    while (ftx->ftx_nof_unquitted > 0) {
        quit_group(pcx, ftx);
    }
    ftx_send_ftxendq(pcx, ftx);
    const bool good = ftx->ftx_status_flag == FTX_STATUS_FINISHED;
    __log(good ? number_transfer_ended : number_transfer_failed, "%d|", ftx->ftx_transfer_id);
    return 0;
}

int ftx_process_ftxsendq(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const int ah_idnr = view_record<MSG_TYPE_FTXSENDQ>(view_of(msg)).ah_idnr;
    const bool small = msg->len <= longest_answer;
    if (pcx->running_mode == MODE_FTX) {
        const ftx_entry* ftx = ftx_entry_of_partner(pcx, msg, ah_idnr, FTX_RECEIVER);
        return ftx != nullptr && small ? hand_on(pcx, msg) : ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    const __ftx_reverse_connect_savearea* area = ftx_area_on(msg->addr.src_ID);
    if (msg->origin != CCM_FROM_PARTNER || area == nullptr || area->ah_idnr != ah_idnr || !area->sent ||
        !small) {
        return ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    // The sender refuses the order: nothing else comes over this connection.
    ftx_free_area(area);
    ftx_drop_channel(pcx, msg->addr.src_ID);
    return hand_on(pcx, msg);
}
