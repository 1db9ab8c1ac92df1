#include "agent/listener.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "agent/listener_settings.h"
#include "agent/settings.h"
#include "agent/shutdown.h"
#include "agent/timers.h"
#include "agent/waiting.h"
#include "base/children.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/sanitizer.h"
#include "base/text.h"
#include "base/threads.h"
#include "base/time.h"
#include "channels/connect.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "channels/port_holder.h"
#include "log/log.h"
#include "log/trace.h"

namespace {

constexpr int start_period = 30;  // between two starts
constexpr int wait_for_shutdown = 1000;
constexpr int wait_after_failures = 9999;
constexpr int backlog = 10;
constexpr int port_quick_tries = 5;
constexpr unsigned nobody = 65534;
constexpr char local_address[] = "*LOCAL";

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

// ---- the port

// The bound sockets. The agent keeps them, so that nobody can take the port while no listener runs; callers
// wait in their queue meanwhile.
struct held_port {
    std::string address;
    int wanted = 0;  // as configured
    bool local = false;
    int port = 0;
    std::vector<qx_descriptor> sockets;
};
held_port held;
int quick_tries = 0;

// A listener that was taken over can shut the shared sockets down, put a filter on them or connect them.
bool still_good(const qx_descriptor& socket) {
    int none = 0;
    if (setsockopt(socket.get(), SOL_SOCKET, SO_DETACH_FILTER, &none, sizeof none) != 0 && errno != ENOENT) {
        return false;
    }
    // A port that the system chose is lost with the shutdown, and the next listen takes another.
    return listen(socket.get(), backlog) == 0 && fcntl(socket.get(), F_SETFL, O_NONBLOCK) == 0 &&
           ccm_bound_port(socket.get()) == held.port;
}

bool same_configuration(const EX_PCX* pcx) {
    return !held.sockets.empty() && held.address == pcx->listener_bindaddr &&
           held.wanted == pcx->listener_port && held.local == (pcx->listener_bindlocal != 0);
}

int open_socket(EX_PCX* pcx, const char* address, int port, ccm_error_t* error) {
    const int socket = ccm_open_listen(pcx->ccm, address, port, backlog, error);
    if (socket < 0) {
        held.sockets.clear();
        return -1;
    }
    held.sockets.emplace_back(socket);
    return 0;
}

// ---- the program's start

enum handed_call : int { call_none, call_setgroups, call_setgid, call_setuid, call_descriptor, call_exec };

constexpr const char* call_names[] = {"",         "setgroups(0)", "setgid()",
                                      "setuid()", "dup2()",       "execve(LISTENER)"};

// Why the new program did not come to its start, from a pipe that a successful start closes.
struct start_failure {
    int call;
    int number;
};
qx_descriptor failure_pipe;

// Everything that the child needs between fork and exec, where it makes system calls only.
struct launch_plan {
    int handed[2 + listener_sockets_max];
    int count;
    int failure;
    bool change_identity;
    uid_t uid;
    gid_t gid;
    char* argv[3];
    char** environment;
};

[[noreturn]] void give_up(const launch_plan& plan, handed_call call) {
    const start_failure failure{call, errno};
    (void)!write(plan.failure, &failure, sizeof failure);  // the exit code tells that there was one
    _exit(agent_child_failure);
}

// The program file may be one that only root can execute. The right to pass over its mode is kept up to exec,
// which takes it from a process that is not root's.
void keep_right_to_execute() {
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    sets[0].permitted = sets[0].effective = 1U << CAP_DAC_OVERRIDE;
    syscall(SYS_capset, &head, sets);  // without it the file's mode decides
}

// The system calls themselves: the C library would look for threads that this process does not have.
void take_identity(const launch_plan& plan) {
    prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
    if (syscall(SYS_setgroups, 0, nullptr) != 0) {
        give_up(plan, call_setgroups);
    }
    if (syscall(SYS_setresgid, plan.gid, plan.gid, plan.gid) != 0) {
        give_up(plan, call_setgid);
    }
    if (syscall(SYS_setresuid, plan.uid, plan.uid, plan.uid) != 0) {
        give_up(plan, call_setuid);
    }
    keep_right_to_execute();
}

// Descriptors move up first, since one of them may stand where another one goes.
void place_descriptors(launch_plan* plan) {
    constexpr int above = 16;
    plan->failure = fcntl(plan->failure, F_DUPFD_CLOEXEC, above);
    for (int at = 0; at < plan->count; ++at) {
        plan->handed[at] = fcntl(plan->handed[at], F_DUPFD_CLOEXEC, above);
    }
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd <= 2 && null >= 0; ++fd) {
        if (QX_ADDRESS_SANITIZER && fd == 2) {
            break;  // reports go there
        }
        dup2(null, fd);  // what it writes there would pass for the agent's
    }
    for (int at = 0; at < plan->count; ++at) {
        if (plan->handed[at] < 0 || dup2(plan->handed[at], listener_record_fd + at) < 0) {
            give_up(*plan, call_descriptor);
        }
    }
}

