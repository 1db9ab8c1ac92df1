#include "agent/timers.h"

#include "agent_fixture.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"

namespace {

int callback(void*, const char*, const char*) {
    return 0;
}

struct timers : ::testing::Test {
    channel_context channels;
    __qx_timer_context* ctx = nullptr;
    const time_t start = alarm_now();

    timers() { EXPECT_EQ(timer_open(&ctx, channels.pcx->ccm, nullptr), 0); }
    ~timers() override {
        if (ctx != nullptr) {
            timer_close(&ctx);
        }
    }
    // Names of the timers that fired at this second, in order.
    std::string fired_at(time_t second) {
        timer_check_at(ctx, start + second);
        std::string names;
        while (!ccm_recvq_empty(channels.pcx->ccm)) {
            ccm_msg_t* msg = nullptr;
            ccm_error_t error;
            EXPECT_EQ(ccm_receive_message(channels.pcx->ccm, 0, &msg, &error), 1);
            ipcmsg_timer_fire_t record;
            memcpy(&record, msg->msg_start, sizeof record);
            EXPECT_EQ(record.cb_function, callback);
            names += record.name;
            ccm_msg_free(channels.pcx->ccm, msg);
        }
        return names;
    }
};

TEST_F(timers, keep_their_rhythm_when_checked_late) {
    timer_add(ctx, "a", "", start + 60, 60, callback, nullptr);
    EXPECT_EQ(fired_at(59), "");
    EXPECT_EQ(fired_at(75), "a");
    EXPECT_EQ(fired_at(75), "") << "once a second";
    EXPECT_EQ(fired_at(119), "");
    EXPECT_EQ(fired_at(120), "a");
}

TEST_F(timers, fire_once_after_a_long_pause) {
    timer_add(ctx, "a", "", start + 60, 60, callback, nullptr);
    EXPECT_EQ(fired_at(600), "a");
    EXPECT_EQ(fired_at(601), "");
    EXPECT_EQ(fired_at(659), "");
    EXPECT_EQ(fired_at(660), "a");
}

TEST_F(timers, without_recurrence_fire_once) {
    timer_add(ctx, "a", "", start + 5, 0, callback, nullptr);
    EXPECT_EQ(fired_at(5), "a");
    EXPECT_EQ(fired_at(100), "");
    EXPECT_EQ(timer_remove(ctx, "a", ""), -1);
}

TEST_F(timers, are_known_by_name_and_minor) {
    timer_add(ctx, "a", "1", start + 10, 0, callback, nullptr);
    timer_add(ctx, "b", "1", start + 10, 0, callback, nullptr);
    timer_add(ctx, "a", "2", start + 50, 0, callback, nullptr);
    timer_add(ctx, "a", "1", start + 20, 0, callback, nullptr);  // updated, keeps its place
    EXPECT_EQ(fired_at(10), "b");
    EXPECT_EQ(timer_reset(ctx, "c", "", 0, 1), 0) << "unknown timers are ignored";
    EXPECT_EQ(timer_reset(ctx, "a", "*", start + 30, 0), 0) << "the first one";
    EXPECT_EQ(fired_at(20), "");
    EXPECT_EQ(fired_at(30), "a");
    EXPECT_EQ(timer_remove(ctx, "a", "*"), 0);
    EXPECT_EQ(fired_at(50), "");
}

TEST_F(timers, a_first_time_of_0_is_a_period_from_now) {
    timer_add(ctx, "a", "", 0, 60, callback, nullptr);
    EXPECT_EQ(fired_at(59), "");
    EXPECT_EQ(fired_at(61), "a");
    timer_clearall(ctx);
    EXPECT_EQ(fired_at(600), "");
}

}  // namespace
