#include "agent/listener_process.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "agent/ipc_dispatch.h"
#include "agent/listener.h"
#include "agent/listener_settings.h"
#include "agent/loop.h"
#include "agent/process_title.h"
#include "agent/shutdown.h"
#include "agent/signals.h"
#include "agent/timers.h"
#include "base/context.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/connect.h"
#include "channels/fork.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/conversion.h"
#include "messages/frame.h"

namespace {

constexpr int exit_good = 0;

template <size_t N>
bool ends_inside(const char (&text)[N]) {
    return memchr(text, '\0', N) != nullptr;
}

int refuse(const char* why) {
    fprintf(stderr, "qxxjlnx: %s is for the agent, which starts its listener with it: %s\n",
            listener_argument, why);
    return agent_child_failure;
}

// The record, from a descriptor whose size and content are checked like anything from outside.
bool read_settings(listener_settings* settings) {
    struct stat status {};
    return fstat(listener_record_fd, &status) == 0 &&
           status.st_size == static_cast<off_t>(sizeof *settings) &&
           pread(listener_record_fd, settings, sizeof *settings, 0) ==
               static_cast<ssize_t>(sizeof *settings) &&
           listener_settings_check(*settings) == 0;
}

bool is_socket(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
}

// Without an INI file each setting has its preset.
int preset_string(EX_PCX*, const char*, const char*, const char* preset, char* out, size_t size) {
    return static_cast<int>(copy_text(out, size, preset));
}

bool preset_bool(EX_PCX*, const char*, const char*, const char* preset) {
    return *preset == '1' || *preset == 'y' || *preset == 'Y';
}

int preset_int(EX_PCX*, const char*, const char*, const char* preset) {
    return atoi(preset);
}

int write_nothing(EX_PCX*, const char*, const char*, const char*) {
    return -1;
}

void take_trace_settings(EX_PCX* pcx, const listener_settings& settings) {
    copy_text(pcx->trc_file, settings.trc_file);
    for (size_t area = 0; area < sizeof settings.trc_levels; ++area) {
        pcx->trcFlgs[area] = settings.trc_levels[area];
    }
    pcx->trc_count = settings.trc_count;
    pcx->trc_max_size = settings.trc_max_size;
    pcx->trc_flag = settings.trc_flag;
    pcx->trc_file_limit = settings.trc_file_limit;
    pcx->trcThreadFlag = settings.trc_thread;
    pcx->trc_trigger_type = settings.trc_trigger_type;
    if (settings.trc_trigger_text[0] != '\0') {
        pcx->trc_trigger_text = strdup(settings.trc_trigger_text);
    }
}

EX_PCX* make_context(const listener_settings& settings) {
    EX_PCX* pcx = new (std::nothrow) EX_PCX();
    if (pcx == nullptr) {
        return nullptr;
    }
    GlbPcx = pcx;
    pcx->running_mode = MODE_LISTENER;
    pcx->pcx_main_threadID = pthread_self();
    pcx->getProfileString = preset_string;
    pcx->getProfileBool = preset_bool;
    pcx->getProfileInt = preset_int;
    pcx->putProfileString = write_nothing;
    copy_text(pcx->process_name, "LISTENER");
    copy_text(pcx->ProgName, settings.program);
    copy_text(pcx->exName, settings.agent);
    copy_text(pcx->exVers, settings.version);
    copy_text(pcx->listener_bindaddr, settings.bindaddr);
    pcx->listener_port = pcx->ipPort = settings.port;
    take_trace_settings(pcx, settings);
    return pcx;
}

void log_conversion(int number, const char* inserts) {
    __log(number, "%s", inserts);
}

int open_framing(EX_PCX* pcx, int max_frame) {
    static msgconv_ctx_t conversion;
    msgconv_open(&conversion, &pcx->trcFlgs[TRC_TCPIP], nullptr, nullptr, log_conversion, nullptr, 0);
    pcx->pcx_msgctx = &conversion;
    TCPMSG_WORK_AREA* framing = TcpMsg_Open(tcp_used_by_agent);
    if (framing == nullptr) {
        return -1;
    }
    TCPMSG_PARMS parameters = {};
    parameters.iSizeOfParms = tcp_parms_size;
    parameters.iMaxPhysMsgSize = max_frame;
    TCP_Parms(framing, &parameters);
    pcx->pcx_hTcpMsg = framing;
    return 0;
}

int adopt_sockets(EX_PCX* pcx, int count) {
    ccm_error_t error;
    if (ccm_adopt_pair_end(pcx->ccm, listener_pair_fd, ccm_name_ipc_agent, &error) < 0) {
        return -1;
    }
    for (int at = 0; at < count; ++at) {
        if (ccm_adopt_listen(pcx->ccm, listener_first_socket_fd + at, &error) < 0) {
            return -1;
        }
    }
    return 0;
}

int tell_agent_ok(EX_PCX* pcx) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_listener_ok, sizeof(ipcmsg_header_t));
    if (msg == nullptr) {
        return -1;
    }
    ccm_setaddr(msg, 0, 0, ccm_name_ipc_agent, "", 0);
    return send_IPC_message(pcx->ccm, msg);
}

