// Receiving side of ids 9 and 11: copies come from where the context occurred before.
#include "transfer/compress/decoder.h"
#include "transfer/compress/positions.h"

namespace {

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

struct Buckets {
    uint32_t* slots;
    uint8_t* heads;
    uint32_t mask;
    unsigned shift;
    uint32_t level;
    uint32_t value;

    explicit Buckets(const BucketTable& table)
        : slots(table.slots.as<uint32_t>()),
          heads(table.heads.data()),
          mask(table.hash.mask),
          shift(table.hash.shift),
          level(table.level),
          value(table.value) {}
    uint32_t get(unsigned i) const {
        const size_t bucket = value & mask;
        unsigned place = heads[bucket] + i;
        place = place < level ? place : place - level;
        return slots[bucket * level + place];
    }
    void pass(uint32_t position, uint8_t byte) {
        const size_t bucket = value & mask;
        const uint32_t head = heads[bucket] == 0 ? level - 1 : heads[bucket] - 1U;
        heads[bucket] = static_cast<uint8_t>(head);
        slots[bucket * level + head] = position;
        value = value << shift ^ byte;
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
    uint32_t position = df.position;
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
            const auto first = static_cast<uint8_t>(entry >> entry_base_shift);
            *to++ = first;
            tables.pass(position++, first);
            if ((entry & entry_two) != 0) {
                const auto second = static_cast<uint8_t>(entry >> entry_second_shift);
                *to++ = second;
                tables.pass(position++, second);
            }
            continue;
        }
        if (entryKind(entry) != SymbolKind::copy) {
            end = entryKind(entry) == SymbolKind::end ? RunEnd::end : RunEnd::invalid;
            break;
        }
        const uint32_t length = entryBase(entry) + bits.take(entryExtra(entry));
        const uint32_t slot = tables.get(entryPlace(entry));
        if (slot == 0) {
            end = RunEnd::invalid;
            break;
        }
        uint32_t distance = position - slot;
        if (distance > pool) {
            distance = (distance - 1) % pool + 1;
        }
        copyBack(to, distance, length);
        for (const uint8_t* const stop = to + length; to < stop; ++to) {
            tables.pass(position++, *to);
        }
    }
    out.end = static_cast<size_t>(to - out.at(0));
    df.bits = bits;
    df.position = position;
    return end;
}

struct OneTable {
    Table first;
    uint32_t get(unsigned) const { return first.get(); }
    void pass(uint32_t position, uint8_t byte) { first.pass(position, byte); }
};

struct TwoTables {
    Table first;
    Table second;
    uint32_t get(unsigned place) const { return place == 0 ? first.get() : second.get(); }
    void pass(uint32_t position, uint8_t byte) {
        first.pass(position, byte);
        second.pass(position, byte);
    }
};

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
    TwoTables tables{Table(df.context[0]), Table(df.context[1])};
    const RunEnd end = runContexts(df, tables);
    df.context[0].value = tables.first.value;
    df.context[1].value = tables.second.value;
    return end;
}

RunEnd lzxDecompress(DecompressFile& df) {
    const auto pool = static_cast<uint32_t>(df.out.history);
    if (df.position >= position_high) {
        lowerPositions(df.buckets.slots.as<uint32_t>(), df.buckets.slots.size() / sizeof(uint32_t),
                       df.position, pool, true);
        df.position = pool + 1;
    }
    Buckets tables(df.buckets);
    const RunEnd end = runContexts(df, tables);
    df.buckets.value = tables.value;
    return end;
}
