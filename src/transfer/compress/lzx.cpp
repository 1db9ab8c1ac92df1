// Symbols of id 11: as id 9 with one context, which remembers several positions.
#include <algorithm>

#include "transfer/compress/bucket.h"
#include "transfer/compress/encoder.h"

namespace {

constexpr unsigned tries_max = 16;

inline uint32_t lengthEntry(uint32_t length, unsigned place, unsigned level, unsigned bits) {
    const unsigned lengths = 1U << bits;
    if (length < lengths) {
        return first_code + level * (length - 2) + place;
    }
    const unsigned high = highestBit(length);
    return (first_code + level * (lengths - bits + high - 2) + place) | (length - (1U << high))
                                                                            << entry_extra;
}

void fillSpan(CompressFile& cf, size_t stop) {
    InputBuffer& in = cf.in;
    Block& block = cf.block;
    BucketTable& buckets = *cf.buckets;
    const unsigned level = cf.parameters.lzmixLevel;
    const unsigned bits = cf.parameters.lzmixBits;
    const auto pool = static_cast<uint32_t>(in.history);
    while (in.src < stop && block.count < block.size) {
        const uint8_t* p = in.at(in.src);
        const auto left = static_cast<uint32_t>(std::min<size_t>(in.end - in.src, count_max));
        const uint32_t position = in.position(in.src);
        uint32_t length = 1;
        unsigned place = 0;
        if (left >= 2) {
            const unsigned tries = std::min(level, tries_max);
            for (unsigned i = 0; i < tries; ++i) {
                const uint32_t slot = buckets.get(i);
                const uint32_t distance = position - slot;
                if (slot == 0 || distance > pool) {
                    break;
                }
                const uint8_t* const candidate = p - distance;
                if (candidate[length - 1] != p[length - 1] || load16(candidate) != load16(p)) {
                    continue;
                }
                const uint32_t found = lencmp(p, candidate, left);
                if (found > length) {
                    length = found;
                    place = i;
                    if (length == left) {
                        break;
                    }
                }
            }
        }
        block.entries[block.count++] = length < 2 ? *p : lengthEntry(length, place, level, bits);
        in.src += length;
        for (uint32_t i = 0; i < length; ++i) {
            buckets.push(position + i);
            buckets.step(p[i]);
        }
    }
}

}  // namespace

int openLzx(CompressFile& cf, ErrMsg* err) {
    cf.buckets = std::make_unique<BucketTable>();
    return cf.buckets->open(cf.parameters, err);
}

int lzxFillHufBuf(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    while (cf.block.count < cf.block.size) {
        if (in.available() < count_max && fillInBuf(cf, count_max, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        fillSpan(cf, in.eof ? in.end : in.end - count_max + 1);
    }
    return 0;
}
