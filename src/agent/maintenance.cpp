#include "agent/maintenance.h"

#include <algorithm>
#include <cerrno>

#include "agent/cp_search.h"
#include "agent/listener.h"
#include "agent/log_stream.h"
#include "agent/network_watch.h"
#include "agent/rollback_folder.h"
#include "agent/server_connection.h"
#include "agent/shutdown.h"
#include "agent/signals.h"
#include "agent/worker_process.h"
#include "base/context.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "identity/user_files.h"
#include "jobs/commands.h"
#include "jobs/job_table.h"
#include "log/log.h"
#include "log/trace.h"
#include "reports/reports.h"
#include "retrieval/file_retrieval.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/store.h"
#include "transfer/legacy/module.h"

namespace {

constexpr int check_period = 10;
constexpr int exit_code_upgrade = 248;

void stream_log(EX_PCX* pcx, time_t now) {
    if (pcx->Log_alarm_time > now) {
        return;
    }
    pcx->Log_alarm_time = now + std::max(pcx->Per_Report, 1);
    const bool logged_in = (pcx->pcx_flag & PCX_FLAG_LOGGED_IN) != 0;
    if (logged_in && ccm_channel_existbyName(pcx->ccm, ccm_name_server) != 0) {
        send_log2server(pcx, log_blocks_each_turn);
    }
}

// A post without memory is not tested: the next cycle posts again.
void post_checks(EX_PCX* pcx, time_t now) {
    if (pcx->timer_global > now) {
        return;
    }
    pcx->timer_global = now + check_period;
    send_IPC_internal_name(pcx->ccm, ipc_jobchk);
    send_IPC_internal_name(pcx->ccm, ipc_ft_chk);
    send_IPC_internal_name(pcx->ccm, ipc_ioschk);
    close_idle_reports(pcx);
    close_old_folders();
    rb_maintenance(pcx, time(nullptr));
    check_fileReqTimeout(pcx);
    if (const time_t due = ss_cleanup_due(); due != 0 && due <= pcx->UB_Time) {
        ss_ftxCleanup(pcx, ftx_glb().ft_rst_life, nullptr);
    }
}

void post_when_due(EX_PCX* pcx, time_t* alarm, time_t now, const char* record) {
    if (*alarm != 0 && *alarm <= now) {
        *alarm = 0;
        send_IPC_internal_name(pcx->ccm, record);
    }
}

void find_server(EX_PCX* pcx, time_t now) {
    const int flags = pcx->pcx_flag;
    if ((flags & PCX_FLAG_CP_SEARCH) != 0) {
        cp_search_check(pcx);
        return;
    }
    if ((flags & PCX_FLAG_SERVER_CHANNEL) != 0) {
        return;
    }
    if ((flags & PCX_FLAG_LOGGED_IN) != 0) {
        pcx->pcx_flag.fetch_and(~PCX_FLAG_LOGGED_IN);
        // At once, but not twice in one second: a server that takes each logon and hangs up would otherwise
        // be called as fast as it answers.
        pcx->Srv_alarm_time = cp_search_last_start() + 1;
    }
    const bool ready = (flags & PCX_FLAG_LISTENER_READY) != 0;
    if (pcx->Srv_alarm_time <= now && ready && !cp_handshake_under_way(pcx)) {
        qx7_error error;
        if (server_connection_start(pcx, &error) < 0) {
            __log_error(error);
        }
    }
}

// An upgrade waits for the moment in which nothing would be interrupted.
void restart_when_quiet(EX_PCX* pcx) {
    if (pcx->upgrade_exit_code == exit_code_upgrade && getCommandCount() == 0 && jpGetJobCount() == 0 &&
        get_fileReqCount(pcx) == 0 && ftx_get_nof_ftx_processes() == 0 && !transfers_wait(pcx) &&
        !FT_IsActive()) {
        initiate_agent_shutdown(pcx);
    }
}

}  // namespace

int maintenance_common(EX_PCX* pcx) {
    switch (pcx->running_mode) {
        case MODE_AGENT:
            maintenance_agent(pcx);
            break;
        case MODE_LISTENER:
            maintenance_listener(pcx);
            break;
        default:
            maintenance_ftx(pcx);
            break;
    }
    if (pcx->shutdown_timer != 0 && pcx->shutdown_timer <= alarm_now() && pcx->loop == LOOP_RUNNING) {
        pcx->loop = LOOP_STOP_WANTED;
    }
    check_channel_timeout(pcx);
    network_watch(pcx);
    if ((pcx->pcx_todo_flag.fetch_and(~PCX_TODO_TRACE_FILE) & PCX_TODO_TRACE_FILE) != 0) {
        ChangeTraceFile(pcx->trcHnd, nullptr);
    }
    if (pcx->flag_signal != 0) {
        maintenance_signals(pcx);
    }
    if (pcx->loop != LOOP_RUNNING) {
        shutdown_in_progress(pcx);
    }
    return 0;
}

int maintenance_agent(EX_PCX* pcx) {
    const time_t now = alarm_now();
    const bool running = pcx->loop < LOOP_STOP_WANTED;
    if (running) {
        stream_log(pcx, now);
    }
    post_checks(pcx, now);
    post_when_due(pcx, &pcx->fsh_alarmTime, now, ipc_fhchk);
    post_when_due(pcx, &pcx->Cmd_alarm_time, now, ipc_cmd_chk);
    if (running) {
        find_server(pcx, now);
    }
    if ((pcx->pcx_flag & PCX_FLAG_SERVER_CHANNEL) != 0) {
        maintenance_server_connection(pcx);
    }
    if (!running) {
        return 0;
    }
    if (pcx->listener_alarm_time <= now) {
        maintenance_listener_process(pcx);
    }
    restart_when_quiet(pcx);
    shutdown_when_workers_ended(pcx);
    check_log_change(pcx);
    return 0;
}

int maintenance_listener(EX_PCX*) {
    return 0;
}

int maintenance_ftx(EX_PCX* pcx) {
    const time_t now = alarm_now();
    if (pcx->timer_global <= now) {
        pcx->timer_global = now + check_period;
        send_IPC_internal_name(pcx->ccm, ipc_ftxchk);
    }
    return 0;
}

int check_channel_timeout(EX_PCX* pcx) {
    return ccm_channel_check_timeouts(pcx->ccm, alarm_now());
}
