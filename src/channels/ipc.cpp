#include "channels/ipc.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/message_numbers.h"
#include "channels/connect.h"
#include "channels/handshake.h"
#include "channels/internal.h"
#include "channels/line_budget.h"
#include "channels/policy.h"
#include "log/log_origin.h"
#include "messages/frame.h"

namespace {

constexpr int placeholder_limit = 512;
line_budget failed_handshakes{200, 2};
// The listener keeps to less by itself (ipc_dispatch.cpp); one that was taken over does not.
line_budget listener_lines{1200, 12};

struct number_range {
    int first;
    int last;
};

constexpr number_range only(int number) {
    return {number, number};
}

// What a listener has to say with a number of its own: its start and end, its callers and what they sent. Any
// other number, such as a job's end or a cancel, would be believed for the agent's.
constexpr number_range listener_numbers[] = {
    {number_frame_bad_handle, number_frame_too_long},
    {number_walk_size_without_value, number_walk_no_message},
    only(number_sender),
    only(number_no_answer),
    only(number_unseal_failed),
    only(number_call_failed),
    {number_network_thread, number_thread_failed},
    {number_check_not_compiled, number_checks_compiled},
    only(number_no_ipv6),
    only(number_write_failed),
    {number_read_failed, number_connection_closed},
    only(number_system_call),
    only(number_wrong_agent),
    only(number_cannot_continue),
    only(number_process_runs),
    {number_socket_handed, number_socket_refused},
    {number_channel_taken, number_handshake_refused},
    only(number_process_shutdown),
    only(number_no_memory),
};

bool listener_may_say(int number) {
    for (const number_range& range : listener_numbers) {
        if (number >= range.first && number <= range.last) {
            return true;
        }
    }
    return number < 0;
}

// The fixed part of a record whose size the policy has tested.
template <class Record>
Record record_of(const ccm_msg_t* msg) {
    Record record;
    memcpy(&record, msg->msg_start, sizeof record);
    return record;
}

// What stands behind the fixed part.
template <class Record>
const unsigned char* rest_of(const ccm_msg_t* msg) {
    return msg->msg_start + sizeof(Record);
}

int log_unknown_channel(const char* process, const char* function, int id) {
    __log(number_no_connection, "%s/%s()|%d", process, function, id);
    return -1;
}

// Queues a record for the channel that the request came on.
int reply_record(ccm_context_t* ccm, const ccm_msg_t* request, const void* fixed, size_t size,
                 const void* rest, size_t rest_size) {
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, static_cast<int>(size + rest_size), nullptr);
    if (msg == nullptr) {
        return -1;
    }
    memcpy(msg->msg_start, fixed, size);
    if (rest_size > 0) {
        memcpy(msg->msg_start + size, rest, rest_size);
    }
    ccm_setaddr(msg, request->addr.src_ID, 0, "", "", 0);
    return send_IPC_message(ccm, msg);
}

void reply_remote_close(ccm_context_t* ccm, const ccm_msg_t* request, int listenerID, int number,
                        const char* insert) {
    ipcmsg_remote_close_t record{};
    memcpy(record.header.msgtype, ipc_remote_close, sizeof record.header.msgtype);
    record.ID = listenerID;
    record.msgnr = number;
    copy_text(record.msginsert, insert);
    reply_record(ccm, request, &record, sizeof record, nullptr, 0);
}

// ---- the handshake of a caller, seen by the agent

// A channel without a socket that keeps the context until the socket arrives. Everything is set before it is
// chained. Its ID, or -1.
int make_placeholder(EX_PCX* pcx, ccm_context_t* ccm, int listenerID, gss_ctx_id_t context) {
    int ids[placeholder_limit];
    if (ccm_channel_collect(ccm, CH_TYPE_PLACEHOLDER, ids, placeholder_limit) == placeholder_limit) {
        return -1;
    }
    ccm_channel_t* channel = nullptr;
    ccm_error_t error;
    if (ccm_channel_new_entry(ccm, &channel, &error) != 0) {
        __log_error(error);
        return -1;
    }
    channel->type = CH_TYPE_PLACEHOLDER;
    channel->remoteID = listenerID;
    channel->pATctx = context;
    snprintf(channel->host, sizeof channel->host, "listener ID=%d", listenerID);
    channel->connect_timeout_secs = pcx->connwait;
    channel->connect_timeout = alarm_now() + pcx->connwait;
    channel->flag.fetch_or(CH_FLAG_CONNECTING);
    int id = channel->ID;
    ccm_channel_chain(ccm, channel);
    return id;
}

int refuse_remote(ccm_context_t* ccm, const ccm_msg_t* msg, int placeholderID, int listenerID) {
    char insert[64];
    snprintf(insert, sizeof insert, "ID=%d|ID=%d", placeholderID, listenerID);
    if (placeholderID > 0) {
        ccm_channel_deletebyID(ccm, placeholderID);
    }
    reply_remote_close(ccm, msg, listenerID, number_handshake_refused, insert);
    return -1;
}

