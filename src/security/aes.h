// AES with 128, 192 or 256 bit keys, alone and in CBC mode, and the handle form that tokens use.
// The processor's own instructions serve where it has them; the portable form gives the same bytes and
// takes no table lookup or branch that depends on a secret.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t aes_block_size = 16;

enum class aes_engine : uint8_t {
    portable,
    instructions,
};

// The engine that new keys use: the instructions where the processor has them.
aes_engine aes_engine_default();

// Both round key schedules of one key. Wiped at its end. May be used by several threads at once.
struct aes_key {
    alignas(16) uint8_t encrypt_rounds[15 * aes_block_size];
    alignas(16) uint8_t decrypt_rounds[15 * aes_block_size];
    int rounds;  // 10, 12 or 14; 0: no key set
    aes_engine engine;

    aes_key();
    ~aes_key();
    aes_key(const aes_key&) = delete;
    aes_key& operator=(const aes_key&) = delete;
};

// Sets the key schedules. `key` has 16, 24 or 32 bytes, anything else is -1. An engine that the processor
// doesn't have becomes the portable one.
int aes_set_key(aes_key* out, std::span<const uint8_t> key, aes_engine engine = aes_engine_default());

// Wipes the schedules; the record may be set again.
void aes_clear(aes_key* key);

// CBC over `blocks` blocks of 16 bytes. `out` is `in` or doesn't overlap it. `iv` is updated, so that a
// stream can go on in pieces.
void aes_cbc_encrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks, uint8_t iv[16]);
void aes_cbc_decrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks, uint8_t iv[16]);

// CBC in place with a zero vector. `length` is a multiple of 16, the key has 16, 24 or 32 bytes.
// 0, or -1 for a wrong length of either; the data is then untouched.
int gss_AESEncrypt(const uint8_t* key, size_t keyLength, uint8_t* data, size_t length);
int gss_AESDecrypt(const uint8_t* key, size_t keyLength, uint8_t* data, size_t length);

// Results of the handle form below.
enum enc_result : int {
    ENC_OK = 0,
    ENC_BAD_ALGORITHM = 32769,
    ENC_BAD_MODE = 32770,
    ENC_NO_MEMORY = 32771,
};

// Algorithm codes of InitializeEnc.
enum enc_algorithm : int {
    ENC_NULL = 0,
    ENC_AES = 6,
};

struct enc_handle;

// A cipher by its code: ENC_AES is CBC with the key length given, ENC_NULL copies. `mode` is 0.
// ENC_BAD_ALGORITHM for another code or key length, ENC_BAD_MODE for another mode, ENC_NO_MEMORY.
// The handle belongs to the caller, who gives it to EncFree.
int InitializeEnc(enc_handle** handle, const uint8_t* key, size_t keyLength, int algorithm, int mode);

// In place. `length` is a multiple of 16, `ivLength` at least 16 (the first 16 bytes count; they stay as they
// are). 0, or ENC_BAD_MODE for a wrong length.
int CMNEncrypt(enc_handle* handle, uint8_t* data, size_t length, const uint8_t* iv, size_t ivLength);
int CMNDecrypt(enc_handle* handle, uint8_t* data, size_t length, const uint8_t* iv, size_t ivLength);

// Wipes and frees; null is allowed.
void EncFree(enc_handle* handle);
