// Numbers from text and from fields of any width. See text_fields.cpp for what it may need.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "base/text.h"

void Zudnst_LongToB26(uint32_t value, char out[8]) {
    for (int i = 6; i >= 0; --i) {
        out[i] = static_cast<char>('A' + value % 26);
        value /= 26;
    }
    out[7] = '\0';
}

uint32_t Zudnst_B26ToLong(const char* text) {
    uint32_t value = 0;
    for (int i = 0; i < 7 && text[i] >= 'A' && text[i] <= 'Z'; ++i) {
        value = value * 26 + static_cast<uint32_t>(text[i] - 'A');
    }
    return value;
}

int64_t CNV_Int(const void* num, size_t size) {
    switch (size) {
        case 1:
            return static_cast<int8_t>(CNV_X(num, 1));
        case 2:
            return static_cast<int16_t>(CNV_X(num, 2));
        case 4:
            return static_cast<int32_t>(CNV_X(num, 4));
        case 8:
            return static_cast<int64_t>(CNV_X(num, 8));
        default:
            return 0;
    }
}

int32_t CNV_Int4(const void* num) {
    return static_cast<int32_t>(CNV_Int(num, 4));
}

int16_t CNV_Int2(const void* num) {
    return static_cast<int16_t>(CNV_Int(num, 2));
}

uint64_t CNV_X(const void* num, size_t size) {
    if (size != 1 && size != 2 && size != 4 && size != 8) {
        return 0;
    }
    uint64_t value = 0;
    memcpy(&value, num, size);
    return value;
}

bool parse_number(std::string_view text, int64_t low, int64_t high, int64_t* out) {
    int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (text.empty() || result.ec != std::errc() || result.ptr != end || value < low || value > high) {
        return false;
    }
    *out = value;
    return true;
}

uint16_t iCnvU16(uint16_t value) {
    return iIsIntel() ? value : __builtin_bswap16(value);
}

int16_t iCnvI16(int16_t value) {
    return static_cast<int16_t>(iCnvU16(static_cast<uint16_t>(value)));
}

uint32_t iCnvU32(uint32_t value) {
    return iIsIntel() ? value : __builtin_bswap32(value);
}

int32_t iCnvI32(int32_t value) {
    return static_cast<int32_t>(iCnvU32(static_cast<uint32_t>(value)));
}

uint64_t iCnvU64(uint64_t value) {
    return iIsIntel() ? value : __builtin_bswap64(value);
}

int64_t iCnvI64(int64_t value) {
    return static_cast<int64_t>(iCnvU64(static_cast<uint64_t>(value)));
}

bool iIsIntel() {
    return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
}

bool iIsEbcdic() {
    return 'A' == 0xC1;
}
