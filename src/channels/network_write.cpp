// Writing what is queued on a channel, and accepting what a listening socket brings.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/message_numbers.h"
#include "channels/connect.h"
#include "channels/handshake.h"
#include "channels/internal.h"

namespace {

ccm_msg_t* head_of_sendq(ccm_channel_t* channel) {
    spin_guard guard(&channel->queue_lock);
    return channel->sendq.first;
}

// The descriptor that the message owns becomes its control data.
void fill_control_data(ccm_msg_t* msg) {
    memset(msg->control_data, 0, CMSG_SPACE(sizeof(int)));
    auto* head = reinterpret_cast<cmsghdr*>(msg->control_data);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(head), &msg->passfd, sizeof(int));
    msg->control_len = CMSG_LEN(sizeof(int));
}

// Bytes written, 0 when the socket takes none now, -1 with errno.
//
// A piece behind which more of the same frame follows is marked so: TCP then joins its rest with the next
// piece. Otherwise a short last piece would wait for the acknowledgement of the one before it, which the
// receiver delays by 40 ms. The last piece is never marked, whatever is queued behind it, and so never waits
// here.
ssize_t write_piece(ccm_channel_t* channel, ccm_msg_t* msg, size_t offered) {
    const bool more_of_frame = msg->pos + static_cast<int>(offered) < msg->len;
    iovec piece{msg->msg_start + msg->pos, offered};
    msghdr head{};
    head.msg_iov = &piece;
    head.msg_iovlen = 1;
    // With the first byte only: a part that is sent later must not bring the descriptor once more.
    if (msg->passfd >= 0) {
        fill_control_data(msg);
        head.msg_control = msg->control_data;
        head.msg_controllen = msg->control_len;
    }
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (more_of_frame ? MSG_MORE : 0);
    ssize_t written = sendmsg(channel->s.load(), &head, flags);
    if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return 0;
    }
    if (written > 0 && msg->passfd >= 0) {
        close(msg->passfd);
        msg->passfd = -1;
        msg->control_len = 0;
    }
    return written;
}

int seal_if_wanted(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg) {
    if ((msg->flag & CCM_MSG_FLAG_SEAL) == 0) {
        return 0;
    }
    msg->flag &= ~CCM_MSG_FLAG_SEAL;
    ccm_error_t error;
    if (ccm_chiffre_gss(channel, msg, &error) == 0) {
        return 0;
    }
    channel_fail(ccm, channel, error.qx_msgnr, "%s", error.qx_msgInsert);
    return -1;
}

struct callers {
    ccm_caller_counts count;
    int silent_ID = 0;         // of the caller who has said nothing for longest, 0 without one
    int remote_silent_ID = 0;  // likewise of those from other hosts
    int group_silent_ID = 0;   // likewise of the group that is asked for
};

void note_first(int* id, bool wanted, const ccm_channel_t* channel) {
    if (wanted && *id == 0) {
        *id = channel->ID;
    }
}

// The IDs grow with time, and the walk goes from the oldest channel to the newest.
callers callers_now(ccm_context_t* ccm, const ccm_caller& caller) {
    callers now;
    const time_t silent_since = alarm_now() - ccm_accepted_silence;
    spin_guard guard(&ccm->channel_lock);
    for (ccm_channel_t* head : {ccm->channelq.first, ccm->channel_newq.first}) {
        for (ccm_channel_t* channel = head; channel != nullptr; channel = channel->nxt) {
            if (channel->type.load() != CH_TYPE_ACCEPTED || channel_has(channel, CH_FLAG_DELETED)) {
                continue;
            }
            const bool same = channel->caller.group == caller.group;
            const bool remote = !channel->caller.own_host;
            const bool silent = !channel_has(channel, CH_FLAG_SPOKE) && channel->accepted_at <= silent_since;
            ++now.count.all;
            now.count.remote += remote ? 1 : 0;
            now.count.group += same ? 1 : 0;
            note_first(&now.silent_ID, silent, channel);
            note_first(&now.remote_silent_ID, silent && remote, channel);
            note_first(&now.group_silent_ID, silent && same, channel);
        }
    }
    return now;
}

// Whether one more caller may stay. Who holds a connection without a word has to make room: otherwise a
// handful of idle connections would keep the jobs of this host from reporting.
bool make_room(ccm_context_t* ccm, const ccm_caller& caller) {
    const callers now = callers_now(ccm, caller);
    int leaving_ID = 0;
    switch (ccm_judge_caller(now.count, caller.own_host)) {
        case CCM_ROOM_FREE:
            return true;
        case CCM_ROOM_GROUP_FULL:
            leaving_ID = now.group_silent_ID;
            break;
        case CCM_ROOM_REMOTE_FULL:
            leaving_ID = now.remote_silent_ID;
            break;
        case CCM_ROOM_FULL:
            leaving_ID = now.silent_ID;
            break;
    }
    ccm_channel_image_t leaving;
    if (ccm_channel_copy(ccm, leaving_ID, &leaving) != 0) {
        return false;
    }
    ccm_channel_failbyID(ccm, leaving.ID, number_no_answer, "%s|%d|", leaving.addr, ccm_accepted_silence);
    return true;
}

// One line a minute at most: who floods the listener shall not flood the log as well. Network thread.
bool minute_has_passed(time_t* last) {
    const time_t now = alarm_now();
    if (*last != 0 && now - *last < 60) {
        return false;
    }
    *last = now;
    return true;
}

void log_turned_away(const char* address) {
    static time_t last = 0;
    if (minute_has_passed(&last)) {
        __log(-1,
              "too many open connections: a connection from %s was closed; further ones are closed without a "
              "line",
              address);
    }
}

