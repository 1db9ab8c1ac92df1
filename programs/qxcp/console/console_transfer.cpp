#include "console_transfer.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>

#include "console_line.h"
#include "progress_bar.h"
#include "qxcp/hex.h"

using nlohmann::json;

namespace {

constexpr int exit_interrupted = 130;
constexpr double line_interval = 5;  // seconds between two lines where no bar can stand
constexpr int default_width = 80;

double now_seconds() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

// "AGENT:PATH"; the path may hold colons.
bool put_place(json& request, const char* end, const std::string& text, const std::string& user,
               const std::string& password_file, const std::string& attributes) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        console_fail(fmt::format("'{}' is no place of a transfer: write AGENT:PATH", text));
        return false;
    }
    json& place = request[end];
    place = {{"agent", text.substr(0, colon)},
             {"path", cp_to_hex(text.substr(colon + 1))},
             {"user", user},
             {"attributes", attributes}};
    std::optional<std::string> password = console_password(password_file);
    if (!password) {
        return false;
    }
    if (!password->empty()) {
        place["password"] = *password;
    }
    return true;
}

std::string joined(const std::string& first, const std::string& second) {
    return first.empty() || second.empty() ? first + second : first + "," + second;
}

// What travels as attributes: the record length and the line ends of text.
std::string source_attributes(const cp_transfer_options& transfer) {
    std::string text = transfer.strip_cr ? "nl=m" : "";
    if (transfer.record_length > 0) {
        text = joined(text, fmt::format("reclen={}", transfer.record_length));
    }
    return joined(text, transfer.source_attributes);
}

std::string destination_attributes(const cp_transfer_options& transfer) {
    const std::string text = transfer.line_end.empty() ? "" : "nl=" + transfer.line_end;
    return joined(text, transfer.destination_attributes);
}

struct named_letter {
    const char* name;
    const char* value;
};
constexpr named_letter compress_letters[] = {{"no", "0"}, {"yes", "1"}, {"strong", "S"}};
constexpr named_letter overwrite_letters[] = {{"no", "N"}, {"yes", "Y"}, {"append", "A"}};
constexpr named_letter coding_names[] = {
    {"table", ""}, {"utf8", "UTF-8"}, {"ucs2be", "UCS-2BE"}, {"ucs2le", "UCS-2LE"}};

template <size_t N>
const char* value_of(const named_letter (&rows)[N], const std::string& name) {
    for (const named_letter& row : rows) {
        if (name == row.name) {
            return row.value;
        }
    }
    return rows[0].value;  // the command line takes no other
}

bool has_wildcard(const std::string& place) {
    return place.substr(place.find(':') + 1).find_first_of("*?") != std::string::npos;
}

std::optional<json> request_of(const cp_transfer_options& transfer) {
    json request = {{"op", "transfer"},
                    {"client", transfer.client},
                    {"text", transfer.text},
                    {"subfolders", transfer.subfolders},
                    {"erase", transfer.erase},
                    {"abort_on_error", transfer.abort_on_error},
                    {"reverse", transfer.reverse},
                    {"legacy", transfer.legacy},
                    {"compress", value_of(compress_letters, transfer.compress)},
                    {"overwrite", value_of(overwrite_letters, transfer.overwrite)},
                    {"coding", transfer.text ? value_of(coding_names, transfer.coding) : ""}};
    request["wildcard"] = transfer.wildcard == -1 ? has_wildcard(transfer.source) : transfer.wildcard == 1;
    if (transfer.restarts) {
        request["restart"] = transfer.restart;
    }
    const bool by_number = transfer.source.empty() && transfer.restart != 0;
    const bool good =
        by_number || (put_place(request, "source", transfer.source, transfer.source_user,
                                transfer.source_password_file, source_attributes(transfer)) &&
                      put_place(request, "destination", transfer.destination, transfer.destination_user,
                                transfer.destination_password_file, destination_attributes(transfer)));
    return good ? std::optional<json>(request) : std::nullopt;
}

int64_t number(const json& transfer, const char* key) {
    return transfer.value(key, int64_t{0});
}

std::string summary(const json& transfer) {
    const std::string state = transfer.value("state", "");
    std::string text = fmt::format("transfer {} {}", transfer.value("run", 0), state);
    if (state == "refused" || state == "lost") {
        return text + ": " + transfer.value("message", "the agent gave no reason");
    }
    if (state == "ordered") {
        return text +
               fmt::format(": {} to {}", transfer.value("source", ""), transfer.value("destination", ""));
    }
    text += fmt::format(": {} of {} files, {} of {}", number(transfer, "files_successful"),
                        number(transfer, "files_total"), size_text(number(transfer, "sent_size")),
                        size_text(number(transfer, "file_size")));
    if (transfer.contains("message") && state != "running" && state != "finished") {
        text += ": " + transfer.value("message", "");
    }
    return text;
}

