// The messenger's message: on the listener's side whose it is, on the agent's side what it says.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

#include "jobs/job_area.h"

inline constexpr uid_t meld_unknown_uid = static_cast<uid_t>(-1);

// uid of the socket at the other end, from the kernel's socket table; all ones when it is not found, as for a
// process in a network namespace of its own. With both ends exchanged it is the uid of the own end. Main
// thread.
uid_t meld_peer_uid(const sockaddr_storage& own, const sockaddr_storage& peer);
// The uid that sent a message over the connection which the listener names: all ones unless its own end is on
// `port`, belongs to `listener_uid` and both ends are on this host. The listener is not believed: it could
// name any connection of this host, and the uid of a stranger's end would speak for that user's jobs. Main
// thread.
uid_t meld_sender_uid(const sockaddr_storage& own, const sockaddr_storage& peer, int port,
                      uid_t listener_uid);
// The second way of the above: the tables "tcp" and "tcp6" in `folder` ("/proc/net").
uid_t meld_peer_uid_from_tables(const char* folder, const sockaddr_storage& own,
                                const sockaddr_storage& peer);
// What a netlink answer of `length` bytes says; all ones for one that is not whole, and for a socket without
// a living owner.
uid_t meld_uid_from_answer(const char* answer, size_t length);

// Takes the content of a MELD (from its head on) over. `uid` is that of the peer: counted only for root, the
// agent's own and the job's user. Bytes from outside, of any length. 0, or -1 when it changed nothing. Main
// thread.
int job_take_meld(EX_PCX* pcx, const unsigned char* meld, size_t length, uid_t uid);
