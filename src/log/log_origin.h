// Marks lines that another process of the agent's family wrote: whoever reads the log must see what a process
// that strangers may take over says, and what the agent itself says.
#pragma once

#include <string_view>

// While it stands, each line that this thread writes to the log ends with " [origin]". `origin` is a
// constant.
struct log_origin_mark {
    explicit log_origin_mark(std::string_view origin);
    ~log_origin_mark();
    log_origin_mark(const log_origin_mark&) = delete;
    log_origin_mark& operator=(const log_origin_mark&) = delete;
};

// " [origin]" of this thread, or empty.
std::string_view log_origin();
