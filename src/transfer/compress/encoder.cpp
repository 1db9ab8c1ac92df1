// Sending side of ids 1 to 11: blocks, trees, symbols into bits.
#include "transfer/compress/encoder.h"

#include <algorithm>
#include <cstring>

#include "base/message_numbers.h"
#include "transfer/compress/error.h"

namespace {

constexpr unsigned overflow_symbols = 64;
constexpr unsigned symbol_bytes = 8;  // a symbol takes at most 60 bits

int fillBlock(CompressFile& cf, ErrMsg* err) {
    switch (cf.id) {
        case compress_huffman:
            return hufFillHufBuf(cf, err);
        case compress_rle:
            return rleFillHufBuf(cf, err);
        case compress_lzss:
            return lzssFillHufBuf(cf, err);
        case compress_lzp:
            return lzpFillHufBuf(cf, err);
        default:
            return lzxFillHufBuf(cf, err);
    }
}

void countBytes(const uint8_t* bytes, unsigned count, uint32_t* frequency) {
    uint32_t part[4][256] = {};  // four, as a count that repeats waits for its own store
    unsigned i = 0;
    for (; i + 8 <= count; i += 8) {
        const uint64_t eight = load64(bytes + i);
        for (unsigned k = 0; k < 8; ++k) {
            ++part[k & 3][eight >> (8 * k) & 255];
        }
    }
    for (; i < count; ++i) {
        ++part[0][bytes[i]];
    }
    for (unsigned k = 0; k < 256; ++k) {
        frequency[k] = part[0][k] + part[1][k] + part[2][k] + part[3][k];
    }
}

template <class Entry>
void countEntries(const Entry* entry, unsigned count, uint32_t* frequency) {
    uint32_t second[alphabet_size] = {};
    unsigned i = 0;
    for (; i + 2 <= count; i += 2) {
        ++frequency[entry[i] & (alphabet_size - 1)];
        ++second[entry[i + 1] & (alphabet_size - 1)];
    }
    if (i < count) {
        ++frequency[entry[i] & (alphabet_size - 1)];
    }
    for (unsigned k = 0; k < alphabet_size; ++k) {
        frequency[k] += second[k];
    }
}

void codeBytes(CompressFile& cf, unsigned count) {
    const uint8_t* from = cf.block.bytes + cf.block.coded;
    const CodeRow* const rows = cf.rows.data();
    BitWriter writer = cf.writer;
    if (cf.longest <= 14) {  // four codes fit between flushes
        for (; count >= 4; count -= 4, from += 4) {
            const CodeRow& a = rows[from[0]];
            const CodeRow& b = rows[from[1]];
            const CodeRow& c = rows[from[2]];
            const CodeRow& d = rows[from[3]];
            const uint64_t ab = uint64_t{a.code} << b.length | b.code;
            const uint64_t cd = uint64_t{c.code} << d.length | d.code;
            const unsigned last = c.length + unsigned{d.length};
            writer.put(ab << last | cd, a.length + unsigned{b.length} + last);
            writer.flush();
        }
    }
    for (; count >= 2; count -= 2, from += 2) {  // two codes of 24 bits fit
        const CodeRow& first = rows[from[0]];
        const CodeRow& second = rows[from[1]];
        writer.put(uint64_t{first.code} << second.length | second.code,
                   first.length + unsigned{second.length});
        writer.flush();
    }
    if (count != 0) {
        writer.put(rows[*from].code, rows[*from].length);
        writer.flush();
    }
    cf.writer = writer;
}

void codeEntries(CompressFile& cf, unsigned count) {
    const uint32_t* from = cf.block.entries + cf.block.coded;
    const CodeRow* const rows = cf.rows.data();
    BitWriter writer = cf.writer;
    for (const uint32_t* const end = from + count; from < end; ++from) {
        const CodeRow& row = rows[*from & (alphabet_size - 1)];
        writer.put(uint64_t{row.code} << row.extraBits | *from >> entry_extra,
                   row.length + unsigned{row.extraBits});
        writer.flush();
    }
    cf.writer = writer;
}

void codeWide(CompressFile& cf, unsigned count) {
    const uint64_t* from = cf.block.wide + cf.block.coded;
    const CodeRow* const rows = cf.rows.data();
    BitWriter writer = cf.writer;
    for (const uint64_t* const end = from + count; from < end; ++from) {
        const uint64_t entry = *from;
        const CodeRow& row = rows[entry & (alphabet_size - 1)];
        const uint64_t extra = entry >> entry_extra & ((1U << count_bits_max) - 1);
        writer.put(uint64_t{row.code} << row.extraBits | extra, row.length + unsigned{row.extraBits});
        writer.flush();
        const auto bits = static_cast<unsigned>(entry >> entry_distance_bits);
        if (bits != 0) {
            writer.put(entry >> entry_distance & 0xffffffffU, bits);
            writer.flush();
        }
    }
    cf.writer = writer;
}

// Codes `count` symbols to where the writer stands.
void codeSymbols(CompressFile& cf, unsigned count) {
    const uint8_t* const start = cf.writer.to;
    if (cf.block.bytes != nullptr) {
        codeBytes(cf, count);
    } else if (cf.block.entries != nullptr) {
        codeEntries(cf, count);
    } else {
        codeWide(cf, count);
    }
    cf.block.coded += count;
    cf.written += static_cast<uint64_t>(cf.writer.to - start);
}

void setRows(CompressFile& cf) {
    assignCodes(cf.codes.length.data(), alphabet_size, cf.codes.code.data());
    cf.longest = *std::max_element(cf.codes.length.begin(), cf.codes.length.end());
    for (unsigned i = 0; i < alphabet_size; ++i) {
        cf.rows[i] = {cf.codes.code[i], cf.codes.length[i], cf.symbols[i].extraBits};
    }
}

// Whether the tree in force can and should code the block; the extra bits are the same for both.
bool oldTreeServes(const CompressFile& cf, const uint8_t* fresh, unsigned treeBits) {
    if (!cf.haveTree || cf.resumed) {
        return false;
    }
    uint64_t oldSize = 0;
    uint64_t newSize = treeBits + fresh[symbol_end];
    for (unsigned i = 0; i < alphabet_size; ++i) {
        if (i == symbol_end || cf.frequency[i] == 0) {
            continue;
        }
        if (cf.codes.length[i] == 0) {
            return false;
        }
        oldSize += uint64_t{cf.frequency[i]} * cf.codes.length[i];
        newSize += uint64_t{cf.frequency[i]} * fresh[i];
    }
    return oldSize <= newSize;
}

// Decides on the tree of the block; a new one goes into the overflow, behind the end of the old one.
void getBestTree(CompressFile& cf) {
    cf.frequency[symbol_end] = 1;
    std::array<uint8_t, alphabet_size> fresh;
    buildLengths(cf.frequency.data(), alphabet_size, code_length_max, fresh.data());
    std::array<uint8_t, transmitted_tree_max> scratch;
    BitWriter tree;
    tree.to = scratch.data();
    const unsigned treeBits = transmitTree(fresh, tree);
    tree.flush();
    storeBig64(tree.to, tree.word);
    if (oldTreeServes(cf, fresh.data(), treeBits)) {
        return;
    }
    BitWriter& writer = cf.writer;
    writer.to = cf.overflow.data();
    cf.overflowAt = 0;
    if (cf.resumed) {
        const auto bits = static_cast<unsigned>(cf.endBitsLeft);
        writer.putAny(cf.codes.code[symbol_end] & ((uint64_t{1} << bits) - 1), bits);
    } else if (cf.haveTree) {
        writer.put(cf.codes.code[symbol_end], cf.codes.length[symbol_end]);
    }
    writer.flush();
    unsigned bits = 0;
    for (; bits + 32 <= treeBits; bits += 32) {
        writer.put(loadBig64(&scratch[bits / 8]) >> 32, 32);
        writer.flush();
    }
    if (bits < treeBits) {
        writer.put(loadBig64(&scratch[bits / 8]) >> (64 - (treeBits - bits)), treeBits - bits);
        writer.flush();
    }
    cf.overflowEnd = static_cast<size_t>(writer.to - cf.overflow.data());
    cf.written += cf.overflowEnd;
    cf.codes.length = fresh;
    cf.haveTree = true;
    cf.resumed = false;
    setRows(cf);
}

// Ends the stream: its length is that of the symbols, and free bits of the last byte show how the end symbol
// begins, so that they can not be taken for a literal.
void endStream(CompressFile& cf) {
    cf.state = SendState::ended;
    if (!cf.haveTree) {
        return;
    }
    const unsigned length = cf.codes.length[symbol_end];
    const unsigned open = cf.writer.count == 0 ? 0 : 8 - cf.writer.count;
    cf.endBitsLeft = length >= open ? static_cast<int>(length - open) : -1;
    if (open != 0) {
        cf.writer.put(cf.codes.code[symbol_end], length);
        cf.overflow.data()[0] = static_cast<uint8_t>(cf.writer.word >> 56);
        cf.overflowAt = 0;
        cf.overflowEnd = 1;
        cf.written += 1;
        cf.writer.word = 0;
        cf.writer.count = 0;
    }
}

void lowerPositions(CompressFile& cf) {
    if (cf.in.position(cf.in.src) < cf.positionHigh) {
        return;
    }
    if (cf.id == compress_lzss) {
        lowerLzss(cf);
    } else if (cf.id == compress_lzx) {
        lowerLzx(cf);
    }
}

int nextBlock(CompressFile& cf, ErrMsg* err) {
    accountBlockEnd(cf);
    lowerPositions(cf);
    Block& block = cf.block;
    block.count = 0;
    block.coded = 0;
    block.accounted = 0;
    const size_t before = cf.in.src;
    const uint32_t beforePosition = cf.in.position(before);
    if (fillBlock(cf, err) < 0) {
        return -1;
    }
    block.sourceEnd += cf.in.position(cf.in.src) - beforePosition;
    if (block.count == 0) {
        if (!cf.resumed) {
            endStream(cf);
        } else {
            cf.state = SendState::ended;
        }
        return 0;
    }
    if (cf.resumed && cf.endBitsLeft < 0) {
        return compressError(err, number_compress_bad_call, "%d|%d|", cf.id, cf.flags);
    }
    cf.frequency.fill(0);
    if (block.bytes != nullptr) {
        countBytes(block.bytes, block.count, cf.frequency.data());
    } else if (block.entries != nullptr) {
        countEntries(block.entries, block.count, cf.frequency.data());
    } else {
        countEntries(block.wide, block.count, cf.frequency.data());
    }
    getBestTree(cf);
    block.startBits = cf.written * 8 + cf.writer.count;
    return 0;
}

uint32_t entryOf(const Block& block, unsigned index) {
    return block.bytes != nullptr     ? block.bytes[index]
           : block.entries != nullptr ? block.entries[index]
                                      : static_cast<uint32_t>(block.wide[index]) & 0xffffffU;
}

UsedAccount::Symbol measure(const CompressFile& cf, unsigned index) {
    const uint32_t entry = entryOf(cf.block, index);
    const unsigned symbol = entry & (alphabet_size - 1);
    const SymbolShape& shape = cf.symbols[symbol];
    unsigned bits = cf.rows[symbol].length + unsigned{shape.extraBits};
    if (cf.block.wide != nullptr) {
        bits += static_cast<unsigned>(cf.block.wide[index] >> entry_distance_bits);
    }
    return {bits, (shape.base + (entry >> entry_extra)) * shape.times};
}

}  // namespace