uint16_t port_of(const sockaddr_storage& peer) {
    if (peer.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6&>(peer).sin6_port);
    }
    return ntohs(reinterpret_cast<const sockaddr_in&>(peer).sin_port);
}

// A socket whose own end nobody tells is a stranger's.
ccm_caller caller_of(int s, const sockaddr_storage& peer) {
    ccm_caller caller{};
    caller.peer = peer;
    socklen_t length = sizeof caller.own;
    if (getsockname(s, reinterpret_cast<sockaddr*>(&caller.own), &length) != 0) {
        caller.own = {};
    }
    caller.group = ccm_caller_group(peer);
    caller.own_host = ccm_is_own_host(caller.own, peer);
    return caller;
}

// Everything is set before the channel is chained, and it is chained before the main thread hears of it.
void adopt_accepted(ccm_context_t* ccm, qx_descriptor s, const ccm_caller& caller, const char* address) {
    ccm_error_t error;
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(ccm, &channel, &error) != 0) {
        return;
    }
    channel->s = s.release();
    channel->type = CH_TYPE_ACCEPTED;
    channel->port = port_of(caller.peer);
    channel->caller = caller;
    copy_text(channel->addr, address);
    copy_text(channel->host, address);
    if (ccm_address2string(&caller.own, channel->bind_addr, sizeof channel->bind_addr) == 0) {
        channel->flag.fetch_or(CH_FLAG_BIND_KNOWN);
    }
    // The socket works without linger as well; accept has made it non-blocking.
    ccm_set_linger(ccm, channel, 1, ccm_linger_seconds, &error);
    channel->timestamp_last_io = channel->timestamp_last_read = alarm_now();
    channel->accepted_at = alarm_now();
    channel->connect_timeout_secs = ccm_accepted_seconds;
    channel->connect_timeout = alarm_now() + ccm_accepted_seconds;
    channel->flag.fetch_or(CH_FLAG_CONNECTING);
    int id = channel->ID;
    ccm_channel_chain(ccm, channel);
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, sizeof(ipcmsg_channel_id_t), &error);
    if (msg == nullptr) {
        return;  // nobody greets the caller, the time limit ends the channel
    }
    ipcmsg_channel_id_t record{};
    memcpy(record.header.msgtype, ipc_channel_accept, sizeof record.header.msgtype);
    record.ID = id;
    memcpy(msg->msg_start, &record, sizeof record);
    send_IPC_internal(ccm, msg);
}

// False when there is nothing more to accept now.
bool accept_one(ccm_context_t* ccm, ccm_channel_t* listen_channel) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const int accepted = accept4(listen_channel->s.load(), reinterpret_cast<sockaddr*>(&peer), &length,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
    qx_descriptor s(accepted < 0 ? -1 : descriptor_in_range(accepted));
    if (!s.valid()) {
        int number = errno;
        if (number == ECONNABORTED) {
            return true;
        }
        if (number != EAGAIN && number != EWOULDBLOCK && number != EINTR) {
            static time_t last = 0;
            if (minute_has_passed(&last)) {
                __log(number_call_failed, "accept(...,FIONBIO)|%d-%s", number, strerror(number));
            }
            listen_channel->accept_rest = alarm_now() + 1;  // the condition won't pass in this cycle
        }
        return false;
    }
    char address[64];
    ccm_address2string(&peer, address, sizeof address);
    const ccm_caller caller = caller_of(s.get(), peer);
    if (!make_room(ccm, caller)) {
        s.reset();
        log_turned_away(address);
        return true;
    }
    adopt_accepted(ccm, std::move(s), caller, address);
    return true;
}

}  // namespace

ccm_accept_limits ccm_limits;

ccm_room ccm_judge_caller(const ccm_caller_counts& now, bool own_host) {
    if (!own_host && now.group >= ccm_limits.group) {
        return CCM_ROOM_GROUP_FULL;
    }
    if (!own_host && now.remote >= ccm_limits.all - ccm_limits.own_host) {
        return CCM_ROOM_REMOTE_FULL;
    }
    return now.all >= ccm_limits.all ? CCM_ROOM_FULL : CCM_ROOM_FREE;
}

int ccm_write_channel(ccm_context_t* ccm, ccm_channel_t* channel) {
    if (!pen_take(channel)) {
        return 0;
    }
    int result = write_queued(ccm, channel);
    channel->pen.store(false);
    return result;
}

int write_queued(ccm_context_t* ccm, ccm_channel_t* channel) {
    while (ccm_msg_t* msg = head_of_sendq(channel)) {
        if (seal_if_wanted(ccm, channel, msg) != 0) {
            return -1;
        }
        auto offered = static_cast<size_t>(std::min(msg->len - msg->pos, ccm_write_piece));
        ssize_t written = write_piece(channel, msg, offered);
        if (written < 0) {
            int number = errno;
            channel_fail(ccm, channel, number_write_failed, "%d(%s)|%s(%d/ID=%d)|", number, strerror(number),
                         channel->addr, channel->s.load(), channel->ID);
            return -1;
        }
        if (written > 0) {
            channel->timestamp_last_io = channel->timestamp_last_write = alarm_now();
        }
        msg->pos += static_cast<int>(written);
        if (msg->pos == msg->len) {
            {
                spin_guard guard(&channel->queue_lock);
                queue_take(&channel->sendq);
                sendq_left(channel, msg);
            }
            ccm_msg_free(ccm, msg);
        }
        if (static_cast<size_t>(written) < offered) {
            break;
        }
    }
    return 0;
}

void ccm_signal_on_listen(ccm_context_t* ccm, ccm_channel_t* channel) {
    // A few at a time: a burst of callers shall not keep the others waiting.
    for (int i = 0; i < 16 && accept_one(ccm, channel); ++i) {
    }
}
