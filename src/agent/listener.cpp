#include "agent/listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "agent/ipc_dispatch.h"
#include "agent/process_title.h"
#include "agent/settings.h"
#include "agent/shutdown.h"
#include "agent/timers.h"
#include "base/children.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/locks.h"
#include "base/log.h"
#include "base/text.h"
#include "base/time.h"
#include "base/trace.h"
#include "channels/connect.h"
#include "channels/fork.h"
#include "channels/network_thread.h"
#include "security/key_store.h"

namespace {

constexpr int start_period = 30;  // between two starts
constexpr int wait_for_shutdown = 1000;
constexpr int wait_after_failures = 9999;
constexpr int pause_after_failure = 30;
constexpr int backlog = 10;
constexpr int port_tries = 50;
constexpr long port_pause_ns = 100'000'000;
constexpr unsigned nobody = 65534;
constexpr char local_address[] = "*LOCAL";
constexpr char title_suffix[] = "-listener";

// Without a configured port the agent must still know which one to tell the server: the system names a free
// one, and it stays the agent's until a listener fails on it.
int free_port() {
    qx_descriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    socklen_t size = sizeof address;
    if (!probe.valid() || bind(probe.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

void take_port(EX_PCX* pcx, int configured) {
    if (configured != 0) {
        pcx->listener_port = configured;
    } else if (pcx->listener_port == 0 || pcx->listener_start_counter > 0) {
        pcx->listener_port = free_port();
    }
    pcx->ipPort = pcx->listener_port;
}

unsigned identity_setting(EX_PCX* pcx, const char* key) {
    const int value = pcx->getProfileInt(pcx, "GLOBAL", key, "65534");
    return value <= 0 ? nobody : static_cast<unsigned>(value);  // never root
}

void delete_placeholders(EX_PCX* pcx) {
    int ids[256];
    int count;
    while ((count = ccm_channel_collect(pcx->ccm, CH_TYPE_PLACEHOLDER, ids, 256)) > 0) {
        for (int at = 0; at < count; ++at) {
            ccm_channel_deletebyID(pcx->ccm, ids[at]);
        }
    }
}

// ---- the child's way from the fork to its loop

// Without root there is nothing to give up and no call is made.
int take_identity(EX_PCX* pcx, std::string* failure) {
    if (geteuid() != 0) {
        return 0;
    }
    const uid_t uid = pcx->listener_uid;
    const gid_t gid = pcx->listener_gid;
    const char* call = nullptr;
    if (setgroups(0, nullptr) != 0) {
        call = "setgroups(0)";
    } else if (setgid(gid) != 0) {
        call = "setgid()";
    } else if (setuid(uid) != 0) {
        call = "setuid()";
    } else if (seteuid(uid) != 0) {
        call = "seteuid()";
    } else if (setreuid(static_cast<uid_t>(-1), uid) != 0) {
        call = "setreuid()";
    }
    if (call == nullptr) {
        return 0;
    }
    *failure = std::string(call) + "|" + std::to_string(errno) + "|" + strerror(errno) + "|";
    return -1;
}

void take_name(EX_PCX* pcx) {
    process_title_set(std::string(pcx->ProgName) + title_suffix);
    copy_text(pcx->process_name, "LISTENER");
    char own_trace[qx_path_size];
    trace_name_for_child(pcx->trc_file, title_suffix, own_trace, sizeof own_trace);
    copy_text(pcx->trc_file, own_trace);
}

void forget_the_agent(EX_PCX* pcx) {
    children_forget_all();
    log_forget_in_child(pcx);
    GssClose();  // the keys are the agent's
    zutrace_forget_file(pcx->trcHnd);
    zutrace_stop_tracing(pcx->trcHnd);  // until it has a file name of its own
    pcx->pcx_flag.fetch_and(~(PCX_FLAG_CP_SEARCH | PCX_FLAG_SERVER_CHANNEL | PCX_FLAG_LOGGED_IN));
    pcx->listener_pid = 0;
}

void keep_own_channel(EX_PCX* pcx, int channel_id) {
    ccm_child_keep_channels(pcx->ccm, &channel_id, 1, 0);
    ccm_channel_image_t own;
    if (ccm_channel_copy(pcx->ccm, channel_id, &own) == 0) {
        ccm_close_descriptors_except(&own.s, 1);
    }
}

// The pause keeps a bad port or identity from spinning restarts; the loop runs on, so that the agent's end is
// noticed.
int end_after_pause(EX_PCX* pcx) {
    pcx->shutdown_timer = alarm_now() + pause_after_failure;
    return -1;
}

int tell_agent_ok(EX_PCX* pcx) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_listener_ok, sizeof(ipcmsg_header_t));
    if (msg == nullptr) {
        return -1;
    }
    ccm_setaddr(msg, 0, 0, ccm_name_ipc_agent, "", 0);
    return send_IPC_message(pcx->ccm, msg);
}

int run_child(EX_PCX* pcx, int channel_id) {
    global_fork_init_locks(pcx);
    __log_set_logger(log_dummy);
    pcx->running_mode = MODE_LISTENER;
    forget_the_agent(pcx);
    take_name(pcx);
    std::string failure;
    const int identity = take_identity(pcx, &failure);
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0,
          0);  // an old kernel that does not know it leaves a listener without rights
    close_selected_modules(pcx, module_all);
    // Before the first line of trace, whose descriptor would be closed as one of the parent's.
    keep_own_channel(pcx, channel_id);
    OpenTraceFile(pcx);
    timer_clearall(pcx->timer_ctx);

    ccm_error_t ccm_error;
    if (ccm_thread_start(pcx->ccm, &ccm_error) != 0) {
        _exit(agent_child_failure);
    }
    __log_set_logger(ipc_logger);
    __log(2003057, "%s|%i", pcx->process_name, static_cast<int>(getpid()));
    if (identity != 0) {
        __log(2003043, "%s", failure.c_str());
        return end_after_pause(pcx);
    }
    qx7_error error;
    if (listener_create_listener_channels(pcx, &error) != 0) {
        __log_error(error);
        return end_after_pause(pcx);
    }
    tell_agent_ok(pcx);
    timer_add(pcx->timer_ctx, listener_watchdog_timer, "", 0, listener_silence_limit, listener_ping_watchdog,
              pcx);
    return 0;
}

// ---- the agent's side

void run_parent(EX_PCX* pcx, pid_t pid, int listener_end, int agent_end) {
    children_note(pid);
    global_fork_unlock(pcx);
    __log(2003056, "LISTENER|%i", static_cast<int>(pid));
    ccm_channel_silencebyID(pcx->ccm, agent_end);
    pcx->listener_pid = pid;
    pcx->listener_channel_ID = listener_end;
    ++pcx->listener_start_counter;
    ccm_wakeup_network(pcx->ccm);
}

time_t last_start = 0;
time_t last_look = 0;

// Judged only in a pass that found nothing waiting: after a long stop of the main thread the answer may stand
// in the queue.
void drop_silent_listener(EX_PCX* pcx, time_t now) {
    // Time in which this thread did not run counts for nobody: no ping left and no answer was read.
    constexpr int longest_pass = 60;
    if (last_look != 0 && now - last_look > longest_pass) {
        pcx->listener_last_pingq += now - last_look;
    }
    last_look = now;
    if (pcx->listener_pid == 0 || now - pcx->listener_last_pingq <= listener_silence_limit ||
        !ccm_recvq_empty(pcx->ccm)) {
        return;
    }
    __log(-1, "listener %d has not answered for %d seconds and is replaced",
          static_cast<int>(pcx->listener_pid), listener_silence_limit);
    kill(pcx->listener_pid, SIGKILL);  // it would keep the port; own unreaped child, so the number is its own
    pcx->listener_pid = 0;
    ccm_channel_deletebyID(pcx->ccm, pcx->listener_channel_ID);
    pcx->listener_alarm_time = 0;
}

}  // namespace

