// From an accepted activation to a process: shell, job file, report, fork, and in the child identity,
// environment and exec. What a job is beyond its order is not known here. Main thread.
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/error.h"
#include "identity/accounts.h"
#include "identity/pam.h"

struct EX_PCX;

// Exit codes of a child that did not become a job.
enum launch_exit : int {
    LAUNCH_EXIT_SETGID = 201,
    LAUNCH_EXIT_INITGROUPS = 202,
    LAUNCH_EXIT_SETUID = 203,
    LAUNCH_EXIT_PAM_SESSION = 204,
    LAUNCH_EXIT_CHDIR = 205,
    LAUNCH_EXIT_OPEN = 206,
    LAUNCH_EXIT_DUP_STDOUT = 208,
    LAUNCH_EXIT_DUP_STDIN = 208,
    LAUNCH_EXIT_DUP_STDERR = 209,
    LAUNCH_EXIT_EXEC = 210,
};

// What start_job made of it.
enum launch_result : int {
    LAUNCH_STARTED = 1,  // *started tells its process
    // Fork ran out of processes (EAGAIN); files are gone again, try later. Never under B.
    LAUNCH_NO_PROCESS = 0,
    LAUNCH_FAILED = -1,  // number and insert in the error, already logged
};

// The fields of an activation that the launch needs, from the received message or the kept copy. Texts
// without their padding; `rest` and `jcl` only as far as they lie inside the received message. Borrowed for
// the call.
struct launch_order {
    std::string_view jobfile;    // completed against the work directory, see launch_complete_path
    std::string_view jobreport;  // the same; empty means /dev/null
    std::string_view name;       // object name
    std::string_view rest;
    std::string_view jcl;
    int run = 0;
    uint16_t client = 0;
    const unsigned char* code_table = nullptr;  // 256 bytes; null: no conversion
    std::string head_lines;                     // stand ahead of all output in the report
};

inline constexpr char launch_no_report[] = "/dev/null";

struct launch_started {
    uint32_t pid = 0;  // the child, under start type B the status of the start command
    pid_t group = 0;   // start type B: process group that the start command was given
};

// Starts the job. `pamHandle` may be null; it stays the caller's, who ends it with PamEndAfterStart or
// PamEnd.
launch_result start_job(EX_PCX* pcx, const launch_order& order, const my_passwd_unlimited& passwd,
                        pam_handle_t* pamHandle, launch_started* started, qx7_error* error);

// A name of a message as an absolute path: relative names stand below the agent's work directory. Empty stays
// empty.
std::string launch_complete_path(const EX_PCX* pcx, std::string_view name);
// Brings the texts that a child may have to write into memory, for a child has no message library. Called by
// the set-up; repeatable.
void launch_load_texts(EX_PCX* pcx);
// One message as a line of text from what was loaded; without its text the number and the inserts.
std::string launch_message_line(int number, std::string_view inserts);

// ---- The start's scratch record, also for the commands of the agent

enum launch_kind : char { LAUNCH_JOB = 'J', LAUNCH_COMMAND = 'C' };  // jsvType
enum launch_batch : char { BATCH_FILE = 'J', BATCH_COMMAND = 'C' };  // BatFlag
enum launch_flag : int { LAUNCH_STDIN_DUMMY = 1, LAUNCH_STDIN_CLOSE = 2 };

struct JOB_START_VAR {
    char jsvKey[17] = "%JOB_START_VAR% ";
    char jsvType = LAUNCH_JOB;
    int Return = 0;  // message number of a failure in CreateJobFile
    int jobNr = 0;
    uint16_t clientNr = 0;
    std::string jobReport;  // up to 255 characters
    std::string objName;
    std::string jobFile;  // job file, or the command text (up to 512 characters)
    char UserName[64] = {};
    char GrpName[64] = {};
    std::string path_sh;  // full path of the shell, up to 63 characters
    std::string sh;       // name as given, up to 31 characters
    std::string sh_opt;   // up to 15 characters
    char BatFlag = BATCH_FILE;
    char sh_flag = 'x';
    int flag1 = LAUNCH_STDIN_DUMMY;
    std::string_view jcl;
    const unsigned char* cCodeTab = nullptr;          // 256 bytes; null: no conversion
    std::string rettext;                              // insert of a failure
    std::vector<std::string> arguments, environment;  // of the shell, with the pointers that exec takes
    std::vector<char*> argument_pointers, environment_pointers;
    sigset_t signal_mask = {};  // of the agent at the time of the fork
    std::string head_lines;     // see launch_order
    std::vector<gid_t> groups;  // all gids of the user; filled at the fork when empty
    // The report as it was made, for the child's output; none for /dev/null.
    qx_descriptor report;
    dev_t report_device = 0;
    ino_t report_inode = 0;
};

// Makes the child, leader of its own group: by the starter, or by a fork under the fork locks where there is
// no starter or a PAM conversation goes on in the child, which then runs doit_Child. The pid, or -1 with
// errno and `error` filled ("fork|<errno>|<text>|", logged). `type` 'F' or 'V' names the function in the
// insert only. Main thread.
pid_t launch_fork(EX_PCX* pcx, char type, const my_passwd_unlimited& passwd, JOB_START_VAR* startVar,
                  pam_handle_t* pamHandle, qx7_error* error);

// The child's way to exec. Returns only if the job did not start: one of launch_exit, number and insert in
// `error`.
int doit_Child(EX_PCX* pcx, const my_passwd_unlimited& passwd, JOB_START_VAR* startVar,
               pam_handle_t* pamHandle, qx7_error* error);
// The batch start: the command of the user's shell, as system() runs it, in a process group of its own. Its
// status, or -1 with `error`.
int doit_cmd(EX_PCX* pcx, const my_passwd_unlimited& passwd, const JOB_START_VAR& startVar, pid_t* group,
             qx7_error* error);

// For tests: takes the place of fork(), and of the starter; null gives both back.
void launch_set_fork(pid_t (*function)());
