// Calls of the system that failed: the reason in words, and the insert that names call, file and reason.
#pragma once

#include <string>
#include <string_view>

#include "base/error.h"

// The system's text for an errno; the same on every thread and in a forked child.
std::string error_text(int error_number);

// "<call>|<errno>|<text>|"
std::string call_insert(std::string_view call, int error_number);
// "<call>|<what>|<errno>|<text>|", where `what` is the file, or what else the call was for.
std::string call_insert(std::string_view call, std::string_view what, int error_number);

// Fills `error` (null allowed) with number_system_call and the first of them. -1; errno is `error_number`.
int call_error(qx7_error* error, std::string_view call, int error_number);
// The same with number_file_call and the second.
int file_error(qx7_error* error, std::string_view call, std::string_view file, int error_number);
