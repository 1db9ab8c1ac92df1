// Mails of the agent to a real relay on a loopback address of the test's own, taken apart by another program.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "server_fixture.h"

namespace {

using nlohmann::json;

std::string hex(const std::string& bytes) {
    std::string out;
    for (const char c : bytes) {
        char two[3];
        snprintf(two, sizeof two, "%02x", static_cast<unsigned char>(c));
        out += two;
    }
    return out;
}

std::string to_crlf(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c == '\n' ? "\r\n" : std::string(1, c);
    }
    return out;
}

// Tests run side by side: each has an address of its own, where the mail port is free.
std::string own_address() {
    static int count = 0;
    const int number = getpid() * 7 + ++count;
    return "127." + std::to_string(1 + number / 64516 % 250) + "." + std::to_string(1 + number / 254 % 254) +
           "." + std::to_string(1 + number % 254);
}

bool may_bind_mail_port(const std::string& address) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(25);
    inet_pton(AF_INET, address.c_str(), &at.sin_addr);
    const bool good = bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0;
    close(fd);
    return good;
}

struct relay {
    scratch_folder folder;
    std::string address = own_address();
    child_process program;

    bool start(std::vector<std::string> options) {
        std::vector<std::string> arguments = {"/usr/bin/python3",
                                              std::string(QX_SOURCE_DIR) + "/tests/support/mail_relay.py",
                                              address, "25", folder.path};
        arguments.insert(arguments.end(), options.begin(), options.end());
        start_program(program, arguments, folder.path + "/output");
        return wait_until(20000, [&] { return access((folder.path + "/ready").c_str(), F_OK) == 0; });
    }
    int count() const {
        int n = 0;
        while (access((folder.path + "/" + std::to_string(n + 1) + ".done").c_str(), F_OK) == 0) {
            ++n;
        }
        return n;
    }
    json mail(int number) const {
        return json::parse(read_file(folder.path + "/" + std::to_string(number) + ".json"));
    }
};

struct mail : server_test {
    std::unique_ptr<installation> host;
    cp_answer last;

    void SetUp() override {
        if (!may_bind_mail_port(own_address())) {
            GTEST_SKIP() << "the mail port may not be bound here: run as root";
        }
        host = std::make_unique<installation>("MAILER", port());
        host->ini["MAIL"]["smtp_from_addr"] = "agent@example.org";
        host->ini["MAIL"]["charset"] = "utf-8";
        log_on(*host);
    }
    cp_answer send(const cp_mail& wanted, int timeout_ms = 20000) {
        bool done = false;
        std::string error;
        last = {};
        EXPECT_TRUE(cp_send_mail(server.get(), "MAILER", wanted, error, [&](const cp_answer& answer) {
            last = answer;
            done = true;
        })) << error;
        EXPECT_TRUE(wait(timeout_ms, [&] { return done; })) << host->log();
        return last;
    }
    static cp_mail plain(const relay& to) {
        cp_mail wanted;
        wanted.server = to.address;
        wanted.to = {"ann@example.org"};
        wanted.subject = "hello";
        wanted.text = "a text\n";
        wanted.timeout = 5;
        return wanted;
    }
};

std::string bytes_of_all_values(size_t size) {
    std::string out(size, '\0');
    uint32_t state = 12345;
    for (char& c : out) {
        state = state * 1664525 + 1013904223;
        c = static_cast<char>(state >> 24);
    }
    return out;
}

