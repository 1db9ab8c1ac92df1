// Transfers that are hit while they run, at any moment and by anything, and go on until all has arrived.
// QX_CUTS sets how many (scripts/cut-transfers), QX_CUTS_SEED the first number of the generator.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <random>

#include "transfer_fixture.h"

namespace {

constexpr int restarts_at_most = 5;

int number_of(const char* variable, int preset) {
    const char* text = std::getenv(variable);
    return text == nullptr ? preset : std::atoi(text);
}

struct transfer_cuts : transfer_test {
    std::mt19937 random{static_cast<uint32_t>(number_of("QX_CUTS_SEED", 1))};

    int last_run = 0;

    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }

    void make_sources() {
        fs::create_directories(from("from/tree/below"));
        write_file(from("from/tree/large"), pattern(3000000 + static_cast<size_t>(below(3000000))));
        for (int i = 0; i < 20; ++i) {
            write_file(from("from/tree/below/") + std::to_string(i),
                       pattern(static_cast<size_t>(below(40000))));
        }
        write_file(from("from/tree/empty"), "");
    }
    cp_transfer random_wish() {
        cp_transfer wanted = wish("from/tree/", "to/tree/");
        wanted.subfolders = true;
        wanted.reverse = below(2) == 1;
        wanted.compress = "01"[below(2)];
        wanted.window_max = 1 + below(32);
        wanted.window_num = 1 + below(wanted.window_max);
        wanted.window_min = below(wanted.window_max + 1);
        return wanted;
    }
    void kill_worker(const installation& host, int run) {
        if (const pid_t worker = worker_of(host, run); worker > 0) {
            kill(worker, SIGKILL);
        }
    }
    void kill_agent(installation& host) {
        const int logons = count_events("logon");
        host.agent.kill_now();
        host.start();
        ASSERT_TRUE(wait(30000, [&] { return count_events("logon") > logons; })) << story();
    }
    const char* hit(int run) {
        std::string error;
        switch (below(8)) {
            case 0:
                kill_worker(first, run);
                return "the source's worker";
            case 1:
                kill_worker(second, run);
                return "the destination's worker";
            case 2:
                kill_agent(first);
                return "the source's agent";
            case 3:
                kill_agent(second);
                return "the destination's agent";
            case 4:
                close_server();
                usleep(static_cast<useconds_t>(below(200000)));
                open_server();
                return "the server";
            case 5:
                cp_drop_line(server.get(), "FIRST");
                return "the source's line";
            case 6:
                cp_drop_line(server.get(), "SECOND");
                return "the destination's line";
            default:
                cp_cancel_transfer(server.get(), run, error);  // it may be over
                return "an order to cancel";
        }
    }
    bool agents_are_there() {
        return wait(30000, [&] {
            return cp_find_agent(server.get(), "FIRST") != nullptr &&
                   cp_find_agent(server.get(), "SECOND") != nullptr;
        });
    }
    // No file has its final name before it is whole.
    void expect_no_half_file(const std::string& what) {
        const auto sources = content("from/tree");
        if (!fs::exists(from("to/tree"))) {
            return;
        }
        for (const auto& [name, bytes] : content("to/tree")) {
            if (!name.ends_with(".tmp")) {
                const auto source = sources.find(name);
                EXPECT_TRUE(source != sources.end() && source->second == bytes) << what << ": " << name;
            }
        }
    }
    void cut_once(int number) {
        fs::remove_all(from("to/tree"));
        int run = order(random_wish());
        ASSERT_NE(run, 0);
        const int delay = below(400);
        wait(delay, [] { return false; });
        const std::string what =
            "cut " + std::to_string(number) + " after " + std::to_string(delay) + " ms: " + hit(run);
        SCOPED_TRACE(what);
        ASSERT_TRUE(agents_are_there()) << story();
        for (int again = 0; again < restarts_at_most; ++again) {
            ASSERT_TRUE(wait_over(run, 60000)) << tale(run);
            expect_no_half_file(what);
            if (state(run) == "finished") {
                break;
            }
            run = restart(run);
            ASSERT_NE(run, 0) << tale(run);
        }
        EXPECT_EQ(state(run), "finished") << tale(run);
        EXPECT_TRUE(content("to/tree") == content("from/tree")) << tale(run);
        last_run = run;
    }
};

TEST_F(transfer_cuts, end_with_every_byte_at_its_place) {
    start_agents();
    make_sources();
    // A hundred, as far as they fit into the time of a test; those that somebody asks for take theirs.
    const bool asked = std::getenv("QX_CUTS") != nullptr;
    const int count = number_of("QX_CUTS", 100);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(100);
    for (int number = 0; number < count && !HasFailure(); ++number) {
        cut_once(number);
        if (!asked && std::chrono::steady_clock::now() > end) {
            break;
        }
    }
    for (int run = 1; run <= last_run; ++run) {
        EXPECT_TRUE(workers_end(run)) << "of transfer " << run;
    }
}

}  // namespace
