// The development server's command line, used as a person or a program would use it.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>

#include "console_fixture.h"

namespace {

using nlohmann::json;

TEST_F(console, runs_a_script_and_shows_what_became_of_it) {
    serve();
    installation host("CONSOLE", port);
    log_on(host);

    const std::string path = script("#!/bin/sh\necho apples\necho pears\necho 'late apples'\nexit 5\n");
    EXPECT_EQ(qxcp({"run", path, "--agent", "CONSOLE"}), 5) << output;
    EXPECT_TRUE(says("activated: process ")) << output;
    EXPECT_TRUE(says("with return code 5")) << output;
    EXPECT_TRUE(says("\npears\n")) << output;

    EXPECT_EQ(qxcp({"run", path, "--report", folder.path + "/report.txt", "--plain"}), 5);
    EXPECT_FALSE(says("pears"));
    EXPECT_EQ(read_file(folder.path + "/report.txt"), "apples\npears\nlate apples\n");

    EXPECT_EQ(qxcp({"report", "1", "--match", "*APPLES*"}), 0) << output;
    EXPECT_TRUE(says("apples\n")) << output;
    EXPECT_FALSE(says("pears"));
    EXPECT_EQ(qxcp({"report", "1", "--tail"}), 0) << output;
    EXPECT_TRUE(says("late apples")) << output;

    EXPECT_EQ(qxcp({"jobs"}), 0);
    ASSERT_EQ(lines_of(output).size(), 3u) << output;
    EXPECT_NE(lines_of(output)[1].find("script.sh"), std::string::npos) << output;
    EXPECT_EQ(qxcp({"jobs", "--json"}), 0);
    ASSERT_EQ(lines_of(output).size(), 2u);
    const json second = json::parse(lines_of(output)[1]);
    EXPECT_EQ(second["return_code"], 5);
    EXPECT_EQ(second["state"], "ended");
    EXPECT_EQ(qxcp({"info", "2"}), 0);
    EXPECT_TRUE(says("return code      5")) << output;

    // A program that reads: one object a line.
    EXPECT_EQ(qxcp({"run", path, "--json"}), 5);
    for (const std::string& line : lines_of(output)) {
        EXPECT_EQ(json::parse(line)["run"], 3) << line;
    }

    // The same server's data after a restart, with the agent and a job alive.
    child_process run;
    start_program(
        run,
        {QX_SERVER_PROGRAM, "run", script("#!/bin/sh\nread x < " + folder.path + "/go\n"), "--data", data()},
        folder.path + "/run.out");
    ASSERT_EQ(mkfifo((folder.path + "/go").c_str(), 0666), 0);
    ASSERT_TRUE(wait_until(20000, [&] { return run.output().find("job 4 activated") != std::string::npos; }))
        << run.output();
    server.signal(SIGTERM);
    ASSERT_TRUE(server.wait_end(10000));
    EXPECT_EQ(server.exit_code(), 0) << server.output();
    ASSERT_TRUE(run.wait_end(10000));
    EXPECT_EQ(run.exit_code(), 1);
    EXPECT_NE(run.output().find("job 4 goes on"), std::string::npos) << run.output();
    EXPECT_EQ(qxcp({"jobs"}), 2);
    EXPECT_TRUE(says("qxcp serve")) << "says how to start one: " << output;
    serve();
    ASSERT_TRUE(agent_is_on("CONSOLE")) << output;
    write_file(folder.path + "/go", "\n");
    EXPECT_TRUE(wait_until(20000, [&] {
        return qxcp({"jobs", "--last", "1", "--json"}) == 0 && json::parse(output)["state"] == "ended";
    })) << output;

    EXPECT_EQ(qxcp({"stop", "CONSOLE"}), 0) << output;
    EXPECT_TRUE(host.agent.wait_end(20000));
    EXPECT_EQ(host.agent.exit_code(), 0);
    EXPECT_EQ(qxcp({"stop", "CONSOLE"}), 1);
    EXPECT_TRUE(says("not logged on")) << output;
}

TEST_F(console, cancels_a_job_by_order_and_after_an_interrupt) {
    serve({"--job-check", "1"});
    installation host("CONSOLE", port);
    log_on(host);
    const std::string path = script("#!/bin/sh\nsleep 300\n");

    child_process first;
    start_program(first, {QX_SERVER_PROGRAM, "run", path, "--data", data()}, folder.path + "/first.out");
    ASSERT_TRUE(wait_until(20000, [&] { return first.output().find("activated") != std::string::npos; }))
        << first.output();
    EXPECT_EQ(qxcp({"cancel", "1"}), 0) << output;
    ASSERT_TRUE(first.wait_end(20000)) << first.output();
    EXPECT_NE(first.exit_code(), 0) << first.output();
    EXPECT_NE(first.output().find("job 1 cancelled at "), std::string::npos) << first.output();
    EXPECT_EQ(qxcp({"cancel", "1"}), 1) << output;
    EXPECT_TRUE(says("not cancelled")) << output;
    EXPECT_EQ(qxcp({"cancel", "99"}), 1);
    EXPECT_TRUE(says("no job 99")) << output;

    // Ctrl-C asks; what stands on standard input answers.
    write_file(folder.path + "/yes", "y\n");
    child_process second;
    start_program(second,
                  {"/bin/sh", "-c",
                   std::string("exec ") + QX_SERVER_PROGRAM + " run " + path + " --data " + data() + " < " +
                       folder.path + "/yes"},
                  folder.path + "/second.out");
    ASSERT_TRUE(wait_until(20000, [&] { return second.output().find("activated") != std::string::npos; }))
        << second.output();
    second.signal(SIGINT);
    ASSERT_TRUE(second.wait_end(20000)) << second.output();
    EXPECT_NE(second.output().find("Cancel job 2?"), std::string::npos) << second.output();
    EXPECT_NE(second.output().find("job 2 cancelled at "), std::string::npos) << second.output();

    child_process third;
    start_program(third, {QX_SERVER_PROGRAM, "run", path, "--data", data()}, folder.path + "/third.out");
    ASSERT_TRUE(wait_until(20000, [&] { return third.output().find("activated") != std::string::npos; }));
    third.signal(SIGINT);  // nobody answers: standard input is empty
    ASSERT_TRUE(third.wait_end(20000));
    EXPECT_EQ(third.exit_code(), 130);
    EXPECT_NE(third.output().find("job 3 goes on"), std::string::npos) << third.output();
    EXPECT_EQ(qxcp({"cancel", "3"}), 0) << output;
}

TEST_F(console, serves_one_job_in_the_same_process) {
    installation host("HERE", port);
    host.start();
    EXPECT_EQ(qxcp({"run", "--here", "--system", "TESTSYS", "--port", std::to_string(port),
                    script("#!/bin/sh\necho here and now\nexit 7\n")}),
              7)
        << output << host.log();
    EXPECT_TRUE(says("here and now")) << output;
    EXPECT_EQ(qxcp({"jobs"}), 2) << "the server went with its job";
}

TEST_F(console, says_what_is_wrong_and_what_to_type) {
    struct wrong {
        std::vector<std::string> arguments;
        int code;
        const char* expected;
    };
    const wrong cases[] = {
        {{}, 64, "--help"},
        {{"launch"}, 64, "--help"},
        {{"run"}, 64, "script"},
        {{"cancel", "none"}, 64, "none"},
        {{"cancel", "-3"}, 64, "-3"},
        {{"serve", "--port", "70000"}, 64, "70000"},
        {{"serve", "--server-name", "*SERVER"}, 64, "'*'"},
        {{"decode", "--to-lan", "--to-host"}, 64, "--to-"},
        {{"run", "/no/such/script", "--data", data()}, 1, "/no/such/script"},
        {{"run", "/", "--data", data()}, 1, "no file"},
        {{"agents", "--data", data()}, 2, "qxcp serve"},
        {{"agents", "--data", std::string(200, 'x')}, 2, "shorter"},
        {{"serve", "--data", "/proc/none"}, 1, "/proc/none"},
    };
    for (const wrong& use : cases) {
        EXPECT_EQ(qxcp(use.arguments, false), use.code) << output;
        EXPECT_TRUE(says(use.expected)) << output;
        EXPECT_EQ(lines_of(output).size(), 1u) << output;
    }
    for (const char* command :
         {"serve", "run", "agents", "jobs", "cancel", "info", "report", "stop", "decode", "catalogue"}) {
        EXPECT_EQ(qxcp({command, "--help"}, false), 0) << output;
        EXPECT_TRUE(says("Usage: qxcp ")) << output;
    }

    serve();
    child_process second;
    start_program(second, {QX_SERVER_PROGRAM, "serve", "--port", "0", "--data", data()},
                  folder.path + "/second.out");
    ASSERT_TRUE(second.wait_end(10000));
    EXPECT_EQ(second.exit_code(), 1);
    EXPECT_NE(second.output().find("another server uses the folder"), std::string::npos) << second.output();
    child_process third;
    start_program(
        third, {QX_SERVER_PROGRAM, "serve", "--port", std::to_string(port), "--data", folder.path + "/other"},
        folder.path + "/third.out");
    ASSERT_TRUE(third.wait_end(10000));
    EXPECT_EQ(third.exit_code(), 1);
    EXPECT_NE(third.output().find(std::to_string(port)), std::string::npos) << third.output();
}

}  // namespace
