// What the server asks and orders about the agent itself.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "loopback.h"
#include "messages/records_server.h"
#include "messages/view.h"
#include "server_fixture.h"

namespace {

using nlohmann::json;

struct administration : server_test {
    installation host{"ADMIN", port()};
    cp_answer last;
    bool answered = false;

    cp_answer_handler keep() {
        answered = false;
        return [this](const cp_answer& answer) {
            last = answer;
            answered = true;
        };
    }
    bool wait_answer() {
        return wait(10000, [this] { return answered; });
    }
    std::string streamed() const { return read_file(options.folder + "/agents/ADMIN.log"); }
    // A connection to the listener, closed again.
    static bool call_listener(const installation& of) {
        const int fd = connect_to_loopback(of.listener_port);
        close(fd);
        return fd >= 0;
    }
    std::string trace() {
        EXPECT_TRUE(cp_trace_get(server.get(), "ADMIN", keep()) && wait_answer());
        return last.insert;
    }
    // The files that the agent and its listener trace into.
    size_t trace_files() const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(host.path("temp"))) {
            count += entry.path().filename().string().find(".t0") != std::string::npos ? 1 : 0;
        }
        return count;
    }
};

TEST_F(administration, tells_what_it_does) {
    log_on(host);
    ASSERT_TRUE(cp_query(server.get(), "ADMIN", keep()) && wait_answer());
    auto info = view_record<MSG_TYPE_EXINFO>(view_message(last.data.data(), last.data.size()));
    EXPECT_EQ(last.data.size(), 1228u);
    EXPECT_EQ(info.jobcount, 0);
    EXPECT_GE(info.connectcount, 1);
    EXPECT_GE(info.pcount, 1);
    EXPECT_EQ(info.sysflag, 1);
    EXPECT_EQ(info.header.i2Mandant, 100);

    const int run = submit("read x < " + host.path("gate") + "\n");
    ASSERT_EQ(mkfifo(host.path("gate").c_str(), 0666), 0);
    ASSERT_TRUE(wait_state(run, cp_job_state::running)) << story();
    ASSERT_TRUE(cp_query(server.get(), "ADMIN", keep()) && wait_answer());
    info = view_record<MSG_TYPE_EXINFO>(view_message(last.data.data(), last.data.size()));
    EXPECT_EQ(info.jobcount, 1);
    write_file(host.path("gate"), "\n");
    EXPECT_TRUE(wait_done(run)) << story();
}

TEST_F(administration, sets_the_trace_of_all_its_processes) {
    host.ini["TRACE"]["file"] = "../temp/QXXJxxx.t##";
    log_on(host);
    ASSERT_TRUE(wait(10000, [&] { return call_listener(host); })) << "the listener is there";
    EXPECT_EQ(trace(), std::string(16, '0'));
    EXPECT_EQ(last.data, std::string(last.data.c_str()) +
                             std::string("\0"
                                         "0\0",
                                         3) +
                             last.data[last.data.size() - 2] + '\0')
        << "size, no memory, type, no text";

    cp_trace_wish wish;
    wish.flags = "4040x";
    wish.max_size = 2;
    wish.trigger = "a text that never comes";
    wish.trigger_type = 'S';
    ASSERT_TRUE(cp_trace_set(server.get(), "ADMIN", wish));
    EXPECT_EQ(trace(), "4040" + std::string(12, '0')) << "what is no digit counts as 0";
    EXPECT_EQ(last.data, std::string("2\0"
                                     "0\0S\0",
                                     6) +
                             wish.trigger);
    EXPECT_TRUE(host.log_has("U02000047"));

    // The first version leaves all but the flags.
    wish.flags = "1";
    wish.extended = false;
    wish.max_size = 9;
    wish.trigger = "another";
    ASSERT_TRUE(cp_trace_set(server.get(), "ADMIN", wish));
    EXPECT_EQ(trace(), "1" + std::string(15, '0'));
    EXPECT_EQ(last.data, std::string("2\0"
                                     "0\0S\0",
                                     6) +
                             "a text that never comes");

    wish.extended = true;
    wish.flags = std::string(16, '4');
    wish.trigger.clear();
    wish.trigger_type = ' ';
    wish.force = true;
    ASSERT_TRUE(cp_trace_set(server.get(), "ADMIN", wish));
    EXPECT_EQ(trace(), std::string(16, '4'));
    // Something for the listener to trace.
    EXPECT_TRUE(wait(10000, [&] { return call_listener(host) && trace_files() >= 2; }))
        << "agent and listener: " << trace_files();
}

