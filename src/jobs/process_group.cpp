#include "jobs/process_group.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "jobs/job_table.h"
#include "jobs/process_info.h"
#include "launch/launch_settings.h"

namespace {

bool has_ended(const procArea_t& process) {
    return process.pa_state == 'Z' || process.pa_state == 'X';
}

// The group that belongs to the job by itself: its process leads it, or the agent gave it to the start
// command.
pid_t own_group(const JP_AREA* job) {
    return launch_context()->JobStartType == JOB_START_BATCH ? job->jp_group
                                                             : static_cast<pid_t>(job->fork_pid);
}

// Groups that a batch system made: only what cannot be anybody else's may be signalled.
bool is_of_job(const JP_AREA* job, const procArea_t& member) {
    constexpr time_t clock_slack = 2;
    return process_owner(member.pa_pid) == job->jp_uid &&
           process_start_time(member.pa_start) + clock_slack >= job->JP_cTime_t;
}

bool holds_other_job(const std::vector<procArea_t>& members, const JP_AREA* job) {
    for (const JP_AREA* other = Next_JEntry(INT_MIN, 0); other != nullptr;
         other = Next_JEntry(other->JP_jobNr, other->JP_Mandant)) {
        const pid_t pid = other == job ? 0 : CheckProzessId(other);
        const auto is_its = [pid](const procArea_t& member) { return member.pa_pid == pid; };
        if (pid != 0 && std::any_of(members.begin(), members.end(), is_its)) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool process_group_lives(pid_t group) {
    if (group <= 1 || kill(group, 0) == 0 || errno == EPERM || (kill(-group, 0) != 0 && errno == ESRCH)) {
        return false;
    }
    // One that /proc hides counts as living: there is no ground to say that it ended.
    const std::vector<procArea_t> members = processes_of_group(group);
    return members.empty() || !std::all_of(members.begin(), members.end(), has_ended);
}

bool job_group_survives(const JP_AREA* job) {
    // What root kills is gone, even where it still is on its way out.
    const bool survivable = job->JP_sigNum != 0 && (job->JP_sigNum != SIGKILL || geteuid() != 0);
    return survivable && process_group_lives(own_group(job));
}

pid_t job_signal_target(const JP_AREA* job, pid_t pid) {
    const pid_t own = own_group(job);
    if (launch_context()->JobStartType != JOB_START_BATCH) {
        return -own;
    }
    const pid_t group = pid == own ? own : getpgid(pid);
    if (group <= 1 || group == getpgrp()) {
        return pid;
    }
    if (group == own) {
        return -group;
    }
    const std::vector<procArea_t> members = processes_of_group(group);
    const bool all = !members.empty() && job->jp_uid != static_cast<uid_t>(-1) &&
                     std::all_of(members.begin(), members.end(),
                                 [job](const procArea_t& member) { return is_of_job(job, member); });
    return all && !holds_other_job(members, job) ? -group : pid;
}
