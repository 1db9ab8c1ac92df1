// Contexts of id 11 with several positions each, for both sides.
#pragma once

#include "transfer/compress/compress.h"
#include "transfer/compress/format.h"
#include "transfer/compress/memory.h"

// A bucket is a ring: what is newest moves, not the positions. The memory is touched where contexts occur.
struct BucketTable {
    Memory slots;  // positions, 0 for none
    Memory heads;  // place of the newest position in each ring
    ContextHash hash{};
    uint32_t value = 0;
    unsigned level = 0;

    int open(const CompressParameter& parameters, ErrMsg* err) {
        hash = contextHash(512U << parameters.lzpHashTableSize, parameters.lzpHash);
        value = hash.start;
        level = parameters.lzmixLevel;
        const size_t buckets = size_t{hash.mask} + 1;
        return slots.take(buckets * level * sizeof(uint32_t), "lzx", err) && heads.take(buckets, "lzx", err)
                   ? 0
                   : -1;
    }
    // Position of entry `i` of the current context, 0 being the newest.
    uint32_t get(unsigned i) const {
        const size_t bucket = value & hash.mask;
        unsigned place = heads.data()[bucket] + i;
        place = place < level ? place : place - level;
        return slots.as<uint32_t>()[bucket * level + place];
    }
    void push(uint32_t position) {
        const size_t bucket = value & hash.mask;
        uint8_t& head = heads.data()[bucket];
        head = static_cast<uint8_t>(head == 0 ? level - 1 : head - 1);
        slots.as<uint32_t>()[bucket * level + head] = position;
    }
    void step(uint8_t byte) { value = value << hash.shift ^ byte; }
};
