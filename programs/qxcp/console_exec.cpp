// `qxcp exec`: a command on an agent's host, its output here.
#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "console_line.h"

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

int tell(const cp_console_options& options, const json& answer) {
    const int code = answer.value("code", -1);
    if (options.json) {
        fmt::print("{}\n", answer.dump(-1, ' ', false, json::error_handler_t::replace));
    } else {
        fmt::print("{}", answer.value("output", ""));
        std::fflush(stdout);
        if (answer.value("status", "") != "OK") {
            fmt::print(stderr, "qxcp: {}\n", answer.value("text", ""));
        }
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
    json request = {{"op", "exec"},       {"agent", exec.agent}, {"command", exec.command},
                    {"user", exec.user}, {"rows", exec.rows},   {"client", exec.client}};
    if (!exec.password_file.empty()) {
        std::ifstream in(exec.password_file);
        std::string password;
        if (!std::getline(in, password)) {
            return console_fail(fmt::format("cannot read a password from '{}'", exec.password_file));
        }
        request["password"] = password;
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
            fmt::print(stderr, "qxcp: {}\n", in_time ? "interrupted"
                                                     : fmt::format("no answer within {} seconds", exec.seconds));
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
        return tell(options, *answer);
    }
}