TEST_F(mail, arrives_as_it_was_given_whatever_is_in_it) {
    relay there;
    ASSERT_TRUE(there.start({})) << read_file(there.folder.path + "/output");
    struct attachment {
        std::string name;
        std::string content;
        bool text;
    };
    const std::vector<attachment> files = {
        {"plain.txt", "one\ntwo\n", true},
        {"no end.txt", "one\ntwo", true},
        {"empty", "", true},
        {"dots", ".\n..\n.a\n\n.\n", true},
        {"crlf.txt", "one\r\ntwo\r\n", true},
        {"mixed", "one\r\ntwo\nthree\rfour", false},
        {"longest line", std::string(998, 'x') + "\n", true},
        {"too long a line", std::string(999, 'x') + "\n", false},
        {"with nul", std::string("a\0b\n", 4), false},
        {"one byte.bin", "\xff", false},
        {"odd.bin", bytes_of_all_values(57 * 1024 + 1), false},
        {"large.bin", bytes_of_all_values(3000001), false},
        {"gr\xc3\xbc\xc3\x9f"
         "e.txt",
         "a\n", true},
        {"\"quoted\\ name\"; x=y.txt", "a\n", true},
        {std::string(180, 'n') + "\xe2\x82\xac.txt", "b\n", true},
        {"boundary", "--=qx7=\n----=qx7=\n--=qx7=A\n", true},
        {"boundary at the end", "x\n----=qx7=", true},
    };
    cp_mail wanted = plain(there);
    wanted.to = {"Ann <ann@example.org>", "bob@example.org", "J\xc3\xb6rg \xe2\x82\xac <joerg@example.org>"};
    wanted.cc = {"\"Last, First\" <cc@example.org>"};
    wanted.from = "M\xc3\xbcller <sender@example.org>";
    wanted.subject =
        "Gr\xc3\xbc\xc3\x9f"
        "e an alle, \xe2\x82\xac 100 =?x?Q?y?= und noch viel mehr Text, damit gefaltet wird";
    wanted.text =
        "Stra\xc3\x9f"
        "e \n.\n.dot\n--=qx7=\n" +
        std::string(1200, 'y') + "\ntrailing \t\n=\nend";
    for (const attachment& file : files) {
        write_file(host->path("out/" + file.name), file.content);
        wanted.attachments.push_back(host->path("out/" + file.name));
    }
    EXPECT_EQ(send(wanted).status, "OK") << last.number << " " << last.insert;
    ASSERT_EQ(there.count(), 1);
    const json came = there.mail(1);
    EXPECT_EQ(came["subject"], wanted.subject);
    EXPECT_EQ(came["sender"], "sender@example.org");
    EXPECT_EQ(came["from"], json::array({json::array({"M\xc3\xbcller", "sender@example.org"})}));
    EXPECT_EQ(came["to"],
              json::array({json::array({"Ann", "ann@example.org"}), json::array({"", "bob@example.org"}),
                           json::array({"J\xc3\xb6rg \xe2\x82\xac", "joerg@example.org"})}));
    EXPECT_EQ(came["cc"], json::array({json::array({"Last, First", "cc@example.org"})}));
    EXPECT_EQ(came["recipients"],
              (json{"ann@example.org", "bob@example.org", "joerg@example.org", "cc@example.org"}));
    EXPECT_LE(came["longest_line"], 998);
    EXPECT_EQ(came["bare_ends"], 0);
    EXPECT_EQ(came["defects"], json::array());
    ASSERT_EQ(came["parts"].size(), files.size() + 1);
    EXPECT_EQ(came["parts"][0]["content"], hex(to_crlf(wanted.text)));
    EXPECT_EQ(came["parts"][0]["charset"], "utf-8");
    for (size_t at = 0; at < files.size(); ++at) {
        const json& part = came["parts"][at + 1];
        const std::string sent = files[at].text && files[at].content.find('\r') == std::string::npos
                                     ? to_crlf(files[at].content)
                                     : files[at].content;
        EXPECT_TRUE(part["content"] == hex(sent)) << files[at].name;
        EXPECT_EQ(part["name"], files[at].name);
        EXPECT_EQ(part["type"], files[at].text ? "text/plain" : "application/octet-stream") << files[at].name;
        EXPECT_EQ(part["disposition"], "attachment");
    }
    EXPECT_TRUE(host->log_has("U02000259"));

    // HTML, alone, by the first form of the order; a text that ends without a line end.
    cp_mail html = plain(there);
    html.html = true;
    html.first_version = true;
    html.text = "<p>one</p>\n.<b>two</b>";
    EXPECT_EQ(send(html).status, "OK") << last.insert;
    EXPECT_EQ(there.mail(2)["parts"][0]["type"], "text/html");
    EXPECT_EQ(there.mail(2)["parts"][0]["content"], hex("<p>one</p>\r\n.<b>two</b>\r\n"));
    EXPECT_EQ(there.mail(2)["sender"], "agent@example.org");
}

TEST_F(mail, takes_no_header_lines_and_no_recipients_from_values) {
    relay there;
    ASSERT_TRUE(there.start({}));
    const std::string path = host->path("out/evil\r\nX-Injected: name");
    write_file(path, "x");
    cp_mail wanted = plain(there);
    wanted.subject = "one\r\nBcc: eve@example.org\r\n\r\nbody";
    wanted.to = {"Ann\r\nX-Injected: yes <ann@example.org>"};
    wanted.attachments = {path};
    EXPECT_EQ(send(wanted).status, "OK") << last.insert;
    const json came = there.mail(1);
    EXPECT_EQ(came["recipients"], json{"ann@example.org"});
    for (const json& name : came["names"]) {
        EXPECT_TRUE(name != "Bcc" && name != "X-Injected") << name;
    }
    EXPECT_EQ(came["parts"].size(), 2u);
    cp_mail refused = plain(there);
    refused.to = {"ann@example.org>\r\nRCPT TO:<eve@example.org"};
    EXPECT_EQ(send(refused).number, 50016);
    EXPECT_EQ(there.count(), 1);
}

