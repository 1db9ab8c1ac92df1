#include <malloc.h>

#include <cstring>

#include "base/locks.h"
#include "channels/replies.h"
#include "fixture.h"
#include "messages/head.h"
#include "messages/records_server.h"

namespace {

bytes queued_frame(ccm_context_t* ccm) {
    ccm_msg_t* msg = ccm->sendq.first;
    return msg == nullptr ? bytes{} : bytes(msg->msg_start, msg->msg_start + msg->len);
}

std::string as_text(const bytes& data, size_t from, size_t length) {
    return from + length > data.size() ? ""
                                       : std::string(data.begin() + static_cast<long>(from),
                                                     data.begin() + static_cast<long>(from + length));
}

}  // namespace

TEST_F(ccm_test, the_pool_keeps_64_standard_messages_and_no_other) {
    std::vector<ccm_msg_t*> messages;
    for (int i = 0; i < 66; ++i) {
        messages.push_back(ccm_msg_alloc(ccm, nullptr));
    }
    ccm_msg_t* huge = ccm_msg_alloc_huge(ccm, ccm_msg_standard_size + 1, nullptr);
    ASSERT_NE(huge, nullptr);
    EXPECT_EQ(huge->size, ccm_msg_standard_size + 1);
    free(huge);
    EXPECT_EQ(ccm->nof_freemsg, 0);
    for (ccm_msg_t* msg : messages) {
        free(msg);
    }
    EXPECT_EQ(ccm->nof_freemsg, 64);
    EXPECT_EQ(ccm->msgq_inuse, nullptr);
    ccm_msg_t* again = ccm_msg_alloc(ccm, nullptr);
    EXPECT_EQ(ccm->nof_freemsg, 63);
    EXPECT_EQ(again->len, 0);
    EXPECT_EQ(ccm->msgq_inuse, again);
    free(again);
    ccm_error_t error;
    EXPECT_EQ(ccm_msg_alloc_huge(ccm, -1, &error), nullptr);
    EXPECT_EQ(error.qx_msgnr, 3301);
    EXPECT_EQ(ccm_msg_alloc_huge(ccm, 100000000, &error), nullptr);
}

TEST_F(ccm_test, a_message_holds_its_size_and_the_prefixes_and_the_seal_beside_it) {
    for (int size : {0, 1, 32768, 32769, 200000}) {
        ccm_msg_t* msg = ccm_msg_alloc_huge(ccm, size, nullptr);
        ASSERT_NE(msg, nullptr);
        size_t capacity = static_cast<size_t>(256 + size + 512);
        EXPECT_EQ(static_cast<size_t>(msg->buffer2 - msg->buffer1), capacity);
        EXPECT_EQ(msg->msg_start, msg->buffer1 + 256);
        memset(msg->buffer1, 0xAA, 2 * capacity);  // a sanitizer judges the allocation
        free(msg);
    }
    // One that waits in a queue, too, though it takes no more than it needs.
    ccm_msg_t* msg = ccm_msg_fit(ccm, nat_message(quitt_body("short")));
    ASSERT_EQ(msg->size, 304);
    ASSERT_EQ(ccm_msg_second_buffer(msg), 0);
    EXPECT_EQ(msg->msg_start, msg->buffer1 + 256);
    EXPECT_EQ(bytes(msg->msg_start, msg->msg_start + msg->len), quitt_body("short"));
    for (unsigned char* buffer : {msg->buffer1, msg->buffer2}) {
        memset(buffer, 0xAA, 256 + 304 + 512);
    }
    free(msg);
}

// 64 KB for each of 10,000 ended jobs would be 690 MB.
TEST_F(ccm_test, what_waits_in_a_queue_takes_the_room_of_what_it_carries) {
    const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    constexpr int count = 1000;
    for (int i = 0; i < count; ++i) {
        ccm_msg_t* msg = nat_message(quitt_body());
        ccm_setaddr(msg, 0, 0, "PARTNER", "", 0);
        ASSERT_EQ(send_NAT_message(ccm, msg), 0);
        ASSERT_EQ(send_IPC_internal_name(ccm, ipc_jobchk), 0);
    }
    EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd - before, count * 4096U);
    ccm_msg_emptying_queues(ccm);
    ccm_msg_pool_trim(ccm, 2);
    EXPECT_LE(ccm->nof_freemsg, 2);
    EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + 4 * 65536U) << "given back";
}

