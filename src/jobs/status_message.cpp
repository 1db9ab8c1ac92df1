// EXSTAJ: a job's state for the server.
#include <cstring>

#include "base/context.h"
#include "base/error.h"
#include "base/message_numbers.h"
#include "channels/ccm.h"
#include "jobs/activation.h"
#include "jobs/job_send.h"
#include "jobs/process_info.h"
#include "jobs/supervision.h"
#include "log/log.h"
#include "messages/records_job.h"

namespace {

constexpr int cancel_signal_told = 9;

// 'A' and 'K' are known to the agent alone.
char status_on_wire(const JP_AREA* job) {
    switch (job->JP_status) {
        case JOB_STATUS_FAILED:
            return JOB_STATUS_ENDED;
        case JOB_STATUS_CANCEL:
            __log(number_job_killed, "%i|%i|", job->m_ppid, cancel_signal_told);
            return JOB_STATUS_VANISHED;
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
    if (job->JP_status != JOB_STATUS_RUNNING) {
        record->endzeit = job->JP_eTime;
    }
    record->startzeit = job->JP_sTime;
}

const char* record_user(const JP_AREA* job) {
    return job->jp_userName[0] != 0 ? job->jp_userName : job->JP_user;
}

void add_variables(const JP_AREA* job, message_builder<MSG_TYPE_EXSTAJ>* status) {
    if (job->jp_variables.empty()) {
        return;
    }
    status->begin_table(MSG_TYPE_EXSTAJ::statusv, job->jp_variables.size());
    for (const registered_variable& variable : job->jp_variables) {
        status->put_terminated(variable.name);
        status->put_terminated(variable.value);
        status->put(variable.type);
    }
}

void add_files(const JP_AREA* job, message_builder<MSG_TYPE_EXSTAJ>* status) {
    if (job->jp_files.empty()) {
        return;
    }
    status->begin_table(MSG_TYPE_EXSTAJ::outfiles, job->jp_files.size());
    for (const FLE_Elem& file : job->jp_files) {
        status->put(file.fle_login);
        status->put_terminated(file.fle_name);
    }
}

// What belongs to an end besides the message.
void close_end(EX_PCX* pcx, JP_AREA* job) {
    qx7_error error;
    if (DeleteTaskResourceFiles(job, &error) != 0) {
        __log_error(error);
        if (job->JP_status == JOB_STATUS_ENDED) {
            // Told to the server with the next status.
            job->JP_status = JOB_STATUS_FAILED;
            job->retCode = error.qx_msgnr;
            put_text(job->infoText, std::string_view(error.qx_msgInsert));
        }
    }
    if (RemoveJobFromResourceLists(pcx, job, &error) != 0) {
        __log_error(error);
    }
    if (job->JP_status == JOB_STATUS_ENDED) {
        __log(number_job_ended, "%s|%i|", job->JP_oName, job->JP_jobNr);
    } else if (job->JP_status == JOB_STATUS_FAILED) {
        __log(number_job_ended_with_code, "%s|%i|%i|", job->JP_oName, job->JP_jobNr, job->retCode);
    }
}

}  // namespace

message_builder<MSG_TYPE_EXSTAJ> job_build_exstaj(EX_PCX*, JP_AREA* job, bool server_reachable) {
    message_builder<MSG_TYPE_EXSTAJ> status(job->JP_Mandant, job->JP_uIdnr, 4);
    Get_Proc_Attr(job);
    job_set_text(job->JP_srv_msg, "SEND_JOB_STATUS ");
    ++job->sta_cnt;
    fill_fixed_part(job, &status.record);
    status.add(MSG_TYPE_EXSTAJ::restartinfo,
               CreateJobRstrtInfo(job, record_user(job), server_reachable, false));
    add_variables(job, &status);
    add_files(job, &status);
    return status;
}

int create_and_send_exstaj(EX_PCX* pcx, JP_AREA* job) {
    const auto status = job_build_exstaj(pcx, job, ccm_server_reachable(pcx));
    const int result = send_built(
        pcx->ccm, status,
        {.dst_addr = ccm_name_server, .dst_name = job->ccmaddr == nullptr ? "" : job->ccmaddr->src_name});
    if (job_status_is_final(job->JP_status)) {
        close_end(pcx, job);
    }
    return result;
}
