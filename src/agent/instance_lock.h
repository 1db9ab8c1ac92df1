// One agent for each INI file: a second one would move the log files of the first and take its port from it.
#pragma once

#include <sys/types.h>

enum instance_lock_result {
    instance_lock_taken = 0,    // this process is the one, until it ends
    instance_lock_foreign = 1,  // another process is
    instance_lock_failed = -1   // the lock file cannot be used; errno
};

// Takes the lock file beside `ini` (its name with ".lock") for this process. It is a file of its own, since
// the INI file is replaced whenever it is written. Children do not inherit the lock, and it ends with the
// process. Before anything of the installation is touched. `holder` receives the other process, 0 when it is
// of another container.
instance_lock_result instance_lock(const char* ini, pid_t* holder);

// The process that holds the lock, 0 when nobody does, -1 with errno when the lock file cannot be opened.
// Takes and makes nothing.
pid_t instance_lock_holder(const char* ini);
