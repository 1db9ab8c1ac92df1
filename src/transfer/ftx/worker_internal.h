// What the two halves of a worker's start share. Not for others.
#pragma once

#include "base/context.h"
#include "channels/ccm.h"

struct ftx_entry;

struct ftx_worker_plan {
    ftx_entry* entry;
    int agent_end;   // channel of the pair that stays with the agent
    int worker_end;  // and the worker's
    // The partner's channel as it was before the fork; ID 0 without one.
    ccm_channel_image_t partner;
};

// In the new process, whose one thread this is: the agent's channels, files, jobs, keys and names are left
// behind, and the network thread is started. When it returns, the process is the transfer's worker. The
// process ends when it cannot become one.
void ftx_become_worker(EX_PCX* pcx, const ftx_worker_plan& plan);
