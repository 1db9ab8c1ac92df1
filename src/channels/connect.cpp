#include "channels/connect.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "base/message_numbers.h"
#include "channels/internal.h"
#include "channels/resolver.h"

namespace {

// "call()|errno(text),S(socket(ID=n))|" as 2000102, from errno.
int connect_failure(ccm_error_t* err, const char* call, int s, int id) {
    int number = errno;
    return qx_error_set(err, -1, number, number_call_failed, "%s|%d(%s),S(%d(ID=%d))|", call, number,
                        strerror(number), s, id);
}

qx_descriptor new_socket(int family) {
    const int s = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return qx_descriptor(s < 0 ? -1 : descriptor_in_range(s));
}

int nonblocking_failure(ccm_error_t* err) {
    return qx_error_set(err, -1, errno, number_call_failed, "ioctl(...,FIONBIO)|%d-%s", errno,
                        strerror(errno));
}

int linger_failure(ccm_error_t* err, int s, int id) {
    return qx_error_set(err, -1, errno, number_call_failed, "setsockopt(SO_LINGER,s=%d,ID=%d)|%d-%s", s, id,
                        errno, strerror(errno));
}

int set_nonblocking(int s) {
    int on = 1;
    return ioctl(s, FIONBIO, &on);
}

int set_linger(int s, int onoff, int seconds) {
    linger option{onoff, seconds};
    return setsockopt(s, SOL_SOCKET, SO_LINGER, &option, sizeof option);
}

// Without a look-up: an address in figures, in brackets or not.
bool numeric_address(const char* host, sockaddr_in6* out) {
    std::string text = host == nullptr ? "" : host;
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '[' || c == ']'; }, ' ');
    text = std::string(strip(text));
    *out = {};
    auto* v4 = reinterpret_cast<sockaddr_in*>(out);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        return true;
    }
    *out = {};
    out->sin6_family = AF_INET6;
    return inet_pton(AF_INET6, text.c_str(), &out->sin6_addr) == 1;
}

// The channel as it is chained; a refused connect may be read, destroyed and freed from then on.
int chain_connecting(ccm_context_t* ccm, ccm_channel_t* channel, ccm_connect_user_context_t* cuc,
                     int timeout_seconds) {
    const int id = channel->ID;
    const time_t now = alarm_now();
    channel->timestamp_last_io = now;
    channel->timestamp_last_read = now;
    channel->connect_timeout_secs = timeout_seconds;
    channel->connect_timeout = now + timeout_seconds;
    channel->flag.fetch_or(CH_FLAG_CONNECTING);
    channel->cuc = cuc;
    ccm_channel_chain(ccm, channel);
    return id;
}

// Directly or, for a name, once it was looked up. 0, or -1 and the channel is still the caller's.
int start_connect(ccm_channel_t* channel, const char* host, int port, bool* by_name, ccm_error_t* err) {
    sockaddr_in6 address;
    *by_name = !numeric_address(host, &address);
    if (*by_name) {
        return 0;
    }
    address.sin6_port = htons(static_cast<uint16_t>(port));
    ccm_address2string(&address, channel->addr, sizeof channel->addr);
    const int s = connect_socket(channel->ID, address, err);
    channel->s = s;
    return s < 0 ? -1 : 0;
}

struct listen_address {
    sockaddr_in6 address{};
    int family = AF_INET;
};

int resolve_listen_address(ccm_context_t* ccm, const char* text, int port, listen_address* out,
                           ccm_error_t* err) {
    bool ipv6 = (ccm->flag.load() & CCM_FLAG_IPV6) != 0;
    out->family = ipv6 ? AF_INET6 : AF_INET;
    out->address.sin6_family = static_cast<sa_family_t>(out->family);
    if (text[0] != '\0') {
        if (ccm_hostname2address(text, CCM_PREFER_IPV4, &out->address, err) != 0) {
            return -1;
        }
        out->family = out->address.sin6_family;
    }
    // The port stands at the same place in both families.
    out->address.sin6_port = htons(static_cast<uint16_t>(port));
    return 0;
}

