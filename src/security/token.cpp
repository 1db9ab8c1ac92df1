#include "security/token.h"

#include <string.h>

#include "security/md5.h"
#include "security/reference.h"

namespace {

// Offsets in the three tokens. A sealed part begins where the hash does and is a multiple of the block size.
enum init_offset : size_t {
    INIT_TAG = 0,
    INIT_OID = 3,
    INIT_CREDENTIAL_FOLLOWS = 15,
    INIT_BODY_TAG = 16,
    INIT_HASH = 18,
    INIT_REFERENCE = 34,
    INIT_TYPE = 38,
    INIT_CONTEXT = 39,
    INIT_VERSION = 43,
    INIT_FLAGS = 47,
    INIT_COD_REFERENCE = 51,
    INIT_NAME = 55,
    INIT_SESSION_KEY = 87,
    INIT_PLUGIN = 119,
};
constexpr size_t init_sealed_size = 128;  // bytes 146 to 150 stay plain, under the hash only
static_assert(INIT_PLUGIN + 32 == gss_init_token_size && INIT_HASH + init_sealed_size == 146);

enum accept_offset : size_t {
    ACCEPT_TAG = 0,
    ACCEPT_ERROR = 2,
    ACCEPT_HASH = 3,
    ACCEPT_REFERENCE = 19,
    ACCEPT_TYPE = 23,
    ACCEPT_CONTEXT = 24,
    ACCEPT_VERSION = 28,
    ACCEPT_COD_REFERENCE = 32,
    ACCEPT_VECTOR = 36,
    ACCEPT_PLUGIN_HASH = 68,
    ACCEPT_REST = 84,
};
constexpr size_t accept_sealed_size = 96;  // byte 99 stays plain
static_assert(ACCEPT_REST + 16 == gss_accept_token_size && ACCEPT_HASH + accept_sealed_size == 99);

enum credential_offset : size_t {
    CRED_TAG = 0,
    CRED_HASH = 3,
    CRED_REFERENCE = 19,
    CRED_TYPE = 23,
    CRED_CONTEXT = 24,
    CRED_VERSION = 28,
    CRED_SEALED = 31,
    CRED_SEQUENCE = 32,
    CRED_FLAGS = 36,
    CRED_TARGET = 40,
    CRED_SESSION_KEY = 72,
    CRED_INIT_TOKEN = 104,
};
static_assert(CRED_INIT_TOKEN + gss_init_token_size == gss_credential_token_size);
static_assert((gss_credential_token_size - CRED_SEALED) % aes_block_size == 0);

// The length in the tag is 148 also when a credential follows, and the credential's own is 220: both must
// stay, the other side compares them.
constexpr uint8_t init_tag[3] = {0x60, 0x81, 0x94};
constexpr uint8_t init_body_tag[2] = {0x03, 0x85};
constexpr uint8_t accept_tag[2] = {0x03, 0x62};
constexpr uint8_t credential_tag[3] = {0x03, 0x81, 0xDC};

void encipher(const aes_key& key, uint8_t* data, size_t length) {
    uint8_t iv[aes_block_size] = {};
    aes_cbc_encrypt(key, data, data, length / aes_block_size, iv);
}

void decipher(const aes_key& key, uint8_t* data, size_t length) {
    uint8_t iv[aes_block_size] = {};
    aes_cbc_decrypt(key, data, data, length / aes_block_size, iv);
}

// Tag, object identifier with its last byte, and body tag: everything in front of the hash.
bool init_head_is_good(const uint8_t* data, bool with_credential) {
    return memcmp(data + INIT_TAG, init_tag, sizeof init_tag) == 0 && data[INIT_OID] == 0x06 &&
           data[INIT_OID + 1] == 0x0B &&
           memcmp(data + INIT_OID + 2, GSS_MECH_KLVT_QX7->elements, GSS_MECH_KLVT_QX7->length) == 0 &&
           data[INIT_CREDENTIAL_FOLLOWS] == (with_credential ? 1 : 0) &&
           memcmp(data + INIT_BODY_TAG, init_body_tag, sizeof init_body_tag) == 0;
}

// A copy of a token that holds keys in the clear while it is looked at.
template <size_t N>
struct opened {
    uint8_t bytes[N];
    explicit opened(const uint8_t* from) { memcpy(bytes, from, N); }
    ~opened() { qx_wipe(bytes, N); }
    opened(const opened&) = delete;
    opened& operator=(const opened&) = delete;
};

bool hash_is_good(const uint8_t* token, size_t hash_at, size_t end) {
    uint8_t digest[md5_size];
    MD5Generate(token + hash_at + md5_size, end - hash_at - md5_size, digest);
    return qx_equal_constant_time(digest, token + hash_at, md5_size);
}

}  // namespace

