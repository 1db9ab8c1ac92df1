// What a call of the job messenger was asked to do. All texts are views into the program's arguments, or into
// the request itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr int exit_ok = 0;
inline constexpr int exit_usage = 1;
inline constexpr int exit_unreachable = 2;

enum command_kind {
    command_none,
    command_start,
    command_end,
    command_status,
    command_restart,
    command_variable,
    command_file
};

struct request {
    const char* address = "localhost";
    const char* port = nullptr;  // as it was given
    uint16_t port_number = 0;
    const char* agent = "the agent";
    int run = 0;
    uint16_t client = 0;
    command_kind command = command_none;
    const char* command_name = "";
    std::string_view operands[2];  // of a variable: name and value; of a file: its absolute name
    size_t operand_count = 0;      // all that were given, also those without a place
    bool has_retcode = false;
    int retcode = 0;
    std::string_view text;
    std::string_view mark;
    char type = ' ';
    char login_check = 'Y';
    char path[512] = {};  // of a file whose name was given relative
};

bool wants_help(int argc, char** argv);
void print_help();
// Fills the request. exit_ok, or exit_usage with one line on standard error. The arguments must outlive the
// request.
int read_arguments(int argc, char** argv, request* order);
