// Short commands of the server: started like a job's script, their output goes straight back. No messenger,
// no restart record, no report to fetch. Main thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <list>
#include <string>

#include "base/descriptor.h"
#include "channels/messages.h"
#include "identity/pam.h"
#include "jobs/job_context.h"
#include "messages/head.h"
#include "messages/records_common.h"

struct EX_PCX;
struct my_passwd_unlimited;
struct qx7_error;

// cmda_status. Only a running command is owed an answer.
enum command_status : char {
    COMMAND_RUNNING = 'R',
    COMMAND_KILLED = 'I',       // at its time limit
    COMMAND_KILL_FAILED = 'F',  // the same, but the process lives on
    COMMAND_STOPPED = 'S'       // by EXREQCAN
};

// cmda_result of a command whose end was only noticed (INI key `sigchld` no).
inline constexpr int command_code_unknown = -1;

inline constexpr char command_area_key[17] = "%%CMD_AREA_ID %%";
inline constexpr char command_global_key[17] = "%CMD_GLOBAL_ID% ";

// One command.
struct Cmd_Area {
    char cmda_ID[16] = {};
    int cmda_jobNr = 0;
    int cmda_max_rows = 0;
    std::string cmda_jclPtr;     // the command
    std::string cmda_jclInsert;  // the command for the log, cut and made printable
    std::string cmda_UserName;
    std::string cmda_jobreport;  // output file, absolute; /dev/null for none
    char cmda_status = COMMAND_RUNNING;
    ccm_addr_t cmda_ccmaddr = {};
    QX_HEADM cmda_headm = {};
    pid_t cmda_forkPid = 0;
    int64_t cmda_start_ticks = 0;  // of that process: tells whether the id still is the command's
    int cmda_chstat = 0;           // raw wait status
    int cmda_result = 0;           // as pr_exit gives it
    uint32_t cmda_ucUsrIdnr = 0;   // server user number
    int cmda_client = 0;
    time_t cmda_sTime_t = 0;
    time_t cmda_endTime_t = 0;  // time limit, on the alarm clock
    MSG_TYPE_TIMESTAMP cmda_sDatumTime = {};
    qx_descriptor cmda_fd;  // the output file, for reading; what has its name later does not count
    dev_t cmda_device = 0;  // of that file
    ino_t cmda_inode = 0;
    bool cmda_swUser = true;  // the user differs from the agent's effective user
};

struct CMD_GLB {
    char cmd_Key[16] = {};
    std::list<Cmd_Area> cmd_firstCMDA;
    JPPCX cmd_lists;  // own copies of the user lists; of the rest only the types of the lists count
    time_t cmd_breakTime_t = 0;  // earliest time limit, 0 none
    char cmd_shOpt[16] = {};
    char cmd_kshOpt[16] = {};
    char cmd_cshOpt[16] = {};
};

// Reads settings and lists, which then stay as they are. 0.
int cmdOpen(EX_PCX* pcx);
// Forgets all commands; their processes run on, their output files go.
int cmdClose(EX_PCX* pcx);
// The same in a forked child: its parent's files stay.
int cmd_after_fork(EX_PCX* pcx);
CMD_GLB* GetCmdGlb();
int getCommandCount();

// Handlers of EXREQCMD and EXREQCAN. 0 or -1.
int process_exreqcmd(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_exreqcancel(EX_PCX* pcx, ccm_msg_t* msg, int row);
// Handler of the internal record CMD_CHK.
int process_cmd_chk(EX_PCX* pcx, ccm_msg_t* msg, int row);
// Kills the commands that are past their limit and answers their requests; sets the next alarm. Where no
// signal tells of ends, those that are gone are answered. The number of commands killed.
int commandTimeoutEvent(EX_PCX* pcx, qx7_error* error);
// End of child `pid`. 1 when it was a command, else 0.
int process_command_sigchild(EX_PCX* pcx, int pid, int exitCode, int rawStatus);

// ---- Steps, for commands.cpp and its tests

// Makes the output file and the process. Its id, or -1 with `error` and no file left.
pid_t exCommandStart(EX_PCX* pcx, Cmd_Area* entry, const my_passwd_unlimited& passwd, qx7_error* error,
                     pam_handle_t* pamHandle);
// Answers the request of a command that has ended, unless it was answered already, and removes the entry.
void cmd_sendExRes(EX_PCX* pcx, Cmd_Area* entry);
// The answer "NK" with a number, which waits for the next logon when the line is down: nobody repeats it.
void command_send_failure(EX_PCX* pcx, const Cmd_Area& entry, int number, const std::string& insert,
                          const std::string& output);
// Kills the shell, and nothing else. 0 with 2000177 in `error`, or -1 with 2000179.
int cancelCommandEntry(Cmd_Area* entry, qx7_error* error);
// Deletes the output file and the entry.
void removeCommandEntry(Cmd_Area* entry);

// Closes and deletes the output file, if it still is the one that was made.
void command_remove_output(Cmd_Area* entry);
// Output as it travels: each LF becomes CR LF. At most `max_rows` rows and what was in the file when the
// reading began; `rows` is their number. 0, or -1 with errno.
int command_read_output(int fd, int max_rows, std::string* output, int* rows);
