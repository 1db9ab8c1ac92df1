// What the fuzzers found interesting, run through everything that takes bytes from outside: whatever the
// bytes are, a call refuses them as a whole or accepts them as a whole.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "pair.h"
#include "security/key_exchange.h"

namespace {

namespace fs = std::filesystem;

std::vector<bytes> corpus() {
    std::vector<bytes> all;
    for (const char* target : {"token", "sealed_message", "packages"}) {
        for (const auto& entry :
             fs::directory_iterator(fs::path(QX_SOURCE_DIR) / "fuzz" / "corpus" / target)) {
            std::ifstream in(entry.path(), std::ios::binary);
            all.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
    }
    return all;
}

TEST(corpus, is_refused_as_a_whole) {
    KMsetGSSCallback();
    const std::vector<bytes> all = corpus();
    ASSERT_GT(all.size(), 20u);
    handshake pair(counting(32));
    pair.establish();
    gss_cred_id_t cred = credential("AGENT1", counting(32), GSS_C_ACCEPT);
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "AGENT1", {}, testing::TempDir() + "no-such-store"));
    for (bytes data : all) {
        gss_buffer_desc input{data.size(), data.data()}, output;
        gss_ctx_id_t context = nullptr;
        EXPECT_NE(GSS_S_COMPLETE, gss_accept_sec_context(nullptr, &context, cred, &input, nullptr, nullptr,
                                                         nullptr, &output, nullptr, nullptr, nullptr));
        EXPECT_EQ(nullptr, context);
        EXPECT_EQ(nullptr, output.value);
        size_t written = 1;
        bytes room(data.size());
        EXPECT_NE(GSS_S_COMPLETE, gss_unwrap_ex(nullptr, pair.acceptor, 0, data, room, &written, nullptr));
        EXPECT_EQ(0u, written);
        uint8_t answer[response_package_size];
        size_t length = sizeof answer;
        EXPECT_NE(KM_OK, cmdData(&keys, "AGENT1", GSS_CMD_START, data.data(), data.size(), answer, &length,
                                 nullptr, nullptr));
        EXPECT_EQ(0u, length);
        EXPECT_NE(KM_OK, ImportKey(&keys, data, ""));
        EXPECT_NE(KM_OK, ImportKey(&keys, data, "password"));
    }
    gss_release_cred(nullptr, &cred);
    gss_setCallbacks(nullptr);
}

}  // namespace
