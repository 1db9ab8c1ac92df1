// A command's request, its checks, its cancel and its time limit.
#include "jobs/commands.h"

#include <signal.h>

#include <cerrno>
#include <cstring>

#include "base/context.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "identity/accounts.h"
#include "identity/pam.h"
#include "identity/password_check.h"
#include "jobs/job_send.h"
#include "jobs/job_time.h"
#include "jobs/process_info.h"
#include "jobs/supervision.h"
#include "jobs/who_may_start.h"
#include "launch/launch.h"
#include "launch/launch_settings.h"
#include "log/log.h"
#include "messages/records_job.h"
#include "messages/view.h"

namespace {

constexpr char anonymous_allowed = 'Y';
constexpr size_t insert_limit = 220;
constexpr char insert_rest[] = ".......etc";
constexpr int check_password_mode = 1;

CMD_GLB the_commands;

void read_option(EX_PCX* pcx, const char* key, char (&option)[16]) {
    char value[64];
    pcx->getProfileString(pcx, "STARTCMD", key, "-c", value, sizeof value);
    copy_text(option, std::string(strip(value)));
}

char list_type(EX_PCX* pcx, const char* key) {
    char value[64];
    pcx->getProfileString(pcx, "GLOBAL", key, "EXCL", value, sizeof value);
    return upper(strip(value)) == "INCL" ? JOB_LIST_INCLUSIVE : JOB_LIST_EXCLUSIVE;
}

std::string log_insert(const std::string& command) {
    const std::string text = printable(command);
    return text.size() <= insert_limit ? text : text.substr(0, insert_limit) + insert_rest;
}

// What the steps of one request hand on.
struct request_run {
    EX_PCX* pcx = nullptr;
    ccm_msg_t* msg = nullptr;
    message_view view;
    MSG_TYPE_EXREQCMD record;
    Cmd_Area entry;
    my_passwd_unlimited passwd;
    pam_handle_t* pam = nullptr;
};

int refuse(request_run* run, int number, const std::string& insert) {
    if (number != number_upgrade_running) {
        __log(number, "%s", insert.c_str());
    }
    return create_and_send_quitt_message(run->pcx, run->msg, number, insert.c_str());
}

std::string number_insert(const request_run& run) {
    return std::to_string(run.entry.cmda_jobNr);
}

std::string user_insert(const request_run& run, const std::string& reason) {
    return number_insert(run) + "|" + run.entry.cmda_UserName + "|" + reason + "|" + run.entry.cmda_jclInsert;
}

void read_request(request_run* run) {
    Cmd_Area* entry = &run->entry;
    const MSG_TYPE_EXREQCMD& record = run->record;
    memcpy(entry->cmda_ID, command_area_key, sizeof entry->cmda_ID);
    entry->cmda_jobNr = record.ah_idnr;
    entry->cmda_max_rows = record.max_rows;
    entry->cmda_jclPtr = view_text(run->view, record.jcl_dist, record.jcl_len);
    entry->cmda_jclInsert = log_insert(entry->cmda_jclPtr);
    entry->cmda_UserName = get_text(record.logininfo);
    entry->cmda_jobreport = launch_complete_path(run->pcx, get_text(record.jobreport));
    entry->cmda_headm = record.header;
    entry->cmda_ucUsrIdnr = record.header.i4UsrIdNr;
    entry->cmda_client = record.header.i2Mandant;
    entry->cmda_ccmaddr = run->msg->addr;
    copy_text(entry->cmda_ccmaddr.src_addr, ccm_name_server);
    job_time_now(&entry->cmda_sTime_t, &entry->cmda_sDatumTime);
}

// ---- The checks, in their order: what a server may tell from a number. 0 goes on; -1: refused. ----

int check_user(request_run* run) {
    Cmd_Area* entry = &run->entry;
    if (entry->cmda_UserName.empty()) {
        if (run->pcx->pcx_anonymusUsr != anonymous_allowed) {
            refuse(run, number_command_no_anonymous, number_insert(*run) + "|" + entry->cmda_jclInsert);
            return -1;
        }
        entry->cmda_UserName = run->pcx->efUserName;
    }
    entry->cmda_swUser = entry->cmda_UserName != run->pcx->efUserName;
    return 0;
}

int check_account(request_run* run) {
    const std::string& user = run->entry.cmda_UserName;
    qx7_error error;
    error.qx_errno = ENOENT;
    if (user.size() <= account_name_limit && AccountOfUser(user.c_str(), &run->passwd, &error)) {
        return 0;
    }
    const int error_number = error.qx_errno == 0 ? ENOENT : error.qx_errno;
    refuse(run, number_command_user_unknown, user_insert(*run, error_text(error_number)));
    return -1;
}

int check_lists(request_run* run) {
    const JPPCX* lists = &the_commands.cmd_lists;
    const std::string& user = run->entry.cmda_UserName;
    if (user_start_flag(run->pcx, lists, user.c_str(), run->passwd.pw_uid) != JOB_MAY_START) {
        refuse(run, number_user_not_allowed, user);
        return -1;
    }
    if (number_start_flag(run->pcx, lists, run->entry.cmda_ucUsrIdnr) != JOB_MAY_START) {
        refuse(run, number_user_not_allowed, std::to_string(run->entry.cmda_ucUsrIdnr));
        return -1;
    }
    return 0;
}

int check_password(request_run* run) {
    if (run->pcx->pcx_JobPwCheck == 0) {
        return 0;
    }
    std::string reason;
    const auto field = view_data(run->view, run->record.pwd_dist, run->record.pwd_len);
    const char* user = run->entry.cmda_UserName.c_str();
    if (PasswordCheck(check_password_mode, run->entry.cmda_jobNr, field, user, &reason, &run->pam) ==
        PASSWORD_ACCEPTED) {
        return 0;
    }
    __PutLogText("Command %d: %s", run->entry.cmda_jobNr, reason.c_str());
    if (run->pam != nullptr) {
        PamEnd(run->pam, PAM_SUCCESS, true);
        run->pam = nullptr;
    }
    refuse(run, number_command_user_refused, user_insert(*run, "incorrect password"));
    return -1;
}

// ---- A started command ----

// Without the signal nobody tells of an end: as long as there are commands, each second is looked.
bool must_look() {
    return launch_context()->Fl_Sigchld == 0 && !the_commands.cmd_firstCMDA.empty();
}

void set_alarm(EX_PCX* pcx) {
    pcx->Cmd_alarm_time = must_look() ? alarm_now() + 1 : the_commands.cmd_breakTime_t;
}

void arm(EX_PCX* pcx, time_t limit) {
    the_commands.cmd_breakTime_t =
        the_commands.cmd_breakTime_t == 0 ? limit : std::min(the_commands.cmd_breakTime_t, limit);
    set_alarm(pcx);
}

void keep_entry(EX_PCX* pcx, Cmd_Area&& entry) {
    entry.cmda_status = COMMAND_RUNNING;
    entry.cmda_endTime_t = alarm_now() + pcx->pcx_cmd_timeout;
    const time_t limit = entry.cmda_endTime_t;
    the_commands.cmd_firstCMDA.push_front(std::move(entry));
    arm(pcx, limit);
}

int start(request_run* run) {
    qx7_error error;
    Cmd_Area& entry = run->entry;
    const pid_t pid = exCommandStart(run->pcx, &entry, run->passwd, &error, run->pam);
    if (pid > 0) {
        PamEndAfterStart(run->pam);
        __log(number_command_started, "%i|%i|%s", entry.cmda_jobNr, pid, entry.cmda_jclInsert.c_str());
        keep_entry(run->pcx, std::move(entry));
        return 0;
    }
    if (run->pam != nullptr) {
        PamEnd(run->pam, PAM_SUCCESS, true);
    }
    __log(error.qx_msgnr, "(%i)%s", entry.cmda_jobNr, error.qx_msgInsert);
    const int result = create_and_send_quitt_message(run->pcx, run->msg, error.qx_msgnr, error.qx_msgInsert);
    __log(number_command_start_failed, "%i|%s|%s", entry.cmda_jobNr, error_text(error.qx_errno).c_str(),
          entry.cmda_jobreport.c_str());
    return result;
}

// ---- Cancel and time limit ----

bool is_past_limit(const Cmd_Area& entry, time_t now) {
    return entry.cmda_status == COMMAND_RUNNING && entry.cmda_endTime_t <= now;
}

int stop_at_limit(EX_PCX* pcx, Cmd_Area* entry, qx7_error* error) {
    __log(number_command_time_limit, "%i(pid %i)|%s", entry->cmda_jobNr, entry->cmda_forkPid,
          entry->cmda_jclInsert.c_str());
    const bool killed = cancelCommandEntry(entry, error) == 0;
    entry->cmda_status = killed ? COMMAND_KILLED : COMMAND_KILL_FAILED;
    command_send_failure(pcx, *entry, error->qx_msgnr, error->qx_msgInsert, {});
    return killed ? 1 : 0;
}

// The process id was given anew: to a process that started at another time.
bool is_another(const Cmd_Area& entry) {
    procArea_t process;
    return entry.cmda_start_ticks != 0 && GetLinuxProcEntry(entry.cmda_forkPid, &process) &&
           process.pa_start != entry.cmda_start_ticks;
}

// What the signal would have told. The system keeps no code of a child then: it is unknown, and no success.
void end_gone(EX_PCX* pcx) {
    if (!must_look()) {
        return;
    }
    std::list<Cmd_Area>& commands = the_commands.cmd_firstCMDA;
    for (auto at = commands.begin(); at != commands.end();) {
        Cmd_Area* entry = &*at++;
        if ((kill(entry->cmda_forkPid, 0) != 0 && errno == ESRCH) || is_another(*entry)) {
            entry->cmda_result = command_code_unknown;
            cmd_sendExRes(pcx, entry);
        }
    }
}

}  // namespace

