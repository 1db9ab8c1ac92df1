#include "agent/shutdown.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "agent/cp_search.h"
#include "agent/listener.h"
#include "agent/log_stream.h"
#include "agent/modules.h"
#include "agent/server_connection.h"
#include "agent/signals.h"
#include "agent/timers.h"
#include "agent/worker_process.h"
#include "base/context.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "channels/network_thread.h"
#include "identity/pam.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/conversion.h"
#include "messages/frame.h"
#include "security/key_store.h"

namespace {

constexpr int exit_code_upgrade = 248;

// The process ends because it cannot do its work.
bool failed = false;
// The time that draining began: a channel that was quiet before gets the whole limit.
time_t drain_start = 0;
// Passes in which the loop does not wait for its usual time, since a few cycles of the network thread mostly
// suffice.
constexpr int quick_passes = 50;
constexpr int quick_pass_ms = 100;
int drain_passes = 0;

void drain(EX_PCX* pcx) {
    if (ccm_is_all_sendq_empty(pcx->ccm) != 0) {
        pcx->loop = LOOP_LEAVE;
        return;
    }
    if (drain_start == 0) {
        drain_start = alarm_now();
    }
    if (drain_passes < quick_passes) {
        ++drain_passes;
        ccm_network_sync(pcx->ccm, quick_pass_ms);
        ccm_wakeup_processor(pcx->ccm);
    }
    // A child, partner or caller that takes nothing must not hold the process for ever, whatever it sends
    // itself. The server channel has no limit of its own: the keep-alive bounds it.
    const time_t limit = alarm_now() - drain_silence_limit;
    if (drain_start < limit && pcx->running_mode == MODE_FTX) {
        pcx->loop = LOOP_LEAVE;  // also when its partner takes a little now and then
        return;
    }
    if (drain_start < limit) {
        for (const int type : {CH_TYPE_AGENT, CH_TYPE_IPC, CH_TYPE_ACCEPTED}) {
            ccm_channel_give_up_stuck(pcx->ccm, type, limit);
        }
    }
}

void say_goodbye(EX_PCX* pcx) {
    // A candidate that answers or shakes hands from here on would log on an agent that has said good bye.
    cp_search_end(pcx, 0);
    listener_shutdown(pcx);
    send_log2server(pcx, log_blocks_at_end);
    send_exstop(pcx);
    pcx->loop = LOOP_DRAIN;
}

void close_channels(EX_PCX* pcx) {
    ccm_context_t* ccm = pcx->ccm;
    if (ccm == nullptr) {
        return;
    }
    // Out of reach first: a signal handler would wake the loop through it, and the listener mostly ends in
    // this very moment.
    pcx->ccm = nullptr;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    ccm_error_t error;
    ccm_channel_closeall(ccm);
    ccm_close(ccm, &error);
}

void log_the_end(const EX_PCX* pcx, int exit_code) {
    __log(number_agent_shutdown, "%s|", pcx->exName);
    const bool normal = exit_code == 0 || exit_code == exit_code_upgrade;
    __log(normal ? number_agent_ended : number_agent_ended_abnormally, "%s|%s|", pcx->exName, pcx->exVers);
}

void unload_pam(EX_PCX* pcx) {
    if (pcx->pam_handle != nullptr) {
        unloadDLL(pcx, pcx->pam_handle, pcx->pcx_PamLibrary, nullptr);
        pcx->pam_handle = nullptr;
    }
}

}  // namespace

int initiate_agent_shutdown(EX_PCX* pcx) {
    if (pcx->loop == LOOP_RUNNING && shutdown_waits_for_workers(pcx)) {
        return 0;
    }
    int expected = LOOP_RUNNING;
    if (!pcx->loop.compare_exchange_strong(expected, LOOP_STOP_WANTED)) {
        return 0;
    }
    __log(number_process_shutdown, "%s|%i", pcx->process_name, static_cast<int>(getpid()));
    if (pcx->ccm != nullptr) {
        ccm_wakeup_network(pcx->ccm);
    }
    return 0;
}

int initiate_agent_failure(EX_PCX* pcx) {
    if (pcx->loop == LOOP_RUNNING) {
        failed = true;
    }
    return initiate_agent_shutdown(pcx);
}

int agent_end_code(const EX_PCX* pcx) {
    return failed ? 1 : pcx->upgrade_exit_code;
}

int shutdown_in_progress(EX_PCX* pcx) {
    switch (pcx->loop) {
        case LOOP_STOP_WANTED:
            pcx->loop = pcx->running_mode == MODE_AGENT ? LOOP_FAREWELL : LOOP_DRAIN;
            ccm_wakeup_processor(pcx->ccm);  // the next pass comes at once
            break;
        case LOOP_FAREWELL:
            say_goodbye(pcx);
            ccm_wakeup_processor(pcx->ccm);
            break;
        case LOOP_DRAIN:
            drain(pcx);
            break;
        default:
            break;
    }
    return 0;
}

void Close_All(EX_PCX* pcx, int exit_code, int close_ccm) {
    if (pcx == nullptr) {
        return;
    }
    if (pcx->running_mode != MODE_AGENT) {
        __log_set_logger(log_dummy);
    }
    close_modules(pcx);
    if (pcx->timer_ctx != nullptr) {
        timer_close(&pcx->timer_ctx);
    }
    if (close_ccm != 0) {
        close_channels(pcx);
    }
    log_the_end(pcx, exit_code);
    unload_pam(pcx);
    if (pcx->pcx_hTcpMsg != nullptr) {
        TcpMsg_Close(pcx->pcx_hTcpMsg);
        pcx->pcx_hTcpMsg = nullptr;
    }
    GssClose();
    signal_close(pcx, nullptr);
    msgconv_close();
    LOG_FreeMsgStack(pcx);
    if (pcx->trcHnd != nullptr) {
        if (pcx->logHnd != nullptr) {
            ZULOGG_Trace(pcx->logHnd, nullptr);
        }
        ZUTRACE_Close(pcx->trcHnd);
        pcx->trcHnd = nullptr;
    }
    destroy_traceLock();
    if (pcx->logHnd != nullptr) {
        CloseLogFile(pcx);
        DeleteLogHandle(pcx);
    }
    if (pcx->hlpHnd != nullptr) {
        ZUHELP_Close(pcx->hlpHnd);
        pcx->hlpHnd = nullptr;
    }
    destroy_logLock();
    destroy_effUserLock();
    freePcx();
}

void ExitCall(const char* call, const char* text, int error_number) {
    EX_PCX* pcx = GlbPcx;
    if (pcx != nullptr) {
        __log(number_cannot_continue, "%s|%s|%d|", call, text, error_number);
    }
    if (std::string_view(call) == "calloc") {
        abort();  // memory is gone, nothing can be closed in order
    }
    // The context is freed below, and the network thread works with it.
    constexpr int seconds_for_thread = 5;
    if (!on_main_thread() || (pcx != nullptr && !ccm_thread_end_within(pcx->ccm, seconds_for_thread))) {
        _exit(1);
    }
    const bool child = pcx != nullptr && pcx->running_mode != MODE_AGENT;
    Close_All(pcx, 1, 0);
    if (child) {
        _exit(1);  // exit functions and streams are the parent's
    }
    exit(1);
}

void freePcx() {
    EX_PCX* pcx = GlbPcx;
    GlbPcx = nullptr;
    if (pcx == nullptr) {
        return;
    }
    free(pcx->pcx_agent_gids);
    free(pcx->pcx_pIPList);
    free(pcx->trc_trigger_text);
    delete pcx;
}
