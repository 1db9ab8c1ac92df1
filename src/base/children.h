// The processes that this process forked itself. Only these are waited for: system() and PAM modules wait for
// their own. Main thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

// After each fork, in the parent.
void children_note(pid_t pid);
bool children_known(pid_t pid);
// Collects one noted child that has ended, without waiting. False when none has.
// Cheap when many run: the kernel is asked for any ended child first, and each noted one only if that is a
// stranger.
bool children_collect(pid_t* pid, int* status);
size_t children_count();
// In a forked child: the parent's children are not its own.
void children_forget_all();
