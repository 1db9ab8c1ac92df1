// How far a transfer is, in one line of a terminal.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

// Figures and the moment at which they were told.
struct progress_sample {
    double seconds = 0;  // of any clock that never goes back
    int64_t bytes = 0;
};

struct progress_bar {
    int64_t bytes = 0;
    int64_t bytes_total = 0;
    int files = 0;
    int files_total = 0;
    std::deque<progress_sample> samples;  // of the last seconds, the oldest first
};

// Bytes per second over the samples, 0 while there are too few.
double progress_rate(const progress_bar& bar);
void progress_take(progress_bar& bar, progress_sample sample);
// The line, of at most `width` columns; parts that do not fit are left out, the bar first.
std::string progress_line(const progress_bar& bar, int width);

// "1.5 GB"; "0:07", "1:02:03".
std::string size_text(int64_t bytes);
std::string duration_text(int64_t seconds);
