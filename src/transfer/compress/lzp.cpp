// Symbols of id 9: the position that followed the same context last predicts what comes; only lengths travel.
//
// At each place the bytes just before it, the context, choose a slot of a table, and the slot holds the place
// that followed the same context last. When two or more bytes there are those that come, their number is
// coded, else the byte itself. With two tables, a longer context and a shorter one, the code also says which
// of them was right. A receiver keeps the same tables and so knows the place: no distance travels. What must
// hold is that both sides would find the same place whenever a length is coded; a sender may find nothing
// where a receiver would.
//
// What the tables hold at a place depends on the bytes before it alone, not on how they were coded. So a
// stretch is passed over twice: one loop without branches brings the tables up to date and keeps what they
// told for each place, a second one searches in that. Neither waits for the other's misses.
#include <algorithm>
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/error.h"

namespace {

// A slot holds the position that followed a context. Above it stand the bits of the context that are not part
// of the slot's index, and a check of the two bytes there: nearly all misses are told without a look at the
// pool. Positions of slots begin at pool + 1, so that the difference to an empty slot, to one of which
// anything above the position differs, or to one that is too old is larger than the pool.
constexpr unsigned check_bits_most = 8;
constexpr unsigned slots_ahead = 32;
constexpr size_t near_table = 262144;  // bytes; the slots of a larger one are fetched ahead
constexpr unsigned blocks_between_trials = 64;
constexpr unsigned places_more = 8;  // that a form may write behind those asked for

// A receiver has a slot for each context. A sender that remembers fewer of them says nothing wrong: what it
// finds is the last place of exactly that context, and what it forgot it codes otherwise. With the defaults
// its table is a quarter of a receiver's, and stays in nearer caches.
constexpr unsigned slots_least_bits = 18;
constexpr unsigned rest_bits_most = 4;
constexpr unsigned check_bits_least = 3;

unsigned positionBits(size_t pool) {
    return std::max(32 - check_bits_most, highestBit(static_cast<uint32_t>(pool)) + 2);
}

inline uint32_t lengthEntry(uint32_t length, unsigned base) {
    if (length <= counted_small) {
        return base + length;
    }
    const unsigned bits = highestBit(length);
    return (base + counted_small + 1 + bits - counted_bits) | (length - (1U << bits)) << entry_extra;
}

// How the second table finds its slot. `pair`: it has a slot for each two bytes, which are its index as they
// are.
enum class Second { none, hashed, pair };

// Moves the positions of slots down, before they reach into the checks.
void lowerSlots(CompressFile& cf) {
    Predictions& ahead = *cf.predictions;
    const auto pool = static_cast<uint32_t>(cf.in.history);
    const uint32_t mask = ahead.positionEnd - 1;
    const uint32_t delta = ahead.position - pool - 1;
    for (const ContextTable& context : cf.context) {
        auto* const slot = context.memory.as<uint32_t>();
        const size_t count = context.memory.size() / sizeof(uint32_t);
        for (size_t i = 0; i < count; ++i) {
            const bool old = ahead.position - (slot[i] & mask) > pool;
            slot[i] = old ? 0 : slot[i] - delta;
        }
    }
    ahead.position = pool + 1;
}

// Enters places into the slots of one table and keeps how far back what those held is.
template <bool fetch, class Index>
inline void enterPlaces(uint32_t* table, const uint32_t* fresh, unsigned count, uint32_t* distance,
                        Index index) {
    for (unsigned i = 0; i < count; ++i) {
        if constexpr (fetch) {
            __builtin_prefetch(&table[index(i + slots_ahead)], 1);
        }
        uint32_t& slot = table[index(i)];
        distance[i] = fresh[i] - slot;
        slot = fresh[i];
    }
}

// Passes over the places of a hashed table.
void passContexts(CompressFile& cf, unsigned which, const uint8_t* p, unsigned count, uint32_t* distance) {
    uint32_t fresh[Predictions::stretch + places_more];
    uint32_t index[Predictions::stretch + slots_ahead];
    ContextTable& context = cf.context[which];
    const Predictions& ahead = *cf.predictions;
    ahead.form.contexts(context.rule, p, count, ahead.position, index, fresh);
    auto* const table = context.memory.as<uint32_t>();
    const auto indexed = [&](unsigned i) { return index[i]; };
    if (context.memory.size() > near_table) {
        std::fill_n(index + count, slots_ahead, 0U);
        enterPlaces<true>(table, fresh, count, distance, indexed);
    } else {
        enterPlaces<false>(table, fresh, count, distance, indexed);
    }
}

// Passes over the places of a table whose index is the two bytes before each.
void passPairs(CompressFile& cf, const uint8_t* p, unsigned count, uint32_t* distance) {
    uint32_t fresh[Predictions::stretch];
    const Predictions& ahead = *cf.predictions;
    const unsigned bits = cf.context[1].rule.positionBits;
    for (unsigned i = 0; i < count; ++i) {
        fresh[i] = placeCheck(p + i) << bits | (ahead.position + i);
    }
    enterPlaces<false>(cf.context[1].memory.as<uint32_t>(), fresh, count, distance,
                       [p](unsigned i) { return load16(p + i - 2); });
}

// Passes over `count` bytes from p on: what the slots of each place hold, at most the pool when they may be
// used, goes into the predictions.
template <Second kind>
void passStretch(CompressFile& cf, const uint8_t* p, unsigned count) {
    Predictions& ahead = *cf.predictions;
    const auto pool = static_cast<uint32_t>(cf.in.history);
    passContexts(cf, 0, p, count, ahead.first.data());
    ahead.form.usable(ahead.first.data(), count, pool, ahead.found.data());
    if constexpr (kind != Second::none) {
        if constexpr (kind == Second::pair) {
            passPairs(cf, p, count, ahead.second.data());
        } else {
            passContexts(cf, 1, p, count, ahead.second.data());
        }
        std::array<uint8_t, Predictions::stretch / 8> other;
        ahead.form.usable(ahead.second.data(), count, pool, other.data());
        for (unsigned i = 0; i < (count + 7) / 8; ++i) {
            ahead.found[i] |= other[i];
        }
    }
    ahead.found[count / 8] = static_cast<uint8_t>(ahead.found[count / 8] | 1U << count % 8);  // ends a search
    ahead.position += count;
    ahead.count = count;
    ahead.at = 0;
}

template <Second kind>
void preparePredictions(CompressFile& cf) {
    Predictions& ahead = *cf.predictions;
    const InputBuffer& in = cf.in;
    if (ahead.positionEnd - ahead.position <= Predictions::stretch ||
        (ahead.position >= cf.positionHigh && ahead.position > 2 * in.history)) {
        lowerSlots(cf);
    }
    // The check looks at the byte behind a place.
    const size_t known = in.available() - (in.eof ? 0 : 1);
    passStretch<kind>(cf, in.at(in.src),
                      static_cast<unsigned>(std::min<size_t>(known, Predictions::stretch)));
}

// First place from `at` on where a slot may be used.
inline unsigned findPrediction(const uint8_t* found, unsigned at) {
    uint64_t bits = load64(found + at / 8) >> at % 8;
    while (bits == 0) {
        at = (at & ~7U) + 64;
        bits = load64(found + at / 8);
    }
    return at + static_cast<unsigned>(__builtin_ctzll(bits));
}

// May write 7 entries more.
inline void putLiterals(uint32_t* entry, const uint8_t* from, unsigned count) {
    for (unsigned done = 0; done < count; done += 8) {
        for (unsigned i = 0; i < 8; ++i) {
            entry[done + i] = from[done + i];
        }
    }
}

struct Best {
    uint32_t length;
    unsigned base;
};

// The longest match of 7 bytes or more, or near the end of the source. Of equal lengths the second table's
// wins.
Best longMatch(const uint8_t* p, uint32_t one, uint32_t other, uint32_t pool, uint32_t left) {
    Best best{0, symbol_end};
    if (other <= pool) {
        best = {lencmp(p, p - other, left), symbol_end + counted_codes};
    }
    if (one <= pool && one != other) {
        const uint32_t length = lencmp(p, p - one, left);
        if (length > best.length) {
            best = {length, symbol_end};
        }
    }
    return best;
}

// Bytes that agree, 7 for that or more; 0 for a distance above the pool. Without branches, as none could be
// told ahead.
inline uint32_t shortLength(const uint8_t* p, uint64_t here, uint32_t distance, uint32_t pool) {
    const bool usable = distance <= pool;
    const uint64_t differ = load64(p - (usable ? distance : 0)) ^ here;
    const auto agree = static_cast<uint32_t>(__builtin_ctzll(differ | uint64_t{1} << 63)) >> 3;
    return usable ? agree : 0;
}

template <Second kind>
inline Best bestMatch(const Predictions& ahead, unsigned at, const uint8_t* p, uint32_t pool, uint32_t left) {
    const uint32_t one = ahead.first[at];
    const uint32_t other = kind == Second::none ? UINT32_MAX : ahead.second[at];
    const uint64_t here = load64(p);
    const uint32_t firstLength = shortLength(p, here, one, pool);
    const uint32_t secondLength = kind == Second::none ? 0 : shortLength(p, here, other, pool);
    const uint32_t length = std::max(firstLength, secondLength);
    if (length == 7 || left < 8) {
        return longMatch(p, one, other, pool, left);
    }
    return {length, kind != Second::none && secondLength == length ? symbol_end + counted_codes : symbol_end};
}

// What the stretch that begins would be with the first table alone.
void tryWithout(CompressFile& cf) {
    const InputBuffer& in = cf.in;
    const Predictions& ahead = *cf.predictions;
    SecondTrial& trial = *cf.second.trial;
    const uint8_t* const end = in.at(in.end);
    unsigned at = std::min(trial.skip, ahead.count);
    trial.skip -= at;
    while (at < ahead.count) {
        const uint8_t* const p = in.at(in.src) + at;
        const auto left = static_cast<uint32_t>(std::min<ptrdiff_t>(end - p, count_max));
        const Best best = bestMatch<Second::none>(ahead, at, p, static_cast<uint32_t>(in.history), left);
        const bool copy = best.length >= 2;
        ++trial.frequency[(copy ? lengthEntry(best.length, best.base) : *p) & (alphabet_size - 1)];
        at += copy ? best.length : 1;
    }
    trial.skip += at - ahead.count;
    trial.covered += ahead.count;
}

// Codes from the source's position up to `stop`, behind which the longest match and a byte are known.
template <Second kind>
void fillSpan(CompressFile& cf, size_t stop) {
    InputBuffer& in = cf.in;
    Block& block = cf.block;
    Predictions& ahead = *cf.predictions;
    const auto pool = static_cast<uint32_t>(in.history);
    uint32_t* entry = block.entries + block.count;
    uint32_t* const full = block.entries + block.size;
    size_t skip = 0;  // rest of a match
    while ((in.src < stop && entry < full) || skip != 0) {
        if (ahead.at == ahead.count) {
            if (skip == 0 && cf.second.wanted != cf.second.asked) {
                break;
            }
            preparePredictions<kind>(cf);
            if (kind != Second::none && cf.second.trial != nullptr) {
                tryWithout(cf);
            }
        }
        unsigned at = ahead.at;
        const auto passed = static_cast<unsigned>(std::min<size_t>(skip, ahead.count - at));
        at += passed;
        skip -= passed;
        const uint8_t* const begin = in.at(in.src) - ahead.at;
        const uint8_t* const end = in.at(in.end);
        const auto last = static_cast<unsigned>(
            std::min<size_t>(ahead.count, stop > in.src ? ahead.at + (stop - in.src) : 0));
        while (at < last && entry < full) {
            const unsigned next =
                std::min({findPrediction(ahead.found.data(), at), last,
                          at + static_cast<unsigned>(std::min<ptrdiff_t>(full - entry, ahead.count))});
            putLiterals(entry, begin + at, next - at);
            entry += next - at;
            at = next;
            if (at >= last || entry == full) {
                break;
            }
            const uint8_t* const p = begin + at;
            const auto left = static_cast<uint32_t>(std::min<ptrdiff_t>(end - p, count_max));
            const Best best = bestMatch<kind>(ahead, at, p, pool, left);
            const bool copy = best.length >= 2;
            *entry++ = copy ? lengthEntry(best.length, best.base) : *p;
            at += copy ? best.length : 1;
            if (at > ahead.count) {
                skip = at - ahead.count;
                at = ahead.count;
            }
        }
        in.src += at - ahead.at;
        ahead.at = at;
    }
    block.count = static_cast<unsigned>(entry - block.entries);
}

// Bits that the trial's symbols would take.
uint64_t bitsWithout(const CompressFile& cf, SecondTrial& trial) {
    std::array<uint8_t, alphabet_size> length;
    trial.frequency[symbol_end] = 1;
    buildLengths(trial.frequency.data(), alphabet_size, code_length_max, length.data());
    uint64_t bits = 0;
    for (unsigned i = 0; i < alphabet_size; ++i) {
        bits += uint64_t{trial.frequency[i]} * (length[i] + cf.symbols[i].extraBits);
    }
    return bits;
}

// Decides whether the block to come asks the second table. That takes a third of the time, so what is sent
// has to be shorter by an eighth of it. Now and then a block fills the table, and the next one is coded both
// ways.
void chooseSecond(CompressFile& cf) {
    SecondUse& use = cf.second;
    if (use.always || cf.context[1].memory.data() == nullptr) {
        return;
    }
    const uint64_t sent = cf.written * 8 + cf.writer.count;
    switch (use.block) {
        case 0:
            use.wanted = true;
            break;
        case 1:
            use.trial.reset(new (std::nothrow) SecondTrial);
            if (use.trial != nullptr) {  // without memory the table is simply kept
                use.trial->sent = sent;
                use.trial->source = cf.in.position(cf.in.src);
            }
            break;
        case 2: {
            if (use.trial == nullptr) {
                break;
            }
            const uint64_t with = sent - use.trial->sent;
            const uint64_t covered = cf.in.position(cf.in.src) - use.trial->source;
            const uint64_t without = bitsWithout(cf, *use.trial);
            // Both for each byte: the trial ends with a stretch, the block where it will.
            use.wanted = without * covered / 9 * 8 > with * use.trial->covered;
            use.trial.reset();
            break;
        }
        default:
            break;
    }
    use.block = (use.block + 1) % blocks_between_trials;
}

// What the stretch under way began with stays until its end.
bool asksSecond(CompressFile& cf) {
    const Predictions& ahead = *cf.predictions;
    SecondUse& use = cf.second;
    if (ahead.at == ahead.count && use.wanted != use.asked) {
        use.asked = use.wanted;
        memset(cf.context[1].memory.data(), 0, cf.context[1].memory.size());
    }
    return use.asked;
}

// The bits of a context that the index leaves out must fit above the position.
unsigned chooseRestBits(uint32_t contextMask, size_t pool) {
    const unsigned contextBits = highestBit(contextMask) + 1;
    const unsigned above = 32 - positionBits(pool);
    const unsigned most = std::min(above - std::min(above, check_bits_least), rest_bits_most);
    return contextBits > slots_least_bits ? std::min(contextBits - slots_least_bits, most) : 0;
}

}  // namespace

