// Reading a channel: bytes, frames, messages.

#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/message_numbers.h"
#include "channels/connect.h"
#include "channels/handshake.h"
#include "channels/internal.h"
#include "messages/conversion.h"
#include "messages/frame.h"

namespace {

constexpr size_t first_buffer = 8192;
constexpr size_t busy_buffer = 65536;  // once a read has filled the buffer
constexpr size_t header_checked_from = 10;

int buffer_grow(ccm_context_t* ccm, ccm_channel_t* channel, size_t size) {
    std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[size]);
    if (buffer == nullptr) {
        channel_fail(ccm, channel, number_no_memory, "%s/%s(%d)", "RECVBUFF", __FILE__, __LINE__);
        return -1;
    }
    MemCopy(buffer.get(), channel->recv_buffer.get(), channel->recv_pos);
    channel->recv_buffer = std::move(buffer);
    channel->recv_size = size;
    return 0;
}

int buffer_make_room(ccm_context_t* ccm, ccm_channel_t* channel) {
    if (channel->recv_pos < channel->recv_size) {
        return 0;
    }
    const bool first = channel->recv_size == 0;
    return buffer_grow(ccm, channel,
                       first ? first_buffer : std::max(channel->recv_size + first_buffer, busy_buffer));
}

int ccm_channel_bindaddr_inquire(ccm_context_t* ccm, ccm_channel_t* channel) {
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    bool pair = channel->type.load() == CH_TYPE_IPC;
    if (!pair && getsockname(channel->s.load(), reinterpret_cast<sockaddr*>(&own), &length) != 0) {
        int number = errno;
        channel_fail(ccm, channel, number_call_failed, "getsockname()|%d(%s),S(%d(ID=%d))|", number,
                     strerror(number), channel->s.load(), channel->ID);
        return -1;
    }
    char address[64] = "";
    if (!pair) {
        ccm_address2string(&own, address, sizeof address);
    }
    spin_guard guard(&ccm->channel_lock);
    memcpy(channel->bind_addr, address, sizeof channel->bind_addr);
    channel->flag.fetch_or(CH_FLAG_BIND_KNOWN);
    return 0;
}

// Descriptors that came with a read. False when they are more than a channel may have waiting.
bool take_descriptors(ccm_channel_t* channel, msghdr* head) {
    bool fits = (head->msg_flags & MSG_CTRUNC) == 0;
    for (cmsghdr* item = CMSG_FIRSTHDR(head); item != nullptr; item = CMSG_NXTHDR(head, item)) {
        if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        size_t count = (item->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(item) + i * sizeof(int), sizeof fd);
            qx_descriptor arrived(descriptor_in_range(fd));
            if (!arrived.valid()) {
                continue;
            }
            if (channel->fifo.size() == ccm_descriptor_fifo_size) {
                fits = false;
            } else {
                channel->fifo.push_back(std::move(arrived));
            }
        }
    }
    return fits;
}

