#include <algorithm>
#include <climits>

#include "transfer/compress/compress.h"

namespace {

unsigned orDefault(unsigned value, unsigned standard) {
    return value != 0 ? value : standard;
}

struct Candidate {
    int id;
    CompressParameter parameters;
};

constexpr Candidate candidates[] = {
    {compress_none, {}},
    {compress_huffman, {}},
    {compress_rle, {.var = 1}},
    {compress_rle, {}},
    {compress_lzp, {}},
    {compress_lzp, {.lzpHash = 9}},
    {compress_lzss, {.lzssLevel = 10, .var = 3}},
    {compress_zlib, {}},
    {compress_lzx, {.lzpHash = 2}},
    {compress_lzx, {.lzpHash = 3}},
    {compress_lzx, {.lzpHash = 4}},
};

}  // namespace

int validCompressed(int id) {
    switch (id) {
        case compress_none:
        case compress_huffman:
        case compress_rle:
        case compress_lzss:
        case compress_lzp:
        case compress_lzx:
        case compress_zlib:
            return 1;
        default:
            return 0;
    }
}

void getParameters(CompressParameter* out, const CompressParameter* in, int id, int flags) {
    const CompressParameter given = in != nullptr ? *in : CompressParameter{};
    const bool lzx = id == compress_lzx;
    out->hufBlock = std::min(orDefault(given.hufBlock, 32), 256U);
    out->lzssWindow = std::min(orDefault(given.lzssWindow, 12), 16U);
    out->lzssLevel = std::min(orDefault(given.lzssLevel, 5), 30U);
    out->var = id == compress_rle && (given.var == 0 || given.var > 4) ? 4 : given.var;
    out->lzpHash = std::clamp(orDefault(given.lzpHash, lzx ? 3 : 9), 2U, lzx ? 4U : 10U);
    out->lzpHashTableSize = std::min(orDefault(given.lzpHashTableSize, 11), 16U);
    out->lzpBufferSize = std::min(orDefault(given.lzpBufferSize, lzx ? 13 : 10), 16U);
    if ((flags & compress_record) != 0) {
        out->lzpBufferSize = std::max(out->lzpBufferSize, 3U);
    }
    out->zlibLevel = std::min(orDefault(given.zlibLevel, 9), 9U);
    out->strongBuf = given.strongBuf;
    out->lzmixBits = std::clamp(orDefault(given.lzmixBits, 2), 2U, 6U);
    constexpr unsigned mostLevels[] = {46, 39, 28, 18, 10};  // with more, codes would leave the alphabet
    out->lzmixLevel = std::min(orDefault(given.lzmixLevel, 46), mostLevels[out->lzmixBits - 2]);
}

void limitLzpBuffer(CompressParameter* parameters, long size) {
    if (size < 0) {
        size = LONG_MAX;
    } else if (size == 0) {
        size = 32768;
    }
    const long twice = size > LONG_MAX / 2 ? LONG_MAX : 2 * size;
    while (parameters->lzpBufferSize >= 2 && (4096L << parameters->lzpBufferSize) >= twice) {
        --parameters->lzpBufferSize;
    }
}

int strongParameters(int i, CompressParameter* parameters) {
    constexpr int count = static_cast<int>(sizeof candidates / sizeof candidates[0]);
    if (i < 0 || i >= count) {
        return -1;
    }
    *parameters = candidates[i].parameters;
    return candidates[i].id;
}
