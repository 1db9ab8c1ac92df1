// The send calls: from a body to a queued frame.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/message_numbers.h"
#include "channels/internal.h"
#include "channels/ipc.h"
#include "messages/conversion.h"
#include "messages/frame.h"

namespace {

bool is_server_address(std::string_view address) {
    return address == ccm_name_server || address.starts_with("*CP");
}

// -1 and freed: what every refused send ends with.
int refuse(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_msg_free(ccm, msg);
    return -1;
}

void log_too_long(const ccm_msg_t* msg) {
    const std::string partner(field_text(msg->addr.dst_addr));
    __log(number_frame_too_long, "%d|%s(ID=%d)|%d|", msg->len, partner.c_str(), msg->addr.dst_ID,
          ccm_frame_max);
}

// A caller's mistake about lengths must not become a write behind the buffer.
bool body_fits(const ccm_msg_t* msg) {
    return msg->len >= 0 && msg->len <= msg->size;
}

bool leads_to_agent(ccm_context_t* ccm, const ccm_addr_t& addr) {
    if (addr.dst_ID == 0) {
        return is_server_address(field_text(addr.dst_addr));
    }
    ccm_channel_t* channel = ccm_channel_getbyName(ccm, ccm_name_ipc_agent);
    if (channel == nullptr) {
        return is_server_address(field_text(addr.dst_addr));
    }
    int id = channel->ID;
    ccm_channel_unlock(ccm);
    return addr.dst_ID == id;
}

// Channel IDs of one process mean nothing in another, so both are 0 on the way.
int send_NAT_message_route(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_error_t error;
    ccm_msg_t* route =
        ccm_msg_alloc_cleared(ccm, static_cast<int>(sizeof(ipcmsg_routenat_t)) + msg->len, &error);
    if (route == nullptr) {
        __log_error(error);
        return refuse(ccm, msg);
    }
    ipcmsg_routenat_t record{};
    memcpy(record.header.msgtype, ipc_routenat, sizeof record.header.msgtype);
    record.addr = msg->addr;
    record.addr.dst_ID = 0;
    record.addr.src_ID = 0;
    copy_text(record.addr.dst_addr, ccm_name_server);
    record.len = msg->len;
    memcpy(route->msg_start, &record, sizeof record);
    memcpy(route->msg_start + sizeof record, msg->msg_start, static_cast<size_t>(msg->len));
    ccm_setaddr(route, 0, 0, ccm_name_ipc_agent, "", 0);
    ccm_msg_free(ccm, msg);
    return send_IPC_message(ccm, route);
}

// Whether the agent must not let this out: the logon is the first message on every server connection.
bool server_not_reported(const ccm_context_t* ccm, const ccm_msg_t* msg) {
    return msg->addr.dst_ID == 0 && is_server_address(field_text(msg->addr.dst_addr)) &&
           (msg->flag & CCM_MSG_FLAG_KEEP) == 0 && (ccm->pcx->pcx_flag.load() & PCX_FLAG_SERVER_CHANNEL) == 0;
}

// Addressing items around the body, in the room that the buffer keeps for them.
void write_sr_data(ccm_msg_t* msg) {
    frame_address address;
    copy_text(address.dst_addr, field_text(msg->addr.dst_addr));
    copy_text(address.dst_name, field_text(msg->addr.dst_name));
    address.dst_acv = static_cast<uint32_t>(msg->addr.dst_acv);
    copy_text(address.src_addr, field_text(msg->addr.src_addr));
    copy_text(address.src_name, field_text(msg->addr.src_name));
    address.src_acv = static_cast<uint32_t>(msg->addr.src_acv);
    unsigned char* body = nullptr;
    size_t length = frame_wrap_message(msg->msg_start, static_cast<size_t>(msg->len), address, &body);
    msg->msg_start = body;
    msg->len = static_cast<int>(length);
}

static_assert(frame_headroom <= ccm_msg_headroom);
static_assert(frame_headroom + frame_tailroom + gss_seal_overhead <= ccm_msg_headroom + ccm_msg_tailroom);

// Steps in front of the body, which has the room, and fills the header there.
int put_header(ccm_msg_t* msg, const char* kind) {
    msg->msg_start -= frame_header_size;
    msg->len += static_cast<int>(frame_header_size);
    return ccm_msg_set_protocol_header(msg, kind);
}

int frame(ccm_context_t* ccm, ccm_msg_t* msg, const char* kind, int type) {
    msg->type = type;
    if (put_header(msg, kind) != 0) {
        log_too_long(msg);
        return refuse(ccm, msg);
    }
    return 0;
}

int queue_framed(ccm_context_t* ccm, ccm_msg_t* msg, const char* kind, int type) {
    return frame(ccm, msg, kind, type) == 0 ? ccm_send_message_common(ccm, msg, kind) : -1;
}

int frame_NAT_message(ccm_context_t* ccm, ccm_msg_t* msg) {
    if ((msg->flag & CCM_MSG_FLAG_RAW) == 0 &&
        msgconv_ToLan(msg->msg_start, static_cast<size_t>(msg->len), ccm->pcx->pcx_msgctx) != 0) {
        return refuse(ccm, msg);
    }
    write_sr_data(msg);
    return frame(ccm, msg, protocol_native, CCM_MSG_NAT);
}

}  // namespace

