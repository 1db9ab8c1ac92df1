#include "services/mail.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>

#include "base/context.h"
#include "base/error_text.h"
#include "base/executor_var.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/threads.h"
#include "channels/messages.h"
#include "channels/outgoing.h"
#include "channels/replies.h"
#include "log/log.h"
#include "messages/view.h"
#include "security/string_cipher.h"
#include "services/mail_header.h"

namespace {

constexpr std::chrono::seconds close_patience{2};

// Whom to answer.
struct mail_request {
    ccm_addr_t addr{};
    QX_HEADM head{};
};

struct waiting_order {
    mail_request request;
    mail_order order;
};

// Between main thread and worker. It is never freed: a resolver may hold the worker beyond the agent's end.
struct mail_office {
    std::mutex
        lock;  // guards all but the descriptor; held while an answer is sent, so that none comes after close
    std::condition_variable changed;
    std::deque<waiting_order> orders;
    bool started = false;
    bool stopping = false;
    bool running = false;
    int stop_fd = -1;
    std::string charset;
    __qx_thread thread;
    EX_PCX* pcx = nullptr;
};

mail_office& office() {
    static mail_office* the_one = new mail_office();
    return *the_one;
}

// Answers go by name: the channel may be another one by then.
void send_answer(EX_PCX* pcx, const mail_request& request, int number, const char* insert) {
    const QX_HEADM& head = request.head;
    auto quitt = make_quitt(
        {get_text(head.msg_typ), head.i2Mandant, head.i4UsrIdNr, number, insert, number == 0 ? "OK" : "NK"});
    put_text(quitt->filler, "");
    send_built(pcx->ccm, quitt, to_kept(request.addr));
}

// Elements of the order come first. The settings' password belongs to their user, and goes to no other
// server.
void complete_order(EX_PCX* pcx, mail_order* order) {
    const _ExecutorVar* var = pcx->pcx_varex;
    const bool own_server = order->server.empty();
    if (own_server) {
        order->server = var->smtp_server;
    }
    if (order->from.empty()) {
        order->from = var->smtp_from_addr;
    }
    if (own_server && order->user.empty()) {
        order->user = var->smtp_username;
        if (order->password.empty()) {
            order->password.assign(var->smtp_password);
        }
    }
}

void log_result(const mail_order& order, int result, const qx7_error& error) {
    if (result == 0) {
        __log(number_mail_sent, "%d|", order.ah_idnr);
    } else {
        __log(error.qx_msgnr, "%s", error.qx_msgInsert);
    }
}

void finish_order(mail_office& desk, const waiting_order& done, int result, const qx7_error& error) {
    const std::lock_guard guard(desk.lock);
    if (desk.stopping) {
        return;
    }
    log_result(done.order, result, error);
    send_answer(desk.pcx, done.request, result == 0 ? 0 : error.qx_msgnr,
                result == 0 ? "" : error.qx_msgInsert);
}

void send_one(mail_office& desk, const waiting_order& next, const std::string& charset) {
    smtp_settings settings;
    settings.charset = charset;
    settings.stop_fd = desk.stop_fd;
    const auto warn = [&desk](int number, const std::string& insert) {
        const std::lock_guard guard(desk.lock);
        if (!desk.stopping) {
            __log(number, "%s", insert.c_str());
        }
    };
    qx7_error error;
    const int result = qxsmtp_sendMailEx(next.order, settings, warn, &error);
    finish_order(desk, next, result, error);
}

void* mail_worker(void*) {
    mail_office& desk = office();
    std::unique_lock hold(desk.lock);
    while (true) {
        desk.changed.wait(hold, [&desk] { return desk.stopping || !desk.orders.empty(); });
        if (desk.stopping) {
            break;
        }
        const waiting_order next = std::move(desk.orders.front());
        desk.orders.pop_front();
        const std::string charset = desk.charset;
        hold.unlock();
        send_one(desk, next, charset);
        hold.lock();
    }
    desk.running = false;
    desk.changed.notify_all();
    return nullptr;
}

// Under the lock. The thread lives from the first order to the agent's end.
int start_worker(EX_PCX* pcx, mail_office& desk, qx7_error* error) {
    if (desk.running) {
        return 0;
    }
    if (desk.stop_fd < 0) {
        desk.stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    desk.pcx = pcx;
    desk.stopping = false;
    copy_text(desk.thread.th_name, "mail");
    if (desk.stop_fd < 0) {
        const int number = errno;
        return qx_error_set(error, -1, number, number_mail_socket, "%s",
                            call_insert("eventfd", number).c_str());
    }
    desk.running = StartWorkerThread(&desk.thread, mail_worker, nullptr, error) == 0;
    return desk.running ? 0 : -1;
}

int queue_order(EX_PCX* pcx, waiting_order&& next, qx7_error* error) {
    mail_office& desk = office();
    const std::lock_guard guard(desk.lock);
    if (desk.orders.size() >= mail_orders_max) {
        return qx_error_set(error, -1, EAGAIN, number_mail_no_memory, "%u|",
                            static_cast<unsigned>(desk.orders.size()));
    }
    if (start_worker(pcx, desk, error) != 0) {
        return -1;
    }
    desk.orders.push_back(std::move(next));
    desk.changed.notify_all();
    return 0;
}

// A name that a header could be ended with is none.
std::string safe_charset(std::string_view name) {
    const bool good = !name.empty() && name.size() <= 40 && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
               c == '_' || c == '.';
    });
    return std::string(good ? name : mail_charset_default);
}

