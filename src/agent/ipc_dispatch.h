// The table of internal events and of records between the agent's own processes. Main thread.
#pragma once

#include "channels/ipc.h"

// Closed by an empty name with the default handler.
extern const ipc_function_t ipc_function_list[];

// Logger of the child processes: the line goes to the agent, at most 1023 bytes of insert. It never logs
// itself: without memory, or while the agent does not read, the line is lost. Any thread.
void ipc_logger(int number, const char* insert);
