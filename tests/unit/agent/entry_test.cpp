#include "agent/entry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct command_line {
    std::vector<const char*> arguments;
    entry_request request;
};

TEST(entry, takes_help_before_the_count_and_the_count_before_the_version) {
    const std::vector<command_line> lines = {
        {{"agent"}, entry_request_run},
        {{"agent", "my.ini"}, entry_request_run},
        {{"agent", "?"}, entry_request_help},
        {{"agent", "-hElP"}, entry_request_help},
        {{"agent", "hel"}, entry_request_help},
        {{"agent", "--help"}, entry_request_long_help},
        {{"agent", "check"}, entry_request_check},
        {{"agent", "check", "ini=a"}, entry_request_check},
        {{"agent", "check", "ini=a", "b"}, entry_request_wrong},
        {{"agent", "ini=check"}, entry_request_run},
        {{"agent", "encipher"}, entry_request_encipher},
        {{"agent", "-help", "more"}, entry_request_help},
        {{"agent", "helpme"}, entry_request_run},
        {{"agent", "-v"}, entry_request_version},
        {{"agent", "-V/tmp/file"}, entry_request_version},
        {{"agent", "-V", "more"}, entry_request_wrong},
        {{"agent", "a", "b"}, entry_request_wrong},
    };
    for (const command_line& line : lines) {
        const int argc = static_cast<int>(line.arguments.size());
        EXPECT_EQ(entry_classify(argc, line.arguments.data()), line.request)
            << line.arguments[line.arguments.size() - 1];
    }
}

TEST(entry, keeps_the_case_of_an_ini_name_behind_its_prefix) {
    const std::vector<std::pair<const char*, const char*>> names = {
        {"INI=Dir/My.INI", "Dir/My.INI"},
        {"-iMy.ini", "My.ini"},
        {"-I/x/Y", "/x/Y"},
        {"My.Ini", "My.Ini"},
        {"ini=", ""},
    };
    for (const auto& [argument, expected] : names) {
        const char* argv[] = {"agent", argument};
        char name[64];
        ASSERT_EQ(entry_ini_name(2, argv, "/opt/agent", name, sizeof name), 0);
        EXPECT_STREQ(name, expected);
    }
    const char* alone[] = {"agent"};
    char name[64];
    ASSERT_EQ(entry_ini_name(1, alone, "/opt/agent", name, sizeof name), 0);
    EXPECT_STREQ(name, "/opt/agent.ini");
    EXPECT_EQ(entry_ini_name(1, alone, std::string(70, 'x').c_str(), name, sizeof name), -1);
}

}  // namespace