int openLzp(CompressFile& cf, ErrMsg* err) {
    const ContextOrders orders = contextOrders(cf.parameters.lzpHash);
    const uint32_t size = 512U << cf.parameters.lzpHashTableSize;
    for (unsigned i = 0; i < 2; ++i) {
        const unsigned order = i == 0 ? orders.first : orders.second;
        if (order == 0) {
            break;
        }
        ContextTable& context = cf.context[i];
        context.hash = contextHash(size, order);
        context.rule = {
            context.hash.shift, (highestBit(context.hash.mask) + context.hash.shift) / context.hash.shift,
            context.hash.mask, chooseRestBits(context.hash.mask, cf.in.history), positionBits(cf.in.history)};
        if (!context.memory.take(
                ((size_t{context.hash.mask} + 1) >> context.rule.restBits) * sizeof(uint32_t), "lzp", err)) {
            return -1;
        }
        if (cf.in.history >= large_pool) {
            context.memory.preferLargePages();
        }
    }
    if (cf.in.history >= large_pool) {
        cf.in.memory.preferLargePages();
    }
    cf.predictions.reset(new (std::nothrow) Predictions);
    if (cf.predictions == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(Predictions)),
                             "lzp");
    }
    cf.predictions->position = static_cast<uint32_t>(cf.in.history) + 1;
    cf.predictions->positionEnd = 1U << positionBits(cf.in.history);
    cf.second.wanted = cf.second.asked = orders.second != 0;
    return 0;
}

int lzpFillHufBuf(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    const ContextHash& second = cf.context[1].hash;
    chooseSecond(cf);
    while (cf.block.count < cf.block.size) {
        if (in.available() <= count_max && fillInBuf(cf, count_max + input_batch, err) < 0) {
            return -1;
        }
        if (in.available() == 0) {
            break;
        }
        if (in.eof) {
            *in.at(in.end) = 0;  // the last check sees the same byte whatever was there before
        }
        const size_t stop = in.eof ? in.end : in.end - count_max;
        if (!asksSecond(cf)) {
            fillSpan<Second::none>(cf, stop);
        } else if (second.order == 2 && second.mask == 0xffff && cf.context[1].rule.restBits == 0) {
            fillSpan<Second::pair>(cf, stop);
        } else {
            fillSpan<Second::hashed>(cf, stop);
        }
    }
    return 0;
}
