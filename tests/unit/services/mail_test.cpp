// Mails without a network: orders, header lines, parts, and the dialogue with a relay that follows a script.
#include "services/mail.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "base/base64.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "messages/build.h"
#include "messages/records_common.h"
#include "messages/records_server.h"
#include "own_context.h"
#include "services/mail_body.h"
#include "services/mail_elements.h"
#include "services/mail_header.h"
#include "services/relay.h"

namespace {

std::string order_of(const std::vector<std::pair<char, std::string>>& elements) {
    message_builder<MSG_TYPE_SNDMAIL2> order(1, 2);
    put_text(order->subject, "a subject");
    order->ah_idnr = 77;
    order.begin_table(MSG_TYPE_SNDMAIL2::sub, elements.size());
    for (const auto& [type, text] : elements) {
        order.put_record(MSG_TYPE_SDMAIL2X{type, ' ', {}, static_cast<int32_t>(text.size())});
        order.put(text);
    }
    const auto bytes = order.bytes();
    return {bytes.begin(), bytes.end()};
}

TEST(mail_elements, are_read_whole_or_not_at_all) {
    const std::string body = order_of({{'A', " ann@x "},
                                       {'A', "bob@x"},
                                       {'C', "cc@x"},
                                       {'D', "/tmp/a b"},
                                       {'F', "me@x"},
                                       {'I', "12"},
                                       {'L', "bert"},
                                       {'P', " p w "},
                                       {'S', "relay\0junk"},
                                       {'T', "one\n"},
                                       {'Z', "unknown"},
                                       {'T', "two\n"}});
    mail_order order;
    qx7_error error;
    ASSERT_EQ(mail_read_order(view_message(body.data(), body.size()), &order, &error), 0);
    EXPECT_EQ(order.to, (std::vector<std::string>{"ann@x", "bob@x"}));
    EXPECT_EQ(order.cc, std::vector<std::string>{"cc@x"});
    EXPECT_EQ(order.attachments, std::vector<std::string>{"/tmp/a b"});
    EXPECT_EQ(order.from + order.user + order.server, "me@xbertrelay");
    EXPECT_EQ(order.password.view(), " p w ") << "blanks may belong to a password";
    EXPECT_EQ(order.text, "one\ntwo\n");
    EXPECT_EQ(order.timeout, 12);
    EXPECT_EQ(order.ah_idnr, 77);
    for (size_t cut = 1; cut < body.size() - sizeof(MSG_TYPE_SNDMAIL2); ++cut) {
        mail_order part;
        EXPECT_EQ(mail_read_order(view_message(body.data(), body.size() - cut), &part, &error), -1) << cut;
    }
}

TEST(mail_elements, bound_time_and_attachments) {
    const std::pair<std::string, int> cases[] = {{"0", 1},     {"-5", 1},           {"1", 1},  {"600", 600},
                                                 {"601", 600}, {"99999999999", 30}, {"x", 30}, {"", 30}};
    for (const auto& [text, seconds] : cases) {
        const std::string body = order_of({{'I', text}});
        mail_order order;
        qx7_error error;
        ASSERT_EQ(mail_read_order(view_message(body.data(), body.size()), &order, &error), 0);
        EXPECT_EQ(order.timeout, seconds) << text;
    }
    std::vector<std::pair<char, std::string>> files(255, {'D', "/a"});
    mail_order order;
    qx7_error error;
    std::string body = order_of(files);
    EXPECT_EQ(mail_read_order(view_message(body.data(), body.size()), &order, &error), 0);
    files.emplace_back('D', "/last");
    body = order_of(files);
    mail_order more;
    EXPECT_EQ(mail_read_order(view_message(body.data(), body.size()), &more, &error), -1);
    EXPECT_EQ(error.qx_msgnr, number_mail_file);
}

TEST(mail_header, gives_addresses_only_to_what_is_one) {
    const std::string longest(254, 'a');
    const std::pair<std::string, std::string> cases[] = {{"ann", "ann"},
                                                         {"ann@x.org", "ann@x.org"},
                                                         {"Ann <ann@x.org>", "ann@x.org"},
                                                         {"\"A < B\" <ann@x.org>", "ann@x.org"},
                                                         {"ann@[127.0.0.1]", "ann@[127.0.0.1]"},
                                                         {"ann@[IPv6:::1]", "ann@[IPv6:::1]"},
                                                         {longest, longest}};
    for (const auto& [mailbox, address] : cases) {
        EXPECT_EQ(mail_address(mailbox), address);
    }
    const std::string too_long = longest + "a";
    for (const std::string& none : std::vector<std::string>{
             "", "<>", "@x", "a b", "a\tb", "a\r\nb", "a,b", "g:a", "a;b", "a(c)", "\"a\"@x", "a\\@x", "a>",
             "<a", "<a>b", "\xc3\xa4@x", "Ann <ann@x> <eve@x>x", "ann@x>\r\nRCPT TO:<eve@x", too_long}) {
        EXPECT_EQ(mail_address(none), "") << none;
    }
}

TEST(mail_header, encodes_and_folds) {
    EXPECT_EQ(makeEncodedWord_Q("a b_\xe4", "iso-8859-1"), "=?iso-8859-1?Q?a_b=5F=E4?=");
    EXPECT_EQ(getSubjectField("plain", "utf-8"), "plain");
    EXPECT_EQ(getSubjectField("a\r\nBcc: b", "utf-8"), "a  Bcc: b");
    EXPECT_EQ(getSubjectField("=?x", "utf-8"), "=?utf-8?Q?=3D=3Fx?=") << "is not decoded on the other side";
    std::string many;
    for (int i = 0; i < 60; ++i) {
        many += "\xe2\x82\xac";
    }
    const std::string words = makeEncodedWord_Q(many, "utf-8");
    for (size_t at = 0; at < words.size();) {
        const size_t end = std::min(words.find("\r\n ", at), words.size());
        const std::string word = words.substr(at, end - at);
        EXPECT_LE(word.size(), 75u);
        EXPECT_EQ((word.size() - 12) % 9, 0u) << "no character is torn: " << word;
        at = end + 3;
    }
    EXPECT_EQ(addParameter("filename", "a\"b.txt", "utf-8"), "\r\n filename=\"a\\\"b.txt\"");
    EXPECT_EQ(addParameter("filename", "\xe4.txt", "iso-8859-1"), "\r\n filename*=iso-8859-1''%E4.txt");
    const std::string date = getDateField(0);
    EXPECT_TRUE(date.find("1970") != std::string::npos || date.find("1969") != std::string::npos) << date;
}

// A fork in this moment must find the time zone's lock held, or the child could wait for it for ever.
TEST(mail_header, the_date_is_made_under_the_lock_of_the_time_zone) {
    const own_context own;
    std::atomic<bool> done = false;
    global_fork_lock(own.pcx.get());
    std::thread mail([&] {
        getDateField(86400);
        done = true;
    });
    for (int wait = 0; wait < 50 && !done; ++wait) {
        usleep(1000);
    }
    EXPECT_FALSE(done);
    global_fork_unlock(own.pcx.get());
    mail.join();
}

TEST(mail_header, an_order_without_settings_is_told_which_one_to_write) {
    const own_context context;
    mail_order order;
    const auto refusal = [&order] {
        qx7_error error;
        EXPECT_EQ(qxsmtp_sendMailEx(order, {}, {}, &error), -1);
        return std::to_string(error.qx_msgnr) + " " + error.qx_msgInsert;
    };
    EXPECT_EQ(refusal(), "50001 |write smtp_server into section MAIL|");
    order.server = "127.0.0.1";
    EXPECT_EQ(refusal(), "50016 |the sender: write smtp_from_addr into section MAIL|");
    order.from = "a@b";
    order.to = {"a b@c"};
    EXPECT_EQ(refusal(), "50016 a b@c|a recipient|");
}

TEST(mail_body, codes_as_the_standards_say) {
    // Whole lines are coded by other instructions than the rest of one.
    std::string plain;
    for (unsigned at = 0; at < 700; ++at) {
        std::string lines;
        mail_append_base64(&lines, plain);
        std::string expected;
        for (size_t from = 0; from < plain.size(); from += 57) {
            base64_encode(std::string_view(plain).substr(from, 57), &expected);
            expected += "\r\n";
        }
        ASSERT_EQ(lines, expected) << at;
        plain += static_cast<char>(at * at * 31 >> 3);
    }
    EXPECT_EQ(mail_quoted_printable("a=b\nc \r\nd\t"), "a=3Db\r\nc=20\r\nd=09");
    EXPECT_EQ(mail_quoted_printable(std::string(76, 'x')), std::string(75, 'x') + "=\r\nx");
}

TEST(mail_body, tells_what_can_go_as_lines) {
    const auto plain = [](const std::string& text) {
        MailData piece;
        piece.buf = text;
        qx7_error error;
        EXPECT_EQ(is7bitData(&piece, &error), 0);
        return piece.plain;
    };
    for (const std::string& text : {std::string(), std::string("a\nb"), std::string("a\r\nb\r\n"),
                                    std::string("\t\f\x01"), std::string(998, 'x')}) {
        EXPECT_TRUE(plain(text)) << text;
    }
    for (const std::string& text :
         {std::string("a\r\nb\n"), std::string("a\rb"), std::string("a\r"), std::string(1, '\0'),
          std::string("\x80"), std::string("\x7f"), std::string(999, 'x')}) {
        EXPECT_FALSE(plain(text)) << text;
    }
}

std::string boundary_for(const std::vector<std::string>& texts) {
    std::vector<MailData> pieces(texts.size());
    for (size_t at = 0; at < texts.size(); ++at) {
        pieces[at].buf = texts[at];
    }
    std::string boundary = mail_boundary_start;
    qx7_error error;
    EXPECT_EQ(checkBoundary(pieces, &boundary, &error), 0);
    return boundary;
}

TEST(mail_body, chooses_a_boundary_that_no_line_begins_with) {
    const std::string start = mail_boundary_start;
    EXPECT_EQ(boundary_for({"text"}), start);
    EXPECT_EQ(boundary_for({"in the midst " + start}), start);
    EXPECT_EQ(boundary_for({start}), start + "A") << "one character more";
    EXPECT_EQ(boundary_for({"x\n--" + start}), start + "A");
    EXPECT_EQ(boundary_for({"x", "y\n" + start + "Ax\n"}), start + "B");
    for (size_t before = 0; before < 40; ++before) {
        EXPECT_EQ(boundary_for({std::string(before, '-') + "\n" + start + std::string(40 - before, '=')}),
                  start + "A")
            << before;
    }
    std::string all;
    for (int c = 'A'; c <= 'Z'; ++c) {
        all += start + static_cast<char>(c) + "\n";
    }
    EXPECT_EQ(boundary_for({all}), start + "a");
    EXPECT_EQ(boundary_for({start + "A\n", start + "\n"}), start + "B")
        << "the search begins again with the first piece";
}

// In a file that is read in blocks, wherever the seam falls.
TEST(mail_body, finds_the_boundary_across_blocks) {
    const own_context context;
    const own_folder folder;
    for (size_t before = 58368 - 14; before <= 58368 + 2; ++before) {
        write_text(folder / "file", std::string(before, '\n') + "--" + mail_boundary_start);
        mail_order order;
        order.attachments = {folder / "file"};
        std::vector<MailData> pieces;
        qx7_error error;
        ASSERT_EQ(mail_open_pieces(order, &pieces, &error), 0) << error.qx_msgInsert;
        std::string boundary = mail_boundary_start;
        ASSERT_EQ(checkBoundary(pieces, &boundary, &error), 0);
        EXPECT_EQ(boundary, std::string(mail_boundary_start) + "A") << before;
    }
}

// A file that is cut or changed while it is sent stops the mail.
TEST(mail_body, sends_no_file_that_changes_under_it) {
    const own_context context;
    const own_folder folder;
    for (const std::string& later : {std::string("short"), std::string(20, '\x80'),
                                     "\n--" + std::string(mail_boundary_start) + "\nxxxxxxx"}) {
        write_text(folder / "file", "twenty bytes of text");
        mail_order order;
        order.attachments = {folder / "file"};
        std::vector<MailData> pieces;
        qx7_error error;
        ASSERT_EQ(mail_open_pieces(order, &pieces, &error), 0);
        ASSERT_EQ(is7bitData(&pieces[0], &error) + is7bitData(&pieces[1], &error), 0);
        bool changed = false;
        const int result = mail_write(
            "", pieces, "utf-8",
            [&](std::string_view bytes) {
                if (!changed && bytes.find("attachment") != std::string_view::npos) {
                    changed = true;
                    write_text(folder / "file", later);
                }
                return 0;
            },
            &error);
        EXPECT_EQ(result, -1) << later;
        EXPECT_EQ(error.qx_msgnr, number_mail_file) << later;
    }
}

TEST(relay, takes_whole_replies_only) {
    struct one {
        std::string bytes;
        long used;
        int code;
    };
    for (const one& c : std::vector<one>{{"250 ok\r\n", 8, 250},
                                         {"250\n", 4, 250},
                                         {"250-a\r\n250 b\r\nmore", 14, 250},
                                         {"250-a\r\n", 0, 250},
                                         {"25", 0, 0},
                                         {"25\r\n", -1, 0},
                                         {"250-a\r\n251 b\r\n", -1, 250},
                                         {"199 x\r\n", -1, 0},
                                         {"600 x\r\n", -1, 0},
                                         {"250ok\r\n", -1, 0},
                                         {"+25 x\r\n", -1, 0},
                                         {std::string(relay_line_max + 1, '2'), -1, 0}}) {
        relay_reply reply;
        EXPECT_EQ(relay_parse_reply(c.bytes, &reply), c.used) << c.bytes.substr(0, 20);
        EXPECT_EQ(reply.code, c.code) << c.bytes.substr(0, 20);
    }
    std::string endless;
    for (size_t at = 0; at < relay_lines_max + 1; ++at) {
        endless += "250-x\r\n";
    }
    relay_reply reply;
    EXPECT_EQ(relay_parse_reply(endless, &reply), -1);
    EhloExt able;
    receiveEhloResponse({250, {"relay", "auth plain CRAM-MD5", "AUTHX LOGIN"}}, &able);
    EXPECT_EQ(able.auth_plain * 2 + able.auth_login, 2);
}

// What the client said to a relay that answers line by line from a script.
std::string talk(const std::vector<std::string>& script, const smtp_mail& mail, int* number) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    std::string heard;
    std::thread relay([&] {
        for (const std::string& answer : script) {
            (void)!write(pair[1], answer.data(), answer.size());
            char chunk[4096];
            const ssize_t n = read(pair[1], chunk, sizeof chunk);
            heard.append(chunk, n > 0 ? static_cast<size_t>(n) : 0);
        }
        shutdown(pair[1], SHUT_RDWR);
    });
    SmtpSocket line;
    line.s.reset(pair[0]);
    line.serverName = "relay";
    line.timeout = 2;
    qx7_error error;
    std::string warned;
    const int result = sendSmtpMail(
        &line, mail, [&](int, const std::string& insert) { warned += insert; }, &error);
    line.s.reset();
    relay.join();
    close(pair[1]);
    *number = result == 0 ? 0 : error.qx_msgnr;
    return heard;
}

