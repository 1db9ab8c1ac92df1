#include "base/base64_vector.h"

#if defined(__x86_64__)
#include <immintrin.h>

#include <cstring>

#define VECTOR_TARGET __attribute__((target("avx2")))

namespace {

VECTOR_TARGET inline __m128i load(const unsigned char* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

// 24 bytes, 12 in each half, as 32 characters. `spread` brings each 3 bytes b0 b1 b2 to b1 b0 b2 b1, so that
// the four groups of 6 bits can be moved to their places by one multiplication for each pair.
VECTOR_TARGET inline __m256i encode(__m256i bytes, __m256i spread) {
    const __m256i words = _mm256_shuffle_epi8(bytes, spread);
    const __m256i high = _mm256_mulhi_epu16(_mm256_and_si256(words, _mm256_set1_epi32(0x0fc0fc00)),
                                            _mm256_set1_epi32(0x04000040));
    const __m256i low = _mm256_mullo_epi16(_mm256_and_si256(words, _mm256_set1_epi32(0x003f03f0)),
                                           _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(high, low);
    // What a value lacks to its character depends on its range alone: 0 for a to z, 1 to 10 for the digits,
    // 11 and 12 for the last two, 13 for A to Z.
    const __m256i lacking = _mm256_setr_epi8(
        'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
        '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0, 'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
        '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    const __m256i range = _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(51)),
                                          _mm256_and_si256(upper, _mm256_set1_epi8(13)));
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(lacking, range));
}

VECTOR_TARGET inline void put(char* to, __m256i text) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), text);
}

// Three groups of 24 bytes, the last of which begins again within the second: 57 is no multiple of 24. Its
// second half is loaded 4 bytes early, so that nothing behind the line is read.
VECTOR_TARGET void encode_lines(const unsigned char* from, char* to, size_t lines) {
    constexpr int early = 4;
    const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 1, 0, 2, 1, 4,
                                            3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    const __m256i spread_last =
        _mm256_add_epi8(spread, _mm256_inserti128_si256(_mm256_setzero_si256(), _mm_set1_epi8(early), 1));
    for (; lines > 0; --lines, from += base64_line_bytes, to += base64_line_text + 2) {
        const __m256i first = encode(_mm256_set_m128i(load(from + 12), load(from)), spread);
        const __m256i second = encode(_mm256_set_m128i(load(from + 36), load(from + 24)), spread);
        const __m256i last = encode(_mm256_set_m128i(load(from + 45 - early), load(from + 33)), spread_last);
        put(to, first);
        put(to + 32, second);
        put(to + 44, last);
        memcpy(to + base64_line_text, "\r\n", 2);
    }
}

}  // namespace

base64_line_encoder base64_vector_lines() {
    return __builtin_cpu_supports("avx2") ? encode_lines : nullptr;
}

#else  // another processor

base64_line_encoder base64_vector_lines() {
    return nullptr;
}

#endif
