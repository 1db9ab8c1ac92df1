// What the agent tells about itself and its host: the system variables. Main thread.
#pragma once

#include "base/executor_var.h"

struct EX_PCX;
struct qx7_error;

// Allocates and fills the record in `pcx->pcx_varex` and logs what it found. 0, or -1 with `error`.
int Var_Open(EX_PCX* pcx, qx7_error* error);
// Wipes and frees. A record that was never made is no error.
int Var_Close(EX_PCX* pcx);
// Processors that are online, at least 1.
int GetCPUs();
