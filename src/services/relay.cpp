#include "services/relay.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "base/base64.h"
#include "base/error_text.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/trace.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr size_t insert_reply_max = 160;  // so that a QUITT's insert holds the address too

// RFC 5321
enum reply_code : int {
    reply_ready = 220,
    reply_logged_on = 235,
    reply_done = 250,
    reply_forwarded = 251,
    reply_challenge = 334,
    reply_start_mail = 354,
};

int socket_error(const SmtpSocket& line, int number, qx7_error* error) {
    return qx_error_set(error, -1, number, number_mail_socket, "%s",
                        call_insert(line.serverName, number).c_str());
}

int reply_error(const SmtpSocket& line, int number, std::string_view what, qx7_error* error) {
    return qx_error_set(error, -1, line.reply, number, "%.*s|%s|",
                        static_cast<int>(std::min<size_t>(what.size(), 300)), what.data(),
                        line.last_text.c_str());
}

clock_type::time_point deadline_of(const SmtpSocket& line) {
    return clock_type::now() + std::chrono::seconds(line.timeout);
}

// Waits for `events`. 0, or an errno: ETIMEDOUT, ECANCELED when the agent stops.
int wait_socket(const SmtpSocket& line, short events, clock_type::time_point deadline) {
    while (true) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now()).count();
        if (left <= 0) {
            return ETIMEDOUT;
        }
        pollfd wait[2] = {{line.s.get(), events, 0}, {line.stop_fd, POLLIN, 0}};
        const int ready = poll(wait, 2, static_cast<int>(std::min<long long>(left + 1, INT_MAX)));
        if (ready < 0 && errno != EINTR) {
            return errno;
        }
        if (ready > 0 && wait[1].revents != 0) {
            return ECANCELED;
        }
        if (ready > 0 && wait[0].revents != 0) {
            return 0;
        }
    }
}

// The whole of `bytes` within the time limit.
int send_all(SmtpSocket* line, std::string_view bytes, qx7_error* error) {
    const auto deadline = deadline_of(*line);
    while (!bytes.empty()) {
        const ssize_t n = send(line->s.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            bytes.remove_prefix(static_cast<size_t>(n));
        } else if (errno == EAGAIN) {
            if (const int number = wait_socket(*line, POLLOUT, deadline); number != 0) {
                return socket_error(*line, number, error);
            }
        } else if (errno != EINTR) {
            return socket_error(*line, errno, error);
        }
    }
    return 0;
}

void take_reply(SmtpSocket* line, const relay_reply& reply, size_t used) {
    line->recbuf.erase(0, used);
    line->nrec = static_cast<int>(line->recbuf.size());
    line->reply = reply.code;
    std::string text = std::to_string(reply.code);
    for (const std::string& part : reply.lines) {
        text += " " + part;
    }
    // The separator of inserts cannot stand in one.
    std::replace(text.begin(), text.end(), '|', '/');
    line->last_text = printable(std::string_view(text).substr(0, insert_reply_max));
    if (trc_on(TRC_MAIL)) {
        _TraceText("mail relay %s: %s", line->serverName.c_str(), line->last_text.c_str());
    }
}

// One reply, of however many lines, within the time limit for the whole of it.
int receiveMultiLine(SmtpSocket* line, relay_reply* reply, qx7_error* error) {
    const auto deadline = deadline_of(*line);
    while (true) {
        const long used = relay_parse_reply(line->recbuf, reply);
        if (used > 0) {
            take_reply(line, *reply, static_cast<size_t>(used));
            return 0;
        }
        if (used < 0) {
            return socket_error(*line, EPROTO, error);
        }
        if (const int number = wait_socket(*line, POLLIN, deadline); number != 0) {
            return socket_error(*line, number, error);
        }
        char chunk[4096];
        const ssize_t n = recv(line->s.get(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0) {
            return socket_error(*line, ECONNRESET, error);
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return socket_error(*line, errno, error);
        }
        line->recbuf.append(chunk, n > 0 ? static_cast<size_t>(n) : 0);
    }
}

int command(SmtpSocket* line, std::string_view text, relay_reply* reply, qx7_error* error) {
    // Replies that nobody asked for would be taken for the next ones.
    line->recbuf.clear();
    if (send_all(line, text, error) != 0) {
        return -1;
    }
    return receiveMultiLine(line, reply, error);
}

std::string own_name() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) {
        return "localhost";  // a name is only a courtesy
    }
    const std::string_view text = name;
    const bool good = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_';
    });
    return good ? name : "localhost";
}

int cmdHELO(SmtpSocket* line, EhloExt* able, qx7_error* error) {
    relay_reply reply;
    if (receiveMultiLine(line, &reply, error) != 0) {
        return -1;
    }
    if (line->reply != reply_ready) {
        return reply_error(*line, number_mail_greeting, line->serverName, error);
    }
    const std::string name = own_name();
    if (command(line, "EHLO " + name + "\r\n", &reply, error) != 0) {
        return -1;
    }
    if (line->reply == reply_done) {
        receiveEhloResponse(reply, able);
    } else if (command(line, "HELO " + name + "\r\n", &reply, error) != 0) {
        return -1;
    }
    if (line->reply != reply_done) {
        return reply_error(*line, number_mail_greeting, line->serverName, error);
    }
    line->sessionOK = 1;
    return 0;
}

