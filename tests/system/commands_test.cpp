// Commands through the real programs: limits, users, lost lines, and an agent that stays awake meanwhile.
#include "server_fixture.h"

namespace {

struct commands : server_test {
    std::unique_ptr<installation> host;

    void start(const std::string& name) {
        host = std::make_unique<installation>(name, port());
        log_on(*host);
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

TEST_F(commands, a_greedy_command_blocks_nobody_and_ends_at_its_limit) {
    cp_server_options(server.get()).command_limit = 2;
    start("GREEDY");
    const char* const cases[] = {
        "exec yes writes for ever",
        "trap '' TERM INT HUP QUIT; while :; do sleep 1; done",
        "for i in 1 2 3; do sleep 30 & done; wait",
    };
    std::vector<cp_answer> answers(std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        exec(answers[i], cases[i]);
    }
    cp_answer quick;
    exec(quick, "echo still here | cat");
    ASSERT_TRUE(answered(quick, 1500)) << "others are served meanwhile" << host->log();
    EXPECT_TRUE(host->log_has("'echo still here | cat'")) << "the log shows all of a command\n"
                                                          << host->log();
    const int run = submit("exit 4");
    ASSERT_TRUE(wait_done(run)) << story() << host->log();
    EXPECT_EQ(job(run).return_code, 4);
    for (size_t i = 0; i < std::size(cases); ++i) {
        ASSERT_TRUE(answered(answers[i])) << cases[i] << story() << host->log();
        EXPECT_EQ(answers[i].number, 2000177) << cases[i];
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

}  // namespace
