// Orders as they come, and what ends a transfer from outside: a cancel, a partner that is silent or gone.
#include <cstring>
#include <vector>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/messages.h"
#include "channels/replies.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/legacy/destination.h"
#include "transfer/legacy/directory.h"
#include "transfer/legacy/messages.h"
#include "transfer/legacy/module.h"
#include "transfer/legacy/order.h"
#include "transfer/legacy/sides.h"
#include "transfer/legacy/source.h"

namespace {

constexpr int agent_channels_max = 4096;
constexpr char module_of_connect[] = "FT";

// Those of one channel, or all with 0. An area may go while they are looked at one by one.
std::vector<FT_AREA*> areas_of(int channel) {
    std::vector<FT_AREA*> found;
    for (const auto& area : firstFT()) {
        if (channel == 0 || area->channel == channel) {
            found.push_back(area.get());
        }
    }
    return found;
}

bool is_known(const FT_AREA& area) {
    return find_ft_area(area.transfer_id, area.destination, 0) != nullptr;
}

bool answer_upgrade(EX_PCX* pcx, ccm_msg_t* msg, FT_AREA* area) {
    if (pcx->upgrade_ah_idnr == 0) {
        return false;
    }
    if (area->destination) {
        // A partner understands no QUITT.
        answer_ft_quit(area, msg, number_upgrade_running, "");
    } else {
        send_quitt_reply(pcx, msg, number_upgrade_running, "", "NK", nullptr, 0);
    }
    return true;
}

// ---- FT_CHK

void end_silent_sender(FT_AREA* area) {
    EX_PCX* pcx = area->pcx;
    source_close(area);
    const std::string insert = printable(area->peer_name) + "|";
    __log(number_legacy_silent, "%s", insert.c_str());
    ft_fail(area, number_legacy_silent, insert);
    send_ft_quit(area);
    area->send_item = FT_TIMED_OUT;
    const bool alone = areas_of(area->channel).size() == 1;
    if (!alone || ccm_channel_deletebyID(pcx->ccm, area->channel) != 0) {
        ft_log_end(area);
        Delete_FtArea(area);
    }
}

void end_silent_receiver(FT_AREA* area) {
    const std::string insert = printable(area->peer_name) + "|";
    __log(number_legacy_silent, "%s", insert.c_str());
    ft_fail(area, number_legacy_silent, insert);
    target_give_up(area);
    ft_log_end(area);
    Delete_FtArea(area);
}

// The sender gives up first; who outlives that has lost his sender.
void check_area(FT_AREA* area, time_t now) {
    const time_t silent = now - area->last_use;
    if (area->destination) {
        if (silent >= 2 * ft_idle_limit) {
            end_silent_receiver(area);
        }
    } else if (silent >= ft_idle_limit && area->send_item != FT_TIMED_OUT) {
        end_silent_sender(area);
    }
}

// A connection that CONNECT has made and that no transfer uses any more.
bool is_left_over(EX_PCX* pcx, int id, time_t now) {
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, id);
    if (channel == nullptr) {
        return false;
    }
    const bool ordered = channel->cuc != nullptr &&
                         get_word_delimited(field_text(channel->cuc->key), ' ', 1) == module_of_connect &&
                         (channel->flag & CH_FLAG_SEALED) != 0;
    const bool silent = now - channel->timestamp_last_io >= ft_connection_idle;
    ccm_channel_unlock(pcx->ccm);
    return ordered && silent && areas_of(id).empty();
}

void close_left_over(EX_PCX* pcx, time_t now) {
    std::vector<int> ids(agent_channels_max);
    const int count = ccm_channel_collect(pcx->ccm, CH_TYPE_AGENT, ids.data(), agent_channels_max);
    for (int i = 0; i < count; ++i) {
        const int id = ids[static_cast<size_t>(i)];
        if (is_left_over(pcx, id, now)) {
            ccm_channel_deletebyID(pcx->ccm, id);
        }
    }
}

}  // namespace