TEST_F(ccm_test, an_application_message_is_framed_as_the_protocol_says) {
    struct {
        const char* dst_addr;
        const char* dst_name;
        int dst_acv;
        const char* src_name;
        std::string items;  // between header and body
        size_t behind;      // bytes of the source group
    } cases[] = {
        {"*SERVER", "", 0, "", "", 0},
        {"*SERVER", "QXVAREXR", 0, "", std::string("\x01\x08QXVAREXR", 10), 0},
        {"*CP001", "SERVER", 7, "", std::string("\x02\x04\x07\0\0\0\x01\x08SERVER  \x03\x06*CP001", 24), 0},
        {"*SERVER", "", 0, "QXEXVAR", "", 3 + 10},
    };
    bytes body = quitt_body("hello");
    pcx.pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.items);
        ccm_msg_t* msg = nat_message(body);
        ccm_setaddr(msg, 0, 0, test.dst_addr, test.dst_name, test.dst_acv);
        ccm_setback(msg, "", test.src_name, 0);
        ASSERT_EQ(send_NAT_message(ccm, msg), 0);
        bytes frame = queued_frame(ccm);
        size_t total = 48 + test.items.size() + 5 + body.size() + test.behind;
        ASSERT_EQ(frame.size(), total);
        char head[49];
        snprintf(head, sizeof head, "%.8dQX7:global001NAT%24s", static_cast<int>(total), "");
        EXPECT_EQ(as_text(frame, 0, 48), head);
        EXPECT_EQ(as_text(frame, 48, test.items.size()), test.items);
        size_t at = 48 + test.items.size();
        EXPECT_EQ(frame[at], 255);
        EXPECT_EQ(frame[at + 1] + 256 * frame[at + 2], 304);
        EXPECT_EQ(0, memcmp(frame.data() + at + 5, body.data(), body.size()));
        ccm_msg_emptying_queues(ccm);
    }
}

TEST_F(ccm_test, what_cannot_be_sent_is_freed) {
    bytes unknown = text_bytes("NOSUCHMS01xxyyyyand some more");
    pcx.pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    ccm_msg_t* msg = nat_message(unknown);
    ccm_setaddr(msg, 0, 0, "*SERVER", "", 0);
    EXPECT_EQ(send_NAT_message(ccm, msg), -1);
    EXPECT_EQ(logged(1002413), 1);
    // For the server nothing leaves before its connection is reported, so that the logon is the first.
    pcx.pcx_flag = 0;
    msg = nat_message(quitt_body());
    ccm_setaddr(msg, 0, 0, "*SERVER", "", 0);
    EXPECT_EQ(send_NAT_message(ccm, msg), -1);
    // A length that lies is the caller's fault, not a write behind the buffer.
    msg = nat_message(quitt_body());
    msg->len = msg->size + 1;
    EXPECT_EQ(send_IPC_message(ccm, msg), -1);
    EXPECT_EQ(ccm->sendq.first, nullptr);
    EXPECT_EQ(ccm->msgq_inuse, nullptr);
}

TEST_F(ccm_test, a_child_sends_what_is_meant_for_the_server_through_the_agent) {
    int id = 0;
    partner far = open_channel(CH_TYPE_IPC, "*IPC(AGENT)", &id);
    be(MODE_FTX);
    struct {
        int dst_ID;
        const char* dst_addr;
        bool routed;
    } cases[] = {
        {0, "*SERVER", true}, {0, "*CP002", true}, {id, "", true}, {id + 1, "", false}, {0, "OTHER", false}};
    for (const auto& test : cases) {
        SCOPED_TRACE(test.dst_addr);
        ccm_msg_t* msg = nat_message(quitt_body("x"));
        ccm_setaddr(msg, test.dst_ID, 0, test.dst_addr, "JPEXEC_R", 5);
        msg->addr.src_ID = 99;
        ASSERT_EQ(send_NAT_message(ccm, msg), 0);
        ccm_msg_t* queued = ccm->sendq.first;
        EXPECT_EQ(queued->type, test.routed ? CCM_MSG_IPC : CCM_MSG_NAT);
        if (test.routed) {
            ipcmsg_routenat_t record;
            memcpy(&record, queued->msg_start + 48, sizeof record);
            EXPECT_STREQ(record.header.msgtype, "ROUTENAT");
            EXPECT_STREQ(record.addr.dst_addr, "*SERVER");
            EXPECT_STREQ(record.addr.dst_name, "JPEXEC_R");
            EXPECT_EQ(record.addr.dst_ID, 0);
            EXPECT_EQ(record.addr.src_ID, 0);
            EXPECT_EQ(record.len, 304);
            EXPECT_EQ(queued->len, 48 + 308 + 304);
        }
        ccm_msg_emptying_queues(ccm);
    }
}

