#include "agent/check_network.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/check_report.h"
#include "agent/instance_lock.h"
#include "agent/settings.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/text.h"
#include "channels/port_holder.h"

namespace {

constexpr int longest_wait = 20;  // seconds; a person waits for the answer

struct resolved_addresses {
    addrinfo* first = nullptr;
    std::string failure;

    resolved_addresses(const std::string& host, const std::string& port, int flags) {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = flags | AI_NUMERICSERV;
        const int result = getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &first);
        if (result != 0) {
            first = nullptr;
            failure = gai_strerror(result);
        }
    }
    ~resolved_addresses() {
        if (first != nullptr) {
            freeaddrinfo(first);
        }
    }
    resolved_addresses(const resolved_addresses&) = delete;
    resolved_addresses& operator=(const resolved_addresses&) = delete;
};

// A literal IPv6 address stands in brackets where a port follows.
std::string without_brackets(std::string_view host) {
    const bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return std::string(brackets ? host.substr(1, host.size() - 2) : host);
}

// 0, or errno.
int try_bind(const addrinfo& address) {
    qx_descriptor listener(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.valid()) {
        return errno == EAFNOSUPPORT ? 0 : errno;  // a host without IPv6 listens without it
    }
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address.ai_family == AF_INET6) {
        setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    return bind(listener.get(), address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
}

// 0, or errno.
int try_connect(const addrinfo& address, int seconds) {
    qx_descriptor connection(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection.valid()) {
        return errno;
    }
    if (connect(connection.get(), address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    pollfd wait{connection.get(), POLLOUT, 0};
    const int ready = poll(&wait, 1, seconds * 1000);
    int number = ready == 0 ? ETIMEDOUT : errno;
    socklen_t size = sizeof number;
    if (ready > 0 && getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &number, &size) != 0) {
        return errno;
    }
    return number;
}

std::string value_of(EX_PCX* pcx, const char* key) {
    char value[512];
    pcx->getProfileString(pcx, "TCP/IP", key, "", value, sizeof value);
    return std::string(strip(value));
}

// By this very installation, as its lock shows, or by somebody else.
void check_taken_port(check_report* report, EX_PCX* pcx, const std::string& where, int port) {
    const pid_t agent = instance_lock_holder(pcx->IniFile);
    const bool hidden = agent < 0 && errno == EACCES;
    if (agent > 0 && port_is_held_by(port, agent)) {
        check_say(report, CHECK_OK, "port",
                  where + " is in use by this agent, process " + std::to_string(agent));
        return;
    }
    check_say(report, CHECK_FAILED, "port",
              where + ": " + strerror(EADDRINUSE) + " by " + port_holder_text(port) +
                  "; choose another TCP/IP/port" +
                  (hidden ? ", or look as the agent's user whether it is this agent" : ""));
}

}  // namespace

void check_port(check_report* report, EX_PCX* pcx) {
    char address[256];
    const int port = settings_listener_port(value_of(pcx, "port").c_str(), address, sizeof address);
    const std::string host =
        without_brackets(address[0] == '\0' ? value_of(pcx, "bindaddr") : std::string(address));
    if (port == 0) {
        check_say(
            report, CHECK_OK, "port",
            "the system chooses one at each start, and the log names it; set TCP/IP/port for a fixed one");
        return;
    }
    const resolved_addresses addresses(host, std::to_string(port), AI_PASSIVE);
    int number = 0;
    for (const addrinfo* at = addresses.first; at != nullptr && number == 0; at = at->ai_next) {
        number = try_bind(*at);
    }
    const std::string where = (host.empty() ? "" : host + ", ") + "port " + std::to_string(port);
    if (!addresses.failure.empty()) {
        check_say(report, CHECK_FAILED, "port",
                  where + ": " + addresses.failure + "; set TCP/IP/bindaddr to an address of this host");
    } else if (number == EADDRINUSE) {
        check_taken_port(report, pcx, where, port);
    } else if (number != 0) {
        check_say(report, CHECK_FAILED, "port", where + ": " + strerror(number));
    } else {
        check_say(report, CHECK_OK, "port", where + " is free");
    }
}

void check_server(check_report* report, EX_PCX* pcx) {
    const std::string text = value_of(pcx, "cp");
    const size_t colon = text.rfind(':');
    int64_t port = 0;
    if (colon == std::string::npos || !parse_number(text.substr(colon + 1), 1, 65535, &port)) {
        check_say(report, text.empty() ? CHECK_WARNING : CHECK_FAILED, "server",
                  "TCP/IP/cp names no host:port; only servers of an older CP_LIST can be found");
        return;
    }
    const resolved_addresses addresses(without_brackets(text.substr(0, colon)), text.substr(colon + 1), 0);
    const int wait = pcx->getProfileInt(pcx, "TCP/IP", "connwait", "20");
    int number = addresses.first == nullptr ? EHOSTUNREACH : 0;
    for (const addrinfo* at = addresses.first; at != nullptr; at = at->ai_next) {
        number = try_connect(*at, std::clamp(wait, 1, longest_wait));
        if (number == 0) {
            break;
        }
    }
    if (number == 0) {
        check_say(report, CHECK_OK, "server", text + " answers");
    } else {
        check_say(report, CHECK_FAILED, "server",
                  text + ": " + (addresses.failure.empty() ? strerror(number) : addresses.failure) +
                      "; check TCP/IP/cp, name service and firewall");
    }
}
