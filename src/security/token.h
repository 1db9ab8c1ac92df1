// The bytes of init, accept and credential tokens. Both sides build and split them here.
// Splitting returns 0 or the minor status that says what is wrong.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/memory.h"
#include "security/mechanism.h"

enum token_type : uint8_t {
    TOKEN_INIT = 1,
    TOKEN_ACCEPT = 2,
    TOKEN_CREDENTIAL = 4,
};

inline constexpr uint32_t token_version = 1;

struct init_token {
    uint32_t m_SrcCtxID = 0;
    uint32_t m_Req_Flags = 0;
    char m_pCodName[gss_name_size] = {};  // the initiator's name, zero-padded
    qx_secret<gss_key_size> m_pCodSessionKey;
    char m_pPlugInName[gss_name_size] = {};
    bool has_credential = false;
};

struct accept_token {
    uint8_t m_ErrCode = 0;
    uint32_t m_DestCtxID = 0;
    uint8_t m_pIV[gss_key_size] = {};
    uint8_t m_pPIHash[16] = {};
};

struct credential_token {
    uint32_t context_id = 0;
    uint32_t flags = 0;
    char target_name[gss_name_size] = {};
    qx_secret<gss_key_size> session_key;
    uint8_t init_token_bytes[gss_init_token_size] = {};  // for the target, under its own key
};

// Numbers in network order.
void UInt32ToTrans(uint32_t value, uint8_t out[4]);
uint32_t TransToUInt32(const uint8_t in[4]);

// `transfer` is the acceptor's transfer key. The credential, if any, is written behind by constructCredToken.
void constructInitToken(const init_token& in, const aes_key& transfer, uint8_t out[gss_init_token_size]);
OM_uint32 splitInitToken(const uint8_t* data, size_t length, const aes_key& transfer, init_token* out);

// `session` is the session key. An `m_ErrCode` other than 0 makes a token that refuses.
void constructAcceptToken(const accept_token& in, const aes_key& session, uint8_t out[gss_accept_token_size]);
OM_uint32 splitAcceptToken(const uint8_t* data, size_t length, const aes_key& session, accept_token* out);

// As it stands behind an init token; `transfer` is the key of that init token.
void constructCredToken(const credential_token& in, const aes_key& transfer,
                        uint8_t out[gss_credential_token_size]);
OM_uint32 splitCredToken(const uint8_t data[gss_credential_token_size], const aes_key& transfer,
                         credential_token* out);
