// The process group of a job: whom a cancel's signal meets, and whether somebody outlived it. Main thread.
#pragma once

#include <sys/types.h>

#include "jobs/job_area.h"

// True while a process of this group exists that has not ended. Its leader is gone: once its number names a
// process again, the group of that number is another one.
bool process_group_lives(pid_t group);
// Of a job that was cancelled: whether processes of its group outlived the signal and its own process. False
// for one that was never cancelled, whose end does not wait for what its script left behind.
bool job_group_survives(const JP_AREA* job);
// What a cancel signals, for kill(2): the job's group as a negative number, else the process `pid`, which
// CheckProzessId gave. Under batch start a group is the job's when the agent made it, or when all that is in
// it belongs to the job's user and is younger than the job, and no other job's process is among it.
pid_t job_signal_target(const JP_AREA* job, pid_t pid);