TEST(relay, resets_after_a_failure_and_takes_its_leave) {
    smtp_mail mail;
    mail.from = "me@x";
    mail.to = {"a@x", "b@x"};
    mail.header = "Subject: s\r\n";
    mail.charset = "utf-8";
    mail.pieces.resize(1);
    mail.pieces[0].plain = true;
    int number = 0;
    std::string heard = talk({"220 hi\r\n", "250 ok\r\n", "250 ok\r\n", "550 no|thanks\r\n", "551 no\r\n",
                              "250 reset\r\n", "221 bye\r\n"},
                             mail, &number);
    EXPECT_EQ(number, number_mail_no_recipient);
    EXPECT_EQ(heard.substr(heard.find("MAIL")),
              "MAIL FROM:<me@x>\r\nRCPT TO:<a@x>\r\nRCPT TO:<b@x>\r\nRSET\r\nQUIT\r\n");
    heard = talk({"554 go away\r\n"}, mail, &number);
    EXPECT_EQ(number, number_mail_greeting);
    EXPECT_EQ(heard, "") << "no session, no farewell";
    heard = talk({"220 hi\r\n", "500 what\r\n", "250 ok\r\n", "250 ok\r\n", "251 forwarded\r\n", "550 no\r\n",
                  "554 no data\r\n", "250 reset\r\n", "221 bye\r\n"},
                 mail, &number);
    EXPECT_EQ(number, number_mail_data_refused);
    EXPECT_NE(heard.find("\r\nHELO "), std::string::npos);
    EXPECT_NE(heard.find("DATA\r\nRSET\r\nQUIT\r\n"), std::string::npos) << heard;
    // A reply ahead of its question is not taken for the answer to it.
    heard = talk({"220 hi\r\n250 ok\r\n250 ok\r\n", "554 no EHLO\r\n", "554 no HELO\r\n"}, mail, &number);
    EXPECT_EQ(number, number_mail_greeting);
}

}  // namespace
