#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "base/time.h"
#include "channels/internal.h"
#include "channels/line_budget.h"
#include "channels/resolver.h"
#include "fixture.h"
#include "loopback.h"

namespace {

int closed_port() {
    int port = 0;
    close(listen_on_loopback(&port));
    return port;
}

partner call(int port, int family = AF_INET) {
    if (family == AF_INET) {
        return partner(connect_to_loopback(port));
    }
    const int s = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(static_cast<uint16_t>(port));
    address.sin6_addr = in6addr_loopback;
    EXPECT_EQ(connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return partner(s);
}

}  // namespace

TEST_F(ccm_test, a_refused_connect_tells_once_and_keeps_its_context) {
    start();
    ccm_connect_user_context_t* cuc = ccm_user_context_new(3);
    memcpy(ccm_user_context_content(cuc), "tok", 3);
    strcpy(cuc->key, "FTX 7");
    ccm_error_t error;
    int id = ccm_connect(ccm, "127.0.0.1", closed_port(), CH_TYPE_AGENT, cuc, 10, &error);
    ASSERT_GT(id, 0) << error.qx_msgInsert;
    ccm_msg_ptr msg = take_record(ipc_channel_close);
    ASSERT_NE(msg, nullptr);
    ASSERT_EQ(msg->len, 2008);
    ipcmsg_channel_close_t record;
    memcpy(&record, msg->msg_start, sizeof record);
    EXPECT_EQ(record.ccmch.ID, id);
    EXPECT_EQ(record.ccmch.msgnr, 2002036);
    EXPECT_EQ(record.ccmch.cuc, 1U);
    EXPECT_STREQ(record.cuc.key, "FTX 7");
    EXPECT_EQ(record.cuc.pDelegCred, nullptr);
    ASSERT_EQ(ccm_network_sync(ccm, 5000), 0);
    EXPECT_TRUE(ccm_recvq_empty(ccm));
    EXPECT_EQ(ccm_channel_existbyID(ccm, id), 0);
}

TEST_F(ccm_test, a_connect_that_fails_at_once_leaves_the_context_to_the_caller) {
    start();
    ccm_connect_user_context_t* cuc = ccm_user_context_new(0);
    strcpy(cuc->key, "FTX 7");
    ccm_error_t error;
    // A broadcast address is refused by the call itself.
    EXPECT_EQ(ccm_connect(ccm, "255.255.255.255", 80, CH_TYPE_CP_CANDIDATE, cuc, 10, &error), -1);
    EXPECT_EQ(error.qx_msgnr, 2000102);
    EXPECT_EQ(std::string(error.qx_msgInsert).substr(0, 10), "connect()|");
    EXPECT_STREQ(cuc->key, "FTX 7");
    ccm_msg_ptr msg = take_record(ipc_channel_close);
    ASSERT_NE(msg, nullptr);
    ipcmsg_channel_close_t record;
    memcpy(&record, msg->msg_start, sizeof record);
    EXPECT_EQ(record.ccmch.type, CH_TYPE_CP_CANDIDATE);
    EXPECT_EQ(record.ccmch.cuc, 0U);
    EXPECT_EQ(record.cuc.key[0], '\0');
    ccm_user_context_free(cuc);
    int probe = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_GT(probe, 2);  // a channel without a socket closed no descriptor 0
    close(probe);
}

namespace {

// The name service of these tests: "slow.test" is answered once it may be, and so is the own host's name. Who
// waits for it where nobody shall goes on after ten seconds and is told.
std::atomic<bool> name_service_answers{true};
std::atomic<int> names_asked{0};

}  // namespace

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    using function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto real = reinterpret_cast<function>(dlsym(RTLD_NEXT, "getaddrinfo"));
    char own[256] = {};
    gethostname(own, sizeof own - 1);
    if (node == nullptr || (strcmp(node, "slow.test") != 0 && strcmp(node, own) != 0)) {
        return real(node, service, hints, result);
    }
    ++names_asked;
    for (int waited = 0; waited < 10000 && !name_service_answers; ++waited) {
        poll(nullptr, 0, 1);
    }
    return real("127.0.0.1", service, hints, result);
}

struct name_test : ccm_test {
    int asked = names_asked;
    ccm_error_t error;

