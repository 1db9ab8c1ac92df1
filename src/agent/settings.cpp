// The settings that need neither trace nor log: what `PcxMalloc` fills.
#include "agent/settings.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

#include "agent/settings_check.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/profile.h"
#include "base/text.h"
#include "base/time.h"

namespace {

constexpr int fixed_job_check = 30;
constexpr int fixed_cmd_timeout = 180;
constexpr int fixed_report = 20;
constexpr int fixed_keep_alive = 60;
constexpr int fixed_alarm = 60;
constexpr size_t value_size = 512;

struct setting_text {
    char text[value_size];
};

setting_text read_text(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    setting_text value;
    pcx->getProfileString(pcx, section, key, preset, value.text, sizeof value.text);
    return value;
}

int read_int(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    return pcx->getProfileInt(pcx, section, key, preset);
}

// Negative values have no meaning in any setting that counts.
int read_count(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    const int value = read_int(pcx, section, key, preset);
    return value < 0 ? 0 : value;
}

short read_short(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    const int value = read_count(pcx, section, key, preset);
    return static_cast<short>(value > SHRT_MAX ? SHRT_MAX : value);
}

char read_switch(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    return pcx->getProfileBool(pcx, section, key, preset) ? 1 : 0;
}

int read_size(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    return settings_size_value(read_text(pcx, section, key, preset).text);
}

void clear_alarm_times(EX_PCX* pcx) {
    pcx->Srv_alarm_time = pcx->Log_alarm_time = pcx->Job_alarm_time = pcx->Cmd_alarm_time = 0;
    pcx->fsh_alarmTime = pcx->listener_alarm_time = pcx->shutdown_timer = pcx->timer_global = 0;
}

void TimeInit(EX_PCX* pcx) {
    pcx->Per_JobCheck = fixed_job_check;
    pcx->pcx_cmd_timeout = fixed_cmd_timeout;
    pcx->Per_Report = fixed_report;
    pcx->Per_KeepAlive = fixed_keep_alive;
    pcx->Per_Reconnect = read_count(pcx, "TCP/IP", "connect", "0");
    if (pcx->Per_Reconnect == 0) {
        const int alarm = read_count(pcx, "TCP/IP", "alarm", "60");
        pcx->Per_Reconnect = alarm == 0 ? fixed_alarm : alarm;
    }
    pcx->pcx_SnoozePeriod = read_short(pcx, "TCP/IP", "SnoozeDelay", "0");
    pcx->pcx_ExecutorState = pcx->pcx_SnoozePeriod != 0 ? EXECUTOR_SNOOZING : EXECUTOR_RUNNING;
    const long ticks = sysconf(_SC_CLK_TCK);
    pcx->Takt = static_cast<short>(ticks > 0 && ticks <= SHRT_MAX ? ticks : 100);
    pcx->exStart = time(nullptr);
    pcx->UB_Time = pcx->exStart;
    clear_alarm_times(pcx);
}

void read_switches(EX_PCX* pcx) {
    pcx->trc_file_limit = static_cast<unsigned>(read_size(pcx, "MISC", "TraceFileSize", "0"));
    pcx->pcx_ProcInfo = read_switch(pcx, "MISC", "ProcessInfo", "yes");
    pcx->logThreadFlag = read_switch(pcx, "TRACE", "log_thread_id", "no");
    pcx->trcThreadFlag = pcx->logThreadFlag;
    pcx->pcx_hardened = read_switch(pcx, "GLOBAL", "hardened", "no");
}

void set_fixed_switches(EX_PCX* pcx) {
    pcx->ExStart_Typ = START_COLD;
    memset(pcx->report_type, ' ', sizeof pcx->report_type);
    memset(pcx->report_b_name, ' ', sizeof pcx->report_b_name);
    pcx->report_id = pcx->report_id_neu = 0;
}

// An id without an account keeps its number as name.
std::string account_name(uid_t uid) {
    effUser_guard guard;
    std::vector<char> buffer(16384);
    passwd entry;
    passwd* result = nullptr;
    const bool found =
        getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result) == 0 && result != nullptr;
    return found ? entry.pw_name : std::to_string(uid);
}

void read_identity(EX_PCX* pcx) {
    pcx->ex_pid = getpid();
    pcx->ex_ppid = getppid();
    pcx->pcx_strt_uid = pcx->pcx_run_uid = getuid();
    pcx->pcx_strt_euid = pcx->pcx_run_euid = geteuid();
    pcx->pcx_run_gid = getgid();
    pcx->pcx_run_egid = getegid();
    copy_text(pcx->pcx_strt_realUserName, account_name(pcx->pcx_strt_uid));
    const std::string effective = account_name(pcx->pcx_strt_euid);
    copy_text(pcx->pcx_runUserName, effective);
    copy_text(pcx->efUserName, effective);
}

// The list that the agent takes back after work under another user: the effective group first, then the
// others, closed by -1. What reads it stops at the -1 only.
void fill_running_groups(EX_PCX* pcx) {
    constexpr int room = static_cast<int>(std::extent_v<decltype(EX_PCX::pcx_run_gid_tab)>) - 1;
    int count = 0;
    pcx->pcx_run_gid_tab[count++] = getegid();
    for (int at = 0; at < pcx->pcx_gid_nr && count < room; ++at) {
        pcx->pcx_run_gid_tab[count++] = pcx->pcx_agent_gids[at];
    }
    pcx->pcx_run_gid_tab[count] = static_cast<gid_t>(-1);
}

}  // namespace

int GetGroupsForAgent(EX_PCX* pcx) {
    const int count = getgroups(0, nullptr);
    if (count < 0) {
        return -1;
    }
    // One entry more than there are, so that an empty list is still an allocation.
    gid_t* groups = static_cast<gid_t*>(calloc(static_cast<size_t>(count) + 1, sizeof(gid_t)));
    if (groups == nullptr) {
        return -1;
    }
    const int got = getgroups(count, groups);
    free(pcx->pcx_agent_gids);
    pcx->pcx_agent_gids = groups;
    pcx->pcx_gid_nr = got < 0 ? 0 : got;
    fill_running_groups(pcx);
    return got < 0 ? -1 : 0;
}

int ReadLoginCheck(EX_PCX* pcx) {
    return settings_protecting_switch(pcx, "GLOBAL", "login_check", true) ? 1 : 0;
}

int SetMaxMsgSize(EX_PCX* pcx) {
    return read_count(pcx, "TCP/IP", "maxMsgSize", "500000");
}

EX_PCX* PcxMalloc(const char* ini, qx7_error* error) {
    qx_error_clear(error);
    EX_PCX* pcx = new (std::nothrow) EX_PCX();
    if (pcx == nullptr) {
        return nullptr;
    }
    GlbPcx = pcx;
    copy_text(pcx->process_name, "AGENT");
    pcx->pcx_main_threadID = pthread_self();
    copy_text(pcx->IniFile, ini);

    TimeInit(pcx);
    read_switches(pcx);
    set_fixed_switches(pcx);
    read_identity(pcx);
    if (GetGroupsForAgent(pcx) != 0) {
        call_error(error, "getgroups()", errno);
    }
    if (GetCurrDir(pcx->pcx_work_dir, sizeof pcx->pcx_work_dir) != 0) {
        pcx->pcx_work_dir[0] = '\0';  // the work folder is told from the program path instead
    }
    return pcx;
}