bool ft_refuse_other_side(EX_PCX* pcx, const ccm_msg_t* msg, ccm_origin origin) {
    if (msg->origin == origin) {
        return false;
    }
    const QX_HEADM head = view_head(view_of(msg));
    const std::string type(printable(rstrip(std::string_view(head.msg_typ, message_type_size))));
    __log(number_type_not_allowed, "%s|", type.c_str());
    if (msg->origin == CCM_FROM_PARTNER) {
        ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
    }
    return true;
}

int process_ft_send_recv(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const QX_HEADM head = view_head(view_of(msg));
    const bool receiver = memcmp(head.msg_typ, "FT_SEND", 7) != 0;
    if (ft_refuse_other_side(pcx, msg, receiver ? CCM_FROM_PARTNER : CCM_FROM_SERVER)) {
        return -1;
    }
    std::unique_ptr<FT_AREA> area = create_ft_area(pcx, msg, receiver);
    if (answer_upgrade(pcx, msg, area.get())) {
        return -1;
    }
    if (area->Result == 0 && is_known(*area)) {
        ft_fail(area.get(), number_transfer_known, std::to_string(area->transfer_id) + "|");
    }
    if (area->Result != 0 || (receiver ? process_ft_recv : process_ft_send)(area.get(), msg) != 0) {
        refuse_ft_order(area.get(), msg);
        return -1;
    }
    add_ft_area(std::move(area));
    return 0;
}

int process_ft_cancel(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto order = view_record<MSG_TYPE_FT_CAN>(view_of(msg));
    if (ft_refuse_other_side(pcx, msg, CCM_FROM_SERVER)) {
        return -1;
    }
    const std::string insert = std::to_string(order.ah_idnr) + "|";
    __log(number_cancel_ordered, "%s", insert.c_str());
    FT_AREA* area = find_ft_area(order.ah_idnr, false, 0);
    if (area == nullptr) {
        area = find_ft_area(order.ah_idnr, true, 0);
    }
    if (area == nullptr) {
        __log(number_cancel_unknown, "%s", insert.c_str());
        return send_quitt_reply(pcx, msg, number_cancel_unknown, insert.c_str(), "NK", nullptr, 0);
    }
    if (area->send_item == FT_AWAITS_END) {
        __log(number_cancel_too_late, "%s", insert.c_str());
        return send_quitt_reply(pcx, msg, number_cancel_too_late, insert.c_str(), "NK", nullptr, 0);
    }
    area->status = FT_CANCELLED;
    return send_quitt_reply(pcx, msg, number_cancel_begun, insert.c_str(), "OK", nullptr, 0);
}

int process_ft_chk(EX_PCX* pcx, ccm_msg_t*, int) {
    const time_t now = alarm_now();
    for (FT_AREA* area : areas_of(0)) {
        check_area(area, now);
    }
    ft_drop_silent_lists(now);
    close_left_over(pcx, now);
    return 0;
}

void process_ft_stop(EX_PCX*, int channel) {
    if (channel == 0) {
        return;
    }
    for (FT_AREA* area : areas_of(channel)) {
        const std::string insert = printable(area->peer_name) + "|";
        __log(number_legacy_partner_lost, "%s", insert.c_str());
        ft_fail(area, number_legacy_partner_lost, insert);
        if (area->destination) {
            target_give_up(area);
        } else {
            source_close(area);
            if (area->send_item != FT_TIMED_OUT) {
                send_ft_quit_lost(area);
            }
        }
        ft_log_end(area);
        Delete_FtArea(area);
    }
}

int ft_connection_success(EX_PCX* pcx, const ccm_connect_user_context_t& context) {
    const ccm_addr_t& asker = context.ccmaddr;
    return send_quitt_extended(pcx, 0, asker.src_name, asker.dst_name, asker.src_acv, "CONNECT ",
                               context.client, context.user, 0, "", "OK", nullptr, 0);
}
