#include <algorithm>

#include "transfer/compress/decoder.h"

void DecodeTable::build(const std::array<uint8_t, alphabet_size>& length,
                        const std::array<uint32_t, alphabet_size>& shape) {
    std::array<uint32_t, 32> count{};
    for (const uint8_t one : length) {
        ++count[one];
    }
    count[0] = 0;
    std::array<uint32_t, 32> next{};
    uint32_t code = 0;
    uint32_t place = 0;
    for (unsigned bits = 1; bits < 32; ++bits) {
        code = (code + count[bits - 1]) << 1;
        next[bits] = place;
        limit[bits] = uint64_t{code} + count[bits];
        offset[bits] = place - code;
        place += count[bits];
    }
    for (unsigned i = 0; i < alphabet_size; ++i) {
        if (length[i] != 0) {
            ordered[next[length[i]]++] = shape[i] | length[i];
        }
    }
    // Codes count up with their place, so the quick table fills from its start.
    unsigned at = 0;
    for (unsigned i = 0; i < place && entryLength(ordered[i]) <= decode_bits; ++i) {
        for (const unsigned end = at + (1U << (decode_bits - entryLength(ordered[i]))); at < end; ++at) {
            quick[at] = ordered[i];
        }
    }
    for (; at < quick.size(); ++at) {
        quick[at] = 0;
    }
    // Two literals whose codes fit together share an entry. What follows a first code fills its entries in
    // the same order as the table itself.
    unsigned start = 0;
    for (unsigned i = 0; i < place && entryLength(ordered[i]) < decode_bits; ++i) {
        const uint32_t first = ordered[i];
        if (entryKind(first) == SymbolKind::literal) {
            unsigned pairAt = start;
            for (unsigned k = 0; k < place; ++k) {
                const uint32_t second = ordered[k];
                const unsigned both = entryLength(first) + entryLength(second);
                if (both > decode_bits) {
                    break;
                }
                const unsigned end = pairAt + (1U << (decode_bits - both));
                if (entryKind(second) == SymbolKind::literal) {
                    std::fill(&quick[pairAt], &quick[0] + end,
                              (first & ~31U) | both | entryBase(second) << entry_second_shift | entry_two);
                }
                pairAt = end;
            }
        }
        start += 1U << (decode_bits - entryLength(first));
    }
}

void LiteralTable::build(const DecodeTable& table) {
    static_assert(bits == decode_bits);
    std::array<uint64_t, 1U << bits> pair;
    for (unsigned i = 0; i < pair.size(); ++i) {
        const uint32_t entry = table.quick[i];
        if (entryKind(entry) != SymbolKind::literal || entryLength(entry) == 0) {
            pair[i] = 0;
            continue;
        }
        const bool two = (entry & entry_two) != 0;
        const uint64_t bytes =
            (entry >> entry_base_shift & 255) | (two ? entry >> entry_second_shift & 255 : 0) << 8;
        pair[i] = bytes << bytes_shift | uint64_t{two ? 2U : 1U} << count_shift | entryLength(entry);
    }
    for (unsigned i = 0; i < row.size(); ++i) {
        const uint64_t first = pair[i];
        const auto firstBits = static_cast<unsigned>(first & 63);
        const uint64_t second = pair[i << firstBits & (row.size() - 1)];
        const auto secondBits = static_cast<unsigned>(second & 63);
        const bool both =
            (first >> count_shift & 3) == 2 && secondBits != 0 && firstBits + secondBits <= bits;
        row[i] =
            both ? first + (second & 0xffffffffU) + (second >> bytes_shift << (bytes_shift + 16)) : first;
    }
}
