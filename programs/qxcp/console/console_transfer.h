// `qxcp transfer` and what goes with it.
#pragma once

#include <string>

#include "console.h"

// 0: all files are over; console_exit_failure and console_exit_no_server for what the console itself meets.
enum transfer_exit : int {
    transfer_exit_failed = 3,     // ended, with errors
    transfer_exit_cancelled = 4,  // by order
    transfer_exit_refused = 5,    // never began, or no agent knows it any more
};

struct cp_transfer_options {
    std::string source;       // AGENT:PATH
    std::string destination;  // AGENT:PATH
    std::string source_user, destination_user;
    std::string source_password_file, destination_password_file;
    std::string source_attributes, destination_attributes;
    bool text = false, subfolders = false, erase = false, abort_on_error = false;
    bool reverse = false, legacy = false;
    int wildcard = -1;  // 0 no, 1 yes, -1 as the path says
    std::string compress = "no";
    std::string overwrite = "no";
    std::string coding = "utf8";
    std::string line_end;  // of the destination's text: "lf", "crlf", "none", empty: lf
    bool strip_cr = false;
    int record_length = 0;
    int client = 100;
    bool restarts = false;
    int restart = 0;  // the run that goes on, 0: the newest between the two paths
    bool quiet = false;
};

int cp_console_transfer(const cp_console_options& options, const cp_transfer_options& transfer);
int cp_console_transfers(const cp_console_options& options, const std::string& agent, int last);
int cp_console_transfer_report(const cp_console_options& options, int run, bool watch);
int cp_console_transfer_cancel(const cp_console_options& options, int run);

struct cp_dir_options {
    std::string agent;
    std::string mask;
    std::string user;
    std::string password_file;
    bool folders = false;
};
int cp_console_dir(const cp_console_options& options, const cp_dir_options& dir);
