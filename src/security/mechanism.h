// The security mechanism under the calling form of the GSS-API: names, credentials, contexts, tokens and
// sealed messages. Two sides that share a transfer key establish a context with an init token and an accept
// token; messages are then sealed with AES and MD5.
//
// Each call returns the major status (0 is good, 1 "further processing is needed") and sets the minor status.
// Handles belong to the caller and are ended by their release call, which wipes them, accepts a null handle
// and sets it to null. Buffers that a call returns are released with gss_release_buffer. A context is used by
// one thread for each direction; the other records by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "base/memory.h"
#include "security/aes.h"

using OM_uint32 = uint32_t;
using gss_qop_t = uint32_t;

// ---- numbers

enum gss_major_status : OM_uint32 {
    GSS_S_COMPLETE = 0,
    GSS_S_CONTINUE_NEEDED = 1,
    GSS_S_DUPLICATE_TOKEN = 2,
    GSS_S_OLD_TOKEN = 4,
    GSS_S_UNSEQ_TOKEN = 8,
    GSS_S_GAP_TOKEN = 16,
    GSS_S_BAD_MECH = 0x10000,
    GSS_S_BAD_NAME = 0x20000,
    GSS_S_BAD_NAMETYPE = 0x30000,
    GSS_S_BAD_BINDINGS = 0x40000,
    GSS_S_BAD_STATUS = 0x50000,
    GSS_S_BAD_SIG = 0x60000,
    GSS_S_NO_CRED = 0x70000,
    GSS_S_NO_CONTEXT = 0x80000,
    GSS_S_DEFECTIVE_TOKEN = 0x90000,
    GSS_S_DEFECTIVE_CREDENTIAL = 0xA0000,
    GSS_S_CREDENTIALS_EXPIRED = 0xB0000,
    GSS_S_CONTEXT_EXPIRED = 0xC0000,
    GSS_S_FAILURE = 0xD0000,
    GSS_S_BAD_QOP = 0xE0000,
    GSS_S_UNAUTHORIZED = 0xF0000,
    GSS_S_UNAVAILABLE = 0x100000,
    GSS_S_DUPLICATE_ELEMENT = 0x110000,
    GSS_S_NAME_NOT_MN = 0x120000,
};

enum gss_minor_status : OM_uint32 {
    GSS_MINOR_OUTPUT_MISSING = 1001,
    GSS_MINOR_PARAMETER = 1002,
    GSS_MINOR_MEMORY = 1003,
    GSS_MINOR_CALLBACK = 1004,
    GSS_MINOR_CRYPTO = 1005,
    GSS_MINOR_HASH = 1006,
    GSS_MINOR_DECRYPT = 1007,
    GSS_MINOR_VERSION = 1008,
    GSS_MINOR_NOT_ACCEPTED = 1009,
    GSS_MINOR_NO_CALLBACK = 1010,
    GSS_MINOR_CREDENTIAL = 1011,
    GSS_MINOR_TRANSFER_KEY = 1012,
    GSS_MINOR_QOP = 1013,
    GSS_MINOR_KEY_MANAGER = 1014,
    GSS_MINOR_PLUGIN_HASH = 1015,
    GSS_MINOR_BYTE_ORDER = 1016,
};

enum gss_context_flag : OM_uint32 {
    GSS_C_DELEG_FLAG = 1,
    GSS_C_MUTUAL_FLAG = 2,
    GSS_C_REPLAY_FLAG = 4,
    GSS_C_SEQUENCE_FLAG = 8,
    GSS_C_CONF_FLAG = 16,
    GSS_C_INTEG_FLAG = 32,
    GSS_C_ANON_FLAG = 64,
    GSS_C_PROT_READY_FLAG = 128,
};

enum gss_context_state : uint8_t {
    GSS_CTX_NONE = 0,
    GSS_CTX_AWAITS_ACCEPT = 1,
    GSS_CTX_ACCEPTED = 2,  // established, acceptor's side
    GSS_CTX_FAILED = 3,
    GSS_CTX_INITIATED = 4,  // established, initiator's side
};