// `plain` in base64 as one line. The memory that held a password is wiped.
int send_base64(SmtpSocket* line, std::string_view plain, relay_reply* reply, qx7_error* error) {
    std::string text;
    text.reserve(base64_size(plain.size()) + 2);  // no copy is left behind by growing
    base64_encode(plain, &text);
    text += "\r\n";
    const int result = command(line, text, reply, error);
    qx_wipe(text.data(), text.size());
    return result;
}

int logon_refused(const SmtpSocket& line, const smtp_mail& mail, qx7_error* error) {
    return reply_error(line, number_mail_logon_refused, printable(mail.user), error);
}

int cmdAUTH_PLAIN(SmtpSocket* line, const smtp_mail& mail, qx7_error* error) {
    relay_reply reply;
    if (command(line, "AUTH PLAIN\r\n", &reply, error) != 0) {
        return -1;
    }
    if (line->reply != reply_challenge) {
        return logon_refused(*line, mail, error);
    }
    std::string secret;
    secret.reserve(mail.user.size() + mail.password.size() + 2);
    secret += '\0';
    secret += mail.user;
    secret += '\0';
    secret += mail.password;
    const int result = send_base64(line, secret, &reply, error);
    qx_wipe(secret.data(), secret.size());
    if (result != 0) {
        return -1;
    }
    return line->reply == reply_logged_on ? 0 : logon_refused(*line, mail, error);
}

// The challenges are "Username:" and "Password:", in this order; relays that word them otherwise ask for the
// same.
int responseChallenge(SmtpSocket* line, const smtp_mail& mail, std::string_view answer, relay_reply* reply,
                      qx7_error* error) {
    if (line->reply != reply_challenge) {
        return logon_refused(*line, mail, error);
    }
    return send_base64(line, answer, reply, error);
}

int cmdAUTH_LOGIN(SmtpSocket* line, const smtp_mail& mail, qx7_error* error) {
    relay_reply reply;
    if (command(line, "AUTH LOGIN\r\n", &reply, error) != 0 ||
        responseChallenge(line, mail, mail.user, &reply, error) != 0 ||
        responseChallenge(line, mail, mail.password, &reply, error) != 0) {
        return -1;
    }
    return line->reply == reply_logged_on ? 0 : logon_refused(*line, mail, error);
}

int log_on(SmtpSocket* line, const smtp_mail& mail, const EhloExt& able, qx7_error* error) {
    if (mail.user.empty() || mail.password.empty()) {
        return 0;
    }
    if (able.auth_plain != 0) {
        return cmdAUTH_PLAIN(line, mail, error);
    }
    return able.auth_login != 0 ? cmdAUTH_LOGIN(line, mail, error) : 0;
}

int name_recipients(SmtpSocket* line, const smtp_mail& mail, const relay_warning& warn, qx7_error* error) {
    relay_reply reply;
    int accepted = 0;
    for (const std::string& address : mail.to) {
        if (command(line, "RCPT TO:<" + address + ">\r\n", &reply, error) != 0) {
            return -1;
        }
        if (line->reply == reply_done || line->reply == reply_forwarded) {
            ++accepted;
        } else {
            warn(number_mail_recipient_refused, address + "|" + line->last_text + "|");
        }
    }
    if (accepted == 0) {
        return reply_error(*line, number_mail_no_recipient, line->serverName, error);
    }
    return 0;
}

// A relay that refuses a mail in its midst answers, and may close: its answer says more than the broken line.
void look_for_refusal(SmtpSocket* line, qx7_error* error) {
    relay_reply reply;
    qx7_error ignored;
    const int limit = line->timeout;
    line->timeout = 1;
    if (receiveMultiLine(line, &reply, &ignored) == 0) {
        reply_error(*line, number_mail_refused, line->serverName, error);
    }
    line->timeout = limit;
}

int send_data(SmtpSocket* line, const smtp_mail& mail, qx7_error* error) {
    relay_reply reply;
    if (command(line, "DATA\r\n", &reply, error) != 0) {
        return -1;
    }
    if (line->reply != reply_start_mail) {
        return reply_error(*line, number_mail_data_refused, line->serverName, error);
    }
    line->in_data = true;
    qx7_error sending;
    const int written = mail_write(
        mail.header, mail.pieces, mail.charset,
        [&](std::string_view bytes) { return send_all(line, bytes, &sending); }, error);
    if (written != 0) {
        if (error->qx_msgnr == 0) {
            *error = sending;
            if (sending.qx_errno == EPIPE || sending.qx_errno == ECONNRESET) {
                look_for_refusal(line, error);
            }
        }
        return -1;
    }
    if (command(line, ".\r\n", &reply, error) != 0) {
        return -1;
    }
    line->in_data = false;
    return line->reply == reply_done ? 0 : reply_error(*line, number_mail_refused, line->serverName, error);
}

