// The job messenger: called by a job's script, it tells the agent on this host what the job does and writes
// the report lines by which the agent finds out the same if it was not there to listen.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/text.h"
#include "base/time.h"
#include "jobs/messenger_records.h"
#include "messages/frame.h"
#include "messages/records_job.h"
#include "messages/records_server.h"
#include "messages/view.h"

namespace {

constexpr int exit_ok = 0;
constexpr int exit_usage = 1;
constexpr int exit_unreachable = 2;

constexpr char version_number[] = "12.2.0";
constexpr char job_module[] = "JPAKTJ_R";
constexpr int64_t time_limit_ms = 30000;
constexpr int shortest_pause_ms = 100;
constexpr int longest_pause_ms = 1600;
constexpr size_t largest_answer = 65536;
constexpr size_t restart_mark_size = 8;
constexpr size_t info_text_size = 24;

constexpr char help_text[] =
    "Usage: qxxjlnxm --port PORT --run N [--address HOST] [--client N] [--agent NAME] COMMAND\n"
    "\n"
    "Tells the agent on this host about the job that calls it. Called by the text around a job's script.\n"
    "\n"
    "  --address HOST  where the agent's listener is (localhost)\n"
    "  --port PORT     the listener's port\n"
    "  --run N         run number of the job\n"
    "  --client N      client of the job (0)\n"
    "  --agent NAME    name of the agent, for messages\n"
    "  --version       shows the version and does nothing else\n"
    "\n"
    "Commands:\n"
    "  start                              the job starts\n"
    "  end --retcode N                    the job ends with this code\n"
    "  status --text TEXT                 a text of up to 24 characters for the server's view of the job\n"
    "  restart --mark MARK --text TEXT    the place, up to 8 characters, from which the job could be "
    "repeated\n"
    "  variable NAME VALUE [--type C]     registers a variable with the server\n"
    "  file PATH [--login-check C]        registers an output file; Y: only with a login (default), N: "
    "without\n"
    "\n"
    "Exit codes: 0 the agent took it, 1 wrong use, 2 the agent cannot be reached, did not answer within 30\n"
    "seconds or did not take it.\n";

enum command_kind {
    command_none,
    command_start,
    command_end,
    command_status,
    command_restart,
    command_variable,
    command_file
};

struct command_name {
    const char* name;
    command_kind kind;
    size_t operands;
};

constexpr command_name commands[] = {
    {"start", command_start, 0},     {"end", command_end, 0},           {"status", command_status, 0},
    {"restart", command_restart, 0}, {"variable", command_variable, 2}, {"file", command_file, 1},
};

struct request {
    std::string address = "localhost";
    std::string port;
    std::string agent = "the agent";
    int run = 0;
    uint16_t client = 0;
    const command_name* command = nullptr;
    std::vector<std::string> operands;
    bool has_run = false;
    bool has_retcode = false;
    int retcode = 0;
    std::string text;
    std::string mark;
    char type = ' ';
    char login_check = 'Y';
};

int usage(const std::string& what) {
    fprintf(stderr, "qxxjlnxm: %s; 'qxxjlnxm --help' tells the options\n", what.c_str());
    return exit_usage;
}

bool number_option(const std::string& value, int64_t low, int64_t high, int64_t* number) {
    return parse_number(value, low, high, number);
}

// An empty result is success.
std::string take_option(request* order, const std::string& option, const std::string& value) {
    int64_t number = 0;
    if (option == "--address") {
        order->address = value;
    } else if (option == "--agent") {
        order->agent = value;
    } else if (option == "--port") {
        if (!number_option(value, 1, 65535, &number)) {
            return "--port wants a number from 1 to 65535, not '" + value + "'";
        }
        order->port = value;
    } else if (option == "--run") {
        if (!number_option(value, 1, INT_MAX, &number)) {
            return "--run wants a number above 0, not '" + value + "'";
        }
        order->run = static_cast<int>(number);
        order->has_run = true;
    } else if (option == "--client") {
        if (!number_option(value, 0, 65535, &number)) {
            return "--client wants a number from 0 to 65535, not '" + value + "'";
        }
        order->client = static_cast<uint16_t>(number);
    } else if (option == "--retcode") {
        if (!number_option(value, INT_MIN, INT_MAX, &number)) {
            return "--retcode wants a number, not '" + value + "'";
        }
        order->retcode = static_cast<int>(number);
        order->has_retcode = true;
    } else if (option == "--text") {
        order->text = value;
    } else if (option == "--mark") {
        order->mark = value;
    } else if (option == "--type" || option == "--login-check") {
        if (value.size() != 1 || value[0] <= ' ' || value[0] == '\'') {
            return option + " wants one character, not '" + value + "'";
        }
        (option == "--type" ? order->type : order->login_check) = value[0];
    } else {
        return "'" + option + "' is no option";
    }
    return {};
}

std::string take_word(request* order, const std::string& word) {
    if (order->command != nullptr) {
        order->operands.push_back(word);
        return {};
    }
    for (const command_name& row : commands) {
        if (word == row.name) {
            order->command = &row;
            return {};
        }
    }
    return "'" + word + "' is no command";
}

// A relative name is completed here: the agent does not know the job's directory.
std::string absolute(const std::string& path) {
    char folder[PATH_MAX];
    if (path.empty() || path[0] == '/' || getcwd(folder, sizeof folder) == nullptr) {
        return path;
    }
    return std::string(folder) + "/" + path;
}

std::string check(request* order) {
    if (order->command == nullptr) {
        return "no command given";
    }
    if (order->port.empty() || !order->has_run) {
        return order->port.empty() ? "--port is missing" : "--run is missing";
    }
    const std::string name = order->command->name;
    if (order->operands.size() != order->command->operands) {
        return "'" + name + "' wants " + std::to_string(order->command->operands) + " operands, not " +
               std::to_string(order->operands.size());
    }
    switch (order->command->kind) {
        case command_end:
            return order->has_retcode ? "" : "'end' wants --retcode N";
        case command_restart:
            return order->mark.empty() ? "'restart' wants --mark MARK" : "";
        case command_variable:
            if (order->operands[0].empty() || order->operands[0].size() > 199) {
                return "a variable's name has 1 to 199 characters";
            }
            return order->operands[1].size() > 1023 ? "a variable's value has at most 1023 characters" : "";
        case command_file:
            order->operands[0] = absolute(order->operands[0]);
            return order->operands[0].empty() || order->operands[0].size() > 511
                       ? "a file's name has 1 to 511 characters"
                       : "";
        default:
            return {};
    }
}

// A text that a script hands on as the value of an option or as a word is none, whatever it says.
bool wants_help(int argc, char** argv) {
    bool words = false;
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i) {
        const std::string_view word = argv[i];
        if (word == "--help" || (word == "-h" && !words)) {
            return true;
        }
        const bool option = word.starts_with("--");
        words = words || !option;
        i += option ? 1 : 0;
    }
    return false;
}

