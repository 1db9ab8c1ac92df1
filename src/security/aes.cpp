#include "security/aes.h"

#include <string.h>

#include <bit>
#include <new>

#include "base/memory.h"
#include "security/aes_instructions.h"
#include "security/aes_portable.h"

namespace {

void expand_key(aes_key* out, std::span<const uint8_t> key) {
    size_t key_words = key.size() / 4, words = 4 * (static_cast<size_t>(out->rounds) + 1);
    uint32_t w[60];
    memcpy(w, key.data(), key.size());
    uint32_t round_constant = 1;
    for (size_t i = key_words; i < words; ++i) {
        uint32_t x = w[i - 1];
        if (i % key_words == 0) {
            x = aes_portable_sub_word(std::rotr(x, 8)) ^ round_constant;
            round_constant = (round_constant << 1) ^ (round_constant & 0x80 ? 0x11B : 0);
        } else if (key_words == 8 && i % 8 == 4) {
            x = aes_portable_sub_word(x);
        }
        w[i] = w[i - key_words] ^ x;
    }
    memcpy(out->encrypt_rounds, w, words * 4);
    qx_wipe(w, sizeof w);
}

}  // namespace

aes_engine aes_engine_default() {
    static const aes_engine engine =
        aes_instructions_present() ? aes_engine::instructions : aes_engine::portable;
    return engine;
}

aes_key::aes_key() : rounds(0), engine(aes_engine::portable) {}

aes_key::~aes_key() {
    aes_clear(this);
}

void aes_clear(aes_key* key) {
    qx_wipe(key->encrypt_rounds, sizeof key->encrypt_rounds);
    qx_wipe(key->decrypt_rounds, sizeof key->decrypt_rounds);
    key->rounds = 0;
}

int aes_set_key(aes_key* out, std::span<const uint8_t> key, aes_engine engine) {
    if (key.size() != 16 && key.size() != 24 && key.size() != 32) {
        return -1;
    }
    out->rounds = static_cast<int>(key.size() / 4) + 6;
    out->engine = engine == aes_engine::instructions ? aes_engine_default() : engine;
    expand_key(out, key);
    if (out->engine == aes_engine::instructions) {
        aes_instructions_invert_rounds(out);
    } else {
        aes_portable_pack_rounds(out->encrypt_rounds, out->rounds + 1);
    }
    return 0;
}

void aes_cbc_encrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks, uint8_t iv[16]) {
    if (key.engine == aes_engine::instructions) {
        aes_instructions_cbc_encrypt(key, in, out, blocks, iv);
    } else {
        aes_portable_cbc_encrypt(key, in, out, blocks, iv);
    }
}

void aes_cbc_decrypt(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks, uint8_t iv[16]) {
    if (key.engine == aes_engine::instructions) {
        aes_instructions_cbc_decrypt(key, in, out, blocks, iv);
    } else {
        aes_portable_cbc_decrypt(key, in, out, blocks, iv);
    }
}

int gss_AESEncrypt(const uint8_t* key, size_t keyLength, uint8_t* data, size_t length) {
    aes_key schedule;
    uint8_t iv[aes_block_size] = {};
    if (length % aes_block_size != 0 || aes_set_key(&schedule, {key, keyLength}) != 0) {
        return -1;
    }
    aes_cbc_encrypt(schedule, data, data, length / aes_block_size, iv);
    return 0;
}

int gss_AESDecrypt(const uint8_t* key, size_t keyLength, uint8_t* data, size_t length) {
    aes_key schedule;
    uint8_t iv[aes_block_size] = {};
    if (length % aes_block_size != 0 || aes_set_key(&schedule, {key, keyLength}) != 0) {
        return -1;
    }
    aes_cbc_decrypt(schedule, data, data, length / aes_block_size, iv);
    return 0;
}

struct enc_handle {
    int algorithm = ENC_NULL;
    aes_key key;
};

int InitializeEnc(enc_handle** handle, const uint8_t* key, size_t keyLength, int algorithm, int mode) {
    *handle = nullptr;
    if (algorithm != ENC_NULL && algorithm != ENC_AES) {
        return ENC_BAD_ALGORITHM;
    }
    if (mode != 0) {
        return ENC_BAD_MODE;
    }
    auto* made = new (std::nothrow) enc_handle;
    if (made == nullptr) {
        return ENC_NO_MEMORY;
    }
    made->algorithm = algorithm;
    if (algorithm == ENC_AES && aes_set_key(&made->key, {key, keyLength}) != 0) {
        delete made;
        return ENC_BAD_ALGORITHM;
    }
    *handle = made;
    return ENC_OK;
}

int CMNEncrypt(enc_handle* handle, uint8_t* data, size_t length, const uint8_t* iv, size_t ivLength) {
    if (handle->algorithm == ENC_NULL) {
        return ENC_OK;
    }
    if (length % aes_block_size != 0 || ivLength < aes_block_size) {
        return ENC_BAD_MODE;
    }
    uint8_t chain[aes_block_size];
    memcpy(chain, iv, sizeof chain);
    aes_cbc_encrypt(handle->key, data, data, length / aes_block_size, chain);
    return ENC_OK;
}

int CMNDecrypt(enc_handle* handle, uint8_t* data, size_t length, const uint8_t* iv, size_t ivLength) {
    if (handle->algorithm == ENC_NULL) {
        return ENC_OK;
    }
    if (length % aes_block_size != 0 || ivLength < aes_block_size) {
        return ENC_BAD_MODE;
    }
    uint8_t chain[aes_block_size];
    memcpy(chain, iv, sizeof chain);
    aes_cbc_decrypt(handle->key, data, data, length / aes_block_size, chain);
    return ENC_OK;
}

void EncFree(enc_handle* handle) {
    delete handle;
}
