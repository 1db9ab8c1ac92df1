#include "channels/policy.h"

#include <cstring>
#include <iterator>

#include "base/message_numbers.h"
#include "channels/internal.h"
#include "messages/frame.h"
#include "messages/head.h"

// A process that talks to strangers may have been taken over: what it may say is what it needs to say.
const ccm_policy_ipc_row ccm_policy_ipc[] = {
    // name, receivers, senders, size, variable
    {"TIMER_FIRE", CCM_IN_AGENT | CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_SELF, sizeof(ipcmsg_timer_fire_t),
     false},
    {"CHANNEL_CLOSE", CCM_IN_AGENT | CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_SELF,
     sizeof(ipcmsg_channel_close_t), false},
    {"CHANNEL_ACCEPT", CCM_IN_AGENT | CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_SELF,
     sizeof(ipcmsg_channel_id_t), false},
    {"GSSHS_OK", CCM_IN_AGENT | CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_SELF, sizeof(ipcmsg_channel_id_t),
     false},
    {"SIGCHLD", CCM_IN_AGENT | CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_SELF, sizeof(ipcmsg_sigchld_t),
     false},
    {"JOBCHK", CCM_IN_AGENT, CCM_FROM_SELF, sizeof(ipcmsg_header_t), false},
    {"FT_CHK", CCM_IN_AGENT, CCM_FROM_SELF, sizeof(ipcmsg_header_t), false},
    {"FHCHK", CCM_IN_AGENT, CCM_FROM_SELF, sizeof(ipcmsg_header_t), false},
    {"CMD_CHK", CCM_IN_AGENT, CCM_FROM_SELF, sizeof(ipcmsg_header_t), false},
    {"IOSCHK", CCM_IN_AGENT, CCM_FROM_SELF, sizeof(ipcmsg_header_t), false},
    {"FTXCHK", CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_SELF, sizeof(ipcmsg_header_t), false},
    {"TRACE_FLUSH", CCM_IN_AGENT, CCM_FROM_SELF, sizeof(ipcmsg_trace_flush_t), false},
    {"TRACE_FLUSH", CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_SELF | CCM_FROM_AGENT,
     sizeof(ipcmsg_trace_flush_t), false},
    {"LOGGING", CCM_IN_AGENT, CCM_FROM_LISTENER | CCM_FROM_WORKER, sizeof(ipcmsg_logging_t), false},
    {"PINGQ", CCM_IN_AGENT, CCM_FROM_LISTENER, sizeof(ipcmsg_ping_t), false},
    {"LISTENER_OK", CCM_IN_AGENT, CCM_FROM_LISTENER, sizeof(ipcmsg_header_t), false},
    {"NATMELD", CCM_IN_AGENT, CCM_FROM_LISTENER, sizeof(ipcmsg_natmeld_t), true},
    {"GSSHS_REMOTE", CCM_IN_AGENT, CCM_FROM_LISTENER, sizeof(ipcmsg_gsshs_remote_t), true},
    {"PASSFD", CCM_IN_AGENT, CCM_FROM_LISTENER, sizeof(ipcmsg_passfd_t), false},
    {"ROUTENAT", CCM_IN_AGENT, CCM_FROM_WORKER, sizeof(ipcmsg_routenat_t), true},
    {"FTX_FINISH", CCM_IN_AGENT, CCM_FROM_WORKER, sizeof(ipcmsg_ftx_finish_t), false},
    {"PING", CCM_IN_LISTENER, CCM_FROM_AGENT, sizeof(ipcmsg_ping_t), false},
    {"NATQUITT", CCM_IN_LISTENER, CCM_FROM_AGENT, sizeof(ipcmsg_natquitt_t), true},
    {"GSSHS_REMOTE", CCM_IN_LISTENER, CCM_FROM_AGENT, sizeof(ipcmsg_gsshs_remote_t), true},
    {"PASSFD_QUITT", CCM_IN_LISTENER, CCM_FROM_AGENT, sizeof(ipcmsg_passfd_quitt_t), false},
    {"REMOTE_CLOSE", CCM_IN_LISTENER, CCM_FROM_AGENT, sizeof(ipcmsg_remote_close_t), false},
    {"SHUTDOWN", CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_AGENT, sizeof(ipcmsg_header_t), false},
};
const size_t ccm_policy_ipc_count = std::size(ccm_policy_ipc);

