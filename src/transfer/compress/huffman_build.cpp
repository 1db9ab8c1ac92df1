// Sending side: lengths from frequencies, codes from lengths, lengths into bits.
#include <algorithm>
#include <cstring>

#include "transfer/compress/huffman.h"

namespace {

struct Leaf {
    uint32_t frequency;
    uint16_t symbol;
};

// Sorts by frequency and keeps the order of symbols among equals.
void sortLeaves(Leaf* leaf, Leaf* scratch, unsigned count) {
    constexpr unsigned digit = 10;
    constexpr unsigned buckets = 1U << digit;
    for (unsigned shift = 0; shift < 2 * digit; shift += digit) {
        uint32_t place[buckets] = {};
        for (unsigned i = 0; i < count; ++i) {
            ++place[leaf[i].frequency >> shift & (buckets - 1)];
        }
        uint32_t sum = 0;
        for (uint32_t& slot : place) {
            const uint32_t here = slot;
            slot = sum;
            sum += here;
        }
        for (unsigned i = 0; i < count; ++i) {
            scratch[place[leaf[i].frequency >> shift & (buckets - 1)]++] = leaf[i];
        }
        std::swap(leaf, scratch);
    }
}

// Joins the two lowest nodes until one is left; leaves are sorted, inner nodes come out sorted. Returns the
// greatest depth and puts the depth of leaf i into depth[i].
unsigned joinNodes(const Leaf* leaf, unsigned count, uint8_t* depth) {
    uint32_t weight[alphabet_size];
    uint16_t parent[2 * alphabet_size];
    unsigned nextLeaf = 0;
    unsigned nextInner = 0;
    const unsigned inner = count - 1;
    for (unsigned made = 0; made < inner; ++made) {
        uint32_t sum = 0;
        for (int side = 0; side < 2; ++side) {
            const bool takeLeaf =
                nextLeaf < count && (nextInner >= made || leaf[nextLeaf].frequency <= weight[nextInner]);
            if (takeLeaf) {
                sum += leaf[nextLeaf].frequency;
                parent[nextLeaf++] = static_cast<uint16_t>(made);
            } else {
                sum += weight[nextInner];
                parent[alphabet_size + nextInner++] = static_cast<uint16_t>(made);
            }
        }
        weight[made] = sum;
    }
    uint8_t innerDepth[alphabet_size];
    innerDepth[inner - 1] = 0;
    for (unsigned i = inner - 1; i-- > 0;) {
        innerDepth[i] = static_cast<uint8_t>(innerDepth[parent[alphabet_size + i]] + 1);
    }
    unsigned deepest = 0;
    for (unsigned i = 0; i < count; ++i) {
        depth[i] = static_cast<uint8_t>(innerDepth[parent[i]] + 1);
        deepest = std::max<unsigned>(deepest, depth[i]);
    }
    return deepest;
}

// Entries of a tree: a length, or ~count of a run that repeats the length before it.
unsigned rleLens(const uint8_t* length, unsigned size, int8_t* entry) {
    unsigned count = 0;
    uint8_t previous = length[0];
    entry[count++] = static_cast<int8_t>(previous);
    for (unsigned i = 1; i < size;) {
        unsigned run = 0;
        while (i + run < size && run < run_max && length[i + run] == previous) {
            ++run;
        }
        if (run >= 2) {
            entry[count++] = static_cast<int8_t>(~run);
            i += run;
        } else {
            previous = length[i++];
            entry[count++] = static_cast<int8_t>(previous);
        }
    }
    return count;
}

struct RunClass {
    unsigned symbol;
    unsigned base;
    unsigned bits;
};

RunClass runClass(unsigned run) {
    return run < 6    ? RunClass{run_short, 2, 2}
           : run < 22 ? RunClass{run_middle, 6, 4}
                      : RunClass{run_long, 22, 6};
}

}  // namespace

void buildLengths(const uint32_t* frequency, unsigned size, unsigned longest, uint8_t* length) {
    Leaf leaf[alphabet_size];
    Leaf scratch[alphabet_size];
    unsigned count = 0;
    for (unsigned symbol = 0; symbol < size; ++symbol) {
        if (frequency[symbol] != 0) {
            leaf[count++] = {frequency[symbol], static_cast<uint16_t>(symbol)};
        }
    }
    for (uint16_t symbol = 0; count < 2; ++symbol) {
        if (frequency[symbol] == 0) {  // a tree has two leaves, used or not
            leaf[count++] = {0, symbol};
        }
    }
    uint8_t depth[alphabet_size];
    sortLeaves(leaf, scratch, count);
    while (joinNodes(leaf, count, depth) > longest) {
        for (unsigned i = 0; i < count; ++i) {
            ++leaf[i].frequency;
        }
    }
    memset(length, 0, size);
    for (unsigned i = 0; i < count; ++i) {
        length[leaf[i].symbol] = depth[i];
    }
}

void assignCodes(const uint8_t* length, unsigned size, uint32_t* code) {
    uint32_t next[33] = {};
    for (unsigned i = 0; i < size; ++i) {
        ++next[length[i]];
    }
    next[0] = 0;
    uint32_t first = 0;
    for (uint32_t& slot : next) {
        const uint32_t here = slot;
        slot = first;
        first = (first + here) << 1;
    }
    for (unsigned i = 0; i < size; ++i) {
        code[i] = length[i] != 0 ? next[length[i]]++ : 0;
    }
}

unsigned transmitTree(const std::array<uint8_t, alphabet_size>& length, BitWriter& out) {
    const uint8_t* const start = out.to;
    const unsigned startBits = out.count;
    unsigned size = alphabet_size;
    while (size > 1 && length[size - 1] == 0) {
        --size;
    }
    int8_t entry[alphabet_size];
    const unsigned entries = rleLens(length.data(), size, entry);

    uint32_t frequency[length_alphabet_size] = {};
    for (unsigned i = 0; i < entries; ++i) {
        ++frequency[entry[i] >= 0 ? static_cast<unsigned>(entry[i])
                                  : runClass(static_cast<unsigned>(~entry[i])).symbol];
    }
    uint8_t small[length_alphabet_size];
    uint32_t code[length_alphabet_size];
    buildLengths(frequency, length_alphabet_size, 15, small);
    assignCodes(small, length_alphabet_size, code);

    unsigned sent = specialOrder.size();
    while (small[specialOrder[sent - 1]] == 0) {
        --sent;
    }
    out.put(sent - 4, 5);
    for (unsigned i = 0; i < sent; ++i) {
        out.put(small[specialOrder[i]], 4);
        out.flush();
    }
    out.put(entries, 10);
    for (unsigned i = 0; i < entries; ++i) {
        if (entry[i] >= 0) {
            const auto symbol = static_cast<unsigned>(entry[i]);
            out.put(code[symbol], small[symbol]);
        } else {
            const auto run = static_cast<unsigned>(~entry[i]);
            const RunClass row = runClass(run);
            out.put(code[row.symbol], small[row.symbol]);
            out.put(run - row.base, row.bits);
        }
        out.flush();
    }
    return static_cast<unsigned>(out.to - start) * 8 + out.count - startBits;
}
