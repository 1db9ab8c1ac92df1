// What the benchmarks of the real programs share: a server, an agent, the peer, and a row of the table.
#pragma once

#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "installation.h"
#include "qxcp/server.h"

extern char** environ;

using clock_type = std::chrono::steady_clock;

inline double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

inline void row(const std::string& what, const std::string& figure, const std::string& peer, const std::string& ratio,
         const std::string& aim, bool met) {
    fmt::print("{:<46} {:>16} {:>22} {:>10}   {:<28} {}\n", what, figure, peer, ratio, aim, met ? "met" : "NOT MET");
    std::fflush(stdout);
}

// The peer: a shell that does nothing, started and waited for.
inline double spawn_once() {
    const auto start = clock_type::now();
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char command[] = "true";
    char* arguments[] = {shell, option, command, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, shell, nullptr, nullptr, arguments, environ) != 0) {
        std::perror("posix_spawn");
        std::exit(1);
    }
    int status;
    waitpid(pid, &status, 0);
    return seconds_since(start);
}

struct bench {
    scratch_folder folder;
    cp_options options;
    std::unique_ptr<cp_server, void (*)(cp_server*)> server{nullptr, cp_server_close};
    std::unique_ptr<installation> host;

    bench() {
        options.system = "BENCH";
        options.folder = folder.path + "/cp";
        options.control = false;
        options.fetch_reports = false;
        options.job_check = 600;
        std::string error;
        server = cp_server_open(options, error);
        if (!server) {
            fmt::print(stderr, "{}\n", error);
            std::exit(1);
        }
        host = std::make_unique<installation>("BENCHAGENT", cp_server_port(server.get()), "BENCH");
    }
    bool until(int timeout_ms, const std::function<bool()>& done) {
        return cp_server_run_until(server.get(), timeout_ms, done);
    }
    void need(bool good, const char* what) {
        if (!good) {
            fmt::print(stderr, "bench: {} did not come in time\n{}\n", what, host->log());
            std::exit(1);
        }
    }
    void logon() {
        host->start();
        need(until(20000, [&] { return cp_find_agent(server.get(), "BENCHAGENT") != nullptr; }), "the logon");
    }
    int submit(const std::string& script) {
        cp_job job;
        job.name = "BENCH";
        job.script = script;
        job.user = own_user;
        job.wrap = false;
        job.shell = "sh";  // as the peer's
        std::string error;
        return cp_submit(server.get(), job, error);
    }
    cp_job& job(int run) { return *cp_find_job(server.get(), run); }
    bool ended(int run) { return cp_state_is_final(job(run).state); }

    std::string own_user = [] {
        std::string name;
        run_program({"/usr/bin/id", "-un"}, name);
        name.erase(name.find_last_not_of('\n') + 1);
        return name;
    }();
};
