// What a handler may do to the host while a fuzz target runs: nothing. The calls of the C library that make
// processes, send signals, ask for names, or change files are replaced in the target's program; while an
// input runs, files change below the scratch folder only, and there is one account, whatever the host's are.
#pragma once

#include <sys/types.h>

#include <string>

inline constexpr char sandbox_user[] = "worker";      // the only account; its uid is the process's own
inline constexpr char sandbox_password[] = "secret";  // of that account

struct sandbox_state {
    std::string folder;      // the scratch folder; the account's home is below it
    bool closed = false;     // an input runs
    int next_process = 0;    // what fork answers: above 0 that process id, which is nobody's; 0 EAGAIN
    unsigned processes = 0;  // made by this input
    unsigned signals = 0;    // sent by this input, to nobody
    unsigned calls = 0;      // connects by this input, to nobody
};

// The one state. Makes the scratch folder at its first use and removes it when the process ends.
sandbox_state& sandbox();

// Begins and ends an input: counters back to 0, the doors closed or open.
void sandbox_close();
void sandbox_open();