// The last symbols of a block may still stand in the writer; they count when their byte has been returned.
void accountBlockEnd(CompressFile& cf) {
    UsedAccount& account = cf.account;
    if (account.used == nullptr || cf.block.count == 0) {
        return;
    }
    account.bits = cf.written * 8 + cf.writer.count;
    account.source = cf.block.sourceEnd;
    account.tailCount = 0;
    account.tailNext = 0;
    unsigned open = 0;
    for (unsigned i = cf.block.count; i-- > 0 && open < cf.writer.count;) {
        const UsedAccount::Symbol symbol = measure(cf, i);
        open += symbol.bits;
        account.bits -= symbol.bits;
        account.source -= symbol.covers;
        account.tail[7 - account.tailCount++] = symbol;
    }
}

void accountReturned(CompressFile& cf) {
    UsedAccount& account = cf.account;
    if (account.used == nullptr) {
        return;
    }
    const uint64_t returned = (cf.written - (cf.overflowEnd - cf.overflowAt)) * 8;
    while (account.tailNext < account.tailCount) {
        const UsedAccount::Symbol& symbol = account.tail[8 - account.tailCount + account.tailNext];
        if (account.bits + symbol.bits > returned) {
            return;
        }
        account.bits += symbol.bits;
        account.source += symbol.covers;
        ++account.tailNext;
    }
    Block& block = cf.block;
    if (block.accounted == 0 && block.coded != 0) {
        account.bits = block.startBits;
    }
    while (block.accounted < block.coded) {
        const UsedAccount::Symbol symbol = measure(cf, block.accounted);
        if (account.bits + symbol.bits > returned) {
            return;
        }
        account.bits += symbol.bits;
        account.source += symbol.covers;
        ++block.accounted;
    }
}

