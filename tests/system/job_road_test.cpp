// The road of one job: logon, activation, states, times, return code, report.
#include <csignal>

#include "server_fixture.h"

namespace {

struct job_road : server_test {};

TEST_F(job_road, runs_a_script_and_returns_its_report) {
    installation host("ROADAGENT", port());
    host.start();
    ASSERT_TRUE(wait_logon("ROADAGENT")) << story() << host.agent.output() << host.log();
    EXPECT_EQ(count_events("key"), 1) << "first contact agrees on a key";

    const int run = submit("echo hello from $USER\necho to stderr >&2\nexit 3\n");
    ASSERT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(job(run).state, cp_job_state::ended) << story();
    EXPECT_EQ(job(run).return_code, 3);
    EXPECT_EQ(job(run).end_count, 1);
    EXPECT_EQ(count_events("start", run), 1);
    EXPECT_GT(std::atoi(job(run).process_id.c_str()), 1);
    EXPECT_EQ(job(run).start_time.size(), 19u) << job(run).start_time;
    EXPECT_EQ(job(run).end_time.size(), 19u) << job(run).end_time;
    EXPECT_LE(job(run).start_time, job(run).end_time);

    const std::string text = report(run);
    EXPECT_NE(text.find("hello from " + own_user() + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("to stderr\n"), std::string::npos) << text;
    EXPECT_NE(text.find("**  JOB " + std::to_string(run) + " START AT "), std::string::npos) << text;
    EXPECT_NE(text.find("RETCODE=3"), std::string::npos) << text;
    EXPECT_TRUE(wait_until(5000, [&] { return read_file(job(run).job_file).empty(); }))
        << "job file is removed";
    // The log brings run number, user and process together, and holds no lines for calls of the messenger.
    const std::string line = "Job " + std::to_string(run) + " of client ";
    const size_t at = host.log().find(line);
    ASSERT_NE(at, std::string::npos) << host.log();
    const std::string told = host.log().substr(at, 200);
    EXPECT_NE(told.find("user '" + own_user() + "', process id " + job(run).process_id + ", report '"),
              std::string::npos)
        << told;
    for (const char* number : {"U02002039", "U02002040"}) {
        EXPECT_EQ(host.log().find(number), std::string::npos) << host.log();
    }
    EXPECT_TRUE(host.stop()) << host.log();
    EXPECT_EQ(host.agent.exit_code(), 0);
    EXPECT_TRUE(wait(5000, [&] { return count_events("stop") == 1; })) << story();
}

TEST_F(job_road, keeps_the_agreed_key_over_restarts_of_both_sides) {
    installation host("KEYAGENT", port());
    host.start();
    ASSERT_TRUE(wait_logon("KEYAGENT")) << story() << host.log();
    ASSERT_TRUE(host.stop());
    close_server();
    open_server();
    host.start();
    ASSERT_TRUE(wait_logon("KEYAGENT")) << story() << host.log();
    EXPECT_EQ(count_events("key"), 1);
    EXPECT_EQ(submit("true"), 1);
    EXPECT_TRUE(wait_done(1)) << story();
}

TEST_F(job_road, cancels_a_job_with_its_whole_group) {
    installation host("CANCELAGENT", port());
    host.start();
    ASSERT_TRUE(wait_logon("CANCELAGENT")) << story() << host.log();
    const std::string told = host.path("told");
    const int run = submit("sleep 300 & echo child $!\ntouch " + told + "\nwait\n");
    ASSERT_TRUE(wait_state(run, cp_job_state::running)) << story() << host.log();
    // The state comes with the first word of the messenger, ahead of the script's own lines.
    ASSERT_TRUE(wait(10000, [&] { return access(told.c_str(), F_OK) == 0; })) << story();
    cp_answer answer;
    ASSERT_TRUE(cp_cancel(server.get(), run, [&](const cp_answer& a) { answer = a; }));
    ASSERT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(answer.status, "OK");
    EXPECT_EQ(answer.number, 2000039);
    EXPECT_EQ(job(run).state, cp_job_state::vanished);
    EXPECT_EQ(job(run).return_code, SIGKILL);
    const std::string text = report(run);
    const size_t at = text.find("child ");
    ASSERT_NE(at, std::string::npos) << text;
    const int child = std::atoi(text.c_str() + at + 6);
    EXPECT_TRUE(wait_until(5000, [&] { return kill(child, 0) != 0; })) << "the job's own child is gone too";

    ASSERT_TRUE(cp_cancel(server.get(), run, [&](const cp_answer& a) { answer = a; }));
    ASSERT_TRUE(wait(5000, [&] { return answer.status == "NK"; }));
    EXPECT_EQ(answer.number, 2003038);
}

TEST_F(job_road, survives_the_kill_of_its_agent) {
    installation host("PHOENIX", port());
    host.start();
    ASSERT_TRUE(wait_logon("PHOENIX")) << story() << host.log();
    const std::string gate = host.path("gate");
    std::vector<int> runs;
    for (int i = 0; i < 20; ++i) {
        runs.push_back(
            submit("while ! test -e " + gate + "; do sleep 0.1; done\nexit " + std::to_string(i) + "\n"));
    }
    ASSERT_TRUE(wait(30000, [&] {
        for (int run : runs) {
            if (job(run).state != cp_job_state::running) {
                return false;
            }
        }
        return true;
    })) << story();
    const pid_t listener = host.listener_pid();
    host.agent.kill_now();
    ASSERT_TRUE(wait(10000, [&] { return cp_find_agent(server.get(), "PHOENIX") == nullptr; }));
    EXPECT_TRUE(wait_until(20000, [&] { return kill(listener, 0) != 0; }))
        << "the listener ends with its agent";
    // Half of the jobs end while nobody looks, half after the agent is back.
    write_file(gate, "");
    host.start();
    ASSERT_TRUE(wait_logon("PHOENIX")) << story() << host.agent.output() << host.log();
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(wait_done(runs[static_cast<size_t>(i)], 60000)) << i << "\n" << story() << host.log();
        const cp_job& ended = job(runs[static_cast<size_t>(i)]);
        EXPECT_EQ(ended.state, cp_job_state::ended) << ended.run;
        EXPECT_EQ(ended.return_code, i);
        EXPECT_FALSE(ended.end_time.empty());
        EXPECT_EQ(count_events("end", ended.run), 1);
    }
}

TEST_F(job_road, repeats_the_end_until_the_server_forgets_the_job) {
    options.fetch_reports = false;
    cp_server_options(server.get()).fetch_reports = false;
    installation host("REPEATER", port());
    host.start();
    ASSERT_TRUE(wait_logon("REPEATER")) << story() << host.log();
    const int run = submit("exit 0");
    ASSERT_TRUE(wait(30000, [&] { return job(run).end_count >= 2; })) << story() << host.log();
    cp_drop_line(server.get(), "REPEATER");
    const int before = job(run).end_count;
    ASSERT_TRUE(wait(30000, [&] { return job(run).end_count > before; })) << story() << host.log();
    EXPECT_EQ(job(run).return_code, 0);
    ASSERT_TRUE(wait_logon("REPEATER"));
    ASSERT_TRUE(cp_forget(server.get(), run));
    cp_answer answer;
    ASSERT_TRUE(cp_job_info(server.get(), run, [&](const cp_answer& a) { answer = a; }));
    ASSERT_TRUE(wait(10000, [&] { return !answer.status.empty(); })) << story();
}

TEST_F(job_road, orders_the_agent_down) {
    installation host("STOPPED", port());
    host.start();
    ASSERT_TRUE(wait_logon("STOPPED")) << story() << host.log();
    ASSERT_TRUE(cp_stop_agent(server.get(), "STOPPED"));
    ASSERT_TRUE(wait(15000, [&] { return !host.agent.running(); })) << host.log();
    EXPECT_EQ(host.agent.exit_code(), 0);
    EXPECT_TRUE(wait(5000, [&] { return count_events("stop") == 1; })) << story();
}

}  // namespace
