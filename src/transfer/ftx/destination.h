// The receiver's files: what the decompressor hands over is written. Runs as the user of the order.
#pragma once

#include "base/error.h"

struct ftx_entry;

int dst_openCompress(ftx_entry* ftx, qx7_error* err);
// The end of a stream. 0 or -1 with `err`.
int dst_closeCompress(ftx_entry* ftx, qx7_error* err);

// Flushes and closes an open file without completing it: temporary name and status stay.
void dst_closeUnfinished(ftx_entry* ftx);
// Files that wait for the disk get there, their names and their status. To be called before any status is told.
void dst_settle(ftx_entry* ftx);
