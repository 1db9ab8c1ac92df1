// JSON written by appending, for output whose speed counts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// `text` in quotes, with what JSON wants escaped.
void json_append_string(std::string* out, std::string_view text);

// Bytes as a JSON string: as they are when they are text (UTF-8 without control characters but tab and line
// ends), else "hex:" and two digits for each. A text that itself begins with "hex:" is written as hex, so
// that both can be told apart.
void json_append_bytes(std::string* out, std::string_view bytes);

void json_append_number(std::string* out, int64_t number);
void json_append_number(std::string* out, uint64_t number);

// "name": in front of a value, with a comma when the object has members already.
void json_append_name(std::string* out, std::string_view name);