int check_address(const std::string& mailbox, const char* whose, std::string* address, qx7_error* error) {
    *address = mail_address(mailbox);
    return address->empty() ? qx_error_set(error, -1, EINVAL, number_mail_address, "%s|%s|",
                                           printable(mailbox).c_str(), whose)
                            : 0;
}

// An order that leaves server and sender to settings that are not there.
int check_settings(const mail_order& order, qx7_error* error) {
    if (order.server.empty()) {
        return qx_error_set(error, -1, EINVAL, number_mail_no_server,
                            "|write smtp_server into section MAIL|");
    }
    return order.from.empty() ? qx_error_set(error, -1, EINVAL, number_mail_address,
                                             "|the sender: write smtp_from_addr into section MAIL|")
                              : 0;
}

int check_addresses(const mail_order& order, smtp_mail* mail, qx7_error* error) {
    if (check_settings(order, error) != 0 ||
        check_address(order.from, "the sender", &mail->from, error) != 0) {
        return -1;
    }
    for (const auto* list : {&order.to, &order.cc}) {
        for (const std::string& mailbox : *list) {
            mail->to.emplace_back();
            if (check_address(mailbox, "a recipient", &mail->to.back(), error) != 0) {
                return -1;
            }
        }
    }
    if (mail->to.empty()) {
        return qx_error_set(error, -1, EINVAL, number_mail_no_recipient, "%s|-|",
                            printable(order.server).c_str());
    }
    return 0;
}

std::string priority_lines(char priority) {
    switch (priority) {
        case 'L':
            return "X-Priority: 5\r\nPriority: non-urgent\r\nImportance: low\r\n";
        case 'H':
            return "X-Priority: 1\r\nPriority: urgent\r\nImportance: high\r\n";
        default:
            return "";
    }
}

std::string header_of(const mail_order& order, const smtp_settings& settings) {
    std::string header = mail_address_line("From: ", {order.from}, settings.charset);
    if (!order.to.empty()) {
        header += mail_address_line("To: ", order.to, settings.charset);
    }
    if (!order.cc.empty()) {
        header += mail_address_line("Cc: ", order.cc, settings.charset);
    }
    if (!mail_address(settings.reply_to).empty()) {
        header += mail_address_line("Reply-To: ", {settings.reply_to}, settings.charset);
    }
    header += "Date: " + getDateField(time(nullptr)) + "\r\n";
    header += "Subject: " + getSubjectField(order.subject, settings.charset) + "\r\n";
    return header + priority_lines(settings.priority);
}

SmtpSocket new_line(const mail_order& order, const smtp_settings& settings) {
    SmtpSocket line;
    line.timeout = order.timeout;
    line.stop_fd = settings.stop_fd;
    return line;
}

