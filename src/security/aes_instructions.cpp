#include "security/aes_instructions.h"

#include <utility>

#include "security/md5_step.h"

#if defined(__x86_64__)
#include <immintrin.h>

#define AES_TARGET __attribute__((target("aes,sse4.1")))
#define AES_TARGET_INLINE __attribute__((target("aes,sse4.1"), always_inline)) inline

namespace {

AES_TARGET inline __m128i load(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
AES_TARGET inline void store(uint8_t* p, __m128i x) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x);
}

AES_TARGET_INLINE void decrypt_block(const aes_key& key, const uint8_t* in, uint8_t* out, __m128i& chain) {
    const __m128i cipher = load(in);
    __m128i x = _mm_xor_si128(cipher, load(key.decrypt_rounds));
    for (int r = 1; r < key.rounds; ++r) {
        x = _mm_aesdec_si128(x, load(key.decrypt_rounds + 16 * r));
    }
    x = _mm_aesdeclast_si128(x, load(key.decrypt_rounds + 16 * key.rounds));
    store(out, _mm_xor_si128(x, chain));
    chain = cipher;
}

// The last round of one block. Its ciphertext is read again before its place is written: both may be the
// same.
AES_TARGET_INLINE void finish_block(__m128i x, __m128i round, const uint8_t* in, uint8_t* out,
                                    __m128i& chain) {
    x = _mm_xor_si128(_mm_aesdeclast_si128(x, round), chain);
    chain = load(in);
    store(out, x);
}

// Eight blocks in named variables, which the compiler keeps in registers; an array it would keep in memory.
AES_TARGET_INLINE void decrypt_eight(const aes_key& key, const uint8_t* in, uint8_t* out, __m128i& chain) {
    __m128i round = load(key.decrypt_rounds);
    __m128i a = _mm_xor_si128(load(in), round), b = _mm_xor_si128(load(in + 16), round);
    __m128i c = _mm_xor_si128(load(in + 32), round), d = _mm_xor_si128(load(in + 48), round);
    __m128i e = _mm_xor_si128(load(in + 64), round), f = _mm_xor_si128(load(in + 80), round);
    __m128i g = _mm_xor_si128(load(in + 96), round), h = _mm_xor_si128(load(in + 112), round);
    for (int r = 1; r < key.rounds; ++r) {
        round = load(key.decrypt_rounds + 16 * r);
        a = _mm_aesdec_si128(a, round), b = _mm_aesdec_si128(b, round);
        c = _mm_aesdec_si128(c, round), d = _mm_aesdec_si128(d, round);
        e = _mm_aesdec_si128(e, round), f = _mm_aesdec_si128(f, round);
        g = _mm_aesdec_si128(g, round), h = _mm_aesdec_si128(h, round);
    }
    round = load(key.decrypt_rounds + 16 * key.rounds);
    finish_block(a, round, in, out, chain);
    finish_block(b, round, in + 16, out + 16, chain);
    finish_block(c, round, in + 32, out + 32, chain);
    finish_block(d, round, in + 48, out + 48, chain);
    finish_block(e, round, in + 64, out + 64, chain);
    finish_block(f, round, in + 80, out + 80, chain);
    finish_block(g, round, in + 96, out + 96, chain);
    finish_block(h, round, in + 112, out + 112, chain);
}

template <int rounds>
AES_TARGET void encrypt_chain(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                              uint8_t iv[16]) {
    __m128i round[rounds + 1];
    for (int r = 0; r <= rounds; ++r) {
        round[r] = load(key.encrypt_rounds + 16 * r);
    }
    __m128i x = load(iv);
    for (; blocks != 0; blocks--, in += 16, out += 16) {
        x = _mm_xor_si128(x, _mm_xor_si128(load(in), round[0]));
        for (int r = 1; r < rounds; ++r) {
            x = _mm_aesenc_si128(x, round[r]);
        }
        x = _mm_aesenclast_si128(x, round[rounds]);
        store(out, x);
    }
    store(iv, x);
}

