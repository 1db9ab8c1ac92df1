#include "jobs/activation.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/ccm.h"
#include "identity/accounts.h"
#include "identity/pam.h"
#include "identity/password_check.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/job_time.h"
#include "jobs/process_info.h"
#include "jobs/who_may_start.h"
#include "launch/job_files.h"
#include "launch/launch.h"
#include "launch/launch_settings.h"
#include "log/log.h"
#include "messages/records_job.h"
#include "messages/view.h"

namespace {

constexpr size_t restart_area_offset = 264;
constexpr time_t retry_seconds = 5;
constexpr unsigned last_try = 11;
constexpr size_t path_limit = 255;

// An activation as it came, over the received message or the kept copy of it.
struct activation {
    message_view view;
    MSG_TYPE_EXAKTJ record;
    std::string user;       // from logininfo
    std::string jobfile;    // completed against the work directory
    std::string jobreport;  // the same
    launch_order order;     // borrows from the four above
};

void read_activation(EX_PCX* pcx, message_view view, activation* order) {
    order->view = view;
    order->record = view_record<MSG_TYPE_EXAKTJ>(view);
    const MSG_TYPE_EXAKTJ& record = order->record;
    order->user = std::string(get_text(record.logininfo));
    order->jobfile = launch_complete_path(pcx, get_text(record.jobfile));
    order->jobreport = launch_complete_path(pcx, get_text(record.jobreport));
    order->order.jobfile = order->jobfile;
    order->order.jobreport = order->jobreport;
    order->order.name = get_text(record.name);
    order->order.rest = view_text(view, record.rest_dist, record.rest_len);
    order->order.jcl = view_text(view, record.jcl_dist, record.jcl_len);
}

// What the entry knows and the message does not.
void complete_order(const JP_AREA* job, launch_order* order) {
    order->run = job->JP_jobNr;
    order->client = job->JP_Mandant;
    order->code_table = job->cCodeTab;
    order->head_lines = job->JP_jobNr == 0 ? std::string() : job_report_head(job);
}

// What the steps of one activation hand on.
struct activation_run {
    EX_PCX* pcx = nullptr;
    ccm_msg_t* msg = nullptr;
    activation order;
    std::unique_ptr<my_passwd_unlimited> passwd = std::make_unique<my_passwd_unlimited>();
    pam_handle_t* pam = nullptr;
    JP_AREA* job = nullptr;
};

void remove_refused_file(const activation_run& run) {
    if (job_file_is_ours(run.pcx, run.order.jobfile)) {
        job_remove_file(run.order.jobfile.c_str());
    }
}

void end_conversation(activation_run* run) {
    if (run->pam != nullptr) {
        PamEnd(run->pam, PAM_SUCCESS, true);
        run->pam = nullptr;
    }
}

int refuse(activation_run* run, int number, const char* log_insert, const char* quitt_insert) {
    __log(number, "%s", log_insert);
    remove_refused_file(*run);
    end_conversation(run);
    return create_and_send_quitt_message(run->pcx, run->msg, number, quitt_insert);
}

std::string with_bar(std::string_view text) {
    return std::string(text) + "|";
}

int job_number(const activation_run& run) {
    return run.order.record.ah_idnr;
}

uint16_t client_number(const activation_run& run) {
    return run.order.record.header.i2Mandant;
}

// ---- The checks, in their order. An empty result goes on; a value ends the activation with it. ----

using step_result = std::optional<int>;

step_result check_upgrade(activation_run* run) {
    if (run->pcx->upgrade_ah_idnr == 0) {
        return std::nullopt;
    }
    return create_and_send_quitt_message(run->pcx, run->msg, number_upgrade_running, "");
}

step_result check_account(activation_run* run) {
    qx7_error error;
    const std::string& user = run->order.user;
    if (user.empty() || user.size() > account_name_limit) {
        FillMessageOnPasswordError(&error, 0, user.c_str());
    } else if (AccountOfUser(user.c_str(), run->passwd.get(), &error)) {
        return std::nullopt;
    }
    return refuse(run, error.qx_msgnr, error.qx_msgInsert, error.qx_msgInsert);
}

int check_password_of(EX_PCX* pcx, const activation& order, pam_handle_t** pam) {
    std::string reason;
    const auto field = view_data(order.view, order.record.pwd_dist, order.record.pwd_len);
    const int result =
        PasswordCheck(pcx->pcx_JobPwCheck, order.record.ah_idnr, field, order.user.c_str(), &reason, pam);
    if (result != PASSWORD_ACCEPTED) {
        __PutLogText("Job %d: %s", order.record.ah_idnr, reason.c_str());
    }
    return result;
}

step_result check_password(activation_run* run) {
    if (check_password_of(run->pcx, run->order, &run->pam) == PASSWORD_ACCEPTED) {
        return std::nullopt;
    }
    const std::string& user = run->order.user;
    return refuse(run, number_user_unknown, with_bar(user).c_str(), user.c_str());
}

step_result check_user_allowed(activation_run* run) {
    const std::string& user = run->order.user;
    if (user_start_flag(run->pcx, job_context(), user.c_str(), run->passwd->pw_uid) == JOB_MAY_START) {
        return std::nullopt;
    }
    return refuse(run, number_user_not_allowed, with_bar(user).c_str(), with_bar(user).c_str());
}

step_result check_number_allowed(activation_run* run) {
    const uint32_t number = run->order.record.header.i4UsrIdNr;
    if (number_start_flag(run->pcx, job_context(), number) == JOB_MAY_START) {
        return std::nullopt;
    }
    return refuse(run, number_user_not_allowed, with_bar(std::to_string(number)).c_str(),
                  with_bar(run->order.user).c_str());
}

step_result check_duplicate(activation_run* run) {
    const JP_AREA* known = Find_JEntry(job_number(*run), client_number(*run));
    if (job_number(*run) != 0 && known == nullptr) {
        return std::nullopt;
    }
    const std::string insert = with_bar(std::to_string(job_number(*run)));
    const int result =
        create_and_send_quitt_message(run->pcx, run->msg, number_job_duplicate, insert.c_str());
    __log(number_job_duplicate, "%s", insert.c_str());
    // While the known job waits for its start its shell may not have opened that very file yet.
    if (known == nullptr || known->JP_status != JOB_STATUS_WAITING) {
        remove_refused_file(*run);
    }
    end_conversation(run);
    return result;
}

// The table and a restart record hold 255 characters of a path.
step_result check_path_lengths(activation_run* run) {
    for (const std::string* path : {&run->order.jobfile, &run->order.jobreport}) {
        if (path->size() > path_limit) {
            const std::string insert = call_insert("FileCreate()", path->substr(0, path_limit), ENAMETOOLONG);
            return refuse(run, number_file_call, insert.c_str(), insert.c_str());
        }
    }
    return std::nullopt;
}

// ---- The entry ----

void load_code_table(activation_run* run) {
    const MSG_TYPE_EXAKTJ& record = run->order.record;
    const auto code = view_data(run->order.view, record.code_dist, record.code_len);
    if (record.code_dist != 0 && code.size() == code_table_message_size) {
        SetCodeTab(run->job->cCodeTab, code.data());
    } else {
        memcpy(run->job->cCodeTab, GetDefaultCode(run->pcx).inverse, sizeof run->job->cCodeTab);
    }
}

void make_entry(activation_run* run) {
    run->job = Create_JEntry(job_number(*run), client_number(*run));
    run->job->jp_headm = run->order.record.header;
    run->job->jp_uid = run->passwd->pw_uid;
    load_code_table(run);
}

// Takes everything back that an activation left which will not become a job.
void undo_entry(activation_run* run) {
    qx7_error error;
    if (DeleteTaskResourceFiles(run->job, &error) != 0) {
        __log_error(error);
    }
    if (RemoveJobFromResourceLists(run->pcx, run->job, &error) != 0) {
        __log_error(error);
    }
    Erase_JEntry(job_number(*run), client_number(*run));
    run->job = nullptr;
}

void keep_address(JP_AREA* job, const ccm_msg_t* msg) {
    if (job->ccmaddr == nullptr) {
        job->ccmaddr = job_keep_address(msg);
    }
}

void copy_order(JP_AREA* job, const activation& order, const my_passwd_unlimited& passwd) {
    const MSG_TYPE_EXAKTJ& record = order.record;
    memcpy(job->JP_Version, record.header.version, sizeof job->JP_Version);
    job_set_text(job->JP_srv_msg, "SEND_AKTJ_QUITT ");
    job->JP_uIdnr = record.header.i4UsrIdNr;
    job_set_text(job->JP_oName, std::string(get_text(record.name)));
    job_set_text(job->JP_jFile, order.jobfile);
    job_set_text(job->JP_jReport, order.jobreport);
    job_set_text(job->JP_user, order.user);
    job_set_text(job->jp_userName, order.user);
    job->JP_maxCPU = record.maxcpu;
    job->JP_express = record.express;
    memcpy(job->JP_jClass, record.jclass, sizeof job->JP_jClass);
    memcpy(job->JP_jPrio, record.prio, sizeof job->JP_jPrio);
    job->JP_uPwDir = passwd.pw_dir;
    job->jp_uid = passwd.pw_uid;
}

// ---- A started job ----

// Another entry under this process id is stale: the number was given anew. What the server has acknowledged
// goes; what it has not heard yet stays, without the id.
void push_out_stale(EX_PCX* pcx, const JP_AREA* job, uint32_t pid) {
    if (launch_context()->JobStartType == JOB_START_BATCH) {
        return;
    }
    while (JP_AREA* stale = job_table_find_pid(pid, job)) {
        if ((stale->JP_flag & job_flag_acknowledged) == 0) {
            job_table_set_pid(stale, 0);
            continue;
        }
        qx7_error error;
        if (DeleteTaskResourceFiles(stale, &error) != 0) {
            __log_error(error);
        }
        if (RemoveJobFromResourceLists(pcx, stale, &error) != 0) {
            __log_error(error);
        }
        Erase_JEntry(stale->JP_jobNr, stale->JP_Mandant);
    }
}

void take_process(EX_PCX* pcx, JP_AREA* job, const launch_started& started) {
    push_out_stale(pcx, job, started.pid);
    job_table_set_pid(job, started.pid);
    job->akt_pid = started.pid;
    job->jp_group = started.group;
    job->m_ppid = 0;
    job->jobstart = 0;
    // For all start types: one whose script never reaches the messenger would not be looked at again.
    job->JP_alrmTime = alarm_now() + pcx->Per_JobCheck;
    if (launch_context()->JobStartType == JOB_START_FORK) {
        job->JP_sTime = job->JP_cTime;
        job->JP_sTime_t = job->JP_cTime_t;
    }
}

message_builder<MSG_TYPE_EXAKTJQU> build_exaktjqu(const JP_AREA* job) {
    message_builder<MSG_TYPE_EXAKTJQU> started(job->jp_headm);
    job_put_pid(started->processid, job->fork_pid);
    put_text(started->filler, "");
    started->startzeit = job->JP_cTime;
    return started;
}

// The second line is what other lines of the log, and ps, are brought together with.
void log_start(const JP_AREA* job) {
    __log(number_job_started, "%s|%i|", job->JP_oName, job->JP_jobNr);
    const bool batch = launch_context()->JobStartType == JOB_START_BATCH;
    __PutLogText("Job %d of client %u: user '%s', process %s %u, report '%s'", job->JP_jobNr, job->JP_Mandant,
                 printable(job->JP_user).c_str(), batch ? "group" : "id",
                 batch ? static_cast<unsigned>(job->jp_group) : job->fork_pid,
                 printable(job->JP_jReport).c_str());
}

int acknowledge_start(activation_run* run) {
    EX_PCX* pcx = run->pcx;
    JP_AREA* job = run->job;
    auto started = build_exaktjqu(job);
    started.fill_to(restart_area_offset);
    if (launch_context()->JobStartType == JOB_START_FORK) {
        started.add(MSG_TYPE_EXAKTJQU::restartinfo,
                    CreateJobRstrtInfo(job, job->jp_userName, ccm_server_reachable(pcx), true));
    }
    const int result = send_built(pcx->ccm, started, to_sender(run->msg));
    log_start(job);
    return result;
}

void log_no_process(int jobNr) {
    __PutLogText(
        "Error starting job with RunID %d: fork() returned error EAGAIN.  Trying to start job later.", jobNr);
}

// Everything that a start later on needs.
void keep_start(activation_run* run) {
    JP_AREA* job = run->job;
    const auto* body = static_cast<const unsigned char*>(run->msg->msg_start);
    job->jobstart = 1;
    job->ccmmsg.assign(body, body + run->msg->len);
    keep_address(job, run->msg);
    copy_order(job, run->order, *run->passwd);
    job->passwd = run->passwd.release();
}

void keep_for_later(activation_run* run) {
    keep_start(run);
    run->job->JP_alrmTime = alarm_now() + retry_seconds;
    log_no_process(run->job->JP_jobNr);
}

step_result take_resources(activation_run* run) {
    qx7_error error;
    JP_AREA* job = run->job;
    keep_address(job, run->msg);
    job_set_text(job->jp_userName, run->order.user);
    job_set_text(job->JP_oName, std::string(get_text(run->order.record.name)));
    if (job_read_resources(run->pcx, job, run->order.view, run->order.record, &error) != 0) {
        __log_error(error);
        remove_refused_file(*run);
        undo_entry(run);
        end_conversation(run);
        return create_and_send_quitt_message(run->pcx, run->msg, error.qx_msgnr, error.qx_msgInsert);
    }
    if (job->jp_requested_resource_list.empty()) {
        return std::nullopt;
    }
    // Without an alarm: the last BIN_DATA starts it. Nothing goes to the server yet.
    keep_start(run);
    end_conversation(run);
    return 0;
}

int fail_start(activation_run* run, const qx7_error& error) {
    const std::string name(get_text(run->order.record.name));
    undo_entry(run);
    __log(number_job_start_failed, "%s|%i|", name.c_str(), job_number(*run));
    const int result = create_and_send_quitt_message(run->pcx, run->msg, error.qx_msgnr, error.qx_msgInsert);
    job_remove_file(run->order.jobfile.c_str());
    return result;
}

int start_and_answer(activation_run* run) {
    qx7_error error;
    launch_started process;
    complete_order(run->job, &run->order.order);
    const launch_result started =
        start_job(run->pcx, run->order.order, *run->passwd, run->pam, &process, &error);
    if (started == LAUNCH_STARTED) {
        PamEndAfterStart(run->pam);  // tickets and credentials stay with the job
        run->pam = nullptr;
        keep_address(run->job, run->msg);
        copy_order(run->job, run->order, *run->passwd);
        take_process(run->pcx, run->job, process);
        return acknowledge_start(run);
    }
    end_conversation(run);
    if (started == LAUNCH_NO_PROCESS) {
        keep_for_later(run);
        return 0;
    }
    return fail_start(run, error);
}

// ---- A deferred start ----

int give_up_deferred(EX_PCX* pcx, JP_AREA* job, const activation& order, int number, const char* insert) {
    create_and_send_aktj_quitt_message(pcx, job, number, insert);
    job_remove_file(order.jobfile.c_str());
    return 1;
}

int acknowledge_deferred(EX_PCX* pcx, JP_AREA* job) {
    // The restart record goes out with the first status.
    const auto started = build_exaktjqu(job);
    if (job->ccmaddr != nullptr) {
        // The job runs in any case; a query finds it.
        send_built(pcx->ccm, started, to_kept(*job->ccmaddr));
    }
    log_start(job);
    return 0;
}

int run_checks(activation_run* run) {
    using step = step_result (*)(activation_run*);
    // The order is part of the protocol: a server tells from the number how far an activation came.
    constexpr step checks[] = {check_account,        check_password,  check_user_allowed,
                               check_number_allowed, check_duplicate, check_path_lengths};
    if (const step_result ended = check_upgrade(run)) {
        return *ended;
    }
    __log(number_job_received, "%s|%i|", std::string(get_text(run->order.record.name)).c_str(),
          job_number(*run));
    for (const step check : checks) {
        if (const step_result ended = check(run)) {
            return *ended;
        }
    }
    make_entry(run);
    if (const step_result ended = take_resources(run)) {
        return *ended;
    }
    return start_and_answer(run);
}

}  // namespace

