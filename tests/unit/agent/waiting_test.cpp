// How long the loop waits, and that what is due is done then.
#include "agent/waiting.h"

#include "agent/maintenance.h"
#include "agent/timers.h"
#include "agent_fixture.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "jobs/job_table.h"

namespace {

// An idle agent that is logged on, with its listener.
struct waiting : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;

    waiting() {
        EXPECT_EQ(timer_open(&pcx->timer_ctx, pcx->ccm, nullptr), 0);
        pcx->pcx_flag = PCX_FLAG_LISTENER_READY | PCX_FLAG_SERVER_CHANNEL | PCX_FLAG_LOGGED_IN;
        pcx->Per_KeepAlive = 600;
        pcx->listener_pid = 1;
        pcx->timer_global = alarm_now() + 3;
        pcx->Log_alarm_time = alarm_now() + 4;
        ccm_channel_t* channel = nullptr;
        EXPECT_EQ(ccm_channel_new_entry(pcx->ccm, &channel, nullptr), 0);
        channel->type = CH_TYPE_SERVER;
        channel->timestamp_last_read = alarm_now();
        copy_text(channel->name, ccm_name_server);
        ccm_channel_chain(pcx->ccm, channel);
    }
    ~waiting() override {
        timer_close(&pcx->timer_ctx);
        Reset_JTab();
    }
};

TEST_F(waiting, ends_with_the_next_thing_that_is_due) {
    const struct {
        const char* what;
        void (*change)(EX_PCX* pcx);
        int seconds;
    } cases[] = {
        {"nothing is due", [](EX_PCX*) {}, 60},
        {"a job is looked at by the checks", [](EX_PCX*) { Create_JEntry(1, 0); }, 3},
        {"its end is acknowledged", [](EX_PCX*) { Erase_JEntry(1, 0); }, 60},
        {"a line waits for the server", [](EX_PCX* pcx) { pcx->LogBuffRecNr = 1; }, 4},
        {"but the log changes", [](EX_PCX* pcx) { pcx->waitForChglogQu = 1; }, 60},
        {"a timer", [](EX_PCX* pcx) { timer_add(pcx->timer_ctx, "a", "", 0, 45, nullptr, nullptr); }, 45},
        {"the server falls silent", [](EX_PCX* pcx) { pcx->Per_KeepAlive = 40; }, 40},
        {"a connection has a limit",
         [](EX_PCX* pcx) {
             ccm_channel_t* channel = nullptr;
             EXPECT_EQ(ccm_channel_new_entry(pcx->ccm, &channel, nullptr), 0);
             channel->connect_timeout = alarm_now() + 35;
             channel->flag.fetch_or(CH_FLAG_CONNECTING);
             ccm_channel_chain(pcx->ccm, channel);
         },
         35},
        {"a command has a limit", [](EX_PCX* pcx) { pcx->Cmd_alarm_time = alarm_now() + 30; }, 30},
        {"the listener is started",
         [](EX_PCX* pcx) {
             pcx->listener_pid = 0;
             pcx->listener_alarm_time = alarm_now() + 25;
         },
         25},
        {"the server is searched",
         [](EX_PCX* pcx) {
             pcx->pcx_flag = PCX_FLAG_LISTENER_READY;
             pcx->Srv_alarm_time = alarm_now() + 20;
         },
         20},
        {"a child ends itself", [](EX_PCX* pcx) { pcx->shutdown_timer = alarm_now() + 15; }, 15},
        {"the process ends", [](EX_PCX* pcx) { pcx->loop = LOOP_DRAIN; }, 5},
    };
    for (const auto& test : cases) {
        test.change(pcx);
        EXPECT_NEAR(static_cast<double>(loop_due(pcx) - alarm_now()), test.seconds, 1) << test.what;
    }
}

// A wait that ended exactly with an alarm would otherwise find nothing to do and wait once more.
TEST_F(waiting, what_is_reached_is_due) {
    pcx->pcx_flag = 0;
    pcx->listener_alarm_time = alarm_now() + 100000;  // no fork in a test
    alarm_clock_advance(0);
    pcx->timer_global = alarm_now();
    pcx->Cmd_alarm_time = alarm_now();
    maintenance_agent(pcx);
    EXPECT_GT(pcx->timer_global, alarm_now());
    EXPECT_EQ(pcx->Cmd_alarm_time, 0);
    std::string posted;
    while (!ccm_recvq_empty(pcx->ccm)) {
        ccm_msg_t* msg = nullptr;
        ccm_error_t error;
        ASSERT_EQ(ccm_receive_message(pcx->ccm, 0, &msg, &error), 1);
        posted += std::string(reinterpret_cast<const char*>(msg->msg_start)) + ";";
        ccm_msg_free(pcx->ccm, msg);
    }
    EXPECT_EQ(posted, "JOBCHK;FT_CHK;IOSCHK;CMD_CHK;");
}

}  // namespace
