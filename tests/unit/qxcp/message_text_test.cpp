#include "qxcp/message_text.h"

#include <gtest/gtest.h>

TEST(message_text, gives_words_with_the_number_behind_them) {
    struct {
        int number;
        const char* inserts;
        const char* expected;
    } const cases[] = {
        {2000039, "backup|17|", "The cancel signal was sent to job 'backup' with run number 17. (U02000039)"},
        {5022, "", "the key store cannot be written (5022)"},
        {9, "a|b|", "U00000009 a|b"},
        {0, "no number|", "no number"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(cp_message_text(row.number, row.inserts), row.expected);
    }
}
