// Commands through the real programs: output, codes, limits, cancel, and an agent that stays awake meanwhile.
#include <sys/stat.h>

#include <csignal>

#include "server_fixture.h"

namespace {

struct commands : server_test {
    std::unique_ptr<installation> host;

    void start(const std::string& name) {
        host = std::make_unique<installation>(name, port());
        host->start();
        ASSERT_TRUE(wait_logon(name)) << story() << host->log();
    }
    // Sends a command of the own user; the answer comes into `answer`.
    int exec(cp_answer& answer, const std::string& command, int rows = 100,
             const std::string& user = own_user()) {
        cp_exec_wish wish;
        wish.command = command;
        wish.user = user;
        wish.rows = rows;
        return cp_exec(server.get(), "", wish, [&answer](const cp_answer& a) { answer = a; });
    }
    bool answered(const cp_answer& answer, int timeout_ms = 15000) {
        return wait(timeout_ms, [&] { return !answer.status.empty(); });
    }
    bool no_output_left() {
        std::string names;
        run_program({"/bin/sh", "-c", "ls " + host->path("out") + " | grep ^C || true"}, names);
        return names.empty();
    }
};

TEST_F(commands, output_and_code_come_straight_back) {
    start("CMDAGENT");
    struct command_case {
        const char* command;
        const char* status;
        int number;
        const char* output;
    };
    const command_case cases[] = {
        {"true", "OK", 0, ""},
        {"echo one; echo two", "OK", 0, "one\r\ntwo\r\n"},
        {"printf 'no end'", "OK", 0, "no end"},
        {"echo err >&2; exit 3", "NK", 2000172, "err\r\n"},
        {"kill -9 $$", "NK", 2000172, ""},
        {"no_such_command_here 2>/dev/null", "NK", 2000172, ""},
        {"seq 3 | head -2\necho third line", "OK", 0, "1\r\n2\r\nthird line\r\n"},
    };
    for (const command_case& one : cases) {
        cp_answer answer;
        ASSERT_GT(exec(answer, one.command), 0);
        ASSERT_TRUE(answered(answer)) << one.command << story() << host->log();
        EXPECT_EQ(answer.status, one.status) << one.command;
        EXPECT_EQ(answer.number, one.number) << one.command;
        EXPECT_EQ(answer.data, one.output) << one.command;
    }
    cp_answer piped;
    exec(piped, "echo a | cat; exit 5");
    ASSERT_TRUE(answered(piped));
    EXPECT_TRUE(piped.insert.ends_with("|5|echo a | cat; exit 5")) << piped.insert;
    EXPECT_TRUE(host->log_has("'echo a | cat; exit 5'")) << "the log shows all of a command\n" << host->log();
    EXPECT_TRUE(wait_until(5000, [&] { return no_output_left(); }));
}

TEST_F(commands, a_greedy_command_blocks_nobody_and_ends_at_its_limit) {
    cp_server_options(server.get()).command_limit = 2;
    start("GREEDY");
    struct greedy_case {
        const char* what;
        const char* command;
    };
    const greedy_case cases[] = {
        {"writes for ever", "exec yes writes for ever"},
        {"ignores signals", "trap '' TERM INT HUP QUIT; while :; do sleep 1; done"},
        {"forks children", "for i in 1 2 3; do sleep 30 & done; wait"},
    };
    std::vector<cp_answer> answers(std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        exec(answers[i], cases[i].command);
    }
    cp_answer quick;
    exec(quick, "echo still here");
    ASSERT_TRUE(answered(quick, 1500)) << "others are served meanwhile" << host->log();
    const int run = submit("exit 4");
    ASSERT_TRUE(wait_done(run)) << story() << host->log();
    EXPECT_EQ(job(run).return_code, 4);
    for (size_t i = 0; i < std::size(cases); ++i) {
        ASSERT_TRUE(answered(answers[i])) << cases[i].what << story() << host->log();
        EXPECT_EQ(answers[i].number, 2000177) << cases[i].what;
    }
    EXPECT_TRUE(wait_until(5000, [&] { return no_output_left(); })) << host->log();
    EXPECT_TRUE(host->log_has("2001091")) << host->log();
    EXPECT_TRUE(wait_until(5000, [&] { return host->log_has("still run"); }))
        << "the children that were left";
}

TEST_F(commands, the_answer_finds_the_server_after_a_lost_line) {
    start("LOSTCMD");
    cp_answer answer, after;
    const std::string gate = host->path("gate");
    exec(answer, "while ! test -e " + gate + "; do sleep 0.05; done; echo over");
    ASSERT_TRUE(wait(5000, [&] { return host->log_has("2000169"); })) << host->log();
    cp_drop_line(server.get(), "LOSTCMD");
    ASSERT_TRUE(wait(10000, [&] { return answer.status == "--"; })) << "whoever asked is told";
    ASSERT_TRUE(wait_logon("LOSTCMD")) << story();
    write_file(gate, "");
    ASSERT_TRUE(wait_until(5000, [&] { return host->log_has("2000171"); })) << host->log();
    exec(after, "echo next");
    ASSERT_TRUE(answered(after));
    EXPECT_EQ(after.data, "next\r\n");
}

TEST_F(commands, run_as_their_user) {
    if (!is_root()) {
        GTEST_SKIP() << "needs root: commands of other users";
    }
    const test_user user("qxcmduser");
    start("USERCMD");
    cp_answer answer, unknown;
    exec(answer, "id -un; pwd", 10, user.name);
    ASSERT_TRUE(answered(answer)) << host->log();
    EXPECT_EQ(answer.data, user.name + "\r\n" + user.home + "\r\n");
    exec(unknown, "id", 10, "qxnobodyhere");
    ASSERT_TRUE(answered(unknown));
    EXPECT_EQ(unknown.number, 2001087);
}

TEST_F(commands, the_console_prints_and_passes_the_code_on) {
    cp_options own = options;
    close_server();
    child_process serving;
    scratch_folder data;
    start_program(serving,
                  {QX_SERVER_PROGRAM, "serve", "--system", own.system, "--port", "0", "--data", data.path},
                  data.path + "/serve.log");
    int listening = 0;
    ASSERT_TRUE(wait_until(10000, [&] {
        const std::string text = read_file(data.path + "/serve.log");
        const size_t at = text.find("127.0.0.1:");
        listening = at == std::string::npos ? 0 : std::atoi(text.c_str() + at + 10);
        return listening != 0;
    }));
    host = std::make_unique<installation>("CONSCMD", listening, own.system);
    host->start();
    ASSERT_TRUE(wait_until(
        20000, [&] { return read_file(data.path + "/serve.log").find("logon") != std::string::npos; }));
    std::string text;
    const auto qxcp = [&](std::vector<std::string> words) {
        words.insert(words.begin(), QX_SERVER_PROGRAM);
        words.insert(words.end(), {"--data", data.path});
        return run_program(words, text);
    };
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "echo hello; exit 7"}), 7);
    EXPECT_EQ(text.substr(0, 6), "hello\n") << text;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "echo hello", "--json"}), 0);
    EXPECT_NE(text.find("\"output\":\"hello\\n\""), std::string::npos) << text;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "printf 'a\\rb\\r\\n\\377\\n'", "--rows", "2"}), 0);
    EXPECT_EQ(text.substr(0, 7), "a\rb\r\n\xff\n") << text;
    EXPECT_NE(text.find("--rows"), std::string::npos) << "that it may go on: " << text;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "sleep 30", "--time-limit", "1"}), 124) << text;
    EXPECT_EQ(qxcp({"exec", "CONSCMD", "id", "--user", "qxnobodyhere"}), 125) << text;
    EXPECT_EQ(qxcp({"exec", "NOAGENT", "id"}), 1);
    EXPECT_NE(text.find("not logged on"), std::string::npos) << text;
    EXPECT_EQ(qxcp({"exec", "CONSCMD"}), 64) << text;
    write_file(data.path + "/tool.sh", "#!/bin/sh\necho tool\n");
    EXPECT_EQ(qxcp({"resource", "add", data.path + "/tool.sh", "--object", "TOOLS"}), 0) << text;
    chmod((data.path + "/tool.sh").c_str(), 0400);
    EXPECT_EQ(qxcp({"resource", "add", data.path + "/tool.sh", "--object", "TOOLS"}), 0)
        << "a new version: " << text;
    EXPECT_EQ(qxcp({"resource", "list"}), 0);
    EXPECT_NE(text.find("tool.sh"), std::string::npos) << text;
    EXPECT_EQ(qxcp({"resource", "add", data.path + "/none", "--object", "TOOLS"}), 1);
    EXPECT_EQ(qxcp({"resource", "add", data.path + "/tool.sh", "--object", "TOOLS", "--name", "../x"}), 1)
        << text;
    EXPECT_EQ(qxcp({"resource", "add", data.path + "/tool.sh", "--object", "TOOLS", "--name", "./x"}), 1)
        << text;
    write_file(data.path + "/job.sh", "sh $QX_CLIENT_CACHE/tool.sh; sh $QX_TASK_CACHE/tool.sh\n");
    EXPECT_EQ(qxcp({"run", data.path + "/job.sh", "--client-resource", "TOOLS/tool.sh", "--task-resource",
                    "TOOLS/tool.sh"}),
              0)
        << text << host->log();
    EXPECT_NE(text.find("tool\ntool\n"), std::string::npos) << text;
    EXPECT_EQ(qxcp({"run", data.path + "/job.sh", "--client-resource", "TOOLS/none"}), 1);
    EXPECT_NE(text.find("qxcp resource add"), std::string::npos) << text;
}

}  // namespace
