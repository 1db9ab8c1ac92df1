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
    bool plain = false;                         // without the messenger's calls
    std::vector<std::string> client_resources;  // OBJECT/NAME
    std::vector<std::string> task_resources;    // OBJECT/NAME
};

struct cp_jobs_options {
    std::vector<std::string> states;  // empty: any
    std::string agent;                // empty: any
    int last = 0;                     // 0: all
};

struct cp_exec_options {
    std::string agent;
    std::string command;
    std::string user;
    std::string password_file;
    int rows = 1000;
    int seconds = 0;  // 0: no limit but the agent's own
    int client = 100;
    bool cancel = false;  // stop command `number`, 0 for all, and run none
    int number = 0;
};

struct cp_cat_options {
    std::string agent;
    std::string file;
    std::string user;
    std::string password_file;
    std::string encoding = "raw";
    int tail = -1;      // lines, -1: not wanted
    int head = -1;      // lines, -1: not wanted
    int64_t bytes = 0;  // at most, 0: all
    int seconds = 60;   // of silence of the agent, then it is given up
};

struct cp_resource_options {
    std::string path;
    std::string object;
    std::string name;  // the file's own unless given
    bool text = false;
    int client = 100;
};

// Each returns the exit code of the command. Errors go to standard error, one line each.
int cp_console_run(const cp_console_options& options, const cp_run_options& run);
int cp_console_agents(const cp_console_options& options);
int cp_console_jobs(const cp_console_options& options, const cp_jobs_options& jobs);
int cp_console_cancel(const cp_console_options& options, int run);
int cp_console_info(const cp_console_options& options, int run);
int cp_console_report(const cp_console_options& options, int run, const std::string& match, bool tail,
                      const std::string& path);
int cp_console_exec(const cp_console_options& options, const cp_exec_options& exec);
int cp_console_resource_add(const cp_console_options& options, const cp_resource_options& resource);
int cp_console_resource_list(const cp_console_options& options);
int cp_console_cat(const cp_console_options& options, const cp_cat_options& cat);
int cp_console_shell(const cp_console_options& options, const std::string& agent, const std::string& command);
// Writes an initial package to `path`, a new file with mode 0600; empty: AGENT.package here.
int cp_console_package(const cp_console_options& options, const std::string& agent, bool company_only,
                       const std::string& path);
int cp_console_forget_key(const cp_console_options& options, const std::string& agent);
int cp_console_stop(const cp_console_options& options, const std::string& agent);
