// Figures of commands and stored resources: the real agent under the development server, beside bare
// processes and beside jobs without resources in the same run. Prints one table.
//
//   bench_everyday [--only WHAT | --quick]     WHAT: command, resource or log

#include "messages/view.h"
#include "qxcp/store/resources.h"
#include "road_bench.h"

namespace {

// A command runs in its user's login shell, and so does the peer.
void measure_command(bench& b, int count) {
    const std::string shell = login_shell(b.own_user);
    std::vector<double> times;
    std::vector<double> peers;
    for (int i = 0; i < count; ++i) {
        peers.push_back(spawn_once(shell));
        cp_exec_wish wish;
        wish.command = "true";
        wish.user = b.own_user;
        bool done = false;
        const auto start = clock_type::now();
        cp_exec(b.server.get(), "BENCHAGENT", wish, [&done](const cp_answer& answer) {
            if (answer.status != "OK") {
                fmt::print(stderr, "bench: {} U{:08} {}\n", answer.status, answer.number, answer.insert);
                std::exit(1);
            }
            done = true;
        });
        b.need(b.until(10000, [&] { return done; }), "EXRESCMD");
        times.push_back(seconds_since(start));
    }
    const double ratio = median(times) / median(peers);
    row("EXREQCMD `true` in to EXRESCMD out, median", fmt::format("{:.2f} ms", median(times) * 1e3),
        fmt::format("{} {:.2f} ms", shell, median(peers) * 1e3), fmt::format("{:.2f}", ratio),
        "at most 1.5 times the shell", ratio <= 1.5);
}

// Seconds from the first EXAKTJ to the last EXAKTJQU of jobs that all want the same file, or none.
double start_all(bench& b, int count, bool with_resource) {
    std::vector<int> runs;
    const auto start = clock_type::now();
    for (int i = 0; i < count; ++i) {
        cp_job job;
        job.name = "BENCH";
        job.script = "true";
        job.user = b.own_user;
        job.wrap = false;
        job.shell = "sh";
        if (with_resource) {
            job.resources = {{"BENCH", "shared", 'C'}};
        }
        std::string error;
        runs.push_back(cp_submit(b.server.get(), job, error));
    }
    b.need(b.until(120000,
                   [&] {
                       return std::all_of(runs.begin(), runs.end(),
                                          [&](int run) { return !b.job(run).process_id.empty(); });
                   }),
           "the last EXAKTJQU");
    const double time = seconds_since(start);
    b.need(b.until(120000, [&] { return b.all_ended(runs); }), "the last end");
    b.forget(runs);
    return time;
}

void add_version(bench& b) {
    const std::string path = b.folder.path + "/source";
    write_file(path, std::string(100000, 'x'));
    cp_resource resource;
    resource.object = "BENCH";
    resource.name = "shared";
    if (const std::string fault = cp_resource_add(cp_server_store(b.server.get()), resource, path);
        !fault.empty()) {
        fmt::print(stderr, "bench: {}\n", fault);
        std::exit(1);
    }
}

void measure_resource(bench& b, int count) {
    int questions = 0;
    cp_server_tap(b.server.get(), [&questions](cp_agent&, const cp_received& received) {
        questions += message_type_is(received.body.data(), received.body.size(), "BIN_GET") ? 1 : 0;
        return false;
    });
    std::vector<double> with;
    std::vector<double> without;
    constexpr int rounds = 3;
    for (int round = 0; round < rounds; ++round) {
        without.push_back(start_all(b, count, false));
        add_version(b);  // a new version, so that each round fetches
        with.push_back(start_all(b, count, true));
    }
    cp_server_tap(b.server.get(), {});
    const double ratio = median(with) / median(without);
    row(fmt::format("{} jobs that share a resource: start", count), fmt::format("{:.2f} s", median(with)),
        fmt::format("without {:.2f} s", median(without)), fmt::format("{:.2f}", ratio),
        "at most 1.2 times without", ratio <= 1.2);
    row("the same: BIN_GET in each round", fmt::format("{}", questions / rounds), "", "", "one",
        questions == rounds);
}

}  // namespace

namespace {

double best_rate(bench& b, int count, int rounds) {
    double best = 0;
    for (int round = 0; round < rounds; ++round) {
        best = std::max(best, b.job_rate(count, "true"));
    }
    return best;
}

// The period counts from the next logon on.
void log_on_with_period(bench& b, int seconds) {
    cp_server_options(b.server.get()).report_interval = seconds;
    b.host->stop();
    b.need(b.until(10000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") == nullptr; }),
           "the farewell");
    b.logon();
}

// Alternating, so that a slow moment of the host meets both.
void measure_log_stream(bench& b, int count) {
    double with = 0;
    double without = 0;
    for (int round = 0; round < 3; ++round) {
        log_on_with_period(b, 100000);
        without = std::max(without, best_rate(b, count, 2));
        log_on_with_period(b, 1);
        with = std::max(with, best_rate(b, count, 2));
    }
    row(fmt::format("{} jobs `true` while the log is streamed", count), fmt::format("{:.0f}/s", with),
        fmt::format("not streamed {:.0f}/s", without), fmt::format("{:.2f}", with / without), "at least 0.95",
        with / without >= 0.95);
}

}  // namespace

int main(int argc, char** argv) {
    const bench_options options(argc, argv);
    bench b;
    row_head();
    b.logon();
    if (options.wanted("command")) {
        measure_command(b, options.count(300));
    }
    if (options.wanted("resource")) {
        measure_resource(b, options.count(1000));
    }
    if (options.wanted("log")) {
        measure_log_stream(b, options.count(500));
    }
    b.host->stop();
    return 0;
}
