// The connection between the two agents: who opens it, and what its end means while no worker has it.
#include "channels/connect.h"

#include <cerrno>
#include <cstring>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/order_token.h"
#include "log/log.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/flow.h"

namespace {

constexpr int port_max = 65535;
constexpr int usual_wait = 60;

int check_peer(const ftx_entry* ftx, qx7_error* err) {
    const std::string_view name = get_text(ftx->ftx_connect_name);
    const std::string_view address = get_text(ftx->ftx_connect_ip);
    const bool good = ccm_name_acceptable(name.data(), name.size()) && !address.empty() &&
                      ftx->ftx_connect_port > 0 && ftx->ftx_connect_port <= port_max;
    return good ? 0
                : qx_error_set(err, -1, EINVAL, number_read_failed, "%s:%d|%s|", printable(address).c_str(),
                               ftx->ftx_connect_port, error_text(EINVAL).c_str());
}

// The credential for the peer; an order's token must hold one.
int take_credential(EX_PCX* pcx, const ftx_entry* ftx, gss_cred_id_t* credential, qx7_error* err) {
    if (take_order_token(pcx, ftx->token, credential, err) != 0) {
        return -1;
    }
    return *credential != nullptr
               ? 0
               : qx_error_set(err, -1, GSS_MINOR_CREDENTIAL, number_security_call,
                              "gss_accept_sec_context|%u|%u|", static_cast<unsigned>(GSS_S_NO_CRED),
                              static_cast<unsigned>(GSS_MINOR_CREDENTIAL));
}

ccm_connect_user_context_t* new_context(const ftx_entry* ftx, const ccm_msg_t* msg) {
    ccm_connect_user_context_t* context = ccm_user_context_new(static_cast<int>(ftx->token.size()));
    if (context == nullptr) {
        return nullptr;
    }
    copy_text(context->key, ftx_connect_key(ftx->ftx_transfer_id));
    copy_text(context->name, get_text(ftx->ftx_connect_name));
    context->client = ftx->ftx_Mandant;
    context->user = static_cast<int>(ftx->ftx_UsrIdNr);
    context->ccmaddr = msg->addr;
    if (!ftx->token.empty()) {
        memcpy(ccm_user_context_content(context), ftx->token.data(), ftx->token.size());
    }
    return context;
}

ftx_connect_result told(ftx_entry* ftx, ftx_connect_result result, const qx7_error& err) {
    ftx_set_message(ftx, err.qx_msgnr, err.qx_msgInsert);
    return result;
}

// What the end of a channel says; without a number it was closed.
struct end_reason {
    int number;
    std::string insert;
};
end_reason reason_of(const ccm_channel_image_t& channel, int ah_idnr) {
    if (channel.msgnr > 0) {
        return {channel.msgnr, std::string(field_text(channel.msginsert))};
    }
    return {number_transfer_connection_closed, std::to_string(ah_idnr) + "|"};
}

// ---- The end of a channel in the agent

// A channel that ends for a reason has told it itself.
void log_end(const ccm_channel_image_t& channel, int ah_idnr) {
    if (channel.msgnr <= 0) {
        __log(number_transfer_connection_closed, "%d|", ah_idnr);
    }
    __log(number_transfer_failed, "%d|", ah_idnr);
}

void area_ended(EX_PCX* pcx, const __ftx_reverse_connect_savearea* area, const ccm_channel_image_t& channel) {
    if (!area->answered) {
        log_end(channel, area->ah_idnr);
        const end_reason reason = reason_of(channel, area->ah_idnr);
        ftx_quit_order(pcx, ftx_asker_of(*area), reason.number, reason.insert.c_str());
    }
    ftx_free_area(area);
}

void waiting_entry_ended(EX_PCX* pcx, ftx_entry* ftx, const ccm_channel_image_t& channel) {
    const end_reason reason = reason_of(channel, ftx->ftx_transfer_id);
    log_end(channel, ftx->ftx_transfer_id);
    if (ftx->has(FTX_DIRECT)) {
        ftx_quit_order(pcx, ftx_asker_of(ftx), reason.number, reason.insert.c_str());
    } else if (ftx->is_sender()) {
        ftx_answer_order(pcx, ftx_asker_of(ftx), reason.number, reason.insert);
    }
    FreeFtxEntry(ftx);
}

// ---- The end of the partner in a worker

void receiver_alone(EX_PCX* pcx, ftx_entry* ftx) {
    if (!ftx->end_answered) {
        __log(number_transfer_connection_closed, "%d|", ftx->ftx_transfer_id);
    }
    dst_closeUnfinished(ftx);
    dst_settle(ftx);
    ftx_process_shutdown(pcx, ftx);
    FreeFtxEntry(ftx);
}

void sender_alone(EX_PCX* pcx, ftx_entry* ftx, const ccm_channel_image_t& channel) {
    if (ftx->ftx_progress == FTX_FINISHED) {
        return;
    }
    if (channel.msgnr > 0) {
        __log(channel.msgnr, "%s", printable(field_text(channel.msginsert)).c_str());
    }
    __log(number_transfer_connection_lost, "%d|", ftx->ftx_transfer_id);
    putFtxLog(ftx, number_transfer_connection_lost, "%d|", ftx->ftx_transfer_id);
    const std::string insert = std::to_string(ftx->ftx_transfer_id) + "|";
    if (ftx_lists_in_vain(ftx)) {
        ftx_answer_order(pcx, ftx_asker_of(ftx), number_transfer_connection_closed, insert);
        ftx_process_shutdown(pcx, ftx);
        FreeFtxEntry(ftx);
        return;
    }
    ftx_set_message(ftx, number_transfer_connection_closed, insert);
    ftx_end_with_error(pcx, ftx);
}

bool is_over(int64_t since, int limit) {
    return since != 0 && alarm_now() - since > limit;
}

void give_up(EX_PCX* pcx, int channel, int limit) {
    ccm_channel_image_t image;
    if (ccm_channel_copy(pcx->ccm, channel, &image) == 0) {
        ccm_channel_failbyID(pcx->ccm, channel, number_no_answer, "%s|%d|", image.host, limit);
    }
}

}  // namespace

