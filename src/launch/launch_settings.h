// How processes are started on this host: settings, and the shells that were found. Main thread.
#pragma once

#include <sys/resource.h>

#include <string>
#include <vector>

struct EX_PCX;
struct qx7_error;

// JobStartType.
enum job_start_type : char { JOB_START_FORK = 'F', JOB_START_VFORK = 'V', JOB_START_BATCH = 'B' };

// A shell that was found: name up to 15, path up to 63 characters.
struct SHELL_DATA {
    std::string sh;
    std::string path_sh;
};

// Start commands of start type B.
struct UNIX_CMD {
    std::string BSHcmd;
    std::string CSHcmd;
    std::string KSHcmd;
    std::string OTHERcmd;
};

// Filled by launch_open and constant until launch_close, unless told otherwise.
struct launch_settings {
    unsigned FileReportMode = 0600;
    unsigned JobFileMode = 0700;
    UNIX_CMD cmdAddr;
    std::vector<SHELL_DATA> firstSD;  // grows while the agent runs
    char JobStartType = JOB_START_FORK;
    unsigned char Fl_Sigchld = 1;  // the signal layer delivers SIGCHLD
    unsigned char JP_SwitchToRealUser = 0;
    char Bourne_Shell_opt[16] = {};
    char Korn_Shell_opt[16] = {};
    char C_Shell_opt[16] = {};
    // Of descriptors, as the agent was started with: it lowers its own later, which is no business of the
    // jobs. rlim_max 0: unknown.
    rlimit descriptor_limit = {};
};

// Valid before launch_open too, with the defaults above.
launch_settings* launch_context();

// Reads the settings and loads the texts of a child's messages. 0; -1 with `error` when a start command is
// missing.
int launch_open(EX_PCX* pcx, qx7_error* error);
// The defaults again.
void launch_close();
