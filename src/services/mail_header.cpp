#include "services/mail_header.h"

#include <algorithm>
#include <cstdio>

#include "base/text.h"
#include "base/time.h"

namespace {

constexpr size_t word_max = 75;  // of an encoded word
constexpr size_t line_max = 76;
constexpr size_t address_max = 254;
constexpr char fold_mark[] = "\r\n ";
constexpr char hex_digits[] = "0123456789ABCDEF";

bool is_ascii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 127; });
}

bool is_alnum(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

void append_hex(std::string* out, char mark, char c) {
    const auto byte = static_cast<unsigned char>(c);
    *out += mark;
    *out += hex_digits[byte >> 4];
    *out += hex_digits[byte & 15];
}

// The bytes that stay together: one, or a character of utf-8.
size_t unit_length(std::string_view text, size_t at, bool utf8) {
    size_t length = 1;
    while (utf8 && length < 4 && at + length < text.size() &&
           (static_cast<unsigned char>(text[at + length]) & 0xC0) == 0x80) {
        ++length;
    }
    return length;
}

std::string q_unit(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        if (is_alnum(c)) {
            out += c;
        } else if (c == ' ') {
            out += '_';
        } else {
            append_hex(&out, '=', c);
        }
    }
    return out;
}

std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + '"';
}

// Breaks at blanks where a line would grow too long; a word longer than that stays whole.
std::string fold(std::string_view text, size_t used) {
    std::string out;
    size_t column = used;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find(' ', at + 1);
        end = end == std::string_view::npos ? text.size() : end;
        const std::string_view word = text.substr(at, end - at);  // with the blank in front of it
        // A line of blanks alone would end the header for some readers.
        if (at > 0 && column + word.size() > line_max && word.size() > 1) {
            out += "\r\n";
            column = 0;
        }
        out += word;
        column += word.size();
        at = end;
    }
    return out;
}

// A word without a break that is longer than a line may be at all.
bool has_long_word(std::string_view text) {
    size_t run = 0;
    for (const char c : text) {
        run = c == ' ' ? 0 : run + 1;
        if (run > 900) {
            return true;
        }
    }
    return false;
}

std::string display_name(std::string_view mailbox) {
    const size_t open = mailbox.rfind('<');
    std::string name(strip(open == std::string_view::npos ? std::string_view() : mailbox.substr(0, open)));
    if (name.size() >= 2 && name.front() == '"' && name.back() == '"') {
        name = name.substr(1, name.size() - 2);
    }
    return mail_clean(name);
}

}  // namespace

std::string mail_clean(std::string_view text) {
    std::string out(text);
    std::replace_if(
        out.begin(), out.end(), [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; }, ' ');
    return out;
}

std::string mail_address(std::string_view mailbox) {
    std::string_view text = mailbox;
    if (const size_t open = mailbox.rfind('<'); open != std::string_view::npos) {
        if (mailbox.back() != '>') {
            return "";
        }
        text = mailbox.substr(open + 1, mailbox.size() - open - 2);
    }
    const bool good =
        !text.empty() && text.size() <= address_max && text.front() != '@' &&
        std::all_of(text.begin(), text.end(), [](char c) {
            return c > 32 && c < 127 && std::string_view("<>,;()\"\\").find(c) == std::string_view::npos;
        });
    // A colon makes a group of what precedes it, but for an address literal of IPv6.
    const size_t colon = text.find(':');
    const bool group =
        colon != std::string_view::npos && text.substr(0, colon).find('[') == std::string_view::npos;
    return good && !group ? std::string(text) : "";
}

std::string makeEncodedWord_Q(std::string_view text, std::string_view charset) {
    const std::string head = "=?" + std::string(charset) + "?Q?";
    const bool utf8 = equal_ignore_case(charset, "utf-8");
    std::string out = head;
    size_t column = head.size();
    for (size_t at = 0; at < text.size();) {
        const size_t length = unit_length(text, at, utf8);
        const std::string unit = q_unit(text.substr(at, length));
        if (column + unit.size() + 2 > word_max) {
            out += "?=" + std::string(fold_mark) + head;
            column = head.size();
        }
        out += unit;
        column += unit.size();
        at += length;
    }
    return out + "?=";
}

