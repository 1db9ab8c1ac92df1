#include "transfer/control_stream.h"

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t digits = 5;
constexpr size_t item_overhead = 10;  // the digits, "-", "='", "';"

int hexDigit(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                  : -1;
}

// As atoi of at most five bytes: digits until something else.
size_t readLength(std::string_view text) {
    size_t value = 0;
    for (size_t i = 0; i < digits && i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + static_cast<size_t>(text[i] - '0');
    }
    return value;
}

void writeLength(char* to, size_t length) {
    char text[24];
    snprintf(text, sizeof text, "%.5zu", length);
    memcpy(to, text, digits);
}

}  // namespace

size_t getCbsLen(std::string_view cbs) {
    const size_t length = readLength(cbs);
    return length > cbs.size() ? 0 : length;
}

int cbsPutnString(ControlStream* cbs, std::string_view key, const char* bytes, size_t count) {
    const size_t before = cbs->empty() ? cbs_head : getCbsLen(*cbs);
    if (before < cbs_head || key.empty() || key.find('=') != std::string_view::npos || count > cbs_most ||
        key.size() > cbs_most || before + key.size() + count + item_overhead > cbs_most) {
        return -1;
    }
    const size_t item = key.size() + count + item_overhead;
    cbs->resize(before);
    cbs->reserve(before + item);
    char number[digits];
    writeLength(number, item);
    cbs->append(number, digits).append("-").append(key).append("='").append(bytes, count).append("';");
    writeLength(cbs->data(), before + item);
    (*cbs)[digits] = ':';
    return 0;
}

int cbsPutString(ControlStream* cbs, std::string_view key, std::string_view value) {
    return cbsPutnString(cbs, key, value.data(), value.size());
}

int cbsPutInt(ControlStream* cbs, std::string_view key, int value) {
    return cbsPutString(cbs, key, std::to_string(value));
}

int cbsPutInt64(ControlStream* cbs, std::string_view key, int64_t value) {
    if (value <= INT_MAX - 1) {  // the largest int goes in hex already
        return cbsPutString(cbs, key, std::to_string(value));
    }
    char text[24];
    const int length = snprintf(text, sizeof text, "0x%016llX", static_cast<unsigned long long>(value));
    return cbsPutnString(cbs, key, text, static_cast<size_t>(length));
}

int cbsPutByteStream(ControlStream* cbs, std::string_view key, const void* bytes, size_t count) {
    constexpr const char* hex = "0123456789ABCDEF";
    if (count > cbs_most / 2) {
        return -1;
    }
    std::string text;
    const auto* from = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < count; ++i) {
        text.push_back(hex[from[i] >> 4]);
        text.push_back(hex[from[i] & 15]);
    }
    return cbsPutString(cbs, key, text);
}

int cbsGetAddrLen(std::string_view cbs, std::string_view key, const char** address, size_t* length) {
    const size_t total = getCbsLen(cbs);
    for (size_t at = cbs_head; at < total;) {
        const std::string_view rest = cbs.substr(at, total - at);
        const size_t item = readLength(rest);
        if (item < 1 || item > rest.size()) {
            break;
        }
        const bool fits = item >= key.size() + item_overhead && rest.substr(digits + 1, key.size()) == key &&
                          rest[digits + 1 + key.size()] == '=';
        if (fits) {
            *address = rest.data() + key.size() + 8;
            *length = item - key.size() - item_overhead;
            return 0;
        }
        at += item;
    }
    return -1;
}

int cbsGetString(std::string_view cbs, std::string_view key, std::string* value) {
    const char* address;
    size_t length;
    if (cbsGetAddrLen(cbs, key, &address, &length) != 0) {
        return -1;
    }
    value->assign(address, length);
    return 0;
}

int cbsGetInt(std::string_view cbs, std::string_view key, int* value) {
    int64_t wide;
    if (cbsGetInt64(cbs, key, &wide) != 0) {
        return -1;
    }
    *value = static_cast<int>(wide);
    return 0;
}

int cbsGetInt64(std::string_view cbs, std::string_view key, int64_t* value) {
    std::string text;
    if (cbsGetString(cbs, key, &text) != 0) {
        return -1;
    }
    if (text.size() < 2 || text[1] != 'x') {
        *value = strtol(text.c_str(), nullptr, 10);
        return 0;
    }
    uint64_t bits = 0;
    for (size_t i = 2; i < text.size() && i < 18 && hexDigit(text[i]) >= 0; ++i) {
        bits = bits << 4 | static_cast<uint64_t>(hexDigit(text[i]));
    }
    *value = static_cast<int64_t>(bits);
    return 0;
}

int cbsGetByteStream(std::string_view cbs, std::string_view key, void* bytes, size_t* length) {
    const char* address;
    size_t count;
    if (cbsGetAddrLen(cbs, key, &address, &count) != 0 || count / 2 > *length) {
        return -1;
    }
    for (size_t i = 0; i < count / 2 * 2; ++i) {
        if (hexDigit(address[i]) < 0) {
            return -1;
        }
    }
    auto* to = static_cast<unsigned char*>(bytes);
    for (size_t i = 0; i < count / 2; ++i) {
        to[i] = static_cast<unsigned char>(hexDigit(address[2 * i]) << 4 | hexDigit(address[2 * i + 1]));
    }
    *length = count / 2;
    return 0;
}