// Bytes read, 0 at the partner's end, -1 with errno; -2 when the channel was ended here. A process that
// passed a socket shares its flags and could make it wait: the call says itself that it does not.
ssize_t receive_bytes(ccm_context_t* ccm, ccm_channel_t* channel) {
    unsigned char* at = channel->recv_buffer.get() + channel->recv_pos;
    const size_t room = channel->recv_size - channel->recv_pos;
    if (channel->type.load() != CH_TYPE_IPC) {
        return recv(channel->s.load(), at, room, MSG_DONTWAIT);
    }
    alignas(cmsghdr) unsigned char control[256];
    iovec piece{at, room};
    msghdr head{};
    head.msg_iov = &piece;
    head.msg_iovlen = 1;
    head.msg_control = control;
    head.msg_controllen = sizeof control;
    ssize_t got = recvmsg(channel->s.load(), &head, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (got > 0 && !take_descriptors(channel, &head)) {
        channel_fail(ccm, channel, number_read_failed, "%s|%d(%s),S(%d(ID=%d))|", channel->name, EMSGSIZE,
                     "too many descriptors", channel->s.load(), channel->ID);
        return -2;
    }
    return got;
}

// Not sealed yet, and no pair of this agent's own.
bool is_open_tcp(const ccm_channel_t* channel) {
    return channel->type.load() != CH_TYPE_IPC && !channel_has(channel, CH_FLAG_SEALED);
}

// The header as far as it is here. 0, or -1 when the channel was ended.
int check_header(ccm_context_t* ccm, ccm_channel_t* channel, unsigned char* at, size_t available) {
    int type = channel->type.load();
    unsigned flags = tcp_chk_reader;
    if (type == CH_TYPE_SERVER) {
        flags |= TCP_CHK_SERVER;
    } else if (type == CH_TYPE_IPC) {
        flags |= TCP_CHK_NO_LIMIT;
    }
    char reason[256] = "";
    int number = TCP_Chk(ccm->pcx->pcx_hTcpMsg, at, std::min(available, frame_header_size), flags, reason,
                         sizeof reason);
    if (number == 0) {
        return 0;
    }
    if (trc_on(TRC_TCPIP)) {
        trcdump_limited("frame with a bad header", at, static_cast<int>(available), 64);
    }
    if (number == number_frame_too_long) {
        const auto* framing = ccm->pcx->pcx_hTcpMsg;
        channel_fail(ccm, channel, number, "%s%s(ID=%d)|%d|", reason, channel->addr, channel->ID,
                     is_open_tcp(channel) ? std::min(ccm_frame_open_max, framing->iMaxPhysMsgSize)
                                          : framing->iMaxPhysMsgSize);
        return -1;
    }
    channel_fail(ccm, channel, number, "%s%s(ID=%d)|", reason, channel->addr, channel->ID);
    return -1;
}

// The frame's length, 0 when the channel was ended.
size_t frame_length(ccm_context_t* ccm, ccm_channel_t* channel, const unsigned char* at) {
    char digits[9] = "";
    memcpy(digits, at, 8);
    long length = strtol(digits, nullptr, 10);
    if (length <= static_cast<long>(frame_header_size) ||
        (is_open_tcp(channel) && length > ccm_frame_open_max)) {
        channel_fail(ccm, channel, number_frame_too_long, "%ld|%s(ID=%d)|%d|", length, channel->addr,
                     channel->ID, ccm_frame_open_max);
        return 0;
    }
    return static_cast<size_t>(length);
}

void enqueue_received(ccm_context_t* ccm, ccm_channel_t* channel, ccm_msg_t* msg) {
    ccm_backlog_t* backlog = channel->backlog;
    backlog->references.fetch_add(1);
    backlog->unhandled.fetch_add(1);
    if (msg->type == CCM_MSG_GSS) {
        backlog->handshakes.fetch_add(1);
    }
    msg->backlog = backlog;
    {
        spin_guard guard(&ccm->queue_lock);
        inuse_unlink(ccm, msg);
        queue_append(&ccm->recvq, msg);
    }
    wake_for_message(ccm);
}

// One whole frame. 0, or -1 when the channel was ended.
int take_frame(ccm_context_t* ccm, ccm_channel_t* channel, const unsigned char* frame, size_t size) {
    const int length = static_cast<int>(size);
    ccm_error_t error;
    ccm_msg_ptr msg(
        length > ccm_msg_standard_size ? ccm_msg_alloc_huge(ccm, length, &error) : ccm_msg_alloc(ccm, &error),
        {ccm});
    if (msg == nullptr) {
        channel_fail(ccm, channel, error.qx_msgnr, "%s", error.qx_msgInsert);
        return -1;
    }
    memcpy(msg->buffer1, frame, size);
    msg->msg_start = msg->buffer1;
    msg->len = length;
    memcpy(msg->addr.eyec, "#CCMADDR", sizeof msg->addr.eyec);
    msg->addr.src_ID = channel->ID;
    msg->addr.src_type = channel->type.load();
    ccm_classified result = ccm_classify_message(ccm, channel, msg.get());
    if (trc_on(TRC_TCPIP, '3')) {
        _TraceText("recv ID=%d: frame of %d bytes, kind %d, result %d", channel->ID, length, msg->type,
                   result);
    }
    if (result == CCM_CLASS_QUEUE) {
        channel->flag.fetch_or(CH_FLAG_SPOKE);
        enqueue_received(ccm, channel, msg.release());
        return 0;
    }
    if (result == CCM_CLASS_END) {
        ccm_channel_delete(ccm, channel);
        return -1;
    }
    return 0;
}

// What was cut leaves the buffer; a large buffer that has become empty is given back.
void buffer_advance(ccm_channel_t* channel, size_t done) {
    const size_t rest = channel->recv_pos - done;
    if (done > 0 && rest > 0) {
        memmove(channel->recv_buffer.get(), channel->recv_buffer.get() + done, rest);
    }
    channel->recv_pos = rest;
    if (rest == 0) {
        // A descriptor without a frame to take it was sent by mistake or in bad faith.
        channel->fifo.clear();
        if (channel->recv_size > busy_buffer) {
            channel->recv_buffer.reset();
            channel->recv_size = 0;
        }
    }
}

}  // namespace

