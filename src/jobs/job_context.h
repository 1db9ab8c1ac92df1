// Settings and lists of the job processor, filled by JP_Open and constant until JP_Close.
#pragma once

#include <string>
#include <vector>

struct EX_PCX;

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

inline constexpr char job_context_key[17] = "%%JOBKEY_PCX  %%";

// Context of the module, one per process, reached by job_context().
struct JPPCX {
    char Key[16] = {};
    std::string meldName;
    int batch_wait = 0;  // seconds that a job of start type B may stay without a word
    char Fl_UidType = job_list_exclusive;
    char Qx_UidType = job_list_exclusive;
    char JP_ReadUser = job_lists_at_start;
    std::vector<userid> userids;
    std::vector<qx_user> qx_users;
    char KillSignal[16] = {};
};

// The context; valid before jpOpen too, with the defaults above. Main thread.
JPPCX* job_context();
