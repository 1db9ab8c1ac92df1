#include "console_administration.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "console_line.h"

using nlohmann::json;

namespace {

void print_lines(const cp_console_options& options, const json& answer) {
    if (options.json) {
        fmt::print("{}\n", answer.dump());
    } else {
        fmt::print("{}", answer.value("lines", ""));
    }
    std::fflush(stdout);
}

}  // namespace

int cp_console_administration(const cp_console_options& options, const json& request) {
    int exit_code;
    std::optional<json> answer = console_ask(options, request, exit_code);
    if (!answer) {
        return exit_code;
    }
    answer->erase("ok");
    if (options.json) {
        fmt::print("{}\n", answer->dump());
    } else if (answer->contains("text")) {
        fmt::print("{}\n", answer->value("text", ""));
    } else {
        for (const auto& [key, value] : answer->items()) {
            fmt::print("{:<14} {}\n", key, value.is_string() ? value.get<std::string>() : value.dump());
        }
    }
    return exit_code;
}

int cp_console_log(const cp_console_options& options, const std::string& agent, bool follow) {
    const json request = {{"op", "log"}, {"agent", agent}, {"follow", follow}};
    if (!follow) {
        int exit_code;
        if (std::optional<json> answer = console_ask(options, request, exit_code)) {
            print_lines(options, *answer);
        }
        return exit_code;
    }
    control_line line;
    if (!control_connect(line, options.folder)) {
        return console_exit_no_server;
    }
    if (!control_send(line, request)) {
        return console_fail("the server closed the connection: see what it printed");
    }
    bool interrupted;
    while (std::optional<json> answer = control_receive(line, -1, interrupted)) {
        if (!answer->value("ok", true)) {
            return console_fail(answer->value("error", "the server gave no reason"));
        }
        print_lines(options, *answer);
    }
    return console_fail("the server went away");
}

bool cp_console_complete_mail(json& request, const std::string& text_path, const std::string& password_file) {
    if (!text_path.empty()) {
        std::stringstream text;
        std::ifstream in(text_path, std::ios::binary);
        text << (text_path == "-" ? std::cin.rdbuf() : in.rdbuf());
        if (text_path != "-" && !in) {
            console_fail(fmt::format("cannot read the text '{}': {}", text_path, std::strerror(errno)));
            return false;
        }
        request["text"] = text.str();
    }
    if (!password_file.empty()) {
        std::ifstream in(password_file);
        std::string password;
        if (!std::getline(in, password)) {
            console_fail(fmt::format("cannot read a password from '{}'", password_file));
            return false;
        }
        request["password"] = password;
    }
    return true;
}
