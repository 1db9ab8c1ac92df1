// `qxcp exec`: a command on an agent's host, its output here.
#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "console_line.h"
#include "qxcp/hex.h"

using nlohmann::json;

namespace {

constexpr int exit_timeout = 124;
constexpr int exit_refused = 125;  // the command never ran
constexpr int exit_interrupted = 130;

int wait_for_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGALRM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

int cancel(const cp_console_options& options, const std::string& agent, int number) {
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "exec_cancel"}, {"agent", agent}, {"command", number}}, exit_code);
    if (answer) {
        fmt::print(stderr, "qxcp: {}\n", answer->value("text", ""));
    }
    return exit_code;
}

// Output that is no UTF-8 came as hex too; JSON cannot hold it.
std::string output_of(const json& answer) {
    const auto hex = answer.find("output_hex");
    return hex == answer.end() ? answer.value("output", "")
                               : cp_from_hex(hex->get<std::string>()).value_or(answer.value("output", ""));
}

void print_answer(const json& answer, int rows) {
    const std::string output = output_of(answer);
    std::fwrite(output.data(), 1, output.size(), stdout);
    std::fflush(stdout);
    if (std::count(output.begin(), output.end(), '\n') >= rows) {
        fmt::print(stderr, "qxcp: the output has reached {} lines and may go on: see --rows\n", rows);
    }
    if (answer.value("status", "") != "OK") {
        fmt::print(stderr, "qxcp: {}\n", answer.value("text", ""));
    }
}

int tell(const cp_console_options& options, const json& answer, int rows) {
    const int code = answer.value("code", -1);
    if (options.json) {
        fmt::print("{}\n", answer.dump(-1, ' ', false, json::error_handler_t::replace));
    } else {
        print_answer(answer, rows);
    }
    if (answer.value("status", "") == "OK") {
        return 0;
    }
    return code >= 0 && code <= 255 ? code : exit_refused;
}

}  // namespace

int cp_console_exec(const cp_console_options& options, const cp_exec_options& exec) {
    if (exec.cancel) {
        return cancel(options, exec.agent, exec.number);
    }
    json request = {{"op", "exec"},      {"agent", exec.agent}, {"command", exec.command},
                    {"user", exec.user}, {"rows", exec.rows},   {"client", exec.client}};
    const std::optional<std::string> password = console_password(exec.password_file);
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
    const int signal_fd = wait_for_signals();
    int number = 0;
    if (!control_send(line, request)) {
        return console_fail("the server closed the connection: see what it printed");
    }
    alarm(static_cast<unsigned>(exec.seconds));
    while (true) {
        bool interrupted;
        const std::optional<json> answer = control_receive(line, signal_fd, interrupted);
        if (interrupted) {
            const bool in_time = exec.seconds == 0 || alarm(0) != 0;
            if (number != 0) {
                cancel(options, exec.agent, number);
            }
            fmt::print(stderr, "qxcp: {}\n",
                       in_time ? "interrupted" : fmt::format("no answer within {} seconds", exec.seconds));
            return in_time ? exit_interrupted : exit_timeout;
        }
        if (!answer) {
            return console_fail("the server went away");
        }
        if (!answer->contains("ok")) {
            number = answer->value("command", 0);
            continue;
        }
        if (!answer->value("ok", false)) {
            return console_fail(answer->value("error", "the server gave no reason"));
        }
        return tell(options, *answer, exec.rows);
    }
}