int hand_over(SmtpSocket* line, const smtp_mail& mail, const relay_warning& warn, qx7_error* error) {
    relay_reply reply;
    if (command(line, "MAIL FROM:<" + mail.from + ">\r\n", &reply, error) != 0) {
        return -1;
    }
    if (line->reply != reply_done) {
        return reply_error(*line, number_mail_sender_refused, mail.from, error);
    }
    if (name_recipients(line, mail, warn, error) != 0) {
        return -1;
    }
    return send_data(line, mail, error);
}

// RSET after a failure, QUIT; not on a line that is broken, nor in the midst of a mail, where they were its
// text.
void farewell(SmtpSocket* line, bool failed, const qx7_error& error) {
    const bool broken = failed && error.qx_msgnr == number_mail_socket;
    if (line->sessionOK != 0 && !line->in_data && !broken) {
        qx7_error ignored;  // the result stands already
        relay_reply reply;
        if (!failed || command(line, "RSET\r\n", &reply, &ignored) == 0) {
            command(line, "QUIT\r\n", &reply, &ignored);
        }
    }
    line->s.reset();
}

int try_address(SmtpSocket* line, const addrinfo& address, clock_type::time_point deadline) {
    line->s.reset(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!line->s.valid()) {
        return errno;
    }
    if (connect(line->s.get(), address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    if (const int number = wait_socket(*line, POLLOUT, deadline); number != 0) {
        return number;
    }
    int number = 0;
    socklen_t size = sizeof number;
    return getsockopt(line->s.get(), SOL_SOCKET, SO_ERROR, &number, &size) != 0 ? errno : number;
}

}  // namespace

long relay_parse_reply(std::string_view bytes, relay_reply* reply) {
    *reply = {};
    size_t at = 0;
    while (true) {
        const size_t end = bytes.find('\n', at);
        if ((end == std::string_view::npos ? bytes.size() : end) - at > relay_line_max ||
            reply->lines.size() >= relay_lines_max) {
            return -1;
        }
        if (end == std::string_view::npos) {
            return 0;
        }
        std::string_view line = bytes.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        int64_t code = 0;
        if (line.size() < 3 ||
            !std::all_of(line.begin(), line.begin() + 3, [](char c) { return c >= '0' && c <= '9'; }) ||
            !parse_number(line.substr(0, 3), 200, 599, &code) || (reply->code != 0 && reply->code != code)) {
            return -1;
        }
        const char separator = line.size() > 3 ? line[3] : ' ';
        if (separator != ' ' && separator != '-') {
            return -1;
        }
        reply->code = static_cast<int>(code);
        reply->lines.emplace_back(line.substr(std::min<size_t>(line.size(), 4)));
        if (separator == ' ') {
            return static_cast<long>(at);
        }
    }
}

void receiveEhloResponse(const relay_reply& reply, EhloExt* able) {
    for (const std::string& line : reply.lines) {
        const std::string text = upper(line);
        // "AUTH=" is an old form of the same.
        if (text.compare(0, 5, "AUTH ") != 0 && text.compare(0, 5, "AUTH=") != 0) {
            continue;
        }
        for (const std::string_view word : split_words(std::string_view(text).substr(5), ' ')) {
            able->auth_login |= word == "LOGIN" ? 1 : 0;
            able->auth_plain |= word == "PLAIN" ? 1 : 0;
        }
    }
}

int connectSocket(SmtpSocket* line, const std::string& server, int port, qx7_error* error) {
    line->serverName = printable(server);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int code = getaddrinfo(server.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (server.empty() || code != 0) {
        return qx_error_set(error, -1, code, number_mail_no_server, "%s|%s|", line->serverName.c_str(),
                            server.empty() ? "no mail server is set" : gai_strerror(code));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
    const auto deadline = deadline_of(*line);
    int number = EHOSTUNREACH;
    for (const addrinfo* at = list; at != nullptr; at = at->ai_next) {
        number = try_address(line, *at, deadline);
        if (number == 0) {
            return 0;
        }
    }
    line->s.reset();
    return qx_error_set(error, -1, number, number_mail_no_connection, "%s",
                        call_insert(line->serverName, number).c_str());
}

int sendSmtpMail(SmtpSocket* line, const smtp_mail& mail, const relay_warning& warn, qx7_error* error) {
    qx_error_clear(error);
    EhloExt able;
    const bool good = cmdHELO(line, &able, error) == 0 && log_on(line, mail, able, error) == 0 &&
                      hand_over(line, mail, warn, error) == 0;
    farewell(line, !good, *error);
    return good ? 0 : -1;
}

int checkSmtpConnection(SmtpSocket* line, const smtp_mail& mail, qx7_error* error) {
    qx_error_clear(error);
    EhloExt able;
    const bool good = cmdHELO(line, &able, error) == 0 && log_on(line, mail, able, error) == 0;
    farewell(line, !good, *error);
    return good ? 0 : -1;
}
