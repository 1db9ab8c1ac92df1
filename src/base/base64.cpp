#include "base/base64.h"

#include <array>
#include <cstdint>

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

unsigned byte_at(std::string_view data, size_t at) {
    return at < data.size() ? static_cast<unsigned char>(data[at]) : 0U;
}

}  // namespace

void base64_encode(std::string_view data, std::string* out) {
    const size_t start = out->size();
    out->resize(start + base64_size(data.size()));
    char* to = out->data() + start;
    for (size_t at = 0; at < data.size(); at += 3) {
        const unsigned group = byte_at(data, at) << 16 | byte_at(data, at + 1) << 8 | byte_at(data, at + 2);
        *to++ = alphabet[group >> 18];
        *to++ = alphabet[group >> 12 & 63];
        *to++ = at + 1 < data.size() ? alphabet[group >> 6 & 63] : '=';
        *to++ = at + 2 < data.size() ? alphabet[group & 63] : '=';
    }
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
