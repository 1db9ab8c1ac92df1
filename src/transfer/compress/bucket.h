// Contexts of id 11 with several positions each, for the receiving side.
#pragma once

#include "transfer/compress/compress.h"
#include "transfer/compress/format.h"
#include "transfer/compress/memory.h"

// A bucket is a ring behind the place of its newest slot: what is newest moves, not the slots. The memory is
// touched where contexts occur. A slot holds a position, 0 for none.
struct BucketTable {
    Memory memory;
    ContextHash hash{};
    uint32_t value = 0;
    unsigned level = 0;

    int open(const CompressParameter& parameters, ErrMsg* err) {
        hash = contextHash(512U << parameters.lzpHashTableSize, parameters.lzpHash);
        value = hash.start;
        level = parameters.lzmixLevel;
        return memory.take((size_t{hash.mask} + 1) * (level + 1) * sizeof(uint32_t), "lzx", err) ? 0 : -1;
    }
    uint32_t* bucket(uint32_t context) const {
        return memory.as<uint32_t>() + size_t{context & hash.mask} * (level + 1);
    }
};

// Slot `i` of a bucket, 0 being the newest.
inline uint32_t bucketGet(const uint32_t* bucket, unsigned level, unsigned i) {
    const auto place = bucket[0] + i;
    return bucket[1 + (place < level ? place : place - level)];
}

inline void bucketPush(uint32_t* bucket, unsigned level, uint32_t slot) {
    const uint32_t newest = bucket[0] == 0 ? level - 1 : bucket[0] - 1;
    bucket[0] = newest;
    bucket[1 + newest] = slot;
}
