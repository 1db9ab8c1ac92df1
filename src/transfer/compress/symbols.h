// What each symbol of a method's alphabet stands for; both sides work from this one table.
#pragma once

#include <array>
#include <cstdint>

#include "transfer/compress/compress.h"
#include "transfer/compress/format.h"

enum class SymbolKind : uint8_t { literal, copy, end, invalid };

// A copy covers (base + extra) times `times` bytes, where extra follows in `extraBits` bits.
// place  where the copy comes from: period less 1 (id 3), class of the distance (5), table (9), entry (11)
struct SymbolShape {
    SymbolKind kind;
    uint8_t extraBits;
    uint8_t place;
    uint8_t times;
    uint16_t base;
};

using MethodSymbols = std::array<SymbolShape, alphabet_size>;

MethodSymbols methodSymbols(int id, const CompressParameter& parameters);
