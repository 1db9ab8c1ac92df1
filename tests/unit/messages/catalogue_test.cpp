#include "messages/catalogue.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

TEST(Catalogue, HoldsEveryNameOnceAndInOrder) {
    const MSGTAB* table = get_msgtab();
    ASSERT_EQ(table->count, 177);
    for (int64_t i = 1; i < table->count; i++)
        EXPECT_LT(std::string(table->entries[i - 1].name), table->entries[i].name);
    for (int64_t i = 0; i < table->count; i++) {
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
    for (const row& row : {row{"FTXQUIT ", "FTXQUIT "},
                           {"ftxquit ", "FTXQUIT "},
                           {"TIMESTAMP", "TIMESTAMP"},
                           {"TIMESTAM", nullptr},
                           {"QUITT2_R", nullptr},
                           {"EXCHKJ  ", nullptr},
                           {"FT-RECV2", nullptr},
                           {"FT_SEND2", nullptr},
                           {"", nullptr},
                           {"GET     ", "GET     "},
                           {"ZZZZZZZZ", nullptr},
                           {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", nullptr}}) {
        const msgtab_el* entry = find_definition(table, row.text);
        EXPECT_EQ(entry == nullptr, row.found == nullptr) << row.text;
        EXPECT_TRUE(entry == nullptr || row.found == nullptr || std::string_view(entry->name) == row.found);
    }
}

// Counts taken from the protocol's own description, so that a row lost while editing shows.
TEST(Catalogue, CountsOfFieldsAndChecks) {
    const MSGTAB* table = get_msgtab();
    size_t fields = 0;
    size_t foreign = 0;
    std::map<std::string, int> checks;
    for (int64_t i = 0; i < table->count; i++) {
        const element_array_t& elements = table->entries[i].msg_def;
        fields += elements.length;
        foreign += elements.length == 0;
        for (uint64_t k = 0; k < elements.length; k++) {
            if (elements.elements[k].chkstr != nullptr) {
                checks[elements.elements[k].chkstr]++;
            }
            EXPECT_TRUE(k == 0 || elements.elements[k - 1].count < elements.elements[k].count)
                << table->entries[i].name;
        }
    }
    EXPECT_EQ(fields, 843U);
    EXPECT_EQ(foreign, 71U);
    EXPECT_EQ(checks["gt(0)"], 44);
    EXPECT_EQ(checks["notempty()"], 24);
    EXPECT_EQ(checks["ne(0)"], 17);
}

// Every reference of a field names an earlier field of the same record.
TEST(Catalogue, ReferencesPointBackwards) {
    const MSGTAB* table = get_msgtab();
    for (int64_t i = 0; i < table->count; i++) {
        const element_array_t& elements = table->entries[i].msg_def;
        for (uint64_t k = 0; k < elements.length; k++) {
            for (int32_t reference :
                 {elements.elements[k].size, elements.elements[k].dim, elements.elements[k].relation}) {
                bool found = reference >= 0;
                for (uint64_t earlier = 0; earlier < k && !found; earlier++)
                    found = elements.elements[earlier].count == -reference;
                EXPECT_TRUE(found) << table->entries[i].name << "." << elements.elements[k].name;
            }
        }
    }
}

}  // namespace
