// The receiver's side of a transfer, from FT_RECV to the answer to FT_END.
#include <algorithm>
#include <cerrno>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/legacy/destination.h"
#include "transfer/legacy/messages.h"
#include "transfer/legacy/module.h"
#include "transfer/legacy/order.h"
#include "transfer/legacy/sides.h"

namespace {

std::string partner_name(EX_PCX* pcx, const ccm_msg_t* msg) {
    ccm_channel_image_t channel;
    if (ccm_channel_copy(pcx->ccm, msg->addr.src_ID, &channel) != 0) {
        return std::string(field_text(msg->addr.src_addr));
    }
    return std::string(field_text(channel.name));
}

// An uncompressed stream comes without the two bytes that a compressed one begins with.
int give_header(FT_AREA* area) {
    const char header[2] = {area->text() ? char{compress_record} : '\0', '\0'};
    return area->compress == FT_PLAIN ? dcsWrite(area->decompressor, header, sizeof header, &area->cmpMsg)
                                      : 0;
}

int open_decompressor(FT_AREA* area) {
    area->decompressor =
        dcsOpen(area, area->text() ? compress_record : 0, WriteAfterDeCompress, &area->cmpMsg);
    if (area->decompressor == nullptr || give_header(area) != 0) {
        return ft_fail(area, area->cmpMsg.code, area->cmpMsg.text);
    }
    return 0;
}

void close_decompressor(FT_AREA* area) {
    DecompressFile* decompressor = area->decompressor;
    area->decompressor = nullptr;
    area->cmpMsg = {};
    if (dcsClose(decompressor, &area->cmpMsg) != 0) {
        ft_fail(area, area->cmpMsg.code, area->cmpMsg.text);
    }
}

void end_with_failure(FT_AREA* area, const ccm_msg_t* msg) {
    __log(area->Result, "%s", area->ft_Insert.c_str());
    answer_ft_quit(area, msg);
    ft_log_end(area);
    target_give_up(area);
    Delete_FtArea(area);
}

// A partner that waits for an answer about a transfer that nobody has gets one.
int answer_unknown(EX_PCX* pcx, const ccm_msg_t* msg, int transfer_id) {
    FT_AREA nobody;
    nobody.pcx = pcx;
    nobody.transfer_id = transfer_id;
    nobody.head = view_head(view_of(msg));
    nobody.destination = true;
    ft_fail(&nobody, number_data_unknown, std::to_string(transfer_id) + "|" + partner_name(pcx, msg) + "|");
    __log(nobody.Result, "%s", nobody.ft_Insert.c_str());
    answer_ft_quit(&nobody, msg);
    return -1;
}

// ---- FT_END

int finish(FT_AREA* area, const ccm_msg_t* msg) {
    if (area->Result == 0 && target_close(area) == 0) {
        area->status = FT_ENDED;
        target_rename(area);
    }
    if (area->Result != 0) {
        __log(area->Result, "%s", area->ft_Insert.c_str());
        target_give_up(area);
    }
    ft_log_end(area);
    return answer_ft_quit(area, msg);
}

// The sender repeats an end whose rename had failed.
int end_again(EX_PCX* pcx, const ccm_msg_t* msg, const MSG_TYPE_FT_END& end) {
    const int id = static_cast<int>(end.i4transid);
    const std::string partner = partner_name(pcx, msg);
    restart_parts parts;
    DATA_FT_STP stp;
    std::unique_ptr<FT_AREA> area;
    if (read_restart_data(view_data(view_of(msg), end.stp_dist, end.stp_len), &parts) &&
        read_stp_part(parts.copied, &stp)) {
        area = Ft_ContEnd(pcx, id, partner, stp);
    }
    if (area == nullptr) {
        __log(number_legacy_unknown, "FT_END|%s|%s|%d|", pcx->exName, printable(partner).c_str(), id);
        __log(end.i4retcode == 0 ? number_transfer_ended : number_transfer_failed, "%d|", id);
        ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
        return -1;
    }
    area->head = end.header;
    area->version = message_version(&end.header);
    if (end.i4retcode != 0) {
        ft_fail(area.get(), end.i4retcode, get_text(end.crettext));
    }
    if (area->Result != 0 || target_rename(area.get()) != 0) {
        __log(area->Result, "%s", area->ft_Insert.c_str());
    }
    ft_log_end(area.get());
    return answer_ft_quit(area.get(), msg);
}

}  // namespace

int process_ft_recv(FT_AREA* area, const ccm_msg_t* msg) {
    area->channel = msg->addr.src_ID;
    area->peer_name = partner_name(area->pcx, msg);
    __log(number_legacy_started, "%d|%s|", area->transfer_id, printable(area->orig_file).c_str());
    if (firstFT().size() >= ft_areas_max) {
        return ft_call_failed(area, "FT_Recv()", area->orig_file, EMFILE);
    }
    FT_Recv_Cnv_Filename(area);
    if (target_find(area) != 0 || FT_WriteFF(area) != 0) {
        return -1;
    }
    __log(number_file_received, "%d|%s|", area->transfer_id, printable(area->file).c_str());
    const int refused = FT_RecvOpen(area);
    if (refused < 0 || open_decompressor(area) != 0) {
        target_give_up(area);
        return -1;
    }
    answer_ft_quit(area, msg, refused, "");
    return 0;
}

int process_ft_data(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto data = view_record<MSG_TYPE_FT_DATA>(view_of(msg));
    const int id = static_cast<int>(data.i4transid);
    if (ft_refuse_other_side(pcx, msg, CCM_FROM_PARTNER)) {
        return -1;
    }
    FT_AREA* area = find_ft_area(id, true, msg->addr.src_ID);
    if (area == nullptr) {
        return answer_unknown(pcx, msg, id);
    }
    area->last_use = alarm_now();
    area->block_started_ms = alarm_now_ms();
    const int length = std::max(msg->len - static_cast<int>(sizeof data), 0);
    const char* bytes = reinterpret_cast<const char*>(msg->msg_start) + sizeof data;
    if (area->status == FT_CANCELLED) {
        ft_fail(area, number_transfer_cancelled, std::to_string(id) + "|");
    } else if (length > 0 && dcsWrite(area->decompressor, bytes, length, &area->cmpMsg) != 0) {
        ft_fail(area, area->cmpMsg.code, area->cmpMsg.text);
    }
    if (area->Result != 0 || target_flush(area) != 0) {
        end_with_failure(area, msg);
        return -1;
    }
    area->anzahl_compr += length;
    area->fileSize = area->target.position;
    return answer_ft_quit(area, msg);
}

int process_ft_end_message(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto end = view_record<MSG_TYPE_FT_END>(view_of(msg));
    if (ft_refuse_other_side(pcx, msg, CCM_FROM_PARTNER)) {
        return -1;
    }
    FT_AREA* area = find_ft_area(static_cast<int>(end.i4transid), true, msg->addr.src_ID);
    if (area == nullptr) {
        return end_again(pcx, msg, end);
    }
    area->block_started_ms = alarm_now_ms();
    if (end.i4retcode != 0) {
        ft_fail(area, end.i4retcode, get_text(end.crettext));
    }
    close_decompressor(area);
    if (area->Result == 0 && (end.cRecDelim != FT_NO_DELIMITER || ft_config().end_delimiter)) {
        target_last_end(area);
    }
    finish(area, msg);
    Delete_FtArea(area);
    return 0;
}
