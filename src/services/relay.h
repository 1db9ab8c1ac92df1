// The dialogue with a mail relay: connect, greet, log on, hand over one mail. It blocks its thread, but never
// longer than the time limit for one step, and not at all once the stop descriptor is readable.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/error.h"
#include "services/mail_body.h"

inline constexpr int smtp_port = 25;
inline constexpr size_t relay_line_max = 4096;
inline constexpr size_t relay_lines_max = 128;  // of one reply

struct relay_reply {
    int code = 0;
    std::vector<std::string> lines;  // without code and line end
};

// Takes one reply from the front of `bytes`. The count of its bytes; 0 while it isn't whole; -1 when it is
// none: no three digits from 200 to 599, different codes in one reply, too long.
long relay_parse_reply(std::string_view bytes, relay_reply* reply);

// What the relay said it can, from its answer to EHLO.
struct EhloExt {
    int auth_login = 0;
    int auth_plain = 0;
};
void receiveEhloResponse(const relay_reply& reply, EhloExt* able);

struct SmtpSocket {
    qx_descriptor s;
    int nrec = 0;          // bytes of `recbuf` that belong to a reply to come
    int reply = 0;         // last code
    int sessionOK = 0;     // greeted
    bool in_data = false;  // what is sent now is mail and no command
    std::string serverName;
    std::string recbuf;
    std::string last_text;  // of the last reply, printable
    int stop_fd = -1;       // readable: end at once; not owned
    int timeout = mail_timeout_default;
};

struct smtp_mail {
    std::string server;
    std::string from;             // addresses, checked
    std::vector<std::string> to;  // all recipients, copies too
    std::string user;
    std::string_view password;
    std::string charset;
    std::string header;  // complete lines
    std::vector<MailData> pieces;
};

// IPv4 or IPv6. -1 with number_mail_no_server or number_mail_no_connection.
int connectSocket(SmtpSocket* line, const std::string& server, int port, qx7_error* error);

// Greeting, logon and mail on a connected socket, then the farewell; the socket is closed. A recipient that
// the relay refuses is told to `warn` (number, insert). 0, or -1 with the number of the step that failed. A
// mail that could not be handed over whole isn't ended, so that the relay drops it.
using relay_warning = std::function<void(int number, const std::string& insert)>;
int sendSmtpMail(SmtpSocket* line, const smtp_mail& mail, const relay_warning& warn, qx7_error* error);
// Logs on and off without a mail.
int checkSmtpConnection(SmtpSocket* line, const smtp_mail& mail, qx7_error* error);
