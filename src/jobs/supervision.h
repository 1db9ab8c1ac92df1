// What a job tells and how it ends: messenger, SIGCHLD, periodic check, and the status for the server.
// Main thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "jobs/job_area.h"
#include "messages/build.h"
#include "messages/records_job.h"

struct EX_PCX;
struct ccm_msg_t;

// Handler of MELD in the listener: checks that the peer is this host, asks the kernel for the uid at the
// other end and passes all to the agent. 0 or -1.
int process_exmeld(EX_PCX* pcx, ccm_msg_t* msg, int row);
// Handler of NATMELD in the agent: acknowledges at once by NATQUITT, then takes the content over. 0 or -1.
int process_ipc_exmeld(EX_PCX* pcx, ccm_msg_t* msg, int row);
// End of child `pid`: exitCode as pr_exit gives it. 1 when the pid belonged to a job, else 0.
int process_job_sigchild(EX_PCX* pcx, int pid, int exitCode, int rawStatus);
// Exit status, or the number of the signal that ended or stopped the process.
int pr_exit(int status);

// Handler of the internal record JOBCHK and of EXCHKJ: looks at each entry whose alarm is due. 0.
int process_jobchk(EX_PCX* pcx, ccm_msg_t* msg, int row);
// Sets Job_alarm_time to the earliest alarm, 0 when there is none. Returns the number of entries.
int jpGetJobAlarmTime(EX_PCX* pcx);

// Builds and sends EXSTAJ, and does what belongs to an end. 0, or -1 when there was no message buffer.
int create_and_send_exstaj(EX_PCX* pcx, JP_AREA* job);
// The body of EXSTAJ alone, in host form. Counts sta_cnt, reads the process.
message_builder<MSG_TYPE_EXSTAJ> job_build_exstaj(EX_PCX* pcx, JP_AREA* job, bool server_reachable);

// JP_eTime now; the children's processor times since the last call are the job's.
void SetCpuEndTimes(JP_AREA* job);
// First call: `times` of now becomes the point from which SetCpuEndTimes counts.
void job_reset_cpu_times();

// Will a SIGCHLD close this job? Not under start type B, not for a rebuilt entry, not with the signal off.
bool job_awaits_sigchld(const JP_AREA* job);
