// Mistakes in the INI file: names that nobody knows and values that nobody understands. Reads the file and
// nothing else; the agent takes for them what it always took, except where that would leave it unprotected.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

struct EX_PCX;
struct qx7_error;

struct setting_fault {
    int line = 0;
    std::string section;
    std::string key;
    std::string text;  // what is wrong, what was taken instead, and what to write
    bool ends_start = false;
};

// In the order of the file; empty also for a file that cannot be read, which is told elsewhere.
std::vector<setting_fault> settings_faults(const char* ini);
// "FILE:LINE: [SECTION] TEXT".
std::string fault_line(const char* ini, const setting_fault& fault);

// The faults of the context's INI file on standard error, and kept for the log, which is not open yet.
void settings_tell_faults(const EX_PCX* pcx, FILE* out);
// The same faults in the log. -1 with `error` (2000024, insert "key|section|") when one of them ends the
// start.
int settings_log_faults(const EX_PCX* pcx, qx7_error* error);

// A switch that protects, read while the agent runs: `safe` for a value that nobody understands, with a line
// in the log. (At the start such a value ends the agent.)
bool settings_protecting_switch(EX_PCX* pcx, const char* section, const char* key, bool safe);