std::string getAddressField(std::string_view mailbox, std::string_view charset) {
    const std::string address = mail_address(mailbox);
    const std::string name = display_name(mailbox);
    if (name.empty()) {
        return address;
    }
    const bool plain = is_ascii(name) && name.find("=?") == std::string::npos && name.size() <= line_max;
    return (plain ? quoted(name) : makeEncodedWord_Q(name, charset)) + fold_mark + "<" + address + ">";
}

std::string mail_address_line(std::string_view field, const std::vector<std::string>& mailboxes,
                              std::string_view charset) {
    std::string line(field);
    size_t column = line.size();
    for (size_t at = 0; at < mailboxes.size(); ++at) {
        const std::string mailbox = getAddressField(mailboxes[at], charset);
        if (at > 0) {
            line += column + mailbox.size() > line_max ? ",\r\n " : ", ";
            column = column + mailbox.size() > line_max ? 1 : column + 2;
        }
        line += mailbox;
        column += mailbox.size();
    }
    return line + "\r\n";
}

std::string getSubjectField(std::string_view subject, std::string_view charset) {
    const std::string clean = mail_clean(subject);
    // What looks like an encoded word would be decoded by the reader.
    if (!is_ascii(clean) || clean.find("=?") != std::string::npos || has_long_word(clean)) {
        return makeEncodedWord_Q(clean, charset);
    }
    return fold(clean, sizeof "Subject: " - 1);
}

// Written without strftime, whose names follow the locale.
std::string getDateField(time_t now) {
    static constexpr const char* days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm local{};
    qx_localtime(now, &local);
    const long minutes = local.tm_gmtoff / 60;
    const long distance = minutes < 0 ? -minutes : minutes;
    char text[96];
    snprintf(text, sizeof text, "%s, %d %s %d %02d:%02d:%02d %c%02ld%02ld", days[local.tm_wday],
             local.tm_mday, months[local.tm_mon], local.tm_year + 1900, local.tm_hour, local.tm_min,
             local.tm_sec, minutes < 0 ? '-' : '+', distance / 60, distance % 60);
    return text;
}

std::string encodeRfc2184(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (is_alnum(c) || c == '.' || c == '-' || c == '_') {
            out += c;
        } else {
            append_hex(&out, '%', c);
        }
    }
    return out;
}

std::string addParameter_old(std::string_view name, std::string_view value, std::string_view charset) {
    const std::string clean = mail_clean(value);
    const bool plain = is_ascii(clean) && clean.find("=?") == std::string::npos && clean.size() < 200;
    std::string out = ";\r\n ";
    out += name;
    out += '=';
    return out + (plain ? quoted(clean) : '"' + makeEncodedWord_Q(clean, charset) + '"');
}

std::string addParameter(std::string_view name, std::string_view value, std::string_view charset) {
    constexpr size_t piece_max = 60;  // with name, number and separators below 76
    const std::string clean = mail_clean(value);
    if (is_ascii(clean) && clean.size() < 60) {
        return "\r\n " + std::string(name) + "=" + quoted(clean);
    }
    std::string rest = std::string(charset) + "''" + encodeRfc2184(clean);
    if (rest.size() <= piece_max) {
        return "\r\n " + std::string(name) + "*=" + rest;
    }
    std::string out;
    for (int number = 0; !rest.empty(); ++number) {
        size_t length = std::min(rest.size(), piece_max - 10);
        // A byte's three characters stay together.
        if (const size_t mark = rest.find('%', length < 2 ? 0 : length - 2);
            length < rest.size() && mark < length) {
            length = mark;
        }
        out += (number == 0 ? "\r\n " : ";\r\n ") + std::string(name) + "*" + std::to_string(number) +
               "*=" + rest.substr(0, length);
        rest.erase(0, length);
    }
    return out;
}
