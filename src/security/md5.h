// MD5, whole and in pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t md5_size = 16;

struct md5_context {
    uint32_t state[4];
    uint64_t length;  // bytes taken so far
    uint8_t pending[64];
};

void md5_init(md5_context* context);
void md5_update(md5_context* context, const void* data, size_t length);
// Writes the digest and wipes the context.
void md5_final(md5_context* context, uint8_t digest[md5_size]);

// Takes `count` whole blocks of 64 bytes into `state`.
void md5_blocks(uint32_t state[4], const uint8_t* data, size_t count);

// The digest of one piece of data.
void MD5Generate(const void* data, size_t length, uint8_t digest[md5_size]);

// The digest of a file's content. 0, or -1 with errno set.
int MD5FileHash(const char* file, uint8_t digest[md5_size]);
