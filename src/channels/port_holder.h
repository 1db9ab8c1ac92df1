// Who has taken a TCP port of this host. For what an operator is told when the port cannot be had.
#pragma once

#include <string>

// "process 17 (name)", as far as this process may see it; else "a process of user 1000", or "an unknown
// process" when nobody listens there, as when the port is held in another way. Reads /proc; any thread.
std::string port_holder_text(int port);
