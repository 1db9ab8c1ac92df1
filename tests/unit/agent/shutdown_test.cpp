#include "agent/shutdown.h"

#include "agent/cp_search.h"
#include "agent/maintenance.h"
#include "agent_fixture.h"
#include "base/time.h"
#include "channels/connect.h"
#include "channels/network_thread.h"

namespace {

struct shutdown : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;

    void start_thread() {
        ccm_error_t error;
        ASSERT_EQ(ccm_thread_start(pcx->ccm, &error), 0) << error.qx_msgInsert;
    }
    ~shutdown() override { ccm_thread_end(pcx->ccm); }
    // Steps until the loop is left; how often it stepped.
    int steps_to_the_end() {
        int steps = 0;
        while (pcx->loop != LOOP_LEAVE && steps < 200) {
            shutdown_in_progress(pcx);
            ccm_network_sync(pcx->ccm, 1000);
            ++steps;
        }
        return steps;
    }
};

TEST_F(shutdown, begins_only_in_a_running_process) {
    initiate_agent_shutdown(pcx);
    EXPECT_EQ(pcx->loop, LOOP_STOP_WANTED);
    EXPECT_EQ(logged_count(2003073), 1);
    for (const int state : {LOOP_STOP_WANTED, LOOP_FAREWELL, LOOP_DRAIN, LOOP_LEAVE}) {
        pcx->loop = state;
        initiate_agent_shutdown(pcx);
        EXPECT_EQ(pcx->loop, state) << "no second farewell";
    }
    EXPECT_EQ(logged_count(2003073), 1);
}

TEST_F(shutdown, agent_says_good_bye_and_drains) {
    start_thread();
    pcx->loop = LOOP_STOP_WANTED;
    shutdown_in_progress(pcx);
    EXPECT_EQ(pcx->loop, LOOP_FAREWELL);
    shutdown_in_progress(pcx);
    EXPECT_EQ(pcx->loop, LOOP_DRAIN);
    EXPECT_GT(pcx->listener_alarm_time, alarm_now() + 900) << "no listener is started any more";
    steps_to_the_end();
    EXPECT_EQ(pcx->loop, LOOP_LEAVE) << "messages for channels that do not exist hold nobody up";
}

TEST_F(shutdown, ends_a_search_and_a_handshake_that_are_under_way) {
    ASSERT_EQ(cp_search_open(pcx), 0);
    cp_connection_add(pcx, "127.0.0.1", 1, 5);
    ccm_error_t error;
    const int candidate = ccm_connect(pcx->ccm, "127.0.0.1", 1, CH_TYPE_CP_CANDIDATE, nullptr, 20, &error);
    ASSERT_GT(candidate, 0) << error.qx_msgInsert;
    pcx->loop = LOOP_FAREWELL;
    shutdown_in_progress(pcx);
    EXPECT_EQ(pcx->pcx_flag & PCX_FLAG_CP_SEARCH, 0);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, candidate), 0) << "it would log on behind the good bye";
    cp_connection_connect_next_based_ranking(pcx);
    EXPECT_EQ(ccm_get_nof_server_connections(pcx->ccm), 0);
}

TEST_F(shutdown, child_drains_at_once) {
    pcx->running_mode = MODE_LISTENER;  // the thread reads it
    start_thread();
    pcx->loop = LOOP_STOP_WANTED;
    shutdown_in_progress(pcx);
    EXPECT_EQ(pcx->loop, LOOP_DRAIN);
    steps_to_the_end();
    EXPECT_EQ(pcx->loop, LOOP_LEAVE);
}

TEST_F(shutdown, gives_up_a_child_that_takes_nothing) {
    start_thread();
    int mine = 0;
    int theirs = 0;
    ccm_error_t error;
    ASSERT_EQ(ccm_channel_create_pair(pcx->ccm, "*IPC(LISTENER)", "*IPC(AGENT)", &mine, &theirs, &error), 0);
    ASSERT_EQ(ccm_channel_hold(pcx->ccm, theirs), 0);  // nobody reads
    for (int at = 0; at < 100; ++at) {
        ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx->ccm, 30000, nullptr);
        ccm_setaddr(msg, mine, 0, "", "", 0);
        send_IPC_message(pcx->ccm, msg);
    }
    pcx->loop = LOOP_DRAIN;
    for (int at = 0; at < 10; ++at) {
        shutdown_in_progress(pcx);
    }
    EXPECT_EQ(pcx->loop, LOOP_DRAIN);
    alarm_clock_advance(drain_silence_limit + 2);
    // What it sends itself does not count: it must take something.
    ccm_msg_t* chatter = ccm_msg_alloc_cleared(pcx->ccm, 16, nullptr);
    ccm_setaddr(chatter, theirs, 0, "", "", 0);
    send_IPC_message(pcx->ccm, chatter);
    ASSERT_EQ(ccm_network_sync(pcx->ccm, 5000), 0);
    shutdown_in_progress(pcx);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, mine), 0);
    steps_to_the_end();
    EXPECT_EQ(pcx->loop, LOOP_LEAVE);
}

ccm_context_t* left_channels = nullptr;

void tell_about_thread() {
    fprintf(stderr, "%s", left_channels->thread_started.load() == 0 ? "thread has ended" : "thread runs on");
}

using shutdown_death_test = shutdown;

TEST_F(shutdown_death_test, the_last_resort_frees_nothing_that_the_network_thread_still_uses) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            start_thread();
            left_channels = pcx->ccm;
            channels.own.pcx.release();  // the call frees it
            atexit(tell_about_thread);
            ExitCall("ccm_wait_processor", "no reason", 5);
        },
        testing::ExitedWithCode(1), "thread has ended");
}

}  // namespace
