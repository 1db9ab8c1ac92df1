#include "console.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
constexpr int exit_signal = 128;   // and the number of the signal, for a job that was cancelled
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
    const std::string state = job.value("state", "");
    std::string text = fmt::format("job {} {}", job.value("run", 0), state);
    if (state == "activated") {
        text += fmt::format(": process {} on {} since {} UTC", job.value("process_id", ""),
                            job.value("agent", ""), job.value("start_time", ""));
    } else if (state == "running") {
        text += fmt::format(": process {}, started {} UTC", job.value("process_id", ""),
                            job.value("start_time", ""));
        if (const std::string info = job.value("info_text", ""); !info.empty()) {
            text += fmt::format(", \"{}\"", info);
        }
    } else if (state == "ended" || state == "vanished") {
        if (job.value("cancelled", false)) {
            text += " after the order to cancel it";
        }
        text += fmt::format(" at {} UTC with return code {} ({} ms of processor time)",
                            job.value("end_time", ""), job.value("return_code", 0), job.value("cpu_ms", 0));
    } else if (state == "cancelled" && job.contains("signal")) {
        text += fmt::format(" at {} UTC, ended by signal {} ({} ms of processor time)",
                            job.value("end_time", ""), job.value("signal", 0), job.value("cpu_ms", 0));
    } else if (state == "cancelled") {
        text += ": it was sent to no agent";
    } else if (state == "cancelling") {
        text += ": the order is with its agent";
    } else if (state == "refused" || state == "lost") {
        text += fmt::format(": {}", job.value("message", "the agent gave no reason"));
    } else if (state == "waiting") {
        text += " for an agent to log on";
    } else if (state == "submitted") {
        text += fmt::format(" to agent {}", job.value("agent", ""));
    }
    return text;
}

// All that is known, the main things first; what is empty or zero is left out.
void print_job(const json& job) {
    constexpr std::pair<const char*, const char*> rows[] = {{"run", "run"},
                                                            {"name", "name"},
                                                            {"state", "state"},
                                                            {"message", "reason"},
                                                            {"return_code", "return code"},
                                                            {"signal", "signal"},
                                                            {"agent", "agent"},
                                                            {"user", "user"},
                                                            {"client", "client"},
                                                            {"shell", "shell"},
                                                            {"process_id", "process"},
                                                            {"program", "program"},
                                                            {"start_time", "started (UTC)"},
                                                            {"end_time", "ended (UTC)"},
                                                            {"cpu_ms", "processor, ms"},
                                                            {"io_count", "page faults"},
                                                            {"info_text", "status text"},
                                                            {"variables", "variables"},
                                                            {"output_files", "output files"},
                                                            {"job_file", "job file"},
                                                            {"report_file", "report there"},
                                                            {"report_copy", "report here"}};
    for (const auto& [key, label] : rows) {
        const json value = job.value(key, json{});
        const bool bare =
            value.empty() || value == "" || (value == 0 && key != std::string_view{"return_code"});
        if (!bare) {
            fmt::print("{:<16} {}\n", label, value.is_string() ? value.get<std::string>() : value.dump());
        }
    }
}

// The report as one JSON object, with its text or, when it goes to a file, the file's name.
bool tell_report(const std::string& copy, int run, const std::string& path) {
    json line = {{"run", run}};
    std::ifstream in(copy, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in.is_open() || in.bad()) {
        console_fail(fmt::format("cannot read the report '{}': {}", copy, std::strerror(errno)));
        return false;
    }
    line["bytes"] = text.size();
    if (!path.empty()) {
        if (!copy_report(copy, path)) {
            return false;
        }
        line["output"] = path;
    } else {
        line["text"] = text;
    }
    fmt::print("{}\n", line.dump(-1, ' ', false, json::error_handler_t::replace));
    return true;
}

int job_exit_code(const json& job) {
    const std::string state = job.value("state", "");
    if (state == "cancelled" && job.contains("signal")) {
        return exit_signal + (job.value("signal", 0) & 127);  // as a shell tells it
    }
    if (!job.contains("return_code")) {
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
            console_fail(
                fmt::format("'{}' is no resource: write OBJECT/NAME, see 'qxcp resource list'", name));
            return false;
        }
        list.push_back({{"object", name.substr(0, slash)}, {"name", name.substr(slash + 1)}, {"kind", kind}});
    }
    return true;
}

}  // namespace

