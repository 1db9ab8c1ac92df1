// The matrices with which bytes of AES move between its field and a field of pairs of 4-bit elements, where
// inverting is cheap. All are worked out by the compiler from the two fields' definitions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// Row i holds, bit by bit, which input bits add up to output bit i.
using aes_bit_matrix = std::array<uint8_t, 8>;

namespace aes_field {

constexpr uint8_t multiply_256(uint8_t a, uint8_t b) {
    unsigned product = 0, factor = a;
    for (int i = 0; i < 8; i++, factor <<= 1) {
        if (factor & 0x100) {
            factor ^= 0x11B;
        }
        if ((b >> i) & 1) {
            product ^= factor;
        }
    }
    return static_cast<uint8_t>(product);
}

constexpr uint8_t multiply_16(uint8_t a, uint8_t b) {
    unsigned product = 0, factor = a;
    for (int i = 0; i < 4; i++, factor <<= 1) {
        if (factor & 0x10) {
            factor ^= 0x13;
        }
        if ((b >> i) & 1) {
            product ^= factor;
        }
    }
    return static_cast<uint8_t>(product);
}

// Pairs high y + low with y^2 = y + lambda.
inline constexpr uint8_t lambda = 0x8;  // x^3: its trace is 1, so that the polynomial has no root

constexpr uint8_t multiply_tower(uint8_t a, uint8_t b) {
    uint8_t ah = a >> 4, al = a & 15, bh = b >> 4, bl = b & 15;
    uint8_t hh = multiply_16(ah, bh);
    auto high = static_cast<uint8_t>(hh ^ multiply_16(ah, bl) ^ multiply_16(al, bh));
    auto low = static_cast<uint8_t>(multiply_16(hh, lambda) ^ multiply_16(al, bl));
    return static_cast<uint8_t>(high << 4 | low);
}

// A root of the polynomial of AES in the field of pairs: its powers are the images of the powers of x.
constexpr uint8_t find_root() {
    for (unsigned candidate = 2; candidate < 256; ++candidate) {
        auto c = static_cast<uint8_t>(candidate);
        uint8_t power[9] = {1};
        for (int i = 1; i <= 8; ++i) {
            power[i] = multiply_tower(power[i - 1], c);
        }
        if ((power[8] ^ power[4] ^ power[3] ^ power[1] ^ power[0]) == 0) {
            return c;
        }
    }
    return 0;
}

constexpr uint8_t apply(const aes_bit_matrix& matrix, uint8_t x) {
    unsigned result = 0;
    for (unsigned row = 0; row < 8; ++row) {
        unsigned bits = matrix[row] & x, parity = 0;
        for (; bits != 0; bits &= bits - 1) {
            parity ^= 1;
        }
        result |= parity << row;
    }
    return static_cast<uint8_t>(result);
}

// The matrix of a linear map, given where each single bit goes.
constexpr aes_bit_matrix from_images(const std::array<uint8_t, 8>& images) {
    aes_bit_matrix matrix{};
    for (unsigned row = 0; row < 8; ++row) {
        for (unsigned column = 0; column < 8; ++column) {
            if ((images[column] >> row) & 1) {
                matrix[row] = static_cast<uint8_t>(matrix[row] | (1u << column));
            }
        }
    }
    return matrix;
}

constexpr aes_bit_matrix to_tower() {
    std::array<uint8_t, 8> images{};
    const uint8_t root = find_root();
    uint8_t power = 1;
    for (auto& image : images) {
        image = power;
        power = multiply_tower(power, root);
    }
    return from_images(images);
}

// The inverse of a matrix, by looking for what maps to each single bit.
constexpr aes_bit_matrix inverse(const aes_bit_matrix& matrix) {
    std::array<uint8_t, 8> images{};
    for (unsigned x = 0; x < 256; ++x) {
        uint8_t image = apply(matrix, static_cast<uint8_t>(x));
        for (unsigned bit = 0; bit < 8; ++bit) {
            if (image == 1u << bit) {
                images[bit] = static_cast<uint8_t>(x);
            }
        }
    }
    return from_images(images);
}

// first, then second
constexpr aes_bit_matrix chain(const aes_bit_matrix& first, const aes_bit_matrix& second) {
    std::array<uint8_t, 8> images{};
    for (unsigned bit = 0; bit < 8; ++bit) {
        images[bit] = apply(second, apply(first, static_cast<uint8_t>(1u << bit)));
    }
    return from_images(images);
}

// The linear part of the S-box: each bit plus the four above it, round the byte.
constexpr aes_bit_matrix affine() {
    aes_bit_matrix matrix{};
    for (unsigned row = 0; row < 8; ++row) {
        for (unsigned step : {0u, 4u, 5u, 6u, 7u}) {
            matrix[row] = static_cast<uint8_t>(matrix[row] | (1u << ((row + step) % 8)));
        }
    }
    return matrix;
}

}  // namespace aes_field

inline constexpr aes_bit_matrix aes_to_tower = aes_field::to_tower();
inline constexpr aes_bit_matrix aes_from_tower = aes_field::inverse(aes_to_tower);
inline constexpr aes_bit_matrix aes_from_tower_affine = aes_field::chain(aes_from_tower, aes_field::affine());
inline constexpr aes_bit_matrix aes_to_tower_affine =
    aes_field::chain(aes_field::inverse(aes_field::affine()), aes_to_tower);
