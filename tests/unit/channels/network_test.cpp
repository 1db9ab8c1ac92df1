#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "base/time.h"
#include "fixture.h"

namespace {

bytes native_frame(const bytes& body) {
    return frame_make_message(body.data(), body.size(), {});
}

bytes meld_frame(std::string_view text = "") {
    std::string body = "MELD    01";
    body += std::string(6, '\0');
    body += text;
    return native_frame(text_bytes(body));
}

bytes ipc_frame(const void* record, size_t size) {
    bytes frame(frame_header_size + size);
    frame_set_header(frame.data(), protocol_ipc, static_cast<int64_t>(frame.size()));
    memcpy(frame.data() + frame_header_size, record, size);
    return frame;
}

}  // namespace

TEST_F(ccm_test, a_frame_is_delivered_once_however_its_bytes_are_split) {
    int id = 0;
    start();
    be(MODE_LISTENER);
    partner far = open_channel(CH_TYPE_ACCEPTED, "x", &id);
    bytes frame = meld_frame("the body");
    for (size_t cut : {size_t{1}, size_t{9}, size_t{10}, size_t{20}, size_t{47}, size_t{48}, size_t{49},
                       frame.size() - 1}) {
        SCOPED_TRACE(cut);
        far.send(bytes(frame.begin(), frame.begin() + static_cast<long>(cut)));
        ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
        EXPECT_TRUE(ccm_recvq_empty(ccm));
        far.send(bytes(frame.begin() + static_cast<long>(cut), frame.end()));
        ccm_msg_ptr msg = take();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->type, CCM_MSG_NAT);
        EXPECT_EQ(msg->len, 24);
        EXPECT_EQ(msg->addr.src_ID, id);
        EXPECT_EQ(msg->origin, CCM_FROM_STRANGER);
        EXPECT_EQ(0, memcmp(msg->msg_start + 16, "the body", 8));
    }
    bytes both = frame;
    both.insert(both.end(), frame.begin(), frame.end());
    both.insert(both.end(), frame.begin(), frame.begin() + 5);
    far.send(both);
    take();
    take();
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_TRUE(ccm_recvq_empty(ccm));
}

TEST_F(ccm_test, connection_items_arrive_with_their_data_alone) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "x", &id);
    bytes data = text_bytes(std::string(76, 's') + "host:2217;");
    far.send(frame_make_item(65, data.data(), data.size()));
    ccm_msg_ptr msg = take();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->type, CCM_MSG_NATIVE);
    EXPECT_EQ(msg->protocol_key, 65);
    EXPECT_EQ(bytes(msg->msg_start, msg->msg_start + msg->len), data);
    EXPECT_EQ(msg->origin, CCM_FROM_CANDIDATE);
}

// Every kind of lie about frames ends that connection, and only that one.
TEST_F(ccm_test, bad_frames_end_the_connection) {
    auto changed = [](bytes frame, size_t at, char value) {
        frame[at] = static_cast<unsigned char>(value);
        return frame;
    };
    bytes good = meld_frame("0123456789");
    bytes too_long = good;
    memcpy(too_long.data(), "00065537", 8);
    bytes long_gss(5000, 'x');
    frame_set_header(long_gss.data(), protocol_gss, 5000);
    bytes beyond = good;
    beyond[49] = 0xFF;  // the item is longer than the frame
    struct {
        const char* what;
        bytes data;
        int number;
    } cases[] = {
        {"letter in the length", changed(good, 3, 'x'), 1002203},
        {"too long before the seal", too_long, 1002210},
        {"records of the agent's own", changed(changed(changed(good, 21, 'I'), 22, 'P'), 23, 'C'), 1002203},
        {"item behind the frame", beyond, 1002205},
        {"unknown key", changed(good, 48, 100), 1002208},
        {"application message of a stranger", native_frame(quitt_body()), 1002207},
        {"long handshake frame", long_gss, 1002210},
    };
    start();
    be(MODE_LISTENER);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        int id = 0;
        int other_id = 0;
        partner far = open_channel(CH_TYPE_ACCEPTED, "x", &id);
        partner other = open_channel(CH_TYPE_ACCEPTED, "y", &other_id);
        far.send(test.data);
        EXPECT_TRUE(far.ended());
        ccm_channel_image_t image = close_event(id);
        EXPECT_EQ(image.msgnr, test.number) << image.msginsert;
        const std::string limit = test.data == long_gss ? "|4096|" : "|65536|";
        EXPECT_EQ(std::string(image.msginsert).ends_with(limit), test.number == 1002210)
            << "a fixed limit is named: " << image.msginsert;
        other.send(good);
        ccm_msg_ptr msg = take();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->addr.src_ID, other_id);
        other.close();
        EXPECT_EQ(close_event(other_id).msgnr, 0);  // an ordinary end needs no reason
    }
}