struct relay_case {
    const char* what;
    std::vector<std::string> options;
    std::function<void(cp_mail&)> change;
    int number;  // of the answer
    const char* log;
};

TEST_F(mail, tells_what_a_relay_does_wrong) {
    const auto nothing = [](cp_mail&) {};
    const auto logon = [](const char* password) {
        return [password](cp_mail& m) {
            m.user = "bert";
            m.password = password;
        };
    };
    const auto two = [](cp_mail& m) { m.to = {"ann@example.org", "gone@example.org"}; };
    const auto short_time = [](cp_mail& m) { m.timeout = 1; };
    const std::vector<relay_case> cases = {
        {"PLAIN", {"auth=PLAIN"}, logon("t0p secret"), 0, "U02000259"},
        {"LOGIN", {"auth=LOGIN"}, logon("t0p secret"), 0, "U02000259"},
        {"wrong password", {"auth=PLAIN,LOGIN"}, logon("no"), 50027, "U00050027"},
        {"wrong password by LOGIN", {"auth=LOGIN"}, logon("no"), 50027, "U00050027"},
        {"logon wanted", {"auth=PLAIN"}, nothing, 50006, "U00050006"},
        {"no EHLO, no logon", {"no-ehlo"}, logon("t0p secret"), 0, "U02000259"},
        {"one recipient refused", {"refuse=gone"}, two, 0, "U00050007"},
        {"all recipients refused", {"refuse=example"}, two, 50028, "U00050028"},
        {"mail refused", {"refuse-mail"}, nothing, 50010, "U00050010"},
        {"silent", {"silent"}, short_time, 50003, "U00050003"},
        {"a byte a second", {"trickle"}, short_time, 50003, "U00050003"},
        {"closed at EHLO", {"close=EHLO"}, nothing, 50003, "U00050003"},
        {"closed at MAIL", {"close=MAIL"}, nothing, 50003, "U00050003"},
        {"closed at RCPT", {"close=RCPT"}, nothing, 50003, "U00050003"},
        {"closed at DATA", {"close=DATA"}, nothing, 50003, "U00050003"},
    };
    for (const relay_case& one : cases) {
        relay there;
        ASSERT_TRUE(there.start(one.options)) << one.what << read_file(there.folder.path + "/output");
        cp_mail wanted = plain(there);
        one.change(wanted);
        const auto start = std::chrono::steady_clock::now();
        const cp_answer answer = send(wanted);
        EXPECT_EQ(answer.number, one.number) << one.what << ": " << answer.insert;
        EXPECT_EQ(answer.status, one.number == 0 ? "OK" : "NK") << one.what;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << one.what;
        EXPECT_TRUE(host->log_has(one.log)) << one.what << host->log();
        EXPECT_EQ(there.count(), one.number == 0 ? 1 : 0) << one.what;
        if (one.number == 0 && std::string(one.options[0]).find("auth=") == 0) {
            EXPECT_EQ(there.mail(1)["user"], "bert") << one.what;
        }
        there.program.kill_now();
    }
    EXPECT_FALSE(host->log_has("t0p secret"));

    cp_mail lost = plain(relay{});
    EXPECT_EQ(send(lost).number, 50002) << last.insert;
    lost.server = "no such host.invalid";
    EXPECT_EQ(send(lost).number, 50001);
    lost.server.clear();
    EXPECT_EQ(send(lost).number, 50001) << "no server in the settings";
    for (const std::string& path : {host->path("out/missing"), host->path("out"), std::string("/dev/zero"),
                                    std::string("relative"), std::string("/proc/self/mem/x")}) {
        cp_mail wanted = plain(relay{});
        wanted.attachments = {path};
        EXPECT_EQ(send(wanted).number, 50004) << path;
    }
}

// A relay that says nothing holds the worker alone; at the agent's end it holds nobody.
TEST_F(mail, leaves_the_agent_free_while_a_relay_is_silent) {
    relay there;
    ASSERT_TRUE(there.start({"silent"}));
    cp_mail wanted = plain(there);
    wanted.timeout = 600;
    std::string error;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(cp_send_mail(server.get(), "MAILER", wanted, error, {})) << error;
    }
    const int run = submit("exit 0\n");
    EXPECT_TRUE(wait_done(run)) << story();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(host->stop());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

}  // namespace
