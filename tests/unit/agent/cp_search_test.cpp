// The search by its flows: which connects are made, when it decides, whom it takes.
#include "agent/cp_search.h"

#include <map>

#include "agent_fixture.h"
#include "base/time.h"

namespace {

// The network as the search sees it.
struct world {
    std::map<std::string, bool> refuses_at_once;  // by host
    std::vector<std::string> connects;
    int last_id = 100;
    int chosen = 0;
    int gone_when_chosen = 0;
    std::vector<int> closed_but;  // what close_candidates was told to keep
    bool alive = true;
    time_t seconds_of_connect = 0;
};
world* now_world = nullptr;

int fake_connect(EX_PCX*, const char* host, int) {
    now_world->connects.push_back(host);
    alarm_clock_advance(now_world->seconds_of_connect);
    return now_world->refuses_at_once[host] ? -1 : ++now_world->last_id;
}

int fake_choose(EX_PCX*, int id) {
    if (id == now_world->gone_when_chosen) {
        return -1;
    }
    now_world->chosen = id;
    return 0;
}

void fake_close(EX_PCX*, int keep) {
    now_world->closed_but.push_back(keep);
}
bool fake_alive(EX_PCX*) {
    return now_world->alive;
}

struct search : ::testing::Test {
    own_context own;
    collected_log log;
    EX_PCX* pcx = own.pcx.get();
    world net;
    cp_search_actions kept = cp_search_outside;

