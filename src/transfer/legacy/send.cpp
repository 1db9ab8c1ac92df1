// The sender's side of a transfer, from FT_SEND to its last FT_QUIT. One message at a time is under way to the
// receiver; each FT_QUIT of it lets the next one go.
#include <algorithm>
#include <cerrno>
#include <vector>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"
#include "transfer/legacy/messages.h"
#include "transfer/legacy/module.h"
#include "transfer/legacy/order.h"
#include "transfer/legacy/sides.h"
#include "transfer/legacy/source.h"

namespace {

constexpr int agent_channels_max = 4096;
constexpr int quit_without_restart = 360;  // bytes
constexpr size_t partner_part_max = 16384;

// The newest connection to that partner which no other transfer has for itself.
int find_partner(EX_PCX* pcx, std::string_view name) {
    std::vector<int> ids(agent_channels_max);
    const int count = ccm_channel_collect(pcx->ccm, CH_TYPE_AGENT, ids.data(), agent_channels_max);
    int found = 0;
    for (int i = 0; i < count; ++i) {
        ccm_channel_image_t channel;
        const int id = ids[static_cast<size_t>(i)];
        if (ccm_channel_copy(pcx->ccm, id, &channel) == 0 && (channel.flag & CH_FLAG_SEALED) != 0 &&
            field_text(channel.name) == name && getFtxByPartnerID(id) == nullptr) {
            found = std::max(found, id);
        }
    }
    return found;
}

void start_anew(FT_AREA* area, const char* reason) {
    area->ft_contInsert = std::to_string(area->transfer_id) + ": " + reason + "|";
    area->flagResume = FT_CAN_RESUME;
}

// Restart data of the order. True when only the end of the file is missing at the receiver.
bool Ft_ContSend(FT_AREA* area) {
    const DATA_FT_STP& stp = area->restart;
    if (area->flagResume != FT_DO_RESUME) {
        return false;
    }
    if (stp.file_name.empty()) {
        // Without the receiver's data either, it says by itself that it cannot go on.
        if (!area->partner_part.empty()) {
            start_anew(area, "the order has no restart data of this side");
        }
        return false;
    }
    if (stp.msg_number != number_legacy_rename_failed) {
        return false;
    }
    area->file = stp.folder + "/" + stp.file_name;
    area->fileSize = stp.file_size;
    area->resumed_bytes = stp.transferred;
    area->resumed_records = stp.records;
    area->anzahl_compr = stp.compressed;
    area->status = FT_ENDED;
    return true;
}

int begin_stream(FT_AREA* area) {
    const bool known = !area->restart.file_name.empty();
    if (area->flagResume == FT_DO_RESUME && known && area->restart.file_size != area->fileSize) {
        start_anew(area, "the file has another size now");
    }
    // Where a file goes on, the receiver tells with its answer.
    return area->flagResume == FT_DO_RESUME ? 0 : source_start(area, 0, 0);
}

// ---- What comes next

void FT_Finish(FT_AREA* area) {
    source_close(area);
    int error_number = 0;
    if (area->erase == FT_ERASE && area->status == FT_ENDED && source_erase(area, &error_number) != 0) {
        area->status = FT_ERASE_FAILED;
        ft_fail(area, number_legacy_erase_failed, call_insert(area->file, error_number));
    }
    if (area->Result != 0) {
        __log(area->Result, "%s", area->ft_Insert.c_str());
    }
    ft_log_end(area);
    send_ft_quit(area);
    Delete_FtArea(area);
}

void send_end(FT_AREA* area) {
    switch (area->status) {
        case FT_CANCELLED:
            ft_fail(area, number_transfer_cancelled, std::to_string(area->transfer_id) + "|");
            break;
        case FT_LINE_TOO_LONG:
            ft_fail(area, number_legacy_line_too_long, std::to_string(ft_line_max) + "|");
            break;
        case FT_MAX_RECORDS:
            ft_fail(area, number_legacy_records_limit, "");
            break;
        default:
            break;
    }
    send_ft_end(area, area->Result, area->ft_Insert);
}

void create_and_send_ft_data_message(FT_AREA* area) {
    ccm_msg_t* msg = outgoing_message(area->pcx->ccm, ccm_msg_standard_size);
    int length = -1;
    if (msg == nullptr) {
        ft_fail(area, number_no_memory, "FT_DATA|");
    } else {
        const size_t room = ft_config().message_size - sizeof(MSG_TYPE_FT_DATA);
        char* place = reinterpret_cast<char*>(msg->msg_start) + sizeof(MSG_TYPE_FT_DATA);
        length = csRead(area->compressor, place, static_cast<int>(room), &area->cmpMsg);
    }
    if (length > 0) {
        area->send_item = FT_AWAITS_DATA;
        send_ft_data(area, msg, static_cast<size_t>(length));
        return;
    }
    ccm_msg_free(area->pcx->ccm, msg);
    if (length < 0) {
        ft_fail(area, area->cmpMsg.code, area->cmpMsg.text);
        area->status = FT_DATA_ERROR;
    } else if (area->status == FT_NORMAL) {
        area->status = FT_ENDED;
    }
    send_end(area);
}

void go_on(FT_AREA* area) {
    if (area->status == FT_NORMAL) {
        create_and_send_ft_data_message(area);
    } else {
        send_end(area);
    }
}

// ---- FT_QUIT

// What the receiver knows for a restart. 0, or -1 with Result for a place that lies.
int take_partner_part(FT_AREA* area, message_view view, const MSG_TYPE_FT_QUIT& quit, DATA_FT_STP* stp) {
    *stp = {};
    if (message_version(&quit.header) == 1 || quit.stp_len == 0) {
        return 0;
    }
    const auto data = view_data(view, quit.stp_dist, quit.stp_len);
    if (data.empty()) {
        return ft_fail(area, number_order_distance, std::string(ft_module) + "|FT_QUIT|stp_dist");
    }
    restart_parts parts;
    if (read_restart_data(data, &parts) && parts.own.size() <= partner_part_max &&
        read_stp_part(parts.own, stp)) {
        area->partner_part = parts.own;
    }
    return 0;
}

void fail_by_partner(FT_AREA* area, const MSG_TYPE_FT_QUIT& quit) {
    ft_fail(area, quit.msgnr, printable(get_text(quit.msg_insert)));
}

void Ft_Quitm_FtEnd(FT_AREA* area, const MSG_TYPE_FT_QUIT& quit) {
    if (quit.msgnr != 0) {
        fail_by_partner(area, quit);
        if (area->status == FT_ENDED) {
            area->status = FT_END_FAILED;
        }
    }
    FT_Finish(area);
}

// Where the stream begins: at the front, or behind what the receiver has.
int start_where_wanted(FT_AREA* area, const MSG_TYPE_FT_QUIT& quit, const DATA_FT_STP& stp,
                       int message_length) {
    const bool resume = area->flagResume == FT_DO_RESUME;
    if (message_length <= quit_without_restart) {
        area->flagResume = FT_NO_RESUME;
    }
    if (quit.msgnr != 0) {
        start_anew(area, "the receiver begins its file anew");
        return source_start(area, 0, 0);
    }
    if (!resume) {
        return 0;
    }
    if (area->flagResume != FT_DO_RESUME) {
        return source_start(area, 0, 0);
    }
    // Without a word where the receiver stands the two would not meet.
    return stp.file_name.empty() ? ft_fail(area, number_legacy_restart_refused, "")
                                 : source_start(area, stp.transferred, stp.records);
}

void Ft_Quitm_FtRecv(FT_AREA* area, const MSG_TYPE_FT_QUIT& quit, const DATA_FT_STP& stp,
                     int message_length) {
    const bool anew =
        quit.msgnr == number_legacy_restart_impossible || quit.msgnr == number_legacy_restart_refused;
    if (quit.msgnr != 0 && !anew) {
        area->status = FT_RECEIVE_FAILED;
        fail_by_partner(area, quit);
        FT_Finish(area);
        return;
    }
    if (start_where_wanted(area, quit, stp, message_length) != 0) {
        area->status = FT_DATA_ERROR;
    }
    Ft_Sta(area);
    go_on(area);
}

void Ft_Quitm_FtData(FT_AREA* area, const MSG_TYPE_FT_QUIT& quit) {
    if (quit.msgnr != 0) {
        fail_by_partner(area, quit);
        area->status = FT_RECEIVE_FAILED;
        FT_Finish(area);
        return;
    }
    if (area->next_sta <= alarm_now()) {
        Ft_Sta(area);
    }
    go_on(area);
}

}  // namespace

