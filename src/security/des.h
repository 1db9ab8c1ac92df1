// DES on single blocks, as the string cipher uses it. Not to be used for anything new.
#pragma once

#include <cstdint>

// The sixteen round keys. Wiped at its end.
struct des_key {
    uint64_t rounds[16];

    des_key();
    ~des_key();
    des_key(const des_key&) = delete;
    des_key& operator=(const des_key&) = delete;
};

// Sets the round keys from 8 bytes; the parity bits are ignored.
void desinit(des_key* out, const uint8_t key[8]);

// One block of 8 bytes in place.
void endes(const des_key& key, uint8_t block[8]);
void dedes(const des_key& key, uint8_t block[8]);
