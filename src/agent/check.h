// `qxxjlnx check`: looks at all that a start needs, and starts, makes and changes nothing.
#pragma once

#include <cstdio>

// One line on `out` for each thing looked at: "ok", "warning" or "FAILED", its name, and what was found.
// Result: 0, or 1 when something failed. The process stands in the folder of the program.
int check_command(const char* ini, const char* program, FILE* out);
