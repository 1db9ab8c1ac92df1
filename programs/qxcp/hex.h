// Bytes as hexadecimal text and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

inline std::string cp_to_hex(std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (char c : bytes) {
        auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

// Nothing when the text has a character that is no digit, or an odd length.
inline std::optional<std::string> cp_from_hex(std::string_view text) {
    auto value = [](char c) {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    };
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        int high = value(text[i]);
        int low = value(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}