// Every line of both files stands once in what was streamed, in their order, whoever wanted the change.
TEST_F(administration, changes_the_log_and_loses_no_line) {
    options.log_megabytes = 1;
    close_server();
    open_server();
    host.ini["GLOBAL"]["allow_agentshell"] = "yes";
    log_on(host);
    const auto some_jobs = [&] {
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(wait_done(submit("exit 0\n"))) << story();
        }
    };
    some_jobs();
    ASSERT_TRUE(cp_change_log(server.get(), "ADMIN", keep()) && wait_answer());
    const auto change = view_record<MSG_TYPE_CHGLOGQU>(view_message(last.data.data(), last.data.size()));
    EXPECT_EQ(last.data.size(), 80u);
    EXPECT_EQ(change.ah_idnr_new, change.ah_idnr_old + 1);
    some_jobs();
    // The agent's own wish, as if the file had grown; the jobs go on meanwhile.
    ASSERT_TRUE(cp_shell(server.get(), "ADMIN", "SIMULATE SETLOGFILESIZE = 1", server_folder.path + "/shell",
                         keep()));
    some_jobs();
    EXPECT_EQ(count_events("log"), 1) << story();
    ASSERT_TRUE(host.stop());
    EXPECT_TRUE(wait(10000, [&] { return cp_find_agent(server.get(), "ADMIN") == nullptr; }));
    const std::vector<std::string> sent = lines_of(streamed());
    std::vector<std::string> written = lines_of(read_file(host.path("temp/agent.l02")));
    const size_t old_lines = written.size();
    for (const char* file : {"temp/agent.l01", "temp/agent.l00"}) {
        const std::vector<std::string> lines = lines_of(read_file(host.path(file)));
        EXPECT_NE(lines.at(1).find("U02000130"), std::string::npos) << lines[1];
        written.insert(written.end(), lines.begin(), lines.end());
    }
    // The last lines are written when the farewell is out.
    ASSERT_GT(sent.size(), old_lines + 20);
    ASSERT_LE(sent.size(), written.size());
    written.resize(sent.size());
    EXPECT_EQ(sent, written);
    EXPECT_NE(written[old_lines - 1].find("U02000067"), std::string::npos) << written[old_lines - 1];
}

TEST_F(administration, presents_itself_to_another_agent) {
    log_on(host);
    started_agent other(*this, "OTHER");
    std::string token;
    std::string error;
    ASSERT_TRUE(cp_delegation_token(server.get(), "ADMIN", "OTHER", token, error)) << error;
    ASSERT_TRUE(
        cp_connect_agents(server.get(), "ADMIN", "OTHER", "127.0.0.1", other.listener_port, token, keep()));
    ASSERT_TRUE(wait_answer()) << host.log() << other.log();
    EXPECT_EQ(last.status, "OK") << last.number << last.insert << host.log() << other.log();

    // The right for one agent is none for another.
    ASSERT_TRUE(
        cp_connect_agents(server.get(), "ADMIN", "THIRD", "127.0.0.1", other.listener_port, token, keep()));
    ASSERT_TRUE(wait_answer()) << host.log();
    EXPECT_EQ(last.number, 2000061) << last.insert;
    // Nobody listens there any more.
    other.stop();
    // Its listener ends by itself, a little later.
    ASSERT_TRUE(wait(10000, [&] { return !call_listener(other); }));
    ASSERT_TRUE(
        cp_connect_agents(server.get(), "ADMIN", "OTHER", "127.0.0.1", other.listener_port, token, keep()));
    ASSERT_TRUE(wait_answer()) << host.log();
    EXPECT_EQ(last.status, "NK");
    EXPECT_NE(last.insert.find(strerror(ECONNREFUSED)), std::string::npos) << last.insert;
}