std::string ftx_connect_key(int ah_idnr) {
    return "FTX " + std::to_string(ah_idnr);
}

// ---- Opening

ftx_connect_result ftx_initiate_connection(EX_PCX* pcx, ftx_entry* entry, const ccm_msg_t* msg) {
    qx7_error err;
    if (check_peer(entry, &err) != 0) {
        return told(entry, FTX_CONNECT_FAILED, err);
    }
    gss_cred_id_t credential = nullptr;
    if (take_credential(pcx, entry, &credential, &err) != 0) {
        return told(entry, FTX_CONNECT_REFUSED, err);
    }
    ccm_connect_user_context_t* context = new_context(entry, msg);
    if (context == nullptr) {
        OM_uint32 minor = 0;
        gss_release_cred(&minor, &credential);
        call_error(&err, "calloc", ENOMEM);
        return told(entry, FTX_CONNECT_FAILED, err);
    }
    context->pDelegCred = credential;
    const std::string address(get_text(entry->ftx_connect_ip));
    entry->connecting_ID = ccm_connect(pcx->ccm, address.c_str(), entry->ftx_connect_port, CH_TYPE_AGENT,
                                       context, ftx_glb().ftx_connectionTimeout, &err);
    if (entry->connecting_ID < 0) {
        entry->connecting_ID = 0;
        ccm_user_context_free(context);
        return told(entry, FTX_CONNECT_FAILED, err);
    }
    return FTX_CONNECT_BEGUN;
}