int ccm_msg_set_protocol_header(ccm_msg_t* msg, const char* kind) {
    return frame_set_header(msg->msg_start, kind, msg->len);
}

void ccm_msg_write_native_data(ccm_msg_t* msg, int key, const void* data, int length) {
    if (key != key_executor_data || length < 0 || length > 255) {
        return;
    }
    msg->msg_start[0] = static_cast<unsigned char>(key);
    msg->msg_start[1] = static_cast<unsigned char>(length);
    memcpy(msg->msg_start + 2, data, static_cast<size_t>(length));
    msg->len = length + 2;
}

int ccm_send_message_common(ccm_context_t* ccm, ccm_msg_t* msg, const char* label) {
    ccm_assert_no_spin_lock();
    if (trc_on(TRC_TCPIP, '3')) {
        _TraceText("send %s: message %lu, %d bytes to ID=%d '%.64s'", label, msg->ID, msg->len,
                   msg->addr.dst_ID, msg->addr.dst_addr);
    }
    if (ccm_write_at_once(ccm, msg)) {
        return 0;
    }
    msg = ccm_msg_fit(ccm, msg);
    {
        spin_guard guard(&ccm->queue_lock);
        inuse_unlink(ccm, msg);
        queue_append(&ccm->sendq, msg);
    }
    ccm_wakeup_network(ccm);  // without a thread the message waits for one
    return 0;
}

int send_native_message(ccm_context_t* ccm, ccm_msg_t* msg) {
    return body_fits(msg) ? queue_framed(ccm, msg, protocol_native, CCM_MSG_NATIVE) : refuse(ccm, msg);
}

int send_GSS_message(ccm_context_t* ccm, ccm_msg_t* msg, const char* coding) {
    if (!body_fits(msg)) {
        return refuse(ccm, msg);
    }
    msg->type = CCM_MSG_GSS;
    msg->msg_start -= frame_header_size;
    msg->len += static_cast<int>(frame_header_size);
    if (frame_set_header(msg->msg_start, protocol_gss, msg->len, coding) != 0) {
        return refuse(ccm, msg);
    }
    return ccm_send_message_common(ccm, msg, protocol_gss);
}

int send_NAT_message(ccm_context_t* ccm, ccm_msg_t* msg) {
    msg->ahead_ID = 0;  // a body that was prepared and then written anew
    if (!body_fits(msg)) {
        log_too_long(msg);
        return refuse(ccm, msg);
    }
    msg->type = CCM_MSG_NAT;  // also for the wiping of a message that goes no further
    if (ccm->pcx->running_mode != MODE_AGENT) {
        if (leads_to_agent(ccm, msg->addr)) {
            return send_NAT_message_route(ccm, msg);
        }
    } else if (server_not_reported(ccm, msg)) {
        return refuse(ccm, msg);
    }
    return frame_NAT_message(ccm, msg) == 0 ? ccm_send_message_common(ccm, msg, protocol_native) : -1;
}

