// A partner that lies: it is let in like any agent, sends an order like any agent, and then breaks its word. Its own
// transfer ends; the agent, and a transfer that runs beside it, go on.
#include <sys/mount.h>
#include <unistd.h>

#include "fake_partner.h"
#include "transfer_line_fixture.h"

namespace {

constexpr int lie_run = 700000;

struct lie {
    const char* name;
    void (*tell)(fake_partner& partner);
    const char* number;   // in the log
    bool dropped = true;  // the line ends
};

std::string sync_item() {
    ControlStream none;
    return none;
}

// A whole file, as an honest sender would send it.
stream_items honest(const std::string& content) {
    return {{1, file_item(0, "/from/file")}, {0, content}, {2, ""}, {3, sync_item()}};
}

void say_number(fake_partner& partner, int control, const std::string& bytes) {
    partner.say_data(lie_run, stream_of({{control, bytes}}));
}

const lie lies[] = {
    {"data for another transfer", [](fake_partner& p) { p.say_data(lie_run + 1, stream_of(honest("x"))); },
     "U00011462"},
    {"data behind the end",
     [](fake_partner& p) {
         p.say_data(lie_run, stream_of(honest("x")));
         p.say_end(lie_run);
         p.say_data(lie_run, stream_of(honest("y")));
     },
     "U00063009"},
    {"a second end",
     [](fake_partner& p) {
         p.say_end(lie_run);
         p.say_end(lie_run);
     },
     "U00063009"},
    {"an unknown control value", [](fake_partner& p) { say_number(p, 9, "x"); }, "U00063009"},
    {"a file without a number", [](fake_partner& p) { say_number(p, 1, "00006:"); }, "U00063009"},
    {"a negative number", [](fake_partner& p) { say_number(p, 1, file_item(-1, "/from/file")); },
     "U00063009"},
    {"a folder without a number", [](fake_partner& p) { say_number(p, 6, "00006:"); }, "U00063009"},
    {"bytes that are no stream", [](fake_partner& p) { p.say_data(lie_run, std::string(3000, '\xff')); }, ""},
    {"a sender's message to a receiver",
     [](fake_partner& p) {
         auto quit = new_message<MSG_TYPE_FTXENDQ>(100, 1);
         quit.ah_idnr = lie_run;
         p.say(quit);
     },
     "U01002207"},
    {"an order of a server",
     [](fake_partner& p) {
         auto order = new_message<MSG_TYPE_FTXDEL>(100, 1);
         order.ah_idnr = lie_run;
         p.say(order);
     },
     "U01002207"},
    {"a message for jobs",
     [](fake_partner& p) {
         auto order = new_message<MSG_TYPE_FTXDEL>(100, 1);
         p.say(order, "JPAKTJ_R");
     },
     "U01002207"},
};

struct transfer_stranger : transfer_line_test {
    std::string to(const std::string& name) const { return from("to/" + name); }

    void SetUp() override { start_agents(); }

