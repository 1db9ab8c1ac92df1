// A look at the network thread: one that stands still, whatever holds it, leaves a process that answers
// nobody and cannot even be stopped in order.
#pragma once

#include <ctime>

struct EX_PCX;

// Seconds without a cycle, although one was asked for, after which the process ends; the second while it is
// being stopped.
inline constexpr int network_watch_limit = 60;
inline constexpr int network_watch_limit_at_end = 15;

// Once in each pass of the loop; costs nothing while the thread moves. Main thread. Ends the process with
// code 1, so that a supervisor starts it anew: jobs go on and are found again, since nothing of them is in
// this process.
void network_watch(EX_PCX* pcx);
// When the next look is due, while the thread has not answered to the last one; 0 otherwise.
time_t network_watch_due();
