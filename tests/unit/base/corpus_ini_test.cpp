// What the fuzzer found interesting is read again by every build.
#define LLVMFuzzerTestOneInput fuzz_ini
#include "../../../fuzz/ini.cpp"
#undef LLVMFuzzerTestOneInput

#include <gtest/gtest.h>

#include "scratch.h"

TEST(Corpus, ini) {
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(QX_SOURCE_DIR "/fuzz/corpus/ini")) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        fuzz_ini(reinterpret_cast<const uint8_t*>(content.data()), content.size());
        ++files;
    }
    EXPECT_GT(files, 1);
    __log_set_logger(nullptr);
}
