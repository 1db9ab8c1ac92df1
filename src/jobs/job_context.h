// Settings and lists of the job processor, filled by JP_Open and constant until JP_Close.
#pragma once

#include <string>
#include <vector>

struct EX_PCX;

// Fl_UidType, Qx_UidType: whether those who are not listed may start jobs.
enum job_list_type : char { JOB_LIST_EXCLUSIVE = 'E', JOB_LIST_INCLUSIVE = 'I' };
// Flag of a list entry.
enum job_start_flag : char { JOB_MAY_START = 'S', JOB_MAY_NOT_START = 'N' };
// JP_ReadUser.
enum job_list_reading : char { JOB_LISTS_ALWAYS = 'A', JOB_LISTS_AT_START = 'N' };

struct userid {
    std::string username;
    char flag = JOB_MAY_NOT_START;
};

struct qx_user {
    long useridnr = 0;
    char flag = JOB_MAY_NOT_START;
};

inline constexpr char job_context_key[17] = "%%JOBKEY_PCX  %%";

// Context of the module, one per process, reached by job_context().
struct JPPCX {
    char Key[16] = {};
    std::string meldName;
    int batch_wait = 0;  // seconds that a job of start type B may stay without a word
    char Fl_UidType = JOB_LIST_EXCLUSIVE;
    char Qx_UidType = JOB_LIST_EXCLUSIVE;
    char JP_ReadUser = JOB_LISTS_AT_START;
    std::vector<userid> userids;
    std::vector<qx_user> qx_users;
    char KillSignal[16] = {};
};

// The context; valid before jpOpen too, with the defaults above. Main thread.
JPPCX* job_context();
