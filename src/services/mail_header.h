// Header lines of a mail: addresses, subject, date and parameters in the forms of RFC 5322, 2047 and 2231.
// Pure text, any thread. Whatever a value holds, the line has no more fields and no more addresses for it.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

inline constexpr char mail_charset_default[] = "iso-8859-1";

// The address of `mailbox`, which is "address" or "name <address>"; empty when it isn't one: with blanks,
// control or non-ASCII characters, brackets, quotes or list separators in it.
std::string mail_address(std::string_view mailbox);

// "name <address>" or the bare address, fit for a header; `mailbox` has an address.
std::string getAddressField(std::string_view mailbox, std::string_view charset);
// A whole line "To: ...", folded, CR LF at its end.
std::string mail_address_line(std::string_view field, const std::vector<std::string>& mailboxes,
                              std::string_view charset);
// The value of "Subject: ", folded.
std::string getSubjectField(std::string_view subject, std::string_view charset);
// "Tue, 24 Nov 2026 22:15:00 +0100"
std::string getDateField(time_t now);

// `text` as one or more encoded words of at most 75 characters, separated by a fold. With charset utf-8 no
// character is torn.
std::string makeEncodedWord_Q(std::string_view text, std::string_view charset);
// Control characters become blanks.
std::string mail_clean(std::string_view text);

// "; name=value" behind a content type, the value quoted, or as encoded words where it isn't ASCII.
std::string addParameter_old(std::string_view name, std::string_view value, std::string_view charset);
// The same, in the extended form (with continuations) for what isn't ASCII or is long.
std::string addParameter(std::string_view name, std::string_view value, std::string_view charset);
std::string encodeRfc2184(std::string_view text);
