#include "agent/signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/shutdown.h"
#include "base/children.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "jobs/supervision.h"
#include "log/log.h"
#include "log/log_output.h"

namespace {

using signal_function = void (*)(int);

// Pending SIGHUP in flag_signal, at the place of the setting of SIGKILL, which has none.
constexpr int pending_hangup = 1 << SIGKILL;
constexpr int all_pending = SIGNAL_PENDING_CHILD | SIGNAL_PENDING_TERM | pending_hangup;

// The handlers read the context once; a wake-up and an atomic bit are all they do.
void set_pending(int bit) {
    const int kept = errno;
    EX_PCX* pcx = GlbPcx;
    if (pcx != nullptr) {
        pcx->flag_signal.fetch_or(bit);
        if (pcx->ccm != nullptr) {
            ccm_wakeup_processor(pcx->ccm);
        }
    }
    errno = kept;
}

void signal_handler_common(int) {}

// The faulting instruction runs again after the return; with the default action back, it ends the process.
void signal_handler_error(int number) {
    signal(number, SIG_DFL);
}

void signal_handler_terminate(int) {
    set_pending(SIGNAL_PENDING_TERM);
}

void signal_handler_sigchld(int) {
    set_pending(SIGNAL_PENDING_CHILD);
}

void signal_handler_hangup(int) {
    set_pending(pending_hangup);
}

struct signal_row {
    int number;
    const char* name;
    signal_function handler;
    signal_function off;  // the disposition when the setting is off
    const char* setting;  // key of section GLOBAL
    const char* preset;
};

constexpr int table_end = -1;
constexpr int table_size = 32;

// SIGSEGV has a setting and no handler: it keeps the system's default action. SIGALRM is on together with
// SIGIO.
const signal_row static_handler_table[] = {
    {SIGHUP, "SIGHUP", signal_handler_hangup, SIG_IGN, "sighup", "yes"},
    {SIGINT, "SIGINT", signal_handler_common, SIG_IGN, "sigint", "no"},
    {SIGILL, "SIGILL", signal_handler_error, SIG_DFL, "sigill", "no"},
    {SIGBUS, "SIGBUS", signal_handler_error, SIG_DFL, "sigbus", "no"},
    {SIGFPE, "SIGFPE", signal_handler_error, SIG_DFL, "sigfpe", "no"},
    {SIGUSR1, "SIGUSR1", signal_handler_common, SIG_IGN, "sigusr1", "yes"},
    {SIGSEGV, "SIGSEGV", nullptr, SIG_DFL, "sigsegv", "no"},
    {SIGUSR2, "SIGUSR2", signal_handler_common, SIG_IGN, "sigusr2", "yes"},
    {SIGPIPE, "SIGPIPE", signal_handler_common, SIG_IGN, "sigpipe", "no"},
    {SIGALRM, "SIGALRM", signal_handler_common, SIG_IGN, "sigio", "no"},
    {SIGTERM, "SIGTERM", signal_handler_terminate, SIG_IGN, "sigterm", "yes"},
    {SIGCHLD, "SIGCHLD", signal_handler_sigchld, SIG_IGN, "sigchld", "yes"},
    {SIGIO, "SIGIO", signal_handler_common, SIG_IGN, "sigio", "no"},
    {table_end, nullptr, nullptr, nullptr, nullptr, nullptr}};

signal_row handlers[table_size];

void copy_table() {
    for (signal_row& row : handlers) {
        row = {table_end, nullptr, nullptr, nullptr, nullptr, nullptr};
    }
    for (const signal_row* row = static_handler_table; row->number != table_end; ++row) {
        handlers[row->number] = *row;
    }
}

int set_disposition(const signal_row& row, bool on, qx7_error* error) {
    struct sigaction action = {};
    action.sa_handler = on ? row.handler : row.off;
    sigemptyset(&action.sa_mask);
    if (sigaction(row.number, &action, nullptr) != 0) {
        return qx_error_set(error, -1, errno, number_call_failed, "sigaction(%d)|%d-%s|", row.number, errno,
                            strerror(errno));
    }
    return 0;
}

int signal_set_handlers(const EX_PCX* pcx, qx7_error* error) {
    const int settings = pcx->flag_signal.load();
    sigset_t handled;
    sigemptyset(&handled);
    for (int number = 1; number < table_size; ++number) {
        const signal_row& row = handlers[number];
        if (row.handler == nullptr) {
            continue;
        }
        if (set_disposition(row, (settings >> number & 1) != 0, error) != 0) {
            return -1;
        }
        if (sigaddset(&handled, number) != 0) {
            return qx_error_set(error, -1, errno, number_call_failed, "sigaddset(%d)|%d-%s|", number, errno,
                                strerror(errno));
        }
    }
    const int result = pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);
    if (result != 0) {
        return qx_error_set(error, -1, result, number_call_failed, "pthread_sigmask(SIG_SETMASK,...)|%d-%s|",
                            result, strerror(result));
    }
    return 0;
}

