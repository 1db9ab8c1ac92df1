// What an order of a transfer holds beyond its fixed fields. The rest field has a part for each side; a part is
// "name=value,name=value" or one word.
#pragma once

#include <string>
#include <string_view>

inline constexpr size_t rest_part_max = 2048;

enum rest_part : char { REST_SENDER = '1', REST_RECEIVER = '2' };

// The part of a rest field that is for one side, empty without one.
std::string GetRestField(std::string_view rest, rest_part part);

// The value of "name=" at the start of a part or behind a comma: up to the next comma or the end, without the
// blanks around it. Empty without one.
std::string_view GetAttribute(std::string_view text, std::string_view name);
