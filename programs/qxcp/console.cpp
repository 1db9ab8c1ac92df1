#include "console.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "console_line.h"

using nlohmann::json;

namespace {

constexpr int exit_refused = 125;  // the job never ran
constexpr int exit_interrupted = 130;

bool copy_report(const std::string& from, const std::string& to) {
    FILE* in = std::fopen(from.c_str(), "rb");
    if (in == nullptr) {
        console_fail(fmt::format("cannot read the report '{}': {}", from, std::strerror(errno)));
        return false;
    }
    FILE* out = to.empty() ? stdout : std::fopen(to.c_str(), "wb");
    if (out == nullptr) {
        console_fail(fmt::format("cannot write '{}': {}", to, std::strerror(errno)));
        std::fclose(in);
        return false;
    }
    char chunk[65536];
    size_t n;
    bool good = true;
    while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0) {
        good = std::fwrite(chunk, 1, n, out) == n && good;
    }
    good = std::ferror(in) == 0 && good;
    std::fclose(in);
    good = std::fflush(out) == 0 && good;
    if (out != stdout) {
        good = std::fclose(out) == 0 && good;
    }
    if (!good) {
        console_fail(fmt::format("the report could not be written whole: {}", std::strerror(errno)));
    }
    return good;
}

std::string describe(const json& job) {
    std::string text = fmt::format("job {} {}", job.value("run", 0), job.value("state", ""));
    const std::string state = job.value("state", "");
    if (state == "activated") {
        text += fmt::format(": process {} on {} since {} UTC", job.value("process_id", ""), job.value("agent", ""),
                            job.value("start_time", ""));
    } else if (state == "running") {
        text += fmt::format(": process {}, started {} UTC", job.value("process_id", ""), job.value("start_time", ""));
        if (const std::string info = job.value("info_text", ""); !info.empty()) {
            text += fmt::format(", \"{}\"", info);
        }
    } else if (state == "ended" || state == "vanished") {
        if (job.value("cancelled", false)) {
            text += " after the order to cancel it";
        }
        text += fmt::format(" at {} UTC with return code {} ({} ms of processor time)", job.value("end_time", ""),
                            job.value("return_code", 0), job.value("cpu_ms", 0));
    } else if (state == "refused" || state == "lost") {
        text += fmt::format(": U{:08} {}", job.value("message_number", 0), job.value("message_insert", ""));
    } else if (state == "waiting") {
        text += " for an agent to log on";
    } else if (state == "submitted") {
        text += fmt::format(" to agent {}", job.value("agent", ""));
    }
    return text;
}

// Asks on the terminal whether the job shall be cancelled. A second Ctrl-C leaves it running.
bool wants_cancel(int run, int signal_fd, bool& leave) {
    leave = false;
    fmt::print(stderr, "\nCancel job {}? [y/N] ", run);
    std::fflush(stderr);
    pollfd wait[2] = {{STDIN_FILENO, POLLIN, 0}, {signal_fd, POLLIN, 0}};
    while (poll(wait, 2, -1) < 0 && errno == EINTR) {
    }
    if (wait[1].revents != 0) {
        leave = true;
        return false;
    }
    char answer[64] = {};
    ssize_t n = read(STDIN_FILENO, answer, sizeof answer - 1);
    if (n <= 0) {
        leave = true;
        return false;
    }
    return answer[0] == 'y' || answer[0] == 'Y';
}

int job_exit_code(const json& job) {
    const std::string state = job.value("state", "");
    if (state == "refused" || state == "lost") {
        return exit_refused;
    }
    const int code = job.value("return_code", 0);
    return code >= 0 && code <= 255 ? code : 255;
}

std::optional<std::string> read_script(const std::string& path) {
    std::stringstream text;
    if (path == "-") {
        text << std::cin.rdbuf();
        return text.str();
    }
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        console_fail(fmt::format("cannot read the script '{}': {}", path, std::strerror(errno)));
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) {
        console_fail(fmt::format("'{}' is no file with a script", path));
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    text << in.rdbuf();
    if (!in) {
        console_fail(fmt::format("cannot read the script '{}': {}", path, std::strerror(errno)));
        return std::nullopt;
    }
    return text.str();
}

// "OBJECT/NAME" as the server wants it; the object ends at the first '/'.
bool add_resources(json& list, const std::vector<std::string>& names, const char* kind) {
    for (const std::string& name : names) {
        const size_t slash = name.find('/');
        if (slash == std::string::npos || slash == 0 || slash + 1 == name.size()) {
            console_fail(fmt::format("'{}' is no resource: write OBJECT/NAME, see 'qxcp resource list'", name));
            return false;
        }
        list.push_back({{"object", name.substr(0, slash)}, {"name", name.substr(slash + 1)}, {"kind", kind}});
    }
    return true;
}

int block_interrupt() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

}  // namespace

