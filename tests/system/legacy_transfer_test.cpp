// The older protocol between two agents: files that arrive, cuts, refusals, lists.
#include <unistd.h>

#include "transfer_fixture.h"

namespace {

struct legacy : transfer_test {
    cp_transfer legacy_wish(const std::string& source, const std::string& destination) const {
        cp_transfer transfer = wish(source, destination);
        transfer.legacy = true;
        transfer.overwrite = 'Y';
        return transfer;
    }
    // Random lines, so that nothing of it is small when it is compressed.
    std::string content(size_t size) const {
        std::string bytes(size, '\0');
        uint32_t state = 7;
        for (char& byte : bytes) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<char>(state >> 24);
        }
        return bytes;
    }
    bool wait_end(int run) {
        return wait(30000, [&] { return cp_transfer_is_over(transfer(run).state); });
    }
};

TEST_F(legacy, files_arrive_as_bytes_and_as_text) {
    start_agents();
    const std::string bytes = content(500000);
    write_file(from("from/file"), bytes);
    write_file(from("from/text"), "one\r\ntwo\nlast");
    for (const char compress : {'0', '1', 'S'}) {
        cp_transfer file = legacy_wish("from/file", "to/file");
        file.compress = compress;
        const int run = order(file);
        ASSERT_TRUE(wait_end(run)) << tale(run);
        EXPECT_EQ(state(run), "finished") << tale(run);
        EXPECT_TRUE(read_file(from("to/file")) == bytes);
        cp_transfer text = legacy_wish("from/text", "to/text");
        text.compress = compress;
        text.text = true;
        text.source.attributes = "nl=m";
        text.destination.attributes = "nl=crlf";
        const int second_run = order(text);
        ASSERT_TRUE(wait_end(second_run)) << tale(second_run);
        EXPECT_EQ(read_file(from("to/text")), "one\r\ntwo\r\nlast") << tale(second_run);
    }
}

TEST_F(legacy, go_on_after_an_agent_was_killed) {
    start_agents();
    const std::string bytes = content(20 << 20);
    write_file(from("from/file"), bytes);
    for (installation* victim : {&second, &first}) {
        unlink(from("to/file").c_str());
        const int run = order(legacy_wish("from/file", "to/file"));
        ASSERT_TRUE(wait_running(run)) << tale(run);
        victim->agent.kill_now();
        ASSERT_TRUE(wait_end(run)) << tale(run);
        EXPECT_NE(state(run), "finished");
        EXPECT_FALSE(std::filesystem::exists(from("to/file")));
        const size_t logons = static_cast<size_t>(count_events("logon"));
        victim->start();
        ASSERT_TRUE(wait(20000, [&] { return static_cast<size_t>(count_events("logon")) > logons; }));
        const int next = restart(run);
        ASSERT_TRUE(wait_end(next)) << tale(next);
        EXPECT_EQ(state(next), "finished") << tale(next);
        EXPECT_TRUE(read_file(from("to/file")) == bytes);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(from("to")), {}), 1);
    }
}

TEST_F(legacy, tell_why_not) {
    start_agents();
    const int missing = order(legacy_wish("from/none", "to/none"));
    ASSERT_TRUE(wait_end(missing)) << tale(missing);
    EXPECT_EQ(transfer(missing).message_number, 2003041) << tale(missing);
    write_file(from("from/file"), "x");
    const int folder = order(legacy_wish("from/file", "to"));
    ASSERT_TRUE(wait_end(folder)) << tale(folder);
    EXPECT_NE(state(folder), "finished");
    write_file(from("from/file"), content(20 << 20));
    const int cancelled = order(legacy_wish("from/file", "to/file"));
    ASSERT_TRUE(wait_running(cancelled)) << tale(cancelled);
    std::string error;
    ASSERT_TRUE(cp_cancel_transfer(server.get(), cancelled, error)) << error;
    ASSERT_TRUE(wait_end(cancelled)) << tale(cancelled);
    EXPECT_EQ(state(cancelled), "cancelled") << tale(cancelled);
    EXPECT_FALSE(std::filesystem::exists(from("to/file")));
}

TEST_F(legacy, keep_to_the_rights_of_their_users) {
    if (!is_root()) {
        GTEST_SKIP() << "needs root";
    }
    test_user sender("qxft1");
    test_user receiver("qxft2");
    start_agents();
    write_file(from("from/file"), "mine", 0600);
    cp_transfer file = legacy_wish("from/file", "to/file");
    file.source.user = sender.name;
    file.destination.user = receiver.name;
    const int refused = order(file);
    ASSERT_TRUE(wait_end(refused)) << tale(refused);
    EXPECT_NE(state(refused), "finished") << "it belongs to root";
    ASSERT_EQ(chown(from("from/file").c_str(), sender.uid, sender.gid), 0);
    const int run = order(file);
    ASSERT_TRUE(wait_end(run)) << tale(run);
    EXPECT_EQ(state(run), "finished") << tale(run);
    struct stat status;
    ASSERT_EQ(stat(from("to/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, receiver.uid);
    chmod(from("to").c_str(), 0755);
    unlink(from("to/file").c_str());
    const int closed = order(file);
    ASSERT_TRUE(wait_end(closed)) << tale(closed);
    EXPECT_NE(state(closed), "finished") << "he may not write there";
}

TEST_F(legacy, lists_come_in_pieces_and_whole) {
    start_agents();
    std::string wanted;
    for (int i = 100; i < 900; ++i) {
        const std::string name = from("from/" + std::string(60, 'n') + std::to_string(i));
        write_file(name, "");
        wanted += name + "\n";
    }
    cp_answer last;
    bool answered = false;
    const auto keep = [&](const cp_answer& answer) {
        last = answer;
        answered = true;
    };
    ASSERT_TRUE(
        cp_list_directory(server.get(), "FIRST", {"FIRST", from("from/n*"), "", "", ""}, false, keep));
    ASSERT_TRUE(wait(20000, [&] { return answered; })) << first.log();
    EXPECT_EQ(last.status, "OK");
    EXPECT_EQ(last.data, wanted);
    answered = false;
    ASSERT_TRUE(cp_list_directory(server.get(), "FIRST", {"FIRST", "/no/such/*", "", "", ""}, false, keep));
    ASSERT_TRUE(wait(20000, [&] { return answered; })) << first.log();
    EXPECT_EQ(last.status, "NK");
    EXPECT_EQ(last.number, 2003041);
}

}  // namespace
