// Symbols of id 5: matches in a sliding window, found through chains of positions with the same four bytes.
//
// The format wants matches of 3 to 32,767 bytes. Which one is taken is free; matches of exactly 3 bytes pay
// only near by.
#include <algorithm>
#include <new>
#include <vector>

#include "base/message_numbers.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/error.h"
#include "transfer/compress/lzss_search.h"

namespace {

constexpr unsigned near_distance = 545;      // a match of 3 bytes is taken below it
constexpr uint32_t middle_distance = 16384;  // and one of 4 below this
constexpr uint32_t nice_length = 128;        // long enough to stop searching
constexpr uint32_t lazy_length = 40;         // long enough not to look at the next place
constexpr uint32_t dense_length = 256;       // longer ones enter the chains only at their ends
constexpr size_t look_ahead = count_max + 8;

struct Match {
    uint32_t length = 0;
    uint32_t distance = 0;
};

// What a match is worth, in quarters of a byte.
int worth(const Match& match) {
    return match.length == 0
               ? 0
               : static_cast<int>(match.length * 4) - static_cast<int>(highestBit(match.distance));
}

inline uint32_t hash4(const uint8_t* p, unsigned bits) {
    return load32(p) * 2654435761U >> (32 - bits);
}
inline uint32_t hash3(const uint8_t* p) {
    return (load32(p) << 8) * 2654435761U >> (32 - lzss_near_bits);
}

// The search's tables, held in registers.
struct Tables {
    uint32_t* const head;
    uint32_t* const near;
    uint32_t* const previous;
    const uint32_t ringMask;
    const uint32_t window;
    const unsigned tries;
    const unsigned headBits;

    explicit Tables(const LzssSearch& search)
        : head(search.head.as<uint32_t>()),
          near(search.near.as<uint32_t>()),
          previous(search.previous.as<uint32_t>()),
          ringMask(search.ringMask),
          window(search.classes.slidSize),
          tries(search.tries),
          headBits(search.headBits) {}

    void insert(const uint8_t* p, uint32_t position) const {
        uint32_t& slot = head[hash4(p, headBits)];
        previous[position & ringMask] = slot;
        slot = position;
        near[hash3(p)] = position;
    }

    // Best match at `p` that is longer than `least`.
    Match find(const uint8_t* p, uint32_t position, uint32_t left, uint32_t least, unsigned most) const {
        Match best{std::max(least, window_least), 0};
        const uint32_t limit = std::min(left, count_max);
        uint32_t candidate = head[hash4(p, headBits)];
        for (; most > 0 && candidate != 0; --most) {
            const uint32_t distance = position - candidate;
            if (distance > window) {
                break;
            }
            const uint8_t* const from = p - distance;
            if (load32(from + best.length - 3) == load32(p + best.length - 3) && load32(from) == load32(p)) {
                const uint32_t length = lencmp(p, from, limit);
                if (length > best.length && (length > 4 || distance < middle_distance)) {
                    best = {length, distance};
                    if (length >= nice_length || length == limit) {
                        break;
                    }
                }
            }
            candidate = previous[candidate & ringMask];
        }
        if (best.distance != 0) {
            return best;
        }
        if (least < window_least) {
            const uint32_t distance = position - near[hash3(p)];
            if (distance < near_distance && distance <= window && distance != position &&
                lencmp(p, p - distance, 3) == 3) {
                return {window_least, distance};
            }
        }
        return {};
    }
};

struct Coded {
    unsigned place;
    uint32_t value;
    unsigned bits;
};

// Class and bits of a distance. While the window fills, the last class in reach is cut to what there is.
Coded codeDistance(const PositionClasses& classes, uint32_t distance, uint32_t limit) {
    const uint32_t d = distance - 1;
    unsigned place = 0;
    while (d >= classes.row[place].end) {
        ++place;
    }
    const PositionClass& row = classes.row[place];
    const uint32_t value = d - row.base;
    if (row.end <= limit) {
        return {place, value, row.bits};
    }
    const uint32_t choices = limit - row.base;
    if (choices <= 1) {
        return {place, 0, 0};
    }
    const unsigned bits = highestBit(choices - 1) + 1;
    const uint32_t half = 1U << (bits - 1);
    const uint32_t over = choices - half;
    if (value < half - over) {
        return {place, value, bits - 1};
    }
    return {place, value >= half ? (value - over) * 2 + 1 : value * 2, bits};
}

uint64_t matchEntry(const PositionClasses& classes, const Match& match, uint32_t limit) {
    const Coded where = codeDistance(classes, match.distance, limit);
    const uint32_t length = match.length - window_least;
    uint64_t symbol = first_code + window_codes * where.place;
    if (length < window_small) {
        symbol += length;
    } else {
        const unsigned bits = highestBit(length);
        symbol += window_small + bits - window_bits;
        symbol |= uint64_t{length - (1U << bits)} << entry_extra;
    }
    return symbol | uint64_t{where.value} << entry_distance | uint64_t{where.bits} << entry_distance_bits;
}

void insertMatch(const Tables& tables, const uint8_t* p, uint32_t position, uint32_t length, size_t left) {
    const auto last = static_cast<uint32_t>(std::min<size_t>(length, left > 3 ? left - 3 : 0));
    uint32_t i = 0;
    if (length > dense_length) {
        for (; i < 16 && i < last; ++i) {
            tables.insert(p + i, position + i);
        }
        i = length - 64;
    }
    for (; i < last; ++i) {
        tables.insert(p + i, position + i);
    }
}

void fillSpan(CompressFile& cf, size_t stop) {
    InputBuffer& in = cf.in;
    Block& block = cf.block;
    const LzssSearch& search = *cf.lzss;
    const Tables tables(search);
    const bool lazy = cf.parameters.var != 1;
    while (in.src < stop && block.count < block.size) {
        const uint8_t* p = in.at(in.src);
        size_t left = in.end - in.src;
        uint32_t position = in.position(in.src);
        if (left < 4) {
            block.wide[block.count++] = *p;
            ++in.src;
            continue;
        }
        Match match = tables.find(p, position, static_cast<uint32_t>(left), 0, tables.tries);
        tables.insert(p, position);
        if (match.length == 0) {
            block.wide[block.count++] = *p;
            ++in.src;
            continue;
        }
        // A better match that begins one byte later wins; this byte goes as a literal.
        while (lazy && match.length < lazy_length && left > 5 && block.count + 1 < block.size) {
            const Match next = tables.find(p + 1, position + 1, static_cast<uint32_t>(left - 1),
                                           std::max(match.length - 1, window_least), tables.tries / 2 + 1);
            if (worth(next) < worth(match) + 3) {
                break;
            }
            block.wide[block.count++] = *p;
            ++p;
            ++position;
            --left;
            ++in.src;
            match = next;
            tables.insert(p, position);
        }
        block.wide[block.count++] =
            matchEntry(search.classes, match, std::min(position - 1, search.classes.slidSize));
        insertMatch(tables, p + 1, position + 1, match.length - 1, left - 1);
        in.src += match.length;
    }
}

}  // namespace

