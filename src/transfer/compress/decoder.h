// The receiving side's state, shared by its methods.
#pragma once

#include <zlib.h>

#include <array>
#include <cstdint>
#include <memory>

#include "transfer/compress/bits.h"
#include "transfer/compress/bucket.h"
#include "transfer/compress/compress.h"
#include "transfer/compress/huffman.h"
#include "transfer/compress/memory.h"
#include "transfer/compress/symbols.h"

// Decoded bytes: history that copies refer to, what has not been delivered, and free space.
struct OutputBuffer {
    Memory memory;
    size_t capacity = 0;
    size_t history = 0;
    size_t delivered = 0;
    size_t end = 0;
    uint64_t base = 0;  // bytes of the stream before the memory

    uint8_t* at(size_t offset) const { return memory.data() + context_front + offset; }
    size_t free() const { return capacity - end; }
};
// Longest copy of one symbol (four times 32,767), and what wide stores may pass it by.
inline constexpr size_t output_longest = 0x20000;
inline constexpr size_t output_slack = 64;

// One step of decoding by the first bits of the input.
//
// Bits of an entry: 0-4 code length, 0 for a code longer than decode_bits; 5-8 extra bits; 9-23 base, or a
// literal in 9-16 and perhaps a second one in 17-24 with entry_two; 24-29 place; 30-31 kind.
inline constexpr unsigned decode_bits = 11;
inline constexpr unsigned entry_bits_shift = 5;
inline constexpr unsigned entry_base_shift = 9;
inline constexpr unsigned entry_second_shift = 17;
inline constexpr unsigned entry_place_shift = 24;
inline constexpr uint32_t entry_two = 1U << 29;
inline constexpr unsigned entry_kind_shift = 30;

inline unsigned entryLength(uint32_t entry) {
    return entry & 31;
}
inline unsigned entryExtra(uint32_t entry) {
    return entry >> entry_bits_shift & 15;
}
inline uint32_t entryBase(uint32_t entry) {
    return entry >> entry_base_shift & 0x7fff;
}
inline unsigned entryPlace(uint32_t entry) {
    return entry >> entry_place_shift & 63;
}
inline SymbolKind entryKind(uint32_t entry) {
    return static_cast<SymbolKind>(entry >> entry_kind_shift);
}

struct DecodeTable {
    std::array<uint32_t, 1U << decode_bits> quick;
    std::array<uint32_t, alphabet_size> ordered;  // entries in the order of codes
    std::array<uint64_t, 32> limit;               // code behind the last of each length
    std::array<uint32_t, 32> offset;              // added to a code: its place in `ordered`

    void build(const std::array<uint8_t, alphabet_size>& length,
               const std::array<uint32_t, alphabet_size>& shape);
    // Entry whose code, or two literals' codes, begin `word` at its top.
    uint32_t find(uint64_t word) const {
        const uint32_t entry = quick[word >> (64 - decode_bits)];
        return (entry & 31) != 0 ? entry : findOne(word, decode_bits + 1);
    }
    // Entry of one symbol only; its code has at least `from` bits.
    uint32_t findOne(uint64_t word, unsigned from) const {
        unsigned length = from;
        while (word >> (64 - length) >= limit[length]) {
            ++length;
        }
        return ordered[static_cast<uint32_t>(word >> (64 - length)) + offset[length]];
    }
};

// Several literals at once, for id 1. A row: the bits they take in 8 bits, then how many in 8, and up to four
// bytes from bit 32 on; 0 when the first code is longer or no literal.
struct LiteralTable {
    static constexpr unsigned bits = 11;
    static constexpr unsigned count_shift = 8;
    static constexpr unsigned bytes_shift = 32;
    std::array<uint64_t, 1U << bits> row;
    void build(const DecodeTable& table);
};

struct ReceiveContext {
    Memory memory;
    ContextHash hash{};
    uint32_t value = 0;
};

struct ZlibReceiver {
    z_stream stream{};
    bool open = false;
    bool ended = false;
    ~ZlibReceiver();
};

enum class ReceiveState { flags, id, size, lzssWindow, lzpHash, lzpSizes, lzxBits, lzxSizes, lzxLevel, body };

struct DecompressFile {
    void* hOut = nullptr;
    MyWrite write = nullptr;
    My3Write write3 = nullptr;
    int flags = 0;
    int id = -1;
    int streamFlags = -1;
    uint64_t streamSize = 0;
    bool sizeKnown = false;
    unsigned sizeBytes = 0;
    CompressParameter parameters{};
    ReceiveState state = ReceiveState::flags;
    ErrMsg failure{};
    OutputBuffer out;

    BitReader bits;
    bool treeDue = true;
    TreeReader tree;
    std::array<uint32_t, alphabet_size> shape{};  // entries of the decode table without a code length
    DecodeTable table;
    std::unique_ptr<LiteralTable> literals;
    uint32_t openEntry = 0;   // a symbol whose code is read and whose extra bits are not
    uint32_t openLength = 0;  // id 5: its length, when only the distance is missing

    uint32_t position = 1;  // of the next byte, as the tables count
    ReceiveContext context[2];
    BucketTable buckets;
    PositionClasses classes{};
    std::unique_ptr<ZlibReceiver> zlib;

    bool record() const { return (flags & compress_record) != 0; }
    bool framed() const { return (flags & compress_framed) != 0; }
};

// Why a run of symbols stopped.
enum class RunEnd { input, output, end, invalid };

RunEnd hufDecompress(DecompressFile& df);
RunEnd rleDecompress(DecompressFile& df);
RunEnd lzssDecompress(DecompressFile& df);
RunEnd lzpDecompress(DecompressFile& df);
RunEnd lzxDecompress(DecompressFile& df);

// Takes pieces of the body. -1 with a code.
int hufWriteDecompress(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err);
int zlibWriteDecompress(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err);
int openZlibReceiver(DecompressFile& df, ErrMsg* err);

// Hands over what is complete. -1 with a code.
int writeOut(DecompressFile& df, ErrMsg* err);
// As writeOut, then makes room for at least output_longest more bytes.
int flushOutBuf(DecompressFile& df, ErrMsg* err);
// Makes the buffer for `size` bytes, of which `history` stay.
int allocOutBuf(DecompressFile& df, size_t size, size_t history, ErrMsg* err);

// Copies of `length` bytes from `distance` back, which may overlap; up to output_slack bytes behind are
// written.
inline void copyBack(uint8_t* to, size_t distance, size_t length) {
    const uint8_t* from = to - distance;
    uint8_t* const end = to + length;
    if (distance >= 16) {
        do {
            memcpy(to, from, 16);
            to += 16;
            from += 16;
        } while (to < end);
    } else if (distance >= 8) {
        do {
            memcpy(to, from, 8);
            to += 8;
            from += 8;
        } while (to < end);
    } else if (distance == 1) {
        memset(to, *from, length);
    } else {
        // Widen the period until whole words can be copied.
        const size_t step = distance * (8 / distance + (8 % distance != 0 ? 1 : 0));
        for (size_t i = 0; i < step; ++i) {
            to[i] = from[i];
        }
        if (length > step) {
            uint8_t* at = to + step;
            do {
                memcpy(at, at - step, 8);
                at += 8;
            } while (at < end);
        }
    }
}
