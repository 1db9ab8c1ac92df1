#include "log/log.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <thread>

#include "base/locks.h"
#include "log/log_origin.h"
#include "log/log_output.h"
#include "log/trace.h"
#include "scratch.h"

namespace {

constexpr char library[] =
    "0000100EI'&01' started, version '&02'\n"
    "0000100DI'&01' gestartet, Version '&02'\n"
    "0000101EW&01 then $02\n"
    "0000102EEcosts 5$ & more &00&09\n"
    "0000103EI$01 and &02\n"
    "0000103EIsecond of the same number\n"
    "garbage\n"
    "99EXshort\n"
    "2003031EElog '&01' failed: &02\n"
    "2003032EIlog '&01' works again\n"
    "0000104EI";  // no text, no line end

// A context with library and log in a scratch directory.
struct LogTest : ::testing::Test {
    scratch dir;
    EX_PCX* pcx = new EX_PCX;

    void SetUp() override {
        GlbPcx = pcx;
        pcx->hlpHnd = ZUHELP_Open(dir.write("QXX.msl", library).c_str(), 2);
        ASSERT_NE(pcx->hlpHnd, nullptr);
        ZUHELP_SetLang(pcx->hlpHnd, 'e', 'd');
        strcpy(pcx->logFile, dir.at("log##").c_str());
        pcx->logCount = 3;
        ASSERT_EQ(CreateLogHandle(pcx), 0);
    }
    void TearDown() override {
        __log_set_logger(nullptr);
        LOG_FreeMsgStack(pcx);
        DeleteLogHandle(pcx);
        if (pcx->hlpHnd != nullptr) {
            ZUHELP_Close(pcx->hlpHnd);
        }
        GlbPcx = nullptr;
        delete pcx;
    }
    std::string message(int number, const char* inserts, int length = -1, size_t size = 2048) {
        std::string out(size, 'x');
        EXPECT_EQ(ZUHELP_Msg(pcx->hlpHnd, number, length, inserts, size, out.data(), nullptr), 0);
        return out.c_str();
    }
};

// The lines of a log without stamp; rows of a dump have blanks in its place.
std::vector<std::string> texts(const std::string& content) {
    std::vector<std::string> lines;
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);) {
        EXPECT_TRUE(has_form(line, "99999999/999999.999 - *") || line.starts_with(std::string(22, ' ')))
            << line;
        lines.push_back(line.substr(22));
    }
    return lines;
}

}  // namespace

TEST_F(LogTest, InsertsAreFilledInTheirOrder) {
    EXPECT_EQ(message(100, "QX7|1.0|"), "U00000100 'QX7' started, version '1.0'");
    EXPECT_EQ(message(100, "QX7"), "U00000100 'QX7' started, version ''");
    EXPECT_EQ(message(100, "QX7|1.0   ", 10), "U00000100 'QX7' started, version '1.0'");
    EXPECT_EQ(message(100, "QX7|1.0", 0), "U00000100 '' started, version ''");
    EXPECT_EQ(message(101, "a|b|c|d"), "U00000101 a then b|c|d");
    EXPECT_EQ(message(102, "a"), "U00000102 costs 5$ & more ");
    // All "&" are met before any "$": what stands before one is taken as it is.
    EXPECT_EQ(message(103, "a|b"), "U00000103 $01 and b");
    EXPECT_EQ(message(104, "a"), "U00000104 ");
    EXPECT_EQ(message(999, "a|b|"), "U00000999 a|b|");
    EXPECT_EQ(message(100, "QX7|1.0|", -1, 12), "U00000100 '");
    EXPECT_EQ(message(2147483647, "a|"), "U2147483647 a|");
    ZUHELP_SetLang(pcx->hlpHnd, 'D', 'E');
    EXPECT_EQ(message(100, "QX7|1.0|"), "U00000100 'QX7' gestartet, Version '1.0'");
    EXPECT_EQ(message(101, "a|b"), "U00000101 a|b") << "no other language is taken instead";
}

TEST_F(LogTest, LoneMarkersBecomeAnAmpersand) {
    EXPECT_EQ(zuhelp_fill("5$ only", ""), "5& only");
    EXPECT_EQ(zuhelp_fill("a&", "x"), "a&");
    EXPECT_EQ(zuhelp_fill("&1", "x"), "&1");
    EXPECT_EQ(zuhelp_fill("$01", "a|b|"), "a|b|");
}

