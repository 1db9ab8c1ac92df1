// One step of MD5, for the code that runs whole blocks.
#pragma once

#include <string.h>

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little);

// The whole part of 2^32 times the absolute sine of 1 to 64.
inline constexpr uint32_t md5_sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline constexpr uint8_t md5_rotations[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
inline constexpr uint8_t md5_word_steps[4][2] = {{0, 1}, {1, 5}, {5, 3}, {0, 7}};  // first word, stride

// Step `i` of 0 to 63 over the four words v; the word that it changes moves down by one with each step.
// Everything that doesn't need the word of the step before is added first: that word is what the next step
// waits for.
template <size_t i>
[[gnu::always_inline]] inline void md5_step(uint32_t (&v)[4], const uint8_t* block) {
    constexpr size_t round = i / 16;
    uint32_t& a = v[(64 - i) % 4];
    const uint32_t b = v[(65 - i) % 4], c = v[(66 - i) % 4], d = v[(67 - i) % 4];
    uint32_t word;
    memcpy(&word, block + 4 * ((md5_word_steps[round][0] + md5_word_steps[round][1] * i) % 16), 4);
    a += word + md5_sines[i];
    if constexpr (round == 0) {
        a += d ^ (b & (c ^ d));
    } else if constexpr (round == 1) {
        a += ~d & c;  // no bit is set in both halves, so that adding them is joining them
        a += d & b;
    } else if constexpr (round == 2) {
        a += (c ^ d) ^ b;
    } else {
        a += c ^ (b | ~d);
    }
    a = std::rotl(a, md5_rotations[round][i % 4]) + b;
}