int process_ft_send(FT_AREA* area, const ccm_msg_t* msg) {
    const auto order = view_record<MSG_TYPE_FT_SEND>(view_of(msg));
    area->peer_name = get_text(order.ft_send.dst_host);
    area->channel = find_partner(area->pcx, area->peer_name);
    if (area->channel == 0) {
        return ft_fail(area, number_legacy_no_connection, area->peer_name + "|");
    }
    __log(number_legacy_started, "%d|%s|", area->transfer_id, printable(area->orig_file).c_str());
    if (Ft_ContSend(area)) {
        send_ft_end(area, 0, "");
        return 0;
    }
    FT_Send_Cnv_Filename(area);
    if (FT_SendOpen(area) != 0 || begin_stream(area) != 0) {
        return -1;
    }
    area->order.assign(reinterpret_cast<const char*>(msg->msg_start), static_cast<size_t>(msg->len));
    area->send_item = FT_AWAITS_RECV;
    send_ft_recv(area);
    return 0;
}

int process_ft_quit(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto quit = view_record<MSG_TYPE_FT_QUIT>(view);
    if (ft_refuse_other_side(pcx, msg, CCM_FROM_PARTNER)) {
        return -1;
    }
    FT_AREA* area = find_ft_area(static_cast<int>(quit.ah_idnr), false, msg->addr.src_ID);
    if (area == nullptr) {
        return -1;  // of a transfer that was given up meanwhile
    }
    area->last_use = alarm_now();
    DATA_FT_STP stp;
    if (take_partner_part(area, view, quit, &stp) != 0) {
        area->status = FT_RECEIVE_FAILED;
        FT_Finish(area);
        return -1;
    }
    switch (area->send_item) {
        case FT_AWAITS_RECV:
            Ft_Quitm_FtRecv(area, quit, stp, msg->len);
            return 0;
        case FT_AWAITS_DATA:
            Ft_Quitm_FtData(area, quit);
            return 0;
        case FT_AWAITS_END:
            Ft_Quitm_FtEnd(area, quit);
            return 0;
        default:
            return -1;
    }
}
