// What this floor has to do with the workers of transfers. Main thread.
#pragma once

struct EX_PCX;
struct qx7_error;

// Opens the module of transfers with the settings whose grammar stands here, and tells it what a new worker
// leaves behind.
int open_transfers(EX_PCX* pcx, qx7_error* error);

// Whether a transfer has something that the periodic check looks at.
bool transfers_wait(const EX_PCX* pcx);

// An order to shut down while workers run: true when it is put off for `ft_delayed_shutdown` seconds, or
// until the last of them has ended. A second order is not put off.
bool shutdown_waits_for_workers(EX_PCX* pcx);
// Ends the wait when the last worker has ended.
void shutdown_when_workers_ended(EX_PCX* pcx);