TEST_F(LogTest, ALibraryThatIsNoneIsRefused) {
    EXPECT_EQ(ZUHELP_Open(dir.write("bad", "text\n0000100EIx\n").c_str(), 2), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ZUHELP_Open(dir.write("bad", "123456789EIx\n").c_str(), 2), nullptr);
    EXPECT_EQ(ZUHELP_Open(dir.at("none").c_str(), 2), nullptr);
    EXPECT_EQ(errno, ENOENT);
    char out[8];
    EXPECT_EQ(ZUHELP_Msg(nullptr, 1, -1, "", sizeof out, out, nullptr), 1);
}

TEST_F(LogTest, LinesHaveStampAndNumber) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    __log(100, "%s|%s|", "QX7", "1.0");
    LogMessage(-1, "a line");
    LogText("cut here", 3);
    __PutLogMessage(101, "");
    __log(100, "%s|", "two\nlines");
    const std::vector<std::string> expected = {"U00000100 'QX7' started, version '1.0'", "a line", "cut",
                                               "U00000101  then ",
                                               "U00000100 'two.lines' started, version ''"};
    EXPECT_EQ(texts(dir.read("log00")), expected);
    struct stat status;
    ASSERT_EQ(stat(dir.at("log00").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U) << "command lines stand in it";
    EXPECT_EQ(ZULOGG_GetLogFileSize(pcx->logHnd), static_cast<uint64_t>(status.st_size));
    EXPECT_EQ(ZULOGG_NrMsg(pcx->logHnd), 5);
    ZULOGG_Text(pcx->logHnd, std::string(5000, 'x').c_str(), -1);
    EXPECT_EQ(texts(dir.read("log00")).back().size(), 2047U - 22U);
}

TEST_F(LogTest, LinesOfAnotherProcessAreMarked) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    {
        const log_origin_mark mark("listener");
        __log(100, "%s|%s|", "QX7", "1.0");
        LogMessage(-1, "a line");
    }
    LogMessage(-1, "its own");
    const std::vector<std::string> expected = {"U00000100 'QX7' started, version '1.0' [listener]",
                                               "a line [listener]", "its own"};
    EXPECT_EQ(texts(dir.read("log00")), expected);
}

TEST_F(LogTest, TheThreadColumnAndDumpsLineUp) {
    pcx->logThreadFlag = 1;
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LogText("main", -1);
    std::thread([] { LogText("other", -1); }).join();
    const char data[40] = "0123456789abcdef0123456789abcdef0123\x01z";
    LogDump("title", data, 40);
    const std::vector<std::string> lines = texts(dir.read("log00"));
    EXPECT_EQ(lines[0], std::string(17, ' ') + "main");
    EXPECT_TRUE(has_form(lines[1], "XXXXXXXXXXXXXXXX other"));
    EXPECT_EQ(lines[2].find("U0009909 DUMP: (title)"), 17U);
    char figures[64];
    snprintf(figures, sizeof figures, "%p %.5d", static_cast<const void*>(data), 40);
    EXPECT_EQ(lines[2].substr(86 - 22), figures);
    ASSERT_EQ(lines.size(), 5U) << "two equal rows are one";
    EXPECT_NE(lines[3].find("00000000= 30313233 34353637 38396162 63646566  0123456789abcdef"),
              std::string::npos);
    EXPECT_NE(lines[4].find("00000020  30313233 017A0000 "), std::string::npos);
    EXPECT_NE(lines[4].find("0123.z.."), std::string::npos);
}

