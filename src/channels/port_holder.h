// Who has taken a TCP port of this host. For what an operator is told when the port cannot be had.
#pragma once

#include <sys/types.h>

#include <string>

// "process 17 (name)", as far as this process may see it; else "a process of user 1000", or "an unknown
// process" when nobody listens there, as when the port is held in another way. Reads /proc; any thread.
std::string port_holder_text(int port);
// True when this process listens on the port, as far as it may be seen.
bool port_is_held_by(int port, pid_t process);
