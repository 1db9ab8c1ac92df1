// The sending side's state, shared by its methods.
#pragma once

#include <zlib.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "transfer/compress/bits.h"
#include "transfer/compress/huffman.h"
#include "transfer/compress/lzp_places.h"
#include "transfer/compress/memory.h"
#include "transfer/compress/positions.h"
#include "transfer/compress/source.h"
#include "transfer/compress/symbols.h"

// Window on the source. Behind `src` lies what is still to be coded, before it up to `history` bytes that a
// method refers back to. Position numbers are 32 bits, run on from shift to shift and are never 0.
struct InputBuffer {
    Memory memory;
    size_t capacity = 0;  // less than the memory: wide loads may pass the end
    size_t history = 0;
    size_t src = 0;
    size_t end = 0;
    uint32_t base = 1;  // position of the first byte of the memory
    bool eof = false;

    uint8_t* at(size_t offset) const { return memory.data() + context_front + offset; }
    size_t available() const { return end - src; }
    uint32_t position(size_t offset) const { return base + static_cast<uint32_t>(offset); }
    // The position of `src` becomes the first one with a whole history before it.
    void lower() { base -= position(src) - static_cast<uint32_t>(history) - 1; }
};
inline constexpr size_t input_slack = 2048;
// What a method reads beyond the longest match at once, so that small pieces of a source cost little.
inline constexpr size_t input_batch = 65536;

// One table of contexts: position of the byte that followed each, 0 for none.
struct ContextTable {
    Memory memory;
    ContextHash hash{};
    PlaceRule rule{};
};

// What the tables of id 9 told for the next places of the input, before those were entered: the distance to
// where the context occurred, larger than the pool when there is nothing to use.
struct Predictions {
    static constexpr unsigned stretch = 512;
    unsigned at = 0;  // the place of `src`
    unsigned count = 0;
    uint32_t position = 0;     // of the next stretch, as slots count
    uint32_t positionEnd = 0;  // a power of two; above it slots hold a check
    const PlaceForm& form = placeForm();
    std::array<uint32_t, stretch> first{};
    std::array<uint32_t, stretch> second{};
    std::array<uint8_t, stretch / 8 + 16>
        found{};  // a bit for each place, set where one of the two is to be used
};

// A block that is sent with both tables of id 9: what it would be with the first alone.
struct SecondTrial {
    std::array<uint32_t, alphabet_size> frequency{};
    uint64_t covered = 0;  // bytes of the source that these symbols cover
    unsigned skip = 0;     // bytes of its last match that lie behind the last stretch
    uint64_t sent = 0;     // bits before the block
    uint32_t source = 0;   // position of its first byte
};

// Whether id 9 asks its second table.
struct SecondUse {
    bool always = false;  // the caller named the tables
    bool wanted = false;  // in stretches to come
    bool asked = false;   // in the one under way
    unsigned block = 0;   // since the last trial began
    std::unique_ptr<SecondTrial> trial;
};

// Symbols of the current block, not yet in the output. Which of the three arrays counts depends on the
// method.
struct Block {
    Memory memory;
    const uint8_t* bytes = nullptr;  // id 1: in the input buffer
    uint32_t* entries = nullptr;     // symbol, and the extra value from bit 10 on
    uint64_t* wide = nullptr;        // id 5: as entries; distance from bit 24, its width from bit 56
    unsigned size = 0;               // most symbols
    unsigned count = 0;
    unsigned coded = 0;      // symbols in the output
    unsigned accounted = 0;  // symbols that `used` counts
    uint64_t sourceEnd = 0;  // bytes of the source coded with the block
    uint64_t startBits = 0;  // bits of the body before its first symbol
};
inline constexpr unsigned entry_extra = 10;
inline constexpr unsigned entry_distance = 24;
inline constexpr unsigned entry_distance_bits = 56;

struct CodeRow {
    uint32_t code;
    uint8_t length;
    uint8_t extraBits;
};

// How far the bytes that csRead returned cover the source.
struct UsedAccount {
    long* used = nullptr;
    uint64_t bits = 0;    // in the body, up to the last symbol that counts
    uint64_t source = 0;  // bytes of the source that those symbols cover
    struct Symbol {
        unsigned bits;
        uint32_t covers;
    };
    std::array<Symbol, 8> tail{};  // last symbols of the block before, still partly in the writer
    unsigned tailCount = 0;
    unsigned tailNext = 0;
    struct Record {
        uint32_t length;  // in the source buffer
        int payload;
    };
    std::vector<Record> records;
    size_t nextRecord = 0;
    uint64_t recordsEnd = 0;  // bytes of the records that are counted
};