int take_order(EX_PCX* pcx, ccm_msg_t* msg) {
    waiting_order next;
    next.request.addr = msg->addr;
    next.request.head = view_head(view_of(msg));
    qx7_error error;
    int result = mail_read_order(view_of(msg), &next.order, &error);
    if (result == 0) {
        complete_order(pcx, &next.order);
        result = queue_order(pcx, std::move(next), &error);
    }
    if (result != 0) {
        __log(error.qx_msgnr, "%s", error.qx_msgInsert);
        send_quitt_reply(pcx, msg, error.qx_msgnr, error.qx_msgInsert, "NK", nullptr, 0);
    }
    return result;
}

void decipher_in_place(char* text, size_t size) {
    // What isn't enciphered stays as it is.
    if (ZUSTRNG_DeMaxim(text, size, text) < 0) {
        text[0] = '\0';
        __log(-1, "MAIL/smtp_password cannot be deciphered, mails are sent without a logon");
    }
}

}  // namespace

void initSmtpMail(EX_PCX* pcx) {
    _ExecutorVar* var = pcx->pcx_varex;
    pcx->getProfileString(pcx, "MAIL", "smtp_server", "", var->smtp_server, sizeof var->smtp_server);
    pcx->getProfileString(pcx, "MAIL", "smtp_from_addr", "", var->smtp_from_addr, sizeof var->smtp_from_addr);
    pcx->getProfileString(pcx, "MAIL", "smtp_username", "", var->smtp_username, sizeof var->smtp_username);
    qx_secret_text password;
    if (password.resize(1024)) {
        pcx->getProfileString(pcx, "MAIL", "smtp_password", "", password.data(), password.size());
        decipher_in_place(password.data(), password.size());
        copy_text(var->smtp_password, password.c_str());
    }
    char charset[64];
    pcx->getProfileString(pcx, "MAIL", "charset", mail_charset_default, charset, sizeof charset);
    mail_office& desk = office();
    const std::lock_guard guard(desk.lock);
    desk.charset = safe_charset(charset);
    pcx->pcx_smtpMail = var->smtp_server[0] != '\0' ? 1 : 0;
}

int process_sendmail(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return take_order(pcx, msg);
}

int process_sendmail2(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return take_order(pcx, msg);
}

void mail_close(EX_PCX*) {
    mail_office& desk = office();
    std::unique_lock hold(desk.lock);
    desk.stopping = true;
    if (!desk.orders.empty()) {
        __log(-1, "%u mail orders are dropped", static_cast<unsigned>(desk.orders.size()));
        desk.orders.clear();
    }
    if (!desk.running) {
        return;
    }
    const uint64_t one = 1;
    // The count of an eventfd can't overflow by one.
    (void)!write(desk.stop_fd, &one, sizeof one);
    desk.changed.notify_all();
    desk.changed.wait_for(hold, close_patience, [&desk] { return !desk.running; });
}

int qxsmtp_sendMailEx(const mail_order& order, const smtp_settings& settings, const relay_warning& warn,
                      qx7_error* error) {
    qx_error_clear(error);
    smtp_mail mail;
    if (check_addresses(order, &mail, error) != 0 || mail_open_pieces(order, &mail.pieces, error) != 0) {
        return -1;
    }
    for (MailData& piece : mail.pieces) {
        if (is7bitData(&piece, error) != 0) {
            return -1;
        }
    }
    mail.server = order.server;
    mail.user = order.user;
    mail.password = order.password.view();
    mail.charset = settings.charset;
    mail.header = header_of(order, settings);
    SmtpSocket line = new_line(order, settings);
    if (connectSocket(&line, order.server, settings.port, error) != 0) {
        return -1;
    }
    return sendSmtpMail(&line, mail, warn, error);
}

int qxsmtp_check(const mail_order& order, const smtp_settings& settings, qx7_error* error) {
    smtp_mail mail;
    mail.user = order.user;
    mail.password = order.password.view();
    SmtpSocket line = new_line(order, settings);
    if (connectSocket(&line, order.server, settings.port, error) != 0) {
        return -1;
    }
    return checkSmtpConnection(&line, mail, error);
}
