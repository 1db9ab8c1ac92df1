// Fields and bounded copies. Like text_numbers.cpp it needs the C library alone: the job messenger links no
// other.
#include <algorithm>
#include <cstring>

#include "base/text.h"

void put_text(char* field, size_t width, std::string_view text) {
    const size_t length = std::min(width, text.size());
    if (length != 0) {
        memmove(field, text.data(), length);
    }
    memset(field + length, ' ', width - length);
}

std::string_view get_text(const char* field, size_t width) {
    size_t length = width == 0 ? 0 : strnlen(field, width);  // a field that did not come has no place either
    while (length > 0 && field[length - 1] == ' ') {
        --length;
    }
    return {field, length};
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