// The part of AES that runs beside step `i` of MD5: a sixteenth of a block, four blocks to the 64 steps.
template <size_t i>
AES_TARGET_INLINE void encrypt_step(const aes_key& key, const uint8_t* in, uint8_t* out, __m128i& x) {
    constexpr size_t at = i / 16 * 16, r = i % 16;
    if constexpr (r == 0) {
        x = _mm_xor_si128(x, _mm_xor_si128(load(in + at), load(key.encrypt_rounds)));
    } else if constexpr (r < 14) {
        x = _mm_aesenc_si128(x, load(key.encrypt_rounds + 16 * r));
    } else if constexpr (r == 14) {
        x = _mm_aesenclast_si128(x, load(key.encrypt_rounds + 16 * r));
    } else {
        store(out + at, x);
    }
}

template <size_t... i>
AES_TARGET_INLINE void encrypt_group_md5(const aes_key& key, const uint8_t* in, uint8_t* out, __m128i& x,
                                         uint32_t (&v)[4], const uint8_t* hashed, std::index_sequence<i...>) {
    ((md5_step<i>(v, hashed), encrypt_step<i>(key, in, out, x)), ...);
}

}  // namespace

bool aes_instructions_present() {
    return __builtin_cpu_supports("aes") && __builtin_cpu_supports("sse4.1");
}

AES_TARGET void aes_instructions_invert_rounds(aes_key* key) {
    for (int r = 0; r <= key->rounds; ++r) {
        __m128i round = load(key->encrypt_rounds + 16 * (key->rounds - r));
        bool inner = r != 0 && r != key->rounds;
        store(key->decrypt_rounds + 16 * r, inner ? _mm_aesimc_si128(round) : round);
    }
}

void aes_instructions_cbc_encrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                                  uint8_t iv[16]) {
    if (key.rounds == 14) {
        encrypt_chain<14>(key, in, out, blocks, iv);
    } else if (key.rounds == 12) {
        encrypt_chain<12>(key, in, out, blocks, iv);
    } else {
        encrypt_chain<10>(key, in, out, blocks, iv);
    }
}

AES_TARGET void aes_instructions_cbc_decrypt(const aes_key& key, const uint8_t* in, uint8_t* out,
                                             size_t blocks, uint8_t iv[16]) {
    __m128i chain = load(iv);
    for (; blocks >= 8; blocks -= 8, in += 128, out += 128) {
        decrypt_eight(key, in, out, chain);
    }
    for (; blocks != 0; blocks--, in += 16, out += 16) {
        decrypt_block(key, in, out, chain);
    }
    store(iv, chain);
}

AES_TARGET void aes_instructions_cbc_encrypt_md5(const aes_key& key, const uint8_t* in, uint8_t* out,
                                                 size_t groups, uint8_t iv[16], uint32_t md5_state[4],
                                                 const uint8_t* hashed) {
    __m128i x = load(iv);
    uint32_t sum[4] = {md5_state[0], md5_state[1], md5_state[2], md5_state[3]};
    for (; groups != 0; groups--, in += 64, out += 64, hashed += 64) {
        uint32_t v[4] = {sum[0], sum[1], sum[2], sum[3]};
        encrypt_group_md5(key, in, out, x, v, hashed, std::make_index_sequence<64>{});
        for (size_t i = 0; i < 4; ++i) {
            sum[i] += v[i];
        }
    }
    for (size_t i = 0; i < 4; ++i) {
        md5_state[i] = sum[i];
    }
    store(iv, x);
}

#else  // another processor: the portable form only

#include <stdlib.h>

bool aes_instructions_present() {
    return false;
}
void aes_instructions_invert_rounds(aes_key*) {
    abort();
}
void aes_instructions_cbc_encrypt(const aes_key&, const uint8_t*, uint8_t*, size_t, uint8_t*) {
    abort();
}
void aes_instructions_cbc_decrypt(const aes_key&, const uint8_t*, uint8_t*, size_t, uint8_t*) {
    abort();
}
void aes_instructions_cbc_encrypt_md5(const aes_key&, const uint8_t*, uint8_t*, size_t, uint8_t*, uint32_t*,
                                      const uint8_t*) {
    abort();
}

#endif
