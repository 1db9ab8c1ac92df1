// Making a job's process.
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "base/children.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "launch/launch_steps.h"
#include "launch/starter.h"
#include "log/log.h"

namespace {

using fork_function = pid_t (*)();
fork_function make_process = fork;

struct child_call {
    EX_PCX* pcx;
    const my_passwd_unlimited* passwd;
    JOB_START_VAR* startVar;
    pam_handle_t* pamHandle;
};

// The way to exec; the exit code when it failed. The line stands in the report from the moment that it was
// taken for output.
int child_way(const child_call& call) {
    qx7_error error;
    const int code = doit_Child(call.pcx, *call.passwd, call.startVar, call.pamHandle, &error);
    const std::string line = (error.qx_msgnr == 0 ? std::string(error.qx_msgInsert)
                                                  : launch_message_line(error.qx_msgnr, error.qx_msgInsert)) +
                             "\n";
    // The exit code says what went wrong also when the line cannot be written.
    (void)!write(STDERR_FILENO, line.data(), line.size());
    return code;
}

[[noreturn]] void run_forked_child(const child_call& call) {
    global_fork_init_locks(call.pcx);
    atfork_child(call.pcx);
    const int code = child_way(call);
    PamEndAfterStart(call.pamHandle);
    _exit(code);
}

// For both start types: a child in the agent's memory would keep the agent waiting until exec, and from the
// moment that it has the user's identity that user could stop it there.
pid_t fork_child(const child_call& call) {
    global_fork_lock(call.pcx);
    const pid_t pid = make_process();
    if (pid == 0) {
        run_forked_child(call);
    }
    const int error_number = errno;
    global_fork_unlock(call.pcx);
    if (pid > 0) {
        // A cancel that comes at once must find the group. EACCES: the child was faster and already is
        // another program.
        (void)setpgid(pid, pid);
    }
    errno = error_number;
    return pid;
}

// ---- The starter's way

constexpr std::array<uint8_t, starter_step_count> exit_codes = {
    LAUNCH_EXIT_OPEN,      LAUNCH_EXIT_DUP_STDOUT, LAUNCH_EXIT_DUP_STDERR, LAUNCH_EXIT_OPEN,
    LAUNCH_EXIT_DUP_STDIN, LAUNCH_EXIT_SETGID,     LAUNCH_EXIT_INITGROUPS, LAUNCH_EXIT_SETUID,
    LAUNCH_EXIT_EXEC,      LAUNCH_EXIT_CHDIR,      LAUNCH_EXIT_EXEC,
};
constexpr char name_byte = '\3';

std::string with_name(const std::string& line, const char* name) {
    const size_t at = line.find(name_byte);
    return at == std::string::npos ? line : line.substr(0, at) + name + line.substr(at + 1);
}

starter_result start_by_starter(const child_call& call, pid_t* pid) {
    const JOB_START_VAR& startVar = *call.startVar;
    const my_passwd_unlimited& passwd = *call.passwd;
    std::array<std::string, starter_step_count> lines = launch_failure_lines();
    lines[STARTER_STEP_OUTPUT] = with_name(lines[STARTER_STEP_OUTPUT], startVar.jobReport.c_str());
    lines[STARTER_STEP_DIRECTORY] = with_name(lines[STARTER_STEP_DIRECTORY], passwd.pw_dir);

    starter_wish wish;
    wish.program = startVar.path_sh.c_str();
    wish.directory = passwd.pw_dir;
    // Both lists end in a null pointer, which is no part of the order.
    wish.arguments = std::span(startVar.argument_pointers).first(startVar.argument_pointers.size() - 1);
    wish.environment =
        std::span(startVar.environment_pointers).first(startVar.environment_pointers.size() - 1);
    wish.identity = strcmp(passwd.pw_name, call.pcx->pcx_runUserName) != 0;
    wish.uid = passwd.pw_uid;
    wish.gid = passwd.pw_gid;
    wish.groups = startVar.groups;
    wish.output = startVar.report.get();
    wish.input = (startVar.flag1 & LAUNCH_STDIN_DUMMY) != 0 ? -1 : STDIN_FILENO;
    wish.descriptor_limit = launch_context()->descriptor_limit;
    wish.lines = startVar.head_lines;
    for (int step = 0; step < starter_step_count; ++step) {
        wish.failures[static_cast<size_t>(step)] = lines[static_cast<size_t>(step)];
    }
    wish.exit_codes = exit_codes;
    return starter_start(wish, pid);
}

pid_t make_child(const child_call& call) {
    // What a PAM module has set up in this process or may do in the child belongs to a copy of it.
    if (call.pamHandle == nullptr && make_process == fork) {
        pid_t pid = 0;
        switch (start_by_starter(call, &pid)) {
            case STARTER_STARTED:
                return pid;
            case STARTER_NO_PROCESS:
                return -1;
            case STARTER_ABSENT:
                break;
        }
    }
    return fork_child(call);
}

}  // namespace

void launch_set_fork(pid_t (*function)()) {
    make_process = function == nullptr ? fork : function;
}

pid_t launch_fork(EX_PCX* pcx, char type, const my_passwd_unlimited& passwd, JOB_START_VAR* startVar,
                  pam_handle_t* pamHandle, qx7_error* error) {
    launch_load_texts_once(pcx);
    if (startVar->groups.empty() && strcmp(passwd.pw_name, pcx->pcx_runUserName) != 0) {
        // Looked up here: account databases are no place for a child.
        account_groups(passwd.pw_name, passwd.pw_gid, &startVar->groups);
        startVar->groups.pop_back();
    }
    Init_Environment(passwd, startVar);
    launch_prepare_arguments(startVar);
    pthread_sigmask(SIG_SETMASK, nullptr, &startVar->signal_mask);
    Put_PInfo(passwd, "launch", startVar->environment_pointers.data());
    Check_Signals(startVar->signal_mask);
    const pid_t pid = make_child({pcx, &passwd, startVar, pamHandle});
    if (pid < 0) {
        const int error_number = errno;
        call_error(error, type == JOB_START_VFORK ? "vfork" : "fork", error_number);
        __log_error(*error);
        errno = error_number;
        return -1;
    }
    startVar->report.reset();
    if (launch_context()->Fl_Sigchld != 0) {
        children_note(pid);  // without the signal nobody collects: the list would only grow
    }
    return pid;
}
