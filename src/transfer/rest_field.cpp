#include "transfer/rest_field.h"

#include "base/text.h"

std::string GetRestField(std::string_view rest, rest_part part) {
    const char key[] = {static_cast<char>(part), '='};
    return GetRestString(rest, {key, sizeof key}, rest_part_max);
}

std::string_view GetAttribute(std::string_view text, std::string_view name) {
    for (const std::string_view word : split_words(text, ',')) {
        const std::string_view item = strip(word);
        if (item.starts_with(name)) {
            return strip(item.substr(name.size()));
        }
    }
    return {};
}
