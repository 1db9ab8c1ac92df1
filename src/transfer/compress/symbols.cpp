#include "transfer/compress/symbols.h"

namespace {

// A small count has its own code; above, codes tell the highest bit from `bits` on.
SymbolShape copyShape(unsigned index, unsigned small, unsigned bits, unsigned least, unsigned place) {
    SymbolShape shape{SymbolKind::copy, 0, static_cast<uint8_t>(place), 1,
                      static_cast<uint16_t>(index + least)};
    if (index >= small) {
        const unsigned extra = index - small + bits;
        if (extra > count_bits_max) {
            return {SymbolKind::invalid, 0, 0, 1, 0};
        }
        shape.extraBits = static_cast<uint8_t>(extra);
        shape.base = static_cast<uint16_t>(1U << extra);
    }
    return shape;
}

SymbolShape countedShape(unsigned code, unsigned place) {
    return copyShape(code % counted_codes, counted_small, counted_bits, 1, place);
}

SymbolShape shapeOf(int id, const CompressParameter& parameters, unsigned code) {
    constexpr SymbolShape invalid{SymbolKind::invalid, 0, 0, 1, 0};
    switch (id) {
        case compress_rle: {
            SymbolShape shape = countedShape(code, code / counted_codes);
            shape.times = static_cast<uint8_t>(shape.place + 1);
            return shape.place < 4 ? shape : invalid;
        }
        case compress_lzss: {
            const unsigned place = code / window_codes;
            if (place >= positionClasses(parameters.lzssWindow + 6).count) {
                return invalid;
            }
            SymbolShape shape = copyShape(code % window_codes, window_small, window_bits, 0, place);
            shape.base = static_cast<uint16_t>(shape.base + window_least);
            return shape;
        }
        case compress_lzp: {
            const unsigned place = code < counted_codes ? 0 : 1;
            return place == 1 && contextOrders(parameters.lzpHash).second == 0 ? invalid
                                                                               : countedShape(code, place);
        }
        case compress_lzx: {
            const unsigned lengths = 1U << parameters.lzmixBits;  // the first of them is 2
            return copyShape(code / parameters.lzmixLevel, lengths - 2, parameters.lzmixBits, 2,
                             code % parameters.lzmixLevel);
        }
        default:
            return invalid;
    }
}

}  // namespace

MethodSymbols methodSymbols(int id, const CompressParameter& parameters) {
    MethodSymbols symbols{};
    for (unsigned i = 0; i < alphabet_size; ++i) {
        if (i < symbol_end) {
            symbols[i] = {SymbolKind::literal, 0, 0, 1, 1};
        } else if (i == symbol_end) {
            symbols[i] = {SymbolKind::end, 0, 0, 1, 0};
        } else {
            symbols[i] = shapeOf(id, parameters, i - first_code);
        }
    }
    return symbols;
}
