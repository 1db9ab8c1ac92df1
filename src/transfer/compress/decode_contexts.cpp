// Receiving side of ids 9 and 11: copies come from where the context occurred before.
#include <algorithm>

#include "transfer/compress/decoder.h"
#include "transfer/compress/positions.h"

namespace {

// Tables are brought up to date only when a copy asks them: one loop then passes over all bytes since.

struct Table {
    uint32_t* slot;
    uint32_t mask;
    unsigned shift;
    uint32_t value;  // only the bits of the mask count

    explicit Table(const ReceiveContext& context)
        : slot(context.memory.as<uint32_t>()),
          mask(context.hash.mask),
          shift(context.hash.shift),
          value(context.value) {}
    uint32_t get() const { return slot[value & mask]; }
    void pass(uint32_t position, uint8_t byte) {
        slot[value & mask] = position;
        value = value << shift ^ byte;
    }
};

struct OneTable {
    Table first;
    uint32_t get(unsigned, const uint8_t*) const { return first.get(); }
    void pass(uint32_t position, const uint8_t* from, const uint8_t* to) {
        for (; from < to; ++from) {
            first.pass(position++, *from);
        }
    }
};

struct TwoTables {
    Table first;
    Table second;
    uint32_t get(unsigned place, const uint8_t*) const { return place == 0 ? first.get() : second.get(); }
    void pass(uint32_t position, const uint8_t* from, const uint8_t* to) {
        for (; from < to; ++from) {
            first.pass(position, *from);
            second.pass(position++, *from);
        }
    }
};

// The second table has a slot for each two bytes, which are its index as they are.
struct PairTables {
    Table first;
    uint32_t* second;
    uint32_t get(unsigned place, const uint8_t* at) const {
        return place == 0 ? first.get() : second[load16(at - 2)];
    }
    void pass(uint32_t position, const uint8_t* from, const uint8_t* to) {
        for (; from < to; ++from) {
            second[load16(from - 2)] = position;
            first.pass(position++, *from);
        }
    }
};

struct Buckets {
    const BucketTable& table;
    unsigned level;
    unsigned shift;
    uint32_t value;

    explicit Buckets(const BucketTable& buckets)
        : table(buckets), level(buckets.level), shift(buckets.hash.shift), value(buckets.value) {}
    uint32_t get(unsigned place, const uint8_t*) const {
        return bucketGet(table.bucket(value), level, place);
    }
    // Buckets are spread over far more than any cache holds: those of a few bytes are fetched at once.
    void pass(uint32_t position, const uint8_t* from, const uint8_t* to) {
        constexpr ptrdiff_t group = 16;
        while (from < to) {
            uint32_t* bucket[group];
            const auto count = static_cast<unsigned>(std::min(to - from, group));
            for (unsigned i = 0; i < count; ++i) {
                bucket[i] = table.bucket(value);
                __builtin_prefetch(bucket[i], 1);
                value = value << shift ^ *from++;
            }
            for (unsigned i = 0; i < count; ++i) {
                __builtin_prefetch(&bucket[i][1 + bucket[i][0]], 1);
            }
            for (unsigned i = 0; i < count; ++i) {
                bucketPush(bucket[i], level, position++);
            }
        }
    }
};

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

// What both methods share; `tables` looks up and passes over bytes.
template <class Tables>
RunEnd runContexts(DecompressFile& df, Tables& tables) {
    BitReader bits = df.bits;
    OutputBuffer& out = df.out;
    uint8_t* to = out.at(out.end);
    const uint8_t* const full = out.at(out.capacity - output_longest);
    const auto pool = static_cast<uint32_t>(out.history);
    const uint8_t* passed = to;  // the tables know what lies before
    uint32_t position = df.position;
    RunEnd end;
    const auto passAll = [&] {
        tables.pass(position, passed, to);
        position += static_cast<uint32_t>(to - passed);
        passed = to;
    };
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
            to[0] = static_cast<uint8_t>(entry >> entry_base_shift);
            to[1] = static_cast<uint8_t>(entry >> entry_second_shift);
            to += 1 + (entry / entry_two & 1);
            continue;
        }
        if (entryKind(entry) != SymbolKind::copy) {
            end = entryKind(entry) == SymbolKind::end ? RunEnd::end : RunEnd::invalid;
            break;
        }
        const uint32_t length = entryBase(entry) + bits.take(entryExtra(entry));
        passAll();
        const uint32_t slot = tables.get(entryPlace(entry), to);
        if (slot == 0) {
            end = RunEnd::invalid;
            break;
        }
        uint32_t distance = position - slot;
        if (distance > pool) {
            distance = (distance - 1) % pool + 1;
        }
        copyBack(to, distance, length);
        to += length;
    }
    passAll();
    out.end = static_cast<size_t>(to - out.at(0));
    df.bits = bits;
    df.position = position;
    return end;
}

void lowerBuckets(const BucketTable& buckets, uint32_t position, uint32_t pool) {
    for (size_t i = 0; i <= buckets.hash.mask; ++i) {
        lowerPositions(buckets.bucket(static_cast<uint32_t>(i)) + 1, buckets.level, position, pool, true);
    }
}

}  // namespace

RunEnd lzpDecompress(DecompressFile& df) {
    const auto pool = static_cast<uint32_t>(df.out.history);
    if (df.position >= position_high) {
        for (ReceiveContext& context : df.context) {
            if (context.memory.data() != nullptr) {
                lowerPositions(context.memory.as<uint32_t>(), size_t{context.hash.mask} + 1, df.position,
                               pool, true);
            }
        }
        df.position = pool + 1;
    }
    if (df.context[1].memory.data() == nullptr) {
        OneTable tables{Table(df.context[0])};
        const RunEnd end = runContexts(df, tables);
        df.context[0].value = tables.first.value;
        return end;
    }
    if (df.context[1].hash.order == 2 && df.context[1].hash.mask == 0xffff) {
        PairTables tables{Table(df.context[0]), df.context[1].memory.as<uint32_t>()};
        const RunEnd end = runContexts(df, tables);
        df.context[0].value = tables.first.value;
        return end;
    }
    TwoTables tables{Table(df.context[0]), Table(df.context[1])};
    const RunEnd end = runContexts(df, tables);
    df.context[0].value = tables.first.value;
    df.context[1].value = tables.second.value;
    return end;
}

RunEnd lzxDecompress(DecompressFile& df) {
    const auto pool = static_cast<uint32_t>(df.out.history);
    if (df.position >= position_high) {
        lowerBuckets(df.buckets, df.position, pool);
        df.position = pool + 1;
    }
    Buckets tables(df.buckets);
    const RunEnd end = runContexts(df, tables);
    df.buckets.value = tables.value;
    return end;
}