    search() {
        now_world = &net;
        cp_search_outside = {fake_connect, fake_choose, fake_close, fake_alive};
        pcx->Per_Reconnect = 60;
        EXPECT_EQ(cp_search_open(pcx), 0);
        net.closed_but.clear();
    }
    ~search() override {
        cp_search_end(pcx, 0);
        cp_search_outside = kept;
    }
    bool searching() const { return (pcx->pcx_flag & PCX_FLAG_CP_SEARCH) != 0; }
    void add(const char* host, int port, int ranking) {
        ASSERT_EQ(cp_connection_add(pcx, host, port, ranking), 0);
    }
    void go() { cp_connection_connect_next_based_ranking(pcx); }
    void answer(int id, int port, int ranking) {
        EXPECT_EQ(cp_search_answered(pcx, id, port, ranking), 0);
        go();
    }
};

TEST_F(search, without_candidates_waits_for_the_next_time) {
    go();
    EXPECT_FALSE(searching());
    EXPECT_EQ(logged_count(2000355), 1);
    EXPECT_NEAR(static_cast<double>(pcx->Srv_alarm_time), static_cast<double>(alarm_now() + 60), 1);
}

TEST_F(search, takes_the_only_one_that_answers) {
    add("a", 1, 40000);
    go();
    EXPECT_EQ(net.connects.size(), 1u);
    EXPECT_TRUE(searching());
    answer(101, 1, 5);
    EXPECT_EQ(net.chosen, 101);
    EXPECT_FALSE(searching());
    EXPECT_EQ(pcx->nof_cp_connections, 0);
    EXPECT_EQ(net.closed_but, std::vector<int>{101});
}

TEST_F(search, connects_one_after_the_other_and_takes_the_lowest) {
    add("a", 1, 1001);
    add("b", 2, 1002);
    add("c", 3, 1003);
    go();
    go();
    EXPECT_EQ(net.connects.size(), 1u) << "one connect at a time";
    answer(101, 1, 5);
    answer(102, 2, 3);
    EXPECT_EQ(net.chosen, 0) << "the third may be better";
    answer(103, 3, 9);
    EXPECT_EQ(net.chosen, 102);
    EXPECT_EQ(net.connects, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(search, ranking_1_ends_it_at_once) {
    add("a", 1, 1001);
    add("b", 2, 1002);
    go();
    answer(101, 1, cp_ranking_now);
    EXPECT_EQ(net.chosen, 101);
    EXPECT_EQ(net.connects.size(), 1u);
}

// The late close of a connect that failed at once must not decide for the one that is on its way.
TEST_F(search, a_late_close_counts_only_for_its_own_connect) {
    net.refuses_at_once["a"] = true;
    add("a", 1, 1001);
    add("b", 2, 1002);
    go();
    EXPECT_EQ(net.connects, (std::vector<std::string>{"a", "b"}));
    cp_connection_closed(pcx, 55, 1);
    EXPECT_TRUE(searching());
    EXPECT_EQ(logged_count(2000355), 0);
    answer(101, 2, 4);
    EXPECT_EQ(net.chosen, 101);
    cp_connection_closed(pcx, 101, 2);  // the list is gone; nothing happens
}

TEST_F(search, an_old_close_of_the_same_port_does_not_count) {
    add("a", 1, 1001);
    go();
    cp_connection_closed(pcx, 99, 1);
    EXPECT_TRUE(searching());
    cp_connection_closed(pcx, 101, 1);
    EXPECT_FALSE(searching());
    EXPECT_EQ(logged_count(2000355), 1);
}

TEST_F(search, all_unreachable_gives_up_once_after_the_last) {
    for (const char* host : {"a", "b", "c"}) {
        net.refuses_at_once[host] = true;
    }
    add("a", 1, 1001);
    add("b", 2, 1002);
    add("c", 3, 1003);
    go();
    EXPECT_EQ(net.connects.size(), 3u);
    EXPECT_EQ(logged_count(2000355), 1);
    EXPECT_EQ(net.closed_but, std::vector<int>{0}) << "no candidate's channel is left open";
}

TEST_F(search, who_refuses_by_ranking_counts_as_failed_and_is_closed) {
    add("a", 1, 1001);
    go();
    answer(101, 1, cp_ranking_refused);
    EXPECT_EQ(net.chosen, 0);
    EXPECT_EQ(logged_count(2000355), 1);
    EXPECT_EQ(net.closed_but, std::vector<int>{0});
}

TEST_F(search, wrong_system_is_a_failure_before_its_close_comes) {
    add("a", 1, 1001);
    add("b", 2, 1002);
    go();
    EXPECT_EQ(cp_search_answered(pcx, 101, 1, 2), 0);
    cp_search_failed(pcx, 101);
    go();
    EXPECT_EQ(net.connects.size(), 2u);
    answer(102, 2, 7);
    EXPECT_EQ(net.chosen, 102) << "not the better ranking of the wrong system";
}

TEST_F(search, named_processes_come_before_the_random_ones) {
    add("a", 1, 40000);
    add("b", 2, 40001);
    go();
    const std::string list = "x:3;b:2;;bad host:4;y:5;";
    EXPECT_EQ(cp_search_answered(pcx, 101, 1, 5), 0);
    cp_search_add_list(pcx, list.data(), list.size());
    EXPECT_EQ(pcx->nof_cp_connections, 4);
    EXPECT_EQ(cp_connection_get_by_port(pcx, 3)->ranking, 2);
    EXPECT_EQ(cp_connection_get_by_port(pcx, 2)->ranking, 3);
    EXPECT_EQ(cp_connection_get_by_port(pcx, 5)->ranking, 4);
    EXPECT_EQ(cp_connection_get_by_port(pcx, 1)->ranking, 5) << "who answered keeps what he said";
    go();
    EXPECT_EQ(net.connects, (std::vector<std::string>{"a", "x"}));
}

TEST_F(search, goes_on_when_the_chosen_one_vanishes_in_that_moment) {
    add("a", 1, 1001);
    add("b", 2, 1002);
    net.gone_when_chosen = 101;
    go();
    answer(101, 1, 2);
    answer(102, 2, 6);
    EXPECT_EQ(net.chosen, 102);
}

TEST_F(search, names_that_nobody_resolves_take_one_pass_each) {
    for (int port = 1; port <= 3; ++port) {
        add("slow", port, 1000 + port);
    }
    net.refuses_at_once["slow"] = true;
    net.seconds_of_connect = 5;
    go();
    EXPECT_EQ(net.connects.size(), 1u) << "the loop has other work as well";
    cp_search_check(pcx);
    EXPECT_EQ(net.connects.size(), 2u);
    cp_search_check(pcx);
    EXPECT_TRUE(searching());
    cp_search_check(pcx);
    EXPECT_EQ(net.connects.size(), 3u);
    EXPECT_FALSE(searching());
    EXPECT_EQ(logged_count(2000355), 1);
}

TEST_F(search, a_lost_event_does_not_stop_it) {
    add("a", 1, 1001);
    add("b", 2, 1002);
    go();
    cp_search_check(pcx);
    EXPECT_EQ(net.connects.size(), 1u) << "the channel lives";
    net.alive = false;
    cp_search_check(pcx);
    EXPECT_EQ(net.connects, (std::vector<std::string>{"a", "b"}));
}

TEST_F(search, holds_64_candidates_and_refuses_what_cannot_be_one) {
    for (int port = 1; port <= cp_connection_max; ++port) {
        add("host", port, 1000 + port);
    }
    EXPECT_EQ(cp_connection_add(pcx, "host", 70, 1), -1);
    EXPECT_EQ(pcx->nof_cp_connections, cp_connection_max);
    cp_search_open(pcx);
    EXPECT_EQ(cp_connection_add(pcx, std::string(64, 'h').c_str(), 1, 1), -1);
    EXPECT_EQ(cp_connection_add(pcx, "h", 0, 1), -1);
    EXPECT_EQ(cp_connection_add(pcx, "h", 65536, 1), -1);
    EXPECT_EQ(cp_connection_add(pcx, std::string(63, 'h').c_str(), 65535, 1), 0);
}

TEST(cp_list, takes_only_elements_that_are_a_host_and_a_port) {
    const struct {
        const char* text;
        const char* host;
        int port;
    } cases[] = {{"host:2217", "host", 2217},
                 {"[fe80::1%eth0]:1", "[fe80::1%eth0]", 1},
                 {"a.b-c_d:65535", "a.b-c_d", 65535}};
    char host[64] = {};
    int port = 0;
    for (const auto& one : cases) {
        ASSERT_EQ(cp_list_element(one.text, strlen(one.text), host, &port), 0) << one.text;
        EXPECT_STREQ(host, one.host);
        EXPECT_EQ(port, one.port);
    }
    for (const char* bad : {"host:65536", "host:0", "host:000001", "host:+1", "host:", "host", ":1",
                            "x\n[GLOBAL]\nname=y:2300", "a b:1", "a=b:1"}) {
        EXPECT_EQ(cp_list_element(bad, strlen(bad), host, &port), -1) << bad;
    }
    std::string many;
    for (int at = 1; at <= 100; ++at) {
        many += "h:" + std::to_string(at) + ";";
    }
    int count = 0;
    cp_list_each(
        many.data(), many.size(), [](void* context, const char*, int) { ++*static_cast<int*>(context); },
        &count);
    EXPECT_EQ(count, 63);
}

}  // namespace
