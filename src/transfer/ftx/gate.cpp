// Who may send which message of a transfer where. The channels let in what some process of the agent takes
// from such a partner; here this process and its role decide.
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "messages/head.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"

namespace {

enum role_bit : int { AS_SENDER = 1, AS_RECEIVER = 2, AS_ANY = 3 };

struct gate_row {
    const char* type;
    int agent;   // ccm_origin bits from which the agent takes it
    int worker;  // and a worker
    int roles;   // role_bit of that worker
};

constexpr gate_row gates[] = {
    {"FTXSEND", CCM_FROM_SERVER | CCM_FROM_PARTNER, 0, 0},
    {"FTXSENDQ", CCM_FROM_PARTNER, CCM_FROM_PARTNER, AS_RECEIVER},
    {"FTXRECV", CCM_FROM_PARTNER, 0, 0},
    {"FTXRECVQ", CCM_FROM_PARTNER, 0, 0},
    {"FTXDATA", 0, CCM_FROM_PARTNER, AS_RECEIVER},
    {"FTXEND", 0, CCM_FROM_PARTNER, AS_RECEIVER},
    {"FTXQUIT", 0, CCM_FROM_PARTNER, AS_SENDER},
    {"FTXENDQ", 0, CCM_FROM_PARTNER, AS_SENDER},
    {"FTXREPG", CCM_FROM_SERVER, CCM_FROM_AGENT, AS_ANY},
    {"FTXDEL", CCM_FROM_SERVER, CCM_FROM_AGENT, AS_ANY},
    {"FTXINF", CCM_FROM_SERVER, CCM_FROM_AGENT, AS_ANY},
    {"FTXCANC", CCM_FROM_SERVER, CCM_FROM_AGENT, AS_ANY},
};

const gate_row* row_of(const ccm_msg_t* msg) {
    for (const gate_row& row : gates) {
        if (message_type_is(msg->msg_start, static_cast<size_t>(std::max(msg->len, 0)), row.type)) {
            return &row;
        }
    }
    return nullptr;
}

// A worker has one transfer; without one, what comes is for nobody, and its handler says so.
int own_role() {
    const auto& entries = ftx_entries();
    if (entries.empty()) {
        return AS_ANY;
    }
    return entries.front()->is_sender() ? AS_SENDER : AS_RECEIVER;
}

bool is_flow(const gate_row& row) {
    return row.agent == 0;
}

void refuse(EX_PCX* pcx, const ccm_msg_t* msg, const gate_row& row) {
    const bool partner = msg->origin == CCM_FROM_PARTNER;
    if (pcx->running_mode == MODE_AGENT && is_flow(row)) {
        __log(number_partner_misbehaves, "%d|", view_record<MSG_TYPE_FTXDATA>(view_of(msg)).ah_idnr);
        if (partner) {
            ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
        }
    } else if (partner) {
        ccm_channel_failbyID(pcx->ccm, msg->addr.src_ID, number_type_not_allowed, "%s|", row.type);
    } else {
        __log(number_type_not_allowed, "%s|", row.type);
    }
}

}  // namespace

bool ftx_may_say(EX_PCX* pcx, const ccm_msg_t* msg) {
    const gate_row* row = row_of(msg);
    if (row == nullptr) {
        return true;  // the table's default row tells it
    }
    const bool agent = pcx->running_mode == MODE_AGENT;
    const int origins = agent ? row->agent : row->worker;
    if ((origins & msg->origin) != 0 && (agent || (row->roles & own_role()) != 0)) {
        return true;
    }
    refuse(pcx, msg, *row);
    return false;
}
