#include "messages/catalogue.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Catalogue, HoldsEveryNameOnceAndInOrder) {
    const MSGTAB* table = get_msgtab();
    ASSERT_GT(table->count, 0);
    for (int64_t i = 1; i < table->count; ++i) {
        EXPECT_LT(std::string(table->entries[i - 1].name), table->entries[i].name);
    }
    for (int64_t i = 0; i < table->count; ++i) {
        EXPECT_GE(std::string(table->entries[i].name).size(), 8U);
        EXPECT_EQ(find_definition(table, table->entries[i].name), &table->entries[i]);
    }
}

TEST(Catalogue, FindsByPaddedNameOnly) {
    const MSGTAB* table = get_msgtab();
    struct row {
        const char* text;
        const char* found;
    };
    const row cases[] = {
        {"FTXQUIT ", "FTXQUIT "}, {"ftxquit ", "FTXQUIT "}, {"TIMESTAMP", "TIMESTAMP"},
        {"TIMESTAM", nullptr},    {"QUITT2_R", nullptr},    {"EXCHKJ  ", nullptr},
        {"FT-RECV2", nullptr},    {"FT_SEND2", nullptr},    {"", nullptr},
        {"GET     ", "GET     "}, {"ZZZZZZZZ", nullptr},    {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", nullptr}};
    for (const row& row : cases) {
        const msgtab_el* entry = find_definition(table, row.text);
        EXPECT_EQ(entry == nullptr, row.found == nullptr) << row.text;
        EXPECT_TRUE(entry == nullptr || row.found == nullptr || std::string_view(entry->name) == row.found);
    }
}

}  // namespace
