// Receiving side: lengths from bits.
#include <algorithm>

#include "transfer/compress/huffman.h"

namespace {

constexpr unsigned small_length_max = 15;

}  // namespace

bool completeLengths(const uint8_t* length, unsigned size) {
    uint64_t space = 0;
    unsigned codes = 0;
    for (unsigned i = 0; i < size; ++i) {
        if (length[i] != 0) {
            space += uint64_t{1} << (32 - length[i]);
            ++codes;
        }
    }
    return space == uint64_t{1} << 32 && codes >= 2;
}

bool TreeReader::buildTable() {
    if (!completeLengths(small_.data(), length_alphabet_size)) {
        return false;
    }
    ofLength_ = {};
    for (const uint8_t length : small_) {
        ++ofLength_[length];
    }
    ofLength_[0] = 0;
    std::array<uint16_t, small_length_max + 1> next;
    uint16_t place = 0;
    for (unsigned length = 0; length <= small_length_max; ++length) {
        next[length] = place;
        place = static_cast<uint16_t>(place + ofLength_[length]);
    }
    for (unsigned symbol = 0; symbol < length_alphabet_size; ++symbol) {
        if (small_[symbol] != 0) {
            ordered_[next[small_[symbol]]++] = static_cast<uint16_t>(symbol);
        }
    }
    return true;
}

TreeReader::Result TreeReader::readEntries(BitReader& in) {
    while (done_ < wanted_ || step_ == Step::run) {
        in.refill();
        if (step_ == Step::entry) {
            unsigned code = 0;
            unsigned first = 0;
            unsigned place = 0;
            unsigned length = 0;
            for (;;) {
                if (++length > in.count) {
                    return Result::more;
                }
                code = in.peek(length);
                if (code - first < ofLength_[length]) {
                    break;
                }
                place += ofLength_[length];
                first = (first + ofLength_[length]) << 1;
            }
            in.drop(length);
            ++done_;
            const unsigned symbol = ordered_[place + code - first];
            if (symbol < first_code) {
                if (filled_ == alphabet_size) {
                    return Result::invalid;
                }
                length_[filled_++] = static_cast<uint8_t>(symbol);
                continue;
            }
            if (filled_ == 0) {
                return Result::invalid;
            }
            runBase_ = symbol == run_short ? 2 : symbol == run_middle ? 6 : 22;
            runBits_ = symbol == run_short ? 2 : symbol == run_middle ? 4 : 6;
            step_ = Step::run;
        }
        if (in.count < runBits_) {
            return Result::more;
        }
        const unsigned run = runBase_ + in.take(runBits_);
        if (run > alphabet_size - filled_) {
            return Result::invalid;
        }
        std::fill_n(&length_[filled_], run, length_[filled_ - 1]);
        filled_ += run;
        step_ = Step::entry;
    }
    std::fill(&length_[0] + filled_, length_.end(), uint8_t{0});
    return completeLengths(length_.data(), filled_) ? Result::done : Result::invalid;
}

TreeReader::Result TreeReader::read(BitReader& in) {
    for (;;) {
        in.refill();
        switch (step_) {
            case Step::count:
                if (in.count < 5) {
                    return Result::more;
                }
                wanted_ = in.take(5) + 4;
                done_ = 0;
                small_ = {};
                step_ = Step::lengths;
                break;
            case Step::lengths:
                while (done_ < wanted_) {
                    in.refill();
                    if (in.count < 4) {
                        return Result::more;
                    }
                    small_[specialOrder[done_++]] = static_cast<uint8_t>(in.take(4));
                }
                if (!buildTable()) {
                    return Result::invalid;
                }
                step_ = Step::entries;
                break;
            case Step::entries:
                if (in.count < 10) {
                    return Result::more;
                }
                wanted_ = in.take(10);
                if (wanted_ == 0) {
                    return Result::invalid;
                }
                done_ = 0;
                filled_ = 0;
                step_ = Step::entry;
                break;
            case Step::entry:
            case Step::run: {
                const Result result = readEntries(in);
                if (result != Result::more) {
                    step_ = Step::count;
                }
                return result;
            }
        }
    }
}