TEST_F(ccm_test, a_body_that_fails_conversion_leaves_the_connection) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &id);
    be(MODE_FTX);
    far.send(native_frame(text_bytes("NOSUCHMS01xxyyyyand some more")));
    far.send(native_frame(text_bytes("short")));
    bytes xml = text_bytes("<?xml version='1.0'?><x/>");
    far.send(native_frame(xml));
    ccm_msg_ptr msg = take();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->flag & CCM_MSG_FLAG_RAW, CCM_MSG_FLAG_RAW);
    EXPECT_EQ(bytes(msg->msg_start, msg->msg_start + msg->len), xml);
    EXPECT_EQ(logged(1002413), 1);
    EXPECT_EQ(logged(1002409), 1);
    EXPECT_EQ(ccm_channel_existbyID(ccm, id), 1);
}

TEST_F(ccm_test, a_channel_with_64_unhandled_messages_is_not_read) {
    int id = 0;
    start();
    be(MODE_LISTENER);
    partner far = open_channel(CH_TYPE_ACCEPTED, "x", &id);
    bytes frames;
    for (int i = 0; i < 200; ++i) {
        bytes one = meld_frame(std::to_string(i));
        frames.insert(frames.end(), one.begin(), one.end());
    }
    far.send(frames);
    auto waiting = [&] {
        int count = 0;
        for (ccm_msg_t* msg = ccm->recvq.first; msg != nullptr; msg = msg->nxt) {
            ++count;
        }
        return count;
    };
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    ccm_thread_end(ccm);
    EXPECT_EQ(waiting(), ccm_unhandled_limit);
    start();
    for (int i = 0; i < 200; ++i) {
        const ccm_msg_ptr msg = take();
        ASSERT_NE(msg, nullptr) << i;
        EXPECT_EQ(std::string(msg->msg_start + 16, msg->msg_start + msg->len), std::to_string(i));
    }
}

TEST_F(ccm_test, a_flood_behind_a_handshake_frame_waits_for_its_answer) {
    int id = 0;
    start();
    be(MODE_LISTENER);
    partner far = open_channel(CH_TYPE_ACCEPTED, "x", &id);
    bytes gss = meld_frame();
    memcpy(gss.data() + 21, "GSS", 3);
    far.send(gss);
    far.send(meld_frame("behind"));
    ccm_msg_ptr msg = take();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->type, CCM_MSG_GSS);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_TRUE(ccm_recvq_empty(ccm));
    msg.reset();
    msg = take();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->type, CCM_MSG_NAT);
}

TEST_F(ccm_test, a_large_message_goes_on_where_the_socket_stopped) {
    int id = 0;
    int agent_id = 0;
    start();
    partner far = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &id);
    const int size = 8 * 1024 * 1024;
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, size, nullptr);
    ASSERT_NE(msg, nullptr);
    memcpy(msg->msg_start, "LOGGING", 8);
    for (int i = 16; i < size; ++i) {
        msg->msg_start[i] = static_cast<unsigned char>(i * 2654435761U >> 24);
    }
    bytes expected(msg->msg_start, msg->msg_start + size);
    ccm_setaddr(msg, id, 0, "", "", 0);
    ASSERT_EQ(send_IPC_message(ccm, msg), 0);
    EXPECT_EQ(ccm_is_all_sendq_empty(ccm), 0);
    bytes frame = far.frame();
    ASSERT_EQ(frame.size(), static_cast<size_t>(size) + 48);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), frame.begin() + 48));
    EXPECT_TRUE(eventually([&] { return ccm_is_all_sendq_empty(ccm) == 1; }));
    // And the same on the way in; between the agent's own processes no limit of the settings counts.
    partner back = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &agent_id);
    back.send(frame);
    ccm_msg_ptr received = take();
    ASSERT_NE(received, nullptr);
    ASSERT_EQ(received->len, size);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), received->msg_start));
}

