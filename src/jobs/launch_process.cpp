// Making a job's process.
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "base/children.h"
#include "base/context.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/log.h"
#include "jobs/job_context.h"
#include "jobs/launch_steps.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QX_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QX_SANITIZED 1
#endif

namespace {

// Sanitizers keep records for each thread, which a child in the same memory would disturb.
#ifdef QX_SANITIZED
constexpr bool memory_may_be_shared = false;
#else
constexpr bool memory_may_be_shared = true;
#endif

using fork_function = pid_t (*)();
fork_function make_process = fork;

constexpr size_t child_stack_size = 512U << 10;

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

// Everything that the child allocates on its way is given back before exec or _exit: the memory is the
// agent's.
int run_sharing_child(void* argument) {
    const int code = child_way(*static_cast<const child_call*>(argument));
    _exit(code);
}

// The stack of the sharing child; one at a time, since the main thread waits for it. Null when there is no
// memory.
char* child_stack_top() {
    static char* const lowest = [] {
        void* area = mmap(nullptr, child_stack_size, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        return area == MAP_FAILED ? nullptr : static_cast<char*>(area);
    }();
    static const bool guarded =
        lowest != nullptr && mprotect(lowest, static_cast<size_t>(sysconf(_SC_PAGESIZE)), PROT_NONE) == 0;
    return guarded ? lowest + child_stack_size : nullptr;
}

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

// All signals stay blocked: a handler of the agent must not run in the child. The lock, since no other thread
// may change the identity that the child starts from.
pid_t clone_child(child_call* call, char* stack_top) {
    call->startVar->shares_memory = true;
    sigset_t all;
    sigfillset(&all);
    effUser_guard lock;
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    const pid_t pid = clone(run_sharing_child, stack_top, CLONE_VM | CLONE_VFORK | SIGCHLD, call);
    const int error_number = errno;
    pthread_sigmask(SIG_SETMASK, &call->startVar->signal_mask, nullptr);
    errno = error_number;
    return pid;
}

pid_t make_child(child_call* call) {
    const bool share = memory_may_be_shared && make_process == fork &&
                       !launch_session_in_child(call->pamHandle) && launch_mounts_are_local();
    char* const stack_top = share ? child_stack_top() : nullptr;
    return stack_top != nullptr ? clone_child(call, stack_top) : fork_child(*call);
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
    const pid_t pid = make_child(&call);
    if (pid < 0) {
        const int error_number = errno;
        qx_error_set(error, -1, error_number, system_message, "%s|%u|%s|",
                     type == job_start_vfork ? "vfork" : "fork", static_cast<unsigned>(error_number),
                     error_text(error_number).c_str());
        __log_error(*error);
        errno = error_number;
        return -1;
    }
    children_note(pid);
    return pid;
}
