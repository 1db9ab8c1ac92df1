// What is traced, and whether it is: the guard stands below the trace, so that every floor can ask it.
#pragma once

#include <atomic>

#include "base/context.h"

// Positions in EX_PCX::trcFlgs.
enum trc_area : int {
    TRC_TCPIP = 0,
    TRC_FT = 1,
    TRC_JOB = 2,
    TRC_EX_INIT = 3,
    TRC_SIGNAL = 4,
    TRC_EVENT = 5,
    TRC_MAIL = 6,
    TRC_VAR = 7,
    TRC_LOG = 8,
    TRC_GETFILE = 9,
    TRC_ZU = 10,
    TRC_DNST = 11,
    TRC_FILE = 12,
    TRC_MEMORY = 13,
};
inline constexpr int trc_area_count = 14;

// Level of an area as a digit, '0' when there is no context. Any thread; one load and one comparison.
inline char trc_level(trc_area area) {
    const EX_PCX* pcx = GlbPcx;
    return pcx == nullptr ? '0' : pcx->trcFlgs[area].load(std::memory_order_relaxed);
}

// Guard of every trace call: `if (trc_on(TRC_TCPIP)) { _TraceText(…); }`.
inline bool trc_on(trc_area area, char level = '1') {
    return trc_level(area) >= level;
}