TEST_F(LogTest, GenerationsMoveUpAndTheOldestGoes) {
    for (int i = 0; i < 6; ++i) {
        ASSERT_EQ(OpenLogFile(pcx), 0);
        __PutLogText("run %d", i);
    }
    EXPECT_EQ(texts(dir.read("log00"))[0], "run 5");
    EXPECT_EQ(texts(dir.read("log01"))[0], "run 4");
    EXPECT_EQ(texts(dir.read("log03"))[0], "run 2");
    EXPECT_FALSE(dir.exists("log04"));

    std::string name = dir.at("a###b");
    dir.write("a999b", "old");
    dir.write("a998b", "new");
    EXPECT_EQ(ZULOGG_Reorg(name.data(), name.size() + 1, 32767), 0);
    EXPECT_EQ(name, dir.at("a000b"));
    EXPECT_EQ(dir.read("a999b"), "new") << "more generations than digits are capped";
    std::string plain = dir.at("a#b");
    ZULOGG_Reorg(plain.data(), plain.size() + 1, 3);
    EXPECT_EQ(plain, dir.at("a#b"));
    std::string none = dir.at("c##");
    dir.write("c00", "old");
    ZULOGG_Reorg(none.data(), none.size() + 1, 0);
    EXPECT_FALSE(dir.exists("c00"));
}

TEST_F(LogTest, AStrangersFolderInPlaceOfAGenerationIsMovedAside) {
    if (geteuid() != 0) {
        return;  // nobody else's folder can be made
    }
    ASSERT_EQ(chmod(dir.path.c_str(), 01777), 0);
    ASSERT_EQ(mkdir(dir.at("log02").c_str(), 0700), 0);
    dir.write("log02/kept", "");
    ASSERT_EQ(chown(dir.at("log02").c_str(), 12345, 12345), 0);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(OpenLogFile(pcx), 0);
        __PutLogText("run %d", i);
    }
    const std::vector<std::string> lines = texts(dir.read("log03"));
    ASSERT_EQ(lines.size(), 2U) << "the rotation that met it";
    EXPECT_NE(lines[0].find("/log03' was taken: a directory of user '?' (12345)"), std::string::npos)
        << lines[0];
    EXPECT_EQ(lines[1], "run 1");
    const size_t name = lines[0].find(".qx-");
    ASSERT_NE(name, std::string::npos);
    EXPECT_TRUE(dir.exists(lines[0].substr(name, 20) + "/kept"));
}

TEST_F(LogTest, ALinkInPlaceOfTheLogIsNotFollowed) {
    dir.write("victim", "precious");
    strcpy(pcx->logFile, dir.at("plain").c_str());
    ASSERT_EQ(symlink("victim", dir.at("plain").c_str()), 0);
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LogText("line", -1);
    EXPECT_EQ(dir.read("victim"), "precious");
    EXPECT_EQ(texts(dir.read("plain"))[0], "line");
}

TEST_F(LogTest, AnAgentWithoutItsFileGoesOnAndSaysSo) {
    strcpy(pcx->logFile, dir.at("none/log##").c_str());
    EXPECT_EQ(OpenLogFile(pcx), -1);
    LogText("kept in memory", -1);
    EXPECT_EQ(ZULOGG_NrMsg(pcx->logHnd), 1);

    // A full device: told once, on standard error too, and once more when it works again.
    strcpy(pcx->logFile, "/dev/full");
    ASSERT_EQ(OpenLogFile(pcx), 0);
    ZULOGG_FreeMsg(pcx->logHnd);
    testing::internal::CaptureStderr();
    LogText("a", -1);
    LogText("b", -1);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.find("U02003031 log '/dev/full' failed: "), 22u) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    strcpy(pcx->logFile, dir.at("log").c_str());
    ASSERT_EQ(OpenLogFile(pcx), 0);
    testing::internal::CaptureStderr();
    LogText("c", -1);
    LogText("d", -1);
    const std::string mended = testing::internal::GetCapturedStderr();
    EXPECT_EQ(mended.find("U02003032 log"), 22u) << mended;
    EXPECT_EQ(std::count(mended.begin(), mended.end(), '\n'), 1) << mended;
    std::vector<std::string> lines;
    log_guard guard;
    while (ZULOGG_MSG_BUFFER* line = ZULOGG_GetMsg(pcx->logHnd)) {
        lines.emplace_back(line->text + 22);
    }
    const std::vector<std::string> expected = {
        "a",
        std::string("U02003031 log '/dev/full' failed: ") + strerror(ENOSPC),
        "b",
        "c",
        "U02003032 log '" + dir.at("log") + "' works again",
        "d"};
    EXPECT_EQ(lines, expected);
}

