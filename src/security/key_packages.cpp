// The bytes of start and response packages.
#include <string.h>

#include "security/aes.h"
#include "security/key_exchange.h"
#include "security/md5.h"

namespace {

enum start_offset : size_t {
    START_HEAD = 0,
    START_FORM = 3,
    START_HASH = 4,
    START_FIXED = 20,
    START_PLUGIN = 21,
    START_VALUES = 53,
    START_NAME = 85,
    START_ATTRIBUTES = 117,
    START_REST = 149,
};
static_assert(START_REST + 31 == start_package_size &&
              (start_package_size - START_HASH) % aes_block_size == 0);

enum response_offset : size_t {
    RESPONSE_HEAD = 0,
    RESPONSE_FORM = 2,
    RESPONSE_HASH = 3,
    RESPONSE_FIXED = 19,
    RESPONSE_ERROR = 20,
    RESPONSE_VALUES = 21,
    RESPONSE_MECHANISM_HASH = 53,
    RESPONSE_MANAGER_HASH = 69,
    RESPONSE_STORE_HASH = 85,
    RESPONSE_REST = 101,
};
static_assert(RESPONSE_REST + 14 == response_package_size &&
              (response_package_size - RESPONSE_HASH) % aes_block_size == 0);

constexpr uint8_t start_head[3] = {0x04, 0x81, 0xB1};
constexpr uint8_t response_head[2] = {0x04, 0x71};
constexpr uint8_t package_form = 1;
constexpr uint8_t enciphered_bit = 0x80;
constexpr uint8_t start_fixed = 1;
constexpr uint8_t response_fixed = 2;

uint8_t form_byte(bool encode) {
    return encode ? package_form | enciphered_bit : package_form;
}

int crypt_from(const key_manager& keys, uint8_t* package, size_t form_at, size_t size) {
    if ((package[form_at] & enciphered_bit) == 0) {
        return KM_OK;
    }
    return encryptKey(keys, package + form_at + 1, size - form_at - 1);
}

int decrypt_from(const key_manager& keys, uint8_t* package, size_t form_at, size_t size) {
    if ((package[form_at] & enciphered_bit) == 0) {
        return KM_OK;
    }
    return decryptKey(keys, package + form_at + 1, size - form_at - 1);
}

bool hash_is_good(const uint8_t* package, size_t hash_at, size_t size) {
    uint8_t hash[md5_size];
    gss_CalcHash(package + hash_at + md5_size, size - hash_at - md5_size, hash);
    return qx_equal_constant_time(hash, package + hash_at, md5_size);
}

}  // namespace

void gss_CalcHash(const uint8_t* data, size_t length, uint8_t hash[16]) {
    MD5Generate(data, length, hash);
}

void DHVal2Transfer(const uint64_t values[4], uint8_t out[32]) {
    for (size_t i = 0; i < 32; ++i) {
        out[i] = static_cast<uint8_t>(values[i / 8] >> (56 - 8 * (i % 8)));
    }
}

void Transfer2DHVals(const uint8_t in[32], uint64_t values[4]) {
    for (size_t i = 0; i < 4; ++i) {
        values[i] = 0;
        for (size_t byte = 0; byte < 8; ++byte) {
            values[i] = values[i] << 8 | in[8 * i + byte];
        }
    }
}

void buildSPpackage(const startpack& in, uint8_t out[start_package_size]) {
    memset(out, 0, start_package_size);
    memcpy(out + START_HEAD, start_head, sizeof start_head);
    out[START_FORM] = form_byte(in.bEncode);
    out[START_FIXED] = start_fixed;
    memcpy(out + START_PLUGIN, in.pKStorePlug, sizeof in.pKStorePlug);
    DHVal2Transfer(in.pDHValues, out + START_VALUES);
    memcpy(out + START_NAME, in.pExName, sizeof in.pExName);
    memcpy(out + START_ATTRIBUTES, in.pPIAttrib, sizeof in.pPIAttrib);
    gss_CalcHash(out + START_FIXED, start_package_size - START_FIXED, out + START_HASH);
}

