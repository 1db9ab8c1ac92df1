// What the fuzzer found interesting, walked and read again at every run of the tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "message_images.h"
#include "messages/conversion.h"
#include "messages/frame.h"

namespace {

std::vector<image> corpus(const char* target) {
    std::vector<image> files;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(QX_SOURCE_DIR "/fuzz/corpus/") + target)) {
        std::ifstream file(entry.path(), std::ios::binary);
        files.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return files;
}

TEST(Corpus, WalksEndInOneOfThreeWays) {
    int results[4] = {};
    for (image& message : corpus("convert")) {
        for (bool to_lan : {true, false}) {
            msg_error error;
            int result = walk_message(message.data(), message.size(), to_lan, nullptr, nullptr, &error);
            ASSERT_TRUE(result >= walk_failed && result <= walk_accepted);
            results[-result]++;
            EXPECT_EQ(result == walk_failed, error.code != 0);
            EXPECT_EQ(result == walk_warned, result != walk_failed && error.warning_list.length > 0);
            free_warning_list(&error);
        }
    }
    EXPECT_GT(results[1], 0);
    EXPECT_GT(results[2], 0);
    EXPECT_GT(results[3], 0);
}

TEST(Corpus, BodiesAreReadInsideTheirBounds) {
    int accepted = 0;
    for (const image& bytes : corpus("frame")) {
        frame_body body;
        qx7_error error;
        if (frame_parse_body(bytes.data(), bytes.size(), &body, &error) == 0) {
            accepted++;
            ASSERT_LE(body.offset + body.length, bytes.size());
        } else {
            EXPECT_TRUE(error.qx_msgnr >= 1002204 && error.qx_msgnr <= 1002208);
        }
    }
    EXPECT_GT(accepted, 0);
}

}  // namespace