int cmdOpen(EX_PCX* pcx) {
    CMD_GLB* glb = &the_commands;
    *glb = CMD_GLB{};
    memcpy(glb->cmd_Key, command_global_key, sizeof glb->cmd_Key);
    read_option(pcx, "Bourne_Shell_Opt", glb->cmd_shOpt);
    read_option(pcx, "Korn_Shell_Opt", glb->cmd_kshOpt);
    read_option(pcx, "C_Shell_Opt", glb->cmd_cshOpt);
    glb->cmd_lists.JP_ReadUser = JOB_LISTS_AT_START;  // whatever ReadUserAlways says
    glb->cmd_lists.Fl_UidType = list_type(pcx, "userid_type");
    glb->cmd_lists.Qx_UidType = list_type(pcx, "QX_user_type");
    read_start_lists(pcx, &glb->cmd_lists);
    return 0;
}

int cmdClose(EX_PCX* pcx) {
    for (Cmd_Area& entry : the_commands.cmd_firstCMDA) {
        command_remove_output(&entry);  // nobody will answer with it any more
    }
    return cmd_after_fork(pcx);
}

int cmd_after_fork(EX_PCX*) {
    the_commands = CMD_GLB{};
    return 0;
}

CMD_GLB* GetCmdGlb() {
    return &the_commands;
}