TEST_F(LogTest, ALogThatWasMovedAwayBeginsAnewAndAnyOtherGoesOn) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LogText("first", -1);
    ASSERT_EQ(log_open_anew(pcx), 0);
    LogText("second", -1);
    EXPECT_EQ(texts(dir.read("log00")), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(ZULOGG_GetLogFileSize(pcx->logHnd), dir.read("log00").size());
    ASSERT_EQ(rename(dir.at("log00").c_str(), dir.at("moved").c_str()), 0);
    ASSERT_EQ(symlink(dir.at("moved").c_str(), dir.at("log00").c_str()), 0);
    ASSERT_EQ(log_open_anew(pcx), 0);
    LogText("third", -1);
    EXPECT_EQ(texts(dir.read("log00")), std::vector<std::string>{"third"});
    EXPECT_EQ(texts(dir.read("moved")).size(), 2U) << "a link is not followed";
    EXPECT_NE(access(dir.at("log01").c_str(), F_OK), 0) << "no generation is moved";
}

TEST_F(LogTest, TheLogsGroupIsASetting) {
    group* other = nullptr;
    gid_t groups[64];
    const int count = getgroups(64, groups);
    for (int i = 0; i < count && other == nullptr; ++i) {
        other = groups[i] == getegid() ? nullptr : getgrgid(groups[i]);
    }
    other = other == nullptr && geteuid() == 0 ? getgrnam("daemon") : other;
    if (other == nullptr) {
        GTEST_SKIP() << "needs root or a second group";
    }
    const gid_t wanted = other->gr_gid;
    const std::string ini = dir.write("ini", std::string("[GLOBAL]\nlog_group = ") + other->gr_name + "\n");
    strcpy(pcx->IniFile, ini.c_str());
    ASSERT_EQ(OpenLogFile(pcx), 0);
    struct stat status;
    ASSERT_EQ(stat(dir.at("log00").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, wanted);
    dir.write("ini", "[GLOBAL]\nlog_group = no-such-group\n");
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LogText("", -1);
    ASSERT_EQ(stat(dir.at("log00").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, getegid());
    EXPECT_NE(dir.read("log00").find("'no-such-group', which is no group of this host"), std::string::npos);
}

TEST_F(LogTest, LinesInMemoryAreTakenPutBackAndRemoved) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    for (const char* text : {"1", "2", "3", "4"}) {
        LogText(text, -1);
    }
    log_guard guard;
    ZULOGG_GetMsg(pcx->logHnd);
    ZULOGG_GetMsg(pcx->logHnd);
    ZULOGG_MSG_BUFFER* third = ZULOGG_GetMsg(pcx->logHnd);
    EXPECT_STREQ(third->text + 22, "3");
    ZULOGG_PutMsg(pcx->logHnd, third);
    EXPECT_EQ(ZULOGG_DelMsg(pcx->logHnd), 2);
    EXPECT_EQ(pcx->LogBuffRecNr, 2);
    EXPECT_STREQ(ZULOGG_GetMsg(pcx->logHnd)->text + 22, "3");
    EXPECT_STREQ(ZULOGG_GetMsg(pcx->logHnd)->text + 22, "4");
    EXPECT_EQ(ZULOGG_GetMsg(pcx->logHnd), nullptr);
    EXPECT_EQ(ZULOGG_DelMsg(pcx->logHnd), 2);
    LogText("5", -1);
    EXPECT_STREQ(ZULOGG_GetMsg(pcx->logHnd)->text + 22, "5");
}

TEST_F(LogTest, TooManyLinesDropTheOldestAndTellHowMany) {
    ZULOGG_UseMsg(pcx->logHnd, true);
    for (int i = 0; i < log_memory_lines + 7; ++i) {
        ZULOGG_SetMsg(pcx->logHnd, std::to_string(i).c_str(), -1);
    }
    EXPECT_EQ(ZULOGG_NrMsg(pcx->logHnd), log_memory_lines);
    log_guard guard;
    EXPECT_NE(strstr(ZULOGG_GetMsg(pcx->logHnd)->text, " - 7 log lines were dropped"), nullptr);
    EXPECT_STREQ(ZULOGG_GetMsg(pcx->logHnd)->text, "7");
}

TEST_F(LogTest, TheTailSurvivesALogChange) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LogText("before", -1);
    EXPECT_EQ(LOG_CreateMsgStack(pcx), 3);
    LogText("after", -1);
    EXPECT_EQ(LOG_CreateMsgStack(pcx), 3) << "made once";
    ASSERT_EQ(OpenLogFile(pcx), 0);
    EXPECT_EQ(LOG_LogMsgStack(pcx), 3);
    const std::vector<std::string> lines = texts(dir.read("log00"));
    EXPECT_EQ(lines[0], std::string(132, '='));
    EXPECT_TRUE(lines[1].ends_with(" - before"));
    EXPECT_EQ(LOG_FreeMsgStack(pcx), 3);
    EXPECT_EQ(LOG_LogMsgStack(pcx), 0);
}

