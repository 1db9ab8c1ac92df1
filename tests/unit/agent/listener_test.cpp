// How the agent watches its listener.
#include "agent/listener.h"

#include <linux/filter.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>

#include "agent/ipc_dispatch.h"
#include "agent/listener_settings.h"
#include "agent/maintenance.h"
#include "agent_fixture.h"
#include "base/descriptor.h"
#include "base/time.h"
#include "channels/connect.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "loopback.h"

namespace {

// The agent hears of its listener's end.
void tell_end(EX_PCX* pcx, pid_t listener) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_sigchld, sizeof(ipcmsg_sigchld_t));
    ipcmsg_sigchld_t end = {};
    memcpy(&end, ccm_msg_body(msg), sizeof end);
    end.pid = listener;
    memcpy(ccm_msg_body(msg), &end, sizeof end);
    msg->origin = CCM_FROM_SELF;
    msg->type = CCM_MSG_IPC;
    process_IPC_message(pcx, pcx->ccm, msg, ipc_function_list);
    ccm_msg_free(pcx->ccm, msg);
}

struct watched : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;
    pid_t child = -1;

    watched() {
        // A process that answers nothing, as a stopped listener would.
        child = fork();
        if (child == 0) {
            for (;;) {
                pause();
            }
        }
        pcx->listener_pid = child;
        // The next start would be one too many: no fork here.
        pcx->listener_start_counter = listener_start_limit;
        pcx->listener_last_pingq = alarm_now();
        maintenance_listener_process(pcx);
        pcx->listener_last_pingq = alarm_now();
    }
    ~watched() override {
        if (child > 0) {
            kill(child, SIGKILL);
            collect();
        }
    }
    // Its status, once it has ended.
    int collect() {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        child = -1;
        return status;
    }
    // Passes of the loop, 50 seconds apart.
    void pass(int count) {
        for (int at = 0; at < count; ++at) {
            alarm_clock_advance(50);
            maintenance_listener_process(pcx);
        }
    }
};

TEST_F(watched, a_listener_that_is_silent_for_240_seconds_is_killed_and_replaced) {
    pass(4);
    EXPECT_EQ(pcx->listener_pid, child) << "240 seconds are not over";
    // What waits unread may be its answer.
    ccm_msg_t* waiting = ipc_record_alloc(pcx->ccm, ipc_jobchk, sizeof(ipcmsg_header_t));
    send_IPC_internal(pcx->ccm, waiting);
    pass(1);
    EXPECT_EQ(pcx->listener_pid, child);
    ccm_msg_t* msg = nullptr;
    ccm_error_t error;
    ASSERT_EQ(ccm_receive_message(pcx->ccm, 0, &msg, &error), 1);
    ccm_msg_free(pcx->ccm, msg);
    maintenance_listener_process(pcx);
    EXPECT_EQ(pcx->listener_pid, 0);
    const int status = collect();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "it would keep the port";
    EXPECT_EQ(pcx->loop, LOOP_STOP_WANTED) << "five starts without success are the end";
}

TEST_F(watched, time_in_which_the_agent_itself_stood_still_does_not_count) {
    alarm_clock_advance(10000);
    maintenance_listener_process(pcx);
    EXPECT_EQ(pcx->listener_pid, child);
    pass(5);
    EXPECT_EQ(pcx->listener_pid, 0) << "but it is not for ever";
}

TEST_F(watched, its_end_is_followed_by_a_start_but_not_twice_in_a_second) {
    pcx->listener_alarm_time = alarm_now() + 25;
    for (const int counter : {1, 0}) {
        pcx->listener_pid = child;
        pcx->listener_start_counter = counter;
        tell_end(pcx, child);
        EXPECT_EQ(pcx->listener_pid, 0);
        if (counter != 0) {
            EXPECT_GT(pcx->listener_alarm_time, alarm_now()) << "one that never was ready keeps the pause";
        }
    }
    EXPECT_EQ(pcx->listener_alarm_time, listener_last_start() + 1);
}

struct port_of_the_agent : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;
    ccm_error_t error;

    ~port_of_the_agent() override { listener_release_port(); }
    // As a start of the listener does, for the configured port `wanted`.
    int hold(int wanted) {
        pcx->listener_port = wanted;
        return listener_hold_port(pcx, &error);
    }
    // Whether somebody else can have the port.
    static bool can_bind(int port) { return qx_descriptor(listen_on_loopback(&port)).valid(); }
    static int call(int port) { return qx_descriptor(connect_to_loopback(port)).valid() ? 0 : -1; }
    // A descriptor of the listening socket, as the listener has one.
    static int listeners_copy(int port) {
        for (int fd = 3; fd < 256; ++fd) {
            int listening = 0;
            socklen_t size = sizeof listening;
            if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0 &&
                ccm_bound_port(fd) == port) {
                return dup(fd);
            }
        }
        return -1;
    }
};

TEST_F(port_of_the_agent, stays_its_own_between_two_listeners) {
    ASSERT_EQ(hold(0), 0) << error.qx_msgInsert;
    const int port = pcx->listener_port;
    EXPECT_GT(port, 0);
    EXPECT_EQ(pcx->ipPort, port) << "what the server is told";
    EXPECT_FALSE(can_bind(port));
    pcx->listener_pid = 4711;
    tell_end(pcx, 4711);
    EXPECT_FALSE(can_bind(port)) << "not even for a moment";
    ASSERT_EQ(hold(0), 0);
    EXPECT_EQ(pcx->listener_port, port) << "a port that the system chose stays";
    EXPECT_EQ(call(port), 0) << "callers wait while no listener runs";
    // Another port in the INI file takes effect with the next listener.
    listener_release_port();
    ASSERT_EQ(hold(port), 0);
    ASSERT_EQ(hold(0), 0);
    EXPECT_NE(pcx->listener_port, port);
    EXPECT_TRUE(can_bind(port));
}

