#include "transfer/legacy/messages.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "messages/timestamp.h"

namespace {

constexpr int version_with_restart = 2;

int spoken_version(const FT_AREA* area) {
    return area->version >= version_with_restart ? version_with_restart : 1;
}

// A reader of version 1 gets the record up to the fields of version 2.
template <class Record>
built_message in_version(const message_builder<Record>& message, int version) {
    if (version >= version_with_restart) {
        return message;
    }
    return built_message(
        std::span(reinterpret_cast<const unsigned char*>(&message.record), offsetof(Record, stp_dist)));
}

int send_to_partner(FT_AREA* area, ccm_msg_t* msg) {
    if (msg == nullptr) {
        return -1;
    }
    set_route(msg, {.dst_ID = area->channel, .dst_name = ft_module});
    ccm_setback(msg, area->pcx->exName, ft_module, area->transfer_id);
    return send_NAT_message(area->pcx->ccm, msg);
}

message_builder<MSG_TYPE_FT_QUIT> make_ft_quit(const FT_AREA* area, int number, std::string_view insert) {
    message_builder<MSG_TYPE_FT_QUIT> quit(area->head, spoken_version(area));
    quit->ah_idnr = static_cast<uint32_t>(area->transfer_id);
    quit->ts = timestamp_now();
    quit->msgnr = number;
    put_text(quit->msg_insert, insert);
    quit->flagResume = area->flagResume;
    quit->filesize = area->fileSize;
    quit->anzahl = area->covered_bytes();
    quit->records = area->covered_records();
    quit->anzahl_compr = area->anzahl_compr;
    quit.add(MSG_TYPE_FT_QUIT::stp, Ft_CreateDistLen(area));
    return quit;
}

int send_to_server(FT_AREA* area, const char* module) {
    const bool cancelled = area->status == FT_CANCELLED;
    const auto quit = make_ft_quit(area, cancelled ? number_legacy_cancelled : area->Result, area->ft_Insert);
    message_route route = to_kept(area->order_address);
    if (module != nullptr) {
        route.dst_addr = ccm_name_server;
        route.dst_name = module;
    }
    route.src_addr = area->pcx->exName;
    route.src_name = ft_module;
    return send_built(area->pcx->ccm, in_version(quit, spoken_version(area)), route);
}

std::string own_part(const FT_AREA* area) {
    DATA_FT_STP data;
    data.msg_number = area->Result == number_legacy_rename_failed ? number_legacy_rename_failed : 0;
    data.sta_cnt = area->sta_cnt;
    data.file_size = area->fileSize;
    data.transferred = area->covered_bytes();
    data.records = area->covered_records();
    data.compressed = area->anzahl_compr;
    data.folder = path_folder_name(area->file);
    data.file_name = path_file_name(area->file);
    if (area->destination) {
        data.seek = area->target.position;
        data.temp_name = area->target.temporary() ? area->target.working_name : "";
    } else {
        data.seek = area->text() ? 0 : data.transferred;
    }
    return make_stp_part(data);
}

void set_letter(ccm_msg_t* msg, size_t offset, char letter) {
    if (offset < static_cast<size_t>(msg->len)) {
        msg->msg_start[offset] = static_cast<unsigned char>(letter);
    }
}

}  // namespace

// After a failure what is told may not fit what was written, so that the data of the last good answer count.
std::string Ft_CreateDistLen(const FT_AREA* area) {
    const bool sound = area->destination ? area->Result == 0 || area->Result == number_legacy_rename_failed
                                         : area->send_item != FT_AWAITS_NOTHING;
    if (!sound || area->flagResume == FT_NO_RESUME || area->version < version_with_restart) {
        return {};
    }
    return make_restart_data(own_part(area), area->destination ? "" : area->partner_part);
}

int send_ft_recv(FT_AREA* area) {
    ccm_msg_t* msg = message_of(area->pcx->ccm, built_message(area->order));
    if (msg == nullptr) {
        return -1;
    }
    constexpr size_t order = offsetof(MSG_TYPE_FT_RECV, ft_recv);
    memcpy(msg->msg_start, "FT_RECV ", message_type_size);
    set_letter(msg, order + offsetof(MSG_TYPE_FT_SENDU, flag), area->flagResume);
    set_letter(msg, order + offsetof(MSG_TYPE_FT_SENDU, compress), area->compress);
    return send_to_partner(area, msg);
}

int send_ft_data(FT_AREA* area, ccm_msg_t* msg, size_t length) {
    auto data = new_message<MSG_TYPE_FT_DATA>(area->head.i2Mandant, area->head.i4UsrIdNr);
    data.i4transid = static_cast<uint32_t>(area->transfer_id);
    memcpy(msg->msg_start, &data, sizeof data);
    msg->len = static_cast<int>(sizeof data + length);
    area->anzahl_compr += static_cast<int64_t>(length);
    return send_to_partner(area, msg);
}

int send_ft_end(FT_AREA* area, int number, std::string_view insert) {
    message_builder<MSG_TYPE_FT_END> end(area->head, spoken_version(area));
    end->i4transid = static_cast<uint32_t>(area->transfer_id);
    end->cRecDelim = area->source.last_line_open ? FT_NO_DELIMITER : FT_WITH_DELIMITER;
    end->i4retcode = number;
    put_text(end->crettext, insert);
    area->send_item = FT_AWAITS_END;
    end.add(MSG_TYPE_FT_END::stp, Ft_CreateDistLen(area));
    return send_to_partner(area, message_of(area->pcx->ccm, in_version(end, spoken_version(area))));
}

int answer_ft_quit(FT_AREA* area, const ccm_msg_t* request, int number, std::string_view insert) {
    const auto quit = make_ft_quit(area, number, insert);
    return send_built(area->pcx->ccm, in_version(quit, spoken_version(area)), to_sender(request));
}

int answer_ft_quit(FT_AREA* area, const ccm_msg_t* request) {
    return answer_ft_quit(area, request, area->Result, area->ft_Insert);
}

int send_ft_quit(FT_AREA* area) {
    return send_to_server(area, nullptr);
}

int send_ft_quit_lost(FT_AREA* area) {
    return send_to_server(area, ft_module);
}

int Ft_Sta(FT_AREA* area) {
    if (!area->ft_contInsert.empty()) {
        __log(number_legacy_restart_note, "%s", area->ft_contInsert.c_str());
        area->ft_contInsert.clear();
    }
    area->next_sta = alarm_now() + std::max<int>(area->pcx->ftx_sta_intervall, 1);
    const int version = spoken_version(area);
    message_builder<MSG_TYPE_FT_STA> status(area->head, version);
    status->ah_idnr = area->transfer_id;
    status->cnt = ++area->sta_cnt;
    status->filesize = area->fileSize;
    status->anzahl = area->covered_bytes();
    status->records = area->covered_records();
    status->anzahl_compr = area->anzahl_compr;
    status.add(MSG_TYPE_FT_STA::stp, Ft_CreateDistLen(area));
    message_route route = to_kept(area->order_address);
    route.src_addr = area->pcx->exName;
    route.src_name = ft_module;
    return send_built(area->pcx->ccm, in_version(status, version), route);
}

void refuse_ft_order(FT_AREA* area, const ccm_msg_t* msg) {
    __log(area->Result, "%s", area->ft_Insert.c_str());
    if (area->destination) {
        answer_ft_quit(area, msg);
    } else {
        send_ft_quit(area);
    }
    __log(number_transfer_failed, "%d|", area->transfer_id);
}
