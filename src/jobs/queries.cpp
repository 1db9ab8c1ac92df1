#include "jobs/queries.h"

#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/context.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "identity/accounts.h"
#include "jobs/activation.h"
#include "jobs/job_context.h"
#include "jobs/job_send.h"
#include "jobs/job_table.h"
#include "jobs/job_time.h"
#include "jobs/process_group.h"
#include "jobs/process_info.h"
#include "jobs/report_scan.h"
#include "jobs/supervision.h"
#include "launch/job_files.h"
#include "log/log.h"
#include "messages/records_job.h"
#include "messages/view.h"

namespace {

constexpr char answer_lost[] = "LOST";
constexpr char answer_ended[] = "ENDED";
constexpr char answer_running[] = "RUNNING";

struct S_TMP {
    char sig_name[16];
    unsigned short sig_num;
};

constexpr S_TMP signal_table[] = {
    {"TERM", SIGTERM},    {"ABRT", SIGABRT},    {"KILL", SIGKILL},
    {"SIGTERM", SIGTERM}, {"SIGKILL", SIGKILL}, {"SIGABRT", SIGABRT},
};

struct query_insert {
    char text[64];
};

query_insert format_answer(int ah_idnr, uint16_t client, const char* answer) {
    query_insert insert;
    snprintf(insert.text, sizeof insert.text, "%i|%i|%s|", ah_idnr, client, answer);
    return insert;
}

struct job_insert {
    char text[320];
};

job_insert format_job(const JP_AREA* job) {
    job_insert insert;
    snprintf(insert.text, sizeof insert.text, "%s|%i|", job->JP_oName, job->JP_jobNr);
    return insert;
}

int refuse_cancel(EX_PCX* pcx, ccm_msg_t* msg, int ah_idnr) {
    char insert[32];
    snprintf(insert, sizeof insert, "%i|", ah_idnr);
    return create_and_send_quitt_message(pcx, msg, number_no_such_job, insert);
}

// A job without a process: closes the activation that never got its answer.
int cancel_waiting(EX_PCX* pcx, ccm_msg_t* msg, JP_AREA* job) {
    const job_insert insert = format_job(job);
    __log(number_job_cancel, "%s", insert.text);
    const int result = job_send_quitt_ok(pcx, msg, number_job_cancelled_waiting, insert.text);
    __log(number_job_cancelled_waiting, "%s", insert.text);
    qx7_error error;
    int number = number_job_cancelled_waiting;
    if (DeleteTaskResourceFiles(job, &error) != 0) {
        number = error.qx_msgnr;
    }
    create_and_send_aktj_quitt_message(pcx, job, number, insert.text);
    job_remove_file(job->JP_jFile);
    if (RemoveJobFromResourceLists(pcx, job, &error) != 0) {
        __log_error(error);
    }
    Erase_JEntry(job->JP_jobNr, job->JP_Mandant);
    return result;
}

void answer_query(EX_PCX* pcx, ccm_msg_t* msg, const JP_AREA* job, const char* answer) {
    create_and_send_quitt_message(pcx, msg, 0, "");
    __log(number_job_state, "%s", format_answer(job->JP_jobNr, job->JP_Mandant, answer).text);
}

void answer_lost_job(EX_PCX* pcx, ccm_msg_t* msg, int ah_idnr, uint16_t client) {
    const query_insert insert = format_answer(ah_idnr, client, answer_lost);
    __log(number_job_state, "%s", insert.text);
    create_and_send_quitt_message(pcx, msg, number_job_state, insert.text);
}

int query_known(EX_PCX* pcx, ccm_msg_t* msg, JP_AREA* job, bool without_record) {
    if (without_record) {
        job->JP_RstInfo = JOB_RECORD_DUE;  // the server has none: it goes out with the next status
    }
    if (job->jobstart != 0 || CheckProzessId(job) != 0) {
        job_set_text(job->JP_srv_msg, "RECV_JOB_INF    ");
        answer_query(pcx, msg, job, answer_running);
        return 0;
    }
    answer_query(pcx, msg, job, answer_ended);
    return create_and_send_exstaj(pcx, job);
}

void fill_from_message(JP_AREA* job, const ccm_msg_t* msg, const MSG_TYPE_JOB_INF& query) {
    memcpy(job->JP_Version, query.header.version, sizeof job->JP_Version);
    job->JP_uIdnr = query.header.i4UsrIdNr;
    job->sta_cnt = query.cnt;
    job->jp_headm = query.header;
    int64_t pid = 0;
    if (parse_number(strip(get_text(query.processid)), 0, INT32_MAX, &pid)) {
        job->akt_pid = static_cast<uint32_t>(pid);
    }
    job->ccmaddr = job_keep_address(msg);
    job->ccmaddr->src_acv = 0;
    job->JP_flag &= ~job_flag_own_child;
    job->JP_status = JOB_STATUS_RUNNING;
    job->JP_RstInfo = JOB_RECORD_SENT;
    job->JP_create = JOB_ORIGIN_QUERY;
    job_set_text(job->JP_srv_msg, "RECV_JOB_INF    ");
    job->JP_alrmTime = alarm_now();
}

void fill_from_record(JP_AREA* job, const job_record& record) {
    job_table_set_pid(job, record.pgid > 1 ? static_cast<uint32_t>(record.pgid) : 0);
    job->m_pid = static_cast<pid_t>(job->fork_pid);
    job->m_ppid = static_cast<pid_t>(job->fork_pid);
    job_set_text(job->JP_oName, record.oName);
    job_set_text(job->JP_jFile, record.jFile);
    job_set_text(job->JP_jReport, record.jReport);
    job->jp_task_cache_path = record.task_cache_path;
    job_set_text(job->jp_userName, record.userName);
    my_passwd_unlimited user;
    if (!record.userName.empty() && GetPwdNameStruct(record.userName.c_str(), &user, nullptr)) {
        job->jp_uid = user.pw_uid;
    }
    // The start time tells whether the process id still is the job's process.
    job->JP_jStart = record.jStart;
    for (const std::string& name : record.resNames) {
        resource_item item;
        item.file_path = name;
        item.ah_idnr = job->JP_jobNr;
        job->jp_used_task_resource_list.push_front(item);
    }
}

void rebuild_gone(EX_PCX* pcx, ccm_msg_t* msg, JP_AREA* job) {
    qx7_error error;
    if (ReadReport(job, &error) != -1) {
        answer_query(pcx, msg, job, answer_ended);
        return;
    }
    // The job is lost to both sides.
    answer_lost_job(pcx, msg, job->JP_jobNr, job->JP_Mandant);
    job_remove_file(job->JP_jReport);
    if (DeleteTaskResourceFiles(job, &error) != 0) {
        __log_error(error);
    }
    Erase_JEntry(job->JP_jobNr, job->JP_Mandant);
}

void rebuild_running(EX_PCX* pcx, ccm_msg_t* msg, JP_AREA* job) {
    Get_Proc_Attr(job);
    JP_AREA scan;
    qx7_error error;
    if (report_scan_file(job, &scan, &error)) {
        for (const FLE_Elem& file : scan.jp_files) {
            job_register_file(job, file.fle_login, file.fle_name, true);
        }
    }
    if (scan.JP_sTime_t != 0) {
        job->JP_sTime_t = scan.JP_sTime_t;
        job->JP_sTime = scan.JP_sTime;
    } else {
        job->JP_sTime_t = process_start_time(job->JP_jStart);
        job->JP_sTime = job_timestamp(job->JP_sTime_t);
    }
    job->JP_status = JOB_STATUS_RUNNING;
    answer_query(pcx, msg, job, answer_running);
}

void rebuild(EX_PCX* pcx, ccm_msg_t* msg, const MSG_TYPE_JOB_INF& query, const job_record& record) {
    JP_AREA* job = Create_JEntry(query.ah_idnr, query.header.i2Mandant);
    fill_from_message(job, msg, query);
    fill_from_record(job, record);
    // Asked first and by itself: /proc that cannot be read must not make a living job lost.
    if (CheckProzessId(job) == 0) {
        rebuild_gone(pcx, msg, job);
    } else {
        rebuild_running(pcx, msg, job);
    }
}

}  // namespace

