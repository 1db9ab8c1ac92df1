// Opening and closing the job processor.
#include <climits>
#include <cstring>

#include "base/context.h"
#include "base/error.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "identity/pam.h"
#include "jobs/activation.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/process_info.h"
#include "jobs/supervision.h"
#include "jobs/who_may_start.h"
#include "launch/launch_settings.h"
#include "log/log.h"

namespace {

JPPCX the_context;

std::string setting(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char value[1024];
    pcx->getProfileString(pcx, section, key, preset, value, sizeof value);
    return std::string(strip(value));
}

char list_type(EX_PCX* pcx, const char* key) {
    return upper(setting(pcx, "GLOBAL", key, "EXCL")) == "INCL" ? JOB_LIST_INCLUSIVE : JOB_LIST_EXCLUSIVE;
}

void read_pam_settings(EX_PCX* pcx) {
    pam_options.do_pam_open_session = pcx->getProfileBool(pcx, "PAM", "pam_open_session", "no");
    pam_options.do_pam_open_session_cp =
        pcx->getProfileBool(pcx, "PAM", "pam_open_session_child_process", "yes");
    // Credentials without a session would be nobody's to delete.
    pam_options.do_pam_setcred =
        pam_options.do_pam_open_session && pcx->getProfileBool(pcx, "PAM", "pam_setcred", "yes");
}

void jpOpen(EX_PCX* pcx, JPPCX* context) {
    *context = JPPCX{};
    memcpy(context->Key, job_context_key, sizeof context->Key);
    context->meldName = pcx->meldName;
    pcx->pcx_JobPwCheck = pcx->getProfileBool(pcx, "GLOBAL", "login_check", "no");
    copy_text(context->KillSignal, setting(pcx, "GLOBAL", "KillSignal", "SIGKILL"));
    context->batch_wait = pcx->getProfileInt(pcx, "STARTCMD", "batch_wait", "0");
    context->JP_ReadUser =
        pcx->getProfileBool(pcx, "GLOBAL", "ReadUserAlways", "no") ? JOB_LISTS_ALWAYS : JOB_LISTS_AT_START;
    context->Fl_UidType = list_type(pcx, "userid_type");
    context->Qx_UidType = list_type(pcx, "QX_user_type");
    read_start_lists(pcx, context);
    read_pam_settings(pcx);
    job_reset_cpu_times();
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
    if (launch_open(pcx, error) != 0) {
        return -1;
    }
    jpOpen(pcx, &the_context);
    *resource_context() = {};
    job_own_resources();
    return 0;
}

int JP_Close(EX_PCX* pcx) {
    drop_waiting();
    return JP_after_fork(pcx);
}

int JP_after_fork(EX_PCX*) {
    Reset_JTab();
    process_info_forget();
    *resource_context() = {};
    launch_close();
    the_context = JPPCX{};
    return 0;
}

void JP_after_call(EX_PCX* pcx) {
    if (jpGetJobCount() == 0) {
        pcx->Job_alarm_time = 0;
    } else if (pcx->Job_alarm_time == 0) {
        pcx->Job_alarm_time = alarm_now() + pcx->Per_JobCheck;
    }
}
