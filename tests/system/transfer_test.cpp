// Files that travel between two agents under one server.
#include <unistd.h>

#include <csignal>

#include "transfer_fixture.h"

namespace {

struct transfers : transfer_test {
    // Orders it, waits for its end and expects it to be good.
    int copy(const cp_transfer& wanted) {
        const int run = order(wanted);
        EXPECT_TRUE(wait_over(run)) << tale(run);
        EXPECT_EQ(state(run), "finished") << tale(run);
        return run;
    }
    // A large file whose transfer is under way: some of it is at the destination.
    int begin_large(size_t size, bool reverse = false) {
        write_file(from("from/large"), pattern(size));
        cp_transfer wanted = wish("from/large", "to/");
        wanted.reverse = reverse;
        // Block by block: slow enough to be met on its way.
        wanted.window_min = wanted.window_max = wanted.window_num = 1;
        const int run = order(wanted);
        const auto under_way = [&] {
            for (const auto& entry : fs::directory_iterator(from("to"))) {
                if (entry.file_size() > size / 16) {
                    return true;
                }
            }
            return cp_transfer_is_over(transfer(run).state);
        };
        for (int i = 0; i < 6000 && !under_way(); ++i) {
            cp_server_step(server.get(), 5);
        }
        EXPECT_FALSE(cp_transfer_is_over(transfer(run).state)) << "too fast to be met\n" << tale(run);
        return run;
    }
    void expect_restart_is_right(int run) {
        EXPECT_TRUE(wait_over(run)) << tale(run);
        EXPECT_NE(state(run), "finished") << tale(run);
        EXPECT_FALSE(fs::exists(from("to/large"))) << tale(run);
        const int next = restart(run);
        EXPECT_TRUE(wait_over(next)) << tale(next);
        EXPECT_EQ(state(next), "finished") << tale(next);
        EXPECT_TRUE(read_file(from("to/large")) == read_file(from("from/large"))) << tale(next);
        EXPECT_EQ(leftovers(), 0u);
    }
};

TEST_F(transfers, copies_a_file_whoever_connects) {
    start_agents();
    for (const bool reverse : {false, true}) {
        const std::string name = reverse ? "reverse" : "direct";
        const std::string bytes = pattern(200000);
        write_file(from("from/" + name), bytes);
        cp_transfer wanted = wish("from/" + name, "to/");
        wanted.reverse = reverse;
        const int run = copy(wanted);
        EXPECT_EQ(read_file(from("to/" + name)), bytes) << tale(run);
        EXPECT_EQ(transfer(run).figures.files_successful, 1);
        EXPECT_EQ(transfer(run).figures.sent_size, static_cast<int64_t>(bytes.size()));
        EXPECT_TRUE(transfer(run).forgotten);
        EXPECT_TRUE(workers_end(run)) << tale(run);
    }
}

TEST_F(transfers, bring_a_tree_of_any_names_and_sizes_with_each_compression) {
    start_agents();
    for (const char* folder : {"from/tree", "from/tree/a b", "from/tree/a b/deep", "from/tree/nothing"}) {
        fs::create_directory(from(folder));
    }
    const std::string names[] = {"quote'\"$", "\xff\xfe no utf-8", std::string(240, 'n'), "a b/two  blanks",
                                 "a b/deep/&file"};
    const size_t sizes[] = {0, 1, 32236, 65536, 1048577};
    for (size_t i = 0; i < std::size(names); ++i) {
        write_file(from("from/tree/") + names[i], pattern(sizes[i], static_cast<uint32_t>(i)));
    }
    for (const char compress : {'0', '1', 'S'}) {
        const std::string target = std::string("to/") + compress;
        cp_transfer wanted = wish("from/tree/", target + "/");
        wanted.subfolders = true;
        wanted.compress = compress;
        const int run = copy(wanted);
        EXPECT_TRUE(content(target) == content("from/tree")) << tale(run);
        EXPECT_EQ(transfer(run).figures.files_successful, static_cast<int>(std::size(names)));
        EXPECT_EQ(transfer(run).figures.dirs_successful, 3);
    }
}

TEST_F(transfers, bring_text_line_by_line) {
    start_agents();
    struct {
        const char* coding;
        std::string source;
        const char *sender, *receiver;
        std::string destination;
    } const cases[] = {
        {"UTF-8", "one\r\nGr\xc3\xbc\xc3\x9f\r\nno end", "nl=m", "nl=lf", "one\nGr\xc3\xbc\xc3\x9f\nno end"},
        {"", "one\ntwo\n", "", "nl=crlf", "one\r\ntwo\r\n"},
        {"UTF-8", "0123456789", "reclen=4", "nl=lf", "0123\n4567\n89\n"},
        {"UCS-2LE", std::string("a\0\n\0b\0\n\0", 8), "", "nl=none", std::string("a\0b\0", 4)},
    };
    int number = 0;
    for (const auto& row : cases) {
        const std::string name = "text" + std::to_string(++number);
        write_file(from("from/" + name), row.source);
        cp_transfer wanted = wish("from/" + name, "to/");
        wanted.text = true;
        wanted.coding = row.coding;
        wanted.source.attributes = row.sender;
        wanted.destination.attributes = row.receiver;
        const int run = copy(wanted);
        EXPECT_EQ(read_file(from("to/" + name)), row.destination) << name << "\n" << tale(run);
    }
}

TEST_F(transfers, treat_what_is_there_as_ordered) {
    start_agents();
    struct {
        char overwrite;
        const char* state;
        const char* content;
    } const cases[] = {{'N', "failed", "old"}, {'Y', "finished", "new"}, {'A', "finished", "oldnew"}};
    for (const auto& row : cases) {
        write_file(from("from/file"), "new");
        write_file(from("to/file"), "old");
        cp_transfer wanted = wish("from/file", "to/file");
        wanted.overwrite = row.overwrite;
        const int run = order(wanted);
        ASSERT_TRUE(wait_over(run)) << tale(run);
        EXPECT_EQ(state(run), row.state) << tale(run);
        EXPECT_EQ(read_file(from("to/file")), row.content) << tale(run);
    }
    cp_transfer erasing = wish("from/file", "to/erased");
    erasing.erase = true;
    copy(erasing);
    EXPECT_FALSE(fs::exists(from("from/file")));
    EXPECT_EQ(read_file(from("to/erased")), "new");
    EXPECT_EQ(leftovers(), 0u);
}

TEST_F(transfers, say_why_they_cannot_be) {
    start_agents();
    write_file(from("from/file"), "content");
    struct {
        const char* what;
        std::function<void(cp_transfer&)> spoil;
        const char* state;
        int number;
    } const cases[] = {
        {"a folder that is not there",
         [&](cp_transfer& t) {
             t.source.path = from("no/*");
             t.destination.path = from("to/*");
             t.wildcard = true;
         },
         "refused", 63016},
        {"no mask in a wildcard", [](cp_transfer& t) { t.wildcard = true; }, "refused", 11496},
        {"nothing to put the names in",
         [&](cp_transfer& t) { t.source.path = from("from/*"), t.wildcard = true; }, "refused", 11499},
        {"a user that nobody knows", [](cp_transfer& t) { t.source.user = "qx-nobody"; }, "refused", 2001007},
        {"the same at the destination", [](cp_transfer& t) { t.destination.user = "qx-nobody"; }, "refused",
         2001007},
        {"a file that is not there", [&](cp_transfer& t) { t.source.path = from("from/none"); }, "failed", 0},
        {"a destination that is a folder", [&](cp_transfer& t) { t.destination.path = from("to"); }, "failed",
         0},
    };
    for (const auto& row : cases) {
        cp_transfer wanted = wish("from/file", "to/file");
        row.spoil(wanted);
        const int run = order(wanted);
        ASSERT_TRUE(wait_over(run)) << row.what << "\n" << tale(run);
        EXPECT_EQ(state(run), row.state) << row.what << "\n" << tale(run);
        if (row.number != 0) {
            EXPECT_EQ(transfer(run).message_number, row.number) << row.what << "\n" << tale(run);
        }
        EXPECT_FALSE(fs::exists(from("to/file"))) << row.what;
    }
    std::string error;
    cp_transfer itself = wish("from/file", "to/file");
    itself.destination.agent = "FIRST";
    EXPECT_EQ(cp_order_transfer(server.get(), itself, error), 0);
    EXPECT_EQ(error, "a transfer goes from one agent to another one");
}

TEST_F(transfers, end_by_order) {
    start_agents();
    for (const bool reverse : {false, true}) {
        const int run = begin_large(40 << 20, reverse);
        std::string error;
        EXPECT_TRUE(cp_cancel_transfer(server.get(), run, error)) << error;
        ASSERT_TRUE(wait_over(run)) << tale(run);
        EXPECT_EQ(state(run), "cancelled") << tale(run);
        EXPECT_FALSE(fs::exists(from("to/large"))) << tale(run);
        EXPECT_TRUE(workers_end(run)) << tale(run);
        EXPECT_FALSE(cp_cancel_transfer(server.get(), run, error));
        for (const auto& entry : fs::directory_iterator(from("to"))) {
            fs::remove(entry.path());
        }
    }
}

TEST_F(transfers, go_on_after_either_worker_was_killed) {
    start_agents();
    for (const installation* host : {&first, &second}) {
        fs::remove(from("to/large"));
        const int run = begin_large(40 << 20);
        const pid_t worker = worker_of(*host, run);
        ASSERT_GT(worker, 0) << tale(run);
        kill(worker, SIGKILL);
        expect_restart_is_right(run);
        EXPECT_TRUE(workers_end(run)) << tale(run);
    }
}

TEST_F(transfers, go_on_after_either_agent_was_killed) {
    start_agents();
    for (installation* host : {&first, &second}) {
        fs::remove(from("to/large"));
        const int run = begin_large(40 << 20);
        host->agent.kill_now();
        EXPECT_TRUE(workers_end(run)) << tale(run);
        host->start();
        ASSERT_TRUE(wait(20000, [&] { return count_events("logon") >= (host == &first ? 3 : 4); }))
            << tale(run);
        expect_restart_is_right(run);
    }
}

TEST_F(transfers, outlive_the_server) {
    start_agents();
    const int run = begin_large(40 << 20);
    close_server();
    usleep(300000);
    open_server();
    ASSERT_TRUE(wait_over(run, 60000)) << tale(run);
    EXPECT_EQ(state(run), "finished") << tale(run);
    EXPECT_TRUE(read_file(from("to/large")) == read_file(from("from/large")));
    EXPECT_TRUE(reported(run, 11133)) << tale(run);
}

TEST_F(transfers, act_as_the_users_of_the_order) {
    if (!is_root()) {
        GTEST_SKIP() << "only root can be somebody else";
    }
    test_user reader("qxreader");
    test_user writer("qxwriter");
    start_agents();
    write_file(from("from/secret"), "of the reader", 0600);
    ASSERT_EQ(chown(from("from/secret").c_str(), reader.uid, reader.gid), 0);
    cp_transfer wanted = wish("from/secret", "to/");
    wanted.source.user = reader.name;
    wanted.destination.user = writer.name;
    const int run = copy(wanted);
    struct stat status {};
    ASSERT_EQ(stat(from("to/secret").c_str(), &status), 0) << tale(run);
    EXPECT_EQ(status.st_uid, writer.uid);
    wanted.source.user = writer.name;
    wanted.destination.path = from("to/again");
    const int refused = order(wanted);
    ASSERT_TRUE(wait_over(refused)) << tale(refused);
    EXPECT_EQ(state(refused), "failed") << tale(refused);
    EXPECT_FALSE(fs::exists(from("to/again")));
}

}  // namespace