// Each log begins with them: as many as wait for a server that was away for days would begin the next log at
// once.
TEST_F(LogTest, OfManyLinesTheFirstAndTheLastSurvive) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    for (int i = 0; i < 50000; ++i) {
        ZULOGG_SetMsg(pcx->logHnd, ("line " + std::to_string(i)).c_str(), -1);
    }
    LOG_CreateMsgStack(pcx);
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LOG_LogMsgStack(pcx);
    const std::string log = dir.read("log00");
    EXPECT_LT(log.size(), 1U << 20);
    for (const char* kept :
         {" - line 0\n", " - line 9999\n", "left out", " - line 40000\n", " - line 49999\n"}) {
        EXPECT_NE(log.find(kept), std::string::npos) << kept;
    }
    EXPECT_EQ(log.find(" - line 25000\n"), std::string::npos);
}

TEST_F(LogTest, WithoutALogTheFixedMessagesAreShown) {
    DeleteLogHandle(pcx);
    testing::internal::CaptureStdout();
    LogMessage(2003041, "access()|/x|2|No such file|");
    LogMessage(2000002, "A|12|");
    LogMessage(2000099, "a|");
    LogMessage(-1, "text");
    pcx->running_mode = MODE_FTX;
    LogMessage(2000041, "child|");
    pcx->running_mode = MODE_AGENT;
    const std::string out = testing::internal::GetCapturedStdout();
    const char* expected[] = {
        " U2003041 Invalid 'access()' call, file name '/x'. Error code: ('2' - 'No such file')\n",
        " U2000002 QX7 agent 'A' version '12' ended abnormaly\n", " U2000099 Invalid LogMessage-call a|\n",
        " text\n"};
    for (const char* line : expected) {
        EXPECT_NE(out.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(out.find("child"), std::string::npos);
}

// A forked child neither writes to the agent's log nor rotates it, and its lines go to its logger.
TEST_F(LogTest, AChildLeavesTheLogAlone) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    LogText("parent", -1);
    global_fork_lock(pcx);
    const pid_t pid = fork();
    if (pid == 0) {
        global_fork_init_locks(pcx);
        pcx->running_mode = MODE_FTX;
        log_forget_in_child(pcx);
        __log(100, "lost|");
        static int calls = 0;
        __log_set_logger([](int number, const char*) { calls += number; });
        __log(100, "x|");
        __PutLogText("y");
        const bool refused = OpenLogFile(pcx) == -1;
        _exit(calls == 99 && refused && pcx->logHnd == nullptr ? 0 : 1);
    }
    global_fork_unlock(pcx);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    LogText("parent again", -1);
    const std::vector<std::string> expected = {"parent", "parent again"};
    EXPECT_EQ(texts(dir.read("log00")), expected);
    EXPECT_FALSE(dir.exists("log01"));
}

TEST_F(LogTest, ManyThreadsWriteWholeLines) {
    ASSERT_EQ(OpenLogFile(pcx), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                __log(100, "%s|%d|", "worker", i);
            }
        });
    }
    for (int i = 0; i < 5; ++i) {
        OpenLogFile(pcx);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ZULOGG_NrMsg(pcx->logHnd), 800);
    for (const std::string& line : texts(dir.read("log00"))) {
        EXPECT_TRUE(line.starts_with("U00000100 'worker' started, version '") && line.ends_with("'")) << line;
    }
}
