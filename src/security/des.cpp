#include "security/des.h"

#include <array>
#include <cstddef>

#include "base/memory.h"

namespace {

// The standard's tables count bits from 1, the most significant first.
constexpr std::array<uint8_t, 64> initial_order = {
    58, 50, 42, 34, 26, 18, 10, 2,  60, 52, 44, 36, 28, 20, 12, 4,  62, 54, 46, 38, 30, 22,
    14, 6,  64, 56, 48, 40, 32, 24, 16, 8,  57, 49, 41, 33, 25, 17, 9,  1,  59, 51, 43, 35,
    27, 19, 11, 3,  61, 53, 45, 37, 29, 21, 13, 5,  63, 55, 47, 39, 31, 23, 15, 7};
constexpr std::array<uint8_t, 48> expansion = {32, 1,  2,  3,  4,  5,  4,  5,  6,  7,  8,  9,  8,  9,  10, 11,
                                               12, 13, 12, 13, 14, 15, 16, 17, 16, 17, 18, 19, 20, 21, 20, 21,
                                               22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1};
constexpr std::array<uint8_t, 32> round_order = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23,
                                                 26, 5, 18, 31, 10, 2,  8,  24, 14, 32, 27,
                                                 3,  9, 19, 13, 30, 6,  22, 11, 4,  25};
constexpr std::array<uint8_t, 56> key_choice = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                                                10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                                                63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                                                14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};
constexpr std::array<uint8_t, 48> round_key_choice = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
constexpr uint8_t key_shifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

constexpr uint8_t boxes[8][4][16] = {{{14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7},
                                      {0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8},
                                      {4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0},
                                      {15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13}},
                                     {{15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10},
                                      {3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5},
                                      {0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15},
                                      {13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9}},
                                     {{10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8},
                                      {13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1},
                                      {13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7},
                                      {1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12}},
                                     {{7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15},
                                      {13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9},
                                      {10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4},
                                      {3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14}},
                                     {{2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9},
                                      {14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6},
                                      {4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14},
                                      {11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3}},
                                     {{12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11},
                                      {10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8},
                                      {9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6},
                                      {4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13}},
                                     {{4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1},
                                      {13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6},
                                      {1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2},
                                      {6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12}},
                                     {{13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7},
                                      {1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2},
                                      {7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8},
                                      {2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11}}};

// Takes bits of a number of `width` bits in the order of a table, most significant first.
template <size_t N>
constexpr uint64_t choose(uint64_t in, int width, const std::array<uint8_t, N>& order) {
    uint64_t out = 0;
    for (uint8_t bit : order) {
        out = (out << 1) | ((in >> (width - bit)) & 1);
    }
    return out;
}

constexpr std::array<uint8_t, 64> invert(const std::array<uint8_t, 64>& order) {
    std::array<uint8_t, 64> inverse{};
    for (size_t i = 0; i < order.size(); ++i) {
        inverse[order[i] - 1u] = static_cast<uint8_t>(i + 1);
    }
    return inverse;
}
constexpr std::array<uint8_t, 64> final_order = invert(initial_order);

uint32_t round_function(uint32_t half, uint64_t round_key) {
    uint64_t wide = choose(half, 32, expansion) ^ round_key;
    uint32_t out = 0;
    for (int box = 0; box < 8; ++box) {
        auto six = static_cast<unsigned>(wide >> (42 - 6 * box)) & 0x3F;
        out = (out << 4) | boxes[box][((six >> 4) & 2) | (six & 1)][(six >> 1) & 0xF];
    }
    return static_cast<uint32_t>(choose(out, 32, round_order));
}

uint64_t load_big_endian(const uint8_t* bytes) {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

void run_block(const des_key& key, uint8_t block[8], bool decipher) {
    uint64_t state = choose(load_big_endian(block), 64, initial_order);
    auto left = static_cast<uint32_t>(state >> 32), right = static_cast<uint32_t>(state);
    for (size_t i = 0; i < 16; ++i) {
        uint32_t next = left ^ round_function(right, key.rounds[decipher ? 15 - i : i]);
        left = right;
        right = next;
    }
    // The halves are not exchanged after the last round.
    state = choose(static_cast<uint64_t>(right) << 32 | left, 64, final_order);
    for (int i = 7; i >= 0; i--, state >>= 8) {
        block[i] = static_cast<uint8_t>(state);
    }
}

uint32_t rotate_28(uint32_t half, unsigned count) {
    return ((half << count) | (half >> (28 - count))) & 0x0FFFFFFF;
}

}  // namespace

des_key::des_key() : rounds{} {}

des_key::~des_key() {
    qx_wipe(rounds, sizeof rounds);
}

void desinit(des_key* out, const uint8_t key[8]) {
    uint64_t chosen = choose(load_big_endian(key), 64, key_choice);
    auto left = static_cast<uint32_t>(chosen >> 28), right = static_cast<uint32_t>(chosen & 0x0FFFFFFF);
    for (size_t i = 0; i < 16; ++i) {
        left = rotate_28(left, key_shifts[i]);
        right = rotate_28(right, key_shifts[i]);
        out->rounds[i] = choose(static_cast<uint64_t>(left) << 28 | right, 56, round_key_choice);
    }
}

void endes(const des_key& key, uint8_t block[8]) {
    run_block(key, block, false);
}

void dedes(const des_key& key, uint8_t block[8]) {
    run_block(key, block, true);
}
