// Figures of the road of a job: the real agent under the development server, beside bare processes in the
// same run. Prints one table.
//
//   bench_job_road [--only WHAT | --quick]     WHAT: latency, end, rate, messenger or report
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
    b.need(b.until(10000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") == nullptr; }),
           "the farewell");
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        const auto start = clock_type::now();
        b.logon();
        times.push_back(seconds_since(start));
        if (i < 4) {
            b.host->stop();
            b.need(b.until(10000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") == nullptr; }),
                   "the farewell");
        }
    }
    const double time = median(times);
    row("start to logged on, keys known", fmt::format("{:.3f} s", time), "", "", "at most 0.5 s",
        time <= 0.5);
}

void measure_latency(bench& b, int count) {
    std::vector<double> starts;
    std::vector<double> peers;
    for (int i = 0; i < count; ++i) {
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
        fmt::format("shell {:.2f} ms", median(peers) * 1e3), fmt::format("{:.2f}", ratio),
        "at most 1.2 times the shell", ratio <= 1.2);
}

void measure_end(bench& b, int count) {
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
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
        times.push_back(
            std::max(0.0, static_cast<double>(told - end_ns) / 1e9));  // the watcher may wake later
        cp_forget(b.server.get(), run);
    }
    row("end of process to EXSTAJ out, median", fmt::format("{:.2f} ms", median(times) * 1e3), "", "",
        "at most 5 ms", median(times) <= 0.005);
}

constexpr int rate_rounds = 3;

// Alternating, so that a slow moment of the host meets both; the medians count.
void measure_rate(bench& b, int count) {
    const std::string file = b.folder.path + "/peer";
    write_file(file, "#!/bin/sh\ntrue\n", 0755);
    std::vector<double> rates, peers, cpus, peer_cpus;
    for (int round = 0; round < rate_rounds; ++round) {
        const loop_figures peer = start_loop(login_shell(b.own_user), file, count);
        peers.push_back(peer.rate);
        peer_cpus.push_back(peer.parent_cpu);
        const double before = b.agent_cpu();
        rates.push_back(b.job_rate(count, "true"));
        cpus.push_back((b.agent_cpu() - before) / count);
    }
    const double ratio = median(rates) / median(peers);
    row(fmt::format("{} jobs `true`, submitted at once", count), fmt::format("{:.0f}/s", median(rates)),
        fmt::format("the same shells {:.0f}/s", median(peers)), fmt::format("{:.2f}", ratio), "at least 0.85",
        ratio >= 0.85);
    const double cpu_ratio = median(cpus) / median(peer_cpus);
    row("processor time of agent and starter for a job", fmt::format("{:.2f} ms", median(cpus) * 1e3),
        fmt::format("loop {:.2f} ms", median(peer_cpus) * 1e3), fmt::format("{:.2f}", cpu_ratio),
        "at most 2 times the loop's", cpu_ratio <= 2);
}

// A job with the messenger's calls is three processes.
void measure_messenger(bench& b, int count) {
    const std::string file = b.folder.path + "/peer3";
    const std::string call = std::string(QX_MESSENGER_PROGRAM) + " --version > /dev/null\n";
    write_file(file, "#!/bin/sh\n" + call + "true\n" + call, 0755);
    std::vector<double> rates, peers;
    for (int round = 0; round < rate_rounds; ++round) {
        peers.push_back(start_loop(login_shell(b.own_user), file, count).rate);
        rates.push_back(b.job_rate(count, "true", true));
    }
    const double ratio = median(rates) / median(peers);
    row(fmt::format("{} jobs with the messenger's two calls", count), fmt::format("{:.0f}/s", median(rates)),
        fmt::format("the same three {:.0f}/s", median(peers)), fmt::format("{:.2f}", ratio), "at least 0.6",
        ratio >= 0.6);
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

void measure_report(bench& b, int lines) {
    const int run = b.submit("true");
    b.need(b.until(10000, [&] { return b.ended(run); }), "EXSTAJ");
    {
        std::ofstream out(b.job(run).report_file, std::ios::trunc);
        for (int i = 0; i < lines; ++i) {
            out << fmt::format(
                "{:07} a line of a report, as a script may write it to its output for people\n", i);
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

}  // namespace

int main(int argc, char** argv) {
    const bench_options options(argc, argv);
    bench b;
    row_head();
    measure_logon(b);
    if (options.wanted("latency")) {
        measure_latency(b, options.count(200));
    }
    if (options.wanted("end")) {
        measure_end(b, options.count(60));
    }
    if (options.wanted("rate")) {
        measure_rate(b, options.count(500));
    }
    if (options.wanted("messenger")) {
        measure_messenger(b, options.count(500));
    }
    if (options.wanted("report")) {
        measure_report(b, options.count(1300000));
    }
    b.host->stop();
    return 0;
}
