// Symbols of id 11: as id 9 with one context, which remembers several positions.
#include <algorithm>
#include <climits>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/error.h"
#include "transfer/compress/lzx_search.h"

namespace {

// A receiver has a bucket for each context. A sender that has fewer says nothing wrong, as each tells whose
// it is.
constexpr unsigned bucket_bits_least = 18;
constexpr unsigned rest_bits_most = 2;
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
Found findLongest(const SearchBucket& bucket, unsigned tries, const uint8_t* p, uint32_t position,
                  uint32_t pool, uint32_t left) {
    Found best{1, 0};
    const uint32_t wanted = load32(p);
    for (unsigned i = 0; i < tries; ++i) {
        const uint64_t slot = bucket.get(i);
        const uint32_t differ = static_cast<uint32_t>(slot) ^ wanted;
        const auto before = static_cast<uint32_t>(slot >> slot_position);
        if (position - before > pool) {
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
    LzxSearch& search = *cf.lzx;
    const unsigned level = cf.parameters.lzmixLevel;
    const unsigned bits = cf.parameters.lzmixBits;
    const unsigned shift = search.hash.shift;
    const uint32_t mask = search.hash.mask;

    const auto bucketOf = [bits = 32 - search.bucketBits](uint32_t context) {
        return context * context_spread >> bits;
    };
    SearchBucket* const buckets = search.memory.as<SearchBucket>();
    const auto pool = static_cast<uint32_t>(in.history);
    const uint8_t* p = in.at(in.src);
    const uint8_t* const end = in.at(in.end);
    const uint8_t* const last = in.at(stop);
    uint32_t position = in.position(in.src);
    uint32_t value = search.value;
    uint32_t later = value;
    for (unsigned i = 0; i < ahead; ++i) {
        later = later << shift ^ p[i];
    }
    while (p < last && block.count < block.size) {
        const auto left = static_cast<uint32_t>(std::min<size_t>(static_cast<size_t>(end - p), count_max));
        const SearchBucket& here = buckets[bucketOf(value & mask)];
        const unsigned tries =
            here.context == (value & mask) && left >= 2 ? std::min<unsigned>(here.used, level) : 0;
        const Found found = findLongest(here, tries, p, position, pool, left);
        block.entries[block.count++] =
            found.length < 2 ? *p : lengthEntry(found.length, found.place, level, bits);
        for (const uint8_t* const next = p + found.length; p < next; ++p, ++position) {
            buckets[bucketOf(value & mask)].push(value & mask, slotEntry(p, position));
            value = value << shift ^ *p;
            later = later << shift ^ p[ahead];
            __builtin_prefetch(&buckets[bucketOf(later & mask)], 1);
        }
    }
    in.src = static_cast<size_t>(p - in.at(0));
    search.value = value;
}

}  // namespace

int openLzx(CompressFile& cf, ErrMsg* err) {
    cf.lzx.reset(new (std::nothrow) LzxSearch);
    if (cf.lzx == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(LzxSearch)),
                             "lzx");
    }
    LzxSearch& search = *cf.lzx;
    search.hash = contextHash(512U << cf.parameters.lzpHashTableSize, cf.parameters.lzpHash);
    search.value = search.hash.start;
    const unsigned contextBits = highestBit(search.hash.mask) + 1;
    search.bucketBits =
        contextBits - std::min(contextBits - std::min(contextBits, bucket_bits_least), rest_bits_most);
    if (!search.memory.take(sizeof(SearchBucket) << search.bucketBits, "lzx", err)) {
        return -1;
    }
    // A source of this size comes to nearly all of the table. One whose size nobody knows may be small, and
    // would pay for whole large pages.
    if (cf.source.fileSize >= large_source && cf.source.fileSize != LONG_MAX) {
        search.memory.preferLargePages();
    }
    return 0;
}

void lowerLzx(CompressFile& cf) {
    const uint32_t position = cf.in.position(cf.in.src);
    auto* const buckets = cf.lzx->memory.as<SearchBucket>();
    for (size_t i = 0; i < size_t{1} << cf.lzx->bucketBits; ++i) {
        lowerWidePositions(buckets[i].slot.data(), buckets[i].slot.size(), position,
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