void UInt32ToTrans(uint32_t value, uint8_t out[4]) {
    out[0] = static_cast<uint8_t>(value >> 24);
    out[1] = static_cast<uint8_t>(value >> 16);
    out[2] = static_cast<uint8_t>(value >> 8);
    out[3] = static_cast<uint8_t>(value);
}

uint32_t TransToUInt32(const uint8_t in[4]) {
    return static_cast<uint32_t>(in[0]) << 24 | static_cast<uint32_t>(in[1]) << 16 |
           static_cast<uint32_t>(in[2]) << 8 | in[3];
}

bool gss_is_init_token(const uint8_t* data, size_t length) {
    if (length != gss_init_token_size && length != gss_init_token_with_credential_size) {
        return false;
    }
    return init_head_is_good(data, length == gss_init_token_with_credential_size);
}

void constructInitToken(const init_token& in, const aes_key& transfer, uint8_t out[gss_init_token_size]) {
    memset(out, 0, gss_init_token_size);
    memcpy(out + INIT_TAG, init_tag, sizeof init_tag);
    out[INIT_OID] = 0x06;
    out[INIT_OID + 1] = 0x0B;
    memcpy(out + INIT_OID + 2, GSS_MECH_KLVT_QX7->elements, GSS_MECH_KLVT_QX7->length);
    out[INIT_CREDENTIAL_FOLLOWS] = in.has_credential ? 1 : 0;
    memcpy(out + INIT_BODY_TAG, init_body_tag, sizeof init_body_tag);
    memcpy(out + INIT_REFERENCE, g_RefCode, sizeof g_RefCode);
    out[INIT_TYPE] = TOKEN_INIT;
    UInt32ToTrans(in.m_SrcCtxID, out + INIT_CONTEXT);
    UInt32ToTrans(token_version, out + INIT_VERSION);
    UInt32ToTrans(in.m_Req_Flags, out + INIT_FLAGS);
    memcpy(out + INIT_NAME, in.m_pCodName, sizeof in.m_pCodName);
    encipher(transfer, out + INIT_NAME, sizeof in.m_pCodName);
    memcpy(out + INIT_SESSION_KEY, in.m_pCodSessionKey.data(), gss_key_size);
    encipher(transfer, out + INIT_SESSION_KEY, gss_key_size);
    memcpy(out + INIT_PLUGIN, in.m_pPlugInName, sizeof in.m_pPlugInName);
    MD5Generate(out + INIT_REFERENCE, gss_init_token_size - INIT_REFERENCE, out + INIT_HASH);
    encipher(transfer, out + INIT_HASH, init_sealed_size);
}

OM_uint32 splitInitToken(const uint8_t* data, size_t length, const aes_key& transfer, init_token* out) {
    if (length != gss_init_token_size && length != gss_init_token_with_credential_size) {
        return GSS_MINOR_PARAMETER;
    }
    opened<gss_init_token_size> token(data);
    decipher(transfer, token.bytes + INIT_HASH, init_sealed_size);
    if (memcmp(token.bytes + INIT_REFERENCE, g_RefCode, sizeof g_RefCode) != 0) {
        return GSS_MINOR_VERSION;
    }
    if (!gss_is_init_token(data, length)) {
        return GSS_MINOR_PARAMETER;
    }
    if (token.bytes[INIT_TYPE] != TOKEN_INIT || TransToUInt32(token.bytes + INIT_VERSION) != token_version) {
        return GSS_MINOR_VERSION;
    }
    if (!hash_is_good(token.bytes, INIT_HASH, gss_init_token_size)) {
        return GSS_MINOR_HASH;
    }
    decipher(transfer, token.bytes + INIT_NAME, gss_name_size);
    decipher(transfer, token.bytes + INIT_SESSION_KEY, gss_key_size);
    out->m_SrcCtxID = TransToUInt32(token.bytes + INIT_CONTEXT);
    out->m_Req_Flags = TransToUInt32(token.bytes + INIT_FLAGS);
    memcpy(out->m_pCodName, token.bytes + INIT_NAME, gss_name_size);
    memcpy(out->m_pCodSessionKey.data(), token.bytes + INIT_SESSION_KEY, gss_key_size);
    memcpy(out->m_pPlugInName, token.bytes + INIT_PLUGIN, gss_name_size);
    out->has_credential = length == gss_init_token_with_credential_size;
    return 0;
}

