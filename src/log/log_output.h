// Where the log file stands and who may read it: what the agent's operator decides.
#pragma once

#include "log/log.h"

// Closes the log file and goes on in the one of the same name: in a new one when somebody has moved the old
// one away, else behind its last line. No generation is moved. Main thread of the agent. 0, or -1 with errno;
// the file is then tried again as after a failed start of it.
int log_open_anew(EX_PCX* pcx);
// The group of log files that are made from here on, -1 for the agent's own.
void log_set_group(gid_t group);
// Called, under the log lock, when another thread than the main one puts the first line into a list that was
// empty; null: nobody is. It must neither wait nor log.
void log_set_waker(void (*waker)());
// log_open_anew on a handle. The log lock is not needed.
int log_file_anew(PZULOGG handle);