[[noreturn]] void become_listener(launch_plan plan) {
    place_descriptors(&plan);
    if (plan.change_identity) {
        take_identity(plan);
    }
    // No set-user-id bit of the program file gives the rights back. An old kernel does not know it.
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve("/proc/self/exe", plan.argv, plan.environment);
    give_up(plan, call_exec);
}

void fill_settings(EX_PCX* pcx, listener_settings* settings) {
    memcpy(settings->eyec, listener_record_mark, sizeof settings->eyec);
    copy_text(settings->version, qx_version);
    settings->size = static_cast<int32_t>(sizeof *settings);
    settings->sockets = static_cast<int32_t>(held.sockets.size());
    settings->port = pcx->listener_port;
    settings->max_frame = SetMaxMsgSize(pcx);
    copy_text(settings->program, pcx->ProgName);
    copy_text(settings->agent, pcx->exName);
    copy_text(settings->bindaddr, pcx->listener_bindaddr);
    trace_name_for_child(pcx->trc_file, listener_title_suffix, settings->trc_file, sizeof settings->trc_file);
    for (size_t area = 0; area < sizeof settings->trc_levels; ++area) {
        settings->trc_levels[area] = pcx->trcFlgs[area];
    }
    settings->trc_count = pcx->trc_count;
    settings->trc_max_size = pcx->trc_max_size;
    settings->trc_flag = pcx->trc_flag;
    settings->trc_file_limit = pcx->trc_file_limit;
    settings->trc_thread = pcx->trcThreadFlag;
    settings->trc_trigger_type = pcx->trc_trigger_type;
    copy_text(settings->trc_trigger_text, pcx->trc_trigger_text == nullptr ? "" : pcx->trc_trigger_text);
}

// The record as a file without a name.
int settings_descriptor(EX_PCX* pcx, qx_descriptor* out) {
    static listener_settings settings;
    settings = {};
    fill_settings(pcx, &settings);
    out->reset(memfd_create("listener", MFD_CLOEXEC));
    return out->valid() &&
                   write(out->get(), &settings, sizeof settings) == static_cast<ssize_t>(sizeof settings)
               ? 0
               : -1;
}

// What the agent was started with may hold secrets; the listener needs none of it but these.
std::vector<std::string> kept_environment() {
    std::vector<std::string> kept;
    for (const char* name : {"PATH", "TZ", "LANG", "LC_ALL", "LD_LIBRARY_PATH", "ASAN_OPTIONS",
                             "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        if (const char* value = getenv(name); value != nullptr) {
            kept.push_back(std::string(name) + "=" + value);
        }
    }
    return kept;
}

int call_failure(qx7_error* error, const char* call) {
    const int number = errno;
    return qx_error_set(error, -1, number, number_call_failed, "%s|%d-%s", call, number, strerror(number));
}

// Forks and executes. The child's process id, or -1.
pid_t launch(EX_PCX* pcx, int record, int pair_end, int failure) {
    launch_plan plan{};
    plan.handed[plan.count++] = record;
    plan.handed[plan.count++] = pair_end;
    for (const qx_descriptor& socket : held.sockets) {
        plan.handed[plan.count++] = socket.get();
    }
    plan.failure = failure;
    plan.change_identity = geteuid() == 0;  // without root there is nothing to give up
    plan.uid = pcx->listener_uid;
    plan.gid = pcx->listener_gid;
    std::string title = std::string(pcx->ProgName) + listener_title_suffix;
    std::string argument = listener_argument;
    plan.argv[0] = title.data();
    plan.argv[1] = argument.data();
    std::vector<std::string> kept = kept_environment();
    std::vector<char*> environment;
    for (std::string& entry : kept) {
        environment.push_back(entry.data());
    }
    environment.push_back(nullptr);
    plan.environment = environment.data();
    // The agent's handlers must not run in the child, which shares its pipes.
    sigset_t former;
    block_all_signals(&former);
    global_fork_lock(pcx);
    const pid_t pid = fork();
    const int number = errno;
    if (pid == 0) {
        become_listener(plan);
    }
    global_fork_unlock(pcx);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    errno = number;
    return pid;
}

void note_start(EX_PCX* pcx, pid_t pid, int channel_id) {
    children_note(pid);
    __log(number_process_started, "LISTENER|%i", static_cast<int>(pid));
    pcx->listener_pid = pid;
    pcx->listener_channel_ID = channel_id;
    ++pcx->listener_start_counter;
    ccm_wakeup_network(pcx->ccm);
}

// ---- the agent's watch

time_t last_start = 0;
time_t last_look = 0;

