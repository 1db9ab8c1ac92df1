// Codes of one block and the form in which they travel.
//
// Codes are canonical: shorter ones first, those of one length in the order of their symbols, counting up. So
// a tree is given by its lengths alone.
#pragma once

#include <array>
#include <cstdint>

#include "transfer/compress/bits.h"
#include "transfer/compress/format.h"

// Code of each symbol. length 0: the symbol has none.
struct HuffmanCodes {
    std::array<uint32_t, alphabet_size> code;
    std::array<uint8_t, alphabet_size> length;
};

// Finds code lengths for `frequency[0..size)`, none longer than `longest`, and at least two of them.
// Equal frequencies are joined in the order of symbols, leaves before inner nodes.
void buildLengths(const uint32_t* frequency, unsigned size, unsigned longest, uint8_t* length);

// Gives each symbol with a length its canonical code.
void assignCodes(const uint8_t* length, unsigned size, uint32_t* code);

// Writes the lengths; needs transmitted_tree_max bytes at the writer. Returns the bits written.
unsigned transmitTree(const std::array<uint8_t, alphabet_size>& length, BitWriter& out);
inline constexpr unsigned transmitted_tree_max = 4096;

// Whether lengths fill the code space exactly, with two codes or more.
bool completeLengths(const uint8_t* length, unsigned size);

// Reads lengths in as many pieces as the input comes in.
class TreeReader {
  public:
    enum class Result { more, done, invalid };
    // Takes bits as far as they go. After `done`, length() holds the lengths, zero behind the last one sent.
    Result read(BitReader& in);
    void restart() { step_ = Step::count; }
    const std::array<uint8_t, alphabet_size>& length() const { return length_; }

  private:
    enum class Step { count, lengths, entries, entry, run };
    Result readEntries(BitReader& in);
    bool buildTable();

    Step step_ = Step::count;
    unsigned wanted_ = 0;   // lengths of the second alphabet, later entries
    unsigned done_ = 0;     // of them
    unsigned filled_ = 0;   // lengths of the tree so far
    unsigned runBits_ = 0;  // extra bits of a run whose code has been read
    unsigned runBase_ = 0;
    std::array<uint8_t, length_alphabet_size> small_ = {};
    std::array<uint8_t, alphabet_size> length_ = {};
    // Symbols of the second alphabet in the order of their codes, and how many codes each length has.
    std::array<uint16_t, 36> ordered_ = {};
    std::array<uint16_t, 16> ofLength_ = {};
};
