// The staged end of a process. Main thread, unless told otherwise.
#pragma once

struct EX_PCX;

inline constexpr int drain_silence_limit = 60;  // seconds without a write after which a child is given up

// Only LOOP_RUNNING becomes LOOP_STOP_WANTED; later calls do nothing.
int initiate_agent_shutdown(EX_PCX* pcx);
// The same for an end that is none of the operator's: the process ends with code 1, so that a supervisor
// starts it anew.
int initiate_agent_failure(EX_PCX* pcx);
// The exit code of an agent whose loop has ended: 1 after initiate_agent_failure, else that of the upgrade.
int agent_end_code(const EX_PCX* pcx);
// One stage for each pass of the loop.
int shutdown_in_progress(EX_PCX* pcx);

// Closes everything in a fixed order and frees the context. Every step tolerates what was never opened, so a
// start that failed half-way ends here too.
void Close_All(EX_PCX* pcx, int exit_code, int close_ccm);
// The last resort for a call that cannot fail. Any thread; off the main thread it ends the process at once.
[[noreturn]] void ExitCall(const char* call, const char* text, int error_number);
void freePcx();