// The rest of a frame behind its first piece must not wait for an acknowledgement, which the receiver delays
// by 40 ms: 30 such frames, each answered before the next one is sent, would take more than a second.
TEST_F(ccm_test, frames_of_several_pieces_come_without_delay) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_AGENT, "x", &id);
    const int64_t begin = alarm_now_ms();
    for (int i = 0; i < 30; ++i) {
        const int off = 0;  // the receiver is to delay its acknowledgements from the first frame on
        ASSERT_EQ(setsockopt(far.fd, IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off), 0);
        ccm_error_t error;
        const int size = ccm_write_piece + 200 * i;  // beside the head: the second piece is always short
        ccm_msg_t* msg = ccm_msg_alloc_huge(ccm, size + static_cast<int>(frame_header_size), &error);
        ASSERT_NE(msg, nullptr);
        msg->len = size;
        memset(msg->msg_start, 'x', static_cast<size_t>(size));
        ccm_setaddr(msg, id, 0, "", "", 0);
        send_GSS_message(ccm, msg, "Q1");
        ASSERT_EQ(far.frame().size(), static_cast<size_t>(size) + frame_header_size);
        bytes answer = meld_frame();
        memcpy(answer.data() + 21, "GSS", 3);
        far.send(answer);
        take();
    }
    EXPECT_LT(alarm_now_ms() - begin, 600);
}

TEST_F(ccm_test, messages_for_a_channel_to_come_wait_in_order) {
    int id = 0;
    start();
    for (int i = 0; i < ccm_msg_kept_max + 5; ++i) {
        ccm_msg_t* request = nat_message(quitt_body(std::to_string(i)));
        ASSERT_EQ(ccm_forward_NAT_message(ccm, request, 0, "*IPC(FTX,7)", nullptr, 0), 0);
        free(request);
    }
    ccm_msg_t* lost = nat_message(quitt_body("lost"));
    ccm_setaddr(lost, 4711, 0, "", "", 0);
    ASSERT_EQ(send_NAT_message(ccm, lost), 0);
    EXPECT_TRUE(eventually([&] { return ccm_is_all_sendq_empty(ccm) == 1; }));  // kept ones hold up nothing
    partner far = open_channel(CH_TYPE_IPC, "*IPC(FTX,7)", &id);
    ccm_msg_t* request = nat_message(quitt_body("last"));
    ccm_error_t error;
    ASSERT_EQ(ccm_forward_NAT_message(ccm, request, 0, "*IPC(FTX,7)", &error, 1), 0);
    EXPECT_EQ(ccm_forward_NAT_message(ccm, request, 0, "*IPC(FTX,8)", &error, 1), -1);
    EXPECT_NE(error.qx_msgnr, 0);
    free(request);
    for (int i = 5; i < ccm_msg_kept_max + 5; ++i) {
        bytes frame = far.frame();
        ASSERT_GT(frame.size(), 100U);
        std::string insert(reinterpret_cast<char*>(frame.data()) + 48 + 5 + 40, 8);
        ASSERT_EQ(insert.substr(0, insert.find(' ')), std::to_string(i));
    }
    bytes frame = far.frame();
    EXPECT_EQ(0, memcmp(frame.data() + 48 + 5 + 40, "last", 4));
}

