// The job processor's set-up, the activation of jobs and their deferred start. Main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "jobs/job_area.h"
#include "jobs/job_send.h"

struct EX_PCX;
struct ccm_msg_t;
struct qx7_error;

// Allocates the module, brings the texts of its report lines into memory and reads its settings.
// 0; -1 with `error` when a start command is missing (the agent then ends with exit code 1).
int JP_Open(EX_PCX* pcx, qx7_error* error);
// Frees lists and entries. Sends nothing, kills nothing, deletes no file: the jobs run on.
int JP_Close(EX_PCX* pcx);
// The same in a forked child, which has only a copy: nothing outside is touched.
int JP_after_fork(EX_PCX* pcx);
// What follows each call of the module: Job_alarm_time by the number of jobs.
void JP_after_call(EX_PCX* pcx);

// Handler of EXAKTJ. 0, or the failure of sending.
int process_aktj(EX_PCX* pcx, ccm_msg_t* msg, int row);

// Tries the start of a job that waits. 0: started, or to be tried again while jobstart is not 0;
// 1: given up, the server was told, the caller removes the entry when jobstart is not 0.
int Start_Ex_Aktj(EX_PCX* pcx, JP_AREA* job);

// Tries the start of a job that waits and does what its result asks for: another try in 5 seconds, or the end
// of the entry.
void job_try_deferred_start(EX_PCX* pcx, JP_AREA* job);
// Starts a job that waited for resources once none is missing. The entry may be gone afterwards.
void StartJobWhenPossible(EX_PCX* pcx, JP_AREA* job);
// Makes the table's jobs those that resources are stored for.
void job_own_resources();

// What the report of `job` tells of its resources ahead of all output.
std::string job_report_head(const JP_AREA* job);

// The restart record of `job`: empty while JP_RstInfo says that it went out, else 1336 bytes and the names.
// Marks it as sent when `server_reachable`. `fresh_child`: read the child's own stat file only.
std::vector<unsigned char> CreateJobRstrtInfo(JP_AREA* job, const char* userName, bool server_reachable,
                                              bool fresh_child);

// What a restart record says, with everything bounded by the received length.
struct job_record {
    int64_t jStart = 0;
    int32_t pgid = 0;
    std::string jFile, jReport, oName;
    std::string task_cache_path, userName;  // empty unless the record is longer than its fixed part
    std::vector<std::string> resNames;
};
// false when the record is shorter than its file names need; `record` is then unusable.
bool job_record_read(const unsigned char* bytes, size_t length, job_record* record);
