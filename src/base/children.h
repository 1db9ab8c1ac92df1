// The processes that this process made itself. Only these are told of when they end. Main thread.
//
// Others become its children without its doing: as process 1 of a container, or as a subreaper, it inherits
// whatever its jobs leave behind. They are collected and forgotten, or each later end would have to be
// searched behind theirs. So each process that is made here is noted before the main loop goes on, or
// announced by children_expect, or waited for at once, as system() and PAM modules do.
#pragma once

#include <sys/types.h>

#include <cstddef>

// After each fork, in the parent.
void children_note(pid_t pid);
bool children_known(pid_t pid);
// From the order for a process that somebody else makes as a child of this one until its number was noted, or
// is known not to come. Calls nest.
void children_expect();
void children_expect_end();
// Collects one noted child that has ended, without waiting. False when none has.
// What it costs does not grow with the children that run: each is watched by a descriptor (pidfd), for up to
// three quarters of the descriptors that this process may have. The kernel's list is searched only for those
// above that, and where this process adopts.
bool children_collect(pid_t* pid, int* status);
size_t children_count();
// In a forked child: the parent's children are not its own.
void children_forget_all();