// Bar or lines, whichever suits where they go.
struct progress_view {
    bool bar_fits = isatty(STDERR_FILENO) != 0;
    bool shown = false;
    progress_bar bar;
    std::string last_state;
    double last_line = 0;

    void wipe() {
        if (shown) {
            fmt::print(stderr, "\r\x1b[K");
            std::fflush(stderr);
            shown = false;
        }
    }
    // A bar that ran stays where it ended.
    void finish(const json& transfer) {
        if (shown && transfer.value("state", "") == "finished") {
            bar.bytes = bar.bytes_total = number(transfer, "sent_size");
            bar.files = bar.files_total;
            draw();
            fmt::print(stderr, "\n");
            shown = false;
        }
        wipe();
    }
    void draw() {
        winsize size{};
        const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
        fmt::print(stderr, "\r\x1b[K{}", progress_line(bar, (known ? size.ws_col : default_width) - 1));
        std::fflush(stderr);
        shown = true;
    }
    void take(const json& transfer) {
        const std::string state = transfer.value("state", "");
        bar.bytes_total = number(transfer, "file_size");
        bar.files = static_cast<int>(number(transfer, "files_sent") + number(transfer, "dirs_sent"));
        bar.files_total = static_cast<int>(number(transfer, "files_total") + number(transfer, "dirs_total"));
        progress_take(bar, {now_seconds(), number(transfer, "sent_size")});
        const bool due = now_seconds() - last_line >= line_interval;
        // An end is told with the report, when that has come.
        const bool under_way = state == "ordered" || state == "running";
        if (under_way && (state != last_state || (!bar_fits && due))) {
            wipe();
            fmt::print("{}\n", summary(transfer));
            std::fflush(stdout);
            last_state = state;
            last_line = now_seconds();
        }
        if (bar_fits && state == "running") {
            draw();
        }
    }
};

void print_report(const json& answer) {
    for (const json& line : answer.value("report", json::array())) {
        fmt::print("{}\n", line.value("text", ""));
    }
}

void print_figures(const json& transfer) {
    constexpr std::pair<const char*, const char*> rows[] = {{"run", "run"},
                                                            {"origin", "goes on with run"},
                                                            {"state", "state"},
                                                            {"message", "reason"},
                                                            {"source", "source"},
                                                            {"source_user", "as user"},
                                                            {"destination", "destination"},
                                                            {"destination_user", "as user"},
                                                            {"start_time", "ordered (UTC)"},
                                                            {"end_time", "ended (UTC)"},
                                                            {"files_total", "files"},
                                                            {"files_sent", "files sent"},
                                                            {"files_successful", "files over"},
                                                            {"dirs_total", "folders"},
                                                            {"dirs_sent", "folders sent"},
                                                            {"dirs_successful", "folders over"},
                                                            {"file_size", "bytes"},
                                                            {"sent_size", "bytes over"},
                                                            {"compressed_size", "compressed"},
                                                            {"datastream_size", "data stream"},
                                                            {"records", "records"},
                                                            {"count", "states told"}};
    for (const auto& [key, label] : rows) {
        const json value = transfer.value(key, json{});
        if (!value.empty() && value != "" && value != 0) {
            fmt::print("{:<16} {}\n", label, value.is_string() ? value.get<std::string>() : value.dump());
        }
    }
}

int exit_code_of(const json& transfer) {
    const std::string state = transfer.value("state", "");
    if (state == "finished") {
        return 0;
    }
    if (state == "failed") {
        return transfer_exit_failed;
    }
    return state == "cancelled" ? transfer_exit_cancelled : transfer_exit_refused;
}

// One asked transfer until its end or until the person leaves it alone.
struct transfer_watch {
    const cp_console_options& options;
    bool quiet = false;
    int run = 0;
    progress_view view = {};
    std::optional<int> exit_code = {};

