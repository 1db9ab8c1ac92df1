#include "security/key_store.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "base/text.h"
#include "security/aes.h"
#include "security/key_exchange.h"
#include "security/key_file.h"
#include "security/key_reason.h"
#include "security/md5.h"
#include "security/random.h"

namespace {

constexpr char company_key_name[] = "CompanyKey";

// The company key of an installation that was given none, before the system name has changed it.
constexpr uint8_t built_in_company_key[gss_key_size] = {
    0xad, 0x48, 0xdb, 0x29, 0x5a, 0x04, 0x60, 0xdc, 0x30, 0x90, 0xde, 0xbb, 0x3e, 0x5f, 0x00, 0xda,
    0x92, 0x8a, 0x6a, 0x9c, 0xe1, 0x20, 0x93, 0xcb, 0xea, 0x40, 0x8f, 0x7f, 0xaf, 0x9f, 0xbb, 0xcc};

constexpr const char* g_KMErrorTxt[] = {"an unknown error occured",
                                        "the system has been run out of memory",
                                        "a given parameter is out of range",
                                        "this interface has not been initialized",
                                        "this function has not been implemented",
                                        "the buffer could not be converted",
                                        "the buffer could not be encrypted",
                                        "the buffer could not be decrypted",
                                        "the given libray could not be loaded/found",
                                        "an expected function entry point was not found",
                                        "a preserved buffer has not been large enough",
                                        "wrong data has been given the function",
                                        "the hashcode is not correct",
                                        "the given message was not expected here",
                                        "can't open the given file",
                                        "can't read from the given file",
                                        "the hash code of the plugin is not correct",
                                        "the password could not be read",
                                        "a requested value could not be retrieved",
                                        "function could not proceed - no plugin defined yet",
                                        "the given name is not known by the system",
                                        "there is a version conflict - different data was expected",
                                        "error in the used primtable",
                                        "",
                                        "A bad mech type has been given"};

constexpr size_t longest_key = 256;  // bytes of one entry

void bin2hex(const uint8_t* bytes, size_t length, char* out) {
    constexpr char digits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < length; ++i) {
        *out++ = digits[bytes[i] >> 4];
        *out++ = digits[bytes[i] & 15];
    }
}

int hex_digit(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                  : -1;
}

bool hex2bin(std::string_view text, uint8_t* out) {
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        out[i / 2] = static_cast<uint8_t>(high << 4 | low);
    }
    return text.size() % 2 == 0;
}

std::string entry_key(int number, int type) {
    char text[32];
    snprintf(text, sizeof text, "%d.%d", number, type);
    return text;
}

int read_number(const key_manager& keys) {
    keys.store_errno = errno;
    return errno == ENOENT ? KM_NAME_UNKNOWN : errno == EFBIG || errno == EIO ? KM_READ : KM_OPEN;
}

// The value of one entry in a file that has been read.
int GetFromIni(const qx_secret_text& content, std::string_view section, const std::string& key, uint8_t* out,
               size_t* length) {
    std::string_view value = SearchCfg(content, section, key);
    if (value.empty()) {
        return KM_NAME_UNKNOWN;
    }
    if (value.size() / 2 > *length) {
        return KM_BUFFER_SMALL;
    }
    if (!hex2bin(value, out)) {
        return KM_WRONG_DATA;
    }
    *length = value.size() / 2;
    return KM_OK;
}

int WriteToIni(const key_manager& keys, std::string_view section, const std::string& key,
               std::string_view value) {
    if (UpdateCfg(keys.file, section, key, value) == 0) {
        return KM_OK;
    }
    keys.store_errno = errno;
    return errno == EINVAL ? KM_RANGE : KM_WRITE;
}

