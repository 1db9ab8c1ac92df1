// The table of all settings: what the agent knows, which values it wants, and what it takes for another one.
// The check of the INI file at the start, `qxxjlnx check` and the test of docs/configuration.md read it, so a
// setting is declared in one place: a new one gets a row here and a row on that page.
#pragma once

#include <span>
#include <string>
#include <string_view>

enum setting_kind : unsigned char {
    SETTING_TEXT,        // any text; `high` characters at most when that is not 0
    SETTING_ENCIPHERED,  // a secret, as it stands or enciphered; `high` as above
    SETTING_SWITCH,      // 1, Y, YE, YES or 0, N, NO
    SETTING_NUMBER,      // a decimal number from `low` to `high`
    SETTING_SIZE,        // a number with K or M behind it
    SETTING_OCTAL,       // a file mode in octal digits
    SETTING_LEVEL,       // one digit
    SETTING_WORD,        // one of `words`, in any case
    SETTING_EXACT,       // one of `words` as they stand: blanks and case count
    SETTING_PORT,        // a port, or address, ":" and port
    SETTING_ENDPOINT,    // host, ":" and port
    SETTING_LANGUAGES,   // such as (E,D)
};

struct known_setting {
    std::string_view section;
    // "*": every key of the section that has no row; a number from `low` to `high` if `high` is set.
    std::string_view key;
    setting_kind kind;
    std::string_view preset;  // empty: none, or not the same everywhere
    long long low = 0;
    long long high = 0;
    std::string_view words = {};  // "|" between them
    // What is taken for a value that is not wanted; empty: it follows from the kind.
    std::string_view otherwise = {};
    bool protects = false;  // such a value ends the start
    bool later = false;     // of a part that this build does not have
};

std::span<const known_setting> all_settings();

// The row of a key, the section's "*" included; null when it is unknown. No regard to case.
const known_setting* find_setting(std::string_view section, std::string_view key);
bool is_known_section(std::string_view section);
// The name that a person may have meant; empty when none is near.
std::string_view nearest_section(std::string_view section);
// The row with the nearest key: that key in another section, else in the same section, else in all; or null.
const known_setting* nearest_setting(std::string_view section, std::string_view key);

// What is wrong with a value, for an operator: "" when nothing is. `value` as the INI file has it.
std::string setting_value_fault(const known_setting& setting, std::string_view value);
// What the agent takes for such a value.
std::string setting_taken(const known_setting& setting, std::string_view value);
// What would be right, such as "yes or no", "a number from 0 to 65535".
std::string setting_wanted(const known_setting& setting);

// A line of the INI file without what is secret: the values of settings that hold secrets, of names that
// sound like one, and of unknown names that are nearly one.
std::string clean_setting_line(std::string_view section, std::string_view key, std::string_view value);
