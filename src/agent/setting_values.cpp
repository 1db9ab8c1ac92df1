// Looking settings up in their table, and judging a value by its row.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <vector>

#include "agent/setting_table.h"
#include "agent/settings.h"
#include "base/text.h"
#include "services/agent_shell.h"

namespace {

constexpr std::string_view every_key = "*";
constexpr std::string_view switch_words[] = {"1", "Y", "YE", "YES", "0", "N", "NO"};
constexpr int longest_mode = 07777;

// ---- names

// Steps from one name to the other: letters put in, taken away, changed, or two exchanged.
size_t distance_of(std::string_view one, std::string_view two) {
    std::vector<std::vector<size_t>> steps(one.size() + 1, std::vector<size_t>(two.size() + 1));
    for (size_t i = 0; i <= one.size(); ++i) {
        for (size_t j = 0; j <= two.size(); ++j) {
            if (i == 0 || j == 0) {
                steps[i][j] = i + j;
                continue;
            }
            const size_t changed = steps[i - 1][j - 1] + (one[i - 1] == two[j - 1] ? 0 : 1);
            steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, changed});
            if (i > 1 && j > 1 && one[i - 1] == two[j - 2] && one[i - 2] == two[j - 1]) {
                steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
            }
        }
    }
    return steps[one.size()][two.size()];
}

// At most a third of the letters, or one of a short name: what is farther off was not meant.
bool is_near(size_t distance, std::string_view name) {
    return distance <= std::max<size_t>(1, name.size() / 3);
}

const known_setting* nearest_in(std::string_view section, std::string_view key) {
    const known_setting* best = nullptr;
    size_t least = SIZE_MAX;
    for (const known_setting& row : all_settings()) {
        if (row.key == every_key || (!section.empty() && !equal_ignore_case(row.section, section))) {
            continue;
        }
        const size_t distance = distance_of(lower(row.key), lower(key));
        if (distance < least && is_near(distance, row.key)) {
            best = &row;
            least = distance;
        }
    }
    return best;
}

// ---- values

bool is_one_of(std::string_view words, std::string_view value, bool exact) {
    for (const std::string_view word : split_words(words, '|')) {
        if (exact ? word == value : equal_ignore_case(word, value)) {
            return true;
        }
    }
    return false;
}

bool is_number(std::string_view value, const known_setting& setting) {
    int64_t number = 0;
    return parse_number(strip(value), setting.low, setting.high, &number);
}

bool is_size(std::string_view value) {
    value = strip(value);
    if (!value.empty() &&
        (value.back() == 'K' || value.back() == 'k' || value.back() == 'M' || value.back() == 'm')) {
        value.remove_suffix(1);
    }
    int64_t number = 0;
    return parse_number(value, 0, INT_MAX, &number);
}

bool is_mode(std::string_view value) {
    value = strip(value);
    const bool digits =
        !value.empty() && value.size() <= 5 && value.find_first_not_of("01234567") == std::string_view::npos;
    const long mode = digits ? strtol(std::string(value).c_str(), nullptr, 8) : 0;
    return mode > 0 && mode <= longest_mode;
}

bool is_port(std::string_view text, int64_t low) {
    int64_t port = 0;
    return parse_number(strip(text), low, 65535, &port);
}

bool is_endpoint(std::string_view value) {
    const size_t colon = value.rfind(':');
    return colon != std::string_view::npos && colon > 0 && is_port(value.substr(colon + 1), 1);
}

bool is_languages(std::string_view value) {
    return std::count(value.begin(), value.end(), ',') <= 1 &&
           std::all_of(value.begin(), value.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ' ' || c == ',' || c == '(' ||
                      c == ')';
           });
}

bool is_wanted(const known_setting& setting, std::string_view value) {
    switch (setting.kind) {
        case SETTING_SWITCH:
            return std::any_of(std::begin(switch_words), std::end(switch_words),
                               [&](std::string_view word) { return equal_ignore_case(word, value); });
        case SETTING_NUMBER:
            return is_number(value, setting);
        case SETTING_SIZE:
            return is_size(value);
        case SETTING_OCTAL:
            return is_mode(value);
        case SETTING_LEVEL:
            return value.size() == 1 && value[0] >= '0' && value[0] <= '9';
        case SETTING_WORD:
            return is_one_of(setting.words, strip(value), false);
        case SETTING_EXACT:
            return is_one_of(setting.words, value, true);
        case SETTING_PORT:
            return is_port(value, 0) || is_endpoint(value);
        case SETTING_ENDPOINT:
            return is_endpoint(value);
        case SETTING_LANGUAGES:
            return is_languages(value);
        case SETTING_TEXT:
        case SETTING_ENCIPHERED:
            break;
    }
    return true;
}

// As the readers do: the digits at the front, nothing of what stands behind them.
std::string taken_number(const known_setting& setting, std::string_view value) {
    char* end = nullptr;
    const std::string text(value);
    const long long number = strtoll(text.c_str(), &end, 10);
    const bool digits = end != text.c_str();
    if (digits && number >= setting.low && number <= setting.high) {
        return std::to_string(number);
    }
    if (!setting.otherwise.empty()) {
        return std::string(setting.otherwise);
    }
    return std::to_string(std::clamp(number, setting.low, setting.high));
}

std::string taken_size(const known_setting& setting, const std::string& value) {
    if (setting.key == "FtpSendMessageSize") {
        return std::to_string(settings_ft_message_size(value.c_str()));
    }
    return std::to_string(setting.key == "ft_compress_strong" ? settings_compress_size(value.c_str())
                                                              : settings_size_value(value.c_str()));
}