int read_company_key(key_manager* keys, uint8_t* key) {
    size_t length = gss_key_size;
    int type = 0;
    int number = getEncKey(*keys, company_key_name, 0, KEY_TYPE_COMPANY, key, &length, &type);
    if (number == KM_NAME_UNKNOWN) {
        default_company_key(keys->systemName, key);
        return KM_OK;
    }
    return number == KM_OK && length != gss_key_size ? KM_WRONG_DATA : number;
}

int partner_key(const key_manager& keys, std::string_view name, int number, uint8_t key[gss_key_size]) {
    size_t length = gss_key_size;
    int type = 0;
    int result = getEncKey(keys, name, number, KEY_TYPE_PARTNER, key, &length, &type);
    if (result != KM_OK) {
        return result;
    }
    return length == gss_key_size ? decryptKey(keys, key, length) : KM_WRONG_DATA;
}

// A 64-byte block of key material: the string again and again.
void PadKey(std::span<const uint8_t> text, uint8_t block[64]) {
    for (size_t i = 0; i < 64; ++i) {
        block[i] = text.empty() ? 0 : text[i % text.size()];
    }
}

}  // namespace

const char* km_error_text(int number) {
    return number >= KM_UNKNOWN && number <= KM_KEY_EXISTS ? g_KMErrorTxt[number - KM_UNKNOWN] : "";
}

std::string km_explain(const key_manager& keys, int number) {
    const std::string reason = km_reason_text(number);
    const bool of_file = number == KM_WRITE || number == KM_OPEN || number == KM_READ;
    return of_file && keys.store_errno != 0 && !keys.file.empty()
               ? reason + ", '" + keys.file + "': " + strerror(keys.store_errno)
               : reason;
}

// ---- opening and closing

int KComInit(key_manager* keys, std::string_view systemName, std::string_view exName,
             std::span<const uint8_t> key, const std::string& file) {
    KComExit(keys);
    keys->first_contact = true;
    if (file.empty() || exName.empty()) {
        return KM_RANGE;
    }
    keys->file = file;
    keys->systemName = upper(rstrip(systemName));
    keys->exName = rstrip(exName);
    keys->open = true;  // the store is read before the company key is known
    qx_secret<gss_key_size> company;
    int number = KM_OK;
    if (key.empty()) {
        number = read_company_key(keys, company.data());
    } else {
        memcpy(company.data(), key.data(), std::min(key.size(), gss_key_size));
    }
    if (number == KM_OK) {
        number = KCinit(keys, company.span());
    }
    if (number != KM_OK) {
        KComExit(keys);
    }
    return number;
}

int KCinit(key_manager* keys, std::span<const uint8_t> key) {
    if (key.size() != gss_key_size) {
        return KM_RANGE;
    }
    uint64_t generator = 0, modulus = 0;
    int number = _compDHPrimes(key.data(), key.size(), &generator, &modulus);
    if (number != KM_OK) {
        return number;
    }
    memcpy(keys->g_pCompKey.data(), key.data(), gss_key_size);
    keys->generator = generator;
    keys->modulus = modulus;
    return KM_OK;
}

void KComExit(key_manager* keys) {
    keys->open = false;
    keys->file.clear();
    keys->systemName.clear();
    keys->exName.clear();
    keys->g_pCompKey = {};
    qx_wipe(keys->g_pCompKey.data(), gss_key_size);
    keys->generator = keys->modulus = 0;
}

const char* KComVersion() {
    return "QX7 key manager 1";
}

const char* KSVersion() {
    return "QX7 file store 1";
}

// ---- entries

int getEncKey(const key_manager& keys, std::string_view name, int number, int type, uint8_t* out,
              size_t* length, int* actualType) {
    if (!keys.open) {
        return KM_NOT_INITIALIZED;
    }
    qx_secret_text content;
    if (ReadCfg(keys.file, &content) != 0) {
        return read_number(keys);
    }
    for (int candidate : {KEY_TYPE_PARTNER, KEY_TYPE_COMPANY}) {
        if (type != 0 && type != candidate) {
            continue;
        }
        int result = GetFromIni(content, name, entry_key(number, candidate), out, length);
        if (result != KM_NAME_UNKNOWN) {
            if (actualType != nullptr) {
                *actualType = candidate;
            }
            return result;
        }
    }
    return KM_NAME_UNKNOWN;
}

