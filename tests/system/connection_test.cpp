// Search, ranking, loss and return of the server; bytes that do not belong.
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "loopback.h"
#include "messages/frame.h"
#include "messages/records_connection.h"
#include "messages/records_meld.h"
#include "server_fixture.h"

namespace {

struct connection : server_test {
    // A second server process of the same system.
    std::unique_ptr<cp_server, void (*)(cp_server*)> other{nullptr, cp_server_close};
    scratch_folder other_folder;

    void open_other(int ranking, const std::string& system = "TESTSYS") {
        cp_options wanted = options;
        wanted.folder = other_folder.path + "/cp";
        wanted.port = 0;
        wanted.ranking = ranking;
        wanted.system = system;
        std::string error;
        other = cp_server_open(wanted, error);
        ASSERT_TRUE(other) << error;
    }
    // Steps both until `done`.
    bool wait_both(int timeout_ms, const std::function<bool()>& done) {
        return wait_until(timeout_ms, [&] {
            cp_server_step(server.get(), 5);
            cp_server_step(other.get(), 5);
            return done();
        });
    }
};

TEST_F(connection, takes_the_candidate_with_the_lowest_ranking) {
    open_other(2);
    close_server();
    options.ranking = 5;
    options.cp_list = "127.0.0.1:" + std::to_string(cp_server_port(other.get())) + ";";
    open_server();
    installation host("RANKED", port());
    host.start();
    ASSERT_TRUE(wait_both(20000, [&] { return cp_find_agent(other.get(), "RANKED") != nullptr; }))
        << story() << host.log();
    EXPECT_EQ(cp_find_agent(server.get(), "RANKED"), nullptr);
    // Only the server that was reached in the end may have its list written.
    EXPECT_EQ(read_file(host.ini_path()).find("CP_LIST"), std::string::npos) << read_file(host.ini_path());
}

TEST_F(connection, writes_the_list_of_the_chosen_server_and_uses_it_later) {
    open_other(5);
    close_server();
    options.ranking = 1;
    options.cp_list = "127.0.0.1:" + std::to_string(cp_server_port(other.get())) + ";";
    open_server();
    installation host("LISTED", port());
    host.start();
    ASSERT_TRUE(wait_both(20000, [&] { return cp_find_agent(server.get(), "LISTED") != nullptr; }))
        << host.log();
    ASSERT_TRUE(
        wait_both(5000, [&] { return read_file(host.ini_path()).find("CP_LIST") != std::string::npos; }));
    // Server processes of one system share their keys.
    write_file(other_folder.path + "/cp/KStore.ini", read_file(options.folder + "/KStore.ini"), 0400);
    close_server();
    ASSERT_TRUE(wait_until(30000, [&] {
        cp_server_step(other.get(), 20);
        return cp_find_agent(other.get(), "LISTED") != nullptr;
    })) << host.log();
}

TEST_F(connection, passes_over_a_server_of_another_system_and_one_that_refuses) {
    open_other(1, "OTHERSYS");
    close_server();
    options.ranking = 9999;
    options.cp_list = "127.0.0.1:" + std::to_string(cp_server_port(other.get())) + ";";
    open_server();
    installation host("REFUSED", port());
    host.start();
    ASSERT_TRUE(wait_both(20000, [&] { return host.log_has("U02000019") && host.log_has("U02000355"); }))
        << host.log();
    EXPECT_TRUE(host.agent.running());
    // The refusing server is taken once it accepts again.
    close_server();
    options.ranking = 1;
    open_server();
    EXPECT_TRUE(wait_both(30000, [&] { return cp_find_agent(server.get(), "REFUSED") != nullptr; }))
        << host.log();
}

TEST_F(connection, explains_why_the_server_left_when_it_lost_the_agents_key) {
    started_agent host(*this, "FORGOT");
    EXPECT_TRUE(host.log_has("a transfer key was agreed; its fingerprint is ")) << host.log();
    ASSERT_TRUE(host.stop());
    close_server();
    ASSERT_EQ(unlink((options.folder + "/KStore.ini").c_str()), 0);
    open_server();
    host.start();
    EXPECT_TRUE(
        wait(20000, [&] { return host.log_has("it may not know this agent's transfer key (fingerprint "); }))
        << story() << host.log();
    EXPECT_TRUE(host.log_has("remove section [FORGOT] from '")) << host.log();
    EXPECT_TRUE(host.stop());
}

TEST_F(connection, starts_a_new_listener_when_it_dies) {
    started_agent host(*this, "LISTENED");
    const pid_t first = host.listener_pid();
    ASSERT_GT(first, 1);
    // A newer program under the name of the running one changes nothing for the agent that runs.
    const std::string program = host.path("bin/qxxjlnx");
    ASSERT_EQ(rename(program.c_str(), (program + ".old").c_str()), 0);
    ASSERT_EQ(symlink("/bin/false", program.c_str()), 0);
    host.agent.signal(SIGSTOP);  // it starts no other one yet
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, first, 0)), POLLIN, 0};
    kill(first, SIGKILL);
    EXPECT_EQ(poll(&end, 1, 10000), 1);
    close(end.fd);
    // The port stays the agent's: a caller waits, and nobody else can have it.
    const int caller = connect_to_loopback(host.listener_port);
    EXPECT_GE(caller, 0);
    close(caller);
    host.agent.signal(SIGCONT);
    ASSERT_TRUE(wait(20000, [&] {
        const pid_t now = host.listener_pid();
        return now > 1 && now != first &&
               host.log().rfind("listening on port") > host.log().find("U02003059");
    })) << host.log();
    const int run = submit("exit 0");
    EXPECT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(job(run).return_code, 0);
}

