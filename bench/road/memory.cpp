// What the agent holds: while many jobs end at once, after tens of thousands have gone through, and when nothing
// happens, with the processor time that this costs. Prints one table.
//
//   bench_memory [--ends LIST] [--through COUNT] [--idle SECONDS] [--only WHAT] | --quick
//   LIST: sizes of the burst, "1000,10000"; COUNT: jobs that go through (20000); SECONDS of silence (600);
//   WHAT: ends, through or idle
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "road_bench.h"

namespace {

double status_mb(pid_t pid, const char* field) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(field);
    return at == std::string::npos ? 0 : std::atof(status.c_str() + at + std::strlen(field)) / 1024;
}

double resident_mb(pid_t pid) {
    return status_mb(pid, "VmRSS:");
}

// Of all threads, in nanoseconds where the process's own figures count in hundredths of a second.
double cpu_seconds(pid_t pid) {
    double total = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        total += std::atof(read_file(thread.path().string() + "/schedstat").c_str());
    }
    return total / 1e9;
}

void new_agent(bench& b) {
    b.host->stop();
    b.logon();
    b.need(b.until(10000, [&] { return b.host->listener_pid() > 0; }), "the listener");
}

// Until the agent has noticed that it is quiet.
void settle(bench& b) {
    b.until(15000, [] { return false; });
}

bool all_ended(bench& b, const std::vector<int>& runs) {
    return std::all_of(runs.begin(), runs.end(), [&](int run) { return b.ended(run); });
}

// Each job waits at the same gate.
void measure_ends(bench& b, int count, double limit) {
    new_agent(b);
    const pid_t agent = b.host->agent.pid;
    const std::string gate = b.host->path("gate");
    unlink(gate.c_str());
    if (mkfifo(gate.c_str(), 0666) != 0) {
        std::perror("mkfifo");
        std::exit(1);
    }
    std::vector<int> runs;
    for (int i = 0; i < count; ++i) {
        runs.push_back(b.submit("read line < " + gate + "\n"));
        const int run = runs.back();
        b.need(b.until(60000, [&] { return b.job(run).state != cp_job_state::submitted; }), "EXAKTJQU");
    }
    settle(b);
    const double before = resident_mb(agent);
    std::ofstream("/proc/" + std::to_string(agent) + "/clear_refs") << "5";  // the peak counts from here
    close(open(gate.c_str(), O_WRONLY | O_CLOEXEC));
    b.need(b.until(600000, [&] { return all_ended(b, runs); }), "the last end");
    const double peak = status_mb(agent, "VmHWM:");
    settle(b);
    row(fmt::format("{} jobs end at once: most that was held", count), fmt::format("{:.1f} MB", peak),
        fmt::format("{:.1f} MB before", before), fmt::format("{:.1f} MB after", resident_mb(agent)),
        fmt::format("at most {:.0f} MB", limit), peak <= limit);
    for (const int run : runs) {
        cp_forget(b.server.get(), run);
    }
}

void jobs_through(bench& b, int count) {
    constexpr int at_once = 50;
    for (int done = 0; done < count; done += at_once) {
        std::vector<int> runs;
        for (int i = 0; i < at_once; ++i) {
            runs.push_back(b.submit("true"));
        }
        b.need(b.until(120000, [&] { return all_ended(b, runs); }), "the ends");
        for (const int run : runs) {
            cp_forget(b.server.get(), run);
        }
    }
}

void measure_through(bench& b, int count) {
    new_agent(b);
    const pid_t agent = b.host->agent.pid;
    const int first = count / 10;
    jobs_through(b, first);
    settle(b);
    const double before = resident_mb(agent);
    jobs_through(b, count - first);
    settle(b);
    const double more = resident_mb(agent) - before;
    row(fmt::format("memory after {} jobs less that after {}", count, first), fmt::format("{:+.2f} MB", more),
        fmt::format("{:.1f} MB", before), "", "nothing (0.2 MB)", more <= 0.2);
}

void measure_idle(bench& b, int seconds) {
    new_agent(b);
    const pid_t agent = b.host->agent.pid;
    const pid_t listener = b.host->listener_pid();
    b.until(5000, [] { return false; });
    const double before = cpu_seconds(agent) + cpu_seconds(listener);
    const auto start = clock_type::now();
    b.until(seconds * 1000, [] { return false; });
    const double used = (cpu_seconds(agent) + cpu_seconds(listener) - before) * 600 / seconds_since(start);
    row("idle: resident memory of agent and listener",
        fmt::format("{:.1f} + {:.1f} MB", resident_mb(agent), resident_mb(listener)), "", "", "at most 12 and 8 MB",
        resident_mb(agent) <= 12 && resident_mb(listener) <= 8);
    row(fmt::format("idle: processor time in 10 minutes (of {} s)", seconds), fmt::format("{:.3f} s", used), "", "",
        "at most 0.05 s", used <= 0.05);
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
    if (access("/dev/shm", W_OK) == 0) {
        setenv("TMPDIR", "/dev/shm", 0);
    }
    const auto wanted = [&only](const char* what) { return only.empty() || only == what; };
    bench b;
    b.logon();
    fmt::print("{:<46} {:>16} {:>22} {:>10}   {:<28}\n", "what", "figure", "beside it", "", "aim");
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
