// EXSTAJ: a job's state for the server.
#include <cstring>

#include "base/context.h"
#include "base/error.h"
#include "base/log.h"
#include "jobs/activation.h"
#include "jobs/job_send.h"
#include "jobs/process_info.h"
#include "jobs/supervision.h"
#include "messages/records_job.h"

namespace {

constexpr int number_ended = 2000008;
constexpr int number_ended_with_code = 2000009;
constexpr int number_killed = 2003046;
constexpr int cancel_signal_told = 9;

void append(std::vector<unsigned char>* body, std::string_view text) {
    body->insert(body->end(), text.begin(), text.end());
}

void append_terminated(std::vector<unsigned char>* body, std::string_view text) {
    append(body, text);
    body->push_back(0);
}

// 'A' and 'K' are known to the agent alone.
char status_on_wire(const JP_AREA* job) {
    switch (job->JP_status) {
        case job_status_failed:
            return job_status_ended;
        case job_status_cancel:
            __log(number_killed, "%i|%i|", job->m_ppid, cancel_signal_told);
            return job_status_vanished;
        default:
            return job->JP_status;
    }
}

void fill_fixed_part(const JP_AREA* job, MSG_TYPE_EXSTAJ* record) {
    record->ah_idnr = job->JP_jobNr;
    job_put_pid(record->processid, job->akt_pid != 0 ? job->akt_pid : job->fork_pid);
    record->status = status_on_wire(job);
    record->retcode = job->retCode;
    record->cputime = job->cpuTime;
    record->kerneltime = job->m_scpu;
    record->usertime = job->m_ucpu;
    record->iocount = job->ioCount;
    record->cnt = job->sta_cnt;
    memcpy(&record->infotext_alt, job->infoText, sizeof record->infotext_alt);
    if (job->JP_status != job_status_running) {
        record->endzeit = job->JP_eTime;
    }
    put_text(record->progname, "");
    record->startzeit = job->JP_sTime;
    put_text(record->remote_insert, "");
}

const char* record_user(const JP_AREA* job) {
    return job->jp_userName[0] != 0 ? job->jp_userName : job->JP_user;
}

void append_variables(const JP_AREA* job, std::vector<unsigned char>* body, MSG_TYPE_EXSTAJ* record) {
    if (job->jp_variables.empty()) {
        return;
    }
    record->statusv_dist = static_cast<int32_t>(body->size());
    record->statusv_entries = static_cast<int32_t>(job->jp_variables.size());
    for (const registered_variable& variable : job->jp_variables) {
        append_terminated(body, variable.name);
        append_terminated(body, variable.value);
        body->push_back(static_cast<unsigned char>(variable.type));
    }
}

void append_files(const JP_AREA* job, std::vector<unsigned char>* body, MSG_TYPE_EXSTAJ* record) {
    if (job->jp_files.empty()) {
        return;
    }
    record->outfile_dist = static_cast<int32_t>(body->size());
    record->outfile_count = static_cast<int32_t>(job->jp_files.size());
    for (const FLE_Elem& file : job->jp_files) {
        body->push_back(static_cast<unsigned char>(file.fle_login));
        append_terminated(body, file.fle_name);
    }
}

// What belongs to an end besides the message.
void close_end(EX_PCX* pcx, JP_AREA* job) {
    qx7_error error;
    if (DeleteTaskResourceFiles(job, &error) != 0) {
        __log_error(error);
        if (job->JP_status == job_status_ended) {
            // Told to the server with the next status.
            job->JP_status = job_status_failed;
            job->retCode = error.qx_msgnr;
            put_text(job->infoText, std::string_view(error.qx_msgInsert));
        }
    }
    if (RemoveJobFromResourceLists(pcx, job, &error) != 0) {
        __log_error(error);
    }
    if (job->JP_status == job_status_ended) {
        __log(number_ended, "%s|%i|", job->JP_oName, job->JP_jobNr);
    } else if (job->JP_status == job_status_failed) {
        __log(number_ended_with_code, "%s|%i|%i|", job->JP_oName, job->JP_jobNr, job->retCode);
    }
}

}  // namespace

std::vector<unsigned char> job_build_exstaj(EX_PCX*, JP_AREA* job, bool server_reachable) {
    QX_HEADM like{};
    like.i2Mandant = job->JP_Mandant;
    like.i4UsrIdNr = job->JP_uIdnr;
    std::vector<unsigned char> body = job_new_body(sizeof(MSG_TYPE_EXSTAJ), "EXSTAJ", 4, like);
    MSG_TYPE_EXSTAJ record;
    memcpy(&record, body.data(), sizeof record);

    Get_Proc_Attr(job);
    job_set_text(job->JP_srv_msg, "SEND_JOB_STATUS ");
    ++job->sta_cnt;
    fill_fixed_part(job, &record);

    const std::vector<unsigned char> restart =
        CreateJobRstrtInfo(job, record_user(job), server_reachable, false);
    if (!restart.empty()) {
        record.restart_len = static_cast<int32_t>(restart.size());
        record.restart_dist = static_cast<int32_t>(body.size());
        body.insert(body.end(), restart.begin(), restart.end());
    }
    // In the order of the fields that name them: a reader walks the tables one behind the other.
    append_variables(job, &body, &record);
    append_files(job, &body, &record);
    memcpy(body.data(), &record, sizeof record);
    return body;
}

int create_and_send_exstaj(EX_PCX* pcx, JP_AREA* job) {
    const std::vector<unsigned char> body = job_build_exstaj(pcx, job, job_server_reachable(pcx));
    const int result = job_send_server(pcx, job->ccmaddr, body);
    if (job_status_is_final(job->JP_status)) {
        close_end(pcx, job);
    }
    return result;
}