int setEncKey(key_manager* keys, std::string_view name, int number, const uint8_t* key, size_t length,
              int type) {
    if (!keys->open) {
        return KM_NOT_INITIALIZED;
    }
    if (length == 0 || length > longest_key) {
        return KM_RANGE;
    }
    char text[2 * longest_key];
    bin2hex(key, length, text);
    int result = WriteToIni(*keys, name, entry_key(number, type), {text, 2 * length});
    qx_wipe(text, sizeof text);
    return result;
}

int updEncKey(key_manager* keys, std::string_view name, int number, const uint8_t* key, size_t length,
              int type) {
    uint8_t held[longest_key];
    size_t held_length = sizeof held;
    int result = getEncKey(*keys, name, number, type, held, &held_length, nullptr);
    qx_wipe(held, sizeof held);
    return result == KM_OK ? setEncKey(keys, name, number, key, length, type) : result;
}

int delEncKey(key_manager* keys, std::string_view name, int number, int type) {
    if (!keys->open) {
        return KM_NOT_INITIALIZED;
    }
    return WriteToIni(*keys, name, entry_key(number, type), {});
}

int encryptKey(const key_manager& keys, uint8_t* key, size_t length) {
    return gss_AESEncrypt(keys.g_pCompKey.data(), gss_key_size, key, length) == 0 ? KM_OK : KM_ENCRYPT;
}

int decryptKey(const key_manager& keys, uint8_t* key, size_t length) {
    return gss_AESDecrypt(keys.g_pCompKey.data(), gss_key_size, key, length) == 0 ? KM_OK : KM_DECRYPT;
}

int generateKey(uint8_t key[gss_key_size]) {
    return getRandomEx2(key, gss_key_size);
}

int getCompKey(const key_manager& keys, uint8_t key[gss_key_size]) {
    if (!keys.open) {
        return KM_NOT_INITIALIZED;
    }
    memcpy(key, keys.g_pCompKey.data(), gss_key_size);
    return KM_OK;
}

int get_transfer_key(const key_manager& keys, std::string_view name, uint8_t key[gss_key_size]) {
    return partner_key(keys, name, 0, key);
}

int set_transfer_key(key_manager* keys, std::string_view name, const uint8_t key[gss_key_size]) {
    qx_secret<gss_key_size> enciphered;
    memcpy(enciphered.data(), key, gss_key_size);
    int result = encryptKey(*keys, enciphered.data(), gss_key_size);
    return result == KM_OK ? setEncKey(keys, name, 0, enciphered.data(), gss_key_size, KEY_TYPE_PARTNER)
                           : result;
}

void getKeyHash(const key_manager& keys, std::string_view name, uint8_t hash[16]) {
    qx_secret<gss_key_size> key;
    memset(hash, 0, 16);
    if (get_transfer_key(keys, name, key.data()) == KM_OK) {
        MD5Generate(key.data(), gss_key_size, hash);
    }
}

std::string key_fingerprint(const uint8_t key[gss_key_size]) {
    constexpr std::string_view purpose = "QX7 key fingerprint";
    constexpr size_t group = 4;  // hex digits
    uint8_t digest[16];
    GetKeyValue({reinterpret_cast<const uint8_t*>(purpose.data()), purpose.size()}, {key, gss_key_size},
                digest, sizeof digest);
    char digits[2 * sizeof digest];
    bin2hex(digest, sizeof digest, digits);
    std::string text;
    for (size_t at = 0; at < sizeof digits; at += group) {
        text.append(at == 0 ? "" : "-").append(digits + at, group);
    }
    return text;
}

std::string key_fingerprint(const key_manager& keys, std::string_view name) {
    qx_secret<gss_key_size> key;
    return get_transfer_key(keys, name, key.data()) == KM_OK ? key_fingerprint(key.data()) : std::string();
}

