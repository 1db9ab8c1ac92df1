// Figures of the road of a job: the real agent under the development server, beside bare processes in the same
// run. Prints one table.
//
//   bench_job_road [--idle SECONDS] [--only WHAT]
//   SECONDS of silence over which processor time is counted (60); WHAT: latency, end, rate, report or idle
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "road_bench.h"

namespace {

void measure_logon(bench& b) {
    b.logon();
    b.host->stop();
    b.need(b.until(10000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") == nullptr; }), "the farewell");
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        const auto start = clock_type::now();
        b.logon();
        times.push_back(seconds_since(start));
        if (i < 4) {
            b.host->stop();
            b.need(b.until(10000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") == nullptr; }), "the farewell");
        }
    }
    const double time = median(times);
    row("start to logged on, keys known", fmt::format("{:.3f} s", time), "", "", "at most 0.5 s", time <= 0.5);
}

void measure_latency(bench& b) {
    std::vector<double> starts;
    std::vector<double> peers;
    for (int i = 0; i < 200; ++i) {
        peers.push_back(spawn_once());
        const auto start = clock_type::now();
        const int run = b.submit("true");
        b.need(b.until(10000, [&] { return b.job(run).state != cp_job_state::submitted; }), "EXAKTJQU");
        starts.push_back(seconds_since(start));
        b.need(b.until(10000, [&] { return b.ended(run); }), "EXSTAJ");
        cp_forget(b.server.get(), run);
    }
    const double ratio = median(starts) / median(peers);
    row("EXAKTJ in to EXAKTJQU out, median", fmt::format("{:.2f} ms", median(starts) * 1e3),
        fmt::format("shell {:.2f} ms", median(peers) * 1e3), fmt::format("{:.2f}", ratio), "at most 3 times the shell",
        ratio <= 3);
}

void measure_end(bench& b) {
    std::vector<double> times;
    for (int i = 0; i < 60; ++i) {
        const std::string gate = b.host->path("gate" + std::to_string(i));
        if (mkfifo(gate.c_str(), 0666) != 0) {
            std::perror("mkfifo");
            std::exit(1);
        }
        const int run = b.submit("read line < " + gate + "\n");
        b.need(b.until(10000, [&] { return !b.job(run).process_id.empty(); }), "EXAKTJQU");
        const int fd = static_cast<int>(syscall(SYS_pidfd_open, std::atoi(b.job(run).process_id.c_str()), 0));
        std::atomic<int64_t> end_ns{0};
        std::thread watcher([&] {
            pollfd wait{fd, POLLIN, 0};
            while (poll(&wait, 1, -1) < 0) {
            }
            end_ns = clock_type::now().time_since_epoch().count();
        });
        const int out = open(gate.c_str(), O_WRONLY | O_CLOEXEC);
        if (out < 0 || write(out, "go\n", 3) != 3) {
            std::perror("gate");
            std::exit(1);
        }
        close(out);
        b.need(b.until(10000, [&] { return b.ended(run); }), "EXSTAJ");
        const int64_t told = clock_type::now().time_since_epoch().count();
        watcher.join();
        close(fd);
        times.push_back(static_cast<double>(told - end_ns) / 1e9);
        cp_forget(b.server.get(), run);
    }
    row("end of process to EXSTAJ out, median", fmt::format("{:.2f} ms", median(times) * 1e3), "", "", "at most 5 ms",
        median(times) <= 0.005);
}

void measure_rate(bench& b) {
    constexpr int count = 500;
    double best = 0;
    double best_peer = 0;
    for (int round = 0; round < 3; ++round) {
        auto start = clock_type::now();
        for (int i = 0; i < count; ++i) {
            spawn_once();
        }
        best_peer = std::max(best_peer, count / seconds_since(start));
        std::vector<int> runs;
        start = clock_type::now();
        for (int i = 0; i < count; ++i) {
            runs.push_back(b.submit("true"));
        }
        b.need(b.until(120000, [&] {
            return std::all_of(runs.begin(), runs.end(), [&](int run) { return b.ended(run); });
        }), "the last end");
        best = std::max(best, count / seconds_since(start));
        for (int run : runs) {
            cp_forget(b.server.get(), run);
        }
    }
    row("500 jobs `true`, submitted at once", fmt::format("{:.0f}/s", best), fmt::format("spawn {:.0f}/s", best_peer),
        fmt::format("{:.2f}", best / best_peer), "at least 0.5 of spawn", best / best_peer >= 0.5);
}

// What reading and converting costs alone: lines into blocks with CR LF, a write to nowhere.
double copy_alone(const std::string& path) {
    const auto start = clock_type::now();
    FILE* in = std::fopen(path.c_str(), "r");
    std::vector<char> line(40000);
    std::string block;
    size_t total = 0;
    while (std::fgets(line.data(), static_cast<int>(line.size()), in) != nullptr) {
        const size_t length = std::strlen(line.data()) - 1;
        block.append(line.data(), length);
        block += "\r\n";
        total += length + 1;
        if (block.size() > 32000) {
            block.clear();
        }
    }
    std::fclose(in);
    return static_cast<double>(total) / 1e6 / seconds_since(start);
}

void measure_report(bench& b) {
    const int run = b.submit("true");
    b.need(b.until(10000, [&] { return b.ended(run); }), "EXSTAJ");
    {
        std::ofstream out(b.job(run).report_file, std::ios::trunc);
        for (int i = 0; i < 1300000; ++i) {
            out << fmt::format("{:07} a line of a report, as a script may write it to its output for people\n", i);
        }
    }
    struct stat status {};
    stat(b.job(run).report_file.c_str(), &status);
    const double size = static_cast<double>(status.st_size) / 1e6;
    double best = 0;
    double best_peer = 0;
    for (int round = 0; round < 3; ++round) {
        best_peer = std::max(best_peer, copy_alone(b.job(run).report_file));
        cp_report_wish wish;
        wish.path = "/dev/null";
        bool done = false;
        const auto start = clock_type::now();
        cp_fetch_report(b.server.get(), run, wish, [&](const cp_answer&) { done = true; });
        b.need(b.until(120000, [&] { return done; }), "the report");
        best = std::max(best, size / seconds_since(start));
    }
    row(fmt::format("{:.0f} MB report, fetched in blocks", size), fmt::format("{:.0f} MB/s", best),
        fmt::format("fgets and copy {:.0f} MB/s", best_peer), fmt::format("{:.2f}", best / best_peer),
        "at least 100 MB/s or the peer", best >= std::min(100.0, best_peer));
    cp_forget(b.server.get(), run);
}

double cpu_seconds(pid_t pid) {
    const std::string stat_line = read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat_line.substr(stat_line.rfind(')') + 2));
    std::string word;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> word; ++i) {
        if (i >= 14) {
            ticks += std::atof(word.c_str());
        }
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double resident_mb(pid_t pid) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? 0 : std::atof(status.c_str() + at + 6) / 1024;
}

void measure_idle(bench& b, int seconds) {
    b.host->stop();
    b.logon();  // what earlier figures left in memory doesn't count
    b.need(b.until(10000, [&] { return b.host->listener_pid() > 0; }), "the listener");
    const pid_t agent = b.host->agent.pid;
    const pid_t listener = b.host->listener_pid();
    b.until(2000, [] { return false; });
    const double before = cpu_seconds(agent) + cpu_seconds(listener);
    const auto start = clock_type::now();
    b.until(seconds * 1000, [] { return false; });
    const double used = (cpu_seconds(agent) + cpu_seconds(listener) - before) * 600 / seconds_since(start);
    row("idle: resident memory of the agent", fmt::format("{:.1f} MB", resident_mb(agent)), "", "", "at most 12 MB",
        resident_mb(agent) <= 12);
    row("idle: resident memory of the listener", fmt::format("{:.1f} MB", resident_mb(listener)), "", "",
        "at most 8 MB", resident_mb(listener) <= 8);
    row(fmt::format("idle: processor time in 10 minutes (of {} s)", seconds), fmt::format("{:.2f} s", used), "", "",
        "at most 0.1 s", used <= 0.1);
}

}  // namespace

int main(int argc, char** argv) {
    int idle_seconds = 60;
    std::string only;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::string{argv[i]} == "--idle") {
            idle_seconds = std::atoi(argv[i + 1]);
        } else if (std::string{argv[i]} == "--only") {
            only = argv[i + 1];
        }
    }
    // Files come and go quickly here, which some file systems slow down on purpose; it is not what is measured.
    if (access("/dev/shm", W_OK) == 0) {
        setenv("TMPDIR", "/dev/shm", 0);
    }
    const auto wanted = [&only](const char* what) { return only.empty() || only == what; };
    bench b;
    fmt::print("{:<46} {:>16} {:>22} {:>10}   {:<28}\n", "what", "figure", "peer", "ratio", "aim");
    measure_logon(b);
    if (wanted("latency")) {
        measure_latency(b);
    }
    if (wanted("end")) {
        measure_end(b);
    }
    if (wanted("rate")) {
        measure_rate(b);
    }
    if (wanted("report")) {
        measure_report(b);
    }
    if (wanted("idle")) {
        measure_idle(b, idle_seconds);
    }
    b.host->stop();
    return 0;
}
