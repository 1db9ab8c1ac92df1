// The table of jobs: sorted by run number and then client, with an index on the process id.
// Main thread only, no lock.
#pragma once

#include <cstdint>

#include "jobs/job_area.h"

// Makes an entry with its initial values and the current time as JP_cTime. An entry that is already there is
// returned as it is. Owned by the table.
JP_AREA* Create_JEntry(int jobNr, uint16_t client);
// The entry, or nullptr.
JP_AREA* Find_JEntry(int jobNr, uint16_t client);
// The first entry behind this key, or nullptr. (-1, 0) gives the first of all: a loop over the table walks by
// key, so that entries may be erased meanwhile.
JP_AREA* Next_JEntry(int jobNr, uint16_t client);
// Wipes what is secret, frees the entry and everything it owns; deletes no file. 0, or -1 when there is none.
int Erase_JEntry(int jobNr, uint16_t client);
void Reset_JTab();
int jpGetJobCount();

// Sets fork_pid and keeps the index true. 0 takes the entry out of the index.
void job_table_set_pid(JP_AREA* job, uint32_t pid);
// An entry whose fork_pid is `pid`, other than `except`; nullptr when there is none or `pid` is 0.
JP_AREA* job_table_find_pid(uint32_t pid, const JP_AREA* except = nullptr);
// The entry that the end of child `pid` closes: own child, start type F or V, end not yet taken.
JP_AREA* job_table_find_child(uint32_t pid);
// Is there an entry with this fork_pid? Fills its key and returns true.
bool CheckPidJEntry(int* jobNr, uint16_t* client, uint32_t pid);

// Wipes and frees the kept message and passwd record of a start that waited.
void job_drop_kept_start(JP_AREA* job);
