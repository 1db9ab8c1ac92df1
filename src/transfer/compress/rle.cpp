// Symbols of id 1, single bytes, and id 3, runs of short periods.
#include <algorithm>

#include "transfer/compress/encoder.h"

int hufFillHufBuf(CompressFile& cf, ErrMsg* err) {
    if (fillInBuf(cf, cf.block.size, err) < 0) {
        return -1;
    }
    InputBuffer& in = cf.in;
    cf.block.bytes = in.at(in.src);
    cf.block.count = static_cast<unsigned>(std::min<size_t>(in.available(), cf.block.size));
    in.src += cf.block.count;
    return 0;
}

namespace {

uint32_t countedEntry(uint32_t count, unsigned firstCode) {
    if (count <= counted_small) {
        return firstCode + count - 1;
    }
    const unsigned bits = highestBit(count);
    const uint32_t symbol = firstCode + counted_small + bits - counted_bits;
    return symbol | (count - (1U << bits)) << entry_extra;
}

// Finds the run at `p`, the longest period first. Returns the bytes that it covers, 0 for none.
uint32_t findRun(const uint8_t* p, size_t behind, size_t left, unsigned longest, uint32_t* entry) {
    for (unsigned period = longest; period >= 2; --period) {
        if (behind < period || left < period || lencmp(p, p - period, period) < period) {
            continue;
        }
        const auto limit = static_cast<uint32_t>(std::min<size_t>(left, size_t{period} * count_max));
        const uint32_t count = lencmp(p, p - period, limit) / period;
        *entry = countedEntry(count, first_code + counted_codes * (period - 1));
        return count * period;
    }
    if (behind == 0 || *p != p[-1]) {
        return 0;
    }
    const uint32_t count = lencmp(p, p - 1, static_cast<uint32_t>(std::min<size_t>(left, count_max)));
    *entry = countedEntry(count, first_code);
    return count > 1 ? count : 0;
}

}  // namespace

int rleFillHufBuf(CompressFile& cf, ErrMsg* err) {
    Block& block = cf.block;
    InputBuffer& in = cf.in;
    const unsigned longest = cf.parameters.var;
    const size_t reach = size_t{longest} * count_max;
    while (block.count < block.size) {
        if (in.available() < reach && fillInBuf(cf, reach + input_batch, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        const size_t stop = in.eof ? in.end : in.end - reach + 1;
        while (in.src < stop && block.count < block.size) {
            uint32_t entry;
            const uint32_t run = findRun(in.at(in.src), in.src, in.end - in.src, longest, &entry);
            block.entries[block.count++] = run != 0 ? entry : *in.at(in.src);
            in.src += run != 0 ? run : 1;
        }
    }
    return 0;
}
