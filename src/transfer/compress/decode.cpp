// Receiving side of ids 1 to 11: trees, and the symbols of ids 1, 3 and 5.
#include <algorithm>
#include <cstring>

#include "base/message_numbers.h"
#include "transfer/compress/decoder.h"
#include "transfer/compress/error.h"

namespace {

RunEnd runSymbols(DecompressFile& df) {
    switch (df.id) {
        case compress_huffman:
            return hufDecompress(df);
        case compress_rle:
            return rleDecompress(df);
        case compress_lzss:
            return lzssDecompress(df);
        case compress_lzp:
            return lzpDecompress(df);
        default:
            return lzxDecompress(df);
    }
}

int invalidData(DecompressFile& df, ErrMsg* err) {
    return writeOut(df, err) < 0 ? -1 : compressError(err, number_compress_invalid_data, "%s", "");
}

}  // namespace

int hufWriteDecompress(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err) {
    df.bits.from = from;
    df.bits.end = from + size;
    for (;;) {
        if (df.treeDue) {
            const TreeReader::Result result = df.tree.read(df.bits);
            if (result == TreeReader::Result::more) {
                break;
            }
            if (result == TreeReader::Result::invalid) {
                return invalidData(df, err);
            }
            df.table.build(df.tree.length(), df.shape);
            if (df.literals != nullptr) {
                df.literals->build(df.table);
            }
            df.treeDue = false;
        }
        const RunEnd end = runSymbols(df);
        if (end == RunEnd::invalid) {
            return invalidData(df, err);
        }
        if (end == RunEnd::input) {
            break;
        }
        if (end == RunEnd::end) {
            df.treeDue = true;
        } else if (flushOutBuf(df, err) < 0) {
            return -1;
        }
    }
    return flushOutBuf(df, err);
}

RunEnd hufDecompress(DecompressFile& df) {
    BitReader bits = df.bits;
    OutputBuffer& out = df.out;
    uint8_t* to = out.at(out.end);
    const uint8_t* const full = out.at(out.capacity);
    const uint64_t* const row = df.literals->row.data();
    RunEnd end;
    for (;;) {
        // Five rows of 11 bits stand in one filling of the word.
        while (bits.left() >= 8 && to < full - 20) {
            bits.refillFast();
            uint64_t found = 0;
            unsigned taken = 0;
            for (int i = 0; i < 5; ++i) {
                found = row[bits.word >> (64 - LiteralTable::bits)];
                const auto bytes = static_cast<uint32_t>(found >> LiteralTable::bytes_shift);
                memcpy(to, &bytes, sizeof bytes);
                to += found >> LiteralTable::count_shift & 255;
                bits.word <<= found & 63;
                taken += static_cast<unsigned>(found);
            }
            bits.count -= taken & 255;
            if (found == 0) {
                break;
            }
        }
        if (to >= full) {
            end = RunEnd::output;
            break;
        }
        bits.refill();
        const uint32_t entry = df.table.findOne(bits.word, 1);
        if (entryLength(entry) > bits.count) {
            end = RunEnd::input;
            break;
        }
        if (entryKind(entry) != SymbolKind::literal) {
            bits.drop(entryLength(entry));
            end = entryKind(entry) == SymbolKind::end ? RunEnd::end : RunEnd::invalid;
            break;
        }
        bits.drop(entryLength(entry));
        *to++ = static_cast<uint8_t>(entryBase(entry));
    }
    out.end = static_cast<size_t>(to - out.at(0));
    df.bits = bits;
    return end;
}

namespace {

// Brings the next symbol's entry. false: it is not there yet. With wholeness, extra bits are there as well.
inline bool nextEntry(const DecodeTable& table, BitReader& bits, uint32_t* entry) {
    if (bits.left() >= 8) {
        bits.refillFast();
        *entry = table.find(bits.word);
        return true;
    }
    bits.refill();
    *entry = table.findOne(bits.word, 1);
    return entryLength(*entry) + entryExtra(*entry) <= bits.count;
}

inline uint8_t* putLiterals(uint8_t* to, uint32_t entry) {
    to[0] = static_cast<uint8_t>(entry >> entry_base_shift);
    to[1] = static_cast<uint8_t>(entry >> entry_second_shift);
    return to + 1 + (entry / entry_two & 1);
}

}  // namespace

