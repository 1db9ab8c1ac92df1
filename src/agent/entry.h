// The entry of the agent process: command line, INI file, context, modules, loop and end.
// Everything here runs on the main thread.
#pragma once

struct EX_PCX;

inline constexpr int agent_exit_normal = 0;
inline constexpr int agent_exit_failure = 1;
inline constexpr int agent_exit_upgrade = 248;

// What the command line asks for.
enum entry_request {
    entry_request_run,        // run the agent with the INI file that the line names, or with the default one
    entry_request_help,       // usage text, exit code 0
    entry_request_long_help,  // what the program is and takes, exit code 0
    entry_request_check,      // look at all that a start needs, without starting
    entry_request_encipher,   // encipher a text for a setting
    entry_request_version,    // version text into a file or to standard output, exit code 0
    entry_request_wrong       // more arguments than the form takes
};

// Classifies the command line. Help is looked at before the count of arguments, the version form after it.
// "check" and "encipher" are commands, not INI files of these names.
entry_request entry_classify(int argc, const char* const* argv);

// The INI file as it was named: "-i<file>", "ini=<file>" or the whole argument; the prefix is compared
// without regard to case, the name keeps its own. Without an argument the program path plus ".ini". Writes at
// most `size` bytes with the closing zero; -1 when the name does not fit.
int entry_ini_name(int argc, const char* const* argv, const char* program_path, char* out, unsigned size);

// The whole life of an agent process, and of the children that are forked from its loop. Returns the exit
// code.
int agent_main(int argc, char** argv);
