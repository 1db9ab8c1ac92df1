#include "log/trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "scratch.h"

namespace {

struct TraceTest : ::testing::Test {
    scratch dir;
    EX_PCX* pcx = new EX_PCX;

    void SetUp() override {
        GlbPcx = pcx;
        strcpy(pcx->trc_file, dir.at("t##").c_str());
        pcx->trc_count = 3;
        pcx->trcHnd = ZUTRACE_Open("");
    }
    void TearDown() override {
        ZUTRACE_Close(pcx->trcHnd);
        free(pcx->trc_trigger_text);
        GlbPcx = nullptr;
        delete pcx;
    }
    void set_ini(const std::string& text) { strcpy(pcx->IniFile, dir.write("ini", text).c_str()); }
    std::string flags() const {
        std::string text;
        for (const std::atomic<char>& level : pcx->trcFlgs) {
            text += level.load();
        }
        return text;
    }
};

size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace

TEST_F(TraceTest, LevelsComeFromTheirKeys) {
    set_ini("[TRACE]\ntcp/ip=3\nfiletransfer=2\nevent=0\nfh_debug=4\nmail=x\nft_debug=0\nmemory=1\n");
    InitTrcFlgs(pcx);
    EXPECT_EQ(flags(), "3200040000000100");
    EXPECT_TRUE(trc_on(TRC_TCPIP));
    EXPECT_TRUE(trc_on(TRC_TCPIP, '3'));
    EXPECT_FALSE(trc_on(TRC_TCPIP, '4'));
    EXPECT_FALSE(trc_on(TRC_JOB));
    set_ini("[TRACE]\nall_trace=9\ntcp/ip=0\n");
    InitTrcFlgs(pcx);
    EXPECT_EQ(flags(), "9999999999999900");
    trc_set_flags(pcx, "12a\n5");
    EXPECT_EQ(flags(), "1200500000000000");
    GlbPcx = nullptr;
    EXPECT_FALSE(trc_on(TRC_TCPIP));
    GlbPcx = pcx;
}

TEST_F(TraceTest, TextsAndDumpsHaveTheirForms) {
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    _TraceText("number %d   ", 7);
    std::thread([] { _TraceText("other"); }).join();
    unsigned char data[20] = "0123456789abcdefXYZ";
    trcdump("title", data, 0);
    trcdump_limited("limited", data, 20, 19);
    const std::string content = dir.read("t00");
    std::vector<std::string> lines;
    std::istringstream in(content);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_TRUE(has_form(lines[0], "MAIN-THREAD      99999999/999999.999 number 7"));
    EXPECT_TRUE(has_form(lines[1], "XXXXXXXXXXXXXXXX 99999999/999999.999 other"));
    EXPECT_EQ(lines[2].find("U0009909 TRACE: (title)"), 37U);
    char figures[64];
    snprintf(figures, sizeof figures, "  %p 00000", static_cast<void*>(data));
    EXPECT_EQ(lines[2].substr(83), figures);
    EXPECT_EQ(lines[4].substr(37), "00000000  30313233 34353637 38396162 63646566  0123456789abcdef");
    EXPECT_EQ(lines[5].substr(37, 18), "00000010  58595A  ");
    struct stat status;
    ASSERT_EQ(stat(dir.at("t00").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U) << "whole messages stand in it";
}

TEST_F(TraceTest, ALimitAsksForANewFile) {
    pcx->trc_file_limit = 200;
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    _TraceText("%s", std::string(100, 'a').c_str());
    EXPECT_EQ(pcx->pcx_todo_flag & PCX_TODO_TRACE_FILE, 0);
    _TraceText("%s", std::string(100, 'b').c_str());
    EXPECT_EQ(pcx->pcx_todo_flag & PCX_TODO_TRACE_FILE, PCX_TODO_TRACE_FILE);
    ASSERT_EQ(ChangeTraceFile(pcx->trcHnd, nullptr), 0);
    _TraceText("new file");
    EXPECT_EQ(count_of(dir.read("t00"), "\n"), 1U);
    EXPECT_EQ(count_of(dir.read("t01"), "\n"), 2U);
}

TEST_F(TraceTest, ATriggerEndsTheTraceAtItsFirstMatch) {
    pcx->trc_trigger_text = strdup("*boo?*");
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    trc_set_flags(pcx, "9999");
    _TraceText("boo");
    EXPECT_EQ(flags().substr(0, 4), "9999");
    _TraceText("now boom");
    EXPECT_EQ(flags(), std::string(16, '0'));
    _TraceText("after");
    EXPECT_EQ(count_of(dir.read("t00"), "after"), 0U);
    zutrace_start_tracing(pcx->trcHnd);
    _TraceText("boom again");
    EXPECT_EQ(pcx->trcHnd->flag & TRACE_ACTIVE, TRACE_ACTIVE) << "the trigger is consumed";
}

TEST_F(TraceTest, TheRingKeepsTheLastLinesAndIsWrittenOnATrigger) {
    pcx->trc_flag = TRC_SETTING_MEMORY;
    pcx->trc_max_size = 1;
    pcx->trc_trigger_text = strdup("*END*");
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    EXPECT_FALSE(dir.exists("t00")) << "no file before the trigger";
    const std::string filler(200, 'f');
    for (int i = 0; i < 20000; ++i) {
        _TraceText("line %.6d %s", i, filler.c_str());
    }
    const PZUTRACE trace = pcx->trcHnd;
    uint64_t size = 0;
    uint32_t number = 0;
    for (const __ring_trace_block& block : trace->rtbs) {
        size += block.rt_size;
        number += block.rt_num;
    }
    EXPECT_EQ(trace->rt_size, size);
    EXPECT_EQ(trace->rt_num, number);
    EXPECT_GE(trace->rt_size, 7U * trace->rtbs[0].rt_maxsize - 7 * 352);
    uint32_t walked = 0;
    for (const _ring_trace* entry = trace->rtf; entry != nullptr; entry = entry->nxt) {
        ++walked;
    }
    EXPECT_EQ(walked, number);
    EXPECT_STREQ(trace->rt_lid_char, "LASTID-00004E20");
    _TraceText("END");
    const std::string content = dir.read("t00");
    EXPECT_EQ(count_of(content, "\n"), number + 1);
    EXPECT_NE(content.find("line 019999"), std::string::npos);
    EXPECT_EQ(content.find("line 000000"), std::string::npos);
    EXPECT_TRUE(content.ends_with("END\n"));
}

TEST_F(TraceTest, ADumpTooLargeForTheRingIsCut) {
    ASSERT_EQ(trc_set_rt_size(pcx->trcHnd, 1), 0);
    zutrace_start_tracing(pcx->trcHnd);
    const size_t block = pcx->trcHnd->rtbs[0].rt_maxsize;
    const std::string data(block * 3, 'd');
    trcdump("large", data.data(), static_cast<int>(data.size()));
    const _ring_trace* entry = pcx->trcHnd->rtf;
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->dump_len, block / 2);
    char note[64];
    snprintf(note, sizeof note, "*** DUMP AREA TRUNCATED TO %zu bytes ***", block / 2);
    EXPECT_EQ(memcmp(entry->dump + block / 2 - 64, note, strlen(note)), 0);
    EXPECT_EQ(entry->dump[block / 2 - 65], 'd');
    // The longest dump that is not cut, with a long title: it still fits into one block.
    trcdump(std::string(2047, 't').c_str(), data.data(), static_cast<int>(block - 1025));
    for (int i = 0; i < 40; ++i) {
        trcdump("again", data.data(), static_cast<int>(block / 3));
    }
    EXPECT_LE(pcx->trcHnd->rt_size, 8U * block);
    strcpy(pcx->trcHnd->filename, dir.at("ring").c_str());
    EXPECT_GT(trc_rt_flush(pcx->trcHnd), 14);
    EXPECT_EQ(trc_rt_flush(pcx->trcHnd), 0);
    EXPECT_EQ(trc_set_rt_size(pcx->trcHnd, 0), 0);
    EXPECT_EQ(pcx->trcHnd->flag & TRACE_RING, 0);
}

TEST_F(TraceTest, AFileThatCannotBeMadeLeavesTheTraceInItsOwn) {
    strcpy(pcx->trc_file, dir.at("own##").c_str());
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    _TraceText("before");
    EXPECT_NE(ChangeTraceFile(pcx->trcHnd, dir.at("no/such/folder").c_str()), 0);
    _TraceText("behind");
    EXPECT_NE(dir.read("own00").find("behind"), std::string::npos);
    EXPECT_NE(dir.read("own01").find("before"), std::string::npos);
}

TEST_F(TraceTest, AChildHasAFileOfItsOwnOnceItWrites) {
    char name[4096];
    trace_name_for_child(pcx->trc_file, "-listener", name, sizeof name);
    EXPECT_EQ(name, dir.at("t##-listener"));
    trace_name_for_child("plain", "-x", name, sizeof name);
    EXPECT_STREQ(name, "plain-x");
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    _TraceText("agent");
    pcx->running_mode = MODE_LISTENER;
    zutrace_forget_file(pcx->trcHnd);
    strcpy(pcx->trc_file, dir.at("t##-listener").c_str());
    ASSERT_EQ(OpenTraceFile(pcx), 0);
    EXPECT_FALSE(dir.exists("t00-listener"));
    _TraceText("listener");
    EXPECT_EQ(count_of(dir.read("t00-listener"), "listener"), 1U);
    EXPECT_EQ(count_of(dir.read("t00"), "agent"), 1U);
}

TEST_F(TraceTest, AFileThatCannotBeMadeIsToldOnce) {
    strcpy(pcx->trc_file, dir.at("none/t##").c_str());
    testing::internal::CaptureStdout();
    EXPECT_NE(OpenTraceFile(pcx), 0);
    _TraceText("a");
    _TraceText("b");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count_of(out, "could not be created, error=2("), 1U) << out;
}