int openLzss(CompressFile& cf, ErrMsg* err) {
    cf.lzss.reset(new (std::nothrow) LzssSearch);
    if (cf.lzss == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(LzssSearch)),
                             "lzss");
    }
    LzssSearch& search = *cf.lzss;
    search.classes = positionClasses(cf.parameters.lzssWindow + 6);
    uint32_t ring = 1;
    while (ring < search.classes.slidSize) {
        ring <<= 1;
    }
    search.ringMask = ring - 1;
    // Strategy 3 tries all that the level allows; the others stop at a quarter, which costs little.
    search.tries = std::max(1U, (1U << cf.parameters.lzssLevel) / (cf.parameters.var == 3 ? 1 : 4));
    return search.head.take((size_t{1} << search.headBits) * sizeof(uint32_t), "lzss", err) &&
                   search.near.take((size_t{1} << lzss_near_bits) * sizeof(uint32_t), "lzss", err) &&
                   search.previous.take(size_t{ring} * sizeof(uint32_t), "lzss", err)
               ? 0
               : -1;
}

void lowerLzss(CompressFile& cf) {
    const uint32_t position = cf.in.position(cf.in.src);
    const auto window = static_cast<uint32_t>(cf.in.history);
    LzssSearch& search = *cf.lzss;
    for (Memory* const table : {&search.head, &search.near}) {
        lowerPositions(table->as<uint32_t>(), table->size() / sizeof(uint32_t), position, window, false);
    }
    // The ring goes by the low bits of positions: its entries move along.
    const uint32_t delta = position - window - 1;
    std::vector<uint32_t> before(search.previous.as<uint32_t>(),
                                 search.previous.as<uint32_t>() + search.ringMask + 1);
    lowerPositions(before.data(), before.size(), position, window, false);
    for (uint32_t i = 0; i <= search.ringMask; ++i) {
        search.previous.as<uint32_t>()[(i - delta) & search.ringMask] = before[i];
    }
    cf.in.lower();
}

int lzssFillHufBuf(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    while (cf.block.count < cf.block.size) {
        if (in.available() < look_ahead && fillInBuf(cf, look_ahead + input_batch, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        fillSpan(cf, in.eof ? in.end : in.end - look_ahead + 1);
    }
    return 0;
}
