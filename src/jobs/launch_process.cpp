// Making a job's process.
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "base/children.h"
#include "base/context.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/log.h"
#include "jobs/job_context.h"
#include "jobs/launch_steps.h"

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
// opened.
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

// Always a fork, for both start types: a child in the agent's memory would keep the agent waiting until exec,
// and from the moment that it has the user's identity that user could stop it there.
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
    child_call call = {pcx, &passwd, startVar, pamHandle};
    const pid_t pid = fork_child(call);
    if (pid < 0) {
        const int error_number = errno;
        qx_error_set(error, -1, error_number, system_message, "%s|%u|%s|",
                     type == job_start_vfork ? "vfork" : "fork", static_cast<unsigned>(error_number),
                     error_text(error_number).c_str());
        __log_error(*error);
        errno = error_number;
        return -1;
    }
    if (job_context()->Fl_Sigchld != 0) {
        children_note(pid);  // without the signal nobody collects: the list would only grow
    }
    return pid;
}
