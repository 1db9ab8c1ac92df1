// Constants of the compressed stream that its two sides share.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

// Alphabet: 0 to 255 are bytes, 256 ends a block, what follows belongs to the method.
inline constexpr unsigned alphabet_size = 1024;
inline constexpr unsigned symbol_end = 256;
inline constexpr unsigned first_code = 257;
// Longest code that an encoder writes. A decoder takes any complete tree that can be sent, up to 31.
inline constexpr unsigned code_length_max = 24;

// Second alphabet, in which code lengths travel: lengths, and three classes of runs.
inline constexpr unsigned run_short = 257;   // 2 to 5, 2 bits
inline constexpr unsigned run_middle = 258;  // 6 to 21, 4 bits
inline constexpr unsigned run_long = 259;    // 22 to 85, 6 bits
inline constexpr unsigned length_alphabet_size = 260;
inline constexpr unsigned run_max = 85;

// Order in which the lengths of the second alphabet travel. 25 stands twice and 26 never; that must stay, or
// the two sides read different trees.
inline constexpr std::array<uint16_t, 36> specialOrder = {257, 258, 259, 0,  8,  7,  9,  6,  10, 5,  11, 4,
                                                          12,  3,   13,  2,  14, 1,  15, 16, 17, 18, 19, 20,
                                                          21,  22,  23,  24, 25, 25, 27, 28, 29, 30, 31, 32};

// A length or count is one symbol when it is small; above, a symbol tells its highest bit and the rest
// follows.
inline constexpr unsigned count_max = 32767;
inline constexpr unsigned count_bits_max = 14;

inline unsigned highestBit(uint32_t value) {
    return 31U - static_cast<unsigned>(std::countl_zero(value));
}

// Runs and predictions: counts 1 to 63 have codes of their own, then one code for each highest bit from 6 on.
inline constexpr unsigned counted_codes = 72;
inline constexpr unsigned counted_small = 63;
inline constexpr unsigned counted_bits = 6;

// Windows: 32 lengths from 3 on have codes of their own, then one code for each highest bit from 5 on, and
// that once for each class of positions.
inline constexpr unsigned window_codes = 42;
inline constexpr unsigned window_least = 3;
inline constexpr unsigned window_small = 32;
inline constexpr unsigned window_bits = 5;
inline constexpr unsigned window_class_max = 6;

struct PositionClass {
    uint32_t base;  // smallest distance less 1
    uint32_t end;   // one above the largest
    unsigned bits;
};

struct PositionClasses {
    std::array<PositionClass, window_class_max> row;
    unsigned count;
    uint32_t slidSize;  // all distances together
};

// Classes have 5, 9, 13, … bits below `slidBits`, and a last one of exactly `slidBits`.
constexpr PositionClasses positionClasses(unsigned slidBits) {
    PositionClasses classes{};
    uint32_t base = 0;
    for (unsigned bits = 5; bits < slidBits; bits += 4) {
        classes.row[classes.count++] = {base, base + (1U << bits), bits};
        base += 1U << bits;
    }
    classes.row[classes.count++] = {base, base + (1U << slidBits), slidBits};
    classes.slidSize = base + (1U << slidBits);
    return classes;
}

// Contexts of a prediction.
struct ContextHash {
    unsigned order;
    unsigned shift;
    uint32_t mask;
    uint32_t start;  // value before the first byte
};

// Buffers begin with this many bytes, the last of which are the two line ends that the first contexts see.
inline constexpr unsigned context_front = 16;
inline constexpr std::array<uint8_t, 4> context_before = {0x0d, 0x0a, 0x0d, 0x0a};

constexpr unsigned getHashShift(uint32_t size, unsigned order) {
    switch (order) {
        case 2:
            return size > 32767 ? 8 : size > 8191 ? 7 : size > 2047 ? 6 : size < 512 ? 4 : 5;
        case 3:
            return size > 0x3fffff  ? 8
                   : size > 0x7ffff ? 7
                   : size > 65535   ? 6
                   : size > 8191    ? 5
                   : size > 1023    ? 4
                   : size > 127     ? 3
                                    : 2;
        case 4:
            return size > 0x1fffff ? 6 : size > 0x1ffff ? 5 : size > 8191 ? 4 : size > 511 ? 3 : 2;
        default:
            return 8;
    }
}

constexpr ContextHash contextHash(uint32_t size, unsigned order) {
    if (order < 4 && size > 1U << (8 * order)) {
        size = 1U << (8 * order);
    }
    ContextHash hash{order, getHashShift(size, order), size - 1, 0};
    // The context before the first byte is as if two line ends had been there; it counts from byte 1 on.
    if (order > 0) {
        hash.start = context_before[1];
        for (unsigned i = 1; i < order; ++i) {
            hash.start ^= uint32_t{context_before[3 - i]} << (hash.shift * i);
        }
        hash.start &= hash.mask;
    }
    return hash;
}

// Orders of the two tables of `lzpHash`; the second is 0 when there is one table.
struct ContextOrders {
    unsigned first;
    unsigned second;
};

constexpr ContextOrders contextOrders(unsigned lzpHash) {
    switch (lzpHash) {
        case 5:
            return {2, 1};
        case 6:
        case 7:
            return {3, lzpHash - 5};
        case 8:
        case 9:
        case 10:
            return {4, lzpHash - 7};
        default:
            return {lzpHash, 0};
    }
}