    name_test() {
        name_service_answers = false;
        start();
    }
    ~name_test() override {
        name_service_answers = true;
        EXPECT_TRUE(eventually([] { return resolver_lookups() == 0; }));
    }
    int connect_slow(int port, int seconds = 10) {
        const int64_t begin = alarm_now_ms();
        const int id = ccm_connect(ccm, "slow.test", port, CH_TYPE_AGENT, nullptr, seconds, &error);
        EXPECT_GT(id, 0) << error.qx_msgInsert;
        EXPECT_LT(alarm_now_ms() - begin, 1000) << "the main thread waited for the name";
        EXPECT_TRUE(eventually([&] { return names_asked > asked; }));
        return id;
    }
};

TEST_F(name_test, a_slow_name_service_holds_nobody_up) {
    int port = 0;
    ASSERT_EQ(ccm_create_listen_port(ccm, "127.0.0.1", 0, 10, &port, &error), 0);
    const int id = connect_slow(port);
    ccm_channel_image_t image = image_of(id);
    EXPECT_EQ(image.s, -1);
    EXPECT_EQ(image.flag & CH_FLAG_CONNECTING, CH_FLAG_CONNECTING);
    name_service_answers = true;
    ccm_msg_ptr msg = take_record(ipc_channel_accept);
    EXPECT_NE(msg, nullptr);
    // The other end may be told of first.
    EXPECT_TRUE(eventually([&] { return ccm_channel_copy(ccm, id, &image) == 0 && image.s >= 0; }));
    EXPECT_STREQ(image.addr, "127.0.0.1");
    // A name without address ends as a refused connect does.
    const int lost = ccm_connect(ccm, "no such host.invalid", 80, CH_TYPE_AGENT, nullptr, 10, &error);
    ASSERT_GT(lost, 0);
    image = close_event(lost);
    EXPECT_EQ(image.msgnr, 2000102);
    EXPECT_EQ(std::string(image.msginsert).substr(0, 12), "getaddrinfo|");
}

TEST_F(name_test, the_time_limit_counts_for_the_name_too) {
    const int id = connect_slow(closed_port(), 10);
    EXPECT_EQ(ccm_channel_check_timeouts(ccm, alarm_now() + 11), 1);
    EXPECT_EQ(close_event(id).msgnr, 2000064);
    // An answer behind the channel's end touches nothing, and neither does one behind the channel manager's.
    name_service_answers = true;
    EXPECT_TRUE(eventually([] { return resolver_lookups() == 0; }));
    name_service_answers = false;
    connect_slow(closed_port());
    ccm_thread_end(ccm);
    ccm_channel_closeall(ccm);
}

TEST_F(name_test, names_that_are_looked_up_are_bounded) {
    std::vector<int> ids;
    for (int at = 0; at <= resolver_threads_max; ++at) {
        ids.push_back(connect_slow(closed_port()));
    }
    const ccm_channel_image_t image = close_event(ids.back());
    EXPECT_EQ(image.msgnr, 2000102);
    name_service_answers = true;
    EXPECT_TRUE(eventually([&] { return logged(2002036) == resolver_threads_max; }));
}

TEST_F(name_test, the_own_hosts_name_is_not_waited_for) {
    const int64_t begin = alarm_now_ms();
    EXPECT_TRUE(resolver_own_host().empty());
    EXPECT_LT(alarm_now_ms() - begin, 1000);
    name_service_answers = true;
    EXPECT_TRUE(eventually([] { return !resolver_own_host().empty(); }));
    EXPECT_EQ(resolver_own_host().front(), htonl(INADDR_LOOPBACK));
}

TEST_F(ccm_test, a_caller_is_told_and_has_a_time_limit) {
    start();
    be(MODE_LISTENER);
    ccm_error_t error;
    int port = 0;
    ASSERT_EQ(ccm_create_listen_port(ccm, "", 0, 10, &port, &error), 0) << error.qx_msgInsert;
    ASSERT_GT(port, 0);
    partner far = call(port);
    ccm_msg_ptr msg = take_record(ipc_channel_accept);
    ASSERT_NE(msg, nullptr);
    ASSERT_EQ(msg->len, 20);
    int32_t id;
    memcpy(&id, msg->msg_start + 16, sizeof id);
    ccm_channel_image_t image = image_of(id);  // chained before it is told
    EXPECT_EQ(image.type, CH_TYPE_ACCEPTED);
    bool ipv6 = (ccm->flag.load() & CCM_FLAG_IPV6) != 0;
    EXPECT_STREQ(image.addr, ipv6 ? "::ffff:127.0.0.1" : "127.0.0.1");
    ccm_caller caller;
    ASSERT_EQ(ccm_channel_caller(ccm, id, &caller), 0);
    EXPECT_TRUE(caller.own_host);
    EXPECT_EQ(caller.group, ccm_caller_group(caller.peer));
    EXPECT_EQ(image.flag & CH_FLAG_CONNECTING, CH_FLAG_CONNECTING);
    EXPECT_EQ(image.connect_timeout_secs, 60);
    // The time limit of a caller who says nothing.
    EXPECT_EQ(ccm_channel_check_timeouts(ccm, alarm_now() + 59), 0);
    EXPECT_EQ(ccm_channel_check_timeouts(ccm, alarm_now() + 61), 1);
    EXPECT_EQ(close_event(id).msgnr, 2000064);
    EXPECT_TRUE(far.ended());
    EXPECT_EQ(ccm_create_listen(ccm, "", port, 10, &error), -1);
    EXPECT_EQ(std::string(error.qx_msgInsert).substr(0, 6), "bind(:");
    EXPECT_EQ(ccm_get_nof_connections(ccm), 1);
}

