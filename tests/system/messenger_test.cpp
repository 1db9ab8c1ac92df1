// The job messenger by itself: what it says, what it writes, and how it ends.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>

#include "base/text.h"
#include "installation.h"
#include "loopback.h"
#include "messages/frame.h"
#include "messages/records_server.h"
#include "messages/view.h"

namespace {

struct messenger_call {
    int code;
    std::string output;
};

messenger_call call(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), QX_MESSENGER_PROGRAM);
    messenger_call result;
    result.code = run_program(arguments, result.output, 60000);
    return result;
}

TEST(messenger, tells_wrong_use_in_one_line) {
    const std::vector<std::string> wrong[] = {
        {},
        {"start"},
        {"--port", "1", "start"},
        {"--port", "1", "--run", "5"},
        {"--port", "1", "--run", "5", "stop"},
        {"--port", "0", "--run", "5", "start"},
        {"--port", "65536", "--run", "5", "start"},
        {"--port", "1", "--run", "0", "start"},
        {"--port", "1", "--run", "5x", "start"},
        {"--port", "1", "--run", "5", "end"},
        {"--port", "1", "--run", "5", "end", "--retcode", "99999999999"},
        {"--port", "1", "--run", "5", "end", "--retcode"},
        {"--port", "1", "--run", "5", "restart", "--text", "x"},
        {"--port", "1", "--run", "5", "variable", "NAME"},
        {"--port", "1", "--run", "5", "variable", std::string(200, 'N'), "v"},
        {"--port", "1", "--run", "5", "variable", "NAME", std::string(1024, 'v')},
        {"--port", "1", "--run", "5", "file", std::string("/") + std::string(511, 'f')},
        {"--port", "1", "--run", "5", "--client", "65536", "start"},
        {"--port", "1", "--run", "5", "--nonsense", "x", "start"},
        {"--port", "--help", "--run", "5", "start"},
        {"--port", "1", "--run", "5", "restart", "--text", "--help"},
        {"--port", "1", "--run", "5", "variable", "-h"},
        {"--port", "1", "--run", "5", "variable", "--", "--help"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        const messenger_call result = call(arguments);
        EXPECT_EQ(result.code, 1) << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
        EXPECT_NE(result.output.find("--help"), std::string::npos) << result.output;
    }
    const std::vector<std::string> helps[] = {
        {"--help"}, {"-h"}, {"--port", "1", "--help"}, {"start", "--help"}};
    for (const std::vector<std::string>& arguments : helps) {
        const messenger_call help = call(arguments);
        EXPECT_EQ(help.code, 0) << help.output;
        EXPECT_NE(help.output.find("--retcode"), std::string::npos) << help.output;
    }
    EXPECT_EQ(call({"--version"}).output, "qxxjlnxm 12.2.0+build.2108\n");
}

// Each job starts it twice: a library more costs more than the call itself.
TEST(messenger, needs_the_c_library_alone) {
#if !defined(__OPTIMIZE__) || defined(__clang__)
    GTEST_SKIP() << "here the headers of the C++ library leave references to it behind";
#endif
    std::string libraries;
    ASSERT_EQ(run_program({"/usr/bin/env", "LD_TRACE_LOADED_OBJECTS=1", QX_MESSENGER_PROGRAM}, libraries), 0);
    if (libraries.find("san.so") != std::string::npos) {
        GTEST_SKIP() << "a sanitizer brings libraries of its own";
    }
    for (const std::string& line : lines_of(libraries)) {
        EXPECT_TRUE(std::regex_search(line, std::regex("libc\\.so|ld-linux|linux-vdso"))) << line;
    }
}

TEST(messenger, writes_its_lines_also_when_the_agent_is_not_there) {
    const std::string port = std::to_string(free_port());
    const std::string date = R"(\d\d\.\d\d\.\d{4} / \d\d:\d\d:\d\d)";
    const std::string process = " ProcID:" + std::to_string(getpid());
    const struct {
        std::vector<std::string> command;
        std::string lines;
    } cases[] = {
        {{"start"}, R"(\n\*\*  JOB 17 START AT )" + date + " UTC TIME " + date + process + "\n"},
        {{"restart", "--mark", "STEP1", "--text", "t"},
         R"(\n\*\*  JOB 17 RESTART AT )" + date + " UTC TIME " + date + "\n"},
        {{"end", "--retcode", "-3"},
         R"(\n\*\*  JOB 17 ENDED AT )" + date + " UTC TIME " + date + process +
             "\n"
             R"(\*\*  TEXT="" RETCODE=-3)"
             "\n"},
        {{"file", "/a/b", "--login-check", "N"},
         "\nQX7 messenger '12\\.2\\.0' login check 'N' registered output file '/a/b'\n"},
        {{"file", "/a/it's"}, ""},
        {{"status", "--text", "half"}, ""},
        {{"variable", "NAME", "--", "--value"}, ""},
    };
    for (const auto& row : cases) {
        std::vector<std::string> arguments = {"--address", "127.0.0.1", "--port", port, "--run", "17"};
        arguments.insert(arguments.end(), row.command.begin(), row.command.end());
        const messenger_call result = call(arguments);
        EXPECT_EQ(result.code, 2) << result.output;
        const std::regex wanted(row.lines + "qxxjlnxm: the agent at 127.0.0.1:" + port +
                                " cannot be reached: [^\n]+\n");
        EXPECT_TRUE(std::regex_match(result.output, wanted)) << result.output;
    }
}

TEST(messenger, ends_when_the_other_side_talks_nonsense_or_hangs_up) {
    const std::string answers[] = {
        "HTTP/1.1 400 Bad Request\r\n\r\n",
        std::string(48, '\0') + std::string(100, '\0'),
        std::string(5000, '\xff'),
    };
    for (const std::string& answer : answers) {
        int port = 0;
        const int listener = listen_on_loopback(&port);
        ASSERT_GE(listener, 0);
        scratch_folder folder;
        child_process messenger;
        start_program(messenger,
                      {QX_MESSENGER_PROGRAM, "--address", "127.0.0.1", "--port", std::to_string(port),
                       "--run", "17", "status", "--text", "x"},
                      folder.path + "/out");
        const int line = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(line, 0);
        char bytes[4096];
        ASSERT_GT(recv(line, bytes, sizeof bytes, 0), 48) << "the message comes in one piece";
        ASSERT_EQ(send(line, answer.data(), answer.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(answer.size()));
        shutdown(line, SHUT_WR);
        EXPECT_TRUE(messenger.wait_end(20000)) << answer.substr(0, 20);
        EXPECT_EQ(messenger.exit_code(), 2) << messenger.output();
        EXPECT_NE(messenger.output().find("did not answer"), std::string::npos) << messenger.output();
        close(line);
        close(listener);
    }
}

std::vector<unsigned char> quitt(const char* status, int number, size_t length) {
    auto answer = new_message<MSG_TYPE_QUITT>(0, 0);
    put_text(answer.quitt, status);
    put_text(answer.msg, "MELD");
    put_text(answer.msg_insert, "");
    answer.msgnr = number;
    return frame_make_message(&answer, length, {});
}

// The next caller within ten seconds, or -1.
int accept_soon(int listener) {
    pollfd caller{listener, POLLIN, 0};
    return poll(&caller, 1, 10000) == 1 ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

// A full listener hangs up; the word gets through as soon as there is room.
TEST(messenger, tries_again_when_it_is_turned_away_and_tells_a_refusal) {
    const struct {
        const char* address;
        const char* status;
        int number;
        int code;
        size_t length;
    } cases[] = {{"127.0.0.1", "OK", 0, 0, offsetof(MSG_TYPE_QUITT, filler)},
                 {"localhost", "NK", 2003078, 2, sizeof(MSG_TYPE_QUITT)}};
    for (const auto& row : cases) {
        int port = 0;
        const int listener = listen_on_loopback(&port);
        ASSERT_GE(listener, 0);
        scratch_folder folder;
        child_process messenger;
        start_program(messenger,
                      {QX_MESSENGER_PROGRAM, "--address", row.address, "--port", std::to_string(port),
                       "--run", "17", "status", "--text", "x"},
                      folder.path + "/out");
        char bytes[4096];
        for (int at = 0; at < 3; ++at) {
            const int line = accept_soon(listener);
            ASSERT_GE(line, 0) << messenger.output();
            if (at == 1) {
                EXPECT_GT(recv(line, bytes, sizeof bytes, 0), 48);  // an end behind the message
            }
            close(line);
        }
        const int line = accept_soon(listener);
        ASSERT_GE(line, 0) << messenger.output();
        EXPECT_GT(recv(line, bytes, sizeof bytes, 0), 48);
        const std::vector<unsigned char> answer = quitt(row.status, row.number, row.length);
        send(line, answer.data(), answer.size(), MSG_NOSIGNAL);
        EXPECT_TRUE(messenger.wait_end(20000));
        EXPECT_EQ(messenger.exit_code(), row.code) << messenger.output();
        const std::string output = messenger.output();
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), row.code == 0 ? 0 : 1) << output;
        EXPECT_EQ(output.find("2003078") != std::string::npos, row.code != 0) << output;
        close(line);
        close(listener);
    }
}

}  // namespace
