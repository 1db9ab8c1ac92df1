// `qxcp shell`: the service console of a running agent.
#include <pwd.h>
#include <unistd.h>

#include "console_fixture.h"

namespace {

struct shell : console {
    installation host{"SHELL", port};

    void start_agent(const std::string& allow) {
        serve();
        if (!allow.empty()) {
            host.ini["GLOBAL"]["allow_agentshell"] = allow;
        }
        setenv("QX_TEST_PASSWORD", "geheim4711", 1);
        host.start();
        unsetenv("QX_TEST_PASSWORD");
        ASSERT_TRUE(agent_is_on("SHELL")) << output << host.log();
    }
};

TEST_F(shell, is_off_unless_the_ini_file_allows_it) {
    start_agent("");
    EXPECT_EQ(qxcp({"shell", "SHELL", "GET_VERSION"}), 1);
    EXPECT_TRUE(says("allow_agentshell")) << output;
    EXPECT_FALSE(host.log_has("EXECUTE:"));
    EXPECT_TRUE(host.log_has("U00029003"));
}

TEST_F(shell, shows_the_agent_from_inside) {
    start_agent("yes");
    EXPECT_EQ(qxcp({"shell", "SHELL", "get_version"}), 0);
    EXPECT_EQ(output, "GET_VERSION\n12.2.0+build.2108\n");
    EXPECT_EQ(qxcp({"shell", "SHELL", "GET_AGENT_PID"}), 0);
    EXPECT_EQ(output, "GET_AGENT_PID\nagent pid=" + std::to_string(host.agent.pid) + ";\n");
    EXPECT_EQ(qxcp({"shell", "SHELL", "GET_INI"}), 0);
    EXPECT_TRUE(says("path=" + host.ini_path())) << output;

    for (const char* command : {"GET_ENV", "GET_PCX_DUMP", "GET_COMMANDS", "GET_OPENFD_COUNT"}) {
        EXPECT_EQ(qxcp({"shell", "SHELL", command}), 0);
        EXPECT_FALSE(says("geheim4711")) << output;
        EXPECT_GT(output.size(), 60U);
    }
    EXPECT_EQ(qxcp({"shell", "SHELL", "NO_SUCH"}), 0);
    EXPECT_EQ(output, "Agent Command 'NO_SUCH' is not implemented\n");
    EXPECT_EQ(run_program({"/bin/sh", "-c", "ls " + host.path("temp") + " | grep -c '^S_'"}, output),
              1);  // all erased
}

TEST_F(shell, shows_its_jobs) {
    if (access(getpwuid(geteuid())->pw_dir, X_OK) != 0) {
        GTEST_SKIP() << "needs a home folder, where jobs run";
    }
    start_agent("yes");
    const std::string path = script("#!/bin/sh\nsleep 60\n");
    child_process job;
    start_program(job,
                  {QX_SERVER_PROGRAM, "run", path, "--name", "SLEEPER", "--shell", "sh", "--data", data()},
                  folder.path + "/job.out");
    EXPECT_TRUE(wait_until(20000,
                           [&] {
                               return qxcp({"shell", "SHELL", "GET_JOBS"}) == 0 && says("name=SLEEPER;");
                           }))
        << output << job.output();
    EXPECT_TRUE(says("ahidnr=00000001; status=")) << output;
    EXPECT_EQ(qxcp({"cancel", "1"}), 0);
}

TEST_F(shell, a_trace_that_is_written_stays_where_it_is) {
    host.ini["TRACE"]["tcp/ip"] = "2";
    start_agent("y");
    EXPECT_EQ(qxcp({"shell", "SHELL", "TRACE_FLUSH", host.path("temp/flushed.txt")}), 0);
    EXPECT_TRUE(wait_until(10000, [&] { return host.log_has("AGENT: the trace is not kept in memory"); }))
        << host.log();
    EXPECT_NE(access(host.path("temp/flushed-AGENT.txt").c_str(), F_OK), 0);
}

TEST_F(shell, trace_goes_to_files_and_the_log_obeys) {
    host.ini["TRACE"]["tcp/ip"] = "2";
    host.ini["TRACE"]["memory"] = "1";
    host.ini["TRACE"]["MaxTraceSize"] = "1";
    start_agent("y");
    const std::string target = host.path("temp/flushed.txt");
    EXPECT_EQ(qxcp({"shell", "SHELL", "TRACE_FLUSH", target}), 0);
    EXPECT_TRUE(
        wait_until(10000, [&] { return access(host.path("temp/flushed-AGENT.txt").c_str(), F_OK) == 0; }));
    EXPECT_EQ(qxcp({"shell", "SHELL", "TRACE_FLUSH", host.path("none/flushed.txt")}), 0);
    EXPECT_TRUE(wait_until(10000, [&] { return host.log_has("cannot be written to"); })) << host.log();
    EXPECT_EQ(qxcp({"shell", "SHELL", "SIMULATE", "SETLOGFILESIZE", "=", "3"}), 0);
    EXPECT_EQ(output, "SIMULATE\nnew log file size 3 MB\n");
    EXPECT_TRUE(host.log_has("EXECUTE: SIMULATE SETLOGFILESIZE = 3"));
}

TEST_F(shell, the_effective_user_can_be_another) {
    if (!is_root()) {
        GTEST_SKIP() << "needs root, to make a user";
    }
    start_agent("yes");
    const test_user other("qxshelluser");
    EXPECT_EQ(qxcp({"shell", "SHELL", "SET_AGENT_PARAM", "euser=" + other.name}), 0);
    EXPECT_TRUE(says("effective user is " + other.name)) << output;
    EXPECT_EQ(qxcp({"shell", "SHELL", "SET_AGENT_PARAM", "euser=root"}), 0);
    EXPECT_TRUE(says("effective user is root")) << output;
    EXPECT_EQ(qxcp({"shell", "SHELL", "SET_AGENT_PARAM", "euser=nobody-here"}), 0);
    EXPECT_TRUE(says("is not known")) << output;
}

}  // namespace