int gsshs_remote_in_agent(EX_PCX* pcx, ccm_context_t* ccm, const ccm_msg_t* msg,
                          const ipcmsg_gsshs_remote_t& record) {
    // A second token for a connection whose context stands would replace the keys under its feet.
    if (ccm_channel_t* known = ccm_channel_getbyRemoteID(ccm, record.listenerID)) {
        int id = known->ID;
        ccm_channel_unlock(ccm);
        return refuse_remote(ccm, msg, id, record.listenerID);
    }
    unsigned char answer[frame_header_size + gss_accept_token_size];
    int answer_length = sizeof answer;
    gss_ctx_id_t context = nullptr;
    qx7_error error;
    if (gss_request(pcx, rest_of<ipcmsg_gsshs_remote_t>(msg), record.len, answer, &answer_length, &context,
                    &error) != 0) {
        int dropped = 0;
        if (failed_handshakes.take(alarm_now(), &dropped)) {
            if (dropped > 0) {
                __log(-1, "%d failed handshakes before this one were not logged, they came too fast",
                      dropped);
            }
            __log_error(error);
        }
        return refuse_remote(ccm, msg, 0, record.listenerID);
    }
    int id = make_placeholder(pcx, ccm, record.listenerID, context);
    if (id < 0) {
        OM_uint32 minor = 0;
        gss_delete_sec_context(&minor, &context, nullptr);
        return refuse_remote(ccm, msg, 0, record.listenerID);
    }
    ipcmsg_gsshs_remote_t reply = record;
    reply.agentID = id;
    reply.len = answer_length;
    return reply_record(ccm, msg, &reply, sizeof reply, answer, static_cast<size_t>(answer_length));
}

// ---- the same, seen by the listener

int gsshs_remote_in_listener(ccm_context_t* ccm, const ccm_msg_t* msg, const ipcmsg_gsshs_remote_t& record) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, record.listenerID);
    if (channel == nullptr) {
        return log_unknown_channel("LISTENER", "process_ipc_gsshs_remote", record.listenerID);
    }
    bool caller = channel->type.load() == CH_TYPE_ACCEPTED;
    char name[64];
    memcpy(name, channel->name, sizeof name);
    qx_descriptor own;
    if (caller) {
        channel->flag.fetch_or(CH_FLAG_NO_READ);
        // Under the lock, although it is a system call: it doesn't wait, and without the lock the network
        // thread could close the socket and its number could be another caller's by now.
        own.fd = fcntl(channel->s.load(), F_DUPFD_CLOEXEC, 3);
    }
    ccm_channel_unlock(ccm);
    if (!own.valid()) {
        if (caller) {
            ccm_channel_failbyID(ccm, record.listenerID, number_call_failed, "fcntl(F_DUPFD)|%d(%s)|", EMFILE,
                                 strerror(EMFILE));
        }
        return log_unknown_channel("LISTENER", "process_ipc_gsshs_remote", record.listenerID);
    }
    __log(number_handshake_answer, "%s/ID=%d", printable(field_text(name)).c_str(), record.listenerID);
    ccm_msg_t* token = ccm_msg_alloc_cleared(ccm, record.len, nullptr);
    if (token == nullptr) {
        return -1;
    }
    token->type = CCM_MSG_GSS;
    memcpy(token->msg_start, rest_of<ipcmsg_gsshs_remote_t>(msg), static_cast<size_t>(record.len));
    ccm_setaddr(token, record.listenerID, 0, "", "", 0);
    ccm_send_message_common(ccm, token, "FW GSS protocol message");
    return send_file_descriptor(ccm, ccm_name_ipc_agent, own.get(), record.agentID, record.listenerID, name);
}

// ---- adoption

bool socket_option_is(int fd, int option, int wanted) {
    int value = 0;
    socklen_t length = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 && value == wanted;
}

// A connection over the network and nothing else: only such a one was accepted.
bool is_connection(int fd) {
    const bool internet =
        socket_option_is(fd, SO_DOMAIN, AF_INET) || socket_option_is(fd, SO_DOMAIN, AF_INET6);
    return internet && socket_option_is(fd, SO_TYPE, SOCK_STREAM) && socket_option_is(fd, SO_ACCEPTCONN, 0);
}

void peer_text(int fd, char out[64]) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    out[0] = '\0';
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
        ccm_address2string(&peer, out, 64);
    }
}

enum adoption { adoption_done, adoption_unexpected, adoption_wrong_name };

// The name that the token proved is the only one that counts, and the system's is the server's alone: under
// it an agent would be believed where only the server is.
bool is_proved_name(const EX_PCX* pcx, std::string_view name, std::string_view proved) {
    return name == proved && !equal_ignore_case(name, strip(field_text(pcx->sysName)));
}

