// The independent implementation of AES, DES and MD5 that the tests compare with, and small helpers.
#pragma once

#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using bytes = std::vector<uint8_t>;

inline bytes from_hex(std::string_view text) {
    bytes out;
    auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 32) - 'a' + 10; };
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(digit(text[i]) << 4 | digit(text[i + 1])));
    }
    return out;
}

inline bytes counting(size_t length, unsigned start = 1, unsigned step = 7) {
    bytes out(length);
    for (size_t i = 0; i < length; ++i) {
        out[i] = static_cast<uint8_t>(start + step * i + (i >> 8));
    }
    return out;
}

inline bytes peer_cipher(const EVP_CIPHER* cipher, const bytes& key, const bytes& iv, const bytes& data,
                         bool encrypt) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    bytes out(data.size() + 32);
    int length = 0;
    bool good =
        EVP_CipherInit_ex(context, cipher, nullptr, key.data(), iv.empty() ? nullptr : iv.data(), encrypt) &&
        EVP_CIPHER_CTX_set_padding(context, 0) &&
        EVP_CipherUpdate(context, out.data(), &length, data.data(), static_cast<int>(data.size()));
    EVP_CIPHER_CTX_free(context);
    out.resize(good ? static_cast<size_t>(length) : 0);
    return out;
}

inline bytes peer_cbc(const bytes& key, const bytes& iv, const bytes& data, bool encrypt) {
    const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                               : key.size() == 24 ? EVP_aes_192_cbc()
                                                  : EVP_aes_256_cbc();
    return peer_cipher(cipher, key, iv, data, encrypt);
}

inline bytes peer_md5(const bytes& data) {
    bytes digest(16);
    EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_md5(), nullptr);
    return digest;
}

inline const bytes zero_iv(16, 0);

// Part of a byte string.
inline bytes slice(const bytes& from, size_t at, size_t length) {
    return bytes(from.begin() + static_cast<ptrdiff_t>(at),
                 from.begin() + static_cast<ptrdiff_t>(at + length));
}

// Puts bytes into a byte string.
inline void place(bytes* into, size_t at, const bytes& what) {
    std::copy(what.begin(), what.end(), into->begin() + static_cast<ptrdiff_t>(at));
}

// Replaces a range by its CBC form under a zero vector.
inline void encipher_range(bytes* data, size_t at, size_t length, const bytes& key) {
    place(data, at, peer_cbc(key, zero_iv, slice(*data, at, length), true));
}
