// What the console says of jobs: words instead of numbers, lists, reports, and what is left of a refusal.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "console_fixture.h"

namespace {

using nlohmann::json;

struct console_jobs : console {
    std::vector<json> json_lines(const std::vector<std::string>& arguments) {
        std::vector<json> rows;
        EXPECT_EQ(qxcp(arguments), 0) << output;
        for (const std::string& line : lines_of(output)) {
            rows.push_back(json::parse(line, nullptr, false));
        }
        return rows;
    }
    size_t parts() const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(data() + "/reports")) {
            count += entry.path().string().find("part") != std::string::npos ? 1 : 0;
        }
        return count;
    }
    // `qxcp run` in the background, as far as `text`.
    void run_until(child_process& child, const std::string& path, const std::string& text) {
        start_program(child, {QX_SERVER_PROGRAM, "run", path, "--data", data()}, child_output());
        ASSERT_TRUE(wait_until(20000, [&] { return child.output().find(text) != std::string::npos; }))
            << child.output();
    }
    std::string child_output() { return folder.path + "/child" + std::to_string(++children) + ".out"; }
    int children = 0;
};

TEST_F(console_jobs, says_in_words_what_became_of_a_job) {
    serve();
    installation host("WORDS", port);
    log_on(host);
    const std::string path = script("#!/bin/sh\nexit 0\n");
    EXPECT_EQ(qxcp({"run", path, "--user", "nobody-here"}), 125);
    EXPECT_TRUE(says("job 1 refused: User 'nobody-here' is unknown on this host")) << output;
    EXPECT_TRUE(says("(U02001007)")) << output;
    EXPECT_NE(server.output().find("job 1 refused: User 'nobody-here'"), std::string::npos)
        << server.output();
    EXPECT_EQ(qxcp({"report", "1"}), 1);
    EXPECT_TRUE(says("job 1 never ran: User 'nobody-here'")) << output;
    EXPECT_EQ(parts(), 0u);
    EXPECT_EQ(qxcp({"info", "1"}), 0);
    EXPECT_TRUE(says("reason           User 'nobody-here'")) << output;
    EXPECT_FALSE(says("return code")) << output;

    // A report that its agent does not have leaves no file either.
    child_process asleep;
    run_until(asleep, script("#!/bin/sh\nrm -f " + host.path("out") + "/*\nsleep 300\n"), "running");
    ASSERT_TRUE(wait_until(10000, [&] { return std::filesystem::is_empty(host.path("out")); }));
    EXPECT_EQ(qxcp({"report", "2"}), 1);
    EXPECT_TRUE(says("no report of job 2: Report file '")) << output;
    EXPECT_TRUE(says("(U00029003)")) << output;
    EXPECT_EQ(parts(), 0u);

    EXPECT_EQ(qxcp({"cancel", "2"}), 0);
    EXPECT_TRUE(says("job 2 is being cancelled: The cancel signal was sent")) << output;
    ASSERT_TRUE(asleep.wait_end(20000)) << asleep.output();
    EXPECT_EQ(asleep.exit_code(), 128 + SIGKILL) << asleep.output();
    EXPECT_NE(asleep.output().find("job 2 cancelled at "), std::string::npos) << asleep.output();
    EXPECT_EQ(qxcp({"cancel", "2"}), 1);
    EXPECT_TRUE(says("job 2 was not cancelled: it is over (cancelled)")) << output;

    EXPECT_EQ(qxcp({"exec", "WORDS", "exit 4"}), 4);
    EXPECT_TRUE(says("Command '3' ended with code 4")) << output;
    EXPECT_EQ(qxcp({"cat", "WORDS", "/etc"}), 1);
    EXPECT_TRUE(says("Is a directory")) << output;
    EXPECT_EQ(qxcp({"query", "NOBODY"}), 1);
    EXPECT_TRUE(says("agent 'NOBODY' is not logged on; these are: WORDS")) << output;
}