int cp_console_run(const cp_console_options& options, const cp_run_options& run) {
    std::optional<std::string> script = read_script(run.script_path);
    if (!script) {
        return console_exit_failure;
    }
    json request = {{"op", "run"},         {"script", *script},     {"name", run.name},
                    {"agent", run.agent},  {"user", run.user},      {"shell", run.shell},
                    {"client", run.client}, {"wrap", !run.plain}};
    request["resources"] = json::array();
    if (!add_resources(request["resources"], run.client_resources, "C") ||
        !add_resources(request["resources"], run.task_resources, "T")) {
        return console_exit_failure;
    }
    if (!run.password_file.empty()) {
        std::ifstream in(run.password_file);
        std::string password;
        if (!std::getline(in, password)) {
            return console_fail(fmt::format("cannot read a password from '{}'", run.password_file));
        }
        request["password"] = password;
    }
    control_line line;
    if (!control_connect(line, options.folder)) {
        return console_exit_no_server;
    }
    const int signal_fd = block_interrupt();
    if (!control_send(line, request)) {
        return console_fail("the server closed the connection: see what it printed");
    }
    int number = 0;
    while (true) {
        bool interrupted;
        std::optional<json> answer = control_receive(line, signal_fd, interrupted);
        if (!answer) {
            return console_fail(fmt::format("the server went away; job {} goes on, see 'qxcp jobs' once it is back", number));
        }
        if (interrupted) {
            bool leave = false;
            if (number != 0 && wants_cancel(number, signal_fd, leave)) {
                cp_console_cancel(options, number);
                continue;
            }
            fmt::print(stderr, "\n");
            if (number == 0 || leave) {
                fmt::print(stderr, "qxcp: job {} goes on\n", number);
                return exit_interrupted;
            }
            continue;
        }
        if (answer->contains("ok") && !answer->value("ok", false)) {
            return console_fail(answer->value("error", "the server gave no reason"));
        }
        const json& job = (*answer)["job"];
        number = job.value("run", 0);
        if (options.json) {
            fmt::print("{}\n", job.dump());
        } else if (!answer->contains("ok")) {
            fmt::print("{}\n", describe(job));
        }
        std::fflush(stdout);
        if (answer->contains("ok")) {
            const std::string copy = job.value("report_copy", "");
            if (!copy.empty() && !options.json) {
                if (run.report_path.empty()) {
                    fmt::print("---- report of job {} ----\n", number);
                }
                if (!copy_report(copy, run.report_path)) {
                    return console_exit_failure;
                }
                if (run.report_path.empty()) {
                    fmt::print("---- end of report ----\n");
                }
            } else if (!copy.empty() && !run.report_path.empty() && !copy_report(copy, run.report_path)) {
                return console_exit_failure;
            }
            return job_exit_code(job);
        }
    }
}

int cp_console_agents(const cp_console_options& options) {
    int exit_code;
    std::optional<json> answer = console_ask(options, {{"op", "agents"}}, exit_code);
    if (answer && options.json) {
        fmt::print("{}\n", (*answer)["agents"].dump());
    } else if (answer) {
        console_table((*answer)["agents"], {{"name", "AGENT"},
                                          {"address", "ADDRESS"},
                                          {"port", "PORT"},
                                          {"version", "VERSION"},
                                          {"platform", "PLATFORM"},
                                          {"since", "LOGGED ON (UTC)"}});
    }
    return exit_code;
}

int cp_console_jobs(const cp_console_options& options) {
    int exit_code;
    std::optional<json> answer = console_ask(options, {{"op", "jobs"}}, exit_code);
    if (answer && options.json) {
        fmt::print("{}\n", (*answer)["jobs"].dump());
    } else if (answer) {
        console_table((*answer)["jobs"], {{"run", "RUN"},
                                        {"name", "NAME"},
                                        {"agent", "AGENT"},
                                        {"user", "USER"},
                                        {"state", "STATE"},
                                        {"process_id", "PROCESS"},
                                        {"start_time", "START (UTC)"},
                                        {"end_time", "END (UTC)"},
                                        {"return_code", "CODE"}});
    }
    return exit_code;
}

int cp_console_cancel(const cp_console_options& options, int run) {
    int exit_code;
    std::optional<json> answer = console_ask(options, {{"op", "cancel"}, {"run", run}}, exit_code);
    if (answer) {
        fmt::print("{}\n", options.json ? answer->dump() : answer->value("text", ""));
    }
    return exit_code;
}

int cp_console_info(const cp_console_options& options, int run) {
    int exit_code;
    std::optional<json> answer = console_ask(options, {{"op", "info"}, {"run", run}}, exit_code);
    if (answer && options.json) {
        fmt::print("{}\n", answer->dump());
    } else if (answer) {
        for (const auto& [key, value] : (*answer)["job"].items()) {
            if (value.is_string() && value.get<std::string>().empty()) {
                continue;
            }
            fmt::print("{:<16} {}\n", key, value.is_string() ? value.get<std::string>() : value.dump());
        }
        fmt::print("{:<16} {}\n", "agent's answer", answer->value("text", ""));
    }
    return exit_code;
}

int cp_console_report(const cp_console_options& options, int run, const std::string& match, bool tail,
                      const std::string& path) {
    int exit_code;
    std::optional<json> answer =
        console_ask(options, {{"op", "report"}, {"run", run}, {"match", match}, {"tail", tail}}, exit_code);
    if (answer && !copy_report(answer->value("path", ""), path)) {
        return console_exit_failure;
    }
    return exit_code;
}

int cp_console_stop(const cp_console_options& options, const std::string& agent) {
    int exit_code;
    std::optional<json> answer = console_ask(options, {{"op", "stop"}, {"agent", agent}}, exit_code);
    if (answer) {
        fmt::print("{}\n", options.json ? answer->dump() : answer->value("text", ""));
    }
    return exit_code;
}
