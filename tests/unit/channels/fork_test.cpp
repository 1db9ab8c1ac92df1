#include "channels/fork.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "base/locks.h"
#include "base/sanitizer.h"
#include "fixture.h"

#if QX_THREAD_SANITIZER
#define FORK_TEST(name) TEST_F(ccm_test, DISABLED_##name)  // the tool has no threads in a forked child
#else
#define FORK_TEST(name) TEST_F(ccm_test, name)
#endif

FORK_TEST(a_child_keeps_its_own_channel_and_drops_the_rest) {
    open_security();
    start();
    int agent_end = 0;
    int child_end = 0;
    int server_id = 0;
    ccm_error_t error;
    ASSERT_EQ(ccm_channel_create_pair(ccm, "*IPC(LISTENER)", "*IPC(AGENT)", &agent_end, &child_end, &error),
              0);
    pcx.listener_channel_ID = agent_end;
    partner server = open_channel(CH_TYPE_SERVER, "*SERVER", &server_id);
    ccm_msg_t* waiting = nat_message(quitt_body());
    ASSERT_EQ(ccm_forward_NAT_message(ccm, waiting, 0, "*IPC(FTX,1)", &error, 0), 0);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    global_fork_lock(&pcx);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        global_fork_init_locks(&pcx);
        pcx.running_mode = MODE_LISTENER;
        ccm_child_keep_channels(ccm, &child_end, 1, 0);
        ccm_channel_image_t image;
        int kept = ccm_channel_copy(ccm, child_end, &image) == 0 ? image.s : -1;
        ccm_close_descriptors_except(&kept, 1);
        int bad = 0;
        bad |= ccm_get_nof_channels(ccm) == 1 ? 0 : 1;
        bad |= fcntl(kept, F_GETFD) >= 0 ? 0 : 2;
        for (int fd = 3; fd < 200; ++fd) {
            bad |= fd != kept && fcntl(fd, F_GETFD) >= 0 ? 4 : 0;
        }
        bad |= ccm_thread_start(ccm, &error) == 0 ? 0 : 8;
        ccm_msg_t* ok = ipc_record_alloc(ccm, ipc_listener_ok, 16);
        ccm_setaddr(ok, 0, 0, "*IPC(AGENT)", "", 0);
        bad |= send_IPC_message(ccm, ok) == 0 ? 0 : 16;
        ccm_msg_ptr msg = take_record(ipc_shutdown);
        bad |= msg != nullptr && ccm_policy_check(&pcx, ccm, msg.get()) == 1 ? 0 : 32;
        bad |= ccm_recvq_empty(ccm) ? 0 : 64;
        _exit(bad);
    }
    global_fork_unlock(&pcx);
    ASSERT_EQ(ccm_channel_silencebyID(ccm, child_end), 0);
    ccm_msg_ptr msg = take_record(ipc_listener_ok);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(ccm_policy_check(&pcx, ccm, msg.get()), 1);
    ccm_msg_t* order = ipc_record_alloc(ccm, ipc_shutdown, 16);
    ccm_setaddr(order, 0, 0, "*IPC(LISTENER)", "", 0);
    ASSERT_EQ(send_IPC_message(ccm, order), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(close_event(agent_end).msgnr, 0);  // the child's end is the pair's end
    // The parent's connection went on: the child has neither closed nor shut it down.
    EXPECT_EQ(ccm_channel_existbyID(ccm, server_id), 1);
    unsigned char card[72] = {};
    ccm_msg_t* out = ccm_msg_alloc(ccm, nullptr);
    ccm_msg_write_native_data(out, 4, card, sizeof card);
    ccm_setaddr(out, server_id, 0, "", "", 0);
    ASSERT_EQ(send_native_message(ccm, out), 0);
    EXPECT_EQ(server.frame(), frame_make_item(4, card, sizeof card));
    free(waiting);
}

FORK_TEST(a_child_goes_on_with_bytes_that_were_read_before_the_fork) {
    start();
    int id = 0;
    partner far = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &id);
    bytes xml = text_bytes("<?xml first?>");
    bytes frame = frame_make_message(xml.data(), xml.size(), {});
    far.send(bytes(frame.begin(), frame.begin() + 60));
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    ASSERT_EQ(ccm_channel_hold(ccm, id), 0);
    global_fork_lock(&pcx);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        global_fork_init_locks(&pcx);
        pcx.running_mode = MODE_FTX;
        ccm_child_keep_channels(ccm, &id, 1, id);
        ccm_error_t error;
        int bad = ccm_thread_start(ccm, &error) == 0 ? 0 : 1;
        ccm_msg_ptr msg = take();
        bad |= msg != nullptr && bytes(msg->msg_start, msg->msg_start + msg->len) == xml ? 0 : 2;
        _exit(bad);
    }
    global_fork_unlock(&pcx);
    ccm_channel_silencebyID(ccm, id);
    far.send(bytes(frame.begin() + 60, frame.end()));
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

FORK_TEST(forks_beside_a_busy_network_thread_find_all_locks_free) {
    start();
    int id = 0;
    partner far = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &id);
    bytes xml = text_bytes("<?xml?>");
    bytes frame = frame_make_message(xml.data(), xml.size(), {});
    for (int i = 0; i < 30; ++i) {
        for (int j = 0; j < 20; ++j) {
            far.send(frame);
        }
        global_fork_lock(&pcx);
        pid_t child = fork();
        if (child == 0) {
            alarm(10);  // a lock that nobody holds any more would hang here
            global_fork_init_locks(&pcx);
            ccm_child_keep_channels(ccm, &id, 1, 0);
            ccm_msg_t* msg = ccm_msg_alloc(ccm, nullptr);
            ccm_setaddr(msg, id, 0, "", "", 0);
            int bad = send_IPC_internal(ccm, msg) | (ccm_channel_existbyID(ccm, id) == 1 ? 0 : 1);
            _exit(bad);
        }
        global_fork_unlock(&pcx);
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
        for (int j = 0; j < 20; ++j) {
            ASSERT_NE(take(), nullptr);
        }
    }
}
