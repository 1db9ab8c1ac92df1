// Contexts of id 11 with several positions each, for both sides.
#pragma once

#include "transfer/compress/compress.h"
#include "transfer/compress/format.h"
#include "transfer/compress/memory.h"

// A bucket is a ring behind the place of its newest slot: what is newest moves, not the slots. The memory is
// touched where contexts occur. Slot holds a position, 0 for none, in its upper half when it is 64 bits wide.
template <class Slot>
struct BucketTable {
    Memory memory;
    ContextHash hash{};
    uint32_t value = 0;
    unsigned level = 0;

    int open(const CompressParameter& parameters, ErrMsg* err) {
        hash = contextHash(512U << parameters.lzpHashTableSize, parameters.lzpHash);
        value = hash.start;
        level = parameters.lzmixLevel;
        return memory.take((size_t{hash.mask} + 1) * (level + 1) * sizeof(Slot), "lzx", err) ? 0 : -1;
    }
    Slot* bucket(uint32_t context) const {
        return memory.as<Slot>() + size_t{context & hash.mask} * (level + 1);
    }
};

// Slot `i` of a bucket, 0 being the newest.
template <class Slot>
inline Slot bucketGet(const Slot* bucket, unsigned level, unsigned i) {
    const auto place = static_cast<unsigned>(bucket[0]) + i;
    return bucket[1 + (place < level ? place : place - level)];
}

template <class Slot>
inline void bucketPush(Slot* bucket, unsigned level, Slot slot) {
    const Slot newest = bucket[0] == 0 ? level - 1 : bucket[0] - 1;
    bucket[0] = newest;
    bucket[1 + newest] = slot;
}
