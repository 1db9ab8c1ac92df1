// What the files of the log share: log_file.cpp (opening), log_lines.cpp (writing), log_memory.cpp (the copy
// that waits for the server) and log_generations.cpp. All of it under the log lock, but for one.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include "base/obstacles.h"
#include "log/log.h"

inline constexpr size_t log_longest_line = log_line_size - 1;

inline bool is_log(const _pzulogg* handle) {
    return handle != nullptr && memcmp(handle->id, "%LOG", 4) == 0;
}

// Time stamp, " - " and the thread column; the length of the stamp part goes to *stamp_length.
std::string INT_Header(const _pzulogg* handle, size_t* stamp_length);
// Appends a line to the copy in memory; the oldest goes when there are too many.
void Put_MsgBuff(_pzulogg* handle, std::string_view text);
// ZULOGG_Reorg, which tells in `moved` what a stranger had left under the name of the oldest generation. The
// log lock is not needed.
int log_move_generations(char* filename, size_t size, int count, moved_obstacle* moved);
// Opens the file again when it could not be opened and a minute has passed since.
void log_retry_open(_pzulogg* handle);
// Says on standard error that the log cannot be opened. -1 with errno kept.
int log_note_open_error(_pzulogg* handle);