sockaddr_storage address_of(const char* text) {
    sockaddr_storage storage{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
        storage.ss_family = AF_INET;
    } else if (inet_pton(AF_INET6, text, &v6->sin6_addr) == 1) {
        storage.ss_family = AF_INET6;
    }
    return storage;
}

TEST(accept_limits, a_network_of_ipv6_counts_as_one_caller) {
    const auto group = [](const char* text) { return ccm_caller_group(address_of(text)); };
    EXPECT_EQ(group("2001:db8:1:2::7"), group("2001:db8:1:2:ffff:1:2:3"));
    EXPECT_NE(group("2001:db8:1:2::7"), group("2001:db8:1:3::7"));
    EXPECT_NE(group("192.0.2.7"), group("192.0.2.8"));
    EXPECT_EQ(group("192.0.2.7"), group("::ffff:192.0.2.7"));
}

TEST(accept_limits, this_host_is_told_from_others) {
    const struct {
        const char* own;
        const char* peer;
        bool same;
    } cases[] = {
        {"127.0.0.1", "127.9.9.9", true},        {"192.0.2.1", "192.0.2.1", true},
        {"::ffff:192.0.2.1", "192.0.2.1", true}, {"::1", "::1", true},
        {"::", "::ffff:127.0.0.1", true},        {"192.0.2.1", "192.0.2.2", false},
        {"::1", "2001:db8::1", false},           {"2001:db8::7f00:1", "2001:db8::7f00:2", false},
        {"192.0.2.1", "128.0.0.1", false},       {"", "", false},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(ccm_is_own_host(address_of(row.own), address_of(row.peer)), row.same)
            << row.own << row.peer;
    }
}

TEST(accept_limits, places_of_this_host_stay_free_whoever_calls) {
    const int remote_most = ccm_limits.all - ccm_limits.own_host;
    ASSERT_GE(ccm_limits.own_host, 64);
    const struct {
        ccm_caller_counts now;
        bool own_host;
        ccm_room room;
    } cases[] = {
        {{40, 40, ccm_limits.group - 1}, false, CCM_ROOM_FREE},
        {{40, 40, ccm_limits.group}, false, CCM_ROOM_GROUP_FULL},
        {{40, 0, 40}, true, CCM_ROOM_FREE},
        {{remote_most, remote_most, 0}, false, CCM_ROOM_REMOTE_FULL},
        {{remote_most, remote_most, 0}, true, CCM_ROOM_FREE},
        {{ccm_limits.all, remote_most - 1, 0}, false, CCM_ROOM_FULL},
        {{ccm_limits.all, 0, 0}, true, CCM_ROOM_FULL},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(ccm_judge_caller(row.now, row.own_host), row.room) << row.now.all << " " << row.own_host;
    }
}

struct accept_test : ccm_test {
    ccm_accept_limits kept = ccm_limits;
    int port = 0;
    int family = AF_INET;

    accept_test() {
        ccm_limits.all = 8;
        start();
        be(MODE_LISTENER);
        ccm_error_t error;
        EXPECT_EQ(ccm_create_listen_port(ccm, "*LOCAL", 0, 64, &port, &error), 0) << error.qx_msgInsert;
        family = (ccm->flag.load() & CCM_FLAG_IPV6) != 0 ? AF_INET6 : AF_INET;
    }
    ~accept_test() override { ccm_limits = kept; }
    partner call_in() {
        partner far = call(port, family);
        ccm_msg_ptr msg = take_record(ipc_channel_accept);
        EXPECT_NE(msg, nullptr);
        return far;
    }
};

