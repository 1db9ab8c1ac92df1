// What the groups of commands share. Each group is a record whose constructor adds its commands to the
// program, and whose `run` carries out the one that was given and returns its exit code, or nothing when it
// was none of them.
#pragma once

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdint>
#include <optional>
#include <string>

#include "qxcp/console.h"

inline constexpr int exit_usage = 64;

// Options of every command that talks to a server: --data and --json.
void add_common_options(CLI::App* command, cp_console_options& console);
// A whole number from `low` to `high`, told in these words when it is none.
CLI::Validator whole_number(int64_t low, int64_t high = INT_MAX);
// The name of the user that runs the program.
std::string own_user();
// The data folder where none is given.
std::string default_folder();
