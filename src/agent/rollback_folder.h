// Clearing of the rollback folder: what upgrades and the server put aside, by day, and what has expired of
// it.
#pragma once

#include <string>

#include "base/error.h"

struct EX_PCX;

// When due, and while the server gave a life, clears the folder. Called by each maintenance cycle. Main
// thread.
void rb_maintenance(EX_PCX* pcx, time_t now);
// Sets the next run to tomorrow at the server's time, and removes what is older than `life` seconds. The
// number of files removed, or -1 with `error`.
int rb_FolderCleanup(EX_PCX* pcx, int life, qx7_error* error);
// Below `dir`, in each directory: each directory whose name is not greater than `dueDate` ("yyyymmdd", plain
// order of bytes). Failures of single entries are logged and passed over. The number of files removed, or -1
// when `dir` cannot be read.
int rb_expiredDirsCheck(const char* dir, const char* dueDate, qx7_error* error);
// Empties each directory in `dir` and removes `dir`, which holds only directories of files. The number of
// files removed, or -1 with `error`.
int rb_expiredDirsRemove(const char* dir, qx7_error* error);