// What the parent had pending is the parent's; bits of its settings go on to hold.
void reinit_in_child(void* context) {
    static_cast<EX_PCX*>(context)->flag_signal.fetch_and(~all_pending);
}

void post_end_of_child(EX_PCX* pcx, pid_t pid, int status) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_sigchld, sizeof(ipcmsg_sigchld_t));
    if (msg == nullptr) {
        __log(-1, "no memory to tell the end of process %d, its job is found by the periodic check",
              static_cast<int>(pid));
        return;
    }
    ipcmsg_sigchld_t record;
    memcpy(&record, ccm_msg_body(msg), sizeof record);
    record.pid = static_cast<int32_t>(pid);
    record.ret = pr_exit(status);
    record.status = status;
    record.send_time = time(nullptr);
    memcpy(ccm_msg_body(msg), &record, sizeof record);
    send_IPC_internal(pcx->ccm, msg);
}

}  // namespace

int signal_read_settings(EX_PCX* pcx) {
    int settings = 0;
    for (const signal_row* row = static_handler_table; row->number != table_end; ++row) {
        if (pcx->getProfileBool(pcx, "GLOBAL", row->setting, row->preset)) {
            settings |= 1 << row->number;
        }
    }
    return settings;
}

int signal_open(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    copy_table();
    pcx->flag_signal = signal_read_settings(pcx);
    fork_lock_register(FORK_LOCK_SIGNALS, {nullptr, nullptr, reinit_in_child, pcx});
    return signal_set_handlers(pcx, error);
}

int signal_close(EX_PCX*, qx7_error*) {
    return 0;
}

int maintenance_signals(EX_PCX* pcx) {
    const int pending = pcx->flag_signal.load();
    if ((pending & SIGNAL_PENDING_CHILD) != 0) {
        signal_handle_sigchild(pcx);
    }
    if ((pending & SIGNAL_PENDING_TERM) != 0) {
        signal_handle_sigterm(pcx);
    }
    if ((pending & pending_hangup) != 0) {
        signal_handle_hangup(pcx);
    }
    return 0;
}

int signal_handle_sigchild(EX_PCX* pcx) {
    // Cleared first: a child that ends from here on sets it again.
    pcx->flag_signal.fetch_and(~SIGNAL_PENDING_CHILD);
    int status = 0;
    pid_t pid = 0;
    while (children_collect(&pid, &status)) {
        post_end_of_child(pcx, pid, status);
    }
    return 0;
}

int signal_handle_sigterm(EX_PCX* pcx) {
    pcx->flag_signal.fetch_and(~SIGNAL_PENDING_TERM);
    return initiate_agent_shutdown(pcx);
}

int signal_handle_hangup(EX_PCX* pcx) {
    pcx->flag_signal.fetch_and(~pending_hangup);
    if (pcx->running_mode != MODE_AGENT) {
        return 0;  // the lines of a child go over the agent
    }
    if (log_open_anew(pcx) != 0) {
        __log(number_file_call, "%s", call_insert("OpenLogFile()", pcx->logFile, errno).c_str());
        return -1;
    }
    __log(-1, "the log was opened anew by order of SIGHUP");
    return 0;
}
