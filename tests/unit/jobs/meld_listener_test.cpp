#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include "base/descriptor.h"
#include "base/message_numbers.h"
#include "channels/ipc_records.h"
#include "job_fixture.h"

namespace {

// A connection over loopback; `server` is the accepted end.
struct loopback_pair {
    qx_descriptor client, server;
    sockaddr_storage own{}, peer{};

    explicit loopback_pair(int family) {
        const qx_descriptor listener(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET) {
            reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            size = sizeof(sockaddr_in);
        } else {
            reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr = in6addr_loopback;
            size = sizeof(sockaddr_in6);
        }
        if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            listen(listener.get(), 1) != 0) {
            return;
        }
        getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
        client.reset(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(client.get(), reinterpret_cast<sockaddr*>(&address), size) != 0) {
            return;
        }
        server.reset(accept(listener.get(), nullptr, nullptr));
        socklen_t own_size = sizeof own;
        socklen_t peer_size = sizeof peer;
        getsockname(server.get(), reinterpret_cast<sockaddr*>(&own), &own_size);
        getpeername(server.get(), reinterpret_cast<sockaddr*>(&peer), &peer_size);
    }
};

sockaddr_storage v4(const char* text, uint16_t port) {
    sockaddr_storage storage{};
    auto* address = reinterpret_cast<sockaddr_in*>(&storage);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    inet_pton(AF_INET, text, &address->sin_addr);
    return storage;
}

sockaddr_storage v6(const char* text, uint16_t port) {
    sockaddr_storage storage{};
    auto* address = reinterpret_cast<sockaddr_in6*>(&storage);
    address->sin6_family = AF_INET6;
    address->sin6_port = htons(port);
    inet_pton(AF_INET6, text, &address->sin6_addr);
    return storage;
}

}  // namespace

TEST(meld_peer, the_kernel_names_the_uid_at_the_other_end) {
    for (const int family : {AF_INET, AF_INET6}) {
        loopback_pair pair(family);
        if (!pair.server.valid()) {
            continue;  // no IPv6 here
        }
        EXPECT_EQ(meld_peer_uid(pair.own, pair.peer), geteuid());
        EXPECT_EQ(meld_peer_uid_from_tables("/proc/net", pair.own, pair.peer), geteuid());
        EXPECT_EQ(meld_peer_uid(v4("127.0.0.1", 1), v4("127.0.0.1", 2)), meld_unknown_uid);

        // The kernel shows a socket without an owner with uid 0: that must not pass for root.
        pair.client.reset();
        char byte = 0;
        EXPECT_EQ(read(pair.server.get(), &byte, 1), 0);
        EXPECT_EQ(meld_peer_uid(pair.own, pair.peer), meld_unknown_uid);
        EXPECT_EQ(meld_peer_uid_from_tables("/proc/net", pair.own, pair.peer), meld_unknown_uid);
    }
}

TEST(meld_peer, the_tables_are_read_by_all_four_numbers) {
    const own_folder folder;
    const std::string head =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
    write_text(
        folder / "tcp",
        head +
            "   0: 0100007F:1234 0100007F:08FC 06 00000000:00000000 00:00000000 00000000     0        0 0 3\n"
            "   1: 0100007F:1235 0100007F:08FC 01 00000000:00000000 00:00000000 00000000  1000        0 77 "
            "1\n"
            "   2: broken\n");
    write_text(folder / "tcp6",
               head +
                   "   0: 0000000000000000FFFF00000100007F:1236 0000000000000000FFFF00000100007F:08FC 01 "
                   "00000000:00000000 00:00000000 00000000  1001        0 78 1\n");
    const auto uid = [&](uint16_t port) {
        return meld_peer_uid_from_tables(folder.path.c_str(), v6("::ffff:127.0.0.1", 2300),
                                         v4("127.0.0.1", port));
    };
    EXPECT_EQ(uid(0x1235), 1000u);
    EXPECT_EQ(uid(0x1236), 1001u);
    EXPECT_EQ(uid(0x1234), meld_unknown_uid);
    EXPECT_EQ(uid(0x1237), meld_unknown_uid);
}

// The listener may have been taken over: which connection it names must not decide whose word counts.
TEST(meld_peer, a_named_connection_must_be_the_listeners_own) {
    for (const int family : {AF_INET, AF_INET6}) {
        const loopback_pair pair(family);
        if (!pair.server.valid()) {
            continue;  // no IPv6 here
        }
        const int port = ntohs(reinterpret_cast<const sockaddr_in&>(pair.own).sin_port);
        const uid_t me = geteuid();
        EXPECT_EQ(meld_sender_uid(pair.own, pair.peer, port, me), me);
        EXPECT_EQ(meld_sender_uid(pair.own, pair.peer, port + 1, me), meld_unknown_uid);
        EXPECT_EQ(meld_sender_uid(pair.own, pair.peer, port, me + 1), meld_unknown_uid)
            << "another's connection";
        EXPECT_EQ(meld_sender_uid(pair.peer, pair.own, port, me), meld_unknown_uid) << "the caller's end";
        sockaddr_storage elsewhere = pair.peer;
        reinterpret_cast<sockaddr_in&>(elsewhere).sin_port = htons(1);
        EXPECT_EQ(meld_sender_uid(pair.own, elsewhere, port, me), meld_unknown_uid);
        EXPECT_EQ(meld_sender_uid(sockaddr_storage{}, sockaddr_storage{}, 0, me), meld_unknown_uid);
    }
}

