// The commands that talk to a running server over its control socket.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct cp_console_options {
    std::string folder;  // the server's data folder
    bool json = false;   // one JSON object a line, for programs
};

struct cp_run_options {
    std::string script_path;
    std::string name;  // name of the job, the script's file name unless given
    std::string agent;
    std::string user;
    std::string password_file;
    std::string shell;
    std::string report_path;  // where the report goes; standard output unless given
    int client = 100;
    bool plain = false;  // without the messenger's calls
};

// Each returns the exit code of the command. Errors go to standard error, one line each.
int cp_console_run(const cp_console_options& options, const cp_run_options& run);
int cp_console_agents(const cp_console_options& options);
int cp_console_jobs(const cp_console_options& options);
int cp_console_cancel(const cp_console_options& options, int run);
int cp_console_info(const cp_console_options& options, int run);
int cp_console_report(const cp_console_options& options, int run, const std::string& match, bool tail,
                      const std::string& path);
int cp_console_stop(const cp_console_options& options, const std::string& agent);
