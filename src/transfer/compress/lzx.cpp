// Symbols of id 11: as id 9 with one context, which remembers several positions.
#include <algorithm>
#include <climits>

#include "transfer/compress/bucket.h"
#include "transfer/compress/encoder.h"

namespace {

// More candidates than these gain little and cost much.
constexpr unsigned tries_max = 10;
constexpr uint32_t nice_length = 192;  // long enough to stop looking
constexpr unsigned ahead = 12;         // bytes between the current position and the bucket that is prefetched
constexpr unsigned slot_position = 32;
constexpr long large_source = 8L << 20;

inline uint64_t slotEntry(const uint8_t* p, uint32_t position) {
    return uint64_t{position} << slot_position | load32(p);
}

inline uint32_t lengthEntry(uint32_t length, unsigned place, unsigned level, unsigned bits) {
    const unsigned lengths = 1U << bits;
    if (length < lengths) {
        return first_code + level * (length - 2) + place;
    }
    const unsigned high = highestBit(length);
    return (first_code + level * (lengths - bits + high - 2) + place) | (length - (1U << high))
                                                                            << entry_extra;
}

struct Found {
    uint32_t length;
    unsigned place;
};

// The longest match among the newest slots, the first of equals. Slots tell their first four bytes, so that
// the pool is looked at only for matches of four.
Found findLongest(const uint64_t* bucket, unsigned level, const uint8_t* p, uint32_t position, uint32_t pool,
                  uint32_t left) {
    Found best{1, 0};
    const unsigned tries = std::min(level, tries_max);
    const uint32_t wanted = load32(p);
    for (unsigned i = 0; i < tries; ++i) {
        const uint64_t slot = bucketGet(bucket, level, i);
        const uint32_t differ = static_cast<uint32_t>(slot) ^ wanted;
        const auto before = static_cast<uint32_t>(slot >> slot_position);
        if (before == 0 || position - before > pool) {
            break;
        }
        if (differ != 0) {
            const uint32_t length = static_cast<uint32_t>(__builtin_ctz(differ)) >> 3;
            if (length > best.length) {
                best = {std::min(length, left), i};
            }
            continue;
        }
        const uint8_t* const candidate = p - (position - before);
        if (best.length >= 4 && load32(candidate + best.length - 3) != load32(p + best.length - 3)) {
            continue;
        }
        const uint32_t length = lencmp(p, candidate, left);
        if (length > best.length) {
            best = {length, i};
            if (length >= nice_length || length == left) {
                break;
            }
        }
    }
    return best;
}

void fillSpan(CompressFile& cf, size_t stop) {
    InputBuffer& in = cf.in;
    Block& block = cf.block;
    BucketTable<uint64_t>& buckets = *cf.buckets;
    const unsigned level = cf.parameters.lzmixLevel;
    const unsigned bits = cf.parameters.lzmixBits;
    const unsigned shift = buckets.hash.shift;
    const auto pool = static_cast<uint32_t>(in.history);
    const uint8_t* p = in.at(in.src);
    const uint8_t* const end = in.at(in.end);
    const uint8_t* const last = in.at(stop);
    uint32_t position = in.position(in.src);
    uint32_t value = buckets.value;
    uint32_t later = value;
    for (unsigned i = 0; i < ahead; ++i) {
        later = later << shift ^ p[i];
    }
    while (p < last && block.count < block.size) {
        const auto left = static_cast<uint32_t>(std::min<size_t>(static_cast<size_t>(end - p), count_max));
        const Found found =
            left < 2 ? Found{1, 0} : findLongest(buckets.bucket(value), level, p, position, pool, left);
        block.entries[block.count++] =
            found.length < 2 ? *p : lengthEntry(found.length, found.place, level, bits);
        for (const uint8_t* const next = p + found.length; p < next; ++p, ++position) {
            bucketPush(buckets.bucket(value), level, slotEntry(p, position));
            value = value << shift ^ *p;
            later = later << shift ^ p[ahead];
            __builtin_prefetch(buckets.bucket(later), 1);
        }
    }
    in.src = static_cast<size_t>(p - in.at(0));
    buckets.value = value;
}

}  // namespace

int openLzx(CompressFile& cf, ErrMsg* err) {
    cf.buckets = std::make_unique<BucketTable<uint64_t>>();
    if (cf.buckets->open(cf.parameters, err) < 0) {
        return -1;
    }
    // A source of this size comes to nearly all of the table. One whose size nobody knows may be small, and
    // would pay for whole large pages.
    if (cf.source.fileSize >= large_source && cf.source.fileSize != LONG_MAX) {
        cf.buckets->memory.preferLargePages();
    }
    return 0;
}

void lowerLzx(CompressFile& cf) {
    const uint32_t position = cf.in.position(cf.in.src);
    for (size_t i = 0; i <= cf.buckets->hash.mask; ++i) {
        lowerWidePositions(cf.buckets->bucket(static_cast<uint32_t>(i)) + 1, cf.buckets->level, position,
                           static_cast<uint32_t>(cf.in.history));
    }
    cf.in.lower();
}

int lzxFillHufBuf(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    while (cf.block.count < cf.block.size) {
        if (in.available() < count_max && fillInBuf(cf, count_max + input_batch, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        fillSpan(cf, in.eof ? in.end : in.end - count_max + 1);
    }
    return 0;
}