enum gss_cred_usage_t : int {
    GSS_C_BOTH = 0,
    GSS_C_INITIATE = 1,
    GSS_C_ACCEPT = 2,
};

inline constexpr int GSS_C_GSS_CODE = 1;
inline constexpr int GSS_C_MECH_CODE = 2;
inline constexpr OM_uint32 GSS_C_INDEFINITE = 0xFFFFFFFF;

inline constexpr size_t gss_key_size = 32;
inline constexpr size_t gss_name_size = 32;
inline constexpr size_t gss_init_token_size = 151;
inline constexpr size_t gss_credential_token_size = 255;
inline constexpr size_t gss_init_token_with_credential_size = gss_init_token_size + gss_credential_token_size;
inline constexpr size_t gss_accept_token_size = 100;
inline constexpr size_t gss_sealed_head_size = 34;  // inner head of a sealed message
inline constexpr size_t gss_sealed_tag_size = 6;    // outer tag and length at most
// What a sealed message can be longer than its plain form.
inline constexpr size_t gss_seal_overhead = gss_sealed_tag_size + gss_sealed_head_size + 15;

// ---- buffers and object identifiers

struct gss_buffer_desc {
    size_t length = 0;
    void* value = nullptr;
};
using gss_buffer_t = gss_buffer_desc*;

struct gss_OID_desc {
    OM_uint32 length;
    const uint8_t* elements;
};
using gss_OID = const gss_OID_desc*;

struct gss_OID_set_desc {
    std::vector<gss_OID> members;  // only identifiers of this mechanism's constant tables
};
using gss_OID_set = gss_OID_set_desc*;

extern const gss_OID GSS_MECH_KLVT_QX7;
extern const gss_OID GSS_C_NT_MACHINE_UID_NAME;
extern const gss_OID GSS_C_NT_USER_NAME;
extern const gss_OID GSS_C_NT_ANONYMOUS;

// ---- records

struct gss_name_struct {
    gss_OID m_MechOID = nullptr;
    gss_OID m_NameTypeOID = nullptr;
    std::vector<char> m_Name;
    OM_uint32 m_Idnr = 0;
};
using gss_name_t = gss_name_struct*;

struct gss_cred_entry {
    qx_secret<gss_key_size> m_Imp_SessionKey;  // from a delegated credential token
    std::vector<uint8_t> m_Imp_ContToken;      // likewise: the init token to be presented, else empty
    OM_uint32 m_CtxId = 0;
    OM_uint32 m_Imp_CtxFlag = 0;
    qx_secret<gss_key_size> m_TransferKey;
    uint8_t m_UsageCode = GSS_C_BOTH;
    char m_CredName[gss_name_size + 1] = {};
};

// Entry 0 is the side's own. An initiator that delegates holds the target's as entry 1.
struct gss_cred_id_struct {
    int m_CredAry_Cnt = 0;
    gss_cred_entry m_CredAry[2];
    gss_OID m_NameTypeOID = nullptr;
};
using gss_cred_id_t = gss_cred_id_struct*;
inline constexpr gss_cred_id_t GSS_C_NO_CREDENTIAL = nullptr;

struct gss_ctx_id_struct {
    OM_uint32 m_CtxID = 0;
    OM_uint32 m_PartnerCtxID = 0;
    OM_uint32 m_InMsgCounter = 0;
    OM_uint32 m_OutMsgCounter = 0;
    qx_secret<gss_key_size> m_SessionKey;
    qx_secret<gss_key_size> m_InitVect;
    char m_PartnerName[gss_name_size] = {};  // zero-padded; not terminated when it fills the field
    uint8_t m_CtxState = GSS_CTX_NONE;
    OM_uint32 m_ReqFlags = 0;
    gss_cred_id_t m_CtxCred = nullptr;  // owned
    aes_key full_key;                   // of all 32 bytes of the session key
    aes_key short_keys[2];              // of its first 16 and 24 bytes, for QOP 1 and 2