// Gives the placeholder its socket. The type comes last: from then on the network thread reads the channel. A
// placeholder whose caller uses another name than the proved one is deleted, and that name is in `proved`.
adoption adopt(EX_PCX* pcx, ccm_context_t* ccm, const ipcmsg_passfd_t& record, int fd, const char* address,
               char (&proved)[gss_name_size + 1]) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, record.agentID);
    if (channel == nullptr) {
        return adoption_unexpected;
    }
    bool expected = channel->type.load() == CH_TYPE_PLACEHOLDER && channel->remoteID == record.listenerID &&
                    channel->pATctx != nullptr;
    adoption result = expected ? adoption_done : adoption_unexpected;
    if (expected) {
        copy_text(proved, strip(gss_partner_name(*channel->pATctx)));
        if (!is_proved_name(pcx, field_text(record.name), proved)) {
            ccm_channel_delete(ccm, channel);
            result = adoption_wrong_name;
        }
    }
    if (result == adoption_done) {
        copy_text(channel->name, field_text(record.name));
        memcpy(channel->addr, address, sizeof channel->addr);
        copy_text(channel->host, field_text(channel->addr));
        channel->remoteID = 0;
        channel->timestamp_last_io = channel->timestamp_last_read = alarm_now();
        channel->connect_timeout_secs = ccm_adopted_seconds;
        channel->connect_timeout = alarm_now() + ccm_adopted_seconds;
        channel->s = fd;
        channel->flag.fetch_or(CH_FLAG_SEALED | CH_FLAG_CONNECTING);
        channel->type.store(CH_TYPE_AGENT, std::memory_order_release);
    }
    ccm_channel_unlock(ccm);
    if (result == adoption_done) {
        ccm_wakeup_network(ccm);
    }
    return result;
}

// What is not adopted is closed with its message and answered.
int refuse_descriptor(ccm_context_t* ccm, const ccm_msg_t* msg, const ipcmsg_passfd_t& record) {
    char insert[32];
    snprintf(insert, sizeof insert, "%d", record.agentID);
    __log(number_socket_refused, "%s", insert);
    reply_remote_close(ccm, msg, record.listenerID, number_socket_refused, insert);
    return -1;
}

}  // namespace

ccm_msg_t* ipc_record_alloc(ccm_context_t* ccm, const char* msgtype, int size) {
    ccm_error_t error;
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, size, &error);
    if (msg != nullptr) {
        memcpy(msg->msg_start, msgtype, sizeof(ipcmsg_header_t::msgtype));
    }
    return msg;
}

int process_IPC_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg, const ipc_function_t* functions) {
    if (!ccm_policy_check(pcx, ccm, msg)) {
        return -1;
    }
    int row = 0;
    while (functions[row].name[0] != '\0' &&
           memcmp(functions[row].name, msg->msg_start, sizeof functions[row].name) != 0) {
        ++row;
    }
    return functions[row].handler(pcx, msg, row);
}

int process_ipc_logging(EX_PCX*, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_logging_t>(msg);
    const std::string text = printable(field_text(record.msginsert));
    if (msg->origin != CCM_FROM_LISTENER) {
        const log_origin_mark mark("worker");
        __log(record.msgnr, "%s", text.c_str());
        return 0;
    }
    const log_origin_mark mark("listener");
    int dropped = 0;
    if (!listener_lines.take(alarm_now(), &dropped)) {
        return 0;
    }
    if (dropped > 0) {
        __log(-1, "%d lines before this one were not logged, they came too fast", dropped);
    }
    if (!listener_may_say(record.msgnr)) {
        __log(-1, "a line with number %d, which is not the listener's: %s", record.msgnr, text.c_str());
        return 0;
    }
    __log(record.msgnr, "%s", text.c_str());
    return 0;
}

int process_ipc_natquitt(EX_PCX* pcx, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_natquitt_t>(msg);
    ccm_msg_t* out = ccm_msg_alloc_cleared(pcx->ccm, record.len, nullptr);
    if (out == nullptr) {
        return -1;
    }
    memcpy(out->msg_start, rest_of<ipcmsg_natquitt_t>(msg), static_cast<size_t>(record.len));
    ccm_setaddr(out, record.dstID, 0, "", "", 0);
    return send_NAT_message(pcx->ccm, out);
}

int process_ipc_gsshs_remote(EX_PCX* pcx, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_gsshs_remote_t>(msg);
    return pcx->running_mode == MODE_LISTENER ? gsshs_remote_in_listener(pcx->ccm, msg, record)
                                              : gsshs_remote_in_agent(pcx, pcx->ccm, msg, record);
}

int process_ipc_exdata_remote(EX_PCX*, ccm_msg_t*, int) {
    return 0;
}

