// How many log lines strangers may cause: a stock that refills with time. Who can open connections as fast as
// he likes must not fill the agent's disk with what is said about them.
#pragma once

#include <ctime>
#include <mutex>

// Any thread. Nobody holds a spin lock here.
struct line_budget {
    const int most;        // lines in the full stock
    const int per_second;  // that come back
    std::mutex lock{};
    int left = most;
    time_t last = 0;
    int dropped = 0;

    // Whether one more line may be written at `now` (alarm clock). `*dropped_before` is how many were not
    // since the last that was, 0 when this one is not written either.
    bool take(time_t now, int* dropped_before);
};
