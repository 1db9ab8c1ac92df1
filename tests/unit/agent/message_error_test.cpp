#include "agent/message_error.h"

#include <sys/stat.h>

#include <thread>

#include "agent_fixture.h"
#include "message_images.h"
#include "messages/conversion.h"

namespace {

std::string content_of(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The file that the last failed check left, "" without one.
std::string last_file() {
    std::string name;
    for (const auto& line : log_lines) {
        if (line.number == 2000216) {
            name = line.insert.substr(0, line.insert.find('|'));
        }
    }
    return name;
}

void send_faulty(EX_PCX* pcx) {
    image message = make_image("JOB_DEL", "01", 20);
    EXPECT_EQ(msgconv_ToHost(message.data(), message.size(), pcx->pcx_msgctx), 0);
}

}  // namespace

TEST(MessageError, LeavesAFileWithTheMessageAndOnTheMainThreadTheTables) {
    installed_agent agent;
    agent.sections.insert(agent.sections.find('\n') + 1, "chkstr=1\n");
    ASSERT_NE(agent.init(), nullptr);
    const PZUTRACE trace = agent.pcx->trcHnd;

    send_faulty(agent.pcx);
    const std::string first = last_file();
    ASSERT_NE(first, "");
    const std::string whole = content_of(first);
    EXPECT_NE(whole.find("JOB_DEL"), std::string::npos);
    EXPECT_NE(whole.find("ah_idnr: Signed Integer at 16, 4 bytes"), std::string::npos);
    EXPECT_NE(whole.find("TRACE: (EX_PCX)"), std::string::npos);
    struct stat status;
    ASSERT_EQ(stat(first.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    EXPECT_EQ(agent.pcx->trcHnd, trace);

    std::thread([&] { send_faulty(agent.pcx); }).join();
    const std::string second = last_file();
    ASSERT_NE(second, first);
    EXPECT_NE(content_of(second).find("JOB_DEL"), std::string::npos);
    EXPECT_EQ(content_of(second).find("EX_PCX"), std::string::npos);

    for (int i = 0; i < 200; ++i) {
        send_faulty(agent.pcx);
    }
    EXPECT_LE(logged_count(2000216), 100) << "a faulty sender must not fill the disk";
    EXPECT_GE(logged_count(2000212), 200);
    msgconv_close();
}
