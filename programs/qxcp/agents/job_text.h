// The text that the server puts around a script, so that the job messenger tells of its begin and end.
#pragma once

#include <string>
#include <string_view>

struct cp_wrap_options {
    std::string messenger;  // full path of the messenger on the agent's host
    std::string address;    // host of the agent's listener
    int port = 0;           // its port
    int run = 0;
    int client = 0;
    std::string agent;
    std::string shell;  // name of the shell that runs the job: decides the wrapping's language
};

// The script between the messenger's calls, lines ended by CR LF as a job's text travels. The return code
// told to the messenger is the script's own, also where the script ends by `exit`. A shell of the C family
// knows no exit trap: a script that ends early there is closed by its exit code alone.
std::string cp_wrap_script(std::string_view script, const cp_wrap_options& options);

// The shell named in the script's first line ("#!/bin/bash -e" gives "bash"), or nothing.
std::string cp_shell_of_script(std::string_view script);

// Lines ended by CR LF, whatever they ended with before.
std::string cp_to_crlf(std::string_view text);
