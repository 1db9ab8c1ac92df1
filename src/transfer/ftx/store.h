// The status store of a transfer: what a restart and an answer for a lost worker need. Sender's side, in the
// worker that the transfer belongs to. Functions return 0, or -1 with `err`.
#pragma once

#include <ctime>
#include <string>

#include "base/error.h"
#include "transfer/ftx/entry.h"

struct EX_PCX;

// The number that names the store: `ftx_ah_idnr2`, or without it the own one.
int ss_storeId(const ftx_entry* ftx);
// The file of a transfer's store.
std::string ss_fileName(const EX_PCX* pcx, int id);
// Sets ftx->store_name.
void ss_createSSFileName(ftx_entry* ftx);
// Whether a store that a restart can use is there: opened as the user of the order, checked and closed again.
// A damaged one is renamed to "<name>.bad".
bool ss_usable(ftx_entry* ftx);

enum ss_open_mode : int {
    SS_FOR_RUN = 0,  // a transfer that does not resume begins with an empty one, the other with a new report
    SS_FOR_QUESTION = 1,  // as it is, whoever owns it
};
int ss_open_file(ftx_entry* ftx, int mode, qx7_error* err);
int ss_closeFile(ftx_entry* ftx, qx7_error* err);
int ss_rm_file(ftx_entry* ftx, qx7_error* err);  // closes it; the file stays until ss_ftxCleanup

// The first one of a run opens the store; from the second on the list of files in it counts as whole.
int ss_saveFTX(ftx_entry* ftx, qx7_error* err);
int ss_loadFTX(ftx_entry* ftx, qx7_error* err);
// Without a store nothing is kept: 0.
int ss_saveFTXE(ftx_entry* ftx, ftx_elem* elem, qx7_error* err);
int ss_saveREPORT(ftx_entry* ftx, const ftx_log_line& line, qx7_error* err);
// The elements, and the report, of the store of `id`; what the entry holds of them goes.
int ss_loadFTXEall(ftx_entry* ftx, int id, qx7_error* err);
int ss_loadREPORT(ftx_entry* ftx, int id, qx7_error* err);

// The list of files of a transfer that goes on.
int ftx_create_filelist_from_statusstore(ftx_entry* ftx, qx7_error* err);

// Removes stores that are older than `life_days`, 0: none, and sets the time of the next cleaning, which
// ss_cleanup_due tells (on the real clock; 0: none). 1, or -1 after a failure, which is logged.
int ss_ftxCleanup(EX_PCX* pcx, int life_days, qx7_error* err);
time_t ss_cleanup_due();
// The next time of day at which cleaning is due, from FTX_GLB; to be called when that was set.
void ss_set_cleanup_time(time_t now);
