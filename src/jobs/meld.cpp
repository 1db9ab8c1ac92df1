#include "jobs/meld.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/ipc_records.h"
#include "channels/line_budget.h"
#include "channels/replies.h"
#include "jobs/job_context.h"
#include "jobs/job_send.h"
#include "jobs/job_table.h"
#include "jobs/job_time.h"
#include "jobs/process_info.h"
#include "jobs/report_scan.h"
#include "jobs/supervision.h"
#include "launch/launch_settings.h"
#include "log/log.h"
#include "messages/records_meld.h"
#include "messages/records_server.h"

namespace {

// Every user of this host can send what is not taken: lines about it must not fill the disk.
line_budget refusal_lines{200, 2};

bool may_log() {
    int dropped = 0;
    if (!refusal_lines.take(alarm_now(), &dropped)) {
        return false;
    }
    if (dropped > 0) {
        __PutLogText("%d lines about messages of job messengers that were not taken were left out.", dropped);
    }
    return true;
}

// The bytes of a message as far as they came.
struct meld_bytes {
    const unsigned char* at;
    size_t length;
};

template <class Record>
std::optional<Record> record_at(const meld_bytes& bytes) {
    if (bytes.length < sizeof(Record)) {
        return std::nullopt;
    }
    Record record;
    memcpy(&record, bytes.at, sizeof record);
    return record;
}

template <class Record>
bool version_fits(const Record& record) {
    if (record.mdMajor == meld_major_version) {
        return true;
    }
    if (may_log()) {
        __log(number_messenger_version, "%i.%i.%i|%s|", record.mdMajor, record.mdMinor, record.mdPatch,
              qx_release);
    }
    return false;
}

bool is_blank(std::string_view text) {
    return text.find_first_not_of(std::string_view(" \0", 2)) == std::string_view::npos;
}

// The entry, when the sender may speak for it and its end is still open.
JP_AREA* find_job(EX_PCX* pcx, int jobNr, uint16_t client, uid_t uid) {
    JP_AREA* job = Find_JEntry(jobNr, client);
    if (job == nullptr) {
        return nullptr;
    }
    const bool own_user = job->jp_uid != meld_unknown_uid && uid == job->jp_uid;
    if (uid == meld_unknown_uid || (uid != 0 && uid != pcx->pcx_run_euid && uid != geteuid() && !own_user)) {
        if (may_log()) {
            __PutLogText(
                "MELD for job %d of client %d was ignored: it came from uid %d, which is not the job's user.",
                jobNr, client, static_cast<int>(uid));
        }
        return nullptr;
    }
    job_set_text(job->JP_client_msg, "SEND_MLD_QUITT  ");
    // A process that goes on in the background must not change what the server was told as the end.
    return (job->JP_flag & job_flag_end_taken) != 0 || job->jobstart != 0 ? nullptr : job;
}

// A time from outside: one that is no date becomes now.
void take_time(const MSG_TYPE_TIMESTAMP& told, time_t* seconds, MSG_TYPE_TIMESTAMP* stamp) {
    const time_t time_told = job_time_of(told);
    if (time_told == 0) {
        job_time_now(seconds, stamp);
        return;
    }
    *seconds = time_told;
    *stamp = job_timestamp(time_told, told.ns >= 0 && told.ns <= 999999999 ? told.ns : 0);
}

// A process id counts only for a process of the job's user, for it may be signalled later.
pid_t accepted_pid(const JP_AREA* job, int32_t pid) {
    return pid > 1 && job->jp_uid != meld_unknown_uid && process_owner(pid) == job->jp_uid ? pid : 0;
}

void take_info_text(JP_AREA* job, const JP_EXMLDJ& record) {
    if (record.status == meld_running) {
        memset(job->infoText, ' ', sizeof job->infoText);
        memcpy(job->infoText, record.infoText, strnlen(record.infoText, sizeof record.infoText));
    } else {
        memcpy(job->infoText + meld_mark_size, record.infoText + meld_mark_size,
               sizeof job->infoText - meld_mark_size);
    }
    const std::string_view mark(job->infoText, meld_mark_size);
    if (!is_blank(mark)) {
        __log(number_restart_mark, "%.8s|%.24s|", job->infoText, job->infoText + meld_mark_size);
        job_set_text(job->JP_client_msg, "RECV_MLD_RESTART");
    } else if (record.status == meld_ended) {
        job_set_text(job->JP_client_msg, "RECV_MLD_END    ");
    } else {
        job_set_text(job->JP_client_msg, "RECV_MLD_START  ");
    }
}

void take_ids(JP_AREA* job, const JP_EXMLDJ& record) {
    const int32_t told[] = {record.pid, record.ppid, record.pgrp, record.pgid, record.sid};
    pid_t* const fields[] = {&job->m_pid, &job->m_ppid, &job->m_pgrp, &job->m_pgid, &job->m_sid};
    for (size_t at = 0; at < std::size(told); ++at) {
        // Most of them are the same process, which is looked up once.
        const size_t first = static_cast<size_t>(std::find(told, told + at, told[at]) - told);
        *fields[at] = first < at ? *fields[first] : accepted_pid(job, told[at]);
    }
    job->m_uid = record.uid;
    job->m_euid = record.euid;
    job->m_gid = record.gid;
    job->m_egid = record.egid;
}

void take_report(EX_PCX* pcx, JP_AREA* job, const JP_EXMLDJ& record) {
    if (job->JP_status != JOB_STATUS_CANCEL) {
        job->JP_status = record.status;
    }
    take_info_text(job, record);
    job_set_text(job->JP_MeldVers, std::string(record.md_version, strnlen(record.md_version, 32)));
    job->retCode = record.retCode;
    if (job->JP_sTime_t == 0) {
        take_time(record.sTime, &job->JP_sTime_t, &job->JP_sTime);
        if (launch_context()->JobStartType != JOB_START_FORK) {
            job->JP_alrmTime = alarm_now() + pcx->Per_JobCheck;
        }
    }
    if (record.status == meld_ended) {
        take_time(record.sTime, &job->JP_eTime_t, &job->JP_eTime);
    }
    job->cpuTime = record.cpuTime;
    job->ioCount = record.ioCount;
    job->m_ucpu = record.ucpu;
    job->m_scpu = record.scpu;
    take_ids(job, record);
}

void take_end(EX_PCX* pcx, JP_AREA* job) {
    if (job->JP_status == JOB_STATUS_CANCEL || job_awaits_sigchld(job)) {
        job->JP_alrmTime = alarm_now() + pcx->Per_JobCheck;
        return;
    }
    // No SIGCHLD will come: the messenger's word is the end.
    if (job->retCode != 0) {
        job->JP_status = JOB_STATUS_FAILED;
    }
    job->JP_flag |= job_flag_end_taken;
    job->JP_alrmTime = alarm_now() + pcx->Per_JobCheck;
    create_and_send_exstaj(pcx, job);
}

int take_status(EX_PCX* pcx, const meld_bytes& bytes, uint16_t client, uid_t uid) {
    const auto record = record_at<JP_EXMLDJ>(bytes);
    if (!record || !version_fits(*record)) {
        return -1;
    }
    JP_AREA* job = find_job(pcx, record->jobNr, client, uid);
    if (job == nullptr) {
        return -1;
    }
    if (job->JP_status == JOB_STATUS_ENDED && record->status != meld_ended) {
        // The job has told its end; a process that it left behind must not take back state and return code.
        return -1;
    }
    take_report(pcx, job, *record);
    if (record->status == meld_ended) {
        take_end(pcx, job);
    } else if (job->JP_status != JOB_STATUS_CANCEL || CheckProzessId(job) == 0) {
        // A cancelled job that still runs would be told as gone: the check tells whether it is.
        create_and_send_exstaj(pcx, job);
    }
    return 0;
}

bool AddRegVariable(JP_AREA* job, const MSG_TYPE_STATUS_VALUE& told, const char (&info)[32]) {
    registered_variable variable;
    variable.name = upper(std::string_view(told.name, strnlen(told.name, job_variable_name_limit)));
    variable.value = std::string(told.value, strnlen(told.value, job_variable_value_limit));
    variable.type = told.type == 0 ? ' ' : told.type;
    if (variable.name.empty()) {
        return false;
    }
    const auto same =
        std::find_if(job->jp_variables.begin(), job->jp_variables.end(),
                     [&](const registered_variable& known) { return known.name == variable.name; });
    if (same != job->jp_variables.end()) {
        *same = variable;
    } else if (job->jp_variables.size() < job_variables_limit) {
        job->jp_variables.push_back(variable);
    } else {
        __PutLogText("Job %d has registered %zu variables; '%.199s' is not taken.", job->JP_jobNr,
                     job_variables_limit, variable.name.c_str());
        return false;
    }
    memset(job->infoText, ' ', sizeof job->infoText);
    memcpy(job->infoText, info, strnlen(info, sizeof info));
    return true;
}

int take_variable(EX_PCX* pcx, const meld_bytes& bytes, uint16_t client, uid_t uid) {
    const auto record = record_at<JP_EXMLDV>(bytes);
    if (!record || !version_fits(*record)) {
        return -1;
    }
    JP_AREA* job = find_job(pcx, record->jobNr, client, uid);
    if (job == nullptr || record->variable_len == 0 || record->variable_dist < 0 ||
        static_cast<size_t>(record->variable_dist) > bytes.length) {
        return -1;
    }
    const size_t dist = static_cast<size_t>(record->variable_dist);
    const auto value = record_at<MSG_TYPE_STATUS_VALUE>({bytes.at + dist, bytes.length - dist});
    return value && AddRegVariable(job, *value, record->infoText) ? 0 : -1;
}

// A registered output file.
int processOutputView(EX_PCX* pcx, const meld_bytes& bytes, uint16_t client, uid_t uid) {
    const auto record = record_at<JP_EXMLDO>(bytes);
    if (!record || !version_fits(*record)) {
        return -1;
    }
    JP_AREA* job = find_job(pcx, record->jobNr, client, uid);
    if (job == nullptr) {
        return -1;
    }
    const std::string_view name(record->fileName, strnlen(record->fileName, sizeof record->fileName));
    const char login = record->loginCheck > ' ' ? record->loginCheck : 'Y';
    if (job_register_file(job, login, name, false)) {
        return 0;
    }
    if (!name.empty()) {
        __PutLogText("Job %d has registered %zu output files; '%.511s' is not taken.", job->JP_jobNr,
                     job_files_limit, std::string(name).c_str());
    }
    return -1;
}

// Answers over the channel that brought the record; the listener gives it to the messenger.
int send_natquitt(EX_PCX* pcx, const ccm_msg_t* msg, const QX_HEADM& head, int reply_id, bool taken) {
    constexpr size_t size = sizeof(ipcmsg_natquitt_t) + sizeof(MSG_TYPE_QUITT);
    ccm_msg_t* out = ipc_record_alloc(pcx->ccm, ipc_natquitt, static_cast<int>(size));
    if (out == nullptr) {
        return -1;
    }
    ipcmsg_natquitt_t record;
    memcpy(&record, out->msg_start, sizeof record);
    record.dstID = reply_id;
    record.len = static_cast<int32_t>(sizeof(MSG_TYPE_QUITT));
    const auto quitt = make_quitt(
        {"MELD", head.i2Mandant, head.i4UsrIdNr, taken ? 0 : number_meld_not_taken, "", taken ? "OK" : "NK"});
    memcpy(out->msg_start, &record, sizeof record);
    built_message(quitt).write(out->msg_start + sizeof record);
    out->len = static_cast<int>(size);
    ccm_setaddr(out, msg->addr.src_ID, 0, ccm_name_ipc_listener, "", 0);
    return send_IPC_message(pcx->ccm, out);
}

}  // namespace

