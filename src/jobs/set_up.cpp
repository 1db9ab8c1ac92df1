// Opening and closing the job processor.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/context.h"
#include "base/error.h"
#include "base/text.h"
#include "base/time.h"
#include "identity/pam.h"
#include "jobs/activation.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/launch.h"
#include "jobs/process_info.h"
#include "jobs/supervision.h"
#include "jobs/who_may_start.h"
#include "log/log.h"

namespace {

constexpr int number_cannot_start = 2000002;
constexpr char default_start_command[] = "nohup at -c $(su - &user -c \"&jobFile 1>> &jobReport 2>&1\")&";
constexpr unsigned default_report_mode = 0600;
constexpr unsigned default_job_file_mode = 0700;

JPPCX the_context;

std::string setting(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char value[1024];
    pcx->getProfileString(pcx, section, key, preset, value, sizeof value);
    return std::string(strip(value));
}

template <size_t size>
void short_setting(EX_PCX* pcx, const char* section, const char* key, const char* preset,
                   char (&field)[size]) {
    copy_text(field, setting(pcx, section, key, preset));
}

unsigned octal_setting(EX_PCX* pcx, const char* key, unsigned preset) {
    const std::string text = setting(pcx, "GLOBAL", key, "");
    const unsigned long mode = strtoul(text.c_str(), nullptr, 8);
    return mode == 0 || mode > 07777 ? preset : static_cast<unsigned>(mode);
}

char start_type(EX_PCX* pcx) {
    const std::string type = lower(setting(pcx, "STARTCMD", "start_type", "fork"));
    if (type == "fork") {
        return job_start_fork;
    }
    return type == "vfork" ? job_start_vfork : job_start_batch;
}

char list_type(EX_PCX* pcx, const char* key) {
    return upper(setting(pcx, "GLOBAL", key, "EXCL")) == "INCL" ? job_list_inclusive : job_list_exclusive;
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

void read_pam_settings(EX_PCX* pcx, JPPCX* context) {
    context->do_pam_open_session = pcx->getProfileBool(pcx, "PAM", "pam_open_session", "no");
    context->do_pam_open_session_cp =
        pcx->getProfileBool(pcx, "PAM", "pam_open_session_child_process", "yes");
    // Credentials without a session would be nobody's to delete.
    context->do_pam_setcred =
        context->do_pam_open_session != 0 && pcx->getProfileBool(pcx, "PAM", "pam_setcred", "yes");
    pam_options.do_pam_open_session = context->do_pam_open_session != 0;
    pam_options.do_pam_open_session_cp = context->do_pam_open_session_cp != 0;
    pam_options.do_pam_setcred = context->do_pam_setcred != 0;
}

int jpOpen(EX_PCX* pcx, JPPCX* context, qx7_error* error) {
    *context = JPPCX{};
    memcpy(context->Key, job_context_key, sizeof context->Key);
    context->meldName = pcx->meldName;
    pcx->pcx_JobPwCheck = pcx->getProfileBool(pcx, "GLOBAL", "login_check", "no");
    short_setting(pcx, "GLOBAL", "KillSignal", "SIGKILL", context->KillSignal);
    context->JobStartType = start_type(pcx);
    if (context->JobStartType == job_start_batch && !GetStartCmd(pcx, &context->cmdAddr)) {
        return qx_error_set(error, -1, 0, number_cannot_start, "%s|%s|", pcx->exName, qx_version);
    }
    context->batch_wait = pcx->getProfileInt(pcx, "STARTCMD", "batch_wait", "0");
    context->JP_ReadUser =
        pcx->getProfileBool(pcx, "GLOBAL", "ReadUserAlways", "no") ? job_lists_always : job_lists_at_start;
    context->Fl_UidType = list_type(pcx, "userid_type");
    context->Qx_UidType = list_type(pcx, "QX_user_type");
    read_start_lists(pcx, context);
    short_setting(pcx, "STARTCMD", "Korn_Shell_Opt", "-c", context->Korn_Shell_opt);
    short_setting(pcx, "STARTCMD", "Bourne_Shell_Opt", "-c", context->Bourne_Shell_opt);
    short_setting(pcx, "STARTCMD", "C_Shell_Opt", "-c", context->C_Shell_opt);
    context->FileReportMode = octal_setting(pcx, "ReportMode", default_report_mode);
    context->JobFileMode = octal_setting(pcx, "JobFileMode", default_job_file_mode);
    read_pam_settings(pcx, context);
    context->JP_SwitchToRealUser = pcx->getProfileBool(pcx, "MISC", "StartBatchJobWithRootPrivileges", "no");
    context->Fl_Sigchld = pcx->getProfileBool(pcx, "GLOBAL", "sigchld", "yes");
    if (getrlimit(RLIMIT_NOFILE, &context->descriptor_limit) != 0) {
        context->descriptor_limit = {};  // jobs then keep the agent's
    }
    job_reset_cpu_times();
    return 0;
}

// A job that waits for its start is forgotten with the agent, so its own resources would stay for ever.
void drop_waiting() {
    for (JP_AREA* job = Next_JEntry(INT_MIN, 0); job != nullptr;
         job = Next_JEntry(job->JP_jobNr, job->JP_Mandant)) {
        qx7_error error;
        if (job->jobstart != 0 && DeleteTaskResourceFiles(job, &error) != 0) {
            __log_error(error);
        }
    }
}

}  // namespace

JPPCX* job_context() {
    return &the_context;
}

int JP_Open(EX_PCX* pcx, qx7_error* error) {
    launch_load_texts(pcx);
    if (jpOpen(pcx, &the_context, error) != 0) {
        return -1;
    }
    pcx->pcx_jpex = &the_context;
    return 0;
}

int JP_Close(EX_PCX* pcx) {
    if (pcx->running_mode == MODE_AGENT) {  // a child that closes this has only a copy
        drop_waiting();
    }
    Reset_JTab();
    process_info_forget();
    the_context = JPPCX{};
    pcx->pcx_jpex = nullptr;
    return 0;
}

void JP_after_call(EX_PCX* pcx) {
    if (jpGetJobCount() == 0) {
        pcx->Job_alarm_time = 0;
        pcx->ERP_JobTime2 = 0;
        return;
    }
    const time_t now = alarm_now();
    if (pcx->Job_alarm_time == 0) {
        pcx->Job_alarm_time = now + pcx->Per_JobCheck;
    }
    if (pcx->pcx_SnoozePeriod != 0) {
        pcx->pcx_SnoozeTime = now + pcx->pcx_SnoozePeriod;
    }
}
