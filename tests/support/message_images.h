// Messages built byte by byte, without the code under test.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

using image = std::vector<unsigned char>;

inline void add_text(image* out, std::string_view text, size_t width) {
    for (size_t i = 0; i < width; ++i) {
        out->push_back(i < text.size() ? static_cast<unsigned char>(text[i]) : ' ');
    }
}

inline void add_bytes(image* out, std::string_view bytes) {
    out->insert(out->end(), bytes.begin(), bytes.end());
}

inline void add_number(image* out, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        out->push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

inline void set_number(image* out, size_t offset, uint64_t value, size_t size = 4) {
    for (size_t i = 0; i < size; ++i) {
        out->at(offset + i) = static_cast<unsigned char>(value >> (8 * i));
    }
}

inline void set_text(image* out, size_t offset, std::string_view text) {
    memcpy(out->data() + offset, text.data(), text.size());
}

// Head and a blank-and-zero body of `size` bytes in all.
inline image make_image(std::string_view type, std::string_view version, size_t size) {
    image out;
    add_text(&out, type, 8);
    add_bytes(&out, version);
    add_number(&out, 100, 2);
    add_number(&out, 77, 4);
    out.resize(size, 0);
    return out;
}

// An end message with restart record, steps, two variables and a file, in the catalogue's order.
inline image make_exstaj() {
    image out = make_image("EXSTAJ", "04", 512);
    set_number(&out, 16, 4711);
    set_text(&out, 20, "12345     ");
    set_text(&out, 30, "E");
    set_number(&out, 32, 7);
    set_text(&out, 56, "MARK    text of the job         ");
    set_number(&out, 88, 2024, 2);
    set_number(&out, 90, 2, 2);
    set_number(&out, 92, 29, 2);
    set_text(&out, 104, std::string(255, ' '));
    set_text(&out, 396, std::string(100, ' '));
    set_number(&out, 360, 1);
    set_number(&out, 364, out.size());
    add_bytes(&out, std::string_view("step one\0", 9));
    add_number(&out, 5, 2);
    set_number(&out, 368, 4);
    set_number(&out, 372, out.size());
    add_bytes(&out, std::string_view("\x01\x02\x00\xFF", 4));
    set_number(&out, 496, out.size());
    set_number(&out, 500, 2);
    add_bytes(&out, std::string_view("var1\0value1\0C", 13));
    add_bytes(&out, std::string_view("var2\0\0N", 7));
    set_number(&out, 504, 1);
    set_number(&out, 508, out.size());
    add_bytes(&out, std::string_view("Y/tmp/out.txt\0", 14));
    return out;
}

// An activation with script, rest fields, two variables and a password.
inline image make_exaktj() {
    image out = make_image("EXAKTJ", "02", 1836);
    set_number(&out, 16, 4711);
    set_text(&out, 20, std::string(200, ' '));
    set_text(&out, 20, "NIGHTLY.REPORT");
    set_text(&out, 220, std::string(255, ' '));
    set_text(&out, 476, std::string(255, ' '));
    set_text(&out, 732, std::string(255, ' '));
    set_text(&out, 988, std::string(255, ' '));
    set_text(&out, 1244, std::string(200, ' '));
    set_text(&out, 1244, "operator");
    set_text(&out, 1564, std::string(200, ' '));
    auto place = [&out](size_t dist, size_t len, std::string_view bytes) {
        set_number(&out, dist, out.size());
        set_number(&out, len, bytes.size());
        add_bytes(&out, bytes);
    };
    place(1472, 1544, "S=|/bin/sh|");
    place(1556, 1560, "#!/bin/sh\necho hello\nexit 0\n");
    set_number(&out, 1788, out.size());
    set_number(&out, 1792, 2);
    add_bytes(&out, std::string_view("name1\0value1\0N\0", 15));
    add_bytes(&out, std::string_view("name2\0value2\0N\0", 15));
    set_number(&out, 1796, out.size());
    set_number(&out, 1800, 1);
    add_bytes(&out, std::string_view("HOME\0/root\0", 11));
    place(1828, 1832, std::string("0000000016") + std::string(16, '\x07'));
    return out;
}
