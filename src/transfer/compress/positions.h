// Keeping 32-bit positions in tables apart from wrapping.
#pragma once

#include <cstddef>
#include <cstdint>

// Position from which on tables are moved down.
inline constexpr uint32_t position_high = 0x70000000;

// Lowers every position of a table by `delta`, which is (position - pool - 1), so that those in the pool stay
// positive. Older ones: with `fold` they become the place in the pool that they stand for, else they are
// forgotten.
inline void lowerPositions(uint32_t* slot, size_t count, uint32_t position, uint32_t pool, bool fold) {
    const uint32_t delta = position - pool - 1;
    for (size_t i = 0; i < count; ++i) {
        if (slot[i] == 0) {
            continue;
        }
        uint32_t distance = position - slot[i];
        if (distance > pool) {
            if (!fold) {
                slot[i] = 0;
                continue;
            }
            distance = (distance - 1) % pool + 1;
        }
        slot[i] = position - distance - delta;
    }
}

// The same for slots of an encoder that hold a position in their upper half: what is too old is forgotten.
inline void lowerWidePositions(uint64_t* slot, size_t count, uint32_t position, uint32_t pool) {
    const uint64_t delta = uint64_t{position - pool - 1} << 32;
    for (size_t i = 0; i < count; ++i) {
        const auto here = static_cast<uint32_t>(slot[i] >> 32);
        if (here != 0) {
            slot[i] = position - here > pool ? 0 : slot[i] - delta;
        }
    }
}
