#include "security/aes_portable.h"

#include <string.h>

#include <array>
#include <bit>
#include <utility>

#include "base/memory.h"
#include "security/aes_field.h"

static_assert(std::endian::native == std::endian::little);

namespace {

// Bit j of the byte at position p of block b stands in plane j, bit 16 * b + p.
using planes = std::array<uint64_t, 8>;
constexpr size_t lanes = 4;
constexpr uint64_t every_lane = 0x0001000100010001;

// ---- bytes to planes and back

// The 8 by 8 bit matrix whose rows are the bytes of x, mirrored at its diagonal.
uint64_t transpose_bits(uint64_t x) {
    uint64_t t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AA;
    x ^= t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCC;
    x ^= t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0;
    return x ^ t ^ (t << 28);
}

void add_block(planes& state, size_t lane, const uint8_t block[16]) {
    uint64_t low, high;
    memcpy(&low, block, 8);
    memcpy(&high, block + 8, 8);
    low = transpose_bits(low);
    high = transpose_bits(high);
#pragma GCC unroll 8
    for (size_t plane = 0; plane < 8; ++plane) {
        uint64_t bits = ((low >> (8 * plane)) & 0xFF) | (((high >> (8 * plane)) & 0xFF) << 8);
        state[plane] |= bits << (16 * lane);
    }
}

void take_block(const planes& state, size_t lane, uint8_t block[16]) {
    uint64_t low = 0, high = 0;
#pragma GCC unroll 8
    for (size_t plane = 0; plane < 8; ++plane) {
        uint64_t bits = state[plane] >> (16 * lane);
        low |= (bits & 0xFF) << (8 * plane);
        high |= ((bits >> 8) & 0xFF) << (8 * plane);
    }
    low = transpose_bits(low);
    high = transpose_bits(high);
    memcpy(block, &low, 8);
    memcpy(block + 8, &high, 8);
}

// ---- S-box on planes

// One output plane of a bit matrix: the sum of the input planes that its row names.
template <const aes_bit_matrix& matrix, size_t row, size_t... column>
[[gnu::always_inline]] inline uint64_t matrix_row(const planes& in, std::index_sequence<column...>) {
    uint64_t sum = 0;
    ((((matrix[row] >> column) & 1) ? void(sum ^= in[column]) : void()), ...);
    return sum;
}

template <const aes_bit_matrix& matrix>
planes multiply(const planes& in) {
    return [&]<size_t... row>(std::index_sequence<row...>) {
        return planes{matrix_row<matrix, row>(in, std::make_index_sequence<8>{})...};
    }
    (std::make_index_sequence<8>{});
}

// Elements of the field of 16, x^4 + x + 1, as four planes.
struct nibble {
    uint64_t b0, b1, b2, b3;
};

[[gnu::always_inline]] inline nibble operator^(nibble a, nibble b) {
    return {a.b0 ^ b.b0, a.b1 ^ b.b1, a.b2 ^ b.b2, a.b3 ^ b.b3};
}

[[gnu::always_inline]] inline nibble operator*(nibble a, nibble b) {
    uint64_t p4 = (a.b1 & b.b3) ^ (a.b2 & b.b2) ^ (a.b3 & b.b1);
    uint64_t p5 = (a.b2 & b.b3) ^ (a.b3 & b.b2);
    uint64_t p6 = a.b3 & b.b3;
    return {(a.b0 & b.b0) ^ p4, (a.b0 & b.b1) ^ (a.b1 & b.b0) ^ p4 ^ p5,
            (a.b0 & b.b2) ^ (a.b1 & b.b1) ^ (a.b2 & b.b0) ^ p5 ^ p6,
            (a.b0 & b.b3) ^ (a.b1 & b.b2) ^ (a.b2 & b.b1) ^ (a.b3 & b.b0) ^ p6};
}

inline nibble square(nibble a) {
    return {a.b0 ^ a.b2, a.b2, a.b1 ^ a.b3, a.b3};
}

// Times x^3, the element that makes y^2 + y + x^3 irreducible.
nibble times_lambda(nibble a) {
    return {a.b1, a.b1 ^ a.b2, a.b2 ^ a.b3, a.b0 ^ a.b3};
}

// a^14 = a^2 a^4 a^8, zero for zero.
[[gnu::always_inline]] inline nibble invert(nibble a) {
    nibble a2 = square(a), a4 = square(a2), a8 = square(a4);
    return a2 * a4 * a8;
}

// Inverts each byte, which stands as high y + low with y^2 = y + lambda.
[[gnu::always_inline]] inline planes invert_tower(const planes& in) {
    nibble low{in[0], in[1], in[2], in[3]}, high{in[4], in[5], in[6], in[7]};
    nibble inverse = invert(times_lambda(square(high)) ^ (low * (low ^ high)));
    nibble out_high = high * inverse, out_low = (low ^ high) * inverse;
    return {out_low.b0,  out_low.b1,  out_low.b2,  out_low.b3,
            out_high.b0, out_high.b1, out_high.b2, out_high.b3};
}

// The constant 0x63 of the S-box, on the planes of its bits.
void add_sbox_constant(planes& state) {
    for (size_t plane : {size_t{0}, size_t{1}, size_t{5}, size_t{6}}) {
        state[plane] = ~state[plane];
    }
}

void sub_bytes(planes& state) {
    state = multiply<aes_from_tower_affine>(invert_tower(multiply<aes_to_tower>(state)));
    add_sbox_constant(state);
}

void inverse_sub_bytes(planes& state) {
    add_sbox_constant(state);
    state = multiply<aes_from_tower>(invert_tower(multiply<aes_to_tower_affine>(state)));
}

// ---- rows, columns, keys

uint64_t rotate_lanes(uint64_t x, int count) {
    uint64_t keep = every_lane * (0xFFFFu >> count);
    return ((x >> count) & keep) | ((x << (16 - count)) & ~keep);
}

void shift_rows(planes& state) {
#pragma GCC unroll 8
    for (uint64_t& x : state) {
        x = (x & (every_lane * 0x1111)) | rotate_lanes(x & (every_lane * 0x2222), 4) |
            rotate_lanes(x & (every_lane * 0x4444), 8) | rotate_lanes(x & (every_lane * 0x8888), 12);
    }
}

void inverse_shift_rows(planes& state) {
#pragma GCC unroll 8
    for (uint64_t& x : state) {
        x = (x & (every_lane * 0x1111)) | rotate_lanes(x & (every_lane * 0x2222), 12) |
            rotate_lanes(x & (every_lane * 0x4444), 8) | rotate_lanes(x & (every_lane * 0x8888), 4);
    }
}

// The byte one row, and two rows, further down in the same column.
uint64_t next_row(uint64_t x) {
    return ((x >> 1) & (every_lane * 0x7777)) | ((x << 3) & (every_lane * 0x8888));
}
uint64_t second_row(uint64_t x) {
    return ((x >> 2) & (every_lane * 0x3333)) | ((x << 2) & (every_lane * 0xCCCC));
}

// Times x in the field of 256, x^8 + x^4 + x^3 + x + 1.
planes times_x(const planes& a) {
    return {a[7], a[0] ^ a[7], a[1], a[2] ^ a[7], a[3] ^ a[7], a[4], a[5], a[6]};
}

void mix_columns(planes& state) {
    planes next, pair;
#pragma GCC unroll 8
    for (size_t i = 0; i < 8; ++i) {
        next[i] = next_row(state[i]);
        pair[i] = state[i] ^ next[i];
    }
    planes doubled = times_x(pair);
#pragma GCC unroll 8
    for (size_t i = 0; i < 8; ++i) {
        state[i] = doubled[i] ^ next[i] ^ second_row(pair[i]);
    }
}

// The inverse matrix is the forward one behind a step that adds 4 (a + the byte two rows down) to each byte.
void inverse_mix_columns(planes& state) {
    planes pair;
#pragma GCC unroll 8
    for (size_t i = 0; i < 8; ++i) {
        pair[i] = state[i] ^ second_row(state[i]);
    }
    planes fourfold = times_x(times_x(pair));
#pragma GCC unroll 8
    for (size_t i = 0; i < 8; ++i) {
        state[i] ^= fourfold[i];
    }
    mix_columns(state);
}

struct unpacked_rounds {
    planes round[15];

