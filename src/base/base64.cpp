#include "base/base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "base/base64_vector.h"

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char no_digit = 255;

constexpr std::array<unsigned char, 256> make_digits() {
    std::array<unsigned char, 256> digits{};
    digits.fill(no_digit);
    for (unsigned char i = 0; i < 64; ++i) {
        digits[static_cast<unsigned char>(alphabet[i])] = i;
    }
    return digits;
}
constexpr std::array<unsigned char, 256> digits = make_digits();

// The two characters of each 12 bits: half the look-ups.
constexpr auto make_pairs() {
    std::array<std::array<char, 2>, 4096> table{};
    for (size_t value = 0; value < table.size(); ++value) {
        table[value] = {alphabet[value >> 6], alphabet[value & 63]};
    }
    return table;
}
constexpr auto pairs = make_pairs();

}  // namespace

char* base64_encode_to(std::string_view data, char* to) {
    const auto* from = reinterpret_cast<const unsigned char*>(data.data());
    size_t left = data.size();
    for (; left >= 3; left -= 3, from += 3, to += 4) {
        memcpy(to, pairs[static_cast<unsigned>(from[0]) << 4 | from[1] >> 4].data(), 2);
        memcpy(to + 2, pairs[(from[1] & 15U) << 8 | from[2]].data(), 2);
    }
    if (left > 0) {
        const unsigned second = left == 2 ? from[1] : 0;
        memcpy(to, pairs[static_cast<unsigned>(from[0]) << 4 | second >> 4].data(), 2);
        to[2] = left == 2 ? alphabet[(second & 15) << 2] : '=';
        to[3] = '=';
        to += 4;
    }
    return to;
}

char* base64_lines_to(std::string_view data, char* to) {
    static const base64_line_encoder vector_lines = base64_vector_lines();
    if (vector_lines != nullptr) {
        const size_t whole = data.size() / base64_line_bytes;
        vector_lines(reinterpret_cast<const unsigned char*>(data.data()), to, whole);
        data.remove_prefix(whole * base64_line_bytes);
        to += whole * (base64_line_text + 2);
    }
    while (!data.empty()) {
        to = base64_encode_to(data.substr(0, base64_line_bytes), to);
        memcpy(to, "\r\n", 2);
        to += 2;
        data.remove_prefix(std::min(data.size(), base64_line_bytes));
    }
    return to;
}

void base64_encode(std::string_view data, std::string* out) {
    const size_t start = out->size();
    out->resize(start + base64_size(data.size()));
    base64_encode_to(data, out->data() + start);
}

bool base64_decode(std::string_view text, std::string* out) {
    uint32_t group = 0;
    int bits = 0;
    size_t count = 0;
    size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            continue;
        }
        ++count;
        if (c == '=') {
            ++padding;
            continue;
        }
        const unsigned char digit = digits[static_cast<unsigned char>(c)];
        if (digit == no_digit || padding != 0) {
            return false;
        }
        group = group << 6 | digit;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            *out += static_cast<char>(group >> bits & 255);
        }
    }
    return count % 4 == 0 && padding <= 2;
}
