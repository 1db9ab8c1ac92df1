// Transfers by the command line.
#include <nlohmann/json.hpp>

#include "console_fixture.h"

namespace {

using nlohmann::json;

struct transfer_console : console {
    std::unique_ptr<installation> hosts[2];

    void start_agents() {
        serve();
        const char* names[] = {"HERE", "THERE"};
        for (int i = 0; i < 2; ++i) {
            hosts[i] = std::make_unique<installation>(names[i], port);
            hosts[i]->start();
        }
        ASSERT_TRUE(agent_is_on("HERE") && agent_is_on("THERE")) << output;
        for (const char* part : {"/from", "/to"}) {
            mkdir((folder.path + part).c_str(), 0777);
        }
    }
    std::string here(const std::string& name) const { return "HERE:" + folder.path + "/from/" + name; }
    std::string there(const std::string& name) const { return "THERE:" + folder.path + "/to/" + name; }
    int transfer(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "transfer");
        return qxcp(arguments);
    }
    std::string logs() const { return output + hosts[0]->log() + hosts[1]->log(); }
};

TEST_F(transfer_console, copies_files_and_tells_how_it_went) {
    start_agents();
    write_file(folder.path + "/from/one", "first");
    write_file(folder.path + "/from/two", "second");
    ASSERT_EQ(transfer({here("*"), there("")}), 0) << logs();
    EXPECT_TRUE(says("transfer 1 ordered: HERE:")) << output;
    EXPECT_TRUE(says("(U00011408)")) << output;
    EXPECT_TRUE(says("transfer 1 finished: 2 of 2 files, 11 B of 11 B\n")) << output;
    EXPECT_EQ(read_file(folder.path + "/to/two"), "second");

    // What is there already is an error of its file.
    write_file(folder.path + "/from/three", "third");
    EXPECT_EQ(transfer({here("*"), there(""), "--quiet"}), 3) << logs();
    EXPECT_TRUE(says("transfer 2 failed: 1 of 3 files")) << output;
    EXPECT_FALSE(says("(U00011409)\n2")) << output;
    EXPECT_EQ(transfer({here("*"), there(""), "--overwrite", "yes", "--json"}), 0) << logs();
    const json end = json::parse(lines_of(output).back());
    EXPECT_EQ(end["transfer"]["files_successful"], 3);
    EXPECT_EQ(end["transfer"]["sent_size"], 16);
    EXPECT_FALSE(end["report"].empty());

    EXPECT_EQ(transfer({here("none/*"), there("")}), 5) << logs();
    EXPECT_TRUE(says("transfer 4 refused: ")) << output;

    EXPECT_EQ(qxcp({"transfers", "--last", "2"}), 0);
    ASSERT_EQ(lines_of(output).size(), 3u) << output;
    EXPECT_TRUE(lines_of(output)[1].starts_with("3    finished  3/3    16 B")) << output;
    EXPECT_EQ(qxcp({"transfer-report", "3"}), 0);
    EXPECT_TRUE(says("bytes over       16\n")) << output;
    EXPECT_TRUE(says("(U00011408)")) << output;
    EXPECT_EQ(qxcp({"transfer-cancel", "3"}), 1);
    EXPECT_TRUE(says("it is over (finished)")) << output;
}

TEST_F(transfer_console, says_what_is_wrong_with_an_order) {
    start_agents();
    write_file(folder.path + "/from/one", "first");
    struct {
        std::vector<std::string> arguments;
        int code;
        const char* text;
    } const cases[] = {
        {{"/from", there("")}, 1, "write AGENT:PATH"},
        {{here("one")}, 64, "needs a source and a destination"},
        {{here("one"), "ELSEWHERE:/x"}, 1, "agent 'ELSEWHERE' is not logged on"},
        {{here("one"), "HERE:/x"}, 1, "from one agent to another"},
        {{here("one"), there(""), "--restart"}, 1, "leave --restart away"},
        {{"--restart", "77"}, 1, "there is no transfer 77"},
        {{here("one"), there(""), "--compress", "fast"}, 64, "compress"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(transfer(row.arguments), row.code) << output;
        EXPECT_TRUE(says(row.text)) << output;
    }
}

TEST_F(transfer_console, copies_and_lists_in_the_older_protocol) {
    start_agents();
    write_file(folder.path + "/from/one", std::string(100000, 'x') + "\n");
    ASSERT_EQ(transfer({here("one"), there(""), "--legacy", "--compress", "yes"}), 0) << logs();
    EXPECT_EQ(read_file(folder.path + "/to/one").size(), 100001u);
    EXPECT_EQ(transfer({here("one"), there(""), "--legacy"}), 3) << logs();
    write_file(folder.path + "/from/lines", "a\nb\n");
    ASSERT_EQ(transfer({here("lines"), there(""), "--legacy", "--text", "--line-end", "crlf"}), 0) << logs();
    EXPECT_EQ(read_file(folder.path + "/to/lines"), "a\r\nb\r\n");

    ASSERT_EQ(qxcp({"dir", "HERE", folder.path + "/from/*"}), 0) << logs();
    EXPECT_TRUE(says(folder.path + "/from/one\n") && says(folder.path + "/from/lines\n")) << output;
    EXPECT_EQ(qxcp({"dir", "HERE", folder.path + "/nowhere/*"}), 1);
}

}  // namespace