// Framing, channels, signals, timers, network thread. The agent sees a failure as the process's end.
int open_all(EX_PCX* pcx, const listener_settings& settings) {
    pcx->trcHnd = ZUTRACE_Open(pcx->trc_file);
    if (pcx->trcHnd == nullptr || open_framing(pcx, settings.max_frame) != 0) {
        return -1;
    }
    OpenTraceFile(pcx);
    ccm_error_t ccm_error;
    qx7_error error;
    if (ccm_open(pcx, &pcx->ccm, &ccm_error) != 0 || signal_open(pcx, &error) != 0 ||
        timer_open(&pcx->timer_ctx, pcx->ccm, &pcx->trcFlgs[TRC_TCPIP]) != 0 ||
        adopt_sockets(pcx, settings.sockets) != 0) {
        return -1;
    }
    return ccm_thread_start(pcx->ccm, &ccm_error);
}

void greet(EX_PCX* pcx) {
    __log_set_logger(ipc_logger);
    __log(number_process_runs, "%s|%i", pcx->process_name, static_cast<int>(getpid()));
    __log(-1, "listening on port %d, address '%s'", pcx->listener_port,
          pcx->listener_bindaddr[0] == '\0' ? "*" : pcx->listener_bindaddr);
    tell_agent_ok(pcx);
    timer_add(pcx->timer_ctx, listener_watchdog_timer, "", 0, listener_silence_limit, listener_ping_watchdog,
              pcx);
}

void keep_only_own_descriptors(int sockets) {
    int keep[2 + listener_sockets_max] = {listener_record_fd, listener_pair_fd};
    for (int at = 0; at < sockets; ++at) {
        keep[2 + at] = listener_first_socket_fd + at;
    }
    ccm_close_descriptors_except(keep, 2 + sockets);
    for (int fd : keep) {
        if (fd > 0) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);  // it starts no program; should it ever, these are not for it
        }
    }
}

}  // namespace

int listener_settings_check(const listener_settings& settings) {
    const bool ours = memcmp(settings.eyec, listener_record_mark, sizeof settings.eyec) == 0 &&
                      settings.size == static_cast<int32_t>(sizeof settings) &&
                      ends_inside(settings.version) && strcmp(settings.version, qx_version) == 0;
    const bool texts = ends_inside(settings.program) && ends_inside(settings.agent) &&
                       ends_inside(settings.bindaddr) && ends_inside(settings.trc_file) &&
                       ends_inside(settings.trc_trigger_text);
    return ours && texts && settings.sockets >= 1 && settings.sockets <= listener_sockets_max &&
                   settings.port > 0
               ? 0
               : -1;
}

int listener_main(int argc, char** argv) {
    if (geteuid() == 0 || geteuid() != getuid()) {
        return refuse("it never runs with root's rights");
    }
    // Another process of the same user must not get at its memory and its sockets.
    if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        return refuse(strerror(errno));
    }
    static listener_settings settings;
    if (!read_settings(&settings) || !is_socket(listener_pair_fd) || !is_socket(listener_first_socket_fd) ||
        !is_socket(listener_first_socket_fd + settings.sockets - 1)) {
        return refuse("nothing was handed over");
    }
    keep_only_own_descriptors(settings.sockets);
    close(listener_record_fd);
    process_title_prepare(argc, argv);
    process_title_set(std::string(settings.program) + listener_title_suffix);
    init_logLock();
    init_traceLock();
    init_effUserLock();
    __log_set_logger(log_dummy);
    EX_PCX* pcx = make_context(settings);
    if (pcx == nullptr) {
        return agent_child_failure;
    }
    pcx->loop = LOOP_RUNNING;
    int exit_code = agent_child_failure;
    if (open_all(pcx, settings) == 0) {
        greet(pcx);
        agent_loop(pcx);
        exit_code = exit_good;
    }
    if (pcx->ccm != nullptr) {
        ccm_thread_end(pcx->ccm);
    }
    Close_All(pcx, exit_code, 1);
    _exit(exit_code);
}