    unpacked_rounds(const uint8_t* packed, int rounds) {
        for (int r = 0; r <= rounds; ++r) {
            for (size_t plane = 0; plane < 8; ++plane) {
                uint16_t bits;
                memcpy(&bits, packed + static_cast<size_t>(r) * 16 + plane * 2, 2);
                round[r][plane] = bits * every_lane;
            }
        }
    }
    ~unpacked_rounds() { qx_wipe(round, sizeof round); }
    unpacked_rounds(const unpacked_rounds&) = delete;
    unpacked_rounds& operator=(const unpacked_rounds&) = delete;
};

void add_round(planes& state, const planes& round) {
#pragma GCC unroll 8
    for (size_t i = 0; i < 8; ++i) {
        state[i] ^= round[i];
    }
}

void encrypt_state(planes& state, const unpacked_rounds& keys, int rounds) {
    add_round(state, keys.round[0]);
    for (int r = 1; r <= rounds; ++r) {
        sub_bytes(state);
        shift_rows(state);
        if (r != rounds) {
            mix_columns(state);
        }
        add_round(state, keys.round[r]);
    }
}

void decrypt_state(planes& state, const unpacked_rounds& keys, int rounds) {
    add_round(state, keys.round[rounds]);
    for (int r = rounds - 1; r >= 0; --r) {
        inverse_shift_rows(state);
        inverse_sub_bytes(state);
        add_round(state, keys.round[r]);
        if (r != 0) {
            inverse_mix_columns(state);
        }
    }
}

void add_bytes(uint8_t* to, const uint8_t* what) {
    for (size_t i = 0; i < 16; ++i) {
        to[i] = static_cast<uint8_t>(to[i] ^ what[i]);
    }
}

}  // namespace

