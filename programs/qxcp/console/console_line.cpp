#include "console_line.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>

using nlohmann::json;

namespace {

std::string column(const json& row, const char* key) {
    if (!row.contains(key)) {
        return "";
    }
    return row[key].is_string() ? row[key].get<std::string>() : row[key].dump();
}

}  // namespace

int console_fail(const std::string& text) {
    fmt::print(stderr, "qxcp: {}\n", text);
    return console_exit_failure;
}

control_line::~control_line() {
    if (fd >= 0) {
        close(fd);
    }
}

bool control_connect(control_line& line, const std::string& folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder + "/control.sock";
    if (path.size() >= sizeof address.sun_path) {
        fmt::print(stderr, "qxcp: the path '{}' is too long for a socket: choose a shorter --data\n", path);
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    line.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (line.fd < 0 || connect(line.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fmt::print(stderr, "qxcp: no server answers at '{}' ({}): start one with 'qxcp serve --data {}'\n",
                   path, std::strerror(errno), folder);
        return false;
    }
    return true;
}

bool control_send(const control_line& line, const json& request) {
    const std::string text = request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    size_t sent = 0;
    while (sent < text.size()) {
        ssize_t n = send(line.fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::optional<json> control_receive(control_line& line, int signal_fd, bool& interrupted) {
    interrupted = false;
    while (true) {
        if (size_t end = line.buffer.find('\n'); end != std::string::npos) {
            json j = json::parse(line.buffer.substr(0, end), nullptr, false);
            line.buffer.erase(0, end + 1);
            if (j.is_discarded()) {
                return std::nullopt;
            }
            return j;
        }
        pollfd wait[2] = {{line.fd, POLLIN, 0}, {signal_fd, POLLIN, 0}};
        if (poll(wait, signal_fd >= 0 ? 2 : 1, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        if (signal_fd >= 0 && wait[1].revents != 0) {
            signalfd_siginfo info;
            if (read(signal_fd, &info, sizeof info) == sizeof info) {
                interrupted = true;
                return json{};
            }
        }
        if (wait[0].revents == 0) {
            continue;
        }
        char chunk[65536];
        ssize_t n = read(line.fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return std::nullopt;
        }
        line.buffer.append(chunk, static_cast<size_t>(n));
    }
}

int console_block_interrupt() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

bool console_wants_cancel(const std::string& question, int signal_fd, bool& leave) {
    leave = false;
    fmt::print(stderr, "\n{} [y/N] ", question);
    std::fflush(stderr);
    pollfd wait[2] = {{STDIN_FILENO, POLLIN, 0}, {signal_fd, POLLIN, 0}};
    while (poll(wait, 2, -1) < 0 && errno == EINTR) {
    }
    if (wait[1].revents != 0) {
        leave = true;
        return false;
    }
    char answer[64] = {};
    const ssize_t n = read(STDIN_FILENO, answer, sizeof answer - 1);
    if (n <= 0) {
        leave = true;
        return false;
    }
    return answer[0] == 'y' || answer[0] == 'Y';
}

std::optional<std::string> console_password(const std::string& path) {
    std::string password;
    std::ifstream in;
    if (!path.empty()) {
        in.open(path);
        if (!std::getline(in, password)) {
            console_fail(fmt::format("cannot read a password from '{}'", path));
            return std::nullopt;
        }
    }
    return password;
}

bool console_progress(const json& line) {
    // What stands there is wiped by whatever is told next.
    static bool shown = false;
    const auto progress = line.find("progress");
    if (progress != line.end() && isatty(STDERR_FILENO) != 0) {
        fmt::print(stderr, "\r\x1b[Kreport of job {}: {:.1f} MB", progress->value("run", 0),
                   static_cast<double>(progress->value("bytes", int64_t{0})) / 1e6);
        shown = true;
    } else if (progress == line.end() && shown) {
        fmt::print(stderr, "\r\x1b[K");
        shown = false;
    }
    std::fflush(stderr);
    return progress != line.end();
}

std::optional<json> console_ask(const cp_console_options& options, const json& request, int& exit_code) {
    control_line line;
    exit_code = console_exit_no_server;
    if (!control_connect(line, options.folder)) {
        return std::nullopt;
    }
    bool interrupted;
    bool more = control_send(line, request);
    std::optional<json> answer;
    while (more) {
        answer = control_receive(line, -1, interrupted);
        more = answer && console_progress(*answer);
    }
    if (!answer) {
        console_fail("the server closed the connection: see what it printed");
        return std::nullopt;
    }
    if (!answer->value("ok", false)) {
        exit_code = console_fail(answer->value("error", "the server gave no reason"));
        return std::nullopt;
    }
    exit_code = 0;
    return answer;
}

void console_lines(const json& rows) {
    for (const json& row : rows) {
        fmt::print("{}\n", row.dump(-1, ' ', false, json::error_handler_t::replace));
    }
}

void console_table(const json& rows, const std::vector<std::pair<const char*, const char*>>& columns) {
    std::vector<size_t> widths;
    for (const auto& [key, title] : columns) {
        size_t width = std::strlen(title);
        for (const auto& row : rows) {
            width = std::max(width, column(row, key).size());
        }
        widths.push_back(width);
    }
    auto print_row = [&](auto&& text) {
        std::string line;
        for (size_t i = 0; i < columns.size(); ++i) {
            line += fmt::format("{:<{}}  ", text(i), widths[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        fmt::print("{}\n", line);
    };
    print_row([&](size_t i) { return std::string{columns[i].second}; });
    for (const auto& row : rows) {
        print_row([&](size_t i) { return column(row, columns[i].first); });
    }
}