int getCommandCount() {
    return static_cast<int>(the_commands.cmd_firstCMDA.size());
}

int process_exreqcmd(EX_PCX* pcx, ccm_msg_t* msg, int) {
    request_run run;
    run.pcx = pcx;
    run.msg = msg;
    run.view = view_of(msg);
    run.record = view_record<MSG_TYPE_EXREQCMD>(run.view);
    if (pcx->upgrade_ah_idnr != 0) {
        return refuse(&run, number_upgrade_running, "");
    }
    read_request(&run);
    if (run.entry.cmda_jclPtr.empty()) {
        return refuse(&run, number_command_empty, number_insert(run));
    }
    using check = int (*)(request_run*);
    for (const check step : {check_user, check_account, check_lists, check_password}) {
        if (step(&run) != 0) {
            return 0;
        }
    }
    return start(&run);
}

int process_exreqcancel(EX_PCX* pcx, ccm_msg_t* msg, int) {
    if (pcx->running_mode != MODE_AGENT) {
        return -1;
    }
    const message_view view = view_of(msg);
    const int number = view_record<MSG_TYPE_EXREQCAN>(view).ah_idnr;
    for (Cmd_Area& entry : the_commands.cmd_firstCMDA) {
        if ((number != 0 && entry.cmda_jobNr != number) || entry.cmda_status == COMMAND_STOPPED) {
            continue;
        }
        __log(number != 0 ? number_command_cancel_one : number_command_cancel_all, "%i|%s", entry.cmda_jobNr,
              entry.cmda_jclInsert.c_str());
        qx7_error error;
        cancelCommandEntry(&entry, &error);
        // Its end removes it without an answer.
        entry.cmda_status = COMMAND_STOPPED;
    }
    return 0;
}

