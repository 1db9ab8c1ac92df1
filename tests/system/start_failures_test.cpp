// What ends the agent at its start, and what it says then: exit code 1 and a line that names the key or the
// call.
#include <signal.h>
#include <sys/stat.h>

#include "server_fixture.h"

namespace {

struct start_failure {
    const char* what;
    void (*spoil)(installation&);
    const char* expected;  // in the log or on standard output
};

const start_failure failures[] = {
    {"no system", [](installation& host) { host.ini["GLOBAL"].erase("system"); }, "system"},
    {"cache below a file",
     [](installation& host) {
         write_file(host.path("plain"), "");
         host.ini["VARIABLES"]["QX_EX_PATH_CACHE"] = "../plain/cache";
     },
     "plain/cache"},
    {"a switch that protects", [](installation& host) { host.ini["GLOBAL"]["hardened"] = "ja"; },
     "[GLOBAL] hardened = 'ja'"},
    {"no way of checking passwords", [](installation& host) { host.ini["MISC"]["authentication"] = "ldap"; },
     "PAM or local"},
};

TEST(start, names_what_is_wrong_with_the_settings) {
    for (const start_failure& failure : failures) {
        installation host("BROKEN", 1);
        failure.spoil(host);
        host.start();
        ASSERT_TRUE(host.agent.wait_end(10000)) << failure.what;
        EXPECT_EQ(host.agent.exit_code(), 1) << failure.what;
        const std::string said = host.agent.output() + host.log();
        EXPECT_NE(said.find(failure.expected), std::string::npos) << failure.what << ": " << said;
    }
}

TEST(start, tells_when_the_ini_file_is_not_there) {
    installation host("NOINI", 1);
    start_program(host.agent, {host.path("bin/qxxjlnx")}, host.path("agent.out"));
    ASSERT_TRUE(host.agent.wait_end(10000));
    EXPECT_EQ(host.agent.exit_code(), 1);
    EXPECT_NE(host.agent.output().find("U02003041 Invalid 'access'-call"), std::string::npos)
        << host.agent.output();
    EXPECT_NE(host.agent.output().find("ended abnormaly"), std::string::npos);
}

TEST(start, finds_the_agent_that_runs_already_before_it_touches_anything) {
    installation host("TWICE", 1);
    host.start();
    ASSERT_TRUE(wait_until(10000, [&] { return host.log_has("2000072"); }))
        << host.agent.output() << host.log();
    const std::string before = host.log();
    child_process second;
    start_program(second, {host.path("bin/qxxjlnx"), "ini=" + host.ini_path()}, host.path("second.out"));
    ASSERT_TRUE(second.wait_end(10000));
    EXPECT_EQ(second.exit_code(), 1);
    EXPECT_NE(second.output().find("process " + std::to_string(host.agent.pid)), std::string::npos)
        << second.output();
    EXPECT_EQ(host.log().substr(0, before.size()), before) << "the running one's log was moved";
    // The lock ends with its process, however that ended.
    host.agent.kill_now();
    host.start();
    const auto new_log = [&] { return host.log().substr(0, before.size()) != before; };
    EXPECT_TRUE(wait_until(10000, [&] { return new_log() && host.log_has("2000072"); }))
        << host.agent.output() << host.log();
    EXPECT_TRUE(host.stop());
    EXPECT_EQ(host.agent.exit_code(), 0);
}

TEST(start, goes_on_over_a_hang_up_with_a_log_opened_anew) {
    installation host("HANGUP", 1);
    host.start();
    ASSERT_TRUE(wait_until(10000, [&] { return host.log_has("listening on port"); })) << host.log();
    const pid_t listener = host.listener_pid();
    ASSERT_EQ(rename(host.path("temp/agent.l00").c_str(), host.path("temp/moved").c_str()), 0);
    ASSERT_EQ(kill(listener, SIGHUP), 0);
    host.agent.signal(SIGHUP);
    EXPECT_TRUE(wait_until(10000, [&] { return host.log_has("opened anew by order of SIGHUP"); }))
        << host.log();
    EXPECT_TRUE(host.agent.running());
    EXPECT_EQ(host.listener_pid(), listener) << "a terminal tells all processes of its end";
    EXPECT_TRUE(host.stop());
    EXPECT_EQ(host.agent.exit_code(), 0);
}

TEST(start, answers_help_version_and_wrong_use) {
    std::string output;
    EXPECT_EQ(run_program({QX_AGENT_PROGRAM, "-Help"}, output), 0);
    EXPECT_NE(output.find("usage : QXXJxxx [[ini=]<file>]"), std::string::npos) << output;
    EXPECT_NE(output.find("U02000001"), std::string::npos) << output;

    EXPECT_EQ(run_program({QX_AGENT_PROGRAM, "--help"}, output), 0);
    EXPECT_NE(output.find("qxxjlnx check [ini=FILE]"), std::string::npos) << output;
    EXPECT_LE(lines_of(output).size(), 24u) << "more than a screen";

    scratch_folder folder;
    EXPECT_EQ(run_program({QX_AGENT_PROGRAM, "-V" + folder.path + "/Version.TXT"}, output), 0);
    const std::string version = read_file(folder.path + "/Version.TXT");
    EXPECT_NE(version.find("QX7 Agent version 12.2.0+build.2108, changelist "), std::string::npos) << version;

    EXPECT_EQ(run_program({QX_AGENT_PROGRAM, "-V", "more"}, output), 1);
    EXPECT_NE(output.find("ended abnormaly"), std::string::npos) << output;
}

TEST(start, finds_a_relative_ini_file_from_the_folder_of_the_call) {
    installation host("RELATIVE", 1);
    host.write_ini();
    rename(host.ini_path().c_str(), host.path("Mixed.Ini").c_str());
    start_program(host.agent, {host.path("bin/qxxjlnx"), "INI=Mixed.Ini"}, host.path("agent.out"),
                  host.folder.path);
    EXPECT_TRUE(wait_until(10000, [&] { return host.log_has("2000072"); }))
        << host.agent.output() << host.log();
    EXPECT_TRUE(host.stop());
}

TEST(start, is_checked_without_a_start) {
    const int nobody_listens = free_port();
    installation host("CHECKED", nobody_listens);
    host.write_ini();
    std::string output;
    EXPECT_EQ(run_program({host.path("bin/qxxjlnx"), "check", "ini=" + host.ini_path()}, output), 1);
    EXPECT_NE(output.find("FAILED   server"), std::string::npos) << output;
    EXPECT_EQ(output.find("FAILED"), output.rfind("FAILED   ")) << "nothing else is wrong: " << output;
    EXPECT_EQ(host.log(), "");
}

}  // namespace