void ftx_connection_succeeded(EX_PCX* pcx, int ah_idnr, int channel) {
    int sent = -1;
    if (__ftx_reverse_connect_savearea* area = ftx_area_of(ah_idnr)) {
        area->partnerID = channel;
        area->sent = true;
        area->waits_since = alarm_now();
        sent = ftx_send_ftxsend2sender(pcx, area);
    } else if (ftx_entry* ftx = getFtxByIdnr(ah_idnr)) {
        ftx->partnerID = channel;
        ftx->waits_since = alarm_now();
        sent = ftx_send_ftxrecv(pcx, ftx);
    }
    if (sent != 0) {
        ccm_channel_deletebyID(pcx->ccm, channel);  // its end tells, if somebody still waits
    }
}

// ---- Ends

void ftx_connection_failed(EX_PCX* pcx, int ah_idnr, const ccm_channel_image_t& channel) {
    const __ftx_reverse_connect_savearea* area = ftx_area_of(ah_idnr);
    ftx_entry* ftx = getFtxByIdnr(ah_idnr);
    if (area != nullptr && area->partnerID == channel.ID) {
        area_ended(pcx, area, channel);
    } else if (ftx != nullptr && (ftx->connecting_ID == channel.ID || ftx->partnerID == channel.ID)) {
        waiting_entry_ended(pcx, ftx, channel);
    }
}

void ftx_connection_closed(EX_PCX* pcx, const ccm_channel_image_t& channel) {
    if (pcx->running_mode == MODE_LISTENER) {
        return;
    }
    ftx_entry* ftx = getFtxByPartnerID(channel.ID);
    if (pcx->running_mode == MODE_AGENT) {
        if (const auto* area = ftx_area_on(channel.ID)) {
            area_ended(pcx, area, channel);
        }
        if (ftx != nullptr) {
            waiting_entry_ended(pcx, ftx, channel);
        }
        return;
    }
    if (ftx == nullptr) {
        return;
    }
    if (ftx->is_sender()) {
        sender_alone(pcx, ftx, channel);
    } else {
        receiver_alone(pcx, ftx);
    }
}

void ftx_check_waiting_orders(EX_PCX* pcx) {
    const int limit = pcx->ftx_con_timeout > 0 ? pcx->ftx_con_timeout : usual_wait;
    for (const auto& area : ftx_glb().reverse_connect_queue) {
        if (!area.answered && is_over(area.waits_since, limit)) {
            give_up(pcx, area.partnerID, limit);
        }
    }
    for (const auto& entry : ftx_entries()) {
        if (entry->ftx_progress == FTX_STARTING && is_over(entry->waits_since, limit)) {
            give_up(pcx, entry->partnerID, limit);
        }
    }
}

// ---- Orders that wait at the receiver

namespace {

template <class Condition>
__ftx_reverse_connect_savearea* find_area(Condition wanted) {
    for (__ftx_reverse_connect_savearea& area : ftx_glb().reverse_connect_queue) {
        if (wanted(area)) {
            return &area;
        }
    }
    return nullptr;
}

}  // namespace

__ftx_reverse_connect_savearea* ftx_area_of(int ah_idnr) {
    return find_area([ah_idnr](const auto& area) { return area.ah_idnr == ah_idnr; });
}

__ftx_reverse_connect_savearea* ftx_area_on(int channel) {
    return find_area([channel](const auto& area) { return area.partnerID == channel; });
}

void ftx_add_area(const ftx_entry* ftx) {
    ftx_glb().reverse_connect_queue.push_back({.ah_idnr = ftx->ftx_transfer_id,
                                               .partnerID = ftx->connecting_ID,
                                               .sent = false,
                                               .answered = false,
                                               .waits_since = 0,
                                               .ftx_UsrIdNr = ftx->ftx_UsrIdNr,
                                               .ftx_Mandant = ftx->ftx_Mandant,
                                               .order_address = ftx->order_address,
                                               .ftxsend = ftx->order});
}

void ftx_free_area(const __ftx_reverse_connect_savearea* area) {
    ftx_glb().reverse_connect_queue.remove_if([area](const auto& one) { return &one == area; });
}
