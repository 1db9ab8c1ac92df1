// Symbols of id 9: the position that followed the same context last predicts what comes; only lengths travel.
#include <algorithm>

#include "transfer/compress/encoder.h"

namespace {

// Slots hold the position that followed a context in the upper half, and in the lower the four bytes there:
// most misses are told without a look at the pool.
constexpr unsigned slot_position = 32;

// Contexts of a stretch of input, computed before the search in a loop of their own.
class Contexts {
  public:
    Contexts(const ContextHash& hash, uint32_t value) : shift_(hash.shift), mask_(hash.mask) {
        row_[stretch] = value;
    }
    // Context number `i` is the one at p + i.
    void start(const uint8_t* p) {
        uint32_t value = row_[stretch];
        for (unsigned i = 0; i < stretch; ++i) {
            row_[i] = value;
            value = (value << shift_ ^ p[i]) & mask_;
        }
        row_[stretch] = value;
    }
    uint32_t at(unsigned i) const { return row_[i]; }
    static constexpr unsigned stretch = 1024;
    static_assert(stretch <= input_slack);

  private:
    unsigned shift_;
    uint32_t mask_;
    uint32_t row_[stretch + 1];  // the last one begins the next stretch
};

inline uint64_t slotEntry(const uint8_t* p, uint32_t position) {
    return uint64_t{position} << slot_position | load32(p);
}

// Length of the match with a slot whose first two bytes agree, 0 when it may not be used.
inline uint32_t matchLength(const uint8_t* p, uint32_t position, uint64_t slot, uint32_t pool,
                            uint32_t left) {
    const auto before = static_cast<uint32_t>(slot >> slot_position);
    const uint32_t distance = position - before;
    if (before == 0 || distance > pool || left < 2) {
        return 0;
    }
    const uint32_t differ = static_cast<uint32_t>(slot) ^ load32(p);
    if (differ != 0) {
        return std::min(static_cast<uint32_t>(__builtin_ctz(differ)) >> 3, left);
    }
    return lencmp(p, p - distance, left);
}

inline uint32_t lengthEntry(uint32_t length, unsigned base) {
    if (length <= counted_small) {
        return base + length;
    }
    const unsigned bits = highestBit(length);
    return (base + counted_small + 1 + bits - counted_bits) | (length - (1U << bits)) << entry_extra;
}

// How the second table finds its slot. `pair`: it has a slot for each two bytes, which are its index as they
// are.
enum class Second { none, hashed, pair };

template <Second kind>
void fillSpan(CompressFile& cf, size_t stop) {
    constexpr bool two = kind != Second::none;
    InputBuffer& in = cf.in;
    Block& block = cf.block;
    const uint8_t* p = in.at(in.src);
    Contexts firsts(cf.context[0].hash, cf.context[0].value);
    Contexts seconds(cf.context[two ? 1 : 0].hash, cf.context[two ? 1 : 0].value);
    uint64_t* const first = cf.context[0].memory.as<uint64_t>();
    uint64_t* const second = cf.context[two ? 1 : 0].memory.as<uint64_t>();
    const auto pool = static_cast<uint32_t>(in.history);
    const uint8_t* const end = in.at(in.end);
    const uint8_t* const last = in.at(stop);
    uint32_t position = in.position(in.src);
    uint32_t* entry = block.entries + block.count;
    uint32_t* const full = block.entries + block.size;
    unsigned i = 0;  // of the stretch
    const auto startStretch = [&] {
        firsts.start(p);
        if constexpr (kind == Second::hashed) {
            seconds.start(p);
        }
        i = 0;
    };
    const auto pass = [&] {
        ++p;
        ++position;
        if (++i == Contexts::stretch) {
            startStretch();
        }
    };
    const auto secondSlot = [&]() -> uint64_t& {
        return second[kind == Second::pair ? load16(p - 2) : seconds.at(i)];
    };
    startStretch();
    while (p < last && entry < full) {
        const uint64_t fresh = slotEntry(p, position);
        uint64_t& firstSlot = first[firsts.at(i)];
        const uint64_t one = firstSlot;
        firstSlot = fresh;
        uint64_t other = 0;
        if constexpr (two) {
            uint64_t& slot = secondSlot();
            other = slot;
            slot = fresh;
        }
        const bool firstAgrees = static_cast<uint16_t>(one ^ fresh) == 0;
        const bool secondAgrees = two && static_cast<uint16_t>(other ^ fresh) == 0;
        if (!(firstAgrees | secondAgrees)) {
            *entry++ = *p;
            pass();
            continue;
        }
        const auto left = static_cast<uint32_t>(std::min<size_t>(static_cast<size_t>(end - p), count_max));
        uint32_t length = firstAgrees ? matchLength(p, position, one, pool, left) : 0;
        unsigned base = symbol_end;
        if (secondAgrees) {
            const uint32_t found = matchLength(p, position, other, pool, left);
            if (found >= length) {
                length = found;
                base = symbol_end + counted_codes;
            }
        }
        if (length < 2) {
            *entry++ = *p;
            pass();
            continue;
        }
        *entry++ = lengthEntry(length, base);
        pass();
        while (--length != 0) {
            const uint64_t passed = slotEntry(p, position);
            first[firsts.at(i)] = passed;
            if constexpr (two) {
                secondSlot() = passed;
            }
            pass();
        }
    }
    block.count = static_cast<unsigned>(entry - block.entries);
    in.src = static_cast<size_t>(p - in.at(0));
    cf.context[0].value = firsts.at(i);
    if constexpr (kind == Second::hashed) {
        cf.context[1].value = seconds.at(i);
    }
}

}  // namespace

int openLzp(CompressFile& cf, ErrMsg* err) {
    const ContextOrders orders = contextOrders(cf.parameters.lzpHash);
    const uint32_t size = 512U << cf.parameters.lzpHashTableSize;
    for (unsigned i = 0; i < 2; ++i) {
        const unsigned order = i == 0 ? orders.first : orders.second;
        if (order == 0) {
            break;
        }
        ContextTable& context = cf.context[i];
        context.hash = contextHash(size, order);
        context.value = context.hash.start;
        if (!context.memory.take((size_t{context.hash.mask} + 1) * sizeof(uint64_t), "lzp", err)) {
            return -1;
        }
        if (cf.in.history >= large_pool) {
            context.memory.preferLargePages();
        }
    }
    if (cf.in.history >= large_pool) {
        cf.in.memory.preferLargePages();
    }
    return 0;
}

void lowerLzp(CompressFile& cf) {
    const uint32_t position = cf.in.position(cf.in.src);
    for (const ContextTable& context : cf.context) {
        lowerWidePositions(context.memory.as<uint64_t>(), context.memory.size() / sizeof(uint64_t), position,
                           static_cast<uint32_t>(cf.in.history));
    }
    cf.in.lower();
}

int lzpFillHufBuf(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    const ContextHash& second = cf.context[1].hash;
    while (cf.block.count < cf.block.size) {
        if (in.available() < count_max && fillInBuf(cf, count_max + input_batch, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        const size_t stop = in.eof ? in.end : in.end - count_max + 1;
        if (cf.context[1].memory.data() == nullptr) {
            fillSpan<Second::none>(cf, stop);
        } else if (second.order == 2 && second.mask == 0xffff) {
            fillSpan<Second::pair>(cf, stop);
        } else {
            fillSpan<Second::hashed>(cf, stop);
        }
    }
    return 0;
}
