// Text: fixed-width blank-padded fields, bounded copies, wildcards, case, small helpers.
#pragma once

#include <sys/select.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// ---- Fixed-width fields

// Copies text into a field of `width` bytes, cut, and fills the rest with blanks. No NUL.
void put_text(char* field, size_t width, std::string_view text);
template <size_t N>
void put_text(char (&field)[N], std::string_view text) {
    put_text(field, N, text);
}
// What a field holds: up to its first NUL, without trailing blanks. A view into the field.
std::string_view get_text(const char* field, size_t width);
template <size_t N>
std::string_view get_text(const char (&field)[N]) {
    return get_text(field, N);
}

// Texts that a NUL or the end of the field ends: their blanks count. A view into the field.
template <size_t N>
std::string_view field_text(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// Copies into a NUL-terminated buffer, at most size - 1 bytes. Result: bytes copied; less than text.size()
// when cut.
size_t copy_text(char* out, size_t size, std::string_view text);
template <size_t N>
size_t copy_text(char (&out)[N], std::string_view text) {
    return copy_text(out, N, text);
}

// From the first NUL to the end of the field: blanks.
void fix_len_reorg(char* text, size_t size);
// The other way: trailing blanks of the field become NULs.
void fix_len_reorg2(char* text, size_t size);
// Trailing blanks and NULs of a field become NULs; the length that is left.
size_t EatTrailing(char* text, size_t size);
// Cuts trailing blanks of a string; the length that is left.
size_t EatTrailingStr(char* text);
// Cuts leading and trailing blanks of a string in place; the length that is left.
size_t EatString(char* text);

// At most size - 1 characters, cut without notice, always terminated; a null source is an empty text.
// `file` and `line` name the caller and change nothing.
char* _StringCopy(char* dst, size_t size, const char* src, const char* file, int line);
char* _StringCat(char* dst, size_t size, const char* src, const char* file, int line);

// ---- Case and blanks

// ASCII only, whatever the locale.
char ToUpperCase(char c);
char ToLowerCase(char c);
char* ToUpperStr(char* text);
char* ToLowerStr(char* text);
char* strupr(char* text);
char* strupper(char* text);
std::string upper(std::string_view text);
std::string lower(std::string_view text);
bool equal_ignore_case(std::string_view a, std::string_view b);

// Blanks and tabs, CR and LF; views into the argument.
std::string_view rstrip(std::string_view text);
std::string_view lstrip(std::string_view text);
std::string_view strip(std::string_view text);
void str_replace_char(char* text, char from, char to);
// Word `number` (from 1) of a text separated by `delimiter`; empty when there is none. A view into the
// argument.
std::string_view get_word_delimited(std::string_view text, char delimiter, int number);
std::vector<std::string_view> split_words(std::string_view text, char delimiter);
// The descriptors of a set below `limit`, as "3,5,9"; the set has room for `limit` bits, also above
// FD_SETSIZE.
std::string fdset2string(const fd_set* set, int limit);

// Value of `key` ("M=", "N=", "2=", "Y=") in a run of items: key up to '=', delimiter, value, delimiter. The
// items are walked from the start; what does not parse ends the walk. Empty when there is none. At most
// `limit` characters.
std::string GetRestString(std::string_view rest, std::string_view key, size_t limit);

// ---- Wildcards and numbers

inline constexpr char match_more = 42;  // '*'
inline constexpr char match_one = 63;   // '?'

// 1 when the whole of str matches the mask, else 0. Case counts.
int MyStrMatch(std::string_view str, std::string_view mask, char more = match_more, char one = match_one);
// The same search; where the match begins in str, or null.
const char* strMatchPtr(const char* str, const char* mask, char more = match_more, char one = match_one);

// Exactly 7 letters, most significant first, and a NUL.
void Zudnst_LongToB26(uint32_t value, char out[8]);
// Over at most 7 letters; stops at the first other character. Modulo 2^32.
uint32_t Zudnst_B26ToLong(const char* text);

// Numbers by byte width (1, 2, 4 or 8 bytes), sign extended; CNV_X without sign. 0 for another width.
int64_t CNV_Int(const void* num, size_t size);
int32_t CNV_Int4(const void* num);
int16_t CNV_Int2(const void* num);
uint64_t CNV_X(const void* num, size_t size);

// Whole text as a decimal number in [low, high]; false for anything else, also for an empty text.
bool parse_number(std::string_view text, int64_t low, int64_t high, int64_t* out);

// From the byte order of messages (little-endian) to the host's and back; the same function serves both ways.
uint16_t iCnvU16(uint16_t value);
int16_t iCnvI16(int16_t value);
uint32_t iCnvU32(uint32_t value);
int32_t iCnvI32(int32_t value);
uint64_t iCnvU64(uint64_t value);
int64_t iCnvI64(int64_t value);
bool iIsIntel();
bool iIsEbcdic();

// Replaces %NAME% by the environment; an unknown name vanishes, an unclosed "%" takes the rest as the name.
// The input is cut at 2047 bytes. Result: the length written, at most size - 1.
int ExpandEnvironmentStringsA(const char* in, char* out, size_t size);

// Bytes below 32 and 127 become '.'; for texts of partners that go into the log.
std::string printable(std::string_view text);
