// The status store of a transfer: what a restart and an answer for a lost worker need. Sender's side, in the
// worker that the transfer belongs to. Functions return 0, or -1 with `err`.
#pragma once

#include <ctime>
#include <string>

#include "base/error.h"

struct EX_PCX;
struct ftx_elem;
struct ftx_entry;

// The name of the store, of `ftx_ah_idnr2` when that is set. Sets ftx->store_name.
void ss_createSSFileName(ftx_entry* ftx);
// Whether a store that a restart can use is there: opened, checked and closed again. A damaged one is renamed
// to "<name>.bad".
bool ss_usable(ftx_entry* ftx);
// Opens it for writing; a transfer that does not resume begins with an empty one.
int ss_open_file(ftx_entry* ftx, int mode, qx7_error* err);
int ss_closeFile(ftx_entry* ftx, qx7_error* err);
int ss_rm_file(ftx_entry* ftx, qx7_error* err);  // closes it; the file stays until ss_ftxCleanup

int ss_saveFTX(ftx_entry* ftx, qx7_error* err);
int ss_loadFTX(ftx_entry* ftx, qx7_error* err);
int ss_saveFTXE(ftx_entry* ftx, ftx_elem* elem, qx7_error* err);
// The elements of the store of `id`.
int ss_loadFTXEall(ftx_entry* ftx, int id, qx7_error* err);
int ss_saveREPORT(ftx_entry* ftx, int log_nr, qx7_error* err);
int ss_loadREPORT(ftx_entry* ftx, int id, qx7_error* err);
// Removes all report lines of the store.
int ss_clearREPORT(ftx_entry* ftx, qx7_error* err);

// The end state of an entry that was loaded for a question: 1 by its elements, 2 by its report.
void ss_chkForFtxinfo(ftx_entry* ftx, int mode);

// The list of files of a transfer that goes on.
int ftx_create_filelist_from_statusstore(ftx_entry* ftx, qx7_error* err);

// Removes stores that are older than `life_days`, 0: none, and sets the time of the next cleaning, which
// ss_cleanup_due tells (on the real clock; 0: none). 1, or -1 after a failure, which is logged.
int ss_ftxCleanup(EX_PCX* pcx, int life_days, qx7_error* err);
time_t ss_cleanup_due();
