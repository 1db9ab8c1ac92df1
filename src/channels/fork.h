// What a forked child does with the channels that it inherited. The child has one thread; it drops what isn't
// its own: descriptors are closed and contexts wiped, but records and messages are forgotten, not freed,
// since the parent's network thread may just have been changing one.
#pragma once

#include "channels/ccm.h"

// Keeps the channels with these IDs and drops all others, all queues and the wake-up pipes; no CHANNEL_CLOSE
// is posted. `keep_buffer_id`: the channel whose received bytes count (0: none); the others' are forgotten.
// Called in the child after the locks were made new and before ccm_thread_start.
void ccm_child_keep_channels(ccm_context_t* ccm, const int* keep_ids, int count, int keep_buffer_id);

// Closes every descriptor from 3 up that isn't in `keep`.
void ccm_close_descriptors_except(const int* keep, int count);
// Lets every descriptor from 3 up that isn't in `keep` lead to /dev/null. Unlike a closed one it keeps its
// number, so that who owned it in the parent may close it here at any time.
void ccm_blind_descriptors_except(const int* keep, int count);
