// The lines of `qxxjlnx check`.
#pragma once

#include <cstdio>
#include <string>

enum check_result : unsigned char { CHECK_OK, CHECK_WARNING, CHECK_FAILED };

struct check_report {
    FILE* out;
    bool failed = false;
};

void check_say(check_report* report, check_result result, const char* subject, const std::string& text);