int job_take_meld(EX_PCX* pcx, const unsigned char* meld, size_t length, uid_t uid) {
    if (length <= meld_record_offset + meld_status_offset) {
        return -1;
    }
    QX_HEADM head;
    memcpy(&head, meld, sizeof head);
    const meld_bytes bytes{meld + meld_record_offset, length - meld_record_offset};
    switch (bytes.at[meld_status_offset]) {
        case meld_file:
            return processOutputView(pcx, bytes, head.i2Mandant, uid);
        case meld_variable:
            return take_variable(pcx, bytes, head.i2Mandant, uid);
        case meld_running:
        case meld_continued:
        case meld_ended:
            return take_status(pcx, bytes, head.i2Mandant, uid);
        default:
            if (may_log()) {
                __PutLogText("MELD with the unknown status %u was ignored.", bytes.at[meld_status_offset]);
            }
            return -1;
    }
}

int process_ipc_exmeld(EX_PCX* pcx, ccm_msg_t* msg, int) {
    if (pcx->running_mode != MODE_AGENT) {
        __PutLogText("IPC-MELD message can be only processed by AGENT.");
        return -1;
    }
    ipcmsg_natmeld_t record;
    if (msg->len < static_cast<int>(sizeof record)) {
        return -1;
    }
    memcpy(&record, msg->msg_start, sizeof record);
    const size_t behind = static_cast<size_t>(msg->len) - sizeof record;
    meld_ends ends;
    // `len` counts the message and the ends behind it.
    if (record.len < static_cast<int>(sizeof(QX_HEADM) + sizeof ends) ||
        static_cast<size_t>(record.len) != behind) {
        return -1;
    }
    const unsigned char* meld = msg->msg_start + sizeof record;
    const size_t length = behind - sizeof ends;
    memcpy(&ends, meld + length, sizeof ends);
    QX_HEADM head;
    memcpy(&head, meld, sizeof head);
    if (memcmp(head.version, meld_message_version, sizeof head.version) != 0) {
        if (may_log()) {
            __log(number_messenger_version, "%.2s|%s|", head.version, meld_message_version);
        }
        return 0;
    }
    // Without root the listener runs under the agent's own user.
    const uid_t listener_uid = geteuid() == 0 ? pcx->listener_uid : geteuid();
    const uid_t uid = meld_sender_uid(ends.own, ends.peer, pcx->listener_port, listener_uid);
    const int result = job_take_meld(pcx, meld, length, uid);
    send_natquitt(pcx, msg, head, record.replyID, result == 0);
    return result;
}
