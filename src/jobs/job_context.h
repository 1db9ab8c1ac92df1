// Settings and lists of the job processor, filled by jpOpen and constant until jpClose, unless told
// otherwise.
#pragma once

#include <sys/resource.h>

#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "jobs/resources.h"

struct EX_PCX;

// JobStartType.
enum job_start_type : char { job_start_fork = 'F', job_start_vfork = 'V', job_start_batch = 'B' };
// Fl_UidType, Qx_UidType: whether those who are not listed may start jobs.
enum job_list_type : char { job_list_exclusive = 'E', job_list_inclusive = 'I' };
// Flag of a list entry.
enum job_start_flag : char { job_may_start = 'S', job_may_not_start = 'N' };
// JP_ReadUser.
enum job_list_reading : char { job_lists_always = 'A', job_lists_at_start = 'N' };

struct userid {
    std::string username;
    char flag = job_may_not_start;
};

struct qx_user {
    long useridnr = 0;
    char flag = job_may_not_start;
};

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

inline constexpr char job_context_key[17] = "%%JOBKEY_PCX  %%";

// Context of the module, one per process, reached by job_context().
struct JPPCX {
    char Key[16] = {};
    std::list<resource_item> used_resource_list;
    std::list<resource_item> requested_resource_list;
    std::list<resource_item> waiting_resource_list;
    int res_key = 1;
    unsigned FileReportMode = 0600;
    unsigned JobFileMode = 0700;
    UNIX_CMD cmdAddr;
    std::vector<SHELL_DATA> firstSD;  // grows while the agent runs
    std::string meldName;
    char JobStartType = job_start_fork;
    int batch_wait = 0;  // seconds that a job of start type B may stay without a word
    char Fl_UidType = job_list_exclusive;
    char Qx_UidType = job_list_exclusive;
    unsigned char Fl_Sigchld = 1;  // the signal layer delivers SIGCHLD
    char JP_ReadUser = job_lists_at_start;
    unsigned char JP_SwitchToRealUser = 0;
    std::vector<userid> userids;
    std::vector<qx_user> qx_users;
    int do_pam_setcred = 0;
    int do_pam_open_session = 0;
    int do_pam_open_session_cp = 1;
    char KillSignal[16] = {};
    char Bourne_Shell_opt[16] = {};
    char Korn_Shell_opt[16] = {};
    char C_Shell_opt[16] = {};
    // Of descriptors, as the agent was started with: it lowers its own later, which is no business of the
    // jobs. rlim_max 0: unknown.
    rlimit descriptor_limit = {};
};

// The context; valid before jpOpen too, with the defaults above. Main thread.
JPPCX* job_context();
