#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include "base/descriptor.h"
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

TEST(meld_peer, only_this_host_is_heard) {
    EXPECT_TRUE(meld_peer_is_local(v4("127.0.0.1", 1), v4("127.9.9.9", 2)));
    EXPECT_TRUE(meld_peer_is_local(v4("192.0.2.1", 1), v4("192.0.2.1", 2)));
    EXPECT_TRUE(meld_peer_is_local(v6("::ffff:192.0.2.1", 1), v6("::ffff:192.0.2.1", 2)));
    EXPECT_TRUE(meld_peer_is_local(v6("::1", 1), v6("::1", 2)));
    EXPECT_TRUE(meld_peer_is_local(v6("::", 1), v6("::ffff:127.0.0.1", 2)));
    EXPECT_FALSE(meld_peer_is_local(v4("192.0.2.1", 1), v4("192.0.2.2", 2)));
    EXPECT_FALSE(meld_peer_is_local(v6("::1", 1), v6("2001:db8::1", 2)));
    EXPECT_FALSE(meld_peer_is_local(v6("2001:db8::7f00:1", 1), v6("2001:db8::7f00:2", 2)));
    EXPECT_FALSE(meld_peer_is_local(sockaddr_storage{}, sockaddr_storage{}));
}

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

TEST_F(job_test, a_meld_is_acknowledged_at_once_whatever_it_says) {
    JP_AREA* job = bare_job(1);
    const auto pass_on = [&](message_bytes body, uid_t uid) {
        ipcmsg_natmeld_t record{};
        memcpy(record.header.msgtype, ipc_natmeld, sizeof record.header.msgtype);
        record.replyID = 12;
        record.len = static_cast<int32_t>(body.size() + sizeof uid);
        message_bytes bytes(sizeof record);
        memcpy(bytes.data(), &record, sizeof record);
        bytes.insert(bytes.end(), body.begin(), body.end());
        const auto* at = reinterpret_cast<const unsigned char*>(&uid);
        bytes.insert(bytes.end(), at, at + sizeof uid);
        return receive(process_ipc_exmeld, bytes.data(), bytes.size());
    };
    const auto acknowledged = [&] {
        for (const sent_message& message : sent()) {
            if (message.body.size() == 24 + 304 && memcmp(message.body.data(), "NATQUITT", 9) == 0) {
                EXPECT_EQ(message.addr.dst_ID, 4711);
                EXPECT_EQ(message.body[16], 12);
                EXPECT_EQ(memcmp(message.body.data() + 24, "QUITT   ", 8), 0);
                return memcmp(message.body.data() + 24 + 16, "OK", 2) == 0;
            }
        }
        return false;
    };
    EXPECT_EQ(pass_on(meld(2, 'R', 0), geteuid()), -1);
    EXPECT_TRUE(acknowledged());
    EXPECT_EQ(pass_on(meld(1, 'R', 0), meld_unknown_uid), 0);
    EXPECT_TRUE(acknowledged());
    EXPECT_EQ(job->JP_status, 'W');
    EXPECT_EQ(pass_on(meld(1, 'R', 0), geteuid()), 0);
    EXPECT_TRUE(acknowledged());
    EXPECT_EQ(job->JP_status, 'R');
    message_bytes old = meld(1, 'C', 0);
    old[9] = '2';
    EXPECT_EQ(pass_on(old, geteuid()), 0);
    EXPECT_FALSE(acknowledged()) << "another header version gets no answer";
    EXPECT_TRUE(logged(2000023));
    pcx->running_mode = MODE_LISTENER;
    EXPECT_EQ(pass_on(meld(1, 'C', 0), geteuid()), -1);
    pcx->running_mode = MODE_AGENT;
    EXPECT_EQ(receive(process_exmeld, old.data(), old.size()), -1) << "only the listener hears messengers";
}