TEST_F(connection, waits_for_a_port_that_is_about_to_become_free) {
    installation host("HANDOVER", port());
    const int holder = listen_on_loopback(&host.listener_port);
    ASSERT_GE(holder, 0);
    host.start();
    ASSERT_TRUE(wait(20000, [&] { return host.log_has("U02000134"); })) << host.log();
    EXPECT_EQ(host.listener_pid(), -1);
    close(holder);
    // The pause after a try that counts is half a minute.
    ASSERT_TRUE(wait_logon("HANDOVER", 25000)) << host.log();
}

TEST_F(connection, lets_jobs_report_while_idle_callers_hold_connections) {
    started_agent host(*this, "CROWDED");
    std::vector<int> idle;
    for (int i = 0; i < 100; ++i) {
        idle.push_back(connect_to_loopback(host.listener_port));
        ASSERT_GE(idle.back(), 0) << i;
    }
    std::string output;
    EXPECT_EQ(run_program({QX_MESSENGER_PROGRAM, "--address", "127.0.0.1", "--port",
                           std::to_string(host.listener_port), "--run", "1", "--client", "0", "--agent",
                           "CROWDED", "status", "--text", "still here"},
                          output, 40000),
              2)
        << output << host.log();
    EXPECT_NE(output.find("did not take it (2003078)"), std::string::npos) << output;
    for (int fd : idle) {
        close(fd);
    }
}

// Sends bytes and waits until the other side closes, at most two seconds.
bool send_and_see_end(int port, const void* bytes, size_t length) {
    const int fd = connect_to_loopback(port);
    if (fd < 0) {
        return false;
    }
    send(fd, bytes, length, MSG_NOSIGNAL);
    char buffer[4096];
    pollfd waiting{fd, POLLIN, 0};
    bool ended = false;
    while (!ended && poll(&waiting, 1, 2000) > 0) {
        ended = recv(fd, buffer, sizeof buffer, 0) <= 0;
    }
    close(fd);
    return ended;
}

TEST_F(connection, outlives_strangers_at_its_listener) {
    started_agent host(*this, "BESIEGED");

    executor_data card{};
    memset(&card, ' ', sizeof card);
    put_text(card.name, "*IPC(AGENT)");
    card.flag = executor_card_flag;
    const std::vector<unsigned char> bad_name = frame_make_item(key_executor_data, &card, sizeof card);
    EXPECT_TRUE(send_and_see_end(host.listener_port, bad_name.data(), bad_name.size()))
        << "a name of the agent's own";

    put_text(card.name, "STRANGER");
    const std::vector<unsigned char> good = frame_make_item(key_executor_data, &card, sizeof card);
    const char order[296] = {};
    const std::vector<unsigned char> shutdown = frame_make_item(key_system_shutdown, order, sizeof order);
    EXPECT_TRUE(send_and_see_end(host.listener_port, shutdown.data(), shutdown.size()))
        << "an order to shut down";
    frame_address address{};
    strcpy(address.dst_name, "JPAKTJ_R");
    char activation[1836] = {};
    memcpy(activation, "EXAKTJ  02", 10);
    const std::vector<unsigned char> unsealed = frame_make_message(activation, sizeof activation, address);
    EXPECT_TRUE(send_and_see_end(host.listener_port, unsealed.data(), unsealed.size()))
        << "an activation in the clear";
    EXPECT_TRUE(send_and_see_end(host.listener_port, "GET / HTTP/1.0\r\n\r\n", 18));

    // Each frame with a changed byte, and cut: none may end a process or stop the jobs.
    std::mt19937 random(20261124);
    std::vector<int> held;
    for (int i = 0; i < 300; ++i) {
        std::vector<unsigned char> frame = i % 3 == 0 ? good : i % 3 == 1 ? unsealed : shutdown;
        frame[random() % frame.size()] ^= static_cast<unsigned char>(1 + random() % 255);
        const size_t length = i % 4 == 0 ? random() % frame.size() : frame.size();
        const int fd = connect_to_loopback(host.listener_port);
        if (fd >= 0) {
            send(fd, frame.data(), length, MSG_NOSIGNAL);
            i % 10 == 0 ? held.push_back(fd) : static_cast<void>(close(fd));
        }
    }
    const pid_t listener = host.listener_pid();
    const int run = submit("echo still here");
    EXPECT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(job(run).return_code, 0);
    EXPECT_TRUE(host.agent.running());
    EXPECT_EQ(host.listener_pid(), listener);
    for (int fd : held) {
        close(fd);
    }
}

}  // namespace