TEST_F(console_jobs, lists_what_is_asked_for_with_the_newest_last) {
    serve();
    const std::string path = script("#!/bin/sh\nexit 6\n");
    child_process waiting;
    run_until(waiting, path, "job 1 waiting");
    EXPECT_EQ(qxcp({"report", "1"}), 1);
    EXPECT_TRUE(says("job 1 waits for an agent")) << output;
    EXPECT_EQ(qxcp({"cancel", "1"}), 0) << output;
    ASSERT_TRUE(waiting.wait_end(10000)) << waiting.output();
    EXPECT_EQ(waiting.exit_code(), 125) << waiting.output();
    EXPECT_NE(waiting.output().find("job 1 cancelled: it was sent to no agent"), std::string::npos)
        << waiting.output();

    installation first("FIRST", port);
    log_on(first);
    EXPECT_EQ(qxcp({"run", path}), 6) << output;
    EXPECT_EQ(qxcp({"run", path, "--user", "nobody-here"}), 125) << output;
    installation second("SECOND", port);
    log_on(second);
    EXPECT_EQ(qxcp({"run", path}), 1) << "which of them?";
    EXPECT_TRUE(says("FIRST, SECOND with --agent")) << output;
    EXPECT_EQ(qxcp({"run", path, "--agent", "SECOND"}), 6) << output;

    struct filter {
        std::vector<std::string> arguments;
        std::vector<int> runs;
    };
    const filter filters[] = {
        {{"jobs"}, {1, 2, 3, 4}},
        {{"jobs", "--last", "2"}, {3, 4}},
        {{"jobs", "--agent", "first"}, {2, 3}},
        {{"jobs", "--state", "refused", "--state", "cancelled"}, {1, 3}},
        {{"jobs", "--state", "ended", "--last", "1"}, {4}},
        {{"jobs", "--state", "running"}, {}},
    };
    for (filter wanted : filters) {
        wanted.arguments.push_back("--json");
        std::vector<int> runs;
        for (const json& row : json_lines(wanted.arguments)) {
            runs.push_back(row.value("run", 0));
            EXPECT_EQ(row.contains("return_code"), row["state"] == "ended") << row;
        }
        EXPECT_EQ(runs, wanted.runs) << wanted.arguments[1];
    }
    EXPECT_EQ(qxcp({"jobs", "--state", "asleep"}), 64);
    EXPECT_EQ(qxcp({"jobs"}), 0);
    const std::vector<std::string> table = lines_of(output);
    ASSERT_EQ(table.size(), 5u) << output;
    EXPECT_TRUE(table[1].ends_with("cancelled")) << "no code: " << table[1];
    EXPECT_TRUE(table[3].ends_with("refused")) << "no code: " << table[3];
    EXPECT_TRUE(table[4].ends_with("  6")) << table[4];
    EXPECT_EQ(json_lines({"agents", "--json"}).size(), 2u);

    // Not only jobs: a report for programs.
    const std::vector<json> report = json_lines({"report", "4", "--json"});
    ASSERT_EQ(report.size(), 1u) << output;
    EXPECT_EQ(report[0]["run"], 4);
    EXPECT_NE(report[0].value("text", "").find("RETCODE=6"), std::string::npos) << report[0];
    EXPECT_EQ(json_lines({"report", "4", "--json", "--match", "*RETCODE*"})[0]["text"],
              "**  TEXT=\"\" RETCODE=6\n");
    EXPECT_EQ(parts(), 0u);
}

TEST_F(console_jobs, shows_on_a_terminal_how_much_of_a_report_has_come) {
    serve();
    installation host("SLOW", port);
    log_on(host);
    ASSERT_EQ(qxcp({"run", "--plain", script("#!/bin/sh\nseq 100000\n"), "--report", folder.path + "/first"}),
              0)
        << output;
    host.agent.signal(SIGSTOP);  // nothing comes within the first seconds
    child_process report;
    start_program(report,
                  {"/usr/bin/script", "-qec",
                   std::string(QX_SERVER_PROGRAM) + " report 1 --match '*' --output " + folder.path +
                       "/second --data " + data(),
                   "/dev/null"},
                  folder.path + "/report.out");
    ASSERT_FALSE(report.wait_end(2500)) << report.output();
    host.agent.signal(SIGCONT);
    ASSERT_TRUE(report.wait_end(20000)) << report.output();
    EXPECT_EQ(report.exit_code(), 0) << report.output();
    EXPECT_NE(report.output().find("report of job 1: 0.0 MB"), std::string::npos) << report.output();
    EXPECT_EQ(read_file(folder.path + "/second"), read_file(folder.path + "/first"));
}

