#include "transfer/compress/lzp_places.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

// Position, rest of the context that the index leaves out, check of the two bytes there.
uint32_t slotContent(const PlaceRule& rule, const uint8_t* p, uint32_t spread, uint32_t position) {
    const uint32_t rest = spread & ((1U << rule.restBits) - 1);
    return (placeCheck(p) << rule.restBits | rest) << rule.positionBits | position;
}

void portableContexts(const PlaceRule& rule, const uint8_t* p, unsigned count, uint32_t position,
                      uint32_t* index, uint32_t* fresh) {
    uint32_t value = 0;
    for (const uint8_t* before = p - rule.bytes; before < p; ++before) {
        value = value << rule.shift ^ *before;
    }
    for (unsigned i = 0; i < count; ++i) {
        index[i] = value;
        value = value << rule.shift ^ p[i];
    }
    for (unsigned i = 0; i < count; ++i) {
        const uint32_t spread = index[i] * context_spread & rule.mask;
        fresh[i] = slotContent(rule, p + i, spread, position + i);
        index[i] = spread >> rule.restBits;
    }
}

void portableUsable(const uint32_t* distance, unsigned count, uint32_t pool, uint8_t* found) {
    for (unsigned i = 0; i < count; i += 8) {
        unsigned bits = 0;
        for (unsigned k = 0; k < 8; ++k) {
            bits |= (distance[i + k] <= pool ? 1U : 0U) << k;
        }
        found[i / 8] = static_cast<uint8_t>(bits);
    }
}

#if defined(__x86_64__)

#define VECTORS __attribute__((target("avx2")))

// Eight bytes as eight words.
VECTORS inline __m256i wide(const uint8_t* p) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

VECTORS inline void store(uint32_t* to, __m256i words) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), words);
}

VECTORS void vectorContexts(const PlaceRule& rule, const uint8_t* p, unsigned count, uint32_t position,
                            uint32_t* index, uint32_t* fresh) {
    const __m256i mask = _mm256_set1_epi32(static_cast<int>(rule.mask));
    const __m256i restMask = _mm256_set1_epi32(static_cast<int>((1U << rule.restBits) - 1));
    const __m256i factor = _mm256_set1_epi32(static_cast<int>(context_spread));
    const __m128i restBits = _mm_cvtsi32_si128(static_cast<int>(rule.restBits));
    const __m128i positionBits = _mm_cvtsi32_si128(static_cast<int>(rule.positionBits));
    const __m256i eight = _mm256_set1_epi32(8);
    __m256i place = _mm256_add_epi32(_mm256_set1_epi32(static_cast<int>(position)),
                                     _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    for (unsigned i = 0; i < count; i += 8, place = _mm256_add_epi32(place, eight)) {
        const uint8_t* const here = p + i;
        __m256i value = wide(here - 1);
        for (unsigned k = 1; k < rule.bytes; ++k) {
            const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(rule.shift * k));
            value = _mm256_xor_si256(value, _mm256_sll_epi32(wide(here - 1 - k), shift));
        }
        const __m256i spread = _mm256_and_si256(_mm256_mullo_epi32(value, factor), mask);
        const __m256i next = wide(here + 1);
        const __m256i check =
            _mm256_add_epi32(_mm256_add_epi32(wide(here), next), _mm256_slli_epi32(next, 2));
        const __m256i above =
            _mm256_or_si256(_mm256_sll_epi32(check, restBits), _mm256_and_si256(spread, restMask));
        store(fresh + i, _mm256_or_si256(_mm256_sll_epi32(above, positionBits), place));
        store(index + i, _mm256_srl_epi32(spread, restBits));
    }
}

VECTORS void vectorUsable(const uint32_t* distance, unsigned count, uint32_t pool, uint8_t* found) {
    const __m256i most = _mm256_set1_epi32(static_cast<int>(pool));
    for (unsigned i = 0; i < count; i += 8) {
        const __m256i here = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(distance + i));
        const __m256i within = _mm256_cmpeq_epi32(_mm256_min_epu32(here, most), here);
        found[i / 8] = static_cast<uint8_t>(_mm256_movemask_ps(_mm256_castsi256_ps(within)));
    }
}

constexpr PlaceForm vector_places = {vectorContexts, vectorUsable};

#endif

}  // namespace

const PlaceForm portable_places = {portableContexts, portableUsable};

const PlaceForm* vectorPlaces() {
#if defined(__x86_64__)
    return __builtin_cpu_supports("avx2") ? &vector_places : nullptr;
#else
    return nullptr;
#endif
}

const PlaceForm& placeForm() {
    static const PlaceForm* const vectors = vectorPlaces();
    return vectors != nullptr ? *vectors : portable_places;
}
