// What a job's child does between fork and exec. It runs in a copy of the agent: it frees, writes and closes
// nothing of the parent, and ends by exec or _exit.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "launch/launch_steps.h"
#include "log/log.h"
#include "log/trace.h"

namespace {

constexpr int library_signal = 32;  // the first of those that the C library uses itself
constexpr int last_signal = 64;

int call_failed(const char* call, int exit_code, qx7_error* error) {
    call_error(error, call, errno);
    error->qx_result = exit_code;
    return exit_code;
}

int file_failed(const char* call, const char* file, int exit_code, qx7_error* error) {
    file_error(error, call, file, errno);
    error->qx_result = exit_code;
    return exit_code;
}

int write_text(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return -1;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

// dup2 of a descriptor onto itself would leave close-on-exec set.
int put_descriptor(int fd, int target) {
    return fd == target ? fcntl(fd, F_SETFD, 0) : dup2(fd, target);
}

int redirect_output(const JOB_START_VAR& startVar, qx7_error* error) {
    const int report = startVar.report.valid() ? startVar.report.get()
                                               : FileOpenChild(launch_no_report, O_WRONLY | O_APPEND);
    if (report < 0) {
        return file_failed("FileOpenChild(STDOUT)", startVar.jobReport.c_str(), LAUNCH_EXIT_OPEN, error);
    }
    if (write_text(report, startVar.head_lines) != 0) {
        return file_failed("FileOpenChild(STDOUT)", startVar.jobReport.c_str(), LAUNCH_EXIT_OPEN, error);
    }
    if (put_descriptor(report, STDOUT_FILENO) < 0) {
        return call_failed("dup2(STDOUT)", LAUNCH_EXIT_DUP_STDOUT, error);
    }
    if (put_descriptor(report, STDERR_FILENO) < 0) {
        return call_failed("dup2(STDERR)", LAUNCH_EXIT_DUP_STDERR, error);
    }
    FileCloseChild(report);
    return 0;
}

int redirect_input(const JOB_START_VAR& startVar, qx7_error* error) {
    if ((startVar.flag1 & LAUNCH_STDIN_DUMMY) == 0) {
        return 0;
    }
    const int null = FileOpenChild(launch_no_report, O_RDONLY);
    if (null < 0) {
        return file_failed("FileOpenChild(STDIN)", launch_no_report, LAUNCH_EXIT_OPEN, error);
    }
    if (put_descriptor(null, STDIN_FILENO) < 0) {
        return call_failed("dup2(STDIN)", LAUNCH_EXIT_DUP_STDIN, error);
    }
    FileCloseChild(null);
    return 0;
}

// A job must not be able to push input into the terminal from which the agent was started.
void drop_terminal() {
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal >= 0) {
        // Without a terminal there is nothing to give up.
        (void)ioctl(terminal, TIOCNOTTY);
        close(terminal);
    }
}

int open_session(const my_passwd_unlimited& passwd, pam_handle_t* handle, qx7_error* error) {
    if (!launch_session_in_child(handle) || PamOpenSession(handle, true) == PAM_SUCCESS) {
        return 0;
    }
    qx_error_set(
        error, LAUNCH_EXIT_PAM_SESSION, EPERM, 0,
        "Error opening PAM session for user '%s'.  Typically this is a result of a wrong PAM or LDAP "
        "configuration.",
        passwd.pw_name);
    return LAUNCH_EXIT_PAM_SESSION;
}

int take_user(const my_passwd_unlimited& passwd, const JOB_START_VAR& startVar, qx7_error* error) {
    if (setgid(passwd.pw_gid) != 0) {
        return call_failed("setgid()", LAUNCH_EXIT_SETGID, error);
    }
    if (setgroups(startVar.groups.size(), startVar.groups.data()) != 0) {
        return call_failed("initgroup()", LAUNCH_EXIT_INITGROUPS, error);
    }
    if (setuid(passwd.pw_uid) != 0) {
        return call_failed("setuid()", LAUNCH_EXIT_SETUID, error);
    }
    return 0;
}

void restore_limits() {
    const rlimit& limit = launch_context()->descriptor_limit;
    if (limit.rlim_max != 0) {
        // The hard limit never changed; a job with the agent's lower one is better than none.
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int execute_shell(const JOB_START_VAR& startVar, char* const* environment, qx7_error* error) {
    AllFdClose(STDERR_FILENO + 1, nullptr, 0);
    execve(startVar.path_sh.c_str(), startVar.argument_pointers.data(), environment);
    return call_failed("execle()", LAUNCH_EXIT_EXEC, error);
}

void trace_nothing(EX_PCX* pcx) {
    for (std::atomic<char>& flag : pcx->trcFlgs) {
        flag.store('0', std::memory_order_relaxed);
    }
}

}  // namespace

bool launch_session_in_child(const pam_handle_t* handle) {
    return handle != nullptr && pam_options.do_pam_open_session && pam_options.do_pam_open_session_cp;
}

void atfork_child(EX_PCX* pcx) {
    // Channels, timers and sockets need nothing: their memory goes with exec, and so do their descriptors.
    log_drop_in_child(pcx);
    trace_nothing(pcx);
    pcx->trcHnd = nullptr;
}

int FileOpenChild(const char* path, int flags) {
    return open(path, flags | O_CLOEXEC | O_NOCTTY);
}

void FileCloseChild(int fd) {
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

void Reset_Signals() {
    for (int number = 1; number <= last_signal; ++number) {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        // Nobody sets these: the system refuses the first two, the library keeps the others for itself.
        const bool settable =
            number != SIGKILL && number != SIGSTOP && (number < library_signal || number >= SIGRTMIN);
        if (settable && sigaction(number, &action, nullptr) != 0) {
            perror("\nSet signal handler");
        }
    }
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

int Init_User(const my_passwd_unlimited& passwd, const JOB_START_VAR& startVar, qx7_error* error) {
    // The parent does the same; whoever comes second finds it done.
    (void)setpgid(0, getpid());
    const bool other_user = strcmp(passwd.pw_name, GlbPcx->pcx_runUserName) != 0;
    if (other_user) {
        const int failed = take_user(passwd, startVar, error);
        if (failed != 0) {
            return failed;
        }
    }
    if (passwd.pw_uid != 0 && geteuid() == 0 && seteuid(passwd.pw_uid) != 0) {
        return call_failed("seteuid()", LAUNCH_EXIT_EXEC, error);
    }
    if (chdir(passwd.pw_dir) != 0) {
        return file_failed("chdir()", passwd.pw_dir, LAUNCH_EXIT_CHDIR, error);
    }
    return 0;
}

int doit_Child(EX_PCX* pcx, const my_passwd_unlimited& passwd, JOB_START_VAR* startVar,
               pam_handle_t* pamHandle, qx7_error* error) {
    if (startVar->jsvType == LAUNCH_COMMAND) {
        trace_nothing(pcx);
    }
    // The order counts: output first, so that every later failure has a place to be told; the session while
    // the process still is root; the identity before anything of the user's is touched.
    int failed = redirect_output(*startVar, error);
    if (failed == 0) {
        failed = redirect_input(*startVar, error);
    }
    if (failed != 0) {
        return failed;
    }
    Reset_Signals();
    drop_terminal();
    restore_limits();  // before the session, whose modules may set others
    failed = open_session(passwd, pamHandle, error);
    if (failed == 0) {
        failed = Init_User(passwd, *startVar, error);
    }
    if (failed != 0) {
        return failed;
    }
    if (!launch_session_in_child(pamHandle)) {
        return execute_shell(*startVar, startVar->environment_pointers.data(), error);
    }
    environ = startVar->environment_pointers.data();
    PamGetSetEnvironment(pamHandle);
    return execute_shell(*startVar, environ, error);
}

void Check_Signals(const sigset_t& set) {
    for (int number = 1; trc_on(TRC_JOB, '2') && number <= last_signal; ++number) {
        if (sigismember(&set, number) == 1) {
            _TraceText("signal %d is blocked", number);
        }
    }
}