time_t listener_last_start() {
    return last_start;
}

int maintenance_listener_process(EX_PCX* pcx) {
    const time_t now = alarm_now();
    if (pcx->loop >= LOOP_STOP_WANTED) {
        pcx->listener_alarm_time = now + wait_for_shutdown;
        return -1;
    }
    drop_silent_listener(pcx, now);
    if (pcx->listener_pid != 0) {
        return 0;
    }
    if (pcx->listener_start_counter >= listener_start_limit) {
        __log(-1,
              "the listener did not start %d times in a row, the agent ends: look at TCP/IP/port and the log "
              "above",
              listener_start_limit);
        initiate_agent_shutdown(pcx);
        pcx->listener_alarm_time = now + wait_after_failures;
        return -1;
    }
    pcx->listener_alarm_time = now + start_period;
    pcx->listener_last_pingq = now;
    last_start = now;
    qx7_error error;
    if (listener_start_process(pcx, &error) != 0 && pcx->running_mode == MODE_AGENT) {
        __log_error(error);
        initiate_agent_shutdown(pcx);
        return -1;
    }
    return 0;
}

int listener_start_process(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    if (listener_read_config(pcx, error) != 0) {
        return -1;
    }
    delete_placeholders(pcx);
    int listener_end = 0;
    int agent_end = 0;
    ccm_error_t ccm_error;
    if (ccm_channel_create_pair(pcx->ccm, ccm_name_ipc_listener, ccm_name_ipc_agent, &listener_end,
                                &agent_end, &ccm_error) != 0) {
        return qx_error_set(error, -1, ccm_error.xerrno, ccm_error.msgnr, "%s", ccm_error.msginsert);
    }
    global_fork_lock(pcx);
    const pid_t pid = fork();
    if (pid < 0) {
        const int number = errno;
        global_fork_unlock(pcx);
        ccm_channel_silencebyID(pcx->ccm, listener_end);
        ccm_channel_silencebyID(pcx->ccm, agent_end);
        return qx_error_set(error, -1, number, 2000102, "fork(LISTENER)|%d-%s", number, strerror(number));
    }
    if (pid == 0) {
        return run_child(pcx, agent_end);
    }
    run_parent(pcx, pid, listener_end, agent_end);
    return 0;
}

