// What the benchmarks of the real programs share: a server, an agent, the peer, and a row of the table.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "installation.h"
#include "qxcp/agents/server.h"

extern char** environ;

using clock_type = std::chrono::steady_clock;

inline double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

inline void row(const std::string& what, const std::string& figure, const std::string& peer,
                const std::string& ratio, const std::string& aim, bool met) {
    fmt::print("{:<46} {:>16} {:>22} {:>10}   {:<28} {}\n", what, figure, peer, ratio, aim,
               met ? "met" : "NOT MET");
    std::fflush(stdout);
}

// The options that the tables of a job's road take: --only WHAT, or --quick, which shows that everything runs
// and whose figures mean nothing.
struct bench_options {
    std::string only;
    bool quick = false;

    bench_options(int argc, char** argv) {
        quick = argc == 2 && std::string(argv[1]) == "--quick";
        only = argc == 3 && std::string(argv[1]) == "--only" ? argv[2] : "";
    }
    bool wanted(const char* what) const { return only.empty() || only == what; }
    int count(int usual) const { return quick ? std::max(1, usual / 100) : usual; }
};

inline void row_head() {
    fmt::print("{:<46} {:>16} {:>22} {:>10}   {:<28}\n", "what", "figure", "beside it", "ratio", "aim");
}

[[noreturn]] inline void give_up_bench(const char* what) {
    std::perror(what);
    std::exit(1);
}

inline pid_t spawn_shell(std::string text, std::string shell = "/bin/sh") {
    char option[] = "-c";
    char* arguments[] = {shell.data(), option, text.data(), nullptr};
    pid_t pid;
    if (posix_spawn(&pid, shell.c_str(), nullptr, nullptr, arguments, environ) != 0) {
        give_up_bench("posix_spawn");
    }
    return pid;
}

// The peer of a single start: a shell that does nothing, started and waited for.
inline double spawn_once(const std::string& shell = "/bin/sh") {
    const auto start = clock_type::now();
    const pid_t pid = spawn_shell("true", shell);
    int status;
    waitpid(pid, &status, 0);
    return seconds_since(start);
}

struct loop_figures {
    double rate = 0;        // starts a second
    double parent_cpu = 0;  // processor time of the starting process for one start, in seconds
};

inline double own_cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The user's login shell, in which his jobs and commands start.
inline std::string login_shell(const std::string& user) {
    const passwd* account = getpwnam(user.c_str());
    return account != nullptr && *account->pw_shell != 0 ? account->pw_shell : "/bin/sh";
}

// The peer of many starts: the shell runs `file` as a job's shell runs the job file, two at a time.
inline loop_figures start_loop(const std::string& shell, const std::string& file, int count) {
    constexpr size_t at_once = 2;
    std::set<pid_t> running;
    const auto start = clock_type::now();
    const double cpu = own_cpu_seconds();
    for (int started = 0; started < count || !running.empty();) {
        if (started < count && running.size() < at_once) {
            running.insert(spawn_shell("exec " + file, shell));
            ++started;
            continue;
        }
        int status;
        running.erase(waitpid(-1, &status, 0));
    }
    return {count / seconds_since(start), (own_cpu_seconds() - cpu) / count};
}

inline double status_mb(pid_t pid, const std::string& field) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(field);
    return at == std::string::npos ? 0 : std::atof(status.c_str() + at + field.size()) / 1024;
}

inline double resident_mb(pid_t pid) {
    return status_mb(pid, "VmRSS:");
}

// Of all threads, in nanoseconds where the process's own figures count in hundredths of a second.
inline double cpu_seconds(pid_t pid) {
    double total = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        total += std::atof(read_file(thread.path().string() + "/schedstat").c_str());
    }
    return total / 1e9;
}

inline pid_t starter_pid(pid_t agent) {
    const std::string task = "/proc/" + std::to_string(agent) + "/task/" + std::to_string(agent);
    std::istringstream children(read_file(task + "/children"));
    for (pid_t child; children >> child;) {
        if (read_file("/proc/" + std::to_string(child) + "/comm").find("starter") != std::string::npos) {
            return child;
        }
    }
    return -1;
}

// Files come and go quickly here, which some file systems slow down on purpose; it is not what is measured.
inline bool use_memory_folder() {
    return access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 0) == 0;
}

struct bench {
    bool in_memory = use_memory_folder();  // before the first folder is made
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
    // `wrap`: with the messenger's calls at begin and end.
    int submit(const std::string& script, bool wrap = false) {
        cp_job job;
        job.name = "BENCH";
        job.script = script;
        job.user = own_user;
        job.wrap = wrap;
        job.shell = "sh";  // as the peer's
        std::string error;
        return cp_submit(server.get(), job, error);
    }
    cp_job& job(int run) { return *cp_find_job(server.get(), run); }
    bool ended(int run) { return cp_state_is_final(job(run).state); }
    bool all_ended(const std::vector<int>& runs) {
        return std::all_of(runs.begin(), runs.end(), [&](int run) { return ended(run); });
    }
    void forget(const std::vector<int>& runs) {
        for (const int run : runs) {
            cp_forget(server.get(), run);
        }
    }
    // Processor time of the agent and its starter, in seconds.
    double agent_cpu() {
        const pid_t starter = starter_pid(host->agent.pid);
        return cpu_seconds(host->agent.pid) + (starter > 0 ? cpu_seconds(starter) : 0);
    }
    void new_agent() {
        host->stop();
        logon();
        need(until(10000, [&] { return host->listener_pid() > 0; }), "the listener");
    }
    // Until the agent has noticed that it is quiet.
    void settle() {
        until(15000, [] { return false; });
    }

    // Jobs that wait until the gate is opened.
    std::vector<int> hold(const std::string& gate, int count) {
        unlink(gate.c_str());
        if (mkfifo(gate.c_str(), 0666) != 0) {
            give_up_bench("mkfifo");
        }
        std::vector<int> runs;
        for (int i = 0; i < count; ++i) {
            runs.push_back(submit("read line < " + gate + "\n"));
            if (i % 20 == 19 || i == count - 1) {
                need(until(60000, [&] { return job(runs.back()).state != cp_job_state::submitted; }),
                     "EXAKTJQU");
            }
        }
        return runs;
    }
    // Again for those who had not reached the gate.
    void release(const std::string& gate, const std::vector<int>& runs) {
        const auto start = clock_type::now();
        do {
            close(open(gate.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
            need(seconds_since(start) < 600, "the last end");
        } while (!until(1000, [&] { return all_ended(runs); }));
    }
    // Jobs a second of `count` that are submitted at once.
    double job_rate(int count, const std::string& script, bool wrap = false) {
        std::vector<int> runs;
        const auto start = clock_type::now();
        for (int i = 0; i < count; ++i) {
            runs.push_back(submit(script, wrap));
        }
        need(until(240000, [&] { return all_ended(runs); }), "the last end");
        const double rate = count / seconds_since(start);
        forget(runs);
        return rate;
    }

    std::string own_user = [] {
        std::string name;
        run_program({"/usr/bin/id", "-un"}, name);
        name.erase(name.find_last_not_of('\n') + 1);
        return name;
    }();
};
