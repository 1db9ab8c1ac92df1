// Control byte stream: the text form of items that go between two agents inside a compressed stream.
//
// A stream begins with its whole length in 5 digits and ":"; each item is "%.5d-", the key, "='", the value
// and
// "';", where the number is the item's length. Values may hold any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr size_t cbs_head = 6;
inline constexpr size_t cbs_most = 99999;  // what the length field can tell

// A stream in the making, or one to be read. Bytes behind the told length do not count.
using ControlStream = std::string;

// Each puts one item. 0, or -1 when the stream would pass cbs_most or the key cannot stand in an item (it is
// empty or holds "="); the stream is then unchanged.
int cbsPutString(ControlStream* cbs, std::string_view key, std::string_view value);
int cbsPutnString(ControlStream* cbs, std::string_view key, const char* bytes, size_t count);
int cbsPutInt(ControlStream* cbs, std::string_view key, int value);
int cbsPutInt64(ControlStream* cbs, std::string_view key, int64_t value);
// Each byte as two upper-case hex digits.
int cbsPutByteStream(ControlStream* cbs, std::string_view key, const void* bytes, size_t count);

// Each finds the first item of a key. 0, or -1 when there is none (the output is left alone).
int cbsGetAddrLen(std::string_view cbs, std::string_view key, const char** address, size_t* length);
int cbsGetString(std::string_view cbs, std::string_view key, std::string* value);
int cbsGetInt(std::string_view cbs, std::string_view key, int* value);
int cbsGetInt64(std::string_view cbs, std::string_view key, int64_t* value);
// At most `*length` bytes; `*length` becomes their number. -1 also when there are more, or other than hex
// digits.
int cbsGetByteStream(std::string_view cbs, std::string_view key, void* bytes, size_t* length);

// Length that the stream tells; 0 for one into which nothing was put or whose length passes the bytes there
// are.
size_t getCbsLen(std::string_view cbs);