int ccm_prepare_NAT_message(ccm_context_t* ccm, ccm_msg_t* msg) {
    msg->ahead_ID = 0;
    if (!body_fits(msg)) {
        log_too_long(msg);
        return refuse(ccm, msg);
    }
    if (frame_NAT_message(ccm, msg) != 0) {
        return -1;
    }
    ccm_seal_ahead(ccm, msg);
    return 0;
}

int ccm_send_prepared(ccm_context_t* ccm, ccm_msg_t* msg) {
    return server_not_reported(ccm, msg) ? refuse(ccm, msg)
                                         : ccm_send_message_common(ccm, msg, protocol_native);
}

int send_IPC_message(ccm_context_t* ccm, ccm_msg_t* msg) {
    return body_fits(msg) ? queue_framed(ccm, msg, protocol_ipc, CCM_MSG_IPC) : refuse(ccm, msg);
}

int send_IPC_internal(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_assert_no_spin_lock();
    msg->type = CCM_MSG_IPC;
    msg->origin = CCM_FROM_SELF;
    msg->addr.src_ID = 0;
    msg = ccm_msg_fit(ccm, msg);
    {
        spin_guard guard(&ccm->queue_lock);
        inuse_unlink(ccm, msg);
        queue_append(&ccm->recvq, msg);
    }
    wake_for_message(ccm);  // before the pipes exist nobody sleeps at one
    return 0;
}

int send_IPC_internal_name(ccm_context_t* ccm, const char* msgtype) {
    ccm_msg_t* msg = ipc_record_alloc(ccm, msgtype, sizeof(ipcmsg_header_t));
    return msg == nullptr ? -1 : send_IPC_internal(ccm, msg);
}

int ccm_forward_NAT_message(ccm_context_t* ccm, const ccm_msg_t* msg, int id, const char* name,
                            ccm_error_t* err, int mode) {
    const char* target = name == nullptr ? "" : name;
    if (mode == 1 && !(id != 0 ? ccm_channel_existbyID(ccm, id) : ccm_channel_existbyName(ccm, target))) {
        return qx_error_set(err, -1, 0, number_no_connection, "%s/%s()|%d", target, "ccm_forward_NAT_message",
                            id);
    }
    ccm_msg_t* copy = ccm_msg_alloc_cleared(ccm, msg->len, err);
    if (copy == nullptr) {
        return -1;
    }
    memcpy(copy->msg_start, msg->msg_start, static_cast<size_t>(msg->len));
    copy->addr = msg->addr;
    copy->addr.dst_ID = id;
    copy_text(copy->addr.dst_addr, id != 0 ? "" : target);
    copy->addr.src_ID = 0;
    copy->flag = msg->flag & CCM_MSG_FLAG_RAW;
    if (mode == 0) {
        copy->flag |= CCM_MSG_FLAG_KEEP;
    }
    if (send_NAT_message(ccm, copy) != 0) {
        return qx_error_set(err, -1, 0, number_no_connection, "%s/%s()|%d", target, "ccm_forward_NAT_message",
                            id);
    }
    return 0;
}

int send_file_descriptor(ccm_context_t* ccm, const char* addr, int fd, int agentID, int listenerID,
                         const char* name) {
    __log(number_socket_handed, "%d/ID=%d", fd, listenerID);
    ccm_msg_t* msg = ipc_record_alloc(ccm, ipc_passfd, sizeof(ipcmsg_passfd_t));
    if (msg == nullptr) {
        return -1;
    }
    // The message owns a descriptor of its own: the number of another's socket may mean something else by the
    // time it is written.
    msg->passfd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (msg->passfd < 0 || (msg->passfd = descriptor_in_range(msg->passfd)) < 0) {
        __log(number_call_failed, "fcntl(F_DUPFD)|%d(%s)|", errno, strerror(errno));
        return refuse(ccm, msg);
    }
    ipcmsg_passfd_t record{};
    memcpy(record.header.msgtype, ipc_passfd, sizeof record.header.msgtype);
    record.fd = fd;
    record.agentID = agentID;
    record.listenerID = listenerID;
    copy_text(record.name, name);
    memcpy(msg->msg_start, &record, sizeof record);
    ccm_setaddr(msg, 0, 0, addr, "", 0);
    return send_IPC_message(ccm, msg);
}
