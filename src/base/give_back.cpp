#include "base/give_back.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>

#include "base/descriptor.h"

namespace {

// The library would raise its own limit with the first large block that is freed, and keep later ones.
constexpr int mapped_from = 1 << 20;
constexpr size_t worth_a_walk = 256U << 10;

size_t resident_after_last = 0;

// 0 when it cannot be told.
size_t resident_bytes() {
    size_t pages = 0;
    const qx_stream file(fopen("/proc/self/statm", "re"));
    if (!file.valid() || fscanf(file.get(), "%*u %zu", &pages) != 1) {
        return 0;
    }
    return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

void memory_set_up() {
    // A refusal leaves the library's own limit, which costs memory and nothing else.
    mallopt(M_MMAP_THRESHOLD, mapped_from);
    mallopt(M_TRIM_THRESHOLD, mapped_from);
}

void memory_give_back() {
    // The library's count of free bytes does not tell: it is the same before a burst and after it, and only
    // the pages are there again.
    const size_t now = resident_bytes();
    if (now != 0 && now < resident_after_last + worth_a_walk) {
        resident_after_last = std::min(resident_after_last, now);
        return;
    }
    malloc_trim(0);
    resident_after_last = resident_bytes();
}
