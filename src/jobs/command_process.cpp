// A command's process and its output.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "base/context.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/outgoing.h"
#include "channels/replies.h"
#include "identity/accounts.h"
#include "identity/user_files.h"
#include "jobs/commands.h"
#include "jobs/job_send.h"
#include "jobs/process_info.h"
#include "launch/job_files.h"
#include "launch/launch_steps.h"
#include "log/log.h"
#include "messages/records_job.h"
#include "messages/records_server.h"

namespace {

constexpr size_t piece_size = 32768;
constexpr int64_t row_size = piece_size + 2;
constexpr int64_t output_limit = int64_t{32} << 20;
constexpr mode_t output_owner_bits = 0600;
constexpr size_t shell_name_limit = 31;

// The login shell, by its own path: no other shell may be named for a command.
void choose_shell(const my_passwd_unlimited& passwd, JOB_START_VAR* startVar) {
    startVar->path_sh = passwd.pw_shell[0] == 0 ? "/bin/sh" : passwd.pw_shell;
    startVar->sh = startVar->path_sh.substr(startVar->path_sh.rfind('/') + 1).substr(0, shell_name_limit);
    const char flag = launch_shell_flag(startVar->sh);
    startVar->sh_flag = flag == 'x' || flag == 'X' ? '0' : flag;
    const CMD_GLB* glb = GetCmdGlb();
    switch (startVar->sh_flag) {
        case '2':
        case '3':
            startVar->sh_opt = glb->cmd_kshOpt;
            break;
        case '4':
        case '5':
        case '8':
        case '9':
            startVar->sh_opt = glb->cmd_cshOpt;
            break;
        default:
            startVar->sh_opt = glb->cmd_shOpt;
            break;
    }
}

JOB_START_VAR make_start(const Cmd_Area& entry, const my_passwd_unlimited& passwd) {
    JOB_START_VAR startVar;
    memcpy(startVar.jsvKey, "%CMD_START_VAR% ", sizeof startVar.jsvKey);
    startVar.jsvType = LAUNCH_COMMAND;
    startVar.BatFlag = BATCH_COMMAND;
    startVar.jobNr = entry.cmda_jobNr;
    startVar.clientNr = static_cast<uint16_t>(entry.cmda_client);
    startVar.jobReport = entry.cmda_jobreport.empty() ? launch_no_report : entry.cmda_jobreport;
    startVar.jobFile = entry.cmda_jclPtr;
    startVar.flag1 = 0;
    copy_text(startVar.UserName, passwd.pw_name);
    choose_shell(passwd, &startVar);
    return startVar;
}

// The file is read through this descriptor later: by then its user may have put another one under its name.
int open_output(const JOB_START_VAR& startVar, Cmd_Area* entry, qx7_error* error) {
    entry->cmda_jobreport = startVar.jobReport;
    if (startVar.jobReport == launch_no_report) {
        return 0;
    }
    entry->cmda_device = startVar.report_device;
    entry->cmda_inode = startVar.report_inode;
    entry->cmda_fd.reset(open_read_on_order(startVar.jobReport.c_str()));
    struct stat status;
    if (!entry->cmda_fd.valid() || fstat(entry->cmda_fd.get(), &status) != 0) {
        return file_error(error, step_create, startVar.jobReport.c_str(), errno);
    }
    if (status.st_ino == entry->cmda_inode && status.st_dev == entry->cmda_device) {
        return 0;
    }
    return file_error(error, step_create, startVar.jobReport.c_str(), EPERM);  // another one stands there
}

// When no server is there it goes behind the next logon, for nobody asks for it again.
void send_surely(EX_PCX* pcx, const Cmd_Area& entry, const built_message& answer) {
    message_route route = to_kept(entry.cmda_ccmaddr);
    route.flag = CCM_MSG_FLAG_KEEP;
    send_built(pcx->ccm, answer, route);
}

void send_result(EX_PCX* pcx, const Cmd_Area& entry, const std::string& output) {
    message_builder<MSG_TYPE_EXRESCMD> result(entry.cmda_headm);
    result->ah_idnr = entry.cmda_jobNr;
    result->rep_dist = sizeof result.record;  // without output, too
    result.add(MSG_TYPE_EXRESCMD::report, output);
    send_surely(pcx, entry, result);
}

void answer(EX_PCX* pcx, const Cmd_Area& entry) {
    const char* command = entry.cmda_jclInsert.c_str();
    std::string output;
    int rows = 0;
    if (entry.cmda_fd.valid() &&
        command_read_output(entry.cmda_fd.get(), entry.cmda_max_rows, &output, &rows) != 0) {
        const std::string insert = entry.cmda_jobreport + "|" + std::to_string(entry.cmda_jobNr) + "|" +
                                   error_text(errno) + "|" + command;
        __log(number_command_unreadable, "%s", insert.c_str());
        command_send_failure(pcx, entry, number_command_unreadable, insert, {});
        return;
    }
    if (rows == entry.cmda_max_rows) {
        __log(number_command_rows_cut, "%i|%i|%s", entry.cmda_jobNr, rows, command);
    }
    if (entry.cmda_result == 0) {
        __log(number_command_ended, "%i|%s", entry.cmda_jobNr, command);
        send_result(pcx, entry, output);
        return;
    }
    const std::string insert =
        std::to_string(entry.cmda_jobNr) + "|" + std::to_string(entry.cmda_result) + "|" + command;
    __log(number_command_failed, "%s", insert.c_str());
    command_send_failure(pcx, entry, number_command_failed, insert, output);
}

// Its child processes are nobody's to end, but whoever looks for what fills the disk shall find it in the
// log.
void tell_of_leftovers(const Cmd_Area& entry) {
    if (entry.cmda_forkPid > 1 && kill(-entry.cmda_forkPid, 0) == 0) {
        __PutLogText("Command %d has ended, but processes of its group %d still run: %s", entry.cmda_jobNr,
                     static_cast<int>(entry.cmda_forkPid), entry.cmda_jclInsert.c_str());
    }
}

// Appends what fits of a piece. False when the output is full.
bool append_piece(std::string_view piece, int max_rows, int64_t limit, std::string* output, int* rows) {
    constexpr std::string_view line_end = "\r\n";
    for (;;) {
        const size_t end = piece.find('\n');
        const std::string_view line = piece.substr(0, end);
        const size_t room = static_cast<size_t>(limit) - output->size();
        output->append(line.substr(0, room));
        if (end == std::string_view::npos) {
            return line.size() <= room;
        }
        if (line.size() + line_end.size() > room) {
            return false;
        }
        output->append(line_end);
        if (++*rows == max_rows) {
            return false;
        }
        piece.remove_prefix(end + 1);
    }
}

}  // namespace