uint32_t aes_portable_sub_word(uint32_t word) {
    uint8_t block[16] = {};
    memcpy(block, &word, 4);
    planes state{};
    add_block(state, 0, block);
    sub_bytes(state);
    take_block(state, 0, block);
    memcpy(&word, block, 4);
    qx_wipe(block, sizeof block);
    return word;
}

void aes_portable_pack_rounds(uint8_t* rounds, int count) {
    for (int r = 0; r < count; ++r) {
        planes state{};
        add_block(state, 0, rounds + 16 * r);
        for (size_t plane = 0; plane < 8; ++plane) {
            uint16_t bits = static_cast<uint16_t>(state[plane]);
            memcpy(rounds + static_cast<size_t>(r) * 16 + plane * 2, &bits, 2);
        }
    }
}

void aes_portable_cbc_encrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                              uint8_t iv[16]) {
    unpacked_rounds keys(key.encrypt_rounds, key.rounds);
    for (; blocks != 0; blocks--, in += 16, out += 16) {
        add_bytes(iv, in);
        planes state{};
        add_block(state, 0, iv);
        encrypt_state(state, keys, key.rounds);
        take_block(state, 0, iv);
        memcpy(out, iv, 16);
    }
}

void aes_portable_cbc_decrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                              uint8_t iv[16]) {
    unpacked_rounds keys(key.encrypt_rounds, key.rounds);
    while (blocks != 0) {
        size_t count = blocks < lanes ? blocks : lanes;
        uint8_t before[(lanes + 1) * 16];
        memcpy(before, iv, 16);
        memcpy(before + 16, in, count * 16);
        planes state{};
        for (size_t lane = 0; lane < count; ++lane) {
            add_block(state, lane, in + 16 * lane);
        }
        decrypt_state(state, keys, key.rounds);
        for (size_t lane = 0; lane < count; ++lane) {
            take_block(state, lane, out + 16 * lane);
            add_bytes(out + 16 * lane, before + 16 * lane);
        }
        memcpy(iv, before + 16 * count, 16);
        blocks -= count;
        in += 16 * count;
        out += 16 * count;
    }
}