    void take_interrupt(int signal_fd) {
        view.wipe();
        bool leave = false;
        if (run != 0 && console_wants_cancel(fmt::format("Cancel transfer {}?", run), signal_fd, leave)) {
            cp_console_transfer_cancel(options, run);
        } else if (run == 0 || leave) {
            fmt::print(stderr, "\nqxcp: transfer {} goes on, see 'qxcp transfers'\n", run);
            exit_code = exit_interrupted;
        }
    }
    void take_end(const json& answer) {
        const json& transfer = answer["transfer"];
        view.finish(transfer);
        if (options.json) {
            fmt::print("{}\n", answer.dump(-1, ' ', false, json::error_handler_t::replace));
        } else {
            if (!quiet) {
                print_report(answer);
            }
            fmt::print("{}\n", summary(transfer));
        }
        exit_code = exit_code_of(transfer);
    }
    void take(const json& answer) {
        if (answer.contains("ok") && !answer.value("ok", false)) {
            exit_code = console_fail(answer.value("error", "the server gave no reason"));
        } else if (answer.contains("ok")) {
            take_end(answer);
        } else if (answer.contains("transfer")) {
            const json& transfer = answer["transfer"];
            run = transfer.value("run", 0);
            if (options.json) {
                fmt::print("{}\n", transfer.dump(-1, ' ', false, json::error_handler_t::replace));
                std::fflush(stdout);
            } else {
                view.take(transfer);
            }
        }
    }
};

int watch_transfer(const cp_console_options& options, const json& request, bool quiet) {
    control_line line;
    if (!control_connect(line, options.folder)) {
        return console_exit_no_server;
    }
    const int signal_fd = console_block_interrupt();
    if (!control_send(line, request)) {
        return console_fail("the server closed the connection: see what it printed");
    }
    transfer_watch watch{options, quiet};
    while (!watch.exit_code) {
        bool interrupted;
        const std::optional<json> answer = control_receive(line, signal_fd, interrupted);
        if (!answer) {
            watch.view.wipe();
            return console_fail(
                watch.run == 0
                    ? "the server closed the connection: see what it printed"
                    : fmt::format("the server went away; transfer {0} goes on, see 'qxcp transfer-report {0} "
                                  "--watch' once it is back",
                                  watch.run));
        }
        if (interrupted) {
            watch.take_interrupt(signal_fd);
        } else {
            watch.take(*answer);
        }
    }
    return *watch.exit_code;
}

}  // namespace

int cp_console_transfer(const cp_console_options& options, const cp_transfer_options& transfer) {
    const std::optional<json> request = request_of(transfer);
    return request ? watch_transfer(options, *request, transfer.quiet) : console_exit_failure;
}

int cp_console_transfers(const cp_console_options& options, const std::string& agent, int last) {
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "transfers"}, {"agent", agent}, {"last", last}}, exit_code);
    if (!answer) {
        return exit_code;
    }
    json rows = (*answer)["transfers"];
    if (options.json) {
        console_lines(rows);
        return exit_code;
    }
    for (json& row : rows) {
        row["files"] = fmt::format("{}/{}", number(row, "files_successful"), number(row, "files_total"));
        row["size"] = size_text(number(row, "sent_size"));
    }
    console_table(rows, {{"run", "RUN"},
                         {"state", "STATE"},
                         {"files", "FILES"},
                         {"size", "BYTES"},
                         {"start_time", "ORDERED (UTC)"},
                         {"source", "SOURCE"},
                         {"destination", "DESTINATION"}});
    return exit_code;
}

int cp_console_transfer_report(const cp_console_options& options, int run, bool watch) {
    if (watch) {
        return watch_transfer(options, {{"op", "transfer_watch"}, {"run", run}}, false);
    }
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "transfer_report"}, {"run", run}}, exit_code);
    if (answer && options.json) {
        fmt::print("{}\n", answer->dump(-1, ' ', false, json::error_handler_t::replace));
    } else if (answer) {
        print_figures((*answer)["transfer"]);
        print_report(*answer);
    }
    return exit_code;
}

int cp_console_transfer_cancel(const cp_console_options& options, int run) {
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "transfer_cancel"}, {"run", run}}, exit_code);
    if (answer) {
        fmt::print("{}\n", options.json ? answer->dump(-1, ' ', false, json::error_handler_t::replace)
                                        : answer->value("text", ""));
    }
    return exit_code;
}

int cp_console_dir(const cp_console_options& options, const cp_dir_options& dir) {
    json request = {{"op", "dir"}, {"folders", dir.folders}};
    if (!put_place(request, "place", dir.agent + ":" + dir.mask, dir.user, dir.password_file, "")) {
        return console_exit_failure;
    }
    int exit_code;
    const std::optional<json> answer = console_ask(options, request, exit_code);
    if (!answer) {
        return exit_code;
    }
    for (const json& name : (*answer)["names"]) {
        const std::string text = name.get<std::string>();
        if (options.json) {
            fmt::print("{}\n", json{{"agent", dir.agent}, {"name", text}}.dump(
                                   -1, ' ', false, json::error_handler_t::replace));
        } else {
            fmt::print("{}\n", text);
        }
    }
    return exit_code;
}
