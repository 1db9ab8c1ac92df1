// What the sender of id 11 remembers of contexts.
#pragma once

#include <array>
#include <cstdint>

#include "transfer/compress/format.h"
#include "transfer/compress/memory.h"

// The newest places of one context; more than these gain little and cost much. A ring, in one line of the
// cache: what is newest moves, not the slots. A slot holds the position in its upper half and four bytes of
// it below.
struct alignas(64) SearchBucket {
    static constexpr unsigned slots = 7;
    uint32_t context;
    uint16_t newest;
    uint16_t used;
    std::array<uint64_t, slots> slot;

    // Slot `i`, 0 being the newest; `i` is below `used`.
    uint64_t get(unsigned i) const {
        const unsigned place = newest + i;
        return slot[place < slots ? place : place - slots];
    }
    // Another context's places are forgotten.
    void push(uint32_t of, uint64_t entry) {
        const unsigned before = context == of ? used : 0;
        context = of;
        used = static_cast<uint16_t>(before < slots ? before + 1 : slots);
        newest = static_cast<uint16_t>(newest == 0 ? slots - 1 : newest - 1);
        slot[newest] = entry;
    }
};
static_assert(sizeof(SearchBucket) == 64);

struct LzxSearch {
    Memory memory;  // of SearchBucket
    ContextHash hash{};
    uint32_t value = 0;  // context at the current position; only the bits of the mask count
    unsigned bucketBits = 0;
};
