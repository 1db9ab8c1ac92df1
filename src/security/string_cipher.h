// Enciphered texts in settings and messages, the memory scrambler, and the password form of messages.
// The text functions use one current key, module-wide: they run on one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Room that the enciphered form of a text of `length` bytes needs, its NUL included.
constexpr size_t EnMaxim_size(size_t length) {
    return 4 + (length / 8 + 1) * 16 + 1;
}
// Room that the binary form of `length` bytes needs.
constexpr size_t EnMaximBin_size(size_t length) {
    return (length + 7) / 8 * 8 + 1;
}

// Sets the current key; null or "" is the built-in one.
void initkey(const char* key);
// Wipes the current key. Repeatable.
void clearkey();

// Text form: AD AD, "10", hexadecimal blocks, NUL. `outSize` is the room; 0, or -1 when it is too small
// (`out` is then an empty text). Without a current key the built-in one is set.
int ZUSTRNG_EnMaxim(char* out, size_t outSize, const char* in);
// With a key of its own; the current key is cleared afterwards.
int ZUSTRNG_EnMaxim2(char* out, size_t outSize, const char* in, const char* key);

// The reverse. 0: deciphered. 1: the input isn't of the form, it is copied as it is. -1: `out` is too small,
// or the deciphered bytes hold no end of text. `out` may be `in`.
int ZUSTRNG_DeMaxim(char* out, size_t outSize, const char* in);
int ZUSTRNG_DeMaxim2(char* out, size_t outSize, const char* in, const char* key);

// Binary form: blocks, and behind a filled last block one byte with the count of its valid bytes.
// The result is the output's length, -1 when `outSize` is too small. `out` may be `in`.
int ZUSTRNG_EnMaximBin(uint8_t* out, size_t outSize, const uint8_t* in, size_t length);
int ZUSTRNG_EnMaximBin2(uint8_t* out, size_t outSize, const uint8_t* in, size_t length, const char* key);
int ZUSTRNG_DeMaximBin(uint8_t* out, size_t outSize, const uint8_t* in, size_t length);
int ZUSTRNG_DeMaximBin2(uint8_t* out, size_t outSize, const uint8_t* in, size_t length, const char* key);

// Scrambles in place; the same key restores. Returns the key with which a stream goes on.
uint32_t memchiffre(uint32_t key, void* data, size_t length);
// The shift register's step.
constexpr uint32_t getnewkey(uint32_t key) {
    return (key >> 1) | (((key ^ (key >> 3)) & 1) << 31);
}

// Deciphers a password that travelled under the number `id` (the run number). `output` is always returned:
// its first 4 bytes are zero when `outputSize` is below `inputLength` or the length is no multiple of 16.
// `output` should hold one byte more than `inputLength`, zeroed by the caller: what is deciphered ends at its
// zero padding, or fills it. The caller wipes it.
char* PwdDeChiffreTh(int id, const uint8_t* input, size_t inputLength, char* output, size_t outputSize);

// The whole field of a message: 10 digits with the length, then the enciphered bytes; "0000000000" for no
// password.
std::string build_password_field(int id, std::string_view password);
