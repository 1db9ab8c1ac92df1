// What a burst leaves behind goes back to the system.
#include "base/give_back.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/sanitizer.h"

#if !QX_ADDRESS_SANITIZER && !QX_THREAD_SANITIZER  // these have an allocator of their own

namespace {

long resident_kb() {
    long pages = 0;
    if (FILE* file = fopen("/proc/self/statm", "re"); file != nullptr) {
        EXPECT_EQ(fscanf(file, "%*d %ld", &pages), 1);
        fclose(file);
    }
    return pages * sysconf(_SC_PAGESIZE) / 1024;
}

// Each time the last block stays in use, so that the library alone could not give back what lies below it.
TEST(give_back, a_burst_leaves_no_memory_behind) {
    constexpr size_t block_size = 16U << 10;
    constexpr size_t block_count = 2000;
    memory_set_up();
    std::vector<std::unique_ptr<char[]>> blocks(block_count);
    memory_give_back();
    const long before = resident_kb();
    for (int burst = 0; burst < 3; ++burst) {
        for (auto& block : blocks) {
            block = std::make_unique<char[]>(block_size);
            memset(block.get(), burst + 1, block_size);
        }
        const long peak = resident_kb();
        ASSERT_GT(peak - before, 24000);
        const std::unique_ptr<char[]> last = std::move(blocks.back());
        for (auto& block : blocks) {
            block.reset();
        }
        memory_give_back();
        EXPECT_LT(resident_kb() - before, (peak - before) / 4) << burst;
    }
}

}  // namespace

#endif