int cp_console_run(const cp_console_options& options, const cp_run_options& run) {
    std::optional<std::string> script = read_script(run.script_path);
    if (!script) {
        return console_exit_failure;
    }
    json request = {{"op", "run"},      {"script", *script},  {"name", run.name},     {"agent", run.agent},
                    {"user", run.user}, {"shell", run.shell}, {"client", run.client}, {"wrap", !run.plain}};
    request["resources"] = json::array();
    if (!add_resources(request["resources"], run.client_resources, "C") ||
        !add_resources(request["resources"], run.task_resources, "T")) {
        return console_exit_failure;
    }
    const std::optional<std::string> password = console_password(run.password_file);
    if (!password) {
        return console_exit_failure;
    }
    if (!password->empty()) {
        request["password"] = *password;
    }
    control_line line;
    if (!control_connect(line, options.folder)) {
        return console_exit_no_server;
    }
    const int signal_fd = console_block_interrupt();
    if (!control_send(line, request)) {
        return console_fail("the server closed the connection: see what it printed");
    }
    int number = 0;
    while (true) {
        bool interrupted;
        std::optional<json> answer = control_receive(line, signal_fd, interrupted);
        if (!answer) {
            return console_fail(
                fmt::format("the server went away; job {} goes on, see 'qxcp jobs' once it is back", number));
        }
        if (interrupted) {
            bool leave = false;
            if (number != 0 &&
                console_wants_cancel(fmt::format("Cancel job {}?", number), signal_fd, leave)) {
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
        if (console_progress(*answer)) {
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
        console_lines((*answer)["agents"]);
    } else if (answer) {
        console_table((*answer)["agents"], {{"name", "AGENT"},
                                            {"address", "ADDRESS"},
                                            {"port", "PORT"},
                                            {"version", "VERSION"},
                                            {"platform", "PLATFORM"},
                                            {"since", "LOGGED ON (UTC)"},
                                            {"key", "FINGERPRINT OF ITS KEY"}});
        if ((*answer)["agents"].empty()) {
            fmt::print(stderr, "qxcp: no agent is logged on\n");
        }
    }
    return exit_code;
}

int cp_console_jobs(const cp_console_options& options, const cp_jobs_options& jobs) {
    int exit_code;
    const std::optional<json> answer = console_ask(
        options, {{"op", "jobs"}, {"states", jobs.states}, {"agent", jobs.agent}, {"last", jobs.last}},
        exit_code);
    if (answer && options.json) {
        console_lines((*answer)["jobs"]);
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
    const std::optional<json> answer = console_ask(options, {{"op", "info"}, {"run", run}}, exit_code);
    if (answer && options.json) {
        fmt::print("{}\n", answer->dump());
    } else if (answer) {
        print_job((*answer)["job"]);
        if (answer->contains("text")) {
            fmt::print("{:<16} {}\n", "agent's answer", answer->value("text", ""));
        }
    }
    return exit_code;
}

int cp_console_report(const cp_console_options& options, int run, const std::string& match, bool tail,
                      const std::string& path) {
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "report"}, {"run", run}, {"match", match}, {"tail", tail}}, exit_code);
    if (!answer) {
        return exit_code;
    }
    const std::string copy = answer->value("path", "");
    const bool good = options.json ? tell_report(copy, run, path) : copy_report(copy, path);
    if (answer->value("remove", false)) {
        unlink(copy.c_str());  // made for this command alone; a later one takes another name
    }
    return good ? 0 : console_exit_failure;
}

int cp_console_stop(const cp_console_options& options, const std::string& agent) {
    int exit_code;
    std::optional<json> answer = console_ask(options, {{"op", "stop"}, {"agent", agent}}, exit_code);
    if (answer) {
        fmt::print("{}\n", options.json ? answer->dump() : answer->value("text", ""));
    }
    return exit_code;
}
