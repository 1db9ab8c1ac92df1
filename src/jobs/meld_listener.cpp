// Who is at the other end of a MELD. The listener is on the network and asks no credentials; so only this
// host is heard, and the agent asks the kernel for the uid of the sender.
#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/context.h"
#include "base/descriptor.h"
#include "channels/connect.h"
#include "channels/ipc.h"
#include "channels/ipc_records.h"
#include "jobs/meld.h"
#include "jobs/supervision.h"
#include "log/log.h"

namespace {

// An address without the difference between IPv4 and IPv4 mapped into IPv6.
struct end_point {
    bool v6 = false;
    unsigned char address[16] = {};
    uint16_t port = 0;  // in host order
};

bool read_end_point(const sockaddr_storage& from, end_point* to) {
    if (from.ss_family == AF_INET) {
        sockaddr_in address;
        memcpy(&address, &from, sizeof address);
        memcpy(to->address, &address.sin_addr, 4);
        to->port = ntohs(address.sin_port);
        return true;
    }
    if (from.ss_family != AF_INET6) {
        return false;
    }
    sockaddr_in6 address;
    memcpy(&address, &from, sizeof address);
    to->port = ntohs(address.sin6_port);
    if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) {
        memcpy(to->address, address.sin6_addr.s6_addr + 12, 4);
        return true;
    }
    to->v6 = true;
    memcpy(to->address, &address.sin6_addr, 16);
    return true;
}

struct diag_request {
    nlmsghdr head;
    inet_diag_req_v2 body;
};

// Kept from one message to the next, and given up with the first answer that is none: nothing of an earlier
// question can stand in it. Main thread.
qx_descriptor socket_tables;
uint32_t questions = 0;

// Asks for exactly one socket: the peer's, whose source is the peer's address and whose target is ours.
diag_request question(const end_point& own, const end_point& peer) {
    diag_request request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.head.nlmsg_flags = NLM_F_REQUEST;
    request.head.nlmsg_seq = ++questions;
    request.body.sdiag_family = peer.v6 ? AF_INET6 : AF_INET;
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0U;
    request.body.id.idiag_sport = htons(peer.port);
    request.body.id.idiag_dport = htons(own.port);
    memcpy(request.body.id.idiag_src, peer.address, sizeof peer.address);
    memcpy(request.body.id.idiag_dst, own.address, sizeof own.address);
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return request;
}

// The answer's length; -1 when it is none to this question. The kernel answers before the send returns.
ssize_t ask_kernel(const diag_request& request, char* answer, size_t size) {
    if (!socket_tables.valid()) {
        socket_tables.reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    }
    if (!socket_tables.valid() ||
        send(socket_tables.get(), &request, sizeof request, 0) != static_cast<ssize_t>(sizeof request)) {
        return -1;
    }
    const ssize_t length = recv(socket_tables.get(), answer, size, MSG_DONTWAIT);
    nlmsghdr head{};
    if (length < static_cast<ssize_t>(sizeof head)) {
        return -1;
    }
    memcpy(&head, answer, sizeof head);
    return head.nlmsg_seq == request.head.nlmsg_seq ? length : -1;
}

uid_t uid_from_kernel(const end_point& own, const end_point& peer) {
    alignas(nlmsghdr) char answer[8192];
    const ssize_t length = ask_kernel(question(own, peer), answer, sizeof answer);
    if (length < 0) {
        socket_tables.reset();  // a second way follows
        return meld_unknown_uid;
    }
    return meld_uid_from_answer(answer, static_cast<size_t>(length));
}

// As the kernel's tables print it: 32-bit words in host order.
std::string table_address(const end_point& point, bool as_v6) {
    unsigned char full[16] = {};
    size_t size = 4;
    if (point.v6) {
        memcpy(full, point.address, 16);
        size = 16;
    } else if (as_v6) {
        full[10] = full[11] = 0xff;
        memcpy(full + 12, point.address, 4);
        size = 16;
    } else {
        memcpy(full, point.address, 4);
    }
    std::string text;
    for (size_t at = 0; at < size; at += 4) {
        uint32_t word = 0;
        memcpy(&word, full + at, 4);
        char hex[16];
        snprintf(hex, sizeof hex, "%08" PRIX32, word);
        text += hex;
    }
    char port[16];
    snprintf(port, sizeof port, ":%04X", point.port);
    return text + port;
}