    gss_ctx_id_struct() = default;
    ~gss_ctx_id_struct();
    gss_ctx_id_struct(const gss_ctx_id_struct&) = delete;
    gss_ctx_id_struct& operator=(const gss_ctx_id_struct&) = delete;
};
using gss_ctx_id_t = gss_ctx_id_struct*;

// The partner's name up to its padding; it lives as long as the context.
std::string_view gss_partner_name(const gss_ctx_id_struct& context);

// The interface to the key manager. Each returns 0 or one of its numbers from 5000 on.
struct _GSS_Callbacks {
    int (*mf_getKeyEX)(std::string_view name, OM_uint32 idnr, uint8_t key[gss_key_size]);
    // `fields` is the name's record split at its separator.
    int (*mf_getKeyGUI)(const std::vector<std::string_view>& fields, uint8_t key[gss_key_size]);
    int (*mf_getDefKeyGUI)(const std::vector<std::string_view>& fields, uint8_t key[gss_key_size]);
    int (*mf_getNewSessionKey)(uint8_t key[gss_key_size]);
    int (*mf_checkPIHash)(std::string_view plugin, const uint8_t hash[16]);
    int (*mf_getPIName)(char name[gss_name_size]);
    int (*mf_getPIHash)(std::string_view plugin, uint8_t hash[16]);
};

// Sets the callbacks, module-wide; null takes them away. Called before other threads use the mechanism.
void gss_setCallbacks(const _GSS_Callbacks* callbacks);

// ---- names

// `type` null is a machine name. Zero bytes at the end of a name don't belong to it.
OM_uint32 gss_import_name(OM_uint32* minor, const gss_buffer_desc* input, gss_OID type, gss_name_t* output);
OM_uint32 gss_compare_name(OM_uint32* minor, gss_name_t a, gss_name_t b, int* equal);
OM_uint32 gss_duplicate_name(OM_uint32* minor, gss_name_t source, gss_name_t* copy);
OM_uint32 gss_release_name(OM_uint32* minor, gss_name_t* name);
OM_uint32 gss_inquire_names_for_mech(OM_uint32* minor, gss_OID mech, gss_OID_set* types);
OM_uint32 gss_inquire_mechs_for_name(OM_uint32* minor, gss_name_t name, gss_OID_set* mechs);
OM_uint32 gss_display_name(OM_uint32* minor, gss_name_t name, gss_buffer_t text, gss_OID* type);
OM_uint32 gss_export_name(OM_uint32* minor, gss_name_t name, gss_buffer_t output);
OM_uint32 gss_canonicalize_name(OM_uint32* minor, gss_name_t name, gss_OID mech, gss_name_t* output);

// ---- credentials

// Fetches the transfer key of `name` from the key manager. No key: minor 1004, major GSS_S_NO_CRED.
OM_uint32 gss_acquire_cred(OM_uint32* minor, gss_name_t name, OM_uint32 time, gss_OID_set mechs, int usage,
                           gss_cred_id_t* cred, gss_OID_set* actual_mechs, OM_uint32* actual_time);
// A credential whose transfer key the caller knows already: a server's for one agent. `name` is the name that
// an init token made with it will carry as initiator.
OM_uint32 gss_acquire_cred_with_key(OM_uint32* minor, std::string_view name, const uint8_t key[gss_key_size],
                                    int usage, gss_cred_id_t* cred);
// Adds the credential of `name` to `input`, which becomes entry 1; `output` null changes `input` itself.
OM_uint32 gss_add_cred(OM_uint32* minor, gss_cred_id_t input, gss_name_t name, gss_OID mech, int usage,
                       OM_uint32 initiator_time, OM_uint32 acceptor_time, gss_cred_id_t* output,
                       gss_OID_set* actual_mechs, OM_uint32* initiator_rec, OM_uint32* acceptor_rec);
// The same with a key that the caller knows: the target that a delegation is for.
OM_uint32 gss_add_cred_with_key(OM_uint32* minor, gss_cred_id_t cred, std::string_view name,
                                const uint8_t key[gss_key_size], int usage);
OM_uint32 gss_inquire_cred(OM_uint32* minor, gss_cred_id_t cred, gss_name_t* name, OM_uint32* lifetime,
                           int* usage, gss_OID_set* mechs);