int listen_failure(ccm_error_t* err, const char* format, const char* text, int port) {
    int number = errno;
    char call[128];
    snprintf(call, sizeof call, "%s", format);
    if (strcmp(format, "bind") == 0) {
        snprintf(call, sizeof call, "bind(%s:%d)", text, port);
    }
    return qx_error_set(err, -1, number, number_call_failed, "%s|%d(%s)", call, number, strerror(number));
}

int bound_port_of(int s) {
    sockaddr_in6 own{};
    socklen_t length = sizeof own;
    if (getsockname(s, reinterpret_cast<sockaddr*>(&own), &length) != 0) {
        return 0;
    }
    return ntohs(own.sin6_port);
}

// The socket, listening, or -1.
int open_listen_socket(const listen_address& where, const char* text, int port, int backlog,
                       ccm_error_t* err) {
    qx_descriptor s = new_socket(where.family);
    if (!s.valid()) {
        int number = errno;
        return qx_error_set(err, -1, number, number_call_failed, "socket(family=%d,addr=)|%d(%s)",
                            where.family, number, strerror(number));
    }
    int on = 1;
    int off = 0;
    // Both only widen what the socket can do; bind and listen tell whether it works without.
    setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (where.family == AF_INET6) {
        setsockopt(s.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    // 28 bytes for both families: the kernel looks at as many as the family has.
    if (bind(s.get(), reinterpret_cast<const sockaddr*>(&where.address), sizeof where.address) != 0) {
        return listen_failure(err, "bind", text, port);
    }
    if (listen(s.get(), backlog) != 0 || ioctl(s.get(), FIONBIO, &on) != 0) {
        return listen_failure(err, "listen()", text, port);
    }
    return s.release();
}

int open_listen(ccm_context_t* ccm, const char* text, int port, int backlog, ccm_error_t* err) {
    listen_address where;
    if (resolve_listen_address(ccm, text, port, &where, err) != 0) {
        return -1;
    }
    return open_listen_socket(where, text, port, backlog, err);
}

// A channel of a socket that stands already.
int adopt_socket(ccm_context_t* ccm, qx_descriptor s, int type, const char* name, int port,
                 ccm_error_t* err) {
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(ccm, &channel, err) != 0) {
        return -1;
    }
    channel->s = s.release();
    channel->type = type;
    channel->port = port;
    copy_text(channel->name, name);
    const int id = channel->ID;
    ccm_channel_chain(ccm, channel);
    return id;
}

}  // namespace

int ccm_connect(ccm_context_t* ccm, const char* host, int port, int type, ccm_connect_user_context_t* cuc,
                int timeout_seconds, ccm_error_t* err) {
    ccm_assert_no_spin_lock();
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(ccm, &channel, err) != 0) {
        return -1;
    }
    channel->type = type;
    channel->port = port;
    copy_text(channel->host, host);
    __log(number_connecting, "%s:%d(ID=%d)", host, port, channel->ID);
    bool by_name = false;
    if (start_connect(channel, host, port, &by_name, err) != 0) {
        ccm_channel_discard(ccm, channel, true);
        return -1;
    }
    const int id = chain_connecting(ccm, channel, cuc, timeout_seconds);
    ccm_error_t fault;
    if (by_name && resolver_connect(ccm, id, host, port, &fault) != 0) {
        // As when the name has no address: the channel's end tells.
        ccm_channel_failbyID(ccm, id, fault.qx_msgnr, "%s", fault.qx_msgInsert);
    }
    return id;
}

