#include "base/code_tables.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr qx_code_tables make_identity() {
    qx_code_tables tables{};
    for (int i = 0; i < 256; ++i) {
        tables.forward[i] = static_cast<unsigned char>(i);
        tables.inverse[i] = static_cast<unsigned char>(i);
    }
    return tables;
}

// IBM code page 1047, which partners on hosts of that kind use; index is ISO 8859-1.
constexpr unsigned char ebcdic_of_ascii[256] = {
    0x00, 0x01, 0x02, 0x03, 0x37, 0x2D, 0x2E, 0x2F, 0x16, 0x05, 0x15, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,
    0x10, 0x11, 0x12, 0x13, 0x3C, 0x3D, 0x32, 0x26, 0x18, 0x19, 0x3F, 0x27, 0x1C, 0x1D, 0x1E, 0x1F,
    0x40, 0x5A, 0x7F, 0x7B, 0x5B, 0x6C, 0x50, 0x7D, 0x4D, 0x5D, 0x5C, 0x4E, 0x6B, 0x60, 0x4B, 0x61,
    0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0x7A, 0x5E, 0x4C, 0x7E, 0x6E, 0x6F,
    0x7C, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6,
    0xD7, 0xD8, 0xD9, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xAD, 0xE0, 0xBD, 0x5F, 0x6D,
    0x79, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x91, 0x92, 0x93, 0x94, 0x95, 0x96,
    0x97, 0x98, 0x99, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xC0, 0x4F, 0xD0, 0xA1, 0x07,
    0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x06, 0x17, 0x28, 0x29, 0x2A, 0x2B, 0x2C, 0x09, 0x0A, 0x1B,
    0x30, 0x31, 0x1A, 0x33, 0x34, 0x35, 0x36, 0x08, 0x38, 0x39, 0x3A, 0x3B, 0x04, 0x14, 0x3E, 0xFF,
    0x41, 0xAA, 0x4A, 0xB1, 0x9F, 0xB2, 0x6A, 0xB5, 0xBB, 0xB4, 0x9A, 0x8A, 0xB0, 0xCA, 0xAF, 0xBC,
    0x90, 0x8F, 0xEA, 0xFA, 0xBE, 0xA0, 0xB6, 0xB3, 0x9D, 0xDA, 0x9B, 0x8B, 0xB7, 0xB8, 0xB9, 0xAB,
    0x64, 0x65, 0x62, 0x66, 0x63, 0x67, 0x9E, 0x68, 0x74, 0x71, 0x72, 0x73, 0x78, 0x75, 0x76, 0x77,
    0xAC, 0x69, 0xED, 0xEE, 0xEB, 0xEF, 0xEC, 0xBF, 0x80, 0xFD, 0xFE, 0xFB, 0xFC, 0xBA, 0xAE, 0x59,
    0x44, 0x45, 0x42, 0x46, 0x43, 0x47, 0x9C, 0x48, 0x54, 0x51, 0x52, 0x53, 0x58, 0x55, 0x56, 0x57,
    0x8C, 0x49, 0xCD, 0xCE, 0xCB, 0xCF, 0xCC, 0xE1, 0x70, 0xDD, 0xDE, 0xDB, 0xDC, 0x8D, 0x8E, 0xDF};

void invert(const unsigned char table[256], unsigned char inverse[256]) {
    for (int i = 0; i < 256; ++i) {
        inverse[i] = static_cast<unsigned char>(i);
    }
    // From the end, so that the first byte with a given image wins.
    for (int i = 255; i >= 0; --i) {
        inverse[table[i]] = static_cast<unsigned char>(i);
    }
}

// Every table that was ever the default stays: the network thread may be converting with it. Servers that
// take turns with different tables get the ones that they had before.
struct kept_tables {
    qx_code_tables tables;
    kept_tables* next;
};
kept_tables* all_kept = nullptr;

const qx_code_tables* keep_tables(const qx_code_tables& tables) {
    for (const kept_tables* each = all_kept; each != nullptr; each = each->next) {
        if (memcmp(&each->tables, &tables, sizeof tables) == 0) {
            return &each->tables;
        }
    }
    kept_tables* made = static_cast<kept_tables*>(malloc(sizeof *made));
    if (made == nullptr) {
        return nullptr;
    }
    *made = {tables, all_kept};
    all_kept = made;
    return &made->tables;
}

}  // namespace

constexpr qx_code_tables identity_code_tables = make_identity();

void SetCodeTab(unsigned char tab[256], const unsigned char code[code_table_message_size]) {
    const unsigned char* flags = code + 256;
    unsigned char substitute = ' ';
    for (int i = 0; i < 256; ++i) {
        if ((flags[i] & CODE_FLAG_SUBSTITUTE) != 0) {
            substitute = code[i];
            break;
        }
    }
    for (int i = 0; i < 256; ++i) {
        tab[i] = (flags[i] & CODE_FLAG_MAPPED) != 0 ? code[i] : substitute;
    }
}

int make_code_tables(const void* code, size_t length, qx_code_tables* out) {
    if (code == nullptr || length != code_table_message_size) {
        return -1;
    }
    SetCodeTab(out->forward, static_cast<const unsigned char*>(code));
    invert(out->forward, out->inverse);
    return 0;
}

int SetDefaultCode(EX_PCX* pcx, const void* code, size_t length) {
    qx_code_tables tables;
    if (make_code_tables(code, length, &tables) != 0) {
        return -1;
    }
    const qx_code_tables* old = pcx->pDefaultCode.load(std::memory_order_relaxed);
    if (old != nullptr && memcmp(old, &tables, sizeof tables) == 0) {
        return 0;
    }
    const qx_code_tables* kept = keep_tables(tables);
    if (kept == nullptr) {
        return -1;
    }
    pcx->pDefaultCode.store(kept, std::memory_order_release);
    pcx->code_len = static_cast<int>(length);
    return 0;
}

const qx_code_tables& GetDefaultCode(const EX_PCX* pcx) {
    const qx_code_tables* tables =
        pcx == nullptr ? nullptr : pcx->pDefaultCode.load(std::memory_order_acquire);
    return tables == nullptr ? identity_code_tables : *tables;
}

void AreaConv(void* area, size_t length, const unsigned char table[256]) {
    unsigned char* bytes = static_cast<unsigned char*>(area);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = table[bytes[i]];
    }
}

void ToAscii(void* area, size_t length) {
    unsigned char ascii_of_ebcdic[256];
    invert(ebcdic_of_ascii, ascii_of_ebcdic);
    AreaConv(area, length, ascii_of_ebcdic);
}

void ToEbcdic(void* area, size_t length) {
    AreaConv(area, length, ebcdic_of_ascii);
}
