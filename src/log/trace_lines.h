// What the trace's file and its ring share: the forms of their lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "log/trace.h"

inline constexpr char trace_default_name[] = "trace-%s.txt";

struct trace_guard {
    trace_guard() { set_traceLock(); }
    ~trace_guard() { reset_traceLock(); }
    trace_guard(const trace_guard&) = delete;
    trace_guard& operator=(const trace_guard&) = delete;
};

// Who wrote a line, and when.
struct trace_line_head {
    bool main_thread;
    uint64_t thread;
    char time[32];
};

bool is_trace(const _pzutrace* handle);
trace_line_head current_trace_head();
std::string trace_head_text(const trace_line_head& head);
// Both end their lines with LF. `data` are the bytes shown for `shown_address`.
std::string trace_text_line(const trace_line_head& head, std::string_view text);
std::string trace_dump_lines(const trace_line_head& head, std::string_view title, const void* shown_address,
                             const void* data, size_t length);
// Creates the file if there is none and writes the lines in one piece; 0 or -1. The lock is held.
int trace_write(PZUTRACE handle, std::string_view lines);
