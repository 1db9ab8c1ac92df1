// What the size of the job table costs: rate of starts and processor time of an end while other jobs run, and
// after tens of thousands have gone through. Prints one table.
//
//   bench_sizes [--others LIST] [--through COUNT] | --quick
//   LIST: jobs that run meanwhile, "0,1000,10000"; COUNT: jobs that go through first (20000)
#include <fmt/format.h>

#include <cstring>

#include "road_bench.h"

namespace {

constexpr double largest_end_cost = 0.3e-3;  // seconds of the agent

struct sizes {
    int rate_count = 500;
    int rounds = 3;
    int ends = 200;
    double first_rate = 0;  // with the first size, which the others are compared with
};

void measure_rate(bench& b, sizes& s, const std::string& when) {
    std::vector<double> rates;
    for (int round = 0; round < s.rounds; ++round) {
        rates.push_back(b.job_rate(s.rate_count, "true"));
    }
    const double rate = median(rates);
    s.first_rate = s.first_rate > 0 ? s.first_rate : rate;
    row(fmt::format("{} jobs `true`, {}", s.rate_count, when), fmt::format("{:.0f}/s", rate),
        fmt::format("first {:.0f}/s", s.first_rate), fmt::format("{:.2f}", rate / s.first_rate),
        "at least 0.9", rate / s.first_rate >= 0.9);
}

// Of jobs that started last and end first: what looks for them has to pass all others.
void measure_ends(bench& b, const sizes& s, const std::string& when) {
    const std::string gate = b.host->path("gate_of_ends");
    std::vector<double> costs;
    for (int round = 0; round < s.rounds; ++round) {
        const std::vector<int> runs = b.hold(gate, s.ends);
        b.until(1000, [] { return false; });
        const double before = b.agent_cpu();
        b.release(gate, runs);
        costs.push_back((b.agent_cpu() - before) / s.ends);
        b.forget(runs);
    }
    row(fmt::format("processor time for an end, {}", when), fmt::format("{:.3f} ms", median(costs) * 1e3), "",
        "", fmt::format("at most {:.1f} ms", largest_end_cost * 1e3), median(costs) <= largest_end_cost);
}

void measure_with_others(bench& b, sizes& s, int others) {
    const std::string when = fmt::format("{} others run", others);
    const std::string gate = b.host->path("gate_of_others");
    const std::vector<int> runs = b.hold(gate, others);
    measure_rate(b, s, when);
    measure_ends(b, s, when);
    b.release(gate, runs);
    b.forget(runs);
}

void measure_after(bench& b, sizes& s, int count) {
    constexpr int at_once = 50;
    for (int done = 0; done < count; done += at_once) {
        b.job_rate(at_once, "true");
    }
    const std::string when = fmt::format("{} went through", count);
    measure_rate(b, s, when);
    measure_ends(b, s, when);
}

}  // namespace

int main(int argc, char** argv) {
    std::string others = "0,1000,10000";
    int through = 20000;
    sizes s;
    if (argc == 2 && std::strcmp(argv[1], "--quick") == 0) {
        others = "0,10";
        through = 50;
        s = {10, 1, 10, 0};
    }
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--others") == 0) {
            others = argv[i + 1];
        } else if (std::strcmp(argv[i], "--through") == 0) {
            through = std::atoi(argv[i + 1]);
        }
    }
    bench b;
    b.logon();
    row_head();
    std::istringstream list(others);
    for (std::string count; std::getline(list, count, ',');) {
        measure_with_others(b, s, std::atoi(count.c_str()));
    }
    measure_after(b, s, through);
    b.host->stop();
    return 0;
}
