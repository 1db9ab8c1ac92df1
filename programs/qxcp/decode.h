// Shows messages and frames as JSON lines.
#pragma once

#include <string>

struct cp_decode_options {
    bool to_lan = false;  // walk as outgoing messages, else as received ones
};

// Reads `path`, or standard input when it is empty or "-". Returns the command's exit code: 0, or 1 when the
// input cannot be read or a line of it is no message.
int cp_decode(const cp_decode_options& options, const std::string& path);