// Judged only in a pass that found nothing waiting: after a long stop of the main thread the answer may stand
// in the queue.
void drop_silent_listener(EX_PCX* pcx, time_t now) {
    // Time in which this thread did not run counts for nobody: no ping left and no answer was read.
    constexpr int longest_pass = loop_longest_wait + 30;
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

// The listener of an agent that has just ended may need a moment to give up the port: a few tries a second
// apart count for nothing.
int port_refused(EX_PCX* pcx, time_t now, const qx7_error& fault) {
    if (fault.qx_errno == EADDRINUSE && quick_tries < port_quick_tries) {
        ++quick_tries;
        pcx->listener_alarm_time = now + 1;
        return -1;
    }
    __log_error(fault);
    ++pcx->listener_start_counter;
    const std::string holder =
        fault.qx_errno == EADDRINUSE ? ", which is held by " + port_holder_text(held.wanted) : "";
    __log(
        -1,
        "port %d%s, cannot be taken: no server is searched until the listener stands (try %d of %d, the next "
        "in %d seconds). End that process or change TCP/IP/port",
        held.wanted, holder.c_str(), pcx->listener_start_counter, listener_start_limit, start_period);
    return -1;
}

}  // namespace

time_t listener_last_start() {
    return last_start;
}

int listener_hold_port(EX_PCX* pcx, qx7_error* error) {
    const bool same = same_configuration(pcx);
    if (!same || !std::all_of(held.sockets.begin(), held.sockets.end(), still_good)) {
        held.sockets.clear();
        held.address = pcx->listener_bindaddr;
        held.wanted = pcx->listener_port;
        held.local = pcx->listener_bindlocal != 0;
        // The port that the system chose once is what the server was told.
        const int port = same ? held.port : held.wanted;
        if (open_socket(pcx, pcx->listener_bindaddr, port, error) != 0 &&
            (held.wanted != 0 || open_socket(pcx, pcx->listener_bindaddr, 0, error) != 0)) {
            return -1;
        }
        held.port = ccm_bound_port(held.sockets.front().get());
        const bool second = held.local && !held.address.empty();
        if (second && open_socket(pcx, local_address, held.port, error) != 0) {
            return -1;
        }
    }
    pcx->listener_port = pcx->ipPort = held.port;
    return 0;
}

void listener_release_port() {
    held.sockets.clear();
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
        initiate_agent_failure(pcx);
        pcx->listener_alarm_time = now + wait_after_failures;
        return -1;
    }
    pcx->listener_alarm_time = now + start_period;
    pcx->listener_last_pingq = now;
    last_start = now;
    qx7_error error;
    qx7_error fault;
    listener_read_config(pcx, &error);
    if (listener_hold_port(pcx, &fault) != 0) {
        return port_refused(pcx, now, fault);
    }
    quick_tries = 0;
    if (listener_start_process(pcx, &error) != 0) {
        __log_error(error);
        initiate_agent_failure(pcx);
        return -1;
    }
    return 0;
}

int listener_start_process(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    delete_placeholders(pcx);
    qx_descriptor record;
    if (settings_descriptor(pcx, &record) != 0) {
        return call_failure(error, "memfd_create(LISTENER)");
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        return call_failure(error, "socketpair()");
    }
    const qx_descriptor agent_end(ends[1]);
    int failure[2];
    if (pipe2(failure, O_CLOEXEC | O_NONBLOCK) != 0) {
        close(ends[0]);
        return call_failure(error, "pipe(LISTENER)");
    }
    failure_pipe.reset(failure[0]);
    const qx_descriptor told(failure[1]);
    const int channel_id = ccm_adopt_pair_end(pcx->ccm, ends[0], ccm_name_ipc_listener, error);
    if (channel_id < 0) {
        return -1;
    }
    const pid_t pid = launch(pcx, record.get(), agent_end.get(), told.get());
    if (pid < 0) {
        const int number = errno;
        ccm_channel_silencebyID(pcx->ccm, channel_id);
        return qx_error_set(error, -1, number, number_call_failed, "fork(LISTENER)|%d-%s", number,
                            strerror(number));
    }
    note_start(pcx, pid, channel_id);
    return 0;
}

void listener_log_start_failure() {
    start_failure failure{};
    const bool told = failure_pipe.valid() && read(failure_pipe.get(), &failure, sizeof failure) ==
                                                  static_cast<ssize_t>(sizeof failure);
    failure_pipe.reset();
    if (told && failure.call > call_none && failure.call <= call_exec) {
        __log(number_system_call, "%s", call_insert(call_names[failure.call], failure.number).c_str());
    }
}

int listener_read_config(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
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
        qx7_error fault;
        if (ccm_hostname2address(address, CCM_PREFER_IPV4, &resolved, &fault) != 0 ||
            ccm_address2string(&resolved, pcx->listener_bindaddr, sizeof pcx->listener_bindaddr) != 0) {
            __log_error(fault);
            pcx->listener_bindaddr[0] = '\0';
        }
    }
    pcx->listener_port = pcx->ipPort = port;
    pcx->listener_uid = identity_setting(pcx, "listenerUID");
    pcx->listener_gid = identity_setting(pcx, "listenerGID");
    return 0;
}

int listener_shutdown(EX_PCX* pcx) {
    pcx->listener_alarm_time = alarm_now() + wait_for_shutdown;
    listener_release_port();
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
