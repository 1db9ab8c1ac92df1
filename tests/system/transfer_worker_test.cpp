// The processes that carry transfers: whose they are, what they hold, and what their ends lead to.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "transfer_fixture.h"

namespace {

namespace fs = std::filesystem;

std::string status_line(pid_t pid, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with(name + ":")) {
            return line.substr(name.size() + 1);
        }
    }
    return "";
}

// More than passes before the receiver is stopped.
#ifdef __OPTIMIZE__
constexpr off_t size = 300 << 20;
#else
constexpr off_t size = 24 << 20;
#endif

struct transfer_workers : transfer_test {
    // The process with that title whose parent is the agent, -1 without one.
    pid_t process(const installation& agent, const std::string& title) const {
        for (const auto& entry : fs::directory_iterator("/proc")) {
            const pid_t pid = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
            if (pid > 0 && std::atoi(status_line(pid, "PPid").c_str()) == agent.agent.pid &&
                read_file(entry.path().string() + "/cmdline").c_str() == title) {
                return pid;
            }
        }
        return -1;
    }
    pid_t source(int run) const { return process(first, "ft-src-" + std::to_string(run)); }
    pid_t target(int run) const { return process(second, "ft-dst-" + std::to_string(run)); }

    // Looks often, since what is looked for may pass in a moment.
    bool meet(const std::function<bool()>& met) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!met() && std::chrono::steady_clock::now() < end) {
            cp_server_step(server.get(), 2);
        }
        return met();
    }
    // A transfer whose receiver stands still, so that it is met on its way.
    int begin(const std::string& user = "") {
        write_file(from("from/large"), "");
        EXPECT_EQ(truncate(from("from/large").c_str(), size), 0);
        cp_transfer wanted = wish("from/large", "to/");
        wanted.compress = '0';
        wanted.source.user = wanted.destination.user = user;
        const int run = order(wanted);
        EXPECT_TRUE(meet([&] { return target(run) > 0; })) << tale(run);
        send_signal(target(run), SIGSTOP);
        EXPECT_TRUE(wait(20000, [&] { return source(run) > 0; })) << tale(run);
        EXPECT_FALSE(cp_transfer_is_over(transfer(run).state)) << tale(run);
        return run;
    }
    // Never to 0 or below, which are many processes.
    static void send_signal(pid_t pid, int number) {
        ASSERT_GT(pid, 0);
        EXPECT_EQ(kill(pid, number), 0);
    }
    bool ended(pid_t pid) {
        return wait(15000, [&] {
            return status_line(pid, "State").find_first_not_of("\t Z(zombie)") == std::string::npos;
        });
    }
};

TEST_F(transfer_workers, are_the_users_and_hold_nothing_of_the_agent) {
    if (!is_root()) {
        GTEST_SKIP() << "only root has users to choose from";
    }
    const test_user user("qxcopier");
    start_agents();
    const int run = begin(user.name);
    for (const pid_t worker : {source(run), target(run)}) {
        EXPECT_EQ(std::strtoul(status_line(worker, "Uid").c_str(), nullptr, 10), user.uid) << tale(run);
        EXPECT_EQ(status_line(worker, "Groups").find("\t0 "), std::string::npos);
        int sockets = 0;
        for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(worker) + "/fd")) {
            std::error_code gone;
            const std::string leads = fs::read_symlink(entry.path(), gone).string();
            sockets += leads.starts_with("socket:") ? 1 : 0;
            EXPECT_EQ(leads.find(".l00"), std::string::npos) << "the agent's log";
        }
        EXPECT_EQ(sockets, 2) << "the partner and the agent";
    }
    send_signal(target(run), SIGCONT);
    ASSERT_TRUE(wait_over(run, 60000)) << tale(run);
    EXPECT_EQ(state(run), "finished") << tale(run);
}

TEST_F(transfer_workers, are_replaced_by_one_that_answers_when_a_sender_is_killed) {
    start_agents();
    const int run = begin();
    const pid_t lost = source(run);
    const pid_t partner = target(run);
    send_signal(lost, SIGKILL);
    send_signal(partner, SIGCONT);
    ASSERT_TRUE(wait_over(run)) << tale(run);
    EXPECT_EQ(state(run), "failed") << tale(run);
    EXPECT_TRUE(first.log_has("U00063083")) << tale(run);
    EXPECT_TRUE(ended(partner)) << tale(run);
    EXPECT_TRUE(wait(15000, [&] { return source(run) < 0; })) << tale(run);
    EXPECT_FALSE(fs::exists(from("to/large")));
}

TEST_F(transfer_workers, end_with_their_agent) {
    start_agents();
    const int run = begin();
    const pid_t worker = source(run);
    first.agent.kill_now();
    EXPECT_TRUE(ended(worker)) << tale(run);
    send_signal(target(run), SIGCONT);
    EXPECT_TRUE(wait(15000, [&] { return target(run) < 0; })) << tale(run);
}

// A source of nothing packs so well that a block takes long to fill, and its end is hours away.
TEST_F(transfer_workers, stop_reading_when_they_are_told_to) {
    start_agents();
    write_file(from("from/endless"), "");
    ASSERT_EQ(truncate(from("from/endless").c_str(), off_t{1} << 42), 0);
    for (const char compress : {'1', 'S'}) {
        cp_transfer wanted = wish("from/endless", "to/");
        wanted.compress = compress;
        const int run = order(wanted);
        ASSERT_TRUE(wait(20000, [&] { return source(run) > 0; })) << tale(run);
        wait(1500, [] { return false; });
        std::string error;
        ASSERT_TRUE(cp_cancel_transfer(server.get(), run, error)) << error;
        EXPECT_TRUE(wait_over(run, 4000)) << compress << tale(run);
        EXPECT_EQ(state(run), "cancelled") << tale(run);
        EXPECT_FALSE(reported(run, 63028));
    }
    const int run = order(wish("from/endless", "to/"));
    ASSERT_TRUE(wait(20000, [&] { return source(run) > 0; })) << tale(run);
    wait(1500, [] { return false; });
    const pid_t worker = source(run);
    send_signal(worker, SIGTERM);
    EXPECT_TRUE(wait(4000, [&] { return source(run) != worker; })) << tale(run);
}

TEST_F(transfer_workers, are_waited_for_when_the_operator_wants_it) {
    first.ini["FILETRANSFER"]["ft_delayed_shutdown"] = "60";
    start_agents();
    const int run = begin();
    first.agent.signal(SIGTERM);
    EXPECT_TRUE(wait(5000, [&] { return first.log_has("the shutdown waits"); })) << tale(run);
    send_signal(target(run), SIGCONT);
    ASSERT_TRUE(wait_over(run, 60000)) << tale(run);
    EXPECT_EQ(state(run), "finished") << tale(run);
    EXPECT_TRUE(wait(20000, [&] { return !first.agent.running(); })) << tale(run);
    EXPECT_EQ(first.agent.exit_code(), 0);
}

}  // namespace
