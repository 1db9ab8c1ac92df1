// Host names looked up off the main thread: a name service that is slow or away must not hold up everything
// else. Numbers need no look-up and don't come here.
#pragma once

#include <netinet/in.h>

#include <vector>

#include "channels/ccm.h"

inline constexpr int resolver_threads_max = 8;  // look-ups at a time

// Looks `host` up on a thread of its own and starts the connect of the chained channel `id`, which has no
// socket yet; a name without address ends the channel with 2000102 "getaddrinfo|...". The channel's time
// limit holds meanwhile. 0, or -1 when too many look-ups are under way or no thread can be had. Main thread.
int resolver_connect(ccm_context_t* ccm, int id, const char* host, int port, ccm_error_t* err);
// How many look-ups are under way.
int resolver_lookups();
// From here on no look-up touches the context. Called by ccm_close.
void resolver_forget(const ccm_context_t* ccm);
// IPv4 addresses of the own host's name, as far as they are known by now: the first call starts the look-up.
std::vector<in_addr_t> resolver_own_host();