int process_ipc_routenat(EX_PCX* pcx, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_routenat_t>(msg);
    ccm_msg_t* out = ccm_msg_alloc_cleared(pcx->ccm, record.len, nullptr);
    if (out == nullptr) {
        return -1;
    }
    memcpy(out->msg_start, rest_of<ipcmsg_routenat_t>(msg), static_cast<size_t>(record.len));
    out->addr = record.addr;
    // Texts of another process end inside their fields here as well.
    for (char* text : {out->addr.dst_addr, out->addr.dst_name, out->addr.src_addr, out->addr.src_name}) {
        text[63] = '\0';
    }
    out->addr.dst_ID = 0;
    out->addr.src_ID = 0;
    return send_NAT_message(pcx->ccm, out);
}

int process_ipc_passfd(EX_PCX* pcx, ccm_msg_t* msg, int) {
    ccm_context_t* ccm = pcx->ccm;
    auto record = record_of<ipcmsg_passfd_t>(msg);
    int fd = msg->passfd;
    std::string_view name = field_text(record.name);
    bool named = ccm_name_acceptable(name.data(), name.size());
    char address[64] = "";
    char proved[gss_name_size + 1] = "";
    bool usable = fd >= 0 && named && is_connection(fd) && fcntl(fd, F_SETFL, O_NONBLOCK) == 0;
    if (usable) {
        peer_text(fd, address);
    }
    const adoption result = usable ? adopt(pcx, ccm, record, fd, address, proved) : adoption_unexpected;
    if (fd >= 0 && !named) {
        __log(number_wrong_agent, "%s||", printable(name).c_str());
    }
    if (result == adoption_wrong_name) {
        __log(number_wrong_agent, "%s|%s|", std::string(name).c_str(), printable(proved).c_str());
    }
    if (result != adoption_done) {
        return refuse_descriptor(ccm, msg, record);
    }
    msg->passfd = -1;
    __log(number_socket_taken, "s=%d/ID=%d|s=%d/ID=%d", record.fd, record.listenerID, fd, record.agentID);
    ipcmsg_passfd_quitt_t reply{};
    memcpy(reply.header.msgtype, ipc_passfd_quitt, sizeof reply.header.msgtype);
    reply.fd = record.fd;
    reply.agentID = record.agentID;
    reply.listenerID = record.listenerID;
    return reply_record(ccm, msg, &reply, sizeof reply, nullptr, 0);
}

int process_ipc_passfd_quitt(EX_PCX* pcx, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_passfd_quitt_t>(msg);
    __log(number_channel_taken, "s=%d/ID=%d|ID=%d", record.fd, record.listenerID, record.agentID);
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, record.listenerID);
    if (channel == nullptr) {
        return log_unknown_channel("LISTENER", "process_ipc_passfd_quitt", record.listenerID);
    }
    // The accept token may still stand in its queue.
    if (channel->type.load() == CH_TYPE_ACCEPTED) {
        channel->flag.fetch_or(CH_FLAG_DELETE_WHEN_SENT);
    }
    ccm_channel_unlock(pcx->ccm);
    ccm_wakeup_network(pcx->ccm);
    return 0;
}

int process_ipc_remote_close(EX_PCX* pcx, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_remote_close_t>(msg);
    __log(record.msgnr, "%s", printable(field_text(record.msginsert)).c_str());
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, record.ID);
    if (channel == nullptr) {
        return 0;
    }
    if (channel->type.load() == CH_TYPE_ACCEPTED) {
        ccm_channel_delete(pcx->ccm, channel);
    }
    ccm_channel_unlock(pcx->ccm);
    return 0;
}

int process_ipc_timer_fire(EX_PCX*, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_timer_fire_t>(msg);
    record.name[sizeof record.name - 1] = '\0';
    record.minor[sizeof record.minor - 1] = '\0';
    return record.cb_function == nullptr ? -1
                                         : record.cb_function(record.cb_context, record.name, record.minor);
}

namespace {

int log_record_name(const ccm_msg_t* msg, const char* what) {
    std::string_view name(reinterpret_cast<const char*>(msg->msg_start),
                          strnlen(reinterpret_cast<const char*>(msg->msg_start),
                                  static_cast<size_t>(std::min<int>(msg->len, sizeof(ipcmsg_header_t)))));
    __log(-1, "IPC message (%s) is not %s", printable(name).c_str(), what);
    __log(number_sender, "%s|", printable(field_text(msg->addr.src_name)).c_str());
    return -1;
}

}  // namespace

int process_ipc_unknown(EX_PCX*, ccm_msg_t* msg, int) {
    return log_record_name(msg, "known");
}

int process_ipc_not_implemented(EX_PCX*, ccm_msg_t* msg, int) {
    return log_record_name(msg, "implemented");
}
