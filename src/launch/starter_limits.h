// Keeps the starter's resource limits those of the agent: its children inherit them, and an operator changes
// the agent's (`prlimit --pid`) while it runs. Main thread.
#pragma once

#include <sys/types.h>

// Before each order. One system call as long as nothing has changed.
void starter_follow_limits(pid_t starter);
