// The receiver's file: what the decompressor hands over is written. All is done as the user of the order, in
// the folder that was found at the beginning, and never through a link in the file's place.
#pragma once

#include "transfer/legacy/area.h"

// Folder and name of the order. 0, or -1 with the area's Result.
int target_find(FT_AREA* area);
// What stands under the name. 0, or -1 with Result.
int FT_WriteFF(FT_AREA* area);
// Opens the file, or that of an earlier run. 0; or the number that tells why an earlier run cannot go on, and
// the file was begun anew; or -1 with Result.
int FT_RecvOpen(FT_AREA* area);
// The name under which an unfinished file stands; empty with Result when it cannot be one.
std::string Ft_CreateTempFile(FT_AREA* area);

// The callback of dcsOpen.
int WriteAfterDeCompress(void* area, const char* bytes, int length, int mode, ErrMsg* error);
// The end of the last record.
void target_last_end(FT_AREA* area);
// Writes what waits. 0, or -1 with Result.
int target_flush(FT_AREA* area);
// Writes and closes the file, and looks whether it still is there. 0, or -1 with Result.
int target_close(FT_AREA* area);
// Gives a finished file its name. 0, or -1 with 11471 as Result.
int target_rename(FT_AREA* area);
// Closes an unfinished file; one with a temporary name stays only where a restart may need it.
void target_give_up(FT_AREA* area);

// The area of a rename that failed earlier; null when this agent knows of none. `stp` is what the sender gave
// back.
std::unique_ptr<FT_AREA> Ft_ContEnd(EX_PCX* pcx, int transfer_id, std::string_view peer_name,
                                    const DATA_FT_STP& stp);
