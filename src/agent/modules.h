// The modules with state, opened and closed in their orders. Main thread.
#pragma once

struct EX_PCX;
struct qx7_error;

// Opens one after the other; the first that fails ends the row. 0, or -1 with `error`.
int open_modules(EX_PCX* pcx, qx7_error* error);
// Closes all, opened or not. A forked child only forgets what it has a copy of.
void close_modules(EX_PCX* pcx);
