// The sender's files: the list, and the stream that the compressor reads. Runs as the user of the order.
#pragma once

#include "base/error.h"

struct ftx_elem;
struct ftx_entry;

// The files of the order, or of the store when it goes on (filelist.cpp). 0 or -1 with `err`.
int ftx_create_filelist(ftx_entry* ftx, qx7_error* err);

// A new stream. 0 or -1 with `err`.
int src_openCompress(ftx_entry* ftx, qx7_error* err);
void src_closeCompress(ftx_entry* ftx);

// Closes the file that is being read; status and progress stay.
void src_closeFile(ftx_entry* ftx);
// Removes the source of a file that has arrived, when it still is what was opened. 0 or -1 with `err`.
int FTX_removeFile(ftx_entry* ftx, ftx_elem* elem, qx7_error* err);
