#include "launch/launch_settings.h"

#include <cstdlib>

#include "base/context.h"
#include "base/error.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "launch/launch.h"

namespace {

constexpr char default_start_command[] = "nohup at -c $(su - &user -c \"&jobFile 1>> &jobReport 2>&1\")&";
constexpr unsigned default_report_mode = 0600;
constexpr unsigned default_job_file_mode = 0700;

launch_settings the_settings;

std::string setting(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char value[1024];
    pcx->getProfileString(pcx, section, key, preset, value, sizeof value);
    return std::string(strip(value));
}

unsigned octal_setting(EX_PCX* pcx, const char* key, unsigned preset) {
    const std::string text = setting(pcx, "GLOBAL", key, "");
    const unsigned long mode = strtoul(text.c_str(), nullptr, 8);
    return mode == 0 || mode > 07777 ? preset : static_cast<unsigned>(mode);
}

char start_type(EX_PCX* pcx) {
    const std::string type = lower(setting(pcx, "STARTCMD", "start_type", "fork"));
    if (type == "fork") {
        return JOB_START_FORK;
    }
    return type == "vfork" ? JOB_START_VFORK : JOB_START_BATCH;
}

// The start commands of batch start. false when one of them is missing.
bool GetStartCmd(EX_PCX* pcx, UNIX_CMD* commands) {
    commands->BSHcmd = setting(pcx, "STARTCMD", "Bourne-Shell", default_start_command);
    commands->CSHcmd = setting(pcx, "STARTCMD", "C-Shell", default_start_command);
    commands->KSHcmd = setting(pcx, "STARTCMD", "Korn-Shell", default_start_command);
    commands->OTHERcmd = setting(pcx, "STARTCMD", "Other-Shell", default_start_command);
    return !commands->BSHcmd.empty() && !commands->CSHcmd.empty() && !commands->KSHcmd.empty() &&
           !commands->OTHERcmd.empty();
}

}  // namespace

launch_settings* launch_context() {
    return &the_settings;
}

int launch_open(EX_PCX* pcx, qx7_error* error) {
    launch_load_texts(pcx);
    launch_settings& settings = the_settings = {};
    settings.JobStartType = start_type(pcx);
    if (settings.JobStartType == JOB_START_BATCH && !GetStartCmd(pcx, &settings.cmdAddr)) {
        return qx_error_set(error, -1, 0, number_agent_ended_abnormally, "%s|%s|", pcx->exName, qx_version);
    }
    copy_text(settings.Korn_Shell_opt, setting(pcx, "STARTCMD", "Korn_Shell_Opt", "-c"));
    copy_text(settings.Bourne_Shell_opt, setting(pcx, "STARTCMD", "Bourne_Shell_Opt", "-c"));
    copy_text(settings.C_Shell_opt, setting(pcx, "STARTCMD", "C_Shell_Opt", "-c"));
    settings.FileReportMode = octal_setting(pcx, "ReportMode", default_report_mode);
    settings.JobFileMode = octal_setting(pcx, "JobFileMode", default_job_file_mode);
    settings.JP_SwitchToRealUser = pcx->getProfileBool(pcx, "MISC", "StartBatchJobWithRootPrivileges", "no");
    settings.Fl_Sigchld = pcx->getProfileBool(pcx, "GLOBAL", "sigchld", "yes");
    if (getrlimit(RLIMIT_NOFILE, &settings.descriptor_limit) != 0) {
        settings.descriptor_limit = {};  // jobs then keep the agent's
    }
    return 0;
}

void launch_close() {
    the_settings = {};
}