int GetSigInt(const char* name) {
    const std::string wanted = upper(std::string_view(name, strnlen(name, 15)));
    for (const S_TMP& row : signal_table) {
        if (wanted == row.sig_name) {
            return row.sig_num;
        }
    }
    return SIGKILL;
}

int process_jobcan(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto order = view_record<MSG_TYPE_JOB_CAN>(view);
    JP_AREA* job = Find_JEntry(order.ah_idnr, order.header.i2Mandant);
    if (job == nullptr) {
        return refuse_cancel(pcx, msg, order.ah_idnr);
    }
    job_set_text(job->JP_srv_msg, "RECV_JOB_CAN    ");
    if (job->jobstart != 0) {
        return cancel_waiting(pcx, msg, job);
    }
    const pid_t pid = CheckProzessId(job);
    if (pid == 0) {
        return refuse_cancel(pcx, msg, order.ah_idnr);
    }
    const job_insert insert = format_job(job);
    __log(number_job_cancel, "%s", insert.text);
    const int signal = GetSigInt(job_context()->KillSignal);
    if (kill(job_signal_target(job, pid), signal) != 0) {
        __log(number_system_call, "%s", call_insert("kill", errno).c_str());
        return refuse_cancel(pcx, msg, order.ah_idnr);
    }
    job->JP_sigNum = static_cast<short>(signal);
    memset(job->infoText, ' ', sizeof job->infoText);
    job->JP_status = JOB_STATUS_CANCEL;
    if ((job->JP_flag & job_flag_process_reaped) != 0) {
        job->JP_alrmTime = alarm_now();
    } else if ((job->JP_flag & job_flag_own_child) != 0) {
        job->JP_alrmTime = alarm_now() + pcx->Per_JobCheck;
    } else {
        job->JP_alrmTime = alarm_now();
        job_time_now(&job->JP_eTime_t, &job->JP_eTime);
        job->retCode = SIGKILL;
    }
    __log(number_job_cancel_sent, "%s", insert.text);
    const int result = job_send_quitt_ok(pcx, msg, number_job_cancel_sent, insert.text);
    job_set_text(job->JP_srv_msg, "SEND_QUITTUNG   ");
    return result;
}

