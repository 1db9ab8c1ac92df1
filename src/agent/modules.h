// The modules with state, opened and closed in their orders. Main thread.
#pragma once

struct EX_PCX;
struct qx7_error;

// Opens one after the other; the first that fails ends the row. 0, or -1 with `error`.
int open_modules(EX_PCX* pcx, qx7_error* error);
// Closes all, opened or not. A child only forgets what it has a copy of, but for a worker's own module.
void close_modules(EX_PCX* pcx);
// In a forked child: what it has a copy of is the parent's.
void forget_modules(EX_PCX* pcx);