int hufReadCompress(CompressFile& cf, uint8_t* out, int len, ErrMsg* err) {
    const auto size = static_cast<size_t>(len);
    size_t done = 0;
    while (done < size) {
        if (cf.overflowAt < cf.overflowEnd) {
            const size_t part = std::min(size - done, cf.overflowEnd - cf.overflowAt);
            memcpy(out + done, cf.overflow.data() + cf.overflowAt, part);
            cf.overflowAt += part;
            done += part;
            continue;
        }
        if (cf.state == SendState::ended) {
            break;
        }
        const unsigned open = cf.block.count - cf.block.coded;
        if (open == 0) {
            if (nextBlock(cf, err) < 0) {
                return -1;
            }
            continue;
        }
        const size_t free = size - done;
        if (free >= symbol_bytes * overflow_symbols) {
            cf.writer.to = out + done;
            codeSymbols(cf, static_cast<unsigned>(std::min<size_t>(open, free / symbol_bytes - 2)));
            done = static_cast<size_t>(cf.writer.to - out);
        } else {
            cf.writer.to = cf.overflow.data();
            codeSymbols(cf, std::min(open, overflow_symbols));
            cf.overflowAt = 0;
            cf.overflowEnd = static_cast<size_t>(cf.writer.to - cf.overflow.data());
        }
    }
    accountReturned(cf);
    return static_cast<int>(done);
}