// Everything behind "--" is a word, so that values may begin with "--".
std::string read_arguments(int argc, char** argv, request* order) {
    bool only_words = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        std::string wrong;
        if (!only_words && word == "--") {
            only_words = true;
        } else if (only_words || !word.starts_with("--")) {
            wrong = take_word(order, word);
        } else if (i + 1 == argc) {
            wrong = "'" + word + "' wants a value";
        } else {
            wrong = take_option(order, word, argv[++i]);
        }
        if (!wrong.empty()) {
            return wrong;
        }
    }
    return check(order);
}

// ---- Report lines ----

std::string date_text(const tm& time) {
    char text[64];
    snprintf(text, sizeof text, "%02d.%02d.%04d / %02d:%02d:%02d", time.tm_mday, time.tm_mon + 1,
             time.tm_year + 1900, time.tm_hour, time.tm_min, time.tm_sec);
    return text;
}

std::string job_line(const request& order, const char* verb, time_t now, bool with_process) {
    tm local{};
    tm utc{};
    qx_localtime(now, &local);
    qx_gmtime(now, &utc);
    std::string line = "**  JOB " + std::to_string(order.run) + " " + verb + " AT " + date_text(local) +
                       " UTC TIME " + date_text(utc);
    if (with_process) {
        line += " ProcID:" + std::to_string(getppid());
    }
    return line + "\n";
}

