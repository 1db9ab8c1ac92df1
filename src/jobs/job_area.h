// One job: the entry in the agent's table and the restart record with which a job outlives the agent.
// Everything here belongs to the main thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "messages/records_common.h"
#include "resources/resources.h"

struct ccm_addr_t;
struct my_passwd_unlimited;

// JP_status. 'A' is known to the agent alone: the server sees 'E' and the return code.
enum job_status : char {
    JOB_STATUS_WAITING = 'W',    // entry made, no word from the job yet
    JOB_STATUS_RUNNING = 'R',    // running
    JOB_STATUS_CONTINUED = 'C',  // a state that the messenger may report, treated like 'R'
    JOB_STATUS_CANCEL = 'K',     // cancel sent, end awaited
    JOB_STATUS_ENDED = 'E',      // ended, return code 0
    JOB_STATUS_FAILED = 'A',     // ended, return code not 0
    JOB_STATUS_VANISHED = 'V'    // vanished or killed
};

inline bool job_status_is_final(char status) {
    return status == JOB_STATUS_ENDED || status == JOB_STATUS_FAILED || status == JOB_STATUS_VANISHED;
}

// JP_create.
enum job_origin : char {
    JOB_ORIGIN_ACTIVATION = 'S',
    JOB_ORIGIN_QUERY = 'R'  // rebuilt from a restart record
};

// JP_reportFlag: the kind of job line that the report scan met last.
enum job_report_line : char {
    JOB_REPORT_NONE = ' ',
    JOB_REPORT_START = 'S',
    JOB_REPORT_END = 'E',
    JOB_REPORT_RESTART = 'R'
};

// JP_RstInfo.
enum job_record_state : char { JOB_RECORD_DUE = ' ', JOB_RECORD_SENT = 'Y' };

// Bits of JP_flag.
inline constexpr int job_flag_own_child = 1;  // the process is this agent's own child
inline constexpr int job_flag_end_taken = 2;  // reaped, or found ended: no process may be looked for any more
inline constexpr int job_flag_acknowledged = 4;    // EXSTAJQU came for the end
inline constexpr int job_flag_process_reaped = 8;  // after a cancel, while others of its group live on

inline constexpr size_t job_file_name_limit = 511;      // text of a registered output file
inline constexpr size_t job_variable_name_limit = 199;  // text of a variable's name
inline constexpr size_t job_variable_value_limit = 1023;
inline constexpr size_t job_files_limit = 1000;
inline constexpr size_t job_variables_limit = 500;

// A registered output file. `fle_number` counts from 1.
struct FLE_Elem {
    short fle_number = 0;
    char fle_login = 'Y';  // 'Y' or 'N': whether the server must give a login to read it
    std::string fle_name;
};

// A variable that the messenger registered. `name` is upper case.
struct registered_variable {
    std::string name;
    std::string value;
    char type = ' ';
};

// One job entry, owned by the table (job_table.h). Texts of fixed width end in a zero byte unless told
// otherwise.
struct JP_AREA : resource_job {
    char JP_Version[2] = {};
    char JP_status = JOB_STATUS_WAITING;
    char JP_create = JOB_ORIGIN_ACTIVATION;
    char JP_RstInfo = JOB_RECORD_DUE;
    char JP_reportFlag = JOB_REPORT_NONE;
    int JP_flag = job_flag_own_child;
    char JP_srv_msg[17] = {};     // last exchange with the server, for dumps only
    char JP_client_msg[17] = {};  // last exchange with the messenger, for dumps only
    uint32_t JP_uIdnr = 0;        // the header's user number
    int sta_cnt = 0;              // EXSTAJ sent
    char JP_user[33] = {};
    std::string JP_uPwDir;  // the user's home directory
    char JP_jFile[256] = {};
    char JP_jReport[256] = {};
    char JP_jClass[8] = {};  // blank-padded
    char JP_jPrio[5] = {};   // blank-padded
    char JP_MeldVers[33] = {};
    int JP_maxCPU = 0;
    int JP_express = 0;
    time_t JP_aTime_t = 0;
    MSG_TYPE_TIMESTAMP JP_aTime = {};
    time_t JP_cTime_t = 0;  // when the entry was made or a deferred start succeeded
    MSG_TYPE_TIMESTAMP JP_cTime = {};
    time_t JP_sTime_t = 0;  // job start
    MSG_TYPE_TIMESTAMP JP_sTime = {};
    time_t JP_eTime_t = 0;  // job end
    MSG_TYPE_TIMESTAMP JP_eTime = {};
    int64_t JP_jStart = 0;   // start of the process in ticks since boot, 0 while unread
    time_t JP_alrmTime = 0;  // when process_jobchk looks at this entry next; 0: not at all
    int cpuTime = 0;         // milliseconds
    int m_ucpu = 0;          // milliseconds
    int m_scpu = 0;          // milliseconds
    int ioCount = 0;         // major faults
    uint32_t akt_pid = 0;    // process id told to the server
    uint32_t fork_pid = 0;   // set with job_table_set_pid only: the table has an index on it
    pid_t jp_group = 0;      // batch start: group that the agent gave to the start command; 0: none
    int jp_exit = 0;      // exit code of a process that was reaped before its group; -1: the cancel ended it
    int maxRunCount = 0;  // checks that found the own child gone before its SIGCHLD
    pid_t m_pid = 0, m_ppid = 0, m_pgrp = 0, m_pgid = 0, m_sid = 0;  // told by the messenger
    uid_t m_uid = 0, m_euid = 0;
    gid_t m_gid = 0, m_egid = 0;
    std::vector<FLE_Elem> jp_files;  // registered output files in order
    std::vector<registered_variable> jp_variables;
    std::vector<unsigned char> ccmmsg;  // kept body of the EXAKTJ of a start that waits; wiped when dropped
    ccm_addr_t* ccmaddr = nullptr;      // its address; owned
    unsigned jobstart = 0;              // 0 started; else the counter of a deferred start: the job waits
    my_passwd_unlimited* passwd = nullptr;  // kept record of a start that waits; owned, wiped when dropped
    char infoText[32] = {};                 // blank-padded, no terminator
    int retCode = 0;
    short JP_sigNum = 0;  // signal of a cancel, 0 while none was sent
    char ImageName[256] = {};
};

// Restart record, in host order, opaque to the server. The names of the task resources follow it, each with
// its zero byte; then 4 spare bytes.
struct __attribute__((packed)) JP_item {
    int64_t JI_jStart;
    int32_t JI_pgid;
    char JI_jFile[256];
    char JI_jReport[256];
    char JI_oName[256];
    char JI_task_cache_path[513];
    char JI_userName[33];
    char filler[2];
    int32_t JI_count;
};
static_assert(sizeof(JP_item) == 1332);
static_assert(offsetof(JP_item, JI_pgid) == 8);
static_assert(offsetof(JP_item, JI_jFile) == 12);
static_assert(offsetof(JP_item, JI_jReport) == 268);
static_assert(offsetof(JP_item, JI_oName) == 524);
static_assert(offsetof(JP_item, JI_task_cache_path) == 780);
static_assert(offsetof(JP_item, JI_userName) == 1293);
static_assert(offsetof(JP_item, JI_count) == 1328);

inline constexpr size_t job_record_fixed = 1332;
inline constexpr size_t job_record_spare = 4;

// Copies text into a zero-terminated array; what does not fit is cut.
template <size_t size>
void job_set_text(char (&field)[size], const std::string& text) {
    const size_t length = text.size() < size - 1 ? text.size() : size - 1;
    text.copy(field, length);
    for (size_t i = length; i < size; ++i) {
        field[i] = 0;
    }
}