RunEnd rleDecompress(DecompressFile& df) {
    BitReader bits = df.bits;
    OutputBuffer& out = df.out;
    uint8_t* to = out.at(out.end);
    const uint8_t* const full = out.at(out.capacity - output_longest);
    RunEnd end;
    for (;;) {
        uint32_t entry;
        if (to > full) {
            end = RunEnd::output;
            break;
        }
        if (!nextEntry(df.table, bits, &entry)) {
            end = RunEnd::input;
            break;
        }
        bits.drop(entryLength(entry));
        if (entryKind(entry) == SymbolKind::literal) {
            to = putLiterals(to, entry);
            continue;
        }
        if (entryKind(entry) != SymbolKind::copy) {
            end = entryKind(entry) == SymbolKind::end ? RunEnd::end : RunEnd::invalid;
            break;
        }
        const size_t period = entryPlace(entry) + 1;
        const size_t length = (entryBase(entry) + bits.take(entryExtra(entry))) * period;
        if (period > static_cast<size_t>(to - out.at(0))) {
            end = RunEnd::invalid;
            break;
        }
        copyBack(to, period, length);
        to += length;
    }
    out.end = static_cast<size_t>(to - out.at(0));
    df.bits = bits;
    return end;
}

namespace {

enum class Found { yes, more, invalid };

// Reads the distance less 1 of a class, while `limit` bytes can be referred to. Takes nothing on `more`.
inline Found getPosBits(const PositionClass& row, uint32_t limit, BitReader& bits, uint32_t* distance) {
    if (row.end <= limit) {
        if (row.bits > bits.count) {
            return Found::more;
        }
        *distance = row.base + bits.take(row.bits);
        return Found::yes;
    }
    if (limit <= row.base) {
        return Found::invalid;
    }
    const uint32_t choices = limit - row.base;
    if (choices == 1) {
        *distance = row.base;
        return Found::yes;
    }
    const unsigned width = highestBit(choices - 1) + 1;
    const uint32_t half = 1U << (width - 1);
    const uint32_t over = choices - half;
    if (width - 1 > bits.count) {
        return Found::more;
    }
    uint32_t value = bits.peek(width - 1);
    if (value < half - over) {
        bits.drop(width - 1);
    } else {
        if (width > bits.count) {
            return Found::more;
        }
        value += (bits.peek(width) & 1) != 0 ? over : 0;
        bits.drop(width);
    }
    *distance = row.base + value;
    return Found::yes;
}

}  // namespace

RunEnd lzssDecompress(DecompressFile& df) {
    BitReader bits = df.bits;
    OutputBuffer& out = df.out;
    uint8_t* to = out.at(out.end);
    const uint8_t* const full = out.at(out.capacity - output_longest);
    const PositionClasses& classes = df.classes;
    uint32_t entry = df.openEntry;  // not 0: only the distance of this symbol is missing
    uint32_t length = df.openLength;
    RunEnd end;
    for (;;) {
        if (to > full) {
            end = RunEnd::output;
            break;
        }
        if (entry == 0) {
            if (!nextEntry(df.table, bits, &entry)) {
                end = RunEnd::input;
                entry = 0;
                break;
            }
            bits.drop(entryLength(entry));
            if (entryKind(entry) == SymbolKind::literal) {
                to = putLiterals(to, entry);
                entry = 0;
                continue;
            }
            if (entryKind(entry) != SymbolKind::copy) {
                end = entryKind(entry) == SymbolKind::end ? RunEnd::end : RunEnd::invalid;
                entry = 0;
                break;
            }
            length = entryBase(entry) + bits.take(entryExtra(entry));
        }
        if (bits.count < classes.row[classes.count - 1].bits) {
            bits.refill();
        }
        const size_t behind = static_cast<size_t>(to - out.at(0));
        const auto limit = static_cast<uint32_t>(out.base != 0 ? classes.slidSize
                                                               : std::min<size_t>(behind, classes.slidSize));
        uint32_t distance = 0;
        const Found found = getPosBits(classes.row[entryPlace(entry)], limit, bits, &distance);
        if (found != Found::yes) {
            end = found == Found::more ? RunEnd::input : RunEnd::invalid;
            break;
        }
        entry = 0;
        copyBack(to, size_t{distance} + 1, length);
        to += length;
    }
    out.end = static_cast<size_t>(to - out.at(0));
    df.bits = bits;
    df.openEntry = entry;
    df.openLength = length;
    return end;
}
