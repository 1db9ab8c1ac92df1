// How the agent watches its listener.
#include "agent/listener.h"

#include <signal.h>
#include <sys/wait.h>

#include "agent/ipc_dispatch.h"
#include "agent_fixture.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"

namespace {

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
        pcx->listener_start_counter =
            listener_start_limit;  // the next start would be one too many: no fork here
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
    ipcmsg_sigchld_t end = {};
    pcx->listener_alarm_time = alarm_now() + 25;
    for (const int counter : {1, 0}) {
        pcx->listener_pid = child;
        pcx->listener_start_counter = counter;
        ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_sigchld, sizeof end);
        memcpy(&end, ccm_msg_body(msg), sizeof end);
        end.pid = child;
        memcpy(ccm_msg_body(msg), &end, sizeof end);
        msg->origin = CCM_FROM_SELF;
        msg->type = CCM_MSG_IPC;
        process_IPC_message(pcx, pcx->ccm, msg, ipc_function_list);
        ccm_msg_free(pcx->ccm, msg);
        EXPECT_EQ(pcx->listener_pid, 0);
        if (counter != 0) {
            EXPECT_GT(pcx->listener_alarm_time, alarm_now()) << "one that never was ready keeps the pause";
        }
    }
    EXPECT_EQ(pcx->listener_alarm_time, listener_last_start());
}

}  // namespace
