// What the proc file system tells of a job's processes, and whether a process id still is the job's process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "jobs/job_area.h"

struct EX_PCX;

// What is read of one process. Times in milliseconds, start in ticks since boot.
struct procArea_t {
    pid_t pa_pid = 0, pa_ppid = 0, pa_pgid = 0, pa_sid = 0;
    char pa_state = ' ';  // 'Z' for one that ended and was not waited for
    int64_t pa_cpuTime = 0, pa_ucpu = 0, pa_scpu = 0;
    int64_t pa_ioCount = 0;  // major faults, its own and its children's
    int64_t pa_start = 0;
    std::string pa_fname;
};

// Reads one stat line, from behind its last ')'. false when it does not hold what is needed.
bool GetLinuxStaEntry(std::string_view line, procArea_t* process);
// Reads /proc/<pid>/stat. false when the process does not exist.
bool GetLinuxProcEntry(pid_t pid, procArea_t* process);
// uid that owns /proc/<pid>; all ones when the process does not exist.
uid_t process_owner(pid_t pid);

// The pid to look for: m_ppid under start type B, else fork_pid.
pid_t SetCheckPid(const JP_AREA* job);
// That pid when it still is the job's process, else 0: pid above 1, existing, same start time where both are
// known, no zombie of somebody else, end not yet taken. Also while processes of its group outlive a cancel,
// and under batch start the start command's group until the messenger told the pid.
pid_t CheckProzessId(const JP_AREA* job);

// Fills akt_pid, JP_jStart, consumption and ImageName over the process, its children and its group. 0: not
// running, figures left; -1: /proc cannot be read (logged); else akt_pid, at least 1. The processes of one
// second are read once for all entries.
int Get_Proc_Attr(JP_AREA* job);
// The same from the process's own stat file alone.
int Get_Proc_Attr_own(JP_AREA* job);
// All processes of a group, those that ended and were not waited for among them; read anew. Empty also where
// /proc cannot be read, which is logged.
std::vector<procArea_t> processes_of_group(pid_t group);
// Forgets the processes that were read.
void process_info_forget();
// Number of passes over /proc so far.
unsigned process_info_passes();

// "yyyymmdd/hhmmss" in local time of a start in ticks since boot.
std::string CnvTimeLinux(int64_t start);
// The same as seconds since 1970; 0 when the time since boot cannot be read.
time_t process_start_time(int64_t start);