int process_exstajqu(EX_PCX*, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto answer = view_record<MSG_TYPE_EXSTAJQU>(view);
    JP_AREA* job = Find_JEntry(answer.ah_idnr, answer.header.i2Mandant);
    if (job == nullptr) {
        return 0;
    }
    if (job_status_is_final(job->JP_status) &&
        ((job->JP_flag & job_flag_end_taken) != 0 || !job_awaits_sigchld(job))) {
        job->JP_flag |= job_flag_acknowledged;
    }
    // A failed job keeps its file for inspection until JOB_DEL; one whose shell still runs has told its end
    // itself.
    if (job->JP_status == JOB_STATUS_ENDED && (job->JP_flag & job_flag_acknowledged) != 0) {
        job_remove_file(job->JP_jFile);
    }
    return 0;
}

int process_jobdel(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto order = view_record<MSG_TYPE_JOB_DEL>(view);
    JP_AREA* job = Find_JEntry(order.ah_idnr, order.header.i2Mandant);
    if (job == nullptr) {
        return 0;
    }
    job_set_text(job->JP_srv_msg, "RECV_JOB_DEL    ");
    qx7_error error;
    if (DeleteTaskResourceFiles(job, &error) != 0) {
        __log_error(error);
    }
    // Off all lists first: a resource must not count as used by an entry that is gone.
    if (RemoveJobFromResourceLists(pcx, job, &error) != 0) {
        __log_error(error);
    }
    job_remove_file(job->JP_jFile);
    Erase_JEntry(order.ah_idnr, order.header.i2Mandant);
    return 0;
}

int process_jobinf(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto query = view_record<MSG_TYPE_JOB_INF>(view);
    const auto bytes = view_data(view, query.restart_dist, query.restart_len);
    JP_AREA* job = Find_JEntry(query.ah_idnr, query.header.i2Mandant);
    if (job != nullptr) {
        return query_known(pcx, msg, job, query.restart_len == 0);
    }
    job_record record;
    if (bytes.empty() || !job_record_read(bytes.data(), bytes.size(), &record)) {
        answer_lost_job(pcx, msg, query.ah_idnr, query.header.i2Mandant);
        return 0;
    }
    rebuild(pcx, msg, query, record);
    return 0;
}