// ---- derivation

int gss_PWEncrypt(std::string_view text, uint8_t* data, size_t length) {
    qx_secret<md5_size> key;
    MD5Generate(text.data(), text.size(), key.data());
    return gss_AESEncrypt(key.data(), md5_size, data, length) == 0 ? KM_OK : KM_ENCRYPT;
}

void default_company_key(std::string_view systemName, uint8_t key[gss_key_size]) {
    memcpy(key, built_in_company_key, gss_key_size);
    gss_PWEncrypt(upper(rstrip(systemName)), key, gss_key_size);
}

int GetKeyValue(std::span<const uint8_t> first, std::span<const uint8_t> second, uint8_t* out,
                size_t length) {
    constexpr int further_rounds = 511;
    if (out == nullptr || length == 0 || length > 255 * md5_size) {
        return KM_RANGE;
    }
    uint8_t blocks[3 * 64], digest[md5_size];
    PadKey(first, blocks + 64);
    PadKey(second, blocks + 128);
    uint8_t counter = 1;
    for (size_t done = 0; done < length; done += md5_size, counter++) {
        memset(blocks, counter, 64);
        MD5Generate(blocks, sizeof blocks, digest);
        for (int i = 0; i < further_rounds; ++i) {
            MD5Generate(digest, md5_size, digest);
        }
        memcpy(out + done, digest, std::min(length - done, md5_size));
    }
    qx_wipe(blocks, sizeof blocks);
    qx_wipe(digest, sizeof digest);
    return KM_OK;
}

// ---- the agent's own keys and the mechanism's callbacks

key_manager& agent_keys() {
    static key_manager keys;
    return keys;
}

void KMsetGSSCallback() {
    const _GSS_Callbacks callbacks{KMgetKeyEX,    KMgetKeyGUI, KMgetDefKeyGUI, KMgetNewSessionKey,
                                   KMcheckPIHash, KMgetPIName, KMgetPIHash};
    gss_setCallbacks(&callbacks);
}

int KMgetKeyEX(std::string_view name, OM_uint32 idnr, uint8_t key[gss_key_size]) {
    return partner_key(agent_keys(), name, static_cast<int>(idnr), key);
}

// A person's key comes from what the person enters: the first two fields, name and password.
int KMgetKeyGUI(const std::vector<std::string_view>& fields, uint8_t key[gss_key_size]) {
    if (fields.size() < 2) {
        return KM_WRONG_DATA;
    }
    auto bytes = [](std::string_view text) {
        return std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    };
    return GetKeyValue(bytes(fields[0]), bytes(fields[1]), key, gss_key_size);
}

// Nobody in particular: the company's key stands in for the password.
int KMgetDefKeyGUI(const std::vector<std::string_view>& fields, uint8_t key[gss_key_size]) {
    if (!agent_keys().open) {
        return KM_NOT_INITIALIZED;
    }
    std::string_view name = fields.empty() ? std::string_view() : fields[0];
    return GetKeyValue(std::span(reinterpret_cast<const uint8_t*>(name.data()), name.size()),
                       agent_keys().g_pCompKey.span(), key, gss_key_size);
}

int KMgetNewSessionKey(uint8_t key[gss_key_size]) {
    return generateKey(key);
}

// The file store is no plug-in: its name is empty and its hash is zero.
int KMgetPIName(char name[gss_name_size]) {
    memset(name, 0, gss_name_size);
    return KM_OK;
}

int KMcheckPIHash(std::string_view, const uint8_t hash[16]) {
    constexpr uint8_t none[16] = {};
    return memcmp(hash, none, sizeof none) == 0 ? KM_OK : KM_PLUGIN_HASH;
}

int KMgetPIHash(std::string_view, uint8_t hash[16]) {
    memset(hash, 0, 16);
    return KM_OK;
}
