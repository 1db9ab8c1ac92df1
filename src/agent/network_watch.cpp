#include "agent/network_watch.h"

#include <unistd.h>

#include <ctime>

#include "agent/listener.h"
#include "base/context.h"
#include "base/time.h"
#include "channels/network_thread.h"
#include "log/log.h"

namespace {

constexpr time_t quiet_before_asking = 30;
constexpr time_t last_chance = 2;  // a process that was stopped as a whole goes on with both threads

struct watch {
    unsigned long cycles = 0;
    time_t moved = 0;  // when the last cycle was seen
    time_t asked = 0;  // when one was asked for, 0: not yet
    time_t late = 0;   // when the limit was found passed, 0: not yet
};
watch state;

}  // namespace

time_t network_watch_due() {
    return state.asked == 0 ? 0 : alarm_now() + last_chance;
}

void network_watch(EX_PCX* pcx) {
    if (pcx->ccm == nullptr || pcx->ccm->thread_started.load() == 0) {
        return;
    }
    const time_t now = alarm_now();
    const unsigned long cycles = pcx->ccm->cycles.load();
    if (cycles != state.cycles || state.moved == 0) {
        state = {cycles, now, 0, 0};
        return;
    }
    const bool ending = pcx->loop != LOOP_RUNNING;
    if (state.asked == 0) {
        if (ending || now - state.moved >= quiet_before_asking) {
            state.asked = now;
            ccm_wakeup_network(pcx->ccm);
        }
        return;
    }
    const int limit = ending ? network_watch_limit_at_end : network_watch_limit;
    if (now - state.asked < limit) {
        return;
    }
    if (state.late == 0) {
        state.late = now;
        ccm_wakeup_network(pcx->ccm);
    }
    if (now - state.late < last_chance) {
        return;
    }
    __log(-1,
          "the network thread of %s has not moved for %d seconds: the process ends with code 1. Jobs go on "
          "and are found again at the next start",
          pcx->process_name, static_cast<int>(now - state.moved));
    _exit(agent_child_failure);
}