TEST_F(port_of_the_agent, is_mended_after_a_listener_that_spoiled_it) {
    ASSERT_EQ(hold(0), 0);
    const int port = pcx->listener_port;
    const qx_descriptor copy(listeners_copy(port));
    ASSERT_TRUE(copy.valid());
    ASSERT_EQ(shutdown(copy.get(), SHUT_RDWR), 0);
    EXPECT_NE(call(port), 0);
    ASSERT_EQ(hold(0), 0);
    EXPECT_EQ(pcx->listener_port, port);
    EXPECT_EQ(call(port), 0);
    sock_filter nothing[] = {{BPF_RET | BPF_K, 0, 0, 0}};
    const sock_fprog program{1, nothing};
    if (setsockopt(copy.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0) {
        ASSERT_EQ(errno, EPERM);
        GTEST_SKIP() << "this host lets root alone attach a filter";
    }
    ASSERT_EQ(hold(0), 0);
    EXPECT_EQ(call(port), 0);
}

TEST_F(port_of_the_agent, when_it_is_anothers_the_agent_says_whose_and_fails_in_the_end) {
    const qx_descriptor other(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(listen(other.get(), 1), 0);
    const int port = ccm_bound_port(other.get());
    static int configured = 0;
    configured = port;
    pcx->getProfileString = [](EX_PCX*, const char*, const char* key, const char* preset, char* out,
                               size_t size) {
        return static_cast<int>(copy_text(
            out, size, strcmp(key, "port") == 0 ? std::to_string(configured) : std::string(preset)));
    };
    pcx->getProfileBool = [](EX_PCX*, const char*, const char*, const char*) { return false; };
    pcx->getProfileInt = [](EX_PCX*, const char*, const char*, const char*) { return 65534; };
    for (int pass = 0; pass < 60 && pcx->loop == LOOP_RUNNING; ++pass) {
        maintenance_listener_process(pcx);
        EXPECT_EQ(pcx->listener_pid, 0);
        alarm_clock_advance(31);
    }
    EXPECT_EQ(pcx->loop, LOOP_STOP_WANTED);
    EXPECT_EQ(agent_end_code(pcx), 1) << "a supervisor starts it anew";
    EXPECT_EQ(logged_count(2000102), listener_start_limit);
    const std::string who = "port " + std::to_string(port) + ", which is held by process " +
                            std::to_string(getpid()) +
                            " (unit_agent), cannot be taken: no server is searched";
    int told = 0;
    for (const auto& line : log_lines) {
        told += line.insert.find(who) != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(told, listener_start_limit);
}

TEST(handed_settings, are_taken_from_the_same_program_only) {
    listener_settings good{};
    memcpy(good.eyec, listener_record_mark, sizeof good.eyec);
    copy_text(good.version, qx_version);
    good.size = sizeof good;
    good.sockets = 1;
    good.port = 2300;
    EXPECT_EQ(listener_settings_check(good), 0);
    const auto refused = [&](auto change) {
        listener_settings wrong = good;
        change(wrong);
        return listener_settings_check(wrong) != 0;
    };
    EXPECT_TRUE(refused([](listener_settings& s) { s.eyec[0] = 'x'; }));
    EXPECT_TRUE(refused([](listener_settings& s) { s.version[0] = '9'; }));
    EXPECT_TRUE(refused([](listener_settings& s) { --s.size; }));
    EXPECT_TRUE(refused([](listener_settings& s) { s.sockets = 0; }));
    EXPECT_TRUE(refused([](listener_settings& s) { s.sockets = listener_sockets_max + 1; }));
    EXPECT_TRUE(refused([](listener_settings& s) { s.port = 0; }));
    EXPECT_TRUE(refused([](listener_settings& s) { memset(s.agent, 'x', sizeof s.agent); }));
    EXPECT_TRUE(refused([](listener_settings& s) { memset(s.trc_file, 'x', sizeof s.trc_file); }));
}

// A network thread that nobody can wake, as one in a call that does not return.
TEST(network_thread, that_stands_still_ends_the_process) {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;
    pcx->running_mode = MODE_LISTENER;  // nothing else to look at
    pcx->ccm->thread_started.store(1);
    const auto passes = [&](int count, int seconds) {
        for (int at = 0; at < count; ++at) {
            alarm_clock_advance(seconds);
            maintenance_common(pcx);
        }
    };
    for (int at = 0; at < 50; ++at) {
        passes(1, 50);
        pcx->ccm->cycles.fetch_add(1);  // it moves when it is asked
    }
    passes(12, 5);  // half a minute without a cycle is an idle agent, and then it is asked
    EXPECT_EXIT(passes(20, 5), testing::ExitedWithCode(1), "");
    pcx->loop = LOOP_DRAIN;
    EXPECT_EXIT(passes(5, 5), testing::ExitedWithCode(1), "")
        << "an end that was wanted does not wait as long";
    // Stopped as a whole and continued: both threads go on, the other one a moment later.
    pcx->loop = LOOP_RUNNING;
    passes(1, 10000);
    pcx->ccm->cycles.fetch_add(1);
    passes(1, 1);
    pcx->ccm->thread_started.store(0);
}

}  // namespace