int cryptSPpackage(const key_manager& keys, uint8_t package[start_package_size]) {
    return crypt_from(keys, package, START_FORM, start_package_size);
}

int decryptSPpackage(const key_manager& keys, uint8_t package[start_package_size]) {
    return decrypt_from(keys, package, START_FORM, start_package_size);
}

int splitSPpackage(const uint8_t* package, size_t length, startpack* out) {
    if (length != start_package_size || memcmp(package + START_HEAD, start_head, sizeof start_head) != 0 ||
        (package[START_FORM] & ~enciphered_bit) != package_form) {
        return KM_WRONG_DATA;
    }
    if (!hash_is_good(package, START_HASH, start_package_size)) {
        return KM_HASH;
    }
    if (package[START_FIXED] != start_fixed) {
        return KM_WRONG_DATA;
    }
    out->bEncode = (package[START_FORM] & enciphered_bit) != 0;
    memcpy(out->pKStorePlug, package + START_PLUGIN, sizeof out->pKStorePlug);
    Transfer2DHVals(package + START_VALUES, out->pDHValues);
    memcpy(out->pExName, package + START_NAME, sizeof out->pExName);
    memcpy(out->pPIAttrib, package + START_ATTRIBUTES, sizeof out->pPIAttrib);
    return KM_OK;
}

void buildRPpackage(const resppack& in, uint8_t out[response_package_size]) {
    memset(out, 0, response_package_size);
    memcpy(out + RESPONSE_HEAD, response_head, sizeof response_head);
    out[RESPONSE_FORM] = form_byte(in.bEncode);
    out[RESPONSE_FIXED] = response_fixed;
    out[RESPONSE_ERROR] = in.bErrCode;
    DHVal2Transfer(in.pDHValues, out + RESPONSE_VALUES);
    memcpy(out + RESPONSE_MECHANISM_HASH, in.pGSSAPIHash, sizeof in.pGSSAPIHash);
    memcpy(out + RESPONSE_MANAGER_HASH, in.pKeyManHash, sizeof in.pKeyManHash);
    memcpy(out + RESPONSE_STORE_HASH, in.pKStoreHash, sizeof in.pKStoreHash);
    gss_CalcHash(out + RESPONSE_FIXED, response_package_size - RESPONSE_FIXED, out + RESPONSE_HASH);
}

int cryptRPpackage(const key_manager& keys, uint8_t package[response_package_size]) {
    return crypt_from(keys, package, RESPONSE_FORM, response_package_size);
}

int decryptRPpackage(const key_manager& keys, uint8_t package[response_package_size]) {
    return decrypt_from(keys, package, RESPONSE_FORM, response_package_size);
}

int splitRPpackage(const uint8_t* package, size_t length, resppack* out) {
    if (length != response_package_size ||
        memcmp(package + RESPONSE_HEAD, response_head, sizeof response_head) != 0 ||
        (package[RESPONSE_FORM] & ~enciphered_bit) != package_form) {
        return KM_WRONG_DATA;
    }
    if (!hash_is_good(package, RESPONSE_HASH, response_package_size)) {
        return KM_HASH;
    }
    if (package[RESPONSE_FIXED] != response_fixed) {
        return KM_WRONG_DATA;
    }
    out->bEncode = (package[RESPONSE_FORM] & enciphered_bit) != 0;
    out->bErrCode = package[RESPONSE_ERROR];
    Transfer2DHVals(package + RESPONSE_VALUES, out->pDHValues);
    memcpy(out->pGSSAPIHash, package + RESPONSE_MECHANISM_HASH, sizeof out->pGSSAPIHash);
    memcpy(out->pKeyManHash, package + RESPONSE_MANAGER_HASH, sizeof out->pKeyManHash);
    memcpy(out->pKStoreHash, package + RESPONSE_STORE_HASH, sizeof out->pKStoreHash);
    return KM_OK;
}
