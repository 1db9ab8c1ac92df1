#include "agent/waiting.h"

#include <algorithm>

#include "agent/cp_search.h"
#include "agent/network_watch.h"
#include "agent/server_connection.h"
#include "agent/timers.h"
#include "agent/worker_process.h"
#include "base/context.h"
#include "base/time.h"
#include "channels/ccm.h"
#include "jobs/job_table.h"
#include "log/log.h"
#include "retrieval/file_retrieval.h"
#include "transfer/legacy/module.h"

namespace {

// In states that other threads or a lost event may change without a word.
constexpr int short_wait = 5;

struct earliest {
    time_t at;

    void take(time_t due) { at = std::min(at, due); }
    void take_armed(time_t alarm) {
        if (alarm != 0) {
            take(alarm);
        }
    }
};

// The periodic checks find something only where there is something to check.
bool something_to_check(EX_PCX* pcx) {
    return jpGetJobCount() > 0 || get_fileReqCount(pcx) > 0 || FT_IsActive() || transfers_wait(pcx);
}

bool lines_wait_for_server(const EX_PCX* pcx) {
    constexpr int logged_on = PCX_FLAG_SERVER_CHANNEL | PCX_FLAG_LOGGED_IN;
    return (pcx->pcx_flag & logged_on) == logged_on && pcx->waitForChglogQu <= 0 && pcx->LogBuffRecNr > 0;
}

void look_at_server(EX_PCX* pcx, time_t now, earliest* due) {
    const int flags = pcx->pcx_flag;
    if ((flags & PCX_FLAG_SERVER_CHANNEL) != 0) {
        due->take_armed(server_connection_due(pcx));
    } else if ((flags & PCX_FLAG_CP_SEARCH) != 0 || cp_handshake_under_way(pcx)) {
        due->take(now + short_wait);
    } else if ((flags & PCX_FLAG_LISTENER_READY) != 0) {
        due->take(pcx->Srv_alarm_time);
    }
}

// The age of the log follows the clock on the wall.
void look_at_log(const EX_PCX* pcx, time_t now, earliest* due) {
    if (lines_wait_for_server(pcx)) {
        due->take(pcx->Log_alarm_time);
    }
    if (pcx->pcx_chglogIntvl > 0) {
        due->take(now + ZULOGG_GetLogFileStartTime(pcx->logHnd) + pcx->pcx_chglogIntvl + 1 - time(nullptr));
    }
}

void look_at_agent(EX_PCX* pcx, time_t now, earliest* due) {
    if (something_to_check(pcx)) {
        due->take(pcx->timer_global);
    }
    due->take_armed(pcx->fsh_alarmTime);
    due->take_armed(pcx->Cmd_alarm_time);
    if (pcx->listener_pid == 0) {
        due->take(pcx->listener_alarm_time);
    }
    look_at_server(pcx, now, due);
    look_at_log(pcx, now, due);
}

}  // namespace

time_t loop_due(EX_PCX* pcx) {
    const time_t now = alarm_now();
    earliest due{now + loop_longest_wait};
    if (pcx->loop != LOOP_RUNNING) {
        due.take(now + short_wait);
    } else if (pcx->running_mode == MODE_AGENT) {
        look_at_agent(pcx, now, &due);
    } else if (pcx->running_mode == MODE_FTX) {
        due.take(pcx->timer_global);
    }
    due.take_armed(pcx->shutdown_timer);
    due.take_armed(timer_next(pcx->timer_ctx));
    due.take_armed(ccm_channel_next_timeout(pcx->ccm));
    due.take_armed(network_watch_due());
    return due.at;
}
