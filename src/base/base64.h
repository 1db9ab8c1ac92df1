// Base64 with the alphabet of RFC 4648, padded.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Characters that `length` bytes become.
constexpr size_t base64_size(size_t length) {
    return (length + 2) / 3 * 4;
}

// Writes the text of `data`, base64_size() characters without line ends, to `to`. The place behind it.
char* base64_encode_to(std::string_view data, char* to);
// Writes it in lines of 76 characters, each with CR LF behind it: one for each 57 bytes and one for the rest.
// The place behind it.
char* base64_lines_to(std::string_view data, char* to);
// Appends the text of `data` to `out`, without line ends.
void base64_encode(std::string_view data, std::string* out);

// Blanks, tabs and line ends between the characters are passed over; anything else that is not of the
// alphabet, and padding anywhere but at the end, makes the text bad. False for a bad text; `out` then holds
// what came before.
bool base64_decode(std::string_view text, std::string* out);
