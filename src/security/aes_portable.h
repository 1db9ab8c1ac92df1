// The portable AES: sixteen bytes of up to four blocks side by side as eight planes of bits. The S-box is
// computed, not looked up, so neither time nor cache tells anything of key or data.
#pragma once

#include <cstddef>
#include <cstdint>

#include "security/aes.h"

// Replaces each of the four bytes by its S-box value; the key schedule's part.
uint32_t aes_portable_sub_word(uint32_t word);

// Turns round keys as bytes into the form in which this engine keeps them: eight 16-bit planes a round, in
// place.
void aes_portable_pack_rounds(uint8_t* rounds, int count);

void aes_portable_cbc_encrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                              uint8_t iv[16]);
void aes_portable_cbc_decrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks,
                              uint8_t iv[16]);