OM_uint32 gss_inquire_cred_by_mech(OM_uint32* minor, gss_cred_id_t cred, gss_OID mech, gss_name_t* name,
                                   OM_uint32* initiator_lifetime, OM_uint32* acceptor_lifetime, int* usage);
OM_uint32 gss_duplicateCred(OM_uint32* minor, gss_cred_id_t source, gss_cred_id_t* copy);
OM_uint32 gss_release_cred(OM_uint32* minor, gss_cred_id_t* cred);

// ---- contexts

// The initiator. First call (`*context` null, no input): makes the init token. Result 1.
//   With a delegated credential and without GSS_C_DELEG_FLAG the token inside the credential is presented.
//   With GSS_C_DELEG_FLAG and a credential of two entries the output has 406 bytes: it gives `target` the
//   right to present itself to the name of entry 1.
// Second call (`*context` in state 1): takes the accept token. Result 0.
// A failure of the first call leaves `*context` null; one of the second leaves it in state 3, the caller
// releases it.
OM_uint32 gss_init_sec_context(OM_uint32* minor, gss_cred_id_t cred, gss_ctx_id_t* context, gss_name_t target,
                               gss_OID mech, OM_uint32 req_flags, OM_uint32 time, const void* bindings,
                               const gss_buffer_desc* input, gss_OID* actual_mech, gss_buffer_t output,
                               OM_uint32* ret_flags, OM_uint32* actual_time);

// The acceptor: takes an init token of 151 or 406 bytes, makes the context and the accept token. Result 0.
// `source_name` and `delegated` may be null; `*delegated` is null when the token delegates nothing.
// On failure nothing is returned.
OM_uint32 gss_accept_sec_context(OM_uint32* minor, gss_ctx_id_t* context, gss_cred_id_t cred,
                                 const gss_buffer_desc* input, const void* bindings, gss_name_t* source_name,
                                 gss_OID* mech, gss_buffer_t output, OM_uint32* ret_flags, OM_uint32* time,
                                 gss_cred_id_t* delegated);

// Wipes and frees; `output` gets no token.
OM_uint32 gss_delete_sec_context(OM_uint32* minor, gss_ctx_id_t* context, gss_buffer_t output);
// There are no such tokens: GSS_S_DEFECTIVE_TOKEN.
OM_uint32 gss_process_context_token(OM_uint32* minor, gss_ctx_id_t context, const gss_buffer_desc* token);
// Whether the bytes look like an init token of this mechanism: head, object identifier, length.
bool gss_is_init_token(const uint8_t* data, size_t length);
// Contexts don't leave their process: GSS_S_UNAVAILABLE.
OM_uint32 gss_export_sec_context(OM_uint32* minor, gss_ctx_id_t* context, gss_buffer_t output);
OM_uint32 gss_import_sec_context(OM_uint32* minor, const gss_buffer_desc* input, gss_ctx_id_t* context);
OM_uint32 gss_context_time(OM_uint32* minor, gss_ctx_id_t context, OM_uint32* time);
OM_uint32 gss_inquire_context(OM_uint32* minor, gss_ctx_id_t context, gss_name_t* source, gss_name_t* target,
                              OM_uint32* lifetime, gss_OID* mech, OM_uint32* flags, int* locally_initiated,
                              int* open);

// ---- sealed messages

// How long the sealed form of `length` plain bytes is; 0 when it can't be sealed (length 0, or above 2^32 -
// 64).
size_t CalcMsgSize(size_t length);

// Seals `input` into a new buffer. `conf` 0 leaves the data plain, under the hash only.
OM_uint32 gss_wrap(OM_uint32* minor, gss_ctx_id_t context, int conf, gss_qop_t qop,
                   const gss_buffer_desc* input, int* conf_state, gss_buffer_t output);
// The same into memory of the caller, without a copy: `output` holds CalcMsgSize(input.size()) bytes at
// least, else minor 1002; `input` and `output` don't overlap. `*written` is the length used.
OM_uint32 gss_wrap_ex(OM_uint32* minor, gss_ctx_id_t context, int conf, gss_qop_t qop,
                      std::span<const uint8_t> input, std::span<uint8_t> output, size_t* written);