TEST_F(ccm_test, only_the_sealed_server_channel_gets_what_is_meant_for_the_server) {
    int id = 0;
    start();
    pcx.pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    partner far = open_channel(CH_TYPE_CP_CANDIDATE, "*SERVER", &id);
    ccm_msg_t* msg = nat_message(quitt_body("early"));
    ccm_setaddr(msg, 0, 0, "*SERVER", "", 0);
    ASSERT_EQ(send_NAT_message(ccm, msg), 0);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    unsigned char card[72] = {};
    msg = nat_message({});
    ccm_msg_write_native_data(msg, 4, card, sizeof card);
    ccm_setaddr(msg, 0, 0, "*SERVER", "", 0);
    ASSERT_EQ(send_native_message(ccm, msg), 0);
    bytes frame = far.frame();
    EXPECT_EQ(frame, frame_make_item(4, card, sizeof card));  // the card came, and nothing before it
}

TEST_F(ccm_test, a_closed_channel_takes_its_messages_along_and_tells_once) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_AGENT, "PARTNER", &id);
    {
        ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
        ASSERT_NE(channel, nullptr);
        ccm_channel_unlock(ccm);
    }
    for (int i = 0; i < 40; ++i) {
        ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, 500000, nullptr);
        memcpy(msg->msg_start, "<xml", 4);
        msg->flag |= CCM_MSG_FLAG_RAW;
        ccm_setaddr(msg, id, 0, "", "", 0);
        ASSERT_EQ(send_NAT_message(ccm, msg), 0);
    }
    EXPECT_EQ(ccm_channel_failbyID(ccm, id, 2000064, "%s|%d|", "host", 3), 0);
    EXPECT_EQ(ccm_channel_failbyID(ccm, id, 2000065, "second|"), -1);
    ccm_channel_image_t image = close_event(id);
    EXPECT_EQ(image.type, CH_TYPE_AGENT);
    EXPECT_EQ(image.msgnr, 2000064);
    EXPECT_STREQ(image.msginsert, "host|3|");
    EXPECT_EQ(image.nxt, 0U);
    EXPECT_EQ(logged(2000064), 1);
    EXPECT_EQ(logged(2000007), 1);
    EXPECT_TRUE(eventually([&] { return ccm_is_all_sendq_empty(ccm) == 1; }));
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_TRUE(ccm_recvq_empty(ccm));
    EXPECT_TRUE(far.ended());
}

TEST_F(ccm_test, silenced_channels_and_placeholders_post_no_close) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_AGENT, "PARTNER", &id);
    EXPECT_EQ(ccm_channel_silencebyID(ccm, id), 0);
    EXPECT_TRUE(far.ended());
    ccm_channel_t* channel = nullptr;
    ASSERT_EQ(ccm_channel_new_entry(ccm, &channel, nullptr), 0);
    channel->type = CH_TYPE_PLACEHOLDER;
    channel->connect_timeout = alarm_now();
    channel->connect_timeout_secs = 7;
    strcpy(channel->host, "listener ID=3");
    channel->flag.fetch_or(CH_FLAG_CONNECTING);
    id = channel->ID;
    ccm_channel_chain(ccm, channel);
    EXPECT_EQ(ccm_channel_check_timeouts(ccm, alarm_now() - 1), 0);
    EXPECT_EQ(ccm_channel_check_timeouts(ccm, alarm_now()), 1);
    EXPECT_TRUE(eventually([&] { return logged(2000064) == 1; }));
    EXPECT_EQ(log_text(2000064), "listener ID=3|7|");
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_TRUE(ccm_recvq_empty(ccm));
}

TEST_F(ccm_test, a_closing_channel_never_waits_for_its_partner) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_AGENT, "PARTNER", &id);
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    ASSERT_NE(channel, nullptr);
    int s = channel->s.load();
    ccm_channel_unlock(ccm);
    linger on{1, 60};
    ASSERT_EQ(setsockopt(s, SOL_SOCKET, SO_LINGER, &on, sizeof on), 0);
    for (int i = 0; i < 30; ++i) {
        ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, 400000, nullptr);
        memcpy(msg->msg_start, "<xml", 4);
        msg->flag |= CCM_MSG_FLAG_RAW;
        ccm_setaddr(msg, id, 0, "", "", 0);
        ASSERT_EQ(send_NAT_message(ccm, msg), 0);
    }
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    int64_t begin = alarm_now_ms();
    ccm_channel_deletebyID(ccm, id);
    close_event(id);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_LT(alarm_now_ms() - begin, 2000);
}

