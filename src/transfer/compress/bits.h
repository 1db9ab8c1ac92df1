// Bits in and out, most significant first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

inline uint64_t loadBig64(const uint8_t* from) {
    uint64_t value;
    memcpy(&value, from, sizeof value);
    return __builtin_bswap64(value);
}

inline void storeBig64(uint8_t* to, uint64_t value) {
    value = __builtin_bswap64(value);
    memcpy(to, &value, sizeof value);
}

inline uint64_t load64(const uint8_t* from) {
    uint64_t value;
    memcpy(&value, from, sizeof value);
    return value;
}

inline uint32_t load32(const uint8_t* from) {
    uint32_t value;
    memcpy(&value, from, sizeof value);
    return value;
}

inline uint16_t load16(const uint8_t* from) {
    uint16_t value;
    memcpy(&value, from, sizeof value);
    return value;
}

// Gathers bits in a word. `flush` needs 8 writable bytes at `to`, whatever it advances by. Between two
// flushes at most 56 bits may be put.
struct BitWriter {
    uint64_t word = 0;   // bits not yet written, from the top
    unsigned count = 0;  // how many; at most 7 after a flush
    uint8_t* to = nullptr;

    void put(uint64_t value, unsigned bits) {
        count += bits;
        word |= value << (64 - count);
    }
    // As put, for a width that may be 0 while the word is empty.
    void putAny(uint64_t value, unsigned bits) {
        if (bits != 0) {
            put(value, bits);
        }
    }
    void flush() {
        storeBig64(to, word);
        to += count >> 3;
        word <<= count & ~7U;
        count &= 7;
    }
};

// Reads bits of a piece of memory. Bits of `word` below `count` are zero or those that follow in the input.
struct BitReader {
    uint64_t word = 0;
    unsigned count = 0;
    const uint8_t* from = nullptr;
    const uint8_t* end = nullptr;

    size_t left() const { return static_cast<size_t>(end - from); }
    // Needs 8 readable bytes; afterwards at least 56 bits are there.
    void refillFast() {
        word |= loadBig64(from) >> count;
        from += (63 - count) >> 3;
        count |= 56;
    }
    // As many whole bytes as the word takes and the input has.
    void refill() {
        while (count < 56 && from < end) {
            word |= static_cast<uint64_t>(*from++) << (56 - count);
            count += 8;
        }
    }
    uint32_t peek(unsigned bits) const { return bits == 0 ? 0 : static_cast<uint32_t>(word >> (64 - bits)); }
    // As peek, without a branch, for 0 to 31 bits.
    uint32_t peekAny(unsigned bits) const { return static_cast<uint32_t>((word >> 1) >> (63 - bits)); }
    void drop(unsigned bits) {
        word <<= bits;
        count -= bits;
    }
    uint32_t take(unsigned bits) {
        const uint32_t value = peek(bits);
        drop(bits);
        return value;
    }
};