int process_cmd_chk(EX_PCX* pcx, ccm_msg_t*, int) {
    qx7_error error;
    commandTimeoutEvent(pcx, &error);
    return 0;
}

int commandTimeoutEvent(EX_PCX* pcx, qx7_error* error) {
    end_gone(pcx);
    const time_t now = alarm_now();
    int killed = 0;
    the_commands.cmd_breakTime_t = 0;
    for (Cmd_Area& entry : the_commands.cmd_firstCMDA) {
        if (is_past_limit(entry, now)) {
            killed += stop_at_limit(pcx, &entry, error);
        } else if (entry.cmda_status == COMMAND_RUNNING) {
            the_commands.cmd_breakTime_t = the_commands.cmd_breakTime_t == 0
                                               ? entry.cmda_endTime_t
                                               : std::min(the_commands.cmd_breakTime_t, entry.cmda_endTime_t);
        }
    }
    set_alarm(pcx);
    return killed;
}

int cancelCommandEntry(Cmd_Area* entry, qx7_error* error) {
    const char* command = entry->cmda_jclInsert.c_str();
    __log(number_command_kill, "%i|%s", entry->cmda_jobNr, command);
    const bool another = is_another(*entry);
    errno = ESRCH;
    int result = 0;
    // Only the shell: what it left running in its group goes on, and is told of when the shell ends.
    if (entry->cmda_forkPid > 1 && !another && kill(entry->cmda_forkPid, SIGKILL) == 0) {
        qx_error_set(error, 0, 0, number_command_killed, "%i(pid %i)|%s", entry->cmda_jobNr,
                     entry->cmda_forkPid, command);
    } else {
        const int error_number = errno;
        result =
            qx_error_set(error, -1, error_number, number_command_kill_failed, "%i(pid %i)|%s|%s",
                         entry->cmda_jobNr, entry->cmda_forkPid, error_text(error_number).c_str(), command);
    }
    __log_error(*error);
    return result;
}

void removeCommandEntry(Cmd_Area* entry) {
    command_remove_output(entry);
    the_commands.cmd_firstCMDA.remove_if([entry](const Cmd_Area& other) { return &other == entry; });
}

int process_command_sigchild(EX_PCX* pcx, int pid, int exitCode, int rawStatus) {
    for (Cmd_Area& entry : the_commands.cmd_firstCMDA) {
        if (entry.cmda_forkPid == pid) {
            entry.cmda_chstat = rawStatus;
            entry.cmda_result = exitCode;
            cmd_sendExRes(pcx, &entry);
            return 1;
        }
    }
    return 0;
}
