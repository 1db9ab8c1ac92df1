#include "agent/worker_process.h"

#include <string_view>

#include "agent/ipc_dispatch.h"
#include "agent/modules.h"
#include "agent/process_title.h"
#include "agent/settings.h"
#include "agent/shutdown.h"
#include "agent/timers.h"
#include "base/context.h"
#include "base/time.h"
#include "log/log.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"

namespace {

bool shutdown_put_off = false;

void leave_agent(EX_PCX* pcx) {
    forget_modules(pcx);
    timer_clearall(pcx->timer_ctx);
    shutdown_put_off = false;
}

}  // namespace

int open_transfers(EX_PCX* pcx, qx7_error* error) {
    shutdown_put_off = false;
    ftx_set_worker_rooms({leave_agent, process_title_set, ipc_logger});
    if (FTX_Open(pcx, error) != 0) {
        return -1;
    }
    char text[64];
    pcx->getProfileString(pcx, "GLOBAL", "ft_compress_strong", "10", text, sizeof text);
    ftx_glb().ft_compress_strong = settings_compress_size(text);
    ftx_glb().fgx_PwCheck = ReadLoginCheck(pcx);
    return 0;
}

bool transfers_wait(const EX_PCX*) {
    return !ftx_entries().empty() || !ftx_glb().reverse_connect_queue.empty();
}

bool shutdown_waits_for_workers(EX_PCX* pcx) {
    const int seconds = ftx_glb().ftx_delayed_shutdown;
    const int workers = ftx_get_nof_ftx_processes();
    if (pcx->running_mode != MODE_AGENT || shutdown_put_off || seconds <= 0 || workers == 0) {
        return false;
    }
    shutdown_put_off = true;
    pcx->shutdown_timer = alarm_now() + seconds;
    __log(-1,
          "the shutdown waits up to %d seconds for %d running file transfers; a second order ends it at once",
          seconds, workers);
    return true;
}

void shutdown_when_workers_ended(EX_PCX* pcx) {
    if (shutdown_put_off && pcx->loop == LOOP_RUNNING && ftx_get_nof_ftx_processes() == 0) {
        initiate_agent_shutdown(pcx);
    }
}