std::string report_lines(const request& order, time_t now) {
    switch (order.command->kind) {
        case command_start:
            return job_line(order, "START", now, true);
        case command_restart:
            return job_line(order, "RESTART", now, false);
        case command_end:
            return job_line(order, "ENDED", now, true) +
                   "**  TEXT=\"\" RETCODE=" + std::to_string(order.retcode) + "\n";
        case command_file:
            // A quote in the name would end it early for the reader.
            if (order.operands[0].find('\'') != std::string::npos) {
                return {};
            }
            return std::string("QX7 messenger '") + version_number + "' login check '" + order.login_check +
                   "' registered output file '" + order.operands[0] + "'\n";
        default:
            return {};
    }
}

// One write, so that the lines of two calls never mix. The LF in front ends whatever the job left open.
void write_report(const std::string& lines) {
    if (lines.empty()) {
        return;
    }
    const std::string text = "\n" + lines;
    ssize_t written = 0;
    do {
        written = write(STDOUT_FILENO, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    if (written != static_cast<ssize_t>(text.size())) {
        // The message to the agent counts more than its trace in the report.
        fprintf(stderr, "qxxjlnxm: the report lines were not written: %s\n", strerror(errno));
    }
}

// ---- The message ----

MSG_TYPE_TIMESTAMP stamp_of(const timespec& now) {
    MSG_TYPE_TIMESTAMP stamp{};
    tm utc{};
    if (qx_gmtime(now.tv_sec, &utc)) {
        stamp.jjjj = static_cast<int16_t>(utc.tm_year + 1900);
        stamp.mo = static_cast<int16_t>(utc.tm_mon + 1);
        stamp.tt = static_cast<int16_t>(utc.tm_mday);
        stamp.hh = static_cast<int16_t>(utc.tm_hour);
        stamp.mi = static_cast<int16_t>(utc.tm_min);
        stamp.ss = static_cast<int16_t>(utc.tm_sec);
        stamp.ns = static_cast<int32_t>(now.tv_nsec);
    }
    return stamp;
}

template <class Record>
void fill_common(const request& order, char status, Record* record) {
    record->jobNr = order.run;
    record->status = status;
    put_text(record->md_version, qx_version);
    record->mdMajor = 12;
    record->mdMinor = 2;
    record->mdPatch = 0;
}

template <class Record>
std::vector<unsigned char> bytes_of(const Record& record) {
    const auto* at = reinterpret_cast<const unsigned char*>(&record);
    return {at, at + sizeof record};
}

std::vector<unsigned char> status_record(const request& order, const timespec& now) {
    JP_EXMLDJ record{};
    fill_common(order, order.command->kind == command_end ? meld_ended : meld_running, &record);
    put_text(record.infoText, restart_mark_size, order.command->kind == command_restart ? order.mark : "");
    put_text(record.infoText + restart_mark_size, info_text_size, order.text);
    record.retCode = order.retcode;
    record.sTime = stamp_of(now);
    record.jtime = now.tv_sec;
    record.pid = getpid();
    record.ppid = getppid();
    record.pgrp = getpgrp();
    record.pgid = getpgid(0);
    record.sid = getsid(0);
    record.uid = getuid();
    record.euid = geteuid();
    record.gid = getgid();
    record.egid = getegid();
    return bytes_of(record);
}

std::vector<unsigned char> variable_record(const request& order, const timespec& now) {
    JP_EXMLDV record{};
    fill_common(order, meld_variable, &record);
    put_text(record.infoText, "");
    record.currTime = stamp_of(now);
    record.currTime_t = now.tv_sec;
    record.variable_dist = sizeof record;
    record.variable_len = sizeof(MSG_TYPE_STATUS_VALUE);
    MSG_TYPE_STATUS_VALUE value{};
    copy_text(value.name, order.operands[0]);
    copy_text(value.value, order.operands[1]);
    value.type = order.type;
    std::vector<unsigned char> bytes = bytes_of(record);
    const std::vector<unsigned char> behind = bytes_of(value);
    bytes.insert(bytes.end(), behind.begin(), behind.end());
    return bytes;
}

std::vector<unsigned char> file_record(const request& order, const timespec& now) {
    JP_EXMLDO record{};
    fill_common(order, meld_file, &record);
    record.currTime = stamp_of(now);
    record.currTime_t = now.tv_sec;
    record.loginCheck = order.login_check;
    copy_text(record.fileName, order.operands[0]);
    return bytes_of(record);
}

std::vector<unsigned char> make_frame(const request& order, const timespec& now) {
    std::vector<unsigned char> record;
    switch (order.command->kind) {
        case command_variable:
            record = variable_record(order, now);
            break;
        case command_file:
            record = file_record(order, now);
            break;
        default:
            record = status_record(order, now);
            break;
    }
    MSG_TYPE_MELD head{};
    CreateQxHeadm(&head.header, "MELD", order.client, 0);
    set_message_version(&head.header, 3);
    std::vector<unsigned char> body(std::max(sizeof head, meld_record_offset + record.size()));
    memcpy(body.data(), &head, meld_record_offset);
    memcpy(body.data() + meld_record_offset, record.data(), record.size());
    frame_address address;
    copy_text(address.dst_name, job_module);
    return frame_make_message(body.data(), body.size(), address);
}

// ---- The connection ----

// Waits for the descriptor until the deadline; false when it passed.
bool wait_for(int fd, short events, int64_t deadline) {
    for (;;) {
        const int64_t left = deadline - alarm_now_ms();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd wanted{fd, events, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(left));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool connect_to(int fd, const addrinfo& target, int64_t deadline) {
    if (connect(fd, target.ai_addr, target.ai_addrlen) == 0) {
        return true;
    }
    if (errno != EINPROGRESS || !wait_for(fd, POLLOUT, deadline)) {
        return false;
    }
    int failure = 0;
    socklen_t size = sizeof failure;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0) {
        return false;
    }
    errno = failure;
    return failure == 0;
}

qx_descriptor connect_agent(const request& order, int64_t deadline, std::string* reason) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(order.address.c_str(), order.port.c_str(), &hints, &found);
    if (result != 0) {
        *reason = gai_strerror(result);
        errno = 0;
        return {};
    }
    qx_descriptor connected;
    int number = 0;
    for (const addrinfo* target = found; target != nullptr && !connected.valid(); target = target->ai_next) {
        qx_descriptor trial(socket(target->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (trial.valid() && connect_to(trial.get(), *target, deadline)) {
            connected = std::move(trial);
        } else {
            number = errno;
            *reason = strerror(number);
        }
    }
    freeaddrinfo(found);
    errno = number;
    return connected;
}

bool send_all(int fd, const std::vector<unsigned char>& bytes, int64_t deadline) {
    size_t at = 0;
    while (at < bytes.size()) {
        const ssize_t sent = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (sent > 0) {
            at += static_cast<size_t>(sent);
        } else if (errno == EAGAIN ? !wait_for(fd, POLLOUT, deadline) : errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool receive_all(int fd, unsigned char* bytes, size_t length, int64_t deadline) {
    size_t at = 0;
    while (at < length) {
        const ssize_t got = recv(fd, bytes + at, length - at, 0);
        if (got == 0) {
            errno = at == 0 ? ECONNRESET : EPROTO;  // behind the start of a frame no agent hangs up
            return false;
        }
        if (got > 0) {
            at += static_cast<size_t>(got);
        } else if (errno == EAGAIN ? !wait_for(fd, POLLIN, deadline) : errno != EINTR) {
            return false;
        }
    }
    return true;
}

// The answer is the first QUITT; what the listener says of itself before is passed over.
bool wait_for_answer(int fd, int64_t deadline, MSG_TYPE_QUITT* answer) {
    for (;;) {
        unsigned char head[frame_header_size];
        if (!receive_all(fd, head, sizeof head, deadline)) {
            return false;
        }
        const int64_t length = GetProtocolLength(head);
        if (length <= static_cast<int64_t>(sizeof head) || length > static_cast<int64_t>(largest_answer)) {
            errno = EPROTO;
            return false;
        }
        std::vector<unsigned char> body(static_cast<size_t>(length) - sizeof head);
        if (!receive_all(fd, body.data(), body.size(), deadline)) {
            return false;
        }
        frame_body items;
        if (!frame_protocol_is(head, protocol_native) ||
            frame_parse_body(body.data(), body.size(), &items, nullptr) != 0) {
            continue;
        }
        const unsigned char* message = body.data() + items.offset;
        if (items.is_message && message_type_is(message, items.length, "QUITT")) {
            *answer = view_record<MSG_TYPE_QUITT>(view_message(message, items.length));
            return true;
        }
    }
}

int unreachable(const request& order, const std::string& what) {
    fprintf(stderr, "qxxjlnxm: %s at %s:%s %s\n", order.agent.c_str(), order.address.c_str(),
            order.port.c_str(), what.c_str());
    return exit_unreachable;
}

// A listener that is full hangs up, and so does one that ends. Neither lasts; the same message twice changes
// nothing.
bool worth_another_try(int number) {
    return number == ECONNRESET || number == EPIPE;
}

// One try. Whether the answer has come; else what went wrong is in `*what` and errno.
bool ask_agent(const request& order, const std::vector<unsigned char>& frame, int64_t deadline,
               MSG_TYPE_QUITT* answer, std::string* what) {
    std::string reason;
    const qx_descriptor connection = connect_agent(order, deadline, &reason);
    if (!connection.valid()) {
        *what = "cannot be reached: " + reason;
        return false;
    }
    if (!send_all(connection.get(), frame, deadline) ||
        !wait_for_answer(connection.get(), deadline, answer)) {
        const int number = errno;
        *what = std::string("did not answer: ") + strerror(number);
        errno = number;
        return false;
    }
    return true;
}

int tell_agent(const request& order, const std::vector<unsigned char>& frame) {
    const int64_t deadline = alarm_now_ms() + time_limit_ms;
    MSG_TYPE_QUITT answer{};
    std::string what;
    int pause = shortest_pause_ms;
    while (!ask_agent(order, frame, deadline, &answer, &what)) {
        if (!worth_another_try(errno) || alarm_now_ms() + pause >= deadline) {
            return unreachable(order, what);
        }
        poll(nullptr, 0, pause);
        pause = std::min(2 * pause, longest_pause_ms);
    }
    if (get_text(answer.quitt) != "OK") {
        return unreachable(order, "did not take it (" + std::to_string(answer.msgnr) + "): job " +
                                      std::to_string(order.run) +
                                      " is not known there, has ended or is another user's");
    }
    return exit_ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (wants_help(argc, argv)) {
        fputs(help_text, stdout);
        return exit_ok;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("qxxjlnxm %s\n", qx_version);
        return exit_ok;
    }
    request order;
    const std::string wrong = read_arguments(argc, argv, &order);
    if (!wrong.empty()) {
        return usage(wrong);
    }
    signal(SIGPIPE, SIG_IGN);  // a report that nobody reads must not keep the message back
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    write_report(report_lines(order, now.tv_sec));
    return tell_agent(order, make_frame(order, now));
}
