// Who may start jobs: sections USERID and QX_USER. Main thread.
#pragma once

#include <sys/types.h>

#include <cstdint>

struct EX_PCX;
struct JPPCX;

// Reads both sections into the context's lists.
void read_start_lists(EX_PCX* pcx, JPPCX* context);
// 'S' or 'N' (job_start_flag). An account with uid 0 counts as root unless its own name is listed.
char user_start_flag(EX_PCX* pcx, const JPPCX* context, const char* name, uid_t uid);
char number_start_flag(EX_PCX* pcx, const JPPCX* context, uint32_t number);
