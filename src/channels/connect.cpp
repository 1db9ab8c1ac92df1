#include "channels/connect.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "channels/internal.h"

namespace {

// "call()|errno(text),S(socket(ID=n))|" as 2000102, from errno.
int connect_failure(ccm_error_t* err, const char* call, const ccm_channel_t* channel) {
    int number = errno;
    return ccm_error_set(err, number, 2000102, "%s|%d(%s),S(%d(ID=%d))|", call, number, strerror(number),
                         channel->s.load(), channel->ID);
}

int new_socket(int family) {
    int s = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return s < 0 ? -1 : descriptor_in_range(s);
}

// From the socket to the connect on its way.
int start_connect(ccm_context_t* ccm, ccm_channel_t* channel, const sockaddr_in6& address, ccm_error_t* err) {
    const auto* target = reinterpret_cast<const sockaddr*>(&address);
    int s = new_socket(target->sa_family);
    channel->s = s;
    if (s < 0) {
        return connect_failure(err, "socket()", channel);
    }
    if (ccm_set_nonblocking(ccm, channel, err) != 0 ||
        ccm_set_linger(ccm, channel, 1, ccm_linger_seconds, err) != 0) {
        return -1;
    }
    sockaddr_in6 any{};
    any.sin6_family = target->sa_family;
    if (bind(s, reinterpret_cast<sockaddr*>(&any), ccm_address_length(target)) != 0) {
        return connect_failure(err, "bind()", channel);
    }
    // An interrupted connect goes on by itself, like one that takes its time.
    if (connect(s, target, ccm_address_length(target)) != 0 && errno != EINPROGRESS && errno != EINTR) {
        return connect_failure(err, "connect()", channel);
    }
    return 0;
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

int listen_failure(ccm_error_t* err, int s, const char* format, const char* text, int port) {
    int number = errno;
    char call[128];
    snprintf(call, sizeof call, "%s", format);
    if (strcmp(format, "bind") == 0) {
        snprintf(call, sizeof call, "bind(%s:%d)", text, port);
    }
    if (s >= 0) {
        close(s);
    }
    return ccm_error_set(err, number, 2000102, "%s|%d(%s)", call, number, strerror(number));
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
    int s = new_socket(where.family);
    if (s < 0) {
        int number = errno;
        return ccm_error_set(err, number, 2000102, "socket(family=%d,addr=)|%d(%s)", where.family, number,
                             strerror(number));
    }
    int on = 1;
    int off = 0;
    // Both only widen what the socket can do; bind and listen tell whether it works without.
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (where.family == AF_INET6) {
        setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    // 28 bytes for both families: the kernel looks at as many as the family has.
    if (bind(s, reinterpret_cast<const sockaddr*>(&where.address), sizeof where.address) != 0) {
        return listen_failure(err, s, "bind", text, port);
    }
    if (listen(s, backlog) != 0) {
        return listen_failure(err, s, "listen()", text, port);
    }
    if (ioctl(s, FIONBIO, &on) != 0) {
        return listen_failure(err, s, "listen()", text, port);
    }
    return s;
}

int listen_on(ccm_context_t* ccm, const char* text, int port, int backlog, int* bound_port,
              ccm_error_t* err) {
    listen_address where;
    if (resolve_listen_address(ccm, text, port, &where, err) != 0) {
        return -1;
    }
    int s = open_listen_socket(where, text, port, backlog, err);
    if (s < 0) {
        return -1;
    }
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(ccm, &channel, err) != 0) {
        close(s);
        return -1;
    }
    channel->s = s;
    channel->type = CH_TYPE_LISTEN;
    channel->port = bound_port_of(s);
    copy_text(channel->name, ccm_name_listen);
    if (bound_port != nullptr) {
        *bound_port = channel->port;
    }
    return ccm_channel_chain(ccm, channel);
}

}  // namespace

int ccm_connect(ccm_context_t* ccm, const char* host, int port, int type, ccm_connect_user_context_t* cuc,
                int timeout_seconds, ccm_error_t* err) {
    ccm_assert_no_spin_lock();
    sockaddr_in6 address{};
    if (ccm_hostname2address(host, CCM_PREFER_IPV4, &address, err) != 0) {
        return -1;
    }
    address.sin6_port = htons(static_cast<uint16_t>(port));
    ccm_channel_t* channel = nullptr;
    if (ccm_channel_new_entry(ccm, &channel, err) != 0) {
        return -1;
    }
    channel->type = type;
    channel->port = port;
    copy_text(channel->host, host);
    ccm_address2string(&address, channel->addr, sizeof channel->addr);
    int id = channel->ID;
    __log(2000348, "%s:%d(ID=%d)", host, port, id);
    if (start_connect(ccm, channel, address, err) != 0) {
        ccm_channel_discard(ccm, channel, true);
        return -1;
    }
    time_t now = alarm_now();
    channel->timestamp_last_io = now;
    channel->timestamp_last_read = now;
    channel->connect_timeout_secs = timeout_seconds;
    channel->connect_timeout = now + timeout_seconds;
    channel->flag.fetch_or(CH_FLAG_CONNECTING);
    channel->cuc = cuc;
    // A refused connect may be read, destroyed and freed from here on.
    ccm_channel_chain(ccm, channel);
    return id;
}

int ccm_create_listen_port(ccm_context_t* ccm, const char* address, int port, int backlog, int* bound_port,
                           ccm_error_t* err) {
    std::string text = address == nullptr ? "" : address;
    if (text != "*LOCAL") {
        return listen_on(ccm, text.c_str(), port, backlog, bound_port, err);
    }
    if ((ccm->flag.load() & CCM_FLAG_IPV6) != 0 &&
        listen_on(ccm, "::1", port, backlog, bound_port, err) == 0) {
        return 0;
    }
    return listen_on(ccm, "127.0.0.1", port, backlog, bound_port, err);
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
    int on = 1;
    if (ioctl(channel->s.load(), FIONBIO, &on) != 0) {
        return ccm_error_set(err, errno, 2000102, "ioctl(...,FIONBIO)|%d-%s", errno, strerror(errno));
    }
    return 0;
}

int ccm_set_linger(ccm_context_t*, ccm_channel_t* channel, int onoff, int seconds, ccm_error_t* err) {
    linger option{onoff, seconds};
    if (setsockopt(channel->s.load(), SOL_SOCKET, SO_LINGER, &option, sizeof option) != 0) {
        return ccm_error_set(err, errno, 2000102, "setsockopt(SO_LINGER,s=%d,ID=%d)|%d-%s", channel->s.load(),
                             channel->ID, errno, strerror(errno));
    }
    return 0;
}
