#include "base/text.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>

#include "base/code_tables.h"
#include "base/memory.h"
#include "base/time.h"

TEST(Wildcards, MatchTheWholeText) {
    struct {
        const char* text;
        const char* mask;
        int expected;
    } rows[] = {
        {"report.txt", "*.txt", 1},
        {"report.txt", "rep*", 1},
        {"report.txt", "r?port.txt", 1},
        {"report.txt", "*.TXT", 0},
        {"report.txt", "report", 0},
        {"", "", 1},
        {"", "*", 1},
        {"", "?", 0},
        {"aaab", "*a?", 1},
        {"abcabd", "*ab?d", 0},
        {"abcabxd", "*ab?d", 1},
        {"mississippi", "m*iss*pp?", 1},
        {"mississippi", "m*x*i", 0},
        {"a*b", "a*b", 1},
        {"abc", "***", 1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(MyStrMatch(row.text, row.mask), row.expected) << row.text << " " << row.mask;
    }
}

TEST(Wildcards, ManyStarsStayFast) {
    const std::string text(2000, 'a');
    std::string mask;
    for (int i = 0; i < 200; ++i) {
        mask += "a*";
    }
    EXPECT_EQ(MyStrMatch(text, mask + "b"), 0);
}

TEST(Fields, KeepTheirWidth) {
    char field[8];
    put_text(field, "abc");
    EXPECT_EQ(memcmp(field, "abc     ", 8), 0);
    put_text(field, "abcdefghij");
    EXPECT_EQ(memcmp(field, "abcdefgh", 8), 0);
    EXPECT_EQ(get_text(field), "abcdefgh");
    memcpy(field, "ab\0cdef ", 8);
    EXPECT_EQ(get_text(field), "ab");
    char blanks[4] = {' ', ' ', ' ', ' '};
    EXPECT_EQ(get_text(blanks), "");
    char text[] = "  a b  ";
    EXPECT_EQ(EatString(text), 3U);
    EXPECT_STREQ(text, "a b");
}

TEST(Base26, HasSevenLettersForAllBits) {
    char out[8];
    Zudnst_LongToB26(26, out);
    EXPECT_STREQ(out, "AAAAABA");
    Zudnst_LongToB26(0xFFFFFFFFU, out);
    EXPECT_STREQ(out, "NXMRLXV");
}

TEST(Numbers, AreTakenWholeAndInRange) {
    int64_t number = 0;
    EXPECT_TRUE(parse_number("65535", 1, 65535, &number));
    EXPECT_EQ(number, 65535);
    for (const char* bad : {"", " 1", "1 ", "65536", "0", "-1", "1x", "99999999999999999999"}) {
        EXPECT_FALSE(parse_number(bad, 1, 65535, &number)) << bad;
    }
    const unsigned char bytes[] = {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(CNV_Int(bytes, 1), -2);
    EXPECT_EQ(CNV_Int(bytes, 8), -2);
    EXPECT_EQ(CNV_X(bytes, 2), 0xFFFEU);
    EXPECT_EQ(CNV_Int(bytes, 3), 0);
    const uint32_t wire = iCnvU32(0x01020304U);
    EXPECT_EQ(memcmp(&wire, "\x04\x03\x02\x01", 4), 0) << "messages are little-endian";
}

TEST(Words, AreFoundByNumber) {
    EXPECT_EQ(get_word_delimited("a||c", '|', 1), "a");
    EXPECT_EQ(get_word_delimited("a||c", '|', 2), "");
    EXPECT_EQ(get_word_delimited("a||c", '|', 3), "c");
    EXPECT_EQ(get_word_delimited("a||c", '|', 4), "");
    EXPECT_EQ(get_word_delimited("a||c", '|', 0), "");
}

TEST(CodeTables, UseSubstituteAndInverse) {
    const auto at = [](char c) { return static_cast<unsigned char>(c); };
    unsigned char code[512] = {};
    for (int i = 0; i < 256; ++i) {
        code[i] = static_cast<unsigned char>(i ^ 0x20);
        code[256 + i] = CODE_FLAG_MAPPED;
    }
    code[256 + at('x')] = 0;
    unsigned char tab[256];
    SetCodeTab(tab, code);
    EXPECT_EQ(tab[at('x')], ' ');
    EXPECT_EQ(tab[at('a')], 'A');
    code[at('?')] = '#';
    code[256 + at('?')] = CODE_FLAG_MAPPED | CODE_FLAG_SUBSTITUTE;
    SetCodeTab(tab, code);
    EXPECT_EQ(tab[at('x')], '#');
    EX_PCX pcx;
    EXPECT_EQ(GetDefaultCode(&pcx).inverse[at('q')], 'q');
    EXPECT_EQ(SetDefaultCode(&pcx, code, 511), -1);
    ASSERT_EQ(SetDefaultCode(&pcx, code, 512), 0);
    const qx_code_tables* tables = pcx.pDefaultCode;
    EXPECT_EQ(tables->inverse[tables->forward[at('a')]], 'a');
    EXPECT_EQ(SetDefaultCode(&pcx, code, 512), 0);
    EXPECT_EQ(pcx.pDefaultCode.load(), tables) << "the same table again must not take new memory";
    unsigned char other[512];
    memcpy(other, code, sizeof other);
    other[0] = 'x';
    other[256] = CODE_FLAG_MAPPED;
    ASSERT_EQ(SetDefaultCode(&pcx, other, 512), 0);
    EXPECT_NE(pcx.pDefaultCode.load(), tables);
    ASSERT_EQ(SetDefaultCode(&pcx, code, 512), 0);
    EXPECT_EQ(pcx.pDefaultCode.load(), tables) << "nor tables that take turns";
}

TEST(Secrets, MoveAndForget) {
    qx_secret_text secret("password");
    EXPECT_TRUE(secret.assign(secret.view().substr(4)));
    EXPECT_EQ(secret.view(), "word");
    qx_secret_text other(std::move(secret));
    EXPECT_TRUE(secret.empty());  // NOLINT(bugprone-use-after-move): that it is empty is what counts
    EXPECT_STREQ(other.c_str(), "word");
    ASSERT_TRUE(other.resize(8));
    memcpy(other.data(), "ab", 2);
    other.trim_to_terminator();
    EXPECT_EQ(other.view(), "ab");
    EXPECT_TRUE(qx_equal_constant_time("abc", "abc", 3));
    EXPECT_FALSE(qx_equal_constant_time("abc", "abd", 3));
}

TEST(Stamps, HaveTheirForms) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    DATUM_BUFF moment;
    const time_t summer = 1751364245;  // 1 July 2025, 10:04:05 UTC
    GetDatumZeit2(&summer, &moment);
    EXPECT_STREQ(moment.text, "20250701/120405");
    EXPECT_EQ(moment.utc_hour, 10);
    EXPECT_EQ(moment.loc_isdst, 1);
    char text[32];
    CreateCharUtcTime(summer, text, sizeof text);
    EXPECT_STREQ(text, "20250701100405");
    GetDatumZeit2(nullptr, &moment);
    EXPECT_EQ(strlen(moment.text), 19U);
    EXPECT_EQ(moment.text[8], '/');
    EXPECT_EQ(moment.text[15], '.');
    EXPECT_EQ(sec2hhmmss(3725), "01:02:05");
}

TEST(AlarmClock, StartsAtTheWallClockAndRunsByItself) {
    const time_t now = alarm_now();
    EXPECT_NEAR(static_cast<double>(now), static_cast<double>(time(nullptr)), 2);
    EXPECT_FALSE(is_timer_elapsed(now, 30));
    alarm_clock_advance(31);
    EXPECT_TRUE(is_timer_elapsed(now, 30));
}
