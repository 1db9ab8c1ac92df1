// The children that this process forked itself. Only these are waited for: worker threads run `system` and
// PAM modules that fork, and whoever collects their children breaks them. Main thread.
#pragma once

#include <sys/types.h>

// Called by whoever forked, in the parent, before the main loop goes on.
void child_started(pid_t pid);
// True until child_wait_next has returned it.
bool child_is_ours(pid_t pid);
// The next of our children that has ended, with the status of waitpid; 0 when none has; -1 with errno on a
// failure other than ECHILD. Never blocks.
pid_t child_wait_next(int* status);
// In a forked child, whose parent's children are none of its own.
void children_forget();
