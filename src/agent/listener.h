// The unprivileged process that serves the listening sockets, and the agent's care for it.
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
inline constexpr char listener_title_suffix[] = "-listener";  // behind the program's name
inline constexpr char listener_watchdog_timer[] = "LISTENER_PING_WATCHDOG";

// Agent, main thread. Holds the port, starts a listener when there is none, drops one that fell silent.
int maintenance_listener_process(EX_PCX* pcx);
// Starts this program anew as the listener, with the sockets that the agent holds. 0, or -1.
int listener_start_process(EX_PCX* pcx, qx7_error* error);
// Logs why a listener ended before its start, when it told.
void listener_log_start_failure();
// `listener_port` is the configured one, 0 for none. Always 0.
int listener_read_config(EX_PCX* pcx, qx7_error* error);
// Binds what the configuration names, or keeps what is bound already and still listens; `listener_port` and
// `ipPort` are the bound port then, which for 0 the system has chosen. 0, or -1.
int listener_hold_port(EX_PCX* pcx, qx7_error* error);
void listener_release_port();
// Agent: asks the listener to end and does not start another.
int listener_shutdown(EX_PCX* pcx);

// Timer callbacks: the agent's ping every minute, the listener's watch over it.
int listener_ping_wd_handler(void* pcx, const char* name, const char* minor);
int listener_ping_watchdog(void* pcx, const char* name, const char* minor);
