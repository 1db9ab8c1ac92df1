// The messenger's message: on the listener's side whose it is, on the agent's side what it says.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

#include "jobs/job_area.h"

inline constexpr uid_t meld_unknown_uid = static_cast<uid_t>(-1);

// Is the peer on this host: a loopback address, or the address of the socket itself?
bool meld_peer_is_local(const sockaddr_storage& own, const sockaddr_storage& peer);
// uid of the socket at the other end, from the kernel's socket table; all ones when it is not found, as for a
// process in a network namespace of its own. Any thread.
uid_t meld_peer_uid(const sockaddr_storage& own, const sockaddr_storage& peer);
// The second way of the above: the tables "tcp" and "tcp6" in `folder` ("/proc/net").
uid_t meld_peer_uid_from_tables(const char* folder, const sockaddr_storage& own,
                                const sockaddr_storage& peer);

// Takes the content of a MELD (from its head on) over. `uid` is that of the peer: counted only for root, the
// agent's own and the job's user. Bytes from outside, of any length. 0, or -1 for an unknown job. Main
// thread.
int job_take_meld(EX_PCX* pcx, const unsigned char* meld, size_t length, uid_t uid);