void command_send_failure(EX_PCX* pcx, const Cmd_Area& entry, int number, const std::string& insert,
                          const std::string& output) {
    auto quitt = make_quitt(
        {"EXREQCMD", entry.cmda_headm.i2Mandant, entry.cmda_headm.i4UsrIdNr, number, insert, "NK"});
    put_text(quitt->filler, "");
    quitt.add(MSG_TYPE_QUITT::msg_content, output);
    send_surely(pcx, entry, quitt);
}

pid_t exCommandStart(EX_PCX* pcx, Cmd_Area* entry, const my_passwd_unlimited& passwd, qx7_error* error,
                     pam_handle_t* pamHandle) {
    qx_error_clear(error);
    JOB_START_VAR startVar = make_start(*entry, passwd);
    const mode_t mode = launch_context()->FileReportMode | output_owner_bits;
    if (launch_make_report(&startVar, mode, passwd, error) != 0) {
        return -1;
    }
    if (open_output(startVar, entry, error) != 0) {
        command_remove_output(entry);
        return -1;
    }
    const pid_t pid = launch_fork(pcx, JOB_START_FORK, passwd, &startVar, pamHandle, error);
    if (pid < 0) {
        call_error(error, "fork|" + std::to_string(entry->cmda_jobNr), error->qx_errno);
        command_remove_output(entry);
        return -1;
    }
    entry->cmda_forkPid = pid;
    procArea_t process;
    entry->cmda_start_ticks = GetLinuxProcEntry(pid, &process) ? process.pa_start : 0;
    return pid;
}

void cmd_sendExRes(EX_PCX* pcx, Cmd_Area* entry) {
    tell_of_leftovers(*entry);
    if (entry->cmda_status == COMMAND_RUNNING) {
        answer(pcx, *entry);
    }
    removeCommandEntry(entry);
}

void command_remove_output(Cmd_Area* entry) {
    struct stat status;
    // A later command may have taken the name over. As long as the file is open its number is no other one's.
    if (entry->cmda_inode != 0 && lstat(entry->cmda_jobreport.c_str(), &status) == 0 &&
        status.st_ino == entry->cmda_inode && status.st_dev == entry->cmda_device) {
        job_remove_file(entry->cmda_jobreport.c_str());
    }
    entry->cmda_inode = 0;
    entry->cmda_fd.reset();
}

int command_read_output(int fd, int max_rows, std::string* output, int* rows) {
    output->clear();
    *rows = 0;
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return -1;
    }
    if (max_rows < 1) {
        return 0;
    }
    // What a process of the command goes on to write is not waited for. A size may be any number, no file
    // system has to hold that much.
    const int64_t size = std::min<int64_t>(status.st_size, output_limit);
    const int64_t limit = std::min({size + max_rows + 1, max_rows * row_size, output_limit});
    std::string piece(piece_size, '\0');
    for (int64_t done = 0; done < size;) {
        const size_t wanted = static_cast<size_t>(std::min<int64_t>(piece_size, size - done));
        const ssize_t count = pread(fd, piece.data(), wanted, done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;  // it became shorter
        }
        done += count;
        if (!append_piece(std::string_view(piece).substr(0, static_cast<size_t>(count)), max_rows, limit,
                          output, rows)) {
            break;
        }
    }
    return 0;
}
