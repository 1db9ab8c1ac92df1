#include "security/string_cipher.h"

#include <stdio.h>
#include <string.h>

#include "base/memory.h"
#include "security/aes.h"
#include "security/des.h"
#include "security/random.h"

namespace {

constexpr char built_in_key[] = "QX7-string-cipher";
constexpr char head_magic[2] = {'\xAD', '\xAD'};
constexpr char older_magic[2] = {'-', '-'};
constexpr char head_vers[2] = {'1', '0'};
constexpr size_t head_size = sizeof head_magic + sizeof head_vers;
constexpr size_t block_size = 8;
constexpr size_t block_text_size = 2 * block_size;

struct current_key {
    qx_secret_text text;
    des_key schedule;
} keyx;

const des_key& set_key() {
    if (keyx.text.empty()) {
        initkey(nullptr);
    }
    return keyx.schedule;
}

uint8_t garbage() {
    uint8_t byte;
    GetRandomEx(&byte, 1);
    return byte;
}

void byte2hex(const uint8_t* bytes, size_t count, char* out) {
    constexpr char digits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < count; ++i) {
        *out++ = digits[bytes[i] >> 4];
        *out++ = digits[bytes[i] & 15];
    }
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

bool hex2byte(const char* text, size_t count, uint8_t* out) {
    for (size_t i = 0; i < count; ++i) {
        int high = hex_digit(text[2 * i]), low = hex_digit(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        out[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

int enMaxim(const char* in, char* out, size_t out_size) {
    if (out_size == 0) {
        return -1;
    }
    size_t length = strlen(in) + 1;
    if (out_size < EnMaxim_size(length - 1)) {
        out[0] = '\0';
        return -1;
    }
    const des_key& key = set_key();
    memcpy(out, head_magic, sizeof head_magic);
    memcpy(out + sizeof head_magic, head_vers, sizeof head_vers);
    char* at = out + head_size;
    for (size_t done = 0; done < length; done += block_size, at += block_text_size) {
        uint8_t block[block_size];
        for (size_t i = 0; i < block_size; ++i) {
            block[i] = done + i < length ? static_cast<uint8_t>(in[done + i]) : garbage();
        }
        endes(key, block);
        byte2hex(block, block_size, at);
    }
    *at = '\0';
    return 0;
}

bool is_enciphered(const char* in, size_t length) {
    return length > head_size && (length - head_size) % block_text_size == 0 &&
           (memcmp(in, head_magic, 2) == 0 || memcmp(in, older_magic, 2) == 0) &&
           memcmp(in + 2, head_vers, 2) == 0;
}

int pass_through(const char* in, size_t length, char* out, size_t out_size) {
    if (in == out) {
        return 1;
    }
    if (out_size <= length) {
        if (out_size != 0) {
            out[0] = '\0';
        }
        return -1;
    }
    memmove(out, in, length + 1);
    return 1;
}

int deMaxim(const char* in, char* out, size_t out_size) {
    size_t length = strlen(in);
    if (!is_enciphered(in, length)) {
        return pass_through(in, length, out, out_size);
    }
    const char* text = in + head_size;
    size_t blocks = (length - head_size) / block_text_size;
    for (size_t i = 0; i < blocks * block_text_size; ++i) {
        if (hex_digit(text[i]) < 0) {
            return pass_through(in, length, out, out_size);
        }
    }
    const des_key& key = set_key();
    // Each block is written behind the place from which it was read, so that both texts may be the same.
    for (size_t i = 0; i < blocks; ++i) {
        uint8_t block[block_size];
        hex2byte(text + i * block_text_size, block_size, block);
        dedes(key, block);
        size_t part = strnlen(reinterpret_cast<char*>(block), block_size);
        if (i * block_size + part >= out_size) {
            break;
        }
        memcpy(out + i * block_size, block, part);
        qx_wipe(block, sizeof block);
        if (part < block_size) {
            out[i * block_size + part] = '\0';
            return 0;
        }
    }
    if (out_size != 0) {
        out[0] = '\0';
    }
    return -1;
}

int enMaximBin(const uint8_t* in, uint8_t* out, size_t out_size, size_t length) {
    size_t rest = length % block_size, whole = length - rest;
    size_t needed = rest == 0 ? whole : whole + block_size + 1;
    if (out_size < needed) {
        return -1;
    }
    const des_key& key = set_key();
    if (in != out && length != 0) {
        memmove(out, in, length);
    }
    for (size_t i = length; rest != 0 && i < whole + block_size; ++i) {
        out[i] = garbage();
    }
    for (size_t at = 0; at + block_size <= needed; at += block_size) {
        endes(key, out + at);
    }
    if (rest != 0) {
        out[needed - 1] = static_cast<uint8_t>(rest);
    }
    return static_cast<int>(needed);
}

int deMaximBin(const uint8_t* in, uint8_t* out, size_t out_size, size_t length) {
    size_t whole = length / block_size * block_size, plain = whole;
    // A single byte behind the blocks counts the valid bytes of the last one.
    if (length > whole && whole != 0 && in[whole] >= 1 && in[whole] < block_size) {
        plain = whole - block_size + in[whole];
    }
    if (out_size < whole) {
        return -1;
    }
    const des_key& key = set_key();
    if (in != out && length != 0) {
        memmove(out, in, whole);
    }
    for (size_t at = 0; at < whole; at += block_size) {
        dedes(key, out + at);
    }
    return static_cast<int>(plain);
}

void password_key(int id, char key[33]) {
    snprintf(key, 33, "%032d", id);
}

}  // namespace

void initkey(const char* key) {
    const char* text = key != nullptr && *key != '\0' ? key : built_in_key;
    uint8_t bytes[8] = {};
    memcpy(bytes, text, strnlen(text, sizeof bytes));
    keyx.text.assign({text, strnlen(text, sizeof bytes)});
    desinit(&keyx.schedule, bytes);
    qx_wipe(bytes, sizeof bytes);
}

void clearkey() {
    keyx.text.clear();
    qx_wipe(keyx.schedule.rounds, sizeof keyx.schedule.rounds);
}

int ZUSTRNG_EnMaxim(char* out, size_t outSize, const char* in) {
    return enMaxim(in, out, outSize);
}

int ZUSTRNG_EnMaxim2(char* out, size_t outSize, const char* in, const char* key) {
    initkey(key);
    int result = enMaxim(in, out, outSize);
    clearkey();
    return result;
}

int ZUSTRNG_DeMaxim(char* out, size_t outSize, const char* in) {
    return deMaxim(in, out, outSize);
}

int ZUSTRNG_DeMaxim2(char* out, size_t outSize, const char* in, const char* key) {
    initkey(key);
    int result = deMaxim(in, out, outSize);
    clearkey();
    return result;
}

int ZUSTRNG_EnMaximBin(uint8_t* out, size_t outSize, const uint8_t* in, size_t length) {
    return enMaximBin(in, out, outSize, length);
}

int ZUSTRNG_EnMaximBin2(uint8_t* out, size_t outSize, const uint8_t* in, size_t length, const char* key) {
    initkey(key);
    int result = enMaximBin(in, out, outSize, length);
    clearkey();
    return result;
}

int ZUSTRNG_DeMaximBin(uint8_t* out, size_t outSize, const uint8_t* in, size_t length) {
    return deMaximBin(in, out, outSize, length);
}

int ZUSTRNG_DeMaximBin2(uint8_t* out, size_t outSize, const uint8_t* in, size_t length, const char* key) {
    initkey(key);
    int result = deMaximBin(in, out, outSize, length);
    clearkey();
    return result;
}

uint32_t memchiffre(uint32_t key, void* data, size_t length) {
    uint8_t pad[127 + 129];
    key = getnewkey(key);
    size_t pad_length = (key & 127) + 129;
    for (size_t i = 0; i < pad_length; ++i) {
        key = getnewkey(key);
        pad[i] = static_cast<uint8_t>(key % 255 + 1);
    }
    auto* bytes = static_cast<uint8_t*>(data);
    for (size_t i = 0, at = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(bytes[i] ^ pad[at]);
        at = at + 1 == pad_length ? 0 : at + 1;
    }
    qx_wipe(pad, sizeof pad);
    return key;
}

char* PwdDeChiffreTh(int id, const uint8_t* input, size_t inputLength, char* output, size_t outputSize) {
    memset(output, 0, outputSize < 4 ? outputSize : 4);
    if (outputSize < inputLength || inputLength % aes_block_size != 0) {
        return output;
    }
    memcpy(output, input, inputLength);
    char key[33];
    password_key(id, key);
    gss_AESDecrypt(reinterpret_cast<uint8_t*>(key), 32, reinterpret_cast<uint8_t*>(output), inputLength);
    qx_wipe(key, sizeof key);
    return output;
}

std::string build_password_field(int id, std::string_view password) {
    size_t length = (password.size() + aes_block_size - 1) / aes_block_size * aes_block_size;
    char digits[11];
    snprintf(digits, sizeof digits, "%010d", static_cast<int>(length));
    std::string field(digits);
    field.append(password);
    field.resize(10 + length, '\0');
    char key[33];
    password_key(id, key);
    gss_AESEncrypt(reinterpret_cast<uint8_t*>(key), 32, reinterpret_cast<uint8_t*>(field.data() + 10),
                   length);
    qx_wipe(key, sizeof key);
    return field;
}
