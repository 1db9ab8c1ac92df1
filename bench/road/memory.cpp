// What the agent holds: while many jobs end at once, after tens of thousands have gone through, and when
// nothing happens, with the processor time that this costs. Prints one table.
//
//   bench_memory [--ends LIST] [--through COUNT] [--idle SECONDS] [--only WHAT] | --quick
//   LIST: sizes of the burst, "1000,10000"; COUNT: jobs that go through (20000); SECONDS of silence (600);
//   WHAT: ends, through or idle
#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "road_bench.h"

namespace {

// Each job waits at the same gate.
void measure_ends(bench& b, int count, double limit) {
    b.new_agent();
    const pid_t agent = b.host->agent.pid;
    const std::string gate = b.host->path("gate");
    const std::vector<int> runs = b.hold(gate, count);
    b.settle();
    const double before = resident_mb(agent);
    std::ofstream("/proc/" + std::to_string(agent) + "/clear_refs") << "5";  // the peak counts from here
    b.release(gate, runs);
    const double peak = status_mb(agent, "VmHWM:");
    b.settle();
    row(fmt::format("{} jobs end at once: most that was held", count), fmt::format("{:.1f} MB", peak),
        fmt::format("{:.1f} MB before", before), fmt::format("{:.1f} MB after", resident_mb(agent)),
        fmt::format("at most {:.0f} MB", limit), peak <= limit);
    b.forget(runs);
}

void jobs_through(bench& b, int count) {
    constexpr int at_once = 50;
    for (int done = 0; done < count; done += at_once) {
        b.job_rate(at_once, "true");
    }
}

void measure_through(bench& b, int count) {
    cp_server_options(b.server.get()).report_interval = 2;  // what waits for the server is no growth
    b.new_agent();
    const pid_t agent = b.host->agent.pid;
    const int first = count / 10;
    jobs_through(b, first);
    b.settle();
    const double before = resident_mb(agent);
    jobs_through(b, count - first);
    b.settle();
    const double more = resident_mb(agent) - before;
    row(fmt::format("memory after {} jobs less that after {}", count, first), fmt::format("{:+.2f} MB", more),
        fmt::format("{:.1f} MB", before), "", "nothing (0.2 MB)", more <= 0.2);
}

void measure_idle(bench& b, int seconds) {
    b.new_agent();
    const pid_t agent = b.host->agent.pid;
    const pid_t listener = b.host->listener_pid();
    b.until(5000, [] { return false; });
    const double before = cpu_seconds(agent) + cpu_seconds(listener);
    const auto start = clock_type::now();
    b.until(seconds * 1000, [] { return false; });
    const double used = (cpu_seconds(agent) + cpu_seconds(listener) - before) * 600 / seconds_since(start);
    row("idle: resident memory of agent and listener",
        fmt::format("{:.1f} + {:.1f} MB", resident_mb(agent), resident_mb(listener)), "", "",
        "at most 12 and 8 MB", resident_mb(agent) <= 12 && resident_mb(listener) <= 8);
    row(fmt::format("idle: processor time in 10 minutes (of {} s)", seconds), fmt::format("{:.3f} s", used),
        "", "", "at most 0.05 s", used <= 0.05);
}

}  // namespace

int main(int argc, char** argv) {
    std::string ends = "1000,10000";
    std::string only;
    int through = 20000;
    int idle = 600;
    if (argc == 2 && std::string(argv[1]) == "--quick") {
        ends = "10";
        through = 50;
        idle = 1;
    }
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--ends") {
            ends = argv[i + 1];
        } else if (option == "--through") {
            through = std::atoi(argv[i + 1]);
        } else if (option == "--idle") {
            idle = std::atoi(argv[i + 1]);
        } else if (option == "--only") {
            only = argv[i + 1];
        }
    }
    const auto wanted = [&only](const char* what) { return only.empty() || only == what; };
    bench b;
    b.logon();
    row_head();
    if (wanted("ends")) {
        std::istringstream sizes(ends);
        for (std::string size; std::getline(sizes, size, ',');) {
            const int count = std::atoi(size.c_str());
            measure_ends(b, count, count <= 1000 ? 16 : 50);
        }
    }
    if (wanted("through")) {
        measure_through(b, through);
    }
    if (wanted("idle")) {
        measure_idle(b, idle);
    }
    b.host->stop();
    return 0;
}