struct LzssSearch;
struct LzxSearch;

struct ZlibSender {
    z_stream stream{};
    bool open = false;
    bool finished = false;
    Memory output;
    size_t outputAt = 0;
    size_t outputEnd = 0;
    z_stream counter{};  // inflates what is returned, only to count
    bool counterOpen = false;
    Memory counterOutput;

    ~ZlibSender();
};

enum class SendState { body, ended };

struct CompressFile {
    int id = 0;
    int flags = 0;
    CompressParameter parameters{};
    Source source;
    SourceChain chain;
    InputBuffer in;
    std::array<uint8_t, 16> header{};
    unsigned headerSize = 0;
    unsigned headerSent = 0;
    ErrMsg failure{};
    UsedAccount account;

    SendState state = SendState::body;
    MethodSymbols symbols{};
    Block block;
    BitWriter writer;
    uint64_t written = 0;  // whole bytes of the body that left the writer
    Memory overflow;       // of these, what did not fit into the caller's buffer
    size_t overflowAt = 0;
    size_t overflowEnd = 0;
    bool haveTree = false;
    HuffmanCodes codes{};
    unsigned longest = 0;  // code
    std::array<CodeRow, alphabet_size> rows{};
    std::array<uint32_t, alphabet_size> frequency{};
    int endBitsLeft = 0;   // after an end: bits of its last symbol that were dropped, -1 when it was passed
    bool resumed = false;  // the next block completes that symbol and brings a tree

    uint32_t positionHigh = position_high;
    ContextTable context[2];
    SecondUse second;
    std::unique_ptr<Predictions> predictions;
    std::unique_ptr<LzssSearch> lzss;
    std::unique_ptr<LzxSearch> lzx;
    std::unique_ptr<ZlibSender> zlib;

    CompressFile();
    ~CompressFile();
};

// Makes the rest of the handle after id, flags, parameters and source are set. id is a method.
int openSender(CompressFile& cf, ErrMsg* err);

// Reads until `need` bytes are to be coded, or the source ends. -1 on failure.
int fillInBuf(CompressFile& cf, size_t need, ErrMsg* err);

// Each fills the block with up to its size of symbols and advances the input. -1 on failure.
int hufFillHufBuf(CompressFile& cf, ErrMsg* err);
int rleFillHufBuf(CompressFile& cf, ErrMsg* err);
int lzssFillHufBuf(CompressFile& cf, ErrMsg* err);
int lzpFillHufBuf(CompressFile& cf, ErrMsg* err);
int lzxFillHufBuf(CompressFile& cf, ErrMsg* err);

// Each moves the positions of its tables, and those of the input, down before they could wrap.
void lowerLzss(CompressFile& cf);
void lowerLzx(CompressFile& cf);

int openLzss(CompressFile& cf, ErrMsg* err);
int openLzp(CompressFile& cf, ErrMsg* err);
int openLzx(CompressFile& cf, ErrMsg* err);
int openZlib(CompressFile& cf, ErrMsg* err);

// Bytes of the body into `out`. Returns how many, -1 on failure.
int hufReadCompress(CompressFile& cf, uint8_t* out, int len, ErrMsg* err);
int zlibReadCompress(CompressFile& cf, uint8_t* out, int len, ErrMsg* err);

// Brings `used` up to date after a csRead.
void accountBlockEnd(CompressFile& cf);
void accountReturned(CompressFile& cf);
void findRecord(CompressFile& cf);

// Tries the candidates on the start of the source and leaves what was read in cf.chain. -1 on failure.
int findStrongest(CompressFile& cf, int* id, CompressParameter* parameters, ErrMsg* err);

// Length of the common start of two places, at most `limit`. May read 7 bytes past the limit.
inline uint32_t lencmp(const uint8_t* a, const uint8_t* b, uint32_t limit) {
    uint32_t length = 0;
    while (length < limit) {
        const uint64_t differ = load64(a + length) ^ load64(b + length);
        if (differ != 0) {
            length += static_cast<uint32_t>(__builtin_ctzll(differ)) >> 3;
            return length < limit ? length : limit;
        }
        length += 8;
    }
    return limit;
}
