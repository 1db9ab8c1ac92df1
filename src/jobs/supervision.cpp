#include "jobs/supervision.h"

#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "base/context.h"
#include "base/error.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "jobs/activation.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/job_time.h"
#include "jobs/process_group.h"
#include "jobs/process_info.h"
#include "jobs/report_scan.h"
#include "launch/launch_settings.h"
#include "log/log.h"

namespace {

constexpr int code_end_without_word = 211;  // of a job whose state does not fit an end
constexpr int code_killed = 9;
constexpr int decisive_check = 4;  // of an own child that is gone and whose SIGCHLD does not come

tms counted_times{};

void end_as_code(JP_AREA* job, int exitCode) {
    if (job->retCode == 0) {
        job->retCode = exitCode;
    }
    job->JP_status = job->retCode != 0 ? JOB_STATUS_FAILED : JOB_STATUS_ENDED;
}

void take_child_end(JP_AREA* job, int pid, int exitCode) {
    switch (job->JP_status) {
        case JOB_STATUS_ENDED:
        case JOB_STATUS_RUNNING:
        case JOB_STATUS_WAITING:
            end_as_code(job, exitCode);
            break;
        case JOB_STATUS_CANCEL:
            if (job->JP_sigNum != 0 && job->JP_sigNum == exitCode) {
                __log(number_job_killed, "%i|%i|", pid, exitCode);
                job->JP_status = JOB_STATUS_VANISHED;
                job->retCode = exitCode;
            } else {
                end_as_code(job, exitCode);
            }
            break;
        default:
            job->JP_status = JOB_STATUS_FAILED;
            job->retCode = exitCode != 0 ? exitCode : code_end_without_word;
            break;
    }
    job->JP_flag |= job_flag_end_taken;
}

void mark_vanished(JP_AREA* job) {
    job->JP_status = JOB_STATUS_VANISHED;
    job->JP_flag |= job_flag_end_taken;
    job_time_now(&job->JP_eTime_t, &job->JP_eTime);
}

// Those that the same signal ended may still be on their way out.
bool survives_for_long(const JP_AREA* job) {
    constexpr int looks = 20;
    constexpr useconds_t pause = 2000;
    for (int i = 0; i < looks && job_group_survives(job); ++i) {
        usleep(pause);
    }
    return job_group_survives(job);
}

// The process of a cancelled job has ended, and others of its group have not: neither has the job.
void await_group(JP_AREA* job, int exitCode) {
    job->JP_flag |= job_flag_process_reaped;
    job->jp_exit = exitCode == job->JP_sigNum ? -1 : exitCode;
    job->JP_alrmTime = alarm_now();
    __PutLogText(
        "Job %d was cancelled, and processes of its group %u live on: it has not ended. A cancel with "
        "KillSignal=KILL ends them, or 'pkill -KILL -g %u' on this host.",
        job->JP_jobNr, job->fork_pid, job->fork_pid);
}

// true: something to tell.
bool check_group(JP_AREA* job) {
    const bool cancelled = job->JP_status == JOB_STATUS_CANCEL;
    if (job_group_survives(job)) {
        job->JP_status = cancelled ? static_cast<char>(JOB_STATUS_RUNNING) : job->JP_status;
        return cancelled;
    }
    if (!job_status_is_final(job->JP_status)) {
        job->JP_status = JOB_STATUS_CANCEL;  // also where it was told as running again meanwhile
    }
    job_time_now(&job->JP_eTime_t, &job->JP_eTime);
    take_child_end(job, static_cast<int>(job->fork_pid), job->jp_exit < 0 ? job->JP_sigNum : job->jp_exit);
    return true;
}

// True while the SIGCHLD of a gone child may still be on its way. Counts first: the fourth check decides.
bool wait_for_sigchld(JP_AREA* job) {
    return job_awaits_sigchld(job) && ++job->maxRunCount < decisive_check;
}

void decide_by_report(JP_AREA* job) {
    qx7_error error;
    if (ReadReport(job, &error) == -1) {
        if (launch_context()->JobStartType == JOB_START_BATCH && job->m_ppid == 0) {
            __PutLogText(
                "Job %d: the start command has ended, and nothing was heard of the job: it counts as "
                "vanished. Where a batch system lets jobs wait, set STARTCMD/batch_wait to the seconds that "
                "they may.",
                job->JP_jobNr);
        }
        if (job->JP_sigNum != 0) {
            job->retCode = code_killed;  // it was still dying when the check looked at the cancel
        }
        mark_vanished(job);
    }
}

// The messenger has told the end and the shell still exists, or its SIGCHLD is on its way: telling the server
// would let it close a living job.
bool reported_end_waits(JP_AREA* job) {
    if ((job->JP_flag & job_flag_end_taken) != 0 || !job_awaits_sigchld(job)) {
        return false;
    }
    if (CheckProzessId(job) != 0 || wait_for_sigchld(job)) {
        return true;
    }
    job->JP_status = job->retCode != 0 ? JOB_STATUS_FAILED : JOB_STATUS_ENDED;
    job->JP_flag |= job_flag_end_taken;
    return false;
}

bool is_zombie(const JP_AREA* job) {
    procArea_t process;
    return GetLinuxProcEntry(SetCheckPid(job), &process) && process.pa_state == 'Z';
}

// false: nothing to tell the server in this pass.
bool check_cancelled(JP_AREA* job) {
    if (CheckProzessId(job) != 0) {
        if (is_zombie(job)) {
            return false;  // the signal hit; SIGCHLD closes the job
        }
        job->JP_status = JOB_STATUS_RUNNING;  // it ignored the signal
        return true;
    }
    if (wait_for_sigchld(job)) {
        return false;
    }
    __log(number_job_killed, "%i|%i|", job->m_ppid, code_killed);
    job->retCode = job_awaits_sigchld(job) && job->JP_sigNum != 0 ? job->JP_sigNum : code_killed;
    mark_vanished(job);
    return true;
}

bool check_running(JP_AREA* job) {
    if (CheckProzessId(job) == 0 && !wait_for_sigchld(job)) {
        decide_by_report(job);
    }
    return true;
}

// A batch system may let the job wait, and until its messenger speaks nobody can tell this from an end.
bool may_wait_in_queue(const JP_AREA* job) {
    return launch_context()->JobStartType == JOB_START_BATCH && job->m_ppid == 0 &&
           time(nullptr) - job->JP_cTime_t < job_context()->batch_wait;
}

bool check_waiting(JP_AREA* job) {
    if (CheckProzessId(job) != 0) {
        job->JP_status = JOB_STATUS_RUNNING;
        return true;
    }
    if (wait_for_sigchld(job) || may_wait_in_queue(job)) {
        return false;
    }
    decide_by_report(job);
    return true;
}

bool check_state(JP_AREA* job) {
    if ((job->JP_flag & (job_flag_process_reaped | job_flag_end_taken)) == job_flag_process_reaped) {
        return check_group(job);
    }
    switch (job->JP_status) {
        case JOB_STATUS_FAILED:
        case JOB_STATUS_ENDED:
        case JOB_STATUS_VANISHED:
            return !reported_end_waits(job);
        case JOB_STATUS_CONTINUED:
        case JOB_STATUS_RUNNING:
            return check_running(job);
        case JOB_STATUS_CANCEL:
            return check_cancelled(job);
        case JOB_STATUS_WAITING:
            return check_waiting(job);
        default:
            return false;
    }
}

// No signal tells the end of a group.
int time_to_next_check(const EX_PCX* pcx, const JP_AREA* job) {
    constexpr int group_check = 2;
    const bool group_only =
        (job->JP_flag & (job_flag_process_reaped | job_flag_end_taken)) == job_flag_process_reaped;
    return group_only ? std::min(group_check, pcx->Per_JobCheck) : pcx->Per_JobCheck;
}

bool is_due(const JP_AREA* job, time_t now) {
    return job->JP_alrmTime != 0 && job->JP_alrmTime <= now;
}

}  // namespace