TEST_F(job_test, the_listener_names_the_connection_that_it_accepted) {
    const loopback_pair pair(AF_INET);
    const loopback_pair other(AF_INET);
    ccm_channel_t* channel = nullptr;
    ccm_error_t fault;
    ASSERT_EQ(ccm_channel_new_entry(pcx->ccm, &channel, &fault), 0);
    channel->type = CH_TYPE_ACCEPTED;
    channel->caller.own = pair.own;
    channel->caller.peer = pair.peer;
    channel->caller.own_host = true;
    channel->s = dup(other.server.get());  // the number may mean another connection by now
    const int id = channel->ID;
    ccm_channel_chain(pcx->ccm, channel);
    pcx->running_mode = MODE_LISTENER;
    const message_bytes body = meld(1, 'R', 0);
    ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx->ccm, static_cast<int>(body.size()), nullptr);
    memcpy(msg->msg_start, body.data(), body.size());
    msg->addr.src_ID = id;
    EXPECT_EQ(process_exmeld(pcx, msg, 0), 0);
    ccm_msg_free(pcx->ccm, msg);
    pcx->running_mode = MODE_AGENT;
    const std::vector<sent_message> messages = sent();
    ASSERT_EQ(messages.size(), 1u);
    ASSERT_EQ(messages[0].body.size(), sizeof(ipcmsg_natmeld_t) + body.size() + sizeof(meld_ends));
    meld_ends ends;
    memcpy(&ends, messages[0].body.data() + sizeof(ipcmsg_natmeld_t) + body.size(), sizeof ends);
    EXPECT_EQ(memcmp(&ends.own, &pair.own, sizeof ends.own), 0);
    EXPECT_EQ(memcmp(&ends.peer, &pair.peer, sizeof ends.peer), 0);
}

TEST_F(job_test, a_meld_is_answered_by_whether_it_was_taken) {
    JP_AREA* job = bare_job(1);
    const loopback_pair pair(AF_INET);
    pcx->listener_uid = geteuid();
    pcx->listener_port = ntohs(reinterpret_cast<const sockaddr_in&>(pair.own).sin_port);
    const auto pass_on = [&](const message_bytes& body) {
        const meld_ends ends{pair.own, pair.peer};
        ipcmsg_natmeld_t record{};
        memcpy(record.header.msgtype, ipc_natmeld, sizeof record.header.msgtype);
        record.replyID = 12;
        record.len = static_cast<int32_t>(body.size() + sizeof ends);
        message_bytes bytes(sizeof record);
        memcpy(bytes.data(), &record, sizeof record);
        bytes.insert(bytes.end(), body.begin(), body.end());
        const auto* at = reinterpret_cast<const unsigned char*>(&ends);
        bytes.insert(bytes.end(), at, at + sizeof ends);
        return receive(process_ipc_exmeld, built_message(bytes));
    };
    // Status and number of the answer; empty without one.
    const auto answer = [&]() -> std::string {
        for (const sent_message& message : sent()) {
            if (message.body.size() == 24 + 304 && memcmp(message.body.data(), "NATQUITT", 9) == 0) {
                EXPECT_EQ(message.addr.dst_ID, 4711);
                EXPECT_EQ(message.body[16], 12);
                MSG_TYPE_QUITT quitt;
                memcpy(&quitt, message.body.data() + 24, sizeof quitt);
                EXPECT_EQ(memcmp(&quitt, "QUITT   ", 8), 0);
                EXPECT_EQ(rstrip(std::string_view(quitt.msg_insert, sizeof quitt.msg_insert)), "");
                return std::string(quitt.quitt, 2) + " " + std::to_string(quitt.msgnr);
            }
        }
        return "";
    };
    const std::string refused = "NK " + std::to_string(number_meld_not_taken);
    EXPECT_EQ(pass_on(meld(2, 'R', 0)), -1);
    EXPECT_EQ(answer(), refused) << "an unknown job";
    pcx->listener_port += 1;
    EXPECT_EQ(pass_on(meld(1, 'R', 0)), -1);
    EXPECT_EQ(answer(), refused) << "a sender whose uid is not known gets the same answer";
    EXPECT_EQ(job->JP_status, 'W');
    pcx->listener_port -= 1;
    EXPECT_EQ(pass_on(meld(1, 'R', 0)), 0);
    EXPECT_EQ(answer(), "OK 0");
    EXPECT_EQ(job->JP_status, 'R');
    job->JP_flag |= job_flag_end_taken;
    EXPECT_EQ(pass_on(meld(1, 'R', 0)), -1);
    EXPECT_EQ(answer(), refused) << "its end was told already";
    message_bytes old = meld(1, 'C', 0);
    old[9] = '2';
    EXPECT_EQ(pass_on(old), 0);
    EXPECT_EQ(answer(), "") << "another header version gets no answer";
    EXPECT_TRUE(logged(2000023));
    pcx->running_mode = MODE_LISTENER;
    EXPECT_EQ(pass_on(meld(1, 'C', 0)), -1);
    pcx->running_mode = MODE_AGENT;
    EXPECT_EQ(receive(process_exmeld, built_message(old)), -1) << "only the listener hears messengers";
}