std::string taken_port(const std::string& value) {
    char address[256];
    const int port = settings_listener_port(value.c_str(), address, sizeof address);
    return port == 0 ? "a port that the system chooses" : "port " + std::to_string(port);
}

// 0 and what is no mode at all gives the default; other letters end the number.
std::string taken_mode(const known_setting& setting, const std::string& value) {
    const unsigned long mode = strtoul(value.c_str(), nullptr, 8);
    char text[16];
    snprintf(text, sizeof text, "%lo", mode);
    return mode == 0 || mode > longest_mode ? std::string(setting.preset) : text;
}

}  // namespace

const known_setting* find_setting(std::string_view section, std::string_view key) {
    const known_setting* any = nullptr;
    for (const known_setting& row : all_settings()) {
        if (!equal_ignore_case(row.section, section)) {
            continue;
        }
        if (equal_ignore_case(row.key, key)) {
            return &row;
        }
        any = row.key == every_key ? &row : any;
    }
    return any;
}

bool is_known_section(std::string_view section) {
    const auto rows = all_settings();
    return std::any_of(rows.begin(), rows.end(),
                       [&](const known_setting& row) { return equal_ignore_case(row.section, section); });
}

std::string_view nearest_section(std::string_view section) {
    std::string_view best;
    size_t least = SIZE_MAX;
    for (const known_setting& row : all_settings()) {
        const size_t distance = distance_of(lower(row.section), lower(section));
        if (distance < least && is_near(distance, row.section)) {
            best = row.section;
            least = distance;
        }
    }
    return best;
}

const known_setting* nearest_setting(std::string_view section, std::string_view key) {
    for (const known_setting& row : all_settings()) {
        if (row.key != every_key && equal_ignore_case(row.key, key)) {
            return &row;
        }
    }
    const known_setting* near = nearest_in(section, key);
    return near == nullptr ? nearest_in("", key) : near;
}

std::string setting_value_fault(const known_setting& setting, std::string_view value) {
    if (setting.later || value.empty()) {
        return "";
    }
    if (is_wanted(setting, value)) {
        const bool bounded = setting.kind == SETTING_TEXT && setting.high != 0 && setting.key != every_key;
        return bounded && value.size() > static_cast<size_t>(setting.high) ? "is too long" : "";
    }
    const bool blanks = rstrip(value).size() != value.size() && is_wanted(setting, rstrip(value));
    return blanks ? "has blanks at its end, which count" : "is not " + setting_wanted(setting);
}

std::string setting_taken(const known_setting& setting, std::string_view value) {
    const std::string text(value);
    switch (setting.kind) {
        case SETTING_SWITCH:
            return "no";
        case SETTING_NUMBER:
            return taken_number(setting, value);
        case SETTING_SIZE:
            return taken_size(setting, text);
        case SETTING_OCTAL:
            return taken_mode(setting, text);
        case SETTING_LEVEL:
            return value[0] >= '0' && value[0] <= '9' ? text.substr(0, 1)
                   : setting.otherwise.empty()        ? "0"
                                                      : std::string(setting.otherwise);
        case SETTING_PORT:
            return taken_port(text);
        case SETTING_ENDPOINT:
            return "no server process";
        case SETTING_LANGUAGES:
            return "its first letters";
        case SETTING_TEXT:
            return setting.otherwise.empty() ? "its first " + std::to_string(setting.high) + " characters"
                                             : std::string(setting.otherwise);
        default:
            return std::string(setting.otherwise);
    }
}

std::string setting_wanted(const known_setting& setting) {
    switch (setting.kind) {
        case SETTING_SWITCH:
            return "yes or no";
        case SETTING_NUMBER: {
            const std::string low = std::to_string(setting.low);
            return setting.high == INT_MAX ? "a number from " + low + " on"
                                           : "a number from " + low + " to " + std::to_string(setting.high);
        }
        case SETTING_SIZE:
            return "a number, with K or M behind it if you like";
        case SETTING_OCTAL:
            return "a file mode in octal digits such as " + std::string(setting.preset);
        case SETTING_LEVEL:
            return "one digit";
        case SETTING_WORD:
        case SETTING_EXACT: {
            std::string words(setting.words);
            for (size_t bar = words.find('|'); bar != std::string::npos; bar = words.find('|', bar)) {
                words.replace(bar, 1, words.find('|', bar + 1) == std::string::npos ? " or " : ", ");
            }
            return words;
        }
        case SETTING_PORT:
            return "a port from 0 to 65535, or address:port";
        case SETTING_ENDPOINT:
            return "host:port with a port from 1 to 65535";
        case SETTING_LANGUAGES:
            return "two language letters such as (E,D)";
        default:
            return "a text of at most " + std::to_string(setting.high) + " characters";
    }
}

std::string clean_setting_line(std::string_view section, std::string_view key, std::string_view value) {
    const std::string name = std::string(key) + "=";
    const known_setting* row = find_setting(section, key);
    if (row != nullptr && row->key != every_key && row->kind != SETTING_ENCIPHERED) {
        return name + as_clean_line(value);  // KeyStore is no key, and authentication no secret
    }
    const known_setting* near = row == nullptr ? nearest_setting(section, key) : row;
    const bool secret = near != nullptr && near->kind == SETTING_ENCIPHERED;
    return secret ? name + "***" : as_clean_line(name + std::string(value));
}
