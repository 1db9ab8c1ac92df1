// How long the loop may wait: until the next thing is due, so that an idle agent sleeps.
#pragma once

#include <ctime>

struct EX_PCX;

// The longest wait of an agent in seconds. What has no alarm of its own is looked at this often.
inline constexpr int loop_longest_wait = 60;

// When the loop must come by at the latest, on the alarm clock. Main thread.
time_t loop_due(EX_PCX* pcx);