int connect_socket(int id, const sockaddr_in6& address, ccm_error_t* err) {
    const auto* target = reinterpret_cast<const sockaddr*>(&address);
    qx_descriptor s = new_socket(target->sa_family);
    if (!s.valid()) {
        return connect_failure(err, "socket()", -1, id);
    }
    if (set_nonblocking(s.get()) != 0) {
        return nonblocking_failure(err);
    }
    if (set_linger(s.get(), 1, ccm_linger_seconds) != 0) {
        return linger_failure(err, s.get(), id);
    }
    sockaddr_in6 any{};
    any.sin6_family = target->sa_family;
    if (bind(s.get(), reinterpret_cast<sockaddr*>(&any), ccm_address_length(target)) != 0) {
        return connect_failure(err, "bind()", s.get(), id);
    }
    // An interrupted connect goes on by itself, like one that takes its time.
    if (connect(s.get(), target, ccm_address_length(target)) != 0 && errno != EINPROGRESS && errno != EINTR) {
        return connect_failure(err, "connect()", s.get(), id);
    }
    return s.release();
}

int ccm_open_listen(ccm_context_t* ccm, const char* address, int port, int backlog, ccm_error_t* err) {
    std::string text = address == nullptr ? "" : address;
    if (text != "*LOCAL") {
        return open_listen(ccm, text.c_str(), port, backlog, err);
    }
    const int s = (ccm->flag.load() & CCM_FLAG_IPV6) != 0 ? open_listen(ccm, "::1", port, backlog, err) : -1;
    return s >= 0 ? s : open_listen(ccm, "127.0.0.1", port, backlog, err);
}

int ccm_bound_port(int s) {
    return bound_port_of(s);
}

int ccm_adopt_listen(ccm_context_t* ccm, int s, ccm_error_t* err) {
    return adopt_socket(ccm, qx_descriptor(s), CH_TYPE_LISTEN, ccm_name_listen, bound_port_of(s), err);
}

int ccm_adopt_pair_end(ccm_context_t* ccm, int s, const char* name, ccm_error_t* err) {
    return adopt_socket(ccm, qx_descriptor(s), CH_TYPE_IPC, name, 0, err);
}

int ccm_create_listen_port(ccm_context_t* ccm, const char* address, int port, int backlog, int* bound_port,
                           ccm_error_t* err) {
    const int s = ccm_open_listen(ccm, address, port, backlog, err);
    if (s < 0) {
        return -1;
    }
    if (bound_port != nullptr) {
        *bound_port = bound_port_of(s);
    }
    return ccm_adopt_listen(ccm, s, err) < 0 ? -1 : 0;
}

int ccm_create_listen(ccm_context_t* ccm, const char* address, int port, int backlog, ccm_error_t* err) {
    return ccm_create_listen_port(ccm, address, port, backlog, nullptr, err);
}

int ccm_is_cp_connecting(ccm_context_t* ccm, const char* host, int port, ccm_error_t* err) {
    sockaddr_in6 address{};
    if (ccm_hostname2address(host, CCM_PREFER_IPV4, &address, err) != 0) {
        return -1;
    }
    char text[64];
    ccm_address2string(&address, text, sizeof text);
    int ids[64];
    int count = ccm_channel_collect(ccm, CH_TYPE_CP_CANDIDATE, ids, static_cast<int>(std::size(ids)));
    for (int i = 0; i < count; ++i) {
        ccm_channel_image_t image;
        if (ccm_channel_copy(ccm, ids[i], &image) == 0 && image.port == port &&
            strcmp(image.addr, text) == 0) {
            return 1;
        }
    }
    return 0;
}

int ccm_set_nonblocking(ccm_context_t*, ccm_channel_t* channel, ccm_error_t* err) {
    return set_nonblocking(channel->s.load()) == 0 ? 0 : nonblocking_failure(err);
}

int ccm_set_linger(ccm_context_t*, ccm_channel_t* channel, int onoff, int seconds, ccm_error_t* err) {
    return set_linger(channel->s.load(), onoff, seconds) == 0
               ? 0
               : linger_failure(err, channel->s.load(), channel->ID);
}
