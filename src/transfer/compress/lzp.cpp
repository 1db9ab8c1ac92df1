// Symbols of id 9: the position that followed the same context last predicts what comes; only lengths travel.
#include <algorithm>

#include "transfer/compress/encoder.h"

namespace {

struct Table {
    uint32_t* slot;
    uint32_t mask;
    unsigned shift;
    uint32_t value;  // only the bits of the mask count

    explicit Table(const ContextTable& context)
        : slot(context.memory.as<uint32_t>()),
          mask(context.hash.mask),
          shift(context.hash.shift),
          value(context.value) {}
    uint32_t exchange(uint32_t position) {
        uint32_t& here = slot[value & mask];
        const uint32_t before = here;
        here = position;
        return before;
    }
    void set(uint32_t position) { slot[value & mask] = position; }
    void step(uint8_t byte) { value = value << shift ^ byte; }
};

// Length of the match with what the slot remembers, 0 when it is shorter than 2.
inline uint32_t matchLength(const uint8_t* p, uint32_t position, uint32_t slot, uint32_t pool,
                            uint32_t left) {
    const uint32_t distance = position - slot;
    if (slot == 0 || distance > pool) {
        return 0;
    }
    const uint8_t* const candidate = p - distance;
    if (load16(candidate) != load16(p) || left < 2) {
        return 0;
    }
    return lencmp(p, candidate, std::min(left, count_max));
}

inline uint32_t lengthEntry(uint32_t length, unsigned base) {
    if (length <= counted_small) {
        return base + length;
    }
    const unsigned bits = highestBit(length);
    return (base + counted_small + 1 + bits - counted_bits) | (length - (1U << bits)) << entry_extra;
}

template <bool two>
void fillSpan(CompressFile& cf, size_t stop) {
    InputBuffer& in = cf.in;
    Block& block = cf.block;
    Table first(cf.context[0]);
    Table second(cf.context[two ? 1 : 0]);
    const auto pool = static_cast<uint32_t>(in.history);
    const uint8_t* p = in.at(in.src);
    const uint8_t* const end = in.at(in.end);
    const uint8_t* const last = in.at(stop);
    uint32_t position = in.position(in.src);
    uint32_t* entry = block.entries + block.count;
    uint32_t* const full = block.entries + block.size;
    while (p < last && entry < full) {
        const auto left = static_cast<uint32_t>(std::min<size_t>(static_cast<size_t>(end - p), count_max));
        uint32_t length = matchLength(p, position, first.exchange(position), pool, left);
        unsigned base = symbol_end;
        if (two) {
            const uint32_t other = matchLength(p, position, second.exchange(position), pool, left);
            if (other >= length) {
                length = other;
                base = symbol_end + counted_codes;
            }
        }
        if (length < 2) {
            *entry++ = *p;
            length = 1;
        } else {
            *entry++ = lengthEntry(length, base);
        }
        for (;;) {
            first.step(*p);
            if (two) {
                second.step(*p);
            }
            ++p;
            ++position;
            if (--length == 0) {
                break;
            }
            first.set(position);
            if (two) {
                second.set(position);
            }
        }
    }
    block.count = static_cast<unsigned>(entry - block.entries);
    in.src = static_cast<size_t>(p - in.at(0));
    cf.context[0].value = first.value;
    if (two) {
        cf.context[1].value = second.value;
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
        if (!context.memory.take((size_t{context.hash.mask} + 1) * sizeof(uint32_t), "lzp", err)) {
            return -1;
        }
    }
    return 0;
}

int lzpFillHufBuf(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    while (cf.block.count < cf.block.size) {
        if (in.available() < count_max && fillInBuf(cf, count_max, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        const size_t stop = in.eof ? in.end : in.end - count_max + 1;
        if (cf.context[1].memory.data() != nullptr) {
            fillSpan<true>(cf, stop);
        } else {
            fillSpan<false>(cf, stop);
        }
    }
    return 0;
}