TEST_F(console_jobs, tells_its_version_and_wrong_numbers_in_a_line) {
    EXPECT_EQ(qxcp({"--version"}, false), 0);
    EXPECT_EQ(output, "qxcp 12.2.0+build.2108\n");
    EXPECT_EQ(qxcp({"run", "--help"}, false), 0);
    EXPECT_TRUE(says("Options of the server, with --here only")) << output;
    struct wrong {
        std::vector<std::string> arguments;
        const char* expected;
    };
    const wrong cases[] = {
        {{"cancel", "-3"}, "'-3' is no whole number from 1"},
        {{"info", "99999999999"}, "'99999999999' is no whole number from 1"},
        {{"jobs", "--last", "few"}, "'few' is no whole number from 1"},
        {{"exec", "A", "true", "--rows", "0"}, "'0' is no whole number from 1"},
        {{"serve", "--job-check", "1e3"}, "'1e3' is no whole number from 1"},
        {{"run", "script", "--client", "10000"}, "'10000' is no whole number from 0 to 9999"},
        {{"run", "script", "--port", "2217"}, "--port is an option of the server that --here starts"},
        {{"package"}, "--company-only"},
    };
    for (const wrong& use : cases) {
        EXPECT_EQ(qxcp(use.arguments, false), 64) << output;
        EXPECT_TRUE(says(use.expected)) << output;
        EXPECT_LT(output.size(), 160u) << output;
    }
}

TEST_F(console_jobs, runs_commands_and_brings_resources_to_jobs) {
    serve();
    installation host("CONSCMD", port);
    log_on(host);
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "echo hello; exit 7"}), 7);
    EXPECT_EQ(output.substr(0, 6), "hello\n") << output;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "echo hello", "--json"}), 0);
    EXPECT_TRUE(says("\"output\":\"hello\\n\"")) << output;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "printf 'a\\rb\\r\\n\\377\\n'", "--rows", "2"}), 0);
    EXPECT_EQ(output.substr(0, 7), "a\rb\r\n\xff\n") << output;
    EXPECT_TRUE(says("--rows")) << "that it may go on: " << output;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "sleep 30", "--time-limit", "1"}), 124) << output;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "id", "--user", "qxnobodyhere"}), 125) << output;
    EXPECT_EQ(qxcp({"exec", "NOAGENT", "id"}), 1);
    EXPECT_TRUE(says("not logged on")) << output;
    EXPECT_EQ(qxcp({"exec", "CONSCMD"}), 64) << output;
    const std::string tool = folder.path + "/tool.sh";
    write_file(tool, "#!/bin/sh\necho tool\n");
    EXPECT_EQ(qxcp({"resource", "add", tool, "--object", "TOOLS"}), 0) << output;
    chmod(tool.c_str(), 0400);
    EXPECT_EQ(qxcp({"resource", "add", tool, "--object", "TOOLS"}), 0) << "a new version: " << output;
    EXPECT_EQ(qxcp({"resource", "list"}), 0);
    EXPECT_TRUE(says("tool.sh")) << output;
    EXPECT_EQ(qxcp({"resource", "add", folder.path + "/none", "--object", "TOOLS"}), 1);
    EXPECT_EQ(qxcp({"resource", "add", tool, "--object", "TOOLS", "--name", "../x"}), 1) << output;
    EXPECT_EQ(qxcp({"resource", "add", tool, "--object", "TOOLS", "--name", "./x"}), 1) << output;
    write_file(folder.path + "/job.sh", "sh $QX_CLIENT_CACHE/tool.sh; sh $QX_TASK_CACHE/tool.sh\n");
    EXPECT_EQ(qxcp({"run", folder.path + "/job.sh", "--client-resource", "TOOLS/tool.sh", "--task-resource",
                    "TOOLS/tool.sh"}),
              0)
        << output << host.log();
    EXPECT_TRUE(says("tool\ntool\n")) << output;
    EXPECT_EQ(qxcp({"run", folder.path + "/job.sh", "--client-resource", "TOOLS/none"}), 1);
    EXPECT_TRUE(says("qxcp resource add")) << output;
}

}  // namespace
