// Host names and socket addresses.

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/message_numbers.h"
#include "channels/connect.h"
#include "channels/internal.h"

namespace {

struct address_list {
    addrinfo* first = nullptr;
    ~address_list() {
        if (first != nullptr) {
            freeaddrinfo(first);
        }
    }
};

int resolve(const char* name, address_list* out, ccm_error_t* err) {
    ccm_assert_no_spin_lock();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    int result = getaddrinfo(name, nullptr, &hints, &out->first);
    if (result != 0 || out->first == nullptr) {
        return qx_error_set(err, -1, result, number_call_failed, "getaddrinfo|%d(%s)", result,
                            gai_strerror(result));
    }
    return 0;
}

bool is_preferred(const addrinfo& entry, int prefer) {
    return (entry.ai_family == AF_INET && (prefer & CCM_PREFER_IPV4) != 0) ||
           (entry.ai_family == AF_INET6 && (prefer & CCM_PREFER_IPV6) != 0);
}

// The test counts an address only when its text is "::1", so with the preference that all callers give it
// never chooses one: a host name means the first address of the resolver's list. It must stay so, other
// choices would send existing installations to other addresses.
bool counts(const addrinfo& entry) {
    char text[64];
    ccm_address2string(entry.ai_addr, text, sizeof text);
    ToUpperStr(text);
    return strcmp(text, "127.0.0.1") != 0 && strcmp(text, "::1") == 0 && strncmp(text, "FE80:", 5) != 0;
}

}  // namespace

int ccm_check_ipv6_support(ccm_error_t* err) {
    const qx_descriptor s(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return s.valid() ? 0
                     : qx_error_set(err, -1, errno, number_call_failed, "socket(AF_INET6)|%d(%s)", errno,
                                    strerror(errno));
}

int ccm_hostname2address(const char* name, int prefer, sockaddr_in6* out, ccm_error_t* err) {
    if (err != nullptr) {
        *err = ccm_error_t{};
    }
    memset(out, 0, sizeof *out);
    std::string host = name == nullptr ? "" : name;
    for (char& c : host) {
        if (c == '[' || c == ']') {
            c = ' ';
        }
    }
    host = std::string(strip(host));
    address_list list;
    if (resolve(host.c_str(), &list, err) != 0) {
        return -1;
    }
    const addrinfo* chosen = nullptr;
    for (const addrinfo* entry = list.first; entry != nullptr && chosen == nullptr; entry = entry->ai_next) {
        if (counts(*entry) && is_preferred(*entry, prefer)) {
            chosen = entry;
        }
    }
    if (chosen == nullptr) {
        chosen = list.first;
    }
    memcpy(out, chosen->ai_addr, ccm_address_length(chosen->ai_addr));
    return 0;
}

socklen_t ccm_address_length(const void* address) {
    return static_cast<const sockaddr*>(address)->sa_family == AF_INET ? sizeof(sockaddr_in)
                                                                       : sizeof(sockaddr_in6);
}

int ccm_address2string(const void* address, char* out, int size) {
    if (size <= 0) {
        return -1;
    }
    out[0] = '\0';
    const void* number = nullptr;
    int family = static_cast<const sockaddr*>(address)->sa_family;
    if (family == AF_INET) {
        number = &static_cast<const sockaddr_in*>(address)->sin_addr;
    } else if (family == AF_INET6) {
        number = &static_cast<const sockaddr_in6*>(address)->sin6_addr;
    }
    if (number == nullptr || inet_ntop(family, number, out, static_cast<socklen_t>(size)) == nullptr) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

const char* ccm_addressformatted(const char* address, char buffer[80]) {
    if (address[0] == '[' || strchr(address, ':') == nullptr) {
        return address;
    }
    snprintf(buffer, 80, "[%.77s]", address);
    return buffer;
}

int ccm_getmyIP(int prefer, char* out, ccm_error_t* err) {
    out[0] = '\0';
    char host[256];
    if (gethostname(host, sizeof host) != 0) {
        return qx_error_set(err, -1, errno, number_call_failed, "getmyIP/gethostname()|%d(%s)", errno,
                            strerror(errno));
    }
    host[sizeof host - 1] = '\0';
    sockaddr_in6 address;
    if (ccm_hostname2address(host, prefer, &address, err) != 0) {
        return -1;
    }
    return ccm_address2string(&address, out, 64);
}

int ccm_log_all_ip(const char* host, ccm_error_t* err) {
    address_list list;
    if (resolve(host, &list, err) != 0) {
        return -1;
    }
    for (const addrinfo* entry = list.first; entry != nullptr; entry = entry->ai_next) {
        char text[64];
        ccm_address2string(entry->ai_addr, text, sizeof text);
        __log(number_host_address, "%s|%s", host, text);
    }
    return 0;
}

std::array<unsigned char, 16> ccm_address_bytes(const sockaddr_storage& address) {
    std::array<unsigned char, 16> bytes{};
    if (address.ss_family == AF_INET) {
        bytes[10] = bytes[11] = 0xff;
        memcpy(bytes.data() + 12, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, 4);
    } else if (address.ss_family == AF_INET6) {
        memcpy(bytes.data(), &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, bytes.size());
    }
    return bytes;
}

namespace {

constexpr std::array<unsigned char, 12> mapped_prefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr std::array<unsigned char, 16> loopback_v6 = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

bool is_v4(const std::array<unsigned char, 16>& bytes) {
    return std::equal(mapped_prefix.begin(), mapped_prefix.end(), bytes.begin());
}

}  // namespace

std::array<unsigned char, 16> ccm_caller_group(const sockaddr_storage& address) {
    std::array<unsigned char, 16> bytes = ccm_address_bytes(address);
    if (!is_v4(bytes)) {
        std::fill(bytes.begin() + 8, bytes.end(), static_cast<unsigned char>(0));
    }
    return bytes;
}

bool ccm_is_own_host(const sockaddr_storage& own, const sockaddr_storage& peer) {
    const std::array<unsigned char, 16> bytes = ccm_address_bytes(peer);
    const bool loopback = is_v4(bytes) ? bytes[12] == 127 : bytes == loopback_v6;
    const bool known = peer.ss_family == AF_INET || peer.ss_family == AF_INET6;
    return known && (loopback || bytes == ccm_address_bytes(own));
}
