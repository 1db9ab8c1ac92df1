// Outgoing connections, listening sockets, and host names. Main thread. A connect never waits for a name
// (resolver.h); the other calls with a name take the resolver's time.
#pragma once

#include <netinet/in.h>

#include <array>

#include "channels/ccm.h"

// Preference for ccm_hostname2address; bits.
enum ccm_prefer : int {
    CCM_PREFER_IPV6 = 1,
    CCM_PREFER_IPV4 = 2,
};

// Starts a connect and returns the new channel's ID at once; the outcome comes as traffic on the channel or
// as CHANNEL_CLOSE. -1 with `err` filled: a close without user context is posted when a channel was made, and
// `cuc` stays the caller's. After an ID it is the channel's.
int ccm_connect(ccm_context_t* ccm, const char* host, int port, int type, ccm_connect_user_context_t* cuc,
                int timeout_seconds, ccm_error_t* err);
// Listening socket as a channel. The empty address means all addresses, "*LOCAL" loopback. Port 0: the system
// chooses; the channel's `port` tells. 0 or -1.
int ccm_create_listen(ccm_context_t* ccm, const char* address, int port, int backlog, ccm_error_t* err);
// The same, and the port that was bound.
int ccm_create_listen_port(ccm_context_t* ccm, const char* address, int port, int backlog, int* bound_port,
                           ccm_error_t* err);
// The socket alone, listening and non-blocking, or -1; the caller owns it.
int ccm_open_listen(ccm_context_t* ccm, const char* address, int port, int backlog, ccm_error_t* err);
// The port that a socket is bound to, 0 without one.
int ccm_bound_port(int s);
// Channels of sockets that were handed over, non-blocking: a listening one, and one end of a socket pair
// under the name of its other end. The ID, or -1; the socket is the channel's, or closed after -1.
int ccm_adopt_listen(ccm_context_t* ccm, int s, ccm_error_t* err);
int ccm_adopt_pair_end(ccm_context_t* ccm, int s, const char* name, ccm_error_t* err);
// 1 when a live channel of type 6 to that address and port exists, 0 if not, -1 when the name doesn't
// resolve.
int ccm_is_cp_connecting(ccm_context_t* ccm, const char* host, int port, ccm_error_t* err);

int ccm_set_nonblocking(ccm_context_t* ccm, ccm_channel_t* channel, ccm_error_t* err);
int ccm_set_linger(ccm_context_t* ccm, ccm_channel_t* channel, int onoff, int seconds, ccm_error_t* err);

// First address of the resolver's list (brackets around the name are dropped). 0, or -1 with 2000102
// "getaddrinfo|%d(%s)".
int ccm_hostname2address(const char* name, int prefer, sockaddr_in6* out, ccm_error_t* err);
// Text of an AF_INET or AF_INET6 address; -1 and an empty text on failure.
int ccm_address2string(const void* sockaddr, char* out, int size);
// Length of the socket address by its family: 16 for AF_INET, else 28.
socklen_t ccm_address_length(const void* sockaddr);
// An address with ":" that doesn't start with "[" comes back in brackets, in `buffer` (80 bytes); others as
// they are.
const char* ccm_addressformatted(const char* address, char buffer[80]);
// Address of the own host name as text (char[64]).
int ccm_getmyIP(int prefer, char* out, ccm_error_t* err);
// Logs 2000066 for each address of a host.
int ccm_log_all_ip(const char* host, ccm_error_t* err);
int ccm_check_ipv6_support(ccm_error_t* err);
// An address as 16 bytes, IPv4 as a mapped one; zero for other families.
std::array<unsigned char, 16> ccm_address_bytes(const sockaddr_storage& address);
// Whom an address belongs to when callers are counted: an IPv4 address counts alone, an IPv6 address with all
// others of its /64, which mostly is one host.
std::array<unsigned char, 16> ccm_caller_group(const sockaddr_storage& address);
// Whether the peer of a connection is this host: a loopback address (127/8, ::1) or the address of the own
// end.
bool ccm_is_own_host(const sockaddr_storage& own, const sockaddr_storage& peer);