uid_t uid_from_table(const std::string& file, const std::string& local, const std::string& remote) {
    const qx_stream stream(fopen(file.c_str(), "re"));
    if (!stream.valid()) {
        return meld_unknown_uid;
    }
    char line[512];
    while (fgets(line, sizeof line, stream.get()) != nullptr) {
        char from[64];
        char to[64];
        unsigned state = 0;
        unsigned uid = 0;
        unsigned long inode = 0;
        if (sscanf(line, " %*d: %63s %63s %x %*s %*s %*s %u %*u %lu", from, to, &state, &uid, &inode) == 5 &&
            local == from && remote == to) {
            return state == TCP_ESTABLISHED && inode != 0 ? uid : meld_unknown_uid;
        }
    }
    return meld_unknown_uid;
}

}  // namespace

uid_t meld_uid_from_answer(const char* answer, size_t length) {
    if (length < sizeof(nlmsghdr) + sizeof(inet_diag_msg)) {
        return meld_unknown_uid;
    }
    nlmsghdr head;
    memcpy(&head, answer, sizeof head);
    if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || head.nlmsg_len > length ||
        head.nlmsg_len < NLMSG_HDRLEN + sizeof(inet_diag_msg)) {
        return meld_unknown_uid;
    }
    inet_diag_msg found;
    memcpy(&found, answer + NLMSG_HDRLEN, sizeof found);
    // A socket that its process has closed belongs to nobody and is shown with uid 0: it must not pass for
    // root.
    if (found.idiag_state != TCP_ESTABLISHED || found.idiag_inode == 0) {
        return meld_unknown_uid;
    }
    return found.idiag_uid;
}

uid_t meld_peer_uid_from_tables(const char* folder, const sockaddr_storage& own,
                                const sockaddr_storage& peer) {
    end_point here;
    end_point there;
    if (!read_end_point(own, &here) || !read_end_point(peer, &there)) {
        return meld_unknown_uid;
    }
    if (!there.v6) {
        const uid_t uid = uid_from_table(std::string(folder) + "/tcp", table_address(there, false),
                                         table_address(here, false));
        if (uid != meld_unknown_uid) {
            return uid;
        }
    }
    return uid_from_table(std::string(folder) + "/tcp6", table_address(there, true),
                          table_address(here, true));
}

uid_t meld_peer_uid(const sockaddr_storage& own, const sockaddr_storage& peer) {
    end_point here;
    end_point there;
    if (!read_end_point(own, &here) || !read_end_point(peer, &there)) {
        return meld_unknown_uid;
    }
    const uid_t uid = uid_from_kernel(here, there);
    return uid != meld_unknown_uid ? uid : meld_peer_uid_from_tables("/proc/net", own, peer);
}

uid_t meld_sender_uid(const sockaddr_storage& own, const sockaddr_storage& peer, int port,
                      uid_t listener_uid) {
    end_point here;
    if (!read_end_point(own, &here) || here.port != port || !ccm_is_own_host(own, peer) ||
        meld_peer_uid(peer, own) != listener_uid) {
        return meld_unknown_uid;
    }
    return meld_peer_uid(own, peer);
}

int process_exmeld(EX_PCX* pcx, ccm_msg_t* msg, int) {
    if (pcx->running_mode != MODE_LISTENER) {
        __PutLogText("MELD message can be only processed by LISTENER.");
        return -1;
    }
    ccm_caller caller;
    if (ccm_channel_caller(pcx->ccm, msg->addr.src_ID, &caller) != 0) {
        return -1;  // the messenger has gone
    }
    if (!caller.own_host) {
        char address[64];
        ccm_address2string(&caller.peer, address, sizeof address);
        __PutLogText("MELD from %.63s was refused: only processes of this host may report jobs.", address);
        ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
        return -1;
    }
    const meld_ends ends{caller.own, caller.peer};
    const size_t length = static_cast<size_t>(msg->len);
    const size_t size = sizeof(ipcmsg_natmeld_t) + length + sizeof ends;
    ccm_msg_t* out = ipc_record_alloc(pcx->ccm, ipc_natmeld, static_cast<int>(size));
    if (out == nullptr) {
        return -1;
    }
    ipcmsg_natmeld_t record;
    memcpy(&record, out->msg_start, sizeof record);
    record.replyID = msg->addr.src_ID;
    record.len = static_cast<int32_t>(length + sizeof ends);  // all that stands behind the fixed part
    memcpy(out->msg_start, &record, sizeof record);
    memcpy(out->msg_start + sizeof record, msg->msg_start, length);
    memcpy(out->msg_start + sizeof record + length, &ends, sizeof ends);
    out->len = static_cast<int>(size);
    ccm_setaddr(out, 0, 0, ccm_name_ipc_agent, "", 0);
    return send_IPC_message(pcx->ccm, out);
}