void constructAcceptToken(const accept_token& in, const aes_key& session,
                          uint8_t out[gss_accept_token_size]) {
    memset(out, 0, gss_accept_token_size);
    memcpy(out + ACCEPT_TAG, accept_tag, sizeof accept_tag);
    out[ACCEPT_ERROR] = in.m_ErrCode;
    memcpy(out + ACCEPT_REFERENCE, g_RefCode, sizeof g_RefCode);
    out[ACCEPT_TYPE] = TOKEN_ACCEPT;
    UInt32ToTrans(in.m_DestCtxID, out + ACCEPT_CONTEXT);
    UInt32ToTrans(token_version, out + ACCEPT_VERSION);
    memcpy(out + ACCEPT_VECTOR, in.m_pIV, sizeof in.m_pIV);
    encipher(session, out + ACCEPT_VECTOR, sizeof in.m_pIV);
    memcpy(out + ACCEPT_PLUGIN_HASH, in.m_pPIHash, sizeof in.m_pPIHash);
    MD5Generate(out + ACCEPT_REFERENCE, gss_accept_token_size - ACCEPT_REFERENCE, out + ACCEPT_HASH);
    encipher(session, out + ACCEPT_HASH, accept_sealed_size);
}

OM_uint32 splitAcceptToken(const uint8_t* data, size_t length, const aes_key& session, accept_token* out) {
    if (length != gss_accept_token_size || memcmp(data + ACCEPT_TAG, accept_tag, sizeof accept_tag) != 0) {
        return GSS_MINOR_PARAMETER;
    }
    if (data[ACCEPT_ERROR] != 0) {
        return GSS_MINOR_NOT_ACCEPTED;
    }
    opened<gss_accept_token_size> token(data);
    decipher(session, token.bytes + ACCEPT_HASH, accept_sealed_size);
    if (!hash_is_good(token.bytes, ACCEPT_HASH, gss_accept_token_size)) {
        return GSS_MINOR_HASH;
    }
    if (memcmp(token.bytes + ACCEPT_REFERENCE, g_RefCode, sizeof g_RefCode) != 0 ||
        token.bytes[ACCEPT_TYPE] != TOKEN_ACCEPT ||
        TransToUInt32(token.bytes + ACCEPT_VERSION) != token_version) {
        return GSS_MINOR_VERSION;
    }
    decipher(session, token.bytes + ACCEPT_VECTOR, gss_key_size);
    out->m_ErrCode = 0;
    out->m_DestCtxID = TransToUInt32(token.bytes + ACCEPT_CONTEXT);
    memcpy(out->m_pIV, token.bytes + ACCEPT_VECTOR, sizeof out->m_pIV);
    memcpy(out->m_pPIHash, token.bytes + ACCEPT_PLUGIN_HASH, sizeof out->m_pPIHash);
    return 0;
}

void constructCredToken(const credential_token& in, const aes_key& transfer,
                        uint8_t out[gss_credential_token_size]) {
    memset(out, 0, gss_credential_token_size);
    memcpy(out + CRED_TAG, credential_tag, sizeof credential_tag);
    memcpy(out + CRED_REFERENCE, g_RefCode, sizeof g_RefCode);
    out[CRED_TYPE] = TOKEN_CREDENTIAL;
    UInt32ToTrans(in.context_id, out + CRED_CONTEXT);
    UInt32ToTrans(token_version, out + CRED_VERSION);
    UInt32ToTrans(in.flags, out + CRED_FLAGS);
    memcpy(out + CRED_TARGET, in.target_name, sizeof in.target_name);
    memcpy(out + CRED_SESSION_KEY, in.session_key.data(), gss_key_size);
    memcpy(out + CRED_INIT_TOKEN, in.init_token_bytes, sizeof in.init_token_bytes);
    MD5Generate(out + CRED_REFERENCE, gss_credential_token_size - CRED_REFERENCE, out + CRED_HASH);
    encipher(transfer, out + CRED_SEALED, gss_credential_token_size - CRED_SEALED);
}

OM_uint32 splitCredToken(const uint8_t data[gss_credential_token_size], const aes_key& transfer,
                         credential_token* out) {
    opened<gss_credential_token_size> token(data);
    decipher(transfer, token.bytes + CRED_SEALED, gss_credential_token_size - CRED_SEALED);
    bool good = memcmp(token.bytes + CRED_TAG, credential_tag, sizeof credential_tag) == 0 &&
                memcmp(token.bytes + CRED_REFERENCE, g_RefCode, sizeof g_RefCode) == 0 &&
                token.bytes[CRED_TYPE] == TOKEN_CREDENTIAL &&
                TransToUInt32(token.bytes + CRED_VERSION) == token_version &&
                hash_is_good(token.bytes, CRED_HASH, gss_credential_token_size) &&
                init_head_is_good(token.bytes + CRED_INIT_TOKEN, false);
    if (!good) {
        return GSS_MINOR_CREDENTIAL;
    }
    out->context_id = TransToUInt32(token.bytes + CRED_CONTEXT);
    out->flags = TransToUInt32(token.bytes + CRED_FLAGS);
    memcpy(out->target_name, token.bytes + CRED_TARGET, sizeof out->target_name);
    memcpy(out->session_key.data(), token.bytes + CRED_SESSION_KEY, gss_key_size);
    memcpy(out->init_token_bytes, token.bytes + CRED_INIT_TOKEN, sizeof out->init_token_bytes);
    return 0;
}
