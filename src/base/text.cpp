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

std::string GetRestString(std::string_view rest, std::string_view key, size_t limit) {
    while (!rest.empty()) {
        if (rest.front() == ' ' || rest.front() == '\0') {
            rest.remove_prefix(1);
            continue;
        }
        const size_t equal = rest.find('=');
        if (equal == std::string_view::npos || equal + 2 > rest.size()) {
            return {};
        }
        const std::string_view name = rest.substr(0, equal + 1);
        rest.remove_prefix(equal + 1);
        if (rest.empty()) {
            return {};
        }
        const char delimiter = rest.front();
        const size_t end = rest.find(delimiter, 1);
        if (end == std::string_view::npos) {
            return {};
        }
        if (name == key) {
            return std::string(rest.substr(1, end - 1).substr(0, limit));
        }
        rest.remove_prefix(end + 1);
    }
    return {};
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