// In two steps: the message is sealed as the one behind the last, and counts once gss_use_ahead is called
// with the
// `counter` that it got. False: others were sealed meanwhile, and it must be sealed anew.
OM_uint32 gss_wrap_ahead(OM_uint32* minor, const gss_ctx_id_struct* context, int conf, gss_qop_t qop,
                         std::span<const uint8_t> input, std::span<uint8_t> output, size_t* written,
                         uint32_t* counter);
bool gss_use_ahead(gss_ctx_id_t context, uint32_t counter);

// Opens `input` into a new buffer. A counter that runs ahead shows as supplementary status 8 with the
// sequence flag; context id and counter are judged no further.
OM_uint32 gss_unwrap(OM_uint32* minor, gss_ctx_id_t context, const gss_buffer_desc* input,
                     gss_buffer_t output, int* conf_state, gss_qop_t* qop_state);
// What a channel uses: opens into memory of the caller (input.size() bytes are enough) and refuses, beyond
// that,
//   a context id other than the own: GSS_S_NO_CONTEXT, minor 1002
//   a counter other than the next: GSS_S_UNSEQ_TOKEN, or GSS_S_DUPLICATE_TOKEN when it is not above the last,
//     minor 1002
//   QOP 0 while `own_qop` isn't 0: GSS_S_BAD_QOP, minor 1013
// `output` is the place of the data inside `input` or doesn't overlap it. A refused message leaves no plain
// text in `output` and doesn't count.
OM_uint32 gss_unwrap_ex(OM_uint32* minor, gss_ctx_id_t context, gss_qop_t own_qop,
                        std::span<const uint8_t> input, std::span<uint8_t> output, size_t* written,
                        gss_qop_t* qop_state);

// The longest plain text whose sealed form is at most `output_size` bytes.
OM_uint32 gss_wrap_size_limit(OM_uint32* minor, gss_ctx_id_t context, int conf, gss_qop_t qop,
                              OM_uint32 output_size, OM_uint32* input_size);
// Signatures apart from the message don't exist here: GSS_S_UNAVAILABLE.
OM_uint32 gss_get_mic(OM_uint32* minor, gss_ctx_id_t context, gss_qop_t qop, const gss_buffer_desc* message,
                      gss_buffer_t token);
OM_uint32 gss_verify_mic(OM_uint32* minor, gss_ctx_id_t context, const gss_buffer_desc* message,
                         const gss_buffer_desc* token, gss_qop_t* qop_state);

// ---- buffers, sets, texts

OM_uint32 gss_release_buffer(OM_uint32* minor, gss_buffer_t buffer);
OM_uint32 gss_create_empty_oid_set(OM_uint32* minor, gss_OID_set* set);
OM_uint32 gss_add_oid_set_member(OM_uint32* minor, gss_OID member, gss_OID_set* set);
OM_uint32 gss_test_oid_set_member(OM_uint32* minor, gss_OID member, gss_OID_set set, int* present);
OM_uint32 gss_release_oid_set(OM_uint32* minor, gss_OID_set* set);
// Identifiers are constants of the program: the pointer is cleared, nothing is freed.
OM_uint32 gss_release_OID(OM_uint32* minor, gss_OID* oid);
bool gss_compareOID(gss_OID a, gss_OID b);
OM_uint32 gss_copyOID(OM_uint32* minor, gss_OID source, gss_OID* copy);
OM_uint32 gss_indicate_mechs(OM_uint32* minor, gss_OID_set* mechs);

// The text of a status: `type` GSS_C_GSS_CODE for a major, GSS_C_MECH_CODE for a minor one, those of the key
// manager included. `*message_context` goes from 0 through the texts of a major status with several parts and
// back to 0.
OM_uint32 gss_display_status(OM_uint32* minor, OM_uint32 status, int type, gss_OID mech,
                             OM_uint32* message_context, gss_buffer_t text);
// The same text without a buffer.
const char* gss_minor_text(OM_uint32 minor);