TEST_F(ccm_test, replies_go_back_to_who_asked) {
    ccm_msg_t* request = nat_message(quitt_body());
    memcpy(request->msg_start, "EXAKTJ  ", 8);
    request->addr.src_ID = 77;
    request->addr.src_acv = 5;
    strcpy(request->addr.src_name, "JPEXEC_R");
    std::string data(40000, 'd');
    std::string insert(300, 'i');
    ASSERT_EQ(send_quitt_reply(&pcx, request, 2001007, insert.c_str(), "OKAY", data.data(), 40000), 0);
    bytes frame = queued_frame(ccm);
    size_t at = 48 + 6 + 10 + 5;
    ASSERT_EQ(frame.size(), at + 304 + 40000);
    EXPECT_EQ(as_text(frame, at, 12), "QUITT   01\x01" + std::string(1, '\0'));
    EXPECT_EQ(as_text(frame, at + 16, 4), "OK  ");
    EXPECT_EQ(as_text(frame, at + 20, 8), "EXAKTJ  ");
    EXPECT_EQ(as_text(frame, at + 28, 8), std::string(8, '\0'));
    EXPECT_EQ(as_text(frame, at + 40, 256), std::string(256, 'i'));
    EXPECT_EQ(frame[at + 296] + 256 * frame[at + 297], 304);
    EXPECT_EQ(as_text(frame, at + 304, 40000), data);
    EXPECT_EQ(ccm->sendq.first->addr.dst_ID, 77);
    ccm_msg_emptying_queues(ccm);

    // The answer of an unknown module is an item with nothing in it.
    ccm_msg_t* shorter = nat_message(text_bytes("ABC"));
    shorter->addr.src_ID = 77;
    ASSERT_EQ(send_quitt(shorter, 7, ""), 0);
    frame = queued_frame(ccm);
    EXPECT_EQ(frame, frame_make_message("", 0, {}));
    ccm_msg_emptying_queues(ccm);

    pcx.pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    ASSERT_EQ(send_quitt_extended(&pcx, 0, "QXVAREXR", "QXFTEX", 9, "CONNECT ", 3, 4, 2000061, "a|b|", "NK",
                                  nullptr, 0),
              0);
    frame = queued_frame(ccm);
    EXPECT_EQ(as_text(frame, at + 16, 2), "NK");
    EXPECT_EQ(as_text(frame, at + 20, 8), "CONNECT ");
    EXPECT_EQ(frame[at + 10], 3);
    EXPECT_EQ(frame[at + 12], 4);
}

TEST_F(ccm_test, lookups_hold_the_lock_only_on_success_and_skip_what_is_deleted) {
    int id = 0;
    partner far = open_channel(CH_TYPE_AGENT, "PARTNER", &id);
    ccm_channel_t* channel = ccm_channel_getbyName(ccm, "PARTNER");
    ASSERT_NE(channel, nullptr);
    EXPECT_TRUE(ccm_holds_spin_lock());
    ccm_channel_unlock(ccm);
    EXPECT_EQ(ccm_get_nof_agent_connections(ccm), 1);
    EXPECT_EQ(ccm_channel_deletebyName(ccm, "PARTNER"), 0);
    EXPECT_EQ(ccm_channel_getbyName(ccm, "PARTNER"), nullptr);
    EXPECT_EQ(ccm_channel_getbyID(ccm, id), nullptr);
    EXPECT_FALSE(ccm_holds_spin_lock());
    EXPECT_EQ(ccm_get_nof_channels(ccm), 0);
    // A name that only a socket pair may bear isn't found on another channel.
    partner liar = open_channel(CH_TYPE_AGENT, "*IPC(AGENT)", &id);
    EXPECT_EQ(ccm_channel_existbyName(ccm, "*IPC(AGENT)"), 0);
    EXPECT_EQ(ccm_channel_existbyID(ccm, id), 1);
    EXPECT_EQ(ccm_channel_existbyName(ccm, ""), 0);
}

TEST_F(ccm_test, names_from_the_wire) {
    const std::string long_name(33, 'N');
    for (const char* bad : {"", "*SERVER", "*", "a b", "a\nb", "caf\xc3\xa9", long_name.c_str()}) {
        EXPECT_FALSE(ccm_name_acceptable(bad, strlen(bad))) << bad;
    }
    EXPECT_TRUE(ccm_name_acceptable("CP#001", 6));
}

using ccm_death_test = ccm_test;
TEST_F(ccm_death_test, waiting_calls_under_a_spin_lock_are_found) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            ccm_channel_lock(ccm);
            ccm_msg_alloc(ccm, nullptr);
        },
        "spin lock");
}
