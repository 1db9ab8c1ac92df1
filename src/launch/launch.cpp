#include "launch/launch.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/context.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "identity/user_files.h"
#include "launch/launch_steps.h"
#include "log/log.h"
#include "log/trace.h"

namespace {

constexpr mode_t job_file_owner_bits = 0700;
constexpr mode_t report_owner_bits = 0600;

constexpr size_t shell_name_limit = 31;
constexpr size_t shell_option_limit = 15;
constexpr size_t command_limit = 512;

// The settings of each start, read again only when the INI file has changed.
struct start_settings {
    std::string file;
    timespec modified = {};
    off_t size = -1;
    ino_t inode = 0;
    int flag1 = 0;
};
start_settings settings;

int read_start_flags(EX_PCX* pcx) {
    char value[16];
    int flags = 0;
    pcx->getProfileString(pcx, "STARTCMD", "stdin_dummy", "yes", value, sizeof value);
    flags |= strcmp(value, "yes") == 0 ? LAUNCH_STDIN_DUMMY : 0;
    pcx->getProfileString(pcx, "STARTCMD", "close_stdin", "no", value, sizeof value);
    flags |= strcmp(value, "yes") == 0 ? LAUNCH_STDIN_CLOSE : 0;
    return flags;
}

int start_flags(EX_PCX* pcx) {
    struct stat status;
    if (stat(pcx->IniFile, &status) != 0) {
        return read_start_flags(pcx);
    }
    const bool same = settings.file == pcx->IniFile && settings.size == status.st_size &&
                      settings.inode == status.st_ino && settings.modified.tv_sec == status.st_mtim.tv_sec &&
                      settings.modified.tv_nsec == status.st_mtim.tv_nsec;
    if (!same) {
        settings = {pcx->IniFile, status.st_mtim, status.st_size, status.st_ino, read_start_flags(pcx)};
    }
    return settings.flag1;
}

std::string login_shell_name(const my_passwd_unlimited& passwd) {
    const std::string_view shell = passwd.pw_shell[0] == 0 ? "/bin/sh" : passwd.pw_shell;
    const size_t slash = shell.rfind('/');
    return std::string(slash == std::string_view::npos ? shell : shell.substr(slash + 1));
}

void choose_shell(EX_PCX* pcx, const launch_order& order, const my_passwd_unlimited& passwd,
                  JOB_START_VAR* startVar) {
    startVar->sh = GetRestString(order.rest, "M=", shell_name_limit);
    if (startVar->sh.empty()) {
        startVar->sh = login_shell_name(passwd);
    }
    startVar->path_sh = GetShellPath(pcx, startVar->sh);
    if (startVar->path_sh.empty()) {
        __log(number_shell_missing, "%s|", printable(startVar->sh).c_str());
        startVar->sh = "sh";
        startVar->path_sh = "/bin/sh";
    }
    startVar->sh_flag = launch_shell_flag(startVar->sh);
    startVar->sh_opt = GetRestString(order.rest, "N=", shell_option_limit);
    if (startVar->sh_opt.empty()) {
        startVar->sh_opt = launch_shell_option(startVar->sh_flag);
    }
}

void choose_content(EX_PCX* pcx, const launch_order& order, JOB_START_VAR* startVar) {
    startVar->BatFlag = GetRestString(order.rest, "2=", 1) == "B" ? BATCH_COMMAND : BATCH_FILE;
    startVar->jobFile = startVar->BatFlag == BATCH_COMMAND ? GetRestString(order.rest, "Y=", command_limit)
                                                           : launch_complete_path(pcx, order.jobfile);
    startVar->jobReport =
        order.jobreport.empty() ? launch_no_report : launch_complete_path(pcx, order.jobreport);
    startVar->objName = order.name;
    startVar->jcl = order.jcl;
}

void choose_user(const my_passwd_unlimited& passwd, JOB_START_VAR* startVar) {
    copy_text(startVar->UserName, passwd.pw_name);
    copy_text(startVar->GrpName, GroupNameOfAccount(passwd.pw_gid));
}

JOB_START_VAR make_start(EX_PCX* pcx, const launch_order& order, const my_passwd_unlimited& passwd) {
    JOB_START_VAR startVar;
    startVar.jobNr = order.run;
    startVar.clientNr = order.client;
    startVar.cCodeTab = order.code_table;
    startVar.head_lines = order.head_lines;
    choose_shell(pcx, order, passwd, &startVar);
    choose_content(pcx, order, &startVar);
    choose_user(passwd, &startVar);
    return startVar;
}

// Says what an agent without root's rights cannot do, before a call fails for a reason that tells less.
void note_missing_rights(const EX_PCX* pcx, const my_passwd_unlimited& passwd) {
    if (pcx->pcx_run_euid != 0 && strcmp(passwd.pw_name, pcx->pcx_runUserName) != 0) {
        __PutLogText("The agent runs as '%s' and not as root: it cannot start jobs of user '%s'.",
                     pcx->pcx_runUserName, passwd.pw_name);
    }
}

// Job file and report. 0, or -1 with `error`, logged, and neither of them left.
int make_files(const my_passwd_unlimited& passwd, JOB_START_VAR* startVar, qx7_error* error) {
    const launch_settings* context = launch_context();
    if (startVar->BatFlag == BATCH_FILE) {
        const mode_t mode = context->JobFileMode | job_file_owner_bits;
        if (CreateJobFile(startVar, {}, mode, passwd) != 0) {
            qx_error_set(error, -1, errno, startVar->Return, "%s", startVar->rettext.c_str());
            __log_error(*error);
            return -1;
        }
        if (trc_on(TRC_JOB)) {
            printTextFile(startVar->jobFile.c_str());
        }
    }
    if (launch_make_report(startVar, context->FileReportMode | report_owner_bits, passwd, error) == 0) {
        return 0;
    }
    __log_error(*error);
    JOB_START_VAR without_report;
    without_report.BatFlag = startVar->BatFlag;
    without_report.jobFile = startVar->jobFile;
    without_report.jobReport = launch_no_report;
    launch_remove_files(without_report);
    return -1;
}

launch_result start_process(EX_PCX* pcx, const my_passwd_unlimited& passwd, JOB_START_VAR* startVar,
                            pam_handle_t* pamHandle, uint32_t* pid, qx7_error* error) {
    const pid_t child = launch_fork(pcx, launch_context()->JobStartType, passwd, startVar, pamHandle, error);
    if (child > 0) {
        *pid = static_cast<uint32_t>(child);
        return LAUNCH_STARTED;
    }
    const int error_number = error->qx_errno;
    launch_remove_files(*startVar);
    errno = error_number;
    return error_number == EAGAIN ? LAUNCH_NO_PROCESS : LAUNCH_FAILED;
}

launch_result start_batch(EX_PCX* pcx, const my_passwd_unlimited& passwd, const JOB_START_VAR& startVar,
                          launch_started* started, qx7_error* error) {
    const int status = doit_cmd(pcx, passwd, startVar, &started->group, error);
    if (status < 0) {
        __log_error(*error);
        launch_remove_files(startVar);
        return LAUNCH_FAILED;
    }
    started->pid = static_cast<uint32_t>(status);
    return LAUNCH_STARTED;
}

}  // namespace