TEST_F(accept_test, a_full_listener_takes_nobody_until_somebody_leaves) {
    std::vector<partner> callers;
    for (int i = 0; i < ccm_limits.all; ++i) {
        callers.push_back(call_in());
    }
    partner one_more = call(port, family);
    EXPECT_TRUE(one_more.ended());
    EXPECT_EQ(ccm_get_nof_channels(ccm), 1 + ccm_limits.all);
    callers.pop_back();
    take_record(ipc_channel_close);
    partner next = call_in();
}

TEST_F(accept_test, who_says_nothing_makes_room_and_who_reports_stays) {
    partner reporter = call_in();
    bytes report(24);
    memcpy(report.data(), "MELD    01", 10);
    reporter.send(frame_make_message(report.data(), report.size(), {}));
    take_type(CCM_MSG_NAT);
    std::vector<partner> silent;
    for (int i = 1; i < ccm_limits.all; ++i) {
        silent.push_back(call_in());
    }
    alarm_clock_advance(ccm_accepted_silence + 1);
    partner job = call_in();
    EXPECT_TRUE(silent.front().ended());
    EXPECT_EQ(log_text(2000064).find("127.0.0.1|") != std::string::npos ||
                  log_text(2000064).find("::1|") != std::string::npos,
              true)
        << log_text(2000064);
    // Only the oldest went: the reporter and the others are still taken care of.
    EXPECT_EQ(ccm_get_nof_channels(ccm), 1 + ccm_limits.all);
    reporter.send(frame_make_message(report.data(), report.size(), {}));
    ccm_msg_ptr msg = take_type(CCM_MSG_NAT);
    EXPECT_NE(msg, nullptr);
}

TEST(line_budget, bounds_what_strangers_can_have_logged) {
    line_budget budget{3, 2};
    int dropped = -1;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(budget.take(1000, &dropped));
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(budget.take(1000, &dropped));
    }
    EXPECT_TRUE(budget.take(1001, &dropped));
    EXPECT_EQ(dropped, 5) << "told once";
    EXPECT_TRUE(budget.take(1001, &dropped));
    EXPECT_EQ(dropped, 0);
    EXPECT_FALSE(budget.take(1001, &dropped));
    EXPECT_FALSE(budget.take(900, &dropped)) << "a clock that steps back gives nothing";
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(budget.take(1'000'000'000, &dropped)) << "a long pause fills the stock, no more";
    }
    EXPECT_FALSE(budget.take(1'000'000'000, &dropped));
}

TEST_F(ccm_test, a_connection_carries_messages_both_ways) {
    start();
    ccm_error_t error;
    int port = 0;
    const int listener = listen_on_loopback(&port);
    ASSERT_GE(listener, 0);
    int id = ccm_connect(ccm, "[127.0.0.1]", port, CH_TYPE_CP_CANDIDATE, nullptr, 10, &error);
    ASSERT_GT(id, 0) << error.qx_msgInsert;
    EXPECT_EQ(ccm_is_cp_connecting(ccm, "127.0.0.1", port, &error), 1);
    EXPECT_EQ(ccm_is_cp_connecting(ccm, "127.0.0.1", 1, &error), 0);
    partner far(accept(listener, nullptr, nullptr));
    bytes data = text_bytes(std::string(76, 's'));
    far.send(frame_make_item(65, data.data(), data.size()));
    ccm_msg_ptr msg = take();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->protocol_key, 65);
    ccm_channel_image_t image = image_of(id);
    EXPECT_STREQ(image.bind_addr, "127.0.0.1");
    EXPECT_STREQ(image.host, "[127.0.0.1]");
    close(listener);
}

TEST(addresses, texts_stand_for_addresses) {
    char buffer[80];
    EXPECT_STREQ(ccm_addressformatted("127.0.0.1", buffer), "127.0.0.1");
    EXPECT_STREQ(ccm_addressformatted("[::1]", buffer), "[::1]");
    EXPECT_STREQ(ccm_addressformatted("::1", buffer), "[::1]");
    sockaddr_in6 address;
    char text[64];
    ASSERT_EQ(ccm_hostname2address(" [::1] ", 2, &address, nullptr), 0);
    EXPECT_EQ(ccm_address2string(&address, text, sizeof text), 0);
    EXPECT_STREQ(text, "::1");
    address.sin6_family = 99;
    EXPECT_EQ(ccm_address2string(&address, text, sizeof text), -1);
    EXPECT_STREQ(text, "");
}
