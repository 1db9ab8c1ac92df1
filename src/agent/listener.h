// The unprivileged child process that owns the listening sockets.
#pragma once

#include <ctime>

struct EX_PCX;
struct qx7_error;

inline constexpr int listener_ping_period = 60;     // seconds
inline constexpr int listener_silence_limit = 240;  // seconds
inline constexpr int listener_start_limit = 5;      // starts without LISTENER_OK
// When the last listener was started, on the alarm clock; 0 before the first.
time_t listener_last_start();
inline constexpr int agent_child_failure = 1;
inline constexpr char listener_watchdog_timer[] = "LISTENER_PING_WATCHDOG";

// Agent, main thread. Starts a listener when there is none, drops one that fell silent. Returns in the child
// too: `running_mode` is 1 then.
int maintenance_listener_process(EX_PCX* pcx);
int listener_start_process(EX_PCX* pcx, qx7_error* error);
int listener_read_config(EX_PCX* pcx, qx7_error* error);
int listener_create_listener_channels(EX_PCX* pcx, qx7_error* error);
// Agent: asks the listener to end and does not start another.
int listener_shutdown(EX_PCX* pcx);

// Timer callbacks: the agent's ping every minute, the listener's watch over it.
int listener_ping_wd_handler(void* pcx, const char* name, const char* minor);
int listener_ping_watchdog(void* pcx, const char* name, const char* minor);
