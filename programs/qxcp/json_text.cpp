#include "json_text.h"

#include <charconv>

namespace {

constexpr char hex_digits[] = "0123456789abcdef";

bool is_plain(unsigned char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

// Length of the UTF-8 character at the beginning of `bytes`, 0 when there is none.
size_t utf8_length(std::string_view bytes) {
    unsigned char first = static_cast<unsigned char>(bytes[0]);
    size_t length = first >= 0xF0 && first < 0xF5   ? 4
                    : first >= 0xE0 && first < 0xF0 ? 3
                    : first >= 0xC2 && first < 0xE0 ? 2
                                                    : 0;
    if (length == 0 || length > bytes.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(bytes[i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    unsigned char second = static_cast<unsigned char>(bytes[1]);
    bool too_small = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    bool no_character = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return too_small || no_character ? 0 : length;
}

bool is_text(std::string_view bytes) {
    for (size_t at = 0; at < bytes.size();) {
        unsigned char c = static_cast<unsigned char>(bytes[at]);
        if (c < 0x80) {
            if (c == 0x7F || (c < 0x20 && c != '\t' && c != '\n' && c != '\r')) {
                return false;
            }
            ++at;
            continue;
        }
        size_t length = utf8_length(bytes.substr(at));
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

void append_escaped(std::string* out, unsigned char c) {
    switch (c) {
        case '"':
            *out += "\\\"";
            return;
        case '\\':
            *out += "\\\\";
            return;
        case '\n':
            *out += "\\n";
            return;
        case '\r':
            *out += "\\r";
            return;
        case '\t':
            *out += "\\t";
            return;
        default:
            break;
    }
    if (c >= 0x20 && c != 0x7F) {
        *out += static_cast<char>(c);
        return;
    }
    *out += "\\u00";
    *out += hex_digits[c >> 4];
    *out += hex_digits[c & 15];
}

}  // namespace

void json_append_string(std::string* out, std::string_view text) {
    *out += '"';
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (is_plain(c) || c >= 0x80) {
            continue;
        }
        out->append(text, start, i - start);
        append_escaped(out, c);
        start = i + 1;
    }
    out->append(text, start);
    *out += '"';
}

void json_append_bytes(std::string* out, std::string_view bytes) {
    if (is_text(bytes) && !bytes.starts_with("hex:")) {
        json_append_string(out, bytes);
        return;
    }
    *out += "\"hex:";
    size_t at = out->size();
    out->resize(at + 2 * bytes.size());
    char* digits = out->data() + at;
    for (char byte : bytes) {
        *digits++ = hex_digits[static_cast<unsigned char>(byte) >> 4];
        *digits++ = hex_digits[static_cast<unsigned char>(byte) & 15];
    }
    *out += '"';
}

namespace {

template <class Number>
void append_number(std::string* out, Number number) {
    char digits[24];
    std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, number);
    out->append(digits, end.ptr);
}

}  // namespace

void json_append_number(std::string* out, int64_t number) {
    append_number(out, number);
}

void json_append_number(std::string* out, uint64_t number) {
    append_number(out, number);
}

void json_append_name(std::string* out, std::string_view name) {
    if (!out->empty() && out->back() != '{' && out->back() != '[') {
        *out += ',';
    }
    json_append_string(out, name);
    *out += ':';
}
