// What comes by the clock: the worker's report and status, and transfers that wait in the agent.
#include "base/context.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"

namespace {

void free_deleted() {
    ftx_entries().remove_if([](const auto& entry) { return entry->has(FTX_DELETED); });
}

}  // namespace

int perform_ftx_check(EX_PCX* pcx, ccm_msg_t*, int) {
    if (pcx->running_mode == MODE_AGENT) {
        free_deleted();
        ftx_check_waiting_orders(pcx);
        return 0;
    }
    ftx_periodical_report_check(pcx);
    ftx_periodical_status_check(pcx);
    return 0;
}
