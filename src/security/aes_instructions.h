// AES by the processor's instructions, and together with MD5 in one pass. To be called only when
// aes_engine_default() says so.
#pragma once

#include <cstddef>
#include <cstdint>

#include "security/aes.h"

bool aes_instructions_present();

// Fills decrypt_rounds from encrypt_rounds.
void aes_instructions_invert_rounds(aes_key* key);

void aes_instructions_cbc_encrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                                  uint8_t iv[16]);
void aes_instructions_cbc_decrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                                  uint8_t iv[16]);

// Enciphers `groups` times 64 bytes and takes as many bytes from `hashed` into the MD5 state, side by side:
// both are chains of dependent steps that leave most of the processor idle alone. The key has 14 rounds.
// `hashed` may lie in the output when it ends at least 64 bytes before the group that is being written.
void aes_instructions_cbc_encrypt_md5(const aes_key& key, const uint8_t* in, uint8_t* out, size_t groups,
                                      uint8_t iv[16], uint32_t md5_state[4], const uint8_t* hashed);
