// `qxcp cat`: files of the agent's host through the running programs.
#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "console_fixture.h"

namespace {

struct file_retrieval : console {
    installation host{"FILES", port};
    std::string own_user = getpwuid(geteuid())->pw_name;

    void SetUp() override {
        serve();
        log_on(host);
    }
    int cat(const std::string& file, const std::vector<std::string>& more = {}) {
        std::vector<std::string> words{"cat", "FILES", file, "--user", own_user};
        words.insert(words.end(), more.begin(), more.end());
        return qxcp(words);
    }
};

TEST_F(file_retrieval, prints_lines_and_bytes) {
    std::string text;
    for (int i = 1; i <= 200000; ++i) {
        text += "line " + std::to_string(i) + "\n";
    }
    const std::string file = folder.path + "/text";
    write_file(file, text);
    EXPECT_EQ(cat(file), 0);
    EXPECT_EQ(output, text);
    EXPECT_EQ(cat(file, {"--tail", "2"}), 0);
    EXPECT_EQ(output, "line 199999\nline 200000\n");
    EXPECT_EQ(cat(file, {"--head", "150000"}), 0);
    EXPECT_EQ(output, text.substr(0, text.find("line 150001\n")));
    EXPECT_EQ(cat(file, {"--bytes", "11"}), 0);
    EXPECT_EQ(output, "line 1\nline");
    EXPECT_EQ(cat(file, {"--tail", "1", "--json"}), 0);
    const auto told = nlohmann::json::parse(output);
    EXPECT_EQ(told["text"], "line 200000\n");
    EXPECT_EQ(told["position"], text.size() - 12);
    write_file(file, std::string("\xFF\xFE\xE4\0\n\0b\0\n\0", 10));
    EXPECT_EQ(cat(file, {"--head", "1", "--encoding", "auto"}), 0);
    EXPECT_EQ(output, "\xC3\xA4\n");
    EXPECT_EQ(cat(file, {"--tail", "1", "--encoding", "ucs2le"}), 0);
    EXPECT_EQ(output, "b\n");
    EXPECT_TRUE(host.log_has("U02000256"));
}

TEST_F(file_retrieval, tells_what_cannot_be_read) {
    EXPECT_EQ(cat(folder.path + "/missing"), 1);
    EXPECT_TRUE(says("No such file")) << output;
    EXPECT_EQ(qxcp({"cat", "OTHER", "/etc/passwd"}), 1);
    EXPECT_TRUE(says("not logged on")) << output;
    EXPECT_EQ(cat("/etc/passwd", {"--tail", "1", "--head", "1"}), 64);
    EXPECT_EQ(cat("/etc/passwd", {"--head", "1"}), 0) << output;  // and the agent goes on
}

TEST_F(file_retrieval, an_agent_that_says_nothing_is_given_up) {
    write_file(folder.path + "/text", "one\n");
    host.agent.signal(SIGSTOP);
    EXPECT_EQ(cat(folder.path + "/text", {"--time-limit", "1"}), 1);
    EXPECT_TRUE(says("sent nothing for 1 seconds")) << output;
    host.agent.signal(SIGCONT);
    EXPECT_EQ(cat(folder.path + "/text"), 0) << output;
    EXPECT_EQ(output, "one\n");
    // Neither what was given up nor what was printed stays on the server.
    EXPECT_TRUE(wait_until(10000, [&] {
        return run_program({"/bin/sh", "-c", "ls " + data() + "/reports | grep -c part"}, output) == 1;
    })) << output;
}

}  // namespace
