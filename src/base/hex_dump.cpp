#include "base/hex_dump.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t row_bytes = 16;

void append_row(std::string* out, size_t indent, const unsigned char* bytes, size_t length, size_t offset,
                bool gap_follows) {
    constexpr char digits[] = "0123456789ABCDEF";
    char head[16];
    snprintf(head, sizeof head, "%.8X%c", static_cast<uint32_t>(offset), gap_follows ? '=' : ' ');
    out->append(indent, ' ').append(head);
    for (size_t i = 0; i < row_bytes; ++i) {
        if (i % 4 == 0) {
            *out += ' ';
        }
        *out += i < length ? digits[bytes[i] >> 4] : ' ';
        *out += i < length ? digits[bytes[i] & 15] : ' ';
    }
    out->append("  ");
    for (size_t i = 0; i < length; ++i) {
        *out += bytes[i] >= 32 && bytes[i] < 127 ? static_cast<char>(bytes[i]) : '.';
    }
    *out += '\n';
}

}  // namespace

void append_hex_rows(std::string* out, size_t indent, const void* address, size_t length) {
    const unsigned char* bytes = static_cast<const unsigned char*>(address);
    for (size_t offset = 0; offset < length;) {
        const size_t width = std::min(row_bytes, length - offset);
        size_t next = offset + width;
        while (width == row_bytes && next + row_bytes <= length &&
               memcmp(bytes + offset, bytes + next, row_bytes) == 0) {
            next += row_bytes;
        }
        append_row(out, indent, bytes + offset, width, offset, next > offset + width);
        offset = next;
    }
}
