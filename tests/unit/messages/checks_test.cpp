#include "messages/checks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "message_images.h"

namespace {

std::vector<std::pair<int, std::string>> logged;

msgconv_ctx_t logging_context() {
    msgconv_ctx_t ctx;
    ctx.logWrite = [](int number, const char* insert) { logged.emplace_back(number, insert); };
    logged.clear();
    return ctx;
}

struct ChecksTest : testing::Test {
    void TearDown() override { msgconv_close(); }
};

msg_el field(const char* expression, int type, int size) {
    return {"field", "", expression, 1, size, 0, 0, 0, 0, static_cast<uint8_t>(type), 1, 0, 0};
}

std::string bytes_of(int64_t value, size_t size) {
    return std::string(reinterpret_cast<const char*>(&value), size);
}

TEST_F(ChecksTest, EachCheckTellsItsFault) {
    struct row {
        const char* expression;
        int type, size;
        std::string data;
        int failed;
        int code;  // first number logged, 0 when the check passes
        const char* insert;
    };
    const std::vector<row> rows = {
        {"gt(0)", 1, 4, bytes_of(1, 4), 0, 0, ""},
        {"gt(0)", 1, 4, bytes_of(0, 4), 1, 2000207, "0 > 0|"},
        {"gt(-2)", 1, 4, bytes_of(-1, 4), 0, 0, ""},
        {"gt(0)", 1, 1, bytes_of(-1, 1), 0, 0, ""},
        {"gt(0)", 1, 8, bytes_of(5, 8), 1, 2000208, "8|"},
        {"ne(0)", 1, 4, bytes_of(0, 4), 1, 2000207, "0 != 0|"},
        {"ne(0)", 1, 8, bytes_of(0, 8), 1, 2000207, "0 != 0|"},
        {"ne(0)", 1, 2, bytes_of(3, 2), 0, 0, ""},
        {"ne(5)", 1, 1, bytes_of(5, 1), 0, 0, ""},
        {"range(0, 32768)", 1, 4, bytes_of(32768, 4), 0, 0, ""},
        {"range(0, 32768)", 1, 4, bytes_of(32769, 4), 1, 2000207, "Value '32769' not in range.|"},
        {"range(0,59)", 1, 2, bytes_of(-1, 2), 1, 2000207, "Value '-1' not in range.|"},
        {"range(0,59)", 1, 8, bytes_of(60, 8), 1, 2000207, "Value '60' not in range.|"},
        {"range(0,59)", 1, 1, bytes_of(99, 1), 0, 0, ""},
        {"lt(32768)", 1, 4, bytes_of(32768, 4), 0, 0, ""},
        {"lt(32768)", 1, 4, bytes_of(32769, 4), 1, 1, "32769 < 32768|"},
        {"eq(5)", 1, 4, bytes_of(5, 4), 1, 2000212, "EQ|M.field|"},
        {"eq(5)", 1, 4, bytes_of(6, 4), 0, 0, ""},
        {"enum(1,0)", 1, 1, bytes_of(0, 1), 0, 0, ""},
        {"enum(0,1,2)", 1, 4, bytes_of(3, 4), 1, 2000207, "Invalid value '3'.|"},
        {"enum(7)", 1, 8, bytes_of(8, 8), 1, 2000207, "Invalid value '8'.|"},
        {"enum('R', 'F', 'E', 'C' )", 3, 1, "C", 0, 0, ""},
        {"enum('Y','N')", 3, 1, "X", 1, 2000207, "Invalid value 'X'.|"},
        {"enum(\"AB\",\"CD\")", 3, 2, "CD", 0, 0, ""},
        {"enum(\"AB\",\"CD\")", 3, 2, "CE", 1, 2000207, "Invalid value 'CE'.|"},
        {"notempty()", 3, 4, "    ", 1, 2000207, "String must not be empty.|"},
        {"notempty()", 3, 4, std::string(4, '\0'), 0, 0, ""},
        {"NotEmpty()", 5, 4, "", 1, 2000207, "String must not be empty.|"},
        {"ne(\"AB\")", 3, 2, "AB", 0, 0, ""},
        {"ne(\"AB\")", 3, 2, "AC", 1, 2000212, "NE|M.field|"},
        {"gt(0)", 1, 4, "    ", 1, 1, "Numeric cannot contain blanks.|"},
        {"notblank()", 1, 2, "  ", 1, 1, "Numeric cannot contain blanks.|"},
        {"gt(0) and ne(7)", 1, 4, bytes_of(7, 4), 1, 2000207, "7 != 7|"},
    };
    for (const row& row : rows) {
        msgconv_ctx_t ctx = logging_context();
        msg_el element = field(row.expression, row.type, row.size);
        msg_error error;
        ASSERT_EQ(compileCheckStream(&ctx, &element, &error), 0) << row.expression;
        ASSERT_GE(element.chkptr, 8) << row.expression;
        EXPECT_EQ(
            readAndEvaluateStream(&ctx, &element, reinterpret_cast<const unsigned char*>(row.data.data()),
                                  row.data.size(), "M.field"),
            row.failed)
            << row.expression;
        if (row.failed == 0) {
            EXPECT_TRUE(logged.empty()) << row.expression;
            continue;
        }
        ASSERT_FALSE(logged.empty()) << row.expression;
        EXPECT_EQ(logged[0], (std::pair<int, std::string>(row.code, row.insert))) << row.expression;
        EXPECT_EQ(logged.back().first, 2000212) << row.expression;
    }
}

TEST_F(ChecksTest, RefusesWhatItCannotCompile) {
    struct row {
        const char* expression;
        int type, size;
        int code;  // first number logged, 0: only the error of the whole
        const char* insert;
    };
    for (const row& row : std::vector<row>{{"gt 0", 1, 4, 2000209, "Unable to find '(' character."},
                                           {"gt(0", 1, 4, 2000209, "Unable to find ')' character."},
                                           {"gt(0;1)", 1, 4, 2000209, "Invalid argument syntax '0;1'."},
                                           {"gt(0,1)", 1, 4, 2000210, "gt(0,1)|1|2|"},
                                           {"gt()", 1, 4, 2000210, "gt()|1|0|"},
                                           {"gt(0)", 3, 4, 2000211, "GT|String Padded|"},
                                           {"ne(0)", 7, 4, 2000211, "NE|Binary Sized|"},
                                           {"enum(Y)", 3, 1, 2000209, "Missing ''' character."},
                                           {"enum('YN')", 3, 1, 2000209, "Invalid char ''YN'' argument."},
                                           {"enum(AB)", 3, 2, 2000209, "Missing '\"' character."},
                                           {"perhaps", 1, 4, 0, ""}}) {
        msgconv_ctx_t ctx = logging_context();
        msg_el element = field(row.expression, row.type, row.size);
        msg_error error;
        EXPECT_EQ(compileCheckStream(&ctx, &element, &error), -1) << row.expression;
        EXPECT_EQ(error.code, 2000209);
        EXPECT_EQ(error.subst, std::string(row.expression) + "|");
        EXPECT_EQ(element.chkptr, 0);
        ASSERT_EQ(logged.empty(), row.code == 0) << row.expression;
        if (row.code != 0) {
            EXPECT_EQ(logged[0], (std::pair<int, std::string>(row.code, row.insert))) << row.expression;
        }
    }
}

TEST_F(ChecksTest, CatalogueCompilesWholeAndFailuresRefuseNothing) {
    msgconv_ctx_t ctx = logging_context();
    std::atomic<char> level = '0';
    ASSERT_EQ(msgconv_open(
                  &ctx, &level, nullptr, nullptr, ctx.logWrite,
                  [](char* buffer, size_t size) { snprintf(buffer, size, "diagnostic"); }, 1),
              0);
    ASSERT_FALSE(logged.empty());
    EXPECT_EQ(logged.back(), (std::pair<int, std::string>(2000215, "146|146|")));
    for (const auto& line : logged) {
        EXPECT_TRUE(line.first == 2000214 || line.first == 2000215) << line.second;
    }

    logged.clear();
    msg_error error;
    image message = make_image("JOB_DEL", "01", 20);
    EXPECT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_EQ(logged, (std::vector<std::pair<int, std::string>>{
                          {2000207, "0 > 0|"}, {2000212, "GT|JOB_DEL.ah_idnr|"}, {2000216, "diagnostic|"}}));

    // The file's writer may ask for the message; nobody else gets it, and no file is no line.
    static size_t dumped = 0;
    ctx.trcDump = [](const char*, const void*, size_t length) { dumped += length; };
    ctx.errorAction = [](char*, size_t) { msgconv_dump_failed_message(); };
    logged.clear();
    EXPECT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    msgconv_dump_failed_message();
    EXPECT_EQ(dumped, message.size());
    EXPECT_EQ(logged.back().first, 2000212);

    msgconv_close();
    logged.clear();
    EXPECT_EQ(ToHOST(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_TRUE(logged.empty());
}

TEST_F(ChecksTest, LeavesFieldsAloneThatMustNotBeTouched) {
    msgconv_ctx_t ctx = logging_context();
    msg_el elements[] = {field("gt(0)", 1, 4), field("notempty()", 3, 4)};
    elements[1].count = 2;
    msg_error error;
    for (msg_el& element : elements) {
        ASSERT_EQ(compileCheckStream(&ctx, &element, &error), 0);
    }
    msgtab_el entry = {"TEST    ", {2, elements}, 24};
    MSGTAB table = {1, &entry};
    ctx.table = &table;
    image message = make_image("TEST", "01", 24);
    memset(message.data() + 20, ' ', 4);
    EXPECT_EQ(ToLAN(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_EQ(logged.size(), 4U);
    logged.clear();
    for (msg_el& element : elements) {
        element.rule = rule_no_touch;
    }
    EXPECT_EQ(ToLAN(message.data(), message.size(), &ctx, 0, nullptr, &error), walk_accepted);
    EXPECT_TRUE(logged.empty());
}

}  // namespace
