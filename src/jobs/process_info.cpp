#include "jobs/process_info.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "base/children.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "identity/accounts.h"
#include "jobs/job_table.h"
#include "jobs/process_group.h"
#include "launch/launch_settings.h"
#include "log/log.h"

namespace {

constexpr int64_t largest_figure = 2147483647;
constexpr size_t stat_line_size = 2048;

// What one pass over /proc found. A process is listed under its own id, its parent's and its group's.
struct process_pass {
    std::vector<procArea_t> processes;
    std::unordered_multimap<pid_t, uint32_t> by_id;
    int64_t taken_ms = 0;
    bool valid = false;
};

process_pass last_pass;
unsigned pass_count = 0;

int64_t ticks_per_second() {
    const EX_PCX* pcx = GetGlbPcx();
    if (pcx != nullptr && pcx->Takt > 0) {
        return pcx->Takt;
    }
    const long ticks = sysconf(_SC_CLK_TCK);
    return ticks > 0 ? ticks : 100;
}

// Fields behind the name, counted from 1 for the state: only those that are used have a name.
enum stat_field : int {
    stat_state = 1,
    stat_ppid = 2,
    stat_pgrp = 3,
    stat_session = 4,
    stat_majflt = 10,
    stat_cmajflt = 11,
    stat_utime = 12,
    stat_stime = 13,
    stat_cutime = 14,
    stat_cstime = 15,
    stat_starttime = 20
};

bool parse_whole(std::string_view text, int64_t* number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// A start time may be unsigned; the others are small or signed.
bool read_stat_fields(std::string_view rest, int64_t (&fields)[stat_starttime + 1], char* state) {
    int index = 0;
    size_t at = 0;
    while (index < stat_starttime) {
        while (at < rest.size() && rest[at] == ' ') {
            ++at;
        }
        size_t end = at;
        while (end < rest.size() && rest[end] != ' ' && rest[end] != '\n') {
            ++end;
        }
        if (end == at) {
            return false;
        }
        const std::string_view word = rest.substr(at, end - at);
        ++index;
        if (index == stat_state) {
            *state = word[0];
        } else if (!parse_whole(word, &fields[index])) {
            return false;
        }
        at = end;
    }
    return true;
}

bool read_proc_entry(int proc_folder, const char* name, procArea_t* process) {
    char path[32];
    snprintf(path, sizeof path, "%.20s/stat", name);
    const qx_descriptor file(openat(proc_folder, path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.valid()) {
        return false;  // ended meanwhile
    }
    char line[stat_line_size];
    ssize_t length = 0;
    do {
        length = read(file.get(), line, sizeof line);
    } while (length < 0 && errno == EINTR);
    return length > 0 && GetLinuxStaEntry(std::string_view(line, static_cast<size_t>(length)), process);
}

bool only_digits(const char* name) {
    if (*name == 0) {
        return false;
    }
    for (; *name != 0; ++name) {
        if (*name < '0' || *name > '9') {
            return false;
        }
    }
    return true;
}

// -1 when /proc cannot be read, which is logged.
int take_pass(process_pass* pass) {
    const qx_directory folder(opendir("/proc"));
    if (folder.dir == nullptr) {
        __log(number_named_call, "%s", call_insert("DirOpen()", "/proc", errno).c_str());
        return -1;
    }
    pass->processes.clear();
    pass->by_id.clear();
    const int proc_folder = dirfd(folder.dir);
    while (const dirent* entry = readdir(folder.dir)) {
        procArea_t process;
        if (only_digits(entry->d_name) && read_proc_entry(proc_folder, entry->d_name, &process)) {
            const uint32_t index = static_cast<uint32_t>(pass->processes.size());
            pass->by_id.emplace(process.pa_pid, index);
            if (process.pa_ppid != process.pa_pid) {
                pass->by_id.emplace(process.pa_ppid, index);
            }
            if (process.pa_pgid != process.pa_pid && process.pa_pgid != process.pa_ppid) {
                pass->by_id.emplace(process.pa_pgid, index);
            }
            pass->processes.push_back(std::move(process));
        }
    }
    pass->taken_ms = alarm_now_ms();
    pass->valid = true;
    ++pass_count;
    return 0;
}

int limited(int64_t figure) {
    return static_cast<int>(std::clamp<int64_t>(figure, 0, largest_figure));
}

struct job_figures {
    int64_t cpu = 0, user = 0, system = 0, io = 0;
    std::string image;
};

// Indices are walked upward, in the order in which /proc lists them, so that the first one names the image.
job_figures sum_figures(const process_pass& pass, pid_t pid) {
    std::vector<uint32_t> found;
    const auto range = pass.by_id.equal_range(pid);
    for (auto entry = range.first; entry != range.second; ++entry) {
        found.push_back(entry->second);
    }
    std::sort(found.begin(), found.end());

    job_figures figures;
    int64_t image_start = 0;
    for (const uint32_t index : found) {
        const procArea_t& process = pass.processes[index];
        figures.cpu += process.pa_cpuTime;
        figures.user += process.pa_ucpu;
        figures.system += process.pa_scpu;
        figures.io += process.pa_ioCount;
        const bool younger_member = process.pa_pid != process.pa_pgid && process.pa_start > image_start;
        if (figures.image.empty() || younger_member) {
            figures.image = process.pa_fname;
            image_start = process.pa_start;
        }
    }
    return figures;
}

void clear_figures(JP_AREA* job) {
    job->cpuTime = 0;
    job->m_ucpu = 0;
    job->m_scpu = 0;
    job->ioCount = 0;
    job->ImageName[0] = 0;
}

void take_figures(JP_AREA* job, const job_figures& figures) {
    job->cpuTime = limited(figures.cpu);
    job->m_ucpu = limited(figures.user);
    job->m_scpu = limited(figures.system);
    job->ioCount = limited(figures.io);
    job_set_text(job->ImageName, figures.image);
}

enum process_found { PROCESS_RUNS, PROCESS_GONE, PROCESS_FOREIGN };

// Fills what it read of the process, else its id stays 0.
process_found look_at(const JP_AREA* job, pid_t pid, procArea_t* process) {
    // What a message or a report told may by now be the agent or a process of its own: a cancel must not end
    // it.
    const bool known_by_number_only = (job->JP_flag & job_flag_own_child) == 0 && job->JP_jStart == 0;
    if (pid == getpid() || (known_by_number_only && children_known(pid))) {
        return PROCESS_FOREIGN;
    }
    // EPERM: it exists and belongs to somebody else.
    if (kill(pid, 0) != 0 && errno != EPERM) {
        return PROCESS_GONE;
    }
    // Under batch start the id was told by the job: it counts only for a process of the job's user.
    if (launch_context()->JobStartType == JOB_START_BATCH && job->jp_uid != static_cast<uid_t>(-1) &&
        process_owner(pid) != job->jp_uid) {
        return PROCESS_FOREIGN;
    }
    if (!GetLinuxProcEntry(pid, process)) {
        process->pa_pid = 0;
        // Hidden by the mount options of /proc, or gone since the call above.
        return kill(pid, 0) == 0 || errno == EPERM ? PROCESS_RUNS : PROCESS_GONE;
    }
    if (job->JP_jStart != 0 && process->pa_start != 0 && job->JP_jStart != process->pa_start) {
        return PROCESS_FOREIGN;  // the number was given anew
    }
    const bool own_child = (job->JP_flag & job_flag_own_child) != 0 && process->pa_ppid == getpid();
    const bool ended = process->pa_state == 'Z' || process->pa_state == 'X';
    return ended && !own_child ? PROCESS_GONE : PROCESS_RUNS;
}

// CheckProzessId, with what was read of the process.
pid_t check_process(const JP_AREA* job, procArea_t* process) {
    if ((job->JP_flag & job_flag_end_taken) != 0) {
        return 0;
    }
    const pid_t pid = SetCheckPid(job);
    if (pid <= 1) {
        return process_group_lives(job->jp_group) ? job->jp_group : 0;
    }
    switch (look_at(job, pid, process)) {
        case PROCESS_RUNS:
            return pid;
        case PROCESS_GONE:
            return job_group_survives(job) ? pid : 0;
        case PROCESS_FOREIGN:
            break;
    }
    return 0;
}

// The part that both forms share: 0 when the process is gone. The id in `own` is 0 where it could not be
// read, and where a start command's process stands for one that the messenger will name.
pid_t begin_attributes(JP_AREA* job, procArea_t* own) {
    const pid_t pid = check_process(job, own);
    if (pid == 0) {
        return 0;
    }
    clear_figures(job);
    job->akt_pid = job->m_ppid > 0 ? static_cast<uint32_t>(job->m_ppid) : static_cast<uint32_t>(pid);
    if (own->pa_pid != 0) {
        job->JP_jStart = own->pa_start;
    }
    return pid;
}

bool wants_figures() {
    const EX_PCX* pcx = GetGlbPcx();
    return pcx == nullptr || pcx->pcx_ProcInfo != 0;
}

}  // namespace

bool GetLinuxStaEntry(std::string_view line, procArea_t* process) {
    // The name may hold blanks and brackets: only its last closing bracket ends it.
    const size_t open = line.find('(');
    const size_t close = line.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open || open < 2) {
        return false;
    }
    int64_t pid = 0;
    int64_t fields[stat_starttime + 1] = {};
    if (!parse_whole(line.substr(0, open - 1), &pid) ||
        !read_stat_fields(line.substr(close + 1), fields, &process->pa_state)) {
        return false;
    }
    const int64_t ticks = ticks_per_second();
    const auto milliseconds = [ticks](int64_t count) {
        return count > INT64_MAX / 1000 ? INT64_MAX / 1000 : count * 1000 / ticks;
    };
    const auto sum = [](int64_t a, int64_t b) { return a > INT64_MAX - b ? INT64_MAX : a + b; };
    const auto counter = [&fields](stat_field field) { return std::max<int64_t>(0, fields[field]); };
    process->pa_pid = static_cast<pid_t>(pid);
    process->pa_ppid = static_cast<pid_t>(fields[stat_ppid]);
    process->pa_pgid = static_cast<pid_t>(fields[stat_pgrp]);
    process->pa_sid = static_cast<pid_t>(fields[stat_session]);
    process->pa_ucpu = milliseconds(sum(counter(stat_utime), counter(stat_cutime)));
    process->pa_scpu = milliseconds(sum(counter(stat_stime), counter(stat_cstime)));
    process->pa_cpuTime = process->pa_ucpu + process->pa_scpu;
    process->pa_ioCount = sum(counter(stat_majflt), counter(stat_cmajflt));
    process->pa_start = fields[stat_starttime];
    process->pa_fname = std::string(line.substr(open + 1, close - open - 1));
    return true;
}

bool GetLinuxProcEntry(pid_t pid, procArea_t* process) {
    char name[40];
    snprintf(name, sizeof name, "/proc/%d", pid);
    return read_proc_entry(AT_FDCWD, name, process);
}

uid_t process_owner(pid_t pid) {
    char name[40];
    snprintf(name, sizeof name, "/proc/%d", pid);
    struct stat attributes {};
    return stat(name, &attributes) == 0 ? attributes.st_uid : static_cast<uid_t>(-1);
}

pid_t SetCheckPid(const JP_AREA* job) {
    return launch_context()->JobStartType == JOB_START_BATCH ? job->m_ppid
                                                             : static_cast<pid_t>(job->fork_pid);
}

pid_t CheckProzessId(const JP_AREA* job) {
    procArea_t process;
    return check_process(job, &process);
}

std::vector<procArea_t> processes_of_group(pid_t group) {
    std::vector<procArea_t> members;
    last_pass.valid = false;
    if (take_pass(&last_pass) == 0) {
        const auto range = last_pass.by_id.equal_range(group);
        for (auto entry = range.first; entry != range.second; ++entry) {
            if (last_pass.processes[entry->second].pa_pgid == group) {
                members.push_back(last_pass.processes[entry->second]);
            }
        }
    }
    return members;
}

int Get_Proc_Attr(JP_AREA* job) {
    procArea_t own;
    const pid_t pid = begin_attributes(job, &own);
    if (pid == 0) {
        return 0;
    }
    if (!wants_figures()) {
        return static_cast<int>(job->akt_pid);
    }
    if (!last_pass.valid || alarm_now_ms() - last_pass.taken_ms >= 1000) {
        last_pass.valid = false;
        if (take_pass(&last_pass) != 0) {
            return -1;
        }
    }
    take_figures(job, sum_figures(last_pass, pid));
    return static_cast<int>(job->akt_pid);
}

int Get_Proc_Attr_own(JP_AREA* job) {
    procArea_t own;
    const pid_t pid = begin_attributes(job, &own);
    if (pid == 0) {
        return 0;
    }
    if (wants_figures() && (own.pa_pid != 0 || GetLinuxProcEntry(pid, &own))) {
        take_figures(job,
                     job_figures{own.pa_cpuTime, own.pa_ucpu, own.pa_scpu, own.pa_ioCount, own.pa_fname});
    }
    return static_cast<int>(job->akt_pid);
}

void process_info_forget() {
    last_pass = process_pass{};
}

unsigned process_info_passes() {
    return pass_count;
}

time_t process_start_time(int64_t start) {
    timespec since_boot{};
    if (start <= 0 || clock_gettime(CLOCK_BOOTTIME, &since_boot) != 0) {
        return 0;
    }
    return time(nullptr) - since_boot.tv_sec + static_cast<time_t>(start / ticks_per_second());
}

std::string CnvTimeLinux(int64_t start) {
    const time_t seconds = process_start_time(start);
    tm local{};
    if (seconds == 0 || !qx_localtime(seconds, &local)) {
        return {};
    }
    char text[32];
    snprintf(text, sizeof text, "%.4d%.2d%.2d/%.2d%.2d%.2d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}