int process_aktj(EX_PCX* pcx, ccm_msg_t* msg, int) {
    activation_run run;
    run.pcx = pcx;
    run.msg = msg;
    read_activation(pcx, view_of(msg), &run.order);
    return run_checks(&run);
}

int Start_Ex_Aktj(EX_PCX* pcx, JP_AREA* job) {
    activation order;
    read_activation(pcx, view_message(job->ccmmsg.data(), job->ccmmsg.size()), &order);
    if (job->passwd == nullptr || job->ccmmsg.empty()) {
        return 1;
    }
    pam_handle_t* pam = nullptr;
    if (check_password_of(pcx, order, &pam) != PASSWORD_ACCEPTED) {
        __log(number_user_unknown, "%s|", order.user.c_str());
        job->jobstart = last_try;
        return give_up_deferred(pcx, job, order, number_user_unknown, order.user.c_str());
    }
    qx7_error error;
    launch_started process;
    complete_order(job, &order.order);
    const launch_result started = start_job(pcx, order.order, *job->passwd, pam, &process, &error);
    if (started == LAUNCH_STARTED) {
        PamEndAfterStart(pam);
        job_time_now(&job->JP_cTime_t, &job->JP_cTime);
        take_process(pcx, job, process);
        job_drop_kept_start(job);
        return acknowledge_deferred(pcx, job);
    }
    PamEnd(pam, PAM_SUCCESS, true);
    if (started == LAUNCH_NO_PROCESS && job->jobstart < last_try) {
        log_no_process(job->JP_jobNr);
        return 0;
    }
    __log(number_job_start_failed, "%s|%i|", job->JP_oName, job->JP_jobNr);
    return give_up_deferred(pcx, job, order, error.qx_msgnr, error.qx_msgInsert);
}