bool channel_held_back(ccm_channel_t* channel) {
    ccm_backlog_t* backlog = channel->backlog;
    if (backlog->handshakes.load() > 0) {
        return true;
    }
    if (backlog->paused.load() != 0) {
        return true;
    }
    if (backlog->unhandled.load() < ccm_unhandled_limit) {
        return false;
    }
    backlog->paused.store(1);
    // The main thread may have caught up before it could see the mark.
    return !(backlog->unhandled.load() <= ccm_unhandled_limit / 2 && backlog->paused.exchange(0) != 0);
}

int ccm_cut_frames(ccm_context_t* ccm, ccm_channel_t* channel) {
    size_t done = 0;
    channel->recv_ready = false;
    while (channel->recv_pos - done >= header_checked_from) {
        if (channel_has(channel, CH_FLAG_NO_READ | CH_FLAG_DELETED)) {
            break;
        }
        if (channel_held_back(channel)) {
            channel->recv_ready = true;
            break;
        }
        unsigned char* at = channel->recv_buffer.get() + done;
        const size_t available = channel->recv_pos - done;
        if (check_header(ccm, channel, at, available) != 0) {
            return -1;
        }
        const size_t length = frame_length(ccm, channel, at);
        if (length == 0) {
            return -1;
        }
        if (available < length) {
            if (length > channel->recv_size && available >= frame_header_size) {
                buffer_advance(channel, done);
                return buffer_grow(ccm, channel,
                                   length);  // in one step, now that the header was judged whole
            }
            break;
        }
        if (take_frame(ccm, channel, at, length) != 0) {
            return -1;
        }
        done += length;
    }
    buffer_advance(channel, done);
    return 0;
}

int ccm_read_channel(ccm_context_t* ccm, ccm_channel_t* channel) {
    if (buffer_make_room(ccm, channel) != 0 ||
        (!channel_has(channel, CH_FLAG_BIND_KNOWN) && ccm_channel_bindaddr_inquire(ccm, channel) != 0)) {
        return -1;
    }
    channel->timestamp_last_io = alarm_now();
    ssize_t got = receive_bytes(ccm, channel);
    if (got == -2) {
        return -1;
    }
    if (got < 0) {
        int number = errno;
        if (number == EAGAIN || number == EWOULDBLOCK || number == EINTR) {
            return 0;
        }
        // A failed connect shows here, before any name or address of the partner is known for sure.
        channel_fail(ccm, channel, number_read_failed, "%s|%d(%s),S(%d(ID=%d))|", channel->addr, number,
                     strerror(number), channel->s.load(), channel->ID);
        return -1;
    }
    if (got == 0) {
        ccm_channel_delete(ccm, channel);  // the partner's end, which needs no reason
        return -1;
    }
    channel->timestamp_last_read = alarm_now();
    channel->recv_pos += static_cast<size_t>(got);
    return ccm_cut_frames(ccm, channel);
}
