// Values with a grammar of their own. Every function takes text from the INI file and never fails: what
// cannot be read has a defined meaning.
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "agent/settings.h"

namespace {

constexpr int ft_message_size_max = 32256;
constexpr int ft_message_size_min = 4096;

long long leading_number(const char* text) {
    const long long number = strtoll(text, nullptr, 10);
    return number < 0 ? 0 : number;
}

char last_letter(const char* text) {
    const size_t length = strlen(text);
    return length == 0 ? '\0' : static_cast<char>(toupper(static_cast<unsigned char>(text[length - 1])));
}

int cut_to_int(long long number) {
    return number > INT_MAX ? INT_MAX : static_cast<int>(number);
}

}  // namespace

int settings_size_value(const char* text) {
    const long long number = leading_number(text);
    if (number > INT_MAX) {
        return INT_MAX;
    }
    switch (last_letter(text)) {
        case 'M':
            return cut_to_int(number << 20);
        case 'K':
            return cut_to_int(number << 10);
        default:
            return static_cast<int>(number);
    }
}

int settings_ft_message_size(const char* text) {
    long long size = leading_number(text);
    if (last_letter(text) == 'K' && size <= INT_MAX) {
        size <<= 10;
    }
    const bool outside = size < ft_message_size_min || size > ft_message_size_max;
    return outside ? ft_message_size_max : static_cast<int>(size);
}

int settings_compress_size(const char* text) {
    const long long number = leading_number(text);
    return cut_to_int(last_letter(text) == 'K' ? number / 1024 : number);
}

void settings_languages(const char* text, char* main_language, char* sub_language) {
    char letters[2] = {'\0', '\0'};
    int side = 0;
    for (const char* at = text; *at != '\0'; ++at) {
        if (*at == ',') {
            side = 1;
        } else if (*at != ' ' && *at != '(' && *at != ')' && letters[side] == '\0') {
            letters[side] = static_cast<char>(toupper(static_cast<unsigned char>(*at)));
        }
    }
    *main_language = letters[0] == '\0' ? 'E' : letters[0];
    *sub_language = letters[1] == '\0' ? 'D' : letters[1];
}

int settings_listener_port(const char* text, char* address, size_t size) {
    const char* colon = strrchr(text, ':');
    const char* digits = colon == nullptr ? text : colon + 1;
    size_t length = colon == nullptr ? 0 : static_cast<size_t>(colon - text);
    if (length >= size) {
        length = 0;
    }
    memcpy(address, text, length);
    address[length] = '\0';
    const long port = strtol(digits, nullptr, 10);
    return port < 0 || port > 65535 ? 0 : static_cast<int>(port);
}
