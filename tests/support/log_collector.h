// The log lines of the test's own process, in the order in which its threads write them.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

struct log_line {
    int number;
    std::string insert;
};

inline std::mutex log_lines_lock;
inline std::vector<log_line> log_lines;

// For __log_set_logger and for the conversion.
inline void collect_line(int number, const char* insert) {
    const std::lock_guard guard(log_lines_lock);
    log_lines.push_back({number, insert == nullptr ? "" : insert});
}

inline void forget_lines() {
    const std::lock_guard guard(log_lines_lock);
    log_lines.clear();
}

inline int logged_count(int number) {
    const std::lock_guard guard(log_lines_lock);
    return static_cast<int>(std::count_if(log_lines.begin(), log_lines.end(),
                                          [number](const log_line& line) { return line.number == number; }));
}

// The inserts of the first line with that number; empty without one.
inline std::string logged_text(int number) {
    const std::lock_guard guard(log_lines_lock);
    const auto found = std::find_if(log_lines.begin(), log_lines.end(),
                                    [number](const log_line& line) { return line.number == number; });
    return found == log_lines.end() ? "" : found->insert;
}
