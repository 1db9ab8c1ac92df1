// What the console's commands share: the line to the server, one request with one answer, tables.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "console.h"

inline constexpr int console_exit_failure = 1;
inline constexpr int console_exit_no_server = 2;

// Tells `text` on standard error; returns console_exit_failure.
int console_fail(const std::string& text);

// One connection to the server: lines of JSON both ways.
struct control_line {
    int fd = -1;
    std::string buffer;

    control_line() = default;
    control_line(const control_line&) = delete;
    control_line& operator=(const control_line&) = delete;
    ~control_line();
};

// False after an error, which has been told.
bool control_connect(control_line& line, const std::string& folder);
bool control_send(const control_line& line, const nlohmann::json& request);
// The next line, or nothing at the connection's end. `signal_fd`, when not negative, ends the wait too and
// sets
// `interrupted`.
std::optional<nlohmann::json> control_receive(control_line& line, int signal_fd, bool& interrupted);

// From now on an interrupt is read from the descriptor that is returned.
int console_block_interrupt();
// Asks on the terminal. A second Ctrl-C, and no answer, set `leave`.
bool console_wants_cancel(const std::string& question, int signal_fd, bool& leave);
// The first line of the file, empty without a file. Nothing after an error, which has been told.
std::optional<std::string> console_password(const std::string& path);

// Shows how much of a report has come, on a terminal. False when the line tells something else.
bool console_progress(const nlohmann::json& line);

// A request with one answer; progress on the way to it is shown. Nothing after an error, which has been told;
// `exit_code` is the command's.
std::optional<nlohmann::json> console_ask(const cp_console_options& options, const nlohmann::json& request,
                                          int& exit_code);
// One object a line.
void console_lines(const nlohmann::json& rows);
// Rows of objects under the titles of their columns.
void console_table(const nlohmann::json& rows,
                   const std::vector<std::pair<const char*, const char*>>& columns);
