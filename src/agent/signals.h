// Signals: a handler sets a bit and wakes the main loop, which does the work.
#pragma once

struct EX_PCX;
struct qx7_error;

// Reads the settings of section GLOBAL, installs the dispositions and unblocks what is handled on this
// thread. 0, or -1 with `error`.
int signal_open(EX_PCX* pcx, qx7_error* error);
int signal_close(EX_PCX* pcx, qx7_error* error);
// What `signal_open` would store in `flag_signal`.
int signal_read_settings(EX_PCX* pcx);

// Main loop: answers the pending bits.
int maintenance_signals(EX_PCX* pcx);
// Collects the ended children; each that this process made itself gives one SIGCHLD record.
int signal_handle_sigchild(EX_PCX* pcx);
int signal_handle_sigterm(EX_PCX* pcx);
// The agent opens its log anew, for those who move it away; a child goes on. 0 or -1.
int signal_handle_hangup(EX_PCX* pcx);
