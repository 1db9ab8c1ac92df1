// What the tables of id 9 need to know of each place of a stretch, in two forms that give the same: one for
// any processor, one for those with vectors of 32 bytes.
#pragma once

#include <cstdint>

// A sender's tables are smaller than the contexts are many. Multiplied by this odd number, which can be
// undone, the upper bits of a context become an index for which those that are frequent seldom meet.
inline constexpr uint32_t context_spread = 0x9e3779b1;

// Of two pairs of bytes that differ in one place only, the checks differ.
inline uint32_t placeCheck(const uint8_t* p) {
    return p[0] + p[1] * 5U;
}

// How the contexts of one table become slots.
struct PlaceRule {
    unsigned shift;         // of the context, from byte to byte
    unsigned bytes;         // that count in a context
    uint32_t mask;          // of the context
    unsigned restBits;      // of the context, that the slot keeps
    unsigned positionBits;  // of a slot; above stand the rest and the check
};

struct PlaceForm {
    // For `count` places from p on, the first of which has that position: the index of its slot, and what is
    // to be entered there. Reads `rule.bytes` bytes before p and one behind the last place; `count` + 8
    // entries of each array may be written.
    void (*contexts)(const PlaceRule& rule, const uint8_t* p, unsigned count, uint32_t position,
                     uint32_t* index, uint32_t* fresh);
    // Sets bit i % 8 of found[i / 8] for each distance of at most `pool`. Bits from `count` on to the end of
    // its byte may be set. Up to 8 entries behind `count` are read.
    void (*usable)(const uint32_t* distance, unsigned count, uint32_t pool, uint8_t* found);
};

extern const PlaceForm portable_places;
// nullptr where the processor cannot.
const PlaceForm* vectorPlaces();
// The fastest form here.
const PlaceForm& placeForm();
