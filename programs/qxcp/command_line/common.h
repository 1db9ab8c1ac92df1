// A command of the program: a row that brings its name, its help, its options and what it does. Each file
// here holds the rows of one group.
#pragma once

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "qxcp/console/console.h"

inline constexpr int exit_usage = 64;

// Carries a command out once the command line is read; the exit code.
using command_action = std::function<int()>;

struct command_row {
    const char* name;
    const char* help;
    // Adds the command's options, whose values the action owns. `console` outlives both.
    command_action (*add)(CLI::App* command, cp_console_options& console);
};

// In the order in which the help lists them.
std::span<const command_row> server_commands();
std::span<const command_row> job_commands();
std::span<const command_row> agent_commands();
std::span<const command_row> host_commands();
std::span<const command_row> transfer_commands();
std::span<const command_row> protocol_commands();

// Adds rows to `app`. The action carries out the one of them that was given, of which there must be one.
command_action add_commands(CLI::App* app, std::span<const command_row> rows, cp_console_options& console);
// Options of every command that talks to a server: --data and --json.
void add_common_options(CLI::App* command, cp_console_options& console);
// A whole number from `low` to `high`, told in these words when it is none.
CLI::Validator whole_number(int64_t low, int64_t high = INT_MAX);
// The name of the user that runs the program.
std::string own_user();
// The data folder where none is given.
std::string default_folder();