int listener_read_config(EX_PCX* pcx, qx7_error* error) {
    pcx->listener_bindlocal = pcx->getProfileBool(pcx, "TCP/IP", "bindlocal", "0") ? 1 : 0;
    char text[256];
    char address[256];
    pcx->getProfileString(pcx, "TCP/IP", "port", "", text, sizeof text);
    const int port = settings_listener_port(text, address, sizeof address);
    pcx->listener_bindaddr[0] = '\0';  // the logon may have filled it
    if (address[0] == '\0') {
        pcx->getProfileString(pcx, "TCP/IP", "bindaddr", "", address, sizeof address);
    }
    if (address[0] != '\0') {
        sockaddr_in6 resolved;
        ccm_error_t ccm_error;
        if (ccm_hostname2address(address, CCM_PREFER_IPV4, &resolved, &ccm_error) != 0 ||
            ccm_address2string(&resolved, pcx->listener_bindaddr, sizeof pcx->listener_bindaddr) != 0) {
            __log(ccm_error.msgnr, "%s", ccm_error.msginsert);
            pcx->listener_bindaddr[0] = '\0';
        }
    }
    take_port(pcx, port);
    pcx->listener_uid = identity_setting(pcx, "listenerUID");
    pcx->listener_gid = identity_setting(pcx, "listenerGID");
    if (pcx->listener_port == 0) {
        return qx_error_set(error, -1, 0, 2000024, "port|TCP/IP|");
    }
    return 0;
}

namespace {

// The listener of an agent that has just ended may need a moment to give up its port, and a failure costs
// half a minute. Only the listener's own loop waits here, which has nothing to do yet.
int listen_with_patience(EX_PCX* pcx, const char* address, ccm_error_t* error) {
    for (int tries = 0;; ++tries) {
        const int result = ccm_create_listen(pcx->ccm, address, pcx->listener_port, backlog, error);
        if (result == 0 || error->xerrno != EADDRINUSE || tries >= port_tries) {
            return result;
        }
        const timespec pause{0, port_pause_ns};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace

int listener_create_listener_channels(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    ccm_error_t ccm_error;
    int result = listen_with_patience(pcx, pcx->listener_bindaddr, &ccm_error);
    if (result == 0 && pcx->listener_bindaddr[0] != '\0' && pcx->listener_bindlocal != 0) {
        result = listen_with_patience(pcx, local_address, &ccm_error);
    }
    if (result != 0) {
        return qx_error_set(error, -1, ccm_error.xerrno, ccm_error.msgnr, "%s", ccm_error.msginsert);
    }
    __log(-1, "listening on port %d, address '%s'", pcx->listener_port,
          pcx->listener_bindaddr[0] == '\0' ? "*" : pcx->listener_bindaddr);
    return 0;
}

int listener_shutdown(EX_PCX* pcx) {
    pcx->listener_alarm_time = alarm_now() + wait_for_shutdown;
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_shutdown, sizeof(ipcmsg_header_t));
    if (msg == nullptr) {
        return -1;  // the closed socket pair ends it as well
    }
    ccm_setaddr(msg, 0, 0, ccm_name_ipc_listener, "", 0);
    return send_IPC_message(pcx->ccm, msg);
}

int listener_ping_wd_handler(void* context, const char*, const char*) {
    EX_PCX* pcx = static_cast<EX_PCX*>(context);
    if (pcx->listener_pid == 0) {
        return -1;
    }
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_ping, sizeof(ipcmsg_ping_t));
    if (msg == nullptr) {
        return -1;
    }
    ipcmsg_ping_t record;
    memcpy(&record, ccm_msg_body(msg), sizeof record);
    record.send_time = time(nullptr);
    memcpy(ccm_msg_body(msg), &record, sizeof record);
    pcx->listener_last_ping = alarm_now();
    ccm_setaddr(msg, 0, 0, ccm_name_ipc_listener, "", 0);
    return send_IPC_message(pcx->ccm, msg);
}

int listener_ping_watchdog(void* context, const char*, const char*) {
    EX_PCX* pcx = static_cast<EX_PCX*>(context);
    __log(-1, "PING from agent didn't arrive in last %d seconds", listener_silence_limit);
    int expected = LOOP_RUNNING;
    pcx->loop.compare_exchange_strong(expected, LOOP_STOP_WANTED);
    return 0;
}