namespace {

struct nat_row {
    const char* module;  // null: every module
    const char* type;    // null: every type
    int receivers;
    int origins;
};

constexpr nat_row nat_rows[] = {
    {nullptr, nullptr, CCM_IN_AGENT, CCM_FROM_SERVER},
    // Of these the agent and its workers take those of their role only (transfer/ftx/gate.cpp).
    {"QXFTXEX", "FTXSEND", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXRECV", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXRECVQ", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXSENDQ", CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXDATA", CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXQUIT", CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXEND", CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_PARTNER},
    {"QXFTXEX", "FTXENDQ", CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_PARTNER},
    {"QXFTEX", "FT_RECV", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXFTEX", "FT_DATA", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXFTEX", "FT_END", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXFTEX", "FT_QUIT", CCM_IN_AGENT, CCM_FROM_PARTNER},
    {"QXEXVAR", "TRCSET", CCM_IN_LISTENER | CCM_IN_WORKER, CCM_FROM_AGENT},
    {"QXFTXEX", "FTXCANC", CCM_IN_WORKER, CCM_FROM_AGENT},
    {"QXFTXEX", "FTXDEL", CCM_IN_WORKER, CCM_FROM_AGENT},
    {"QXFTXEX", "FTXREPG", CCM_IN_WORKER, CCM_FROM_AGENT},
    {"QXFTXEX", "FTXINF", CCM_IN_WORKER, CCM_FROM_AGENT},
    {"JPAKTJ_R", "MELD", CCM_IN_LISTENER, CCM_FROM_STRANGER},
};

struct native_row {
    int key;
    int receivers;
    int origins;
    ccm_policy_result result;
};

constexpr native_row native_rows[] = {
    {key_close_connection, CCM_IN_AGENT | CCM_IN_WORKER,
     CCM_FROM_SERVER | CCM_FROM_CANDIDATE | CCM_FROM_CALLED | CCM_FROM_PARTNER, CCM_POLICY_ACCEPT},
    {key_close_connection, CCM_IN_LISTENER, CCM_FROM_STRANGER, CCM_POLICY_ACCEPT},
    {key_executor_data, CCM_IN_AGENT, CCM_FROM_CALLED, CCM_POLICY_ACCEPT},
    {key_executor_data, CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_PARTNER, CCM_POLICY_DROP},
    {key_executor_data, CCM_IN_LISTENER, CCM_FROM_STRANGER, CCM_POLICY_ACCEPT},
    {key_server_data, CCM_IN_AGENT, CCM_FROM_CANDIDATE | CCM_FROM_SERVER, CCM_POLICY_ACCEPT},
    {key_cp_list, CCM_IN_AGENT, CCM_FROM_SERVER, CCM_POLICY_ACCEPT},
    {key_cp_list, CCM_IN_AGENT, CCM_FROM_CANDIDATE, CCM_POLICY_DROP},
    {key_system_shutdown, CCM_IN_AGENT, CCM_FROM_SERVER, CCM_POLICY_ACCEPT},
    // Items without a handler, and a frame that holds addresses only.
    {key_protocol_59, CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_SERVER | CCM_FROM_PARTNER, CCM_POLICY_DROP},
    {0, CCM_IN_AGENT | CCM_IN_WORKER, CCM_FROM_SERVER | CCM_FROM_PARTNER, CCM_POLICY_DROP},
};

// What a worker has to say to the server, and nothing else, comes over the agent.
bool may_be_routed(const unsigned char* body, int len) {
    ipcmsg_routenat_t record;
    memcpy(&record, body, sizeof record);
    const std::string_view address = field_text(record.addr.dst_addr);
    if (address != ccm_name_server && !address.starts_with("*CP")) {
        return false;
    }
    const size_t size = static_cast<size_t>(len) - sizeof record;
    for (const char* type : {"FTXSENDQ", "FTXSTA", "FTXWRITE", "QUITT"}) {
        if (message_type_is(body + sizeof record, size, type)) {
            return true;
        }
    }
    return false;
}

bool is_routed(const ccm_policy_ipc_row& row) {
    return memcmp(row.name, ipc_routenat, sizeof row.name) == 0;
}

// The length that a variable record tells, in the last 4 bytes of its fixed part.
bool size_fits(const ccm_policy_ipc_row& row, const unsigned char* body, int len) {
    if (!row.variable) {
        return len == row.size;
    }
    if (len < row.size) {
        return false;
    }
    int32_t told;
    memcpy(&told, body + row.size - static_cast<int>(sizeof told), sizeof told);
    return told >= 0 && told == len - row.size;
}

bool in(int bits, int one) {
    return (bits & one) != 0;
}

int receiver_of(const EX_PCX* pcx) {
    switch (pcx->running_mode) {
        case MODE_LISTENER:
            return CCM_IN_LISTENER;
        case MODE_FTX:
            return CCM_IN_WORKER;
        default:
            return CCM_IN_AGENT;
    }
}

ccm_policy_result judge(EX_PCX* pcx, const ccm_msg_t* msg, int receiver, int origin) {
    switch (msg->type) {
        case CCM_MSG_IPC:
            return ccm_policy_judge_ipc(receiver, origin, msg->msg_start, msg->len);
        case CCM_MSG_NAT:
            return ccm_policy_judge_nat(receiver, origin, msg->addr.dst_name, msg->msg_start, msg->len);
        case CCM_MSG_GSS:
            // A candidate counts only once it was chosen and the search is over.
            if (origin == CCM_FROM_CANDIDATE) {
                ccm_channel_image_t image;
                bool chosen = ccm_channel_copy(pcx->ccm, msg->addr.src_ID, &image) == 0 &&
                              field_text(image.name) == ccm_name_server &&
                              (pcx->pcx_flag.load() & PCX_FLAG_CP_SEARCH) == 0;
                return chosen ? ccm_policy_judge_gss(receiver, origin) : CCM_POLICY_REFUSE;
            }
            return ccm_policy_judge_gss(receiver, origin);
        default:
            return ccm_policy_judge_native(receiver, origin, msg->protocol_key);
    }
}

std::string shown_name(const unsigned char* text, int len, int width) {
    return printable(rstrip(std::string_view(
        reinterpret_cast<const char*>(text),
        strnlen(reinterpret_cast<const char*>(text), static_cast<size_t>(std::min(len, width))))));
}

// Offset and key as the checks of a frame write them.
std::string shown_key(int key) {
    char text[16];
    snprintf(text, sizeof text, "0|%.2x", static_cast<unsigned>(key));
    return text;
}

// A line for the operator: what came, from whom; then the channel ends.
void end_sender(ccm_context_t* ccm, const ccm_msg_t* msg) {
    int id = msg->addr.src_ID;
    ccm_channel_image_t image{};
    bool alive = id != 0 && ccm_channel_copy(ccm, id, &image) == 0;
    std::string partner = alive ? printable(field_text(image.name)) + " " + image.addr : "an ended channel";
    std::string what;
    int number = number_type_not_allowed;
    switch (msg->type) {
        case CCM_MSG_IPC:
            what = shown_name(msg->msg_start, msg->len, 16);
            __log(-1, "IPC message (%s) is not known", what.c_str());
            __log(number_sender, "%s|", printable(field_text(msg->addr.src_name)).c_str());
            break;
        case CCM_MSG_NAT:
            what = shown_name(msg->msg_start, msg->len, 8);
            break;
        case CCM_MSG_GSS:
            what = "GSS";
            break;
        default:
            number = number_item_not_allowed;
            what = shown_key(msg->protocol_key) + "|not from this partner";
            break;
    }
    if (alive) {
        ccm_channel_failbyID(ccm, id, number, "%s|%s(ID=%d)|", what.c_str(), partner.c_str(), id);
    }
}

}  // namespace

ccm_policy_result ccm_policy_judge_ipc(int receiver, int origin, const unsigned char* body, int len) {
    if (len < static_cast<int>(sizeof(ipcmsg_header_t))) {
        return CCM_POLICY_REFUSE;
    }
    for (const ccm_policy_ipc_row& row : ccm_policy_ipc) {
        if (in(row.receivers, receiver) && in(row.origins, origin) &&
            memcmp(row.name, body, sizeof row.name) == 0) {
            const bool fits = size_fits(row, body, len) && (!is_routed(row) || may_be_routed(body, len));
            return fits ? CCM_POLICY_ACCEPT : CCM_POLICY_REFUSE;
        }
    }
    return CCM_POLICY_REFUSE;
}

ccm_policy_result ccm_policy_judge_nat(int receiver, int origin, const char* module,
                                       const unsigned char* body, int len) {
    if (len == 0 && origin == CCM_FROM_PARTNER) {
        return CCM_POLICY_DROP;  // the empty answer of a module that its side doesn't know
    }
    for (const nat_row& row : nat_rows) {
        if (!in(row.receivers, receiver) || !in(row.origins, origin)) {
            continue;
        }
        bool module_fits = row.module == nullptr || strncmp(row.module, module, 8) == 0;
        bool type_fits = row.type == nullptr || message_type_is(body, static_cast<size_t>(len), row.type);
        if (module_fits && type_fits) {
            return CCM_POLICY_ACCEPT;
        }
    }
    return CCM_POLICY_REFUSE;
}

ccm_policy_result ccm_policy_judge_native(int receiver, int origin, int key) {
    for (const native_row& row : native_rows) {
        if (row.key == key && in(row.receivers, receiver) && in(row.origins, origin)) {
            return row.result;
        }
    }
    return CCM_POLICY_REFUSE;
}

ccm_policy_result ccm_policy_judge_gss(int receiver, int origin) {
    bool allowed = (receiver == CCM_IN_AGENT && in(CCM_FROM_CANDIDATE | CCM_FROM_CALLED, origin)) ||
                   (receiver == CCM_IN_LISTENER && origin == CCM_FROM_STRANGER);
    return allowed ? CCM_POLICY_ACCEPT : CCM_POLICY_REFUSE;
}

int ccm_policy_check(EX_PCX* pcx, ccm_context_t* ccm, const ccm_msg_t* msg) {
    int origin = msg->origin;
    // A listener that was given up may still have something to say; it counts no more.
    if (origin == CCM_FROM_LISTENER && msg->addr.src_ID != pcx->listener_channel_ID) {
        return 0;
    }
    ccm_policy_result result = judge(pcx, msg, receiver_of(pcx), origin);
    if (result == CCM_POLICY_REFUSE) {
        end_sender(ccm, msg);
    }
    return result == CCM_POLICY_ACCEPT ? 1 : 0;
}