TEST_F(ccm_test, a_thread_with_nothing_to_do_sleeps) {
    start();
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    const unsigned long before = ccm->cycles.load();
    poll(nullptr, 0, 2500);
    EXPECT_LE(ccm->cycles.load() - before, 1U);
}

TEST_F(ccm_test, urgent_bytes_and_closed_descriptors_do_not_spin) {
    int id = 0;
    int bad_id = 0;
    start();
    be(MODE_LISTENER);
    partner far = open_channel(CH_TYPE_ACCEPTED, "x", &id);
    partner gone = open_channel(CH_TYPE_ACCEPTED, "y", &bad_id);
    EXPECT_EQ(send(far.fd, "!", 1, MSG_OOB), 1);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    unsigned long before = ccm->cycles.load();
    poll(nullptr, 0, 100);
    EXPECT_LE(ccm->cycles.load() - before, 3U);
    // A descriptor that somebody closed ends its channel and no other.
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, bad_id);
    ASSERT_NE(channel, nullptr);
    int s = channel->s.load();
    ccm_channel_unlock(ccm);
    ccm_thread_end(ccm);
    close(s);
    start();
    EXPECT_EQ(close_event(bad_id).msgnr, 2002036);
    EXPECT_EQ(ccm_channel_existbyID(ccm, id), 1);
}

TEST_F(ccm_test, wake_ups_neither_block_nor_pile_up) {
    start();
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(ccm_wakeup_processor(ccm), 0);
        ASSERT_EQ(ccm_wakeup_network(ccm), 0);
    }
    ccm_msg_t* msg = nullptr;
    ccm_error_t error;
    EXPECT_EQ(ccm_receive_message(ccm, 5, &msg, &error), 0);
    int64_t begin = alarm_now_ms();
    EXPECT_EQ(ccm_receive_message(ccm, 1, &msg, &error), 0);
    EXPECT_GE(alarm_now_ms() - begin, 900);
    errno = EPROTO;
    ccm_wakeup_processor(ccm);
    EXPECT_EQ(errno, EPROTO);
    // A stop that comes before the thread first ran counts.
    ccm_thread_end(ccm);
    start();
    ccm_thread_end(ccm);
}

// The thread is between its last write and its next wait when the next message is queued: it gets no byte
// then, and must look before it waits.
TEST_F(ccm_test, what_is_queued_while_the_thread_is_at_work_goes_out_as_well) {
    int id = 0;
    start();
    be(MODE_LISTENER);
    partner far = open_channel(CH_TYPE_IPC, ccm_name_ipc_agent, &id);
    const timeval limit{5, 0};
    ASSERT_EQ(setsockopt(far.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    for (int i = 0; i < 5000; ++i) {
        ccm_msg_t* msg = ipc_record_alloc(ccm, ipc_ping, sizeof(ipcmsg_ping_t));
        ccm_setaddr(msg, id, 0, "", "", 0);
        ASSERT_EQ(send_IPC_message(ccm, msg), 0);
        unsigned char frame[frame_header_size + sizeof(ipcmsg_ping_t)];
        ASSERT_EQ(recv(far.fd, frame, sizeof frame, MSG_WAITALL), static_cast<ssize_t>(sizeof frame)) << i;
    }
    // A stop in the same moment as well: it ends the thread here, or the test by its time limit.
    for (int i = 0; i < 500; ++i) {
        ccm_wakeup_network(ccm);
        ccm_thread_end(ccm);
        start();
    }
}

TEST_F(ccm_test, record_heads_with_any_size_are_judged_before_they_are_read) {
    int id = 0;
    start();
    partner far = open_channel(CH_TYPE_IPC, "*IPC(LISTENER)", &id);
    pcx.listener_channel_ID = id;
    char tiny[3] = {'P', 'I', 'N'};
    far.send(ipc_frame(tiny, sizeof tiny));
    ccm_msg_ptr msg = take();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(ccm_policy_check(&pcx, ccm, msg.get()), 0);
    EXPECT_TRUE(far.ended());
}