    std::unique_ptr<fake_partner> let_in(const std::string& destination_file, bool wildcard = false) {
        auto partner = std::make_unique<fake_partner>(server.get(), "LIAR", "SECOND", second.listener_port);
        EXPECT_TRUE(partner->connected()) << told();
        message_builder<MSG_TYPE_FTXRECV> order(100, 1);
        MSG_TYPE_FTXSNDRCV& record = order->ftxsndrcv;
        record.ah_idnr = lie_run;
        put_text(record.dst_host, "SECOND");
        put_text(record.connect_name, "SECOND");
        record.type = 'B';
        record.override = 'Y';
        record.erase = record.subdir = 'N';
        record.compress = '0';
        record.restart = '2';
        record.wildcard = wildcard ? 'Y' : 'N';
        record.async_quit_min = record.async_quit_max = record.async_quit_num = 1;
        record.can_continue = 'Y';
        const auto inside = [](auto part) {
            return [part](MSG_TYPE_FTXRECV* all, size_t place, size_t amount) {
                part(&all->ftxsndrcv, place, amount);
            };
        };
        const std::string source_file = wildcard ? "/from/*" : "/from/file";
        order.add(inside(MSG_TYPE_FTXSNDRCV::src_file), source_file);
        order.add(inside(MSG_TYPE_FTXSNDRCV::dst_file), destination_file);
        EXPECT_TRUE(partner->say(order));
        EXPECT_TRUE(partner->hears("FTXRECVQ")) << told();
        return partner;
    }
    // A real transfer that stands still in its middle until `finish_other`.
    int begin_other() {
        write_file(from("from/other"), std::string(300000, 'o'));
        line.stand_still_after(150000);
        const int run = order_over_line(wish("from/other", "to/other"));
        EXPECT_TRUE(watch(20000, [this] { return line.stands_still(); }));
        return run;
    }
    void finish_other(int run) {
        line.go_on();
        EXPECT_TRUE(wait_over(run)) << told();
        EXPECT_EQ(transfer(run).state, cp_transfer_state::finished) << told();
        EXPECT_EQ(read_file(to("other")), std::string(300000, 'o'));
        unlink(to("other").c_str());
    }
    bool no_worker_left() {
        return watch(15000, [this] { return workers(second).empty() && workers(first).empty(); });
    }
};

TEST_F(transfer_stranger, is_let_in_when_it_keeps_its_word) {
    auto partner = let_in(to("file"));
    EXPECT_TRUE(partner->say_data(lie_run, stream_of(honest("content"))));
    EXPECT_TRUE(partner->hears("FTXQUIT"));
    EXPECT_TRUE(partner->say_end(lie_run));
    EXPECT_TRUE(partner->hears("FTXENDQ"));
    EXPECT_EQ(read_file(to("file")), "content") << told();
    partner->hang_up();
    EXPECT_TRUE(no_worker_left()) << told();
}

TEST_F(transfer_stranger, ends_its_own_transfer_alone_by_a_lie) {
    for (const lie& one : lies) {
        SCOPED_TRACE(one.name);
        const size_t before = second.log().size();
        const int other = begin_other();
        auto partner = let_in(to("file"));
        one.tell(*partner);
        EXPECT_TRUE(partner->is_dropped()) << told();
        finish_other(other);
        EXPECT_TRUE(watch(5000, [&] {
            return second.log().substr(before).find(one.number) != std::string::npos;
        })) << second.log().substr(before);
        EXPECT_TRUE(second.agent.running());
        if (HasFailure()) {
            break;
        }
    }
    EXPECT_TRUE(no_worker_left()) << told();
}

TEST_F(transfer_stranger, writes_to_no_place_beside_the_mask) {
    const int other = begin_other();
    stream_items items;
    int number = 0;
    for (const char* name :
         {"/from/../../outside", "/from/../outside", "/else/file", "/from/a/../../outside"}) {
        items.insert(items.end(), {{1, file_item(number++, name)}, {0, "x"}, {2, ""}});
    }
    items.emplace_back(3, "");
    auto partner = let_in(to("*"), true);
    EXPECT_TRUE(partner->say_data(lie_run, stream_of(items)));
    EXPECT_TRUE(partner->hears("FTXQUIT")) << told();
    EXPECT_TRUE(watch(5000, [this] { return second.log_has("U00063069"); })) << told();
    partner->hang_up();
    EXPECT_NE(access(from("outside").c_str(), F_OK), 0);
    EXPECT_NE(access(from("to/../outside").c_str(), F_OK), 0);
    finish_other(other);
}

TEST_F(transfer_stranger, fills_no_memory_and_no_more_than_its_disk) {
    const bool small_disk = is_root() && mount("none", to("").c_str(), "tmpfs", 0, "size=2m") == 0;
    if (!small_disk) {
        GTEST_SKIP() << "no file system can be mounted";
    }
    stream_items bomb = {{1, file_item(0, "/from/file")}};
    constexpr int pieces = 2048;
    for (int i = 0; i < pieces; ++i) {
        bomb.emplace_back(0, std::string(compress_item_max, '\0'));
    }
    bomb.insert(bomb.end(), {{2, ""}, {3, ""}});
    const std::string stream = stream_of(std::move(bomb), compress_zlib);
    EXPECT_LT(stream.size(), 1000000U);
    auto partner = let_in(to("file"));
    const std::vector<pid_t> worker = workers(second);
    ASSERT_EQ(worker.size(), 1U);
    EXPECT_TRUE(partner->say_data(lie_run, stream));
    EXPECT_TRUE(partner->hears("FTXQUIT", 60000)) << told();
    const std::string status = read_file("/proc/" + std::to_string(worker[0]) + "/status");
    const size_t at = status.find("VmHWM:");
    ASSERT_NE(at, std::string::npos);
    constexpr int most_kilobytes = 40000;
    EXPECT_LT(atoi(status.c_str() + at + 6), most_kilobytes) << status;
    EXPECT_NE(access(to("file").c_str(), F_OK), 0) << "half a file has its final name";
    partner->hang_up();
    EXPECT_TRUE(no_worker_left()) << told();
    umount2(to("").c_str(), MNT_DETACH);  // a worker may stand in it yet
}

TEST_F(transfer_stranger, keeps_nobody_waiting_by_silence) {
    auto silent = let_in(to("silent"));
    auto slow = std::make_unique<fake_partner>(server.get(), "SLOW", "SECOND", second.listener_port);
    finish_other(begin_other());
    // An agent that is stopped ends workers that wait for a silent partner, too.
    EXPECT_TRUE(second.stop());
    EXPECT_TRUE(silent->is_dropped());
}

}  // namespace
