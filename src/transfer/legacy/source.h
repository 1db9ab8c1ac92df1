// The sender's file: what the compressor reads. Opened as the user of the order.
#pragma once

#include "transfer/legacy/area.h"

// Finds, tests and opens the file of the order. 0, or -1 with the area's Result.
int FT_SendOpen(FT_AREA* area);
// A new compressed stream of what stands behind so many bytes (binary) or records (text). 0, or -1 with
// Result; EINVAL when the file has not as much.
int source_start(FT_AREA* area, int64_t bytes, int64_t records);
void source_close(FT_AREA* area);
// Removes the file when it still is what was opened. 0, or -1 with an errno.
int source_erase(FT_AREA* area, int* error_number);

// The callbacks of csOpen; the first ends the stream early with the area's status when it cannot go on.
int ReadForCompress(void* area, char* buffer, int size, int mode, ErrMsg* error);
int MyCsSize(void* area, long* size, ErrMsg* error);
int MyCsReset(void* area, ErrMsg* error);
