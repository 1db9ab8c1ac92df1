// A PAM library that plays a script and writes down what it was asked. Tests load it and reach its state by
// dlsym.
#pragma once

#include <string>
#include <vector>

struct fake_pam_state {
    // Script: results of the calls
    int start = 0;
    int authenticate = 0;
    int acct_mgmt = 0;
    int chauthtok = 0;
    int setcred = 0;
    int open_session = 0;
    int end = 0;
    // Script: styles of the messages of one conversation in authenticate; none: it never asks
    std::vector<int> styles;
    bool asks_in_chauthtok = false;
    bool changes_groups = false;  // authenticate leaves the process with groups of its own
    std::vector<std::string> environment;

    // What happened
    std::vector<std::string> calls;
    std::vector<std::string> answers;  // of all conversations, "-" for none
    int conversation_result = -1;
    int end_status = -1;
    int open_handles = 0;
    int sleeps = 0;  // delays of the library's own after a failure
    std::string service;
};

inline constexpr char fake_pam_symbol[] = "fake_pam_script";  // fake_pam_state* fake_pam_script()