TEST_F(administration, answers_each_failure_of_a_connection_to_another_agent) {
    log_on(host);
    struct failing {
        const char* what;
        std::string name, address;
        int port;
        std::string token;
        int number;
    };
    for (const failing& one : std::vector<failing>{
             {"no token", "OTHER", "127.0.0.1", 1, "", 2000105},
             {"a token of nobody", "OTHER", "127.0.0.1", 1, std::string(151, 'x'), 2000105},
             {"a name that no agent has", "*CP", "127.0.0.1", 1, "x", 2002036},
             {"no address", "OTHER", "", 1, "x", 2002036},
             {"no port", "OTHER", "127.0.0.1", 70000, "x", 2002036},
         }) {
        ASSERT_TRUE(
            cp_connect_agents(server.get(), "ADMIN", one.name, one.address, one.port, one.token, keep()));
        ASSERT_TRUE(wait_answer()) << one.what << host.log();
        EXPECT_EQ(last.status, "NK") << one.what;
        EXPECT_EQ(last.number, one.number) << one.what << " " << last.insert;
    }
}

TEST_F(administration, is_driven_from_the_console) {
    close_server();
    options.control = true;
    open_server();
    log_on(host);
    const auto run = [&](std::vector<std::string> arguments, std::string& output) {
        child_process console;
        arguments.insert(arguments.begin(), QX_SERVER_PROGRAM);
        arguments.insert(arguments.end(), {"--data", options.folder});
        static int count = 0;
        start_program(console, arguments, server_folder.path + "/console.out" + std::to_string(++count));
        EXPECT_TRUE(wait(15000, [&] { return !console.running(); }));
        output = console.output();
        return console.exit_code();
    };
    std::string output;
    EXPECT_EQ(run({"query", "ADMIN"}, output), 0) << output;
    EXPECT_NE(output.find("connections"), std::string::npos) << output;
    EXPECT_EQ(run({"query", "--json"}, output), 0);
    EXPECT_EQ(json::parse(output)["jobs"], 0);
    EXPECT_EQ(run({"trace", "ADMIN", "set", "--flags", "04", "--json"}, output), 0) << output;
    EXPECT_EQ(json::parse(output)["flags"], "04" + std::string(14, '0'));
    EXPECT_EQ(run({"trace", "ADMIN", "set"}, output), 64) << output;
    EXPECT_EQ(run({"trace", "ADMIN", "set", "--flags", "4x"}, output), 64) << output;
    EXPECT_EQ(run({"query", "NOBODY"}, output), 1);
    EXPECT_NE(output.find("not logged on"), std::string::npos) << output;
    EXPECT_EQ(
        run({"mail", "ADMIN", "--to", "not an address", "--server", "127.0.0.1", "--from", "a@b"}, output),
        1);
    EXPECT_NE(output.find("U00050016"), std::string::npos) << output;
    EXPECT_EQ(run({"log", "ADMIN", "--change"}, output), 0) << output;

    child_process follower, second;
    start_program(follower, {QX_SERVER_PROGRAM, "log", "ADMIN", "--follow", "--data", options.folder},
                  server_folder.path + "/follow.out");
    ASSERT_TRUE(wait_done(submit("exit 0\n"))) << story();
    EXPECT_TRUE(wait(15000, [&] { return follower.output().find("TEST.JOB") != std::string::npos; }))
        << follower.output();
    // One who comes later is shown the last lines, and nobody else is shown them again.
    start_program(second, {QX_SERVER_PROGRAM, "log", "ADMIN", "--follow", "--data", options.folder},
                  server_folder.path + "/second.out");
    EXPECT_TRUE(wait(15000, [&] { return second.output().find("TEST.JOB") != std::string::npos; }));
    ASSERT_TRUE(cp_change_log(server.get(), "ADMIN", keep()) && wait_answer());
    EXPECT_TRUE(wait(15000, [&] { return follower.output().find("U02000130") != std::string::npos; }));
    std::vector<std::string> lines = lines_of(follower.output());
    std::erase_if(lines, [](const std::string& line) { return line.find("TEST.JOB") == std::string::npos; });
    EXPECT_FALSE(lines.empty());
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(std::adjacent_find(lines.begin(), lines.end()), lines.end()) << follower.output();
    for (child_process* each : {&follower, &second}) {
        each->signal(SIGTERM);
        EXPECT_TRUE(each->wait_end(5000));
    }
    EXPECT_EQ(run({"log", "NOBODY"}, output), 1);
    EXPECT_NE(output.find("not logged on"), std::string::npos) << output;
    ASSERT_TRUE(host.stop());
    EXPECT_EQ(run({"log", "ADMIN"}, output), 0) << "what was sent is kept";
    EXPECT_NE(output.find("U02003073"), std::string::npos) << output;
    EXPECT_EQ(lines_of(output).size(), 20u) << output;
}

}  // namespace
