#include "base/text.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

void put_field(char* field, size_t width, std::string_view text) {
    const size_t length = std::min(width, text.size());
    if (length != 0) {
        memmove(field, text.data(), length);
    }
    memset(field + length, ' ', width - length);
}

std::string_view get_field(const char* field, size_t width) {
    size_t length = width == 0 ? 0 : strnlen(field, width);  // a field that did not come has no place either
    while (length > 0 && field[length - 1] == ' ') {
        --length;
    }
    return {field, length};
}

bool field_is(const char* field, size_t width, std::string_view text) {
    return get_field(field, width) == text;
}

size_t copy_text(char* out, size_t size, std::string_view text) {
    if (size == 0) {
        return 0;
    }
    const size_t length = std::min(size - 1, text.size());
    if (length != 0) {
        memmove(out, text.data(), length);
    }
    out[length] = '\0';
    return length;
}

void fix_len_reorg(char* text, size_t size) {
    const size_t length = strnlen(text, size);
    memset(text + length, ' ', size - length);
}

void fix_len_reorg2(char* text, size_t size) {
    EatTrailing(text, size);
}

size_t EatTrailing(char* text, size_t size) {
    size_t length = size;
    while (length > 0 && (text[length - 1] == ' ' || text[length - 1] == '\0')) {
        text[--length] = '\0';
    }
    return length;
}

size_t EatTrailingStr(char* text) {
    return text == nullptr ? 0 : EatTrailing(text, strlen(text));
}

size_t EatString(char* text) {
    if (text == nullptr) {
        return 0;
    }
    const size_t length = EatTrailingStr(text);
    const size_t lead = strspn(text, " ");
    memmove(text, text + lead, length - lead + 1);
    return length - lead;
}

char* _StringCopy(char* dst, size_t size, const char* src, const char* /*file*/, int /*line*/) {
    if (dst != nullptr) {
        copy_text(dst, size, src == nullptr ? std::string_view() : std::string_view(src));
    }
    return dst;
}

char* _StringCat(char* dst, size_t size, const char* src, const char* file, int line) {
    if (dst != nullptr && size != 0) {
        const size_t used = strnlen(dst, size - 1);
        _StringCopy(dst + used, size - used, src, file, line);
    }
    return dst;
}

char ToUpperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

char ToLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

char* ToUpperStr(char* text) {
    for (char* c = text; c != nullptr && *c != '\0'; ++c) {
        *c = ToUpperCase(*c);
    }
    return text;
}

char* ToLowerStr(char* text) {
    for (char* c = text; c != nullptr && *c != '\0'; ++c) {
        *c = ToLowerCase(*c);
    }
    return text;
}

char* strupr(char* text) {
    return ToUpperStr(text);
}

char* strupper(char* text) {
    return ToUpperStr(text);
}

std::string upper(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), ToUpperCase);
    return result;
}

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), ToLowerCase);
    return result;
}

bool equal_ignore_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return ToUpperCase(x) == ToUpperCase(y); });
}

std::string_view rstrip(std::string_view text) {
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::string_view lstrip(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    return text;
}

std::string_view strip(std::string_view text) {
    return lstrip(rstrip(text));
}

void str_replace_char(char* text, char from, char to) {
    for (; text != nullptr && *text != '\0'; ++text) {
        if (*text == from) {
            *text = to;
        }
    }
}

std::vector<std::string_view> split_words(std::string_view text, char delimiter) {
    std::vector<std::string_view> words;
    for (;;) {
        const size_t end = text.find(delimiter);
        words.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return words;
        }
        text.remove_prefix(end + 1);
    }
}

std::string_view get_word_delimited(std::string_view text, char delimiter, int number) {
    for (; number > 1; --number) {
        const size_t end = text.find(delimiter);
        if (end == std::string_view::npos) {
            return {};
        }
        text.remove_prefix(end + 1);
    }
    return number < 1 ? std::string_view() : text.substr(0, text.find(delimiter));
}

std::string fdset2string(const fd_set* set, int limit) {
    std::string text;
    const unsigned long* words = reinterpret_cast<const unsigned long*>(set);
    constexpr int word_bits = 8 * sizeof(unsigned long);
    // Read by hand: FD_ISSET of a hardened build ends the process above FD_SETSIZE, and sets may be larger.
    for (int fd = 0; set != nullptr && fd < limit; ++fd) {
        if ((words[fd / word_bits] >> (fd % word_bits) & 1) != 0) {
            text += (text.empty() ? "" : ",") + std::to_string(fd);
        }
    }
    return text;
}

int MyStrMatch(std::string_view str, std::string_view mask, char more, char one) {
    size_t at = 0;
    size_t mask_at = 0;
    size_t retry_mask = std::string_view::npos;
    size_t retry_at = 0;
    while (at < str.size()) {
        if (mask_at < mask.size() && mask[mask_at] == more) {
            retry_mask = ++mask_at;
            retry_at = at;
        } else if (mask_at < mask.size() && (mask[mask_at] == one || mask[mask_at] == str[at])) {
            ++mask_at;
            ++at;
        } else if (retry_mask != std::string_view::npos) {
            mask_at = retry_mask;
            at = ++retry_at;
        } else {
            return 0;
        }
    }
    while (mask_at < mask.size() && mask[mask_at] == more) {
        ++mask_at;
    }
    return mask_at == mask.size() ? 1 : 0;
}

const char* strMatchPtr(const char* str, const char* mask, char more, char one) {
    if (str == nullptr || mask == nullptr) {
        return nullptr;
    }
    std::string_view rest(str);
    // A mask that stands free on its right side, so that the match may end anywhere.
    const std::string open_mask = std::string(mask) + more;
    for (;;) {
        if (MyStrMatch(rest, open_mask, more, one) == 1) {
            return rest.data();
        }
        if (rest.empty()) {
            return nullptr;
        }
        rest.remove_prefix(1);
    }
}

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

int ExpandEnvironmentStringsA(const char* in, char* out, size_t size) {
    if (in == nullptr || out == nullptr || size == 0) {
        return 0;
    }
    std::string_view rest(in, strnlen(in, 2047));
    std::string result;
    while (!rest.empty()) {
        const size_t start = rest.find('%');
        result += rest.substr(0, start);
        if (start == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(start + 1);
        const size_t end = rest.find('%');
        const char* value = getenv(std::string(rest.substr(0, end)).c_str());
        if (value != nullptr) {
            result += value;
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return static_cast<int>(copy_text(out, size, result));
}

std::string printable(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (static_cast<unsigned char>(c) < 32 || c == 127) {
            c = '.';
        }
    }
    return result;
}
