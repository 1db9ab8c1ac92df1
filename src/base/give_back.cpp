#include "base/give_back.h"

#include <malloc.h>

#include <algorithm>
#include <cstddef>

namespace {

// The library would raise its own limit with the first large block that is freed, and keep later ones.
constexpr int mapped_from = 1 << 20;
constexpr size_t worth_a_walk = 256U << 10;

size_t free_after_last = 0;

}  // namespace

void memory_set_up() {
    // A refusal leaves the library's own limit, which costs memory and nothing else.
    mallopt(M_MMAP_THRESHOLD, mapped_from);
    mallopt(M_TRIM_THRESHOLD, mapped_from);
}

void memory_give_back() {
    const size_t now = mallinfo2().fordblks;  // free, whether its pages were given back or not
    if (now < free_after_last + worth_a_walk) {
        // What was in use meanwhile has pages again.
        free_after_last = std::min(free_after_last, now);
        return;
    }
    malloc_trim(0);
    free_after_last = mallinfo2().fordblks;
}