std::string launch_complete_path(const EX_PCX* pcx, std::string_view name) {
    if (name.empty() || name.front() == '/') {
        return std::string(name);
    }
    return std::string(pcx->pcx_work_dir) + "/" + std::string(name);
}

launch_result start_job(EX_PCX* pcx, const launch_order& order, const my_passwd_unlimited& passwd,
                        pam_handle_t* pamHandle, launch_started* started, qx7_error* error) {
    qx_error_clear(error);
    *started = {};
    JOB_START_VAR startVar = make_start(pcx, order, passwd);
    note_missing_rights(pcx, passwd);
    if (make_files(passwd, &startVar, error) != 0) {
        return LAUNCH_FAILED;
    }
    startVar.flag1 = start_flags(pcx);
    fflush(stdout);
    if (launch_context()->JobStartType == JOB_START_BATCH) {
        return start_batch(pcx, passwd, startVar, started, error);
    }
    return start_process(pcx, passwd, &startVar, pamHandle, &started->pid, error);
}

void printTextFile(const char* name) {
    qx7_error error;
    FILE* stream = StreamOpen_EffUser("", name, "r", &error);
    if (stream == nullptr) {
        _TraceText("%s: %s", name, error.qx_msgInsert);
        return;
    }
    char line[1024];
    while (fgets(line, sizeof line, stream) != nullptr) {
        line[strcspn(line, "\n")] = 0;
        _TraceText("%s", line);
    }
    fclose(stream);
}