bool job_awaits_sigchld(const JP_AREA* job) {
    return launch_context()->JobStartType != JOB_START_BATCH && launch_context()->Fl_Sigchld != 0 &&
           job->JP_create == JOB_ORIGIN_ACTIVATION && (job->JP_flag & job_flag_own_child) != 0;
}

int pr_exit(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status);
    }
    return WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
}

void job_reset_cpu_times() {
    if (times(&counted_times) == static_cast<clock_t>(-1)) {
        counted_times = tms{};
    }
}

void SetCpuEndTimes(JP_AREA* job) {
    job_time_now(&job->JP_eTime_t, &job->JP_eTime);
    tms now{};
    job->m_ucpu = 0;
    job->m_scpu = 0;
    const long ticks = sysconf(_SC_CLK_TCK);
    if (times(&now) != static_cast<clock_t>(-1) && ticks > 0) {
        const auto milliseconds = [ticks](clock_t after, clock_t before) {
            return static_cast<int>(std::clamp<long>((after - before) * 1000 / ticks, 0, INT_MAX / 2));
        };
        job->m_ucpu = milliseconds(now.tms_cutime, counted_times.tms_cutime);
        job->m_scpu = milliseconds(now.tms_cstime, counted_times.tms_cstime);
        counted_times = now;
    }
    job->cpuTime = job->m_ucpu + job->m_scpu;
}

int process_job_sigchild(EX_PCX* pcx, int pid, int exitCode, int) {
    JP_AREA* job = job_table_find_child(static_cast<uint32_t>(pid));
    if (job == nullptr) {
        return 0;
    }
    SetCpuEndTimes(job);
    if (survives_for_long(job)) {
        await_group(job, exitCode);
        return 1;
    }
    take_child_end(job, pid, exitCode);
    job_set_text(job->JP_client_msg, "RECV_MLD_END    ");
    create_and_send_exstaj(pcx, job);
    job->JP_alrmTime = alarm_now() + pcx->Per_JobCheck;
    return 1;
}

int process_jobchk(EX_PCX* pcx, ccm_msg_t*, int) {
    const time_t now = alarm_now();
    bool first = true;
    // By key, since an entry may be erased on the way.
    for (JP_AREA* job = Next_JEntry(INT_MIN, 0); job != nullptr;) {
        const int jobNr = job->JP_jobNr;
        const uint16_t client = job->JP_Mandant;
        if (job->jobstart != 0) {
            if (is_due(job, now)) {
                ++job->jobstart;
                job_try_deferred_start(pcx, job);
            }
        } else if (is_due(job, now)) {
            if (first) {
                __log(number_jobs_checked, "%s", "");
                first = false;
            }
            if (check_state(job)) {
                create_and_send_exstaj(pcx, job);
            }
            job->JP_alrmTime = now + time_to_next_check(pcx, job);
        }
        job = Next_JEntry(jobNr, client);
    }
    jpGetJobAlarmTime(pcx);
    return 0;
}

int jpGetJobAlarmTime(EX_PCX* pcx) {
    pcx->Job_alarm_time = 0;
    for (const JP_AREA* job = Next_JEntry(INT_MIN, 0); job != nullptr;
         job = Next_JEntry(job->JP_jobNr, job->JP_Mandant)) {
        if (job->JP_alrmTime != 0 && (pcx->Job_alarm_time == 0 || job->JP_alrmTime < pcx->Job_alarm_time)) {
            pcx->Job_alarm_time = job->JP_alrmTime;
        }
    }
    return jpGetJobCount();
}
