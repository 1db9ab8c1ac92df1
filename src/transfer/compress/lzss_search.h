// Tables of the window search.
#pragma once

#include "transfer/compress/format.h"
#include "transfer/compress/memory.h"

inline constexpr unsigned lzss_near_bits = 13;

// Positions are those of the input buffer, 0 for none.
struct LzssSearch {
    PositionClasses classes{};
    unsigned tries = 0;  // candidates that a search looks at
    unsigned headBits = 16;
    Memory head;      // newest position of each hash of 4 bytes
    Memory near;      // of each hash of 3 bytes, for short matches near by
    Memory previous;  // the position before, in a ring at least as large as the window
    uint32_t ringMask = 0;
};
