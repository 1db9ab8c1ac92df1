// Contexts: the two steps of the initiator and the one of the acceptor.
#include <string.h>

#include <algorithm>
#include <memory>
#include <new>

#include "base/text.h"
#include "security/credentials.h"
#include "security/mechanism.h"
#include "security/random.h"
#include "security/token.h"

namespace {

// The flags that a context reports to its caller.
constexpr OM_uint32 passed_flags =
    GSS_C_REPLAY_FLAG | GSS_C_SEQUENCE_FLAG | GSS_C_CONF_FLAG | GSS_C_INTEG_FLAG;

OM_uint32 result(OM_uint32* minor, OM_uint32 minor_value, OM_uint32 major) {
    if (minor != nullptr) {
        *minor = minor_value;
    }
    return major;
}

OM_uint32 reported_flags(OM_uint32 requested) {
    OM_uint32 flags = requested & passed_flags;
    return (requested & (GSS_C_CONF_FLAG | GSS_C_INTEG_FLAG)) != 0 ? flags | GSS_C_PROT_READY_FLAG : flags;
}

// Zero-padded, cut at the field.
void put_name(char field[gss_name_size], std::string_view name) {
    memset(field, 0, gss_name_size);
    memcpy(field, name.data(), std::min(name.size(), gss_name_size));
}

std::string_view padded_name(const char field[gss_name_size]) {
    return {field, strnlen(field, gss_name_size)};
}

std::string_view name_text(const gss_name_struct& name) {
    return {name.m_Name.data(), name.m_Name.size()};
}

// The schedules of the session key for every QOP.
void expand_session_key(gss_ctx_id_struct* context) {
    aes_set_key(&context->full_key, context->m_SessionKey.span());
    aes_set_key(&context->short_keys[0], context->m_SessionKey.span().first<16>());
    aes_set_key(&context->short_keys[1], context->m_SessionKey.span().first<24>());
}

bool is_machine_name(const gss_cred_id_struct& cred) {
    return gss_compareOID(cred.m_NameTypeOID, GSS_C_NT_MACHINE_UID_NAME);
}

OM_uint32 callback_result(int answer, OM_uint32 minor) {
    return answer == 0 ? 0 : minor;
}

// Fails with the minor status of a callback that is missing or says no.
OM_uint32 plugin_name(const gss_cred_id_struct& cred, char name[gss_name_size]) {
    if (!is_machine_name(cred)) {
        return 0;
    }
    if (gss_callbacks().mf_getPIName == nullptr) {
        return GSS_MINOR_NO_CALLBACK;
    }
    return callback_result(gss_callbacks().mf_getPIName(name), GSS_MINOR_CALLBACK);
}

OM_uint32 new_session_key(gss_ctx_id_struct* context) {
    if (gss_callbacks().mf_getNewSessionKey == nullptr) {
        return GSS_MINOR_NO_CALLBACK;
    }
    return callback_result(gss_callbacks().mf_getNewSessionKey(context->m_SessionKey.data()),
                           GSS_MINOR_CALLBACK);
}

OM_uint32 give_buffer(OM_uint32* minor, const uint8_t* bytes, size_t length, gss_buffer_t output) {
    output->value = mem_alloc_copy(bytes, length);
    if (output->value == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    output->length = length;
    return result(minor, 0, GSS_S_COMPLETE);
}

init_token token_of(const gss_ctx_id_struct& context, std::string_view initiator, OM_uint32 flags) {
    init_token token;
    token.m_SrcCtxID = context.m_CtxID;
    token.m_Req_Flags = flags;
    put_name(token.m_pCodName, initiator);
    token.m_pCodSessionKey = context.m_SessionKey;
    return token;
}

// The right to present oneself to the credential's second name, for `target`, who will be the initiator then.
void append_credential(const gss_ctx_id_struct& context, const gss_cred_entry& second,
                       std::string_view target, const aes_key& transfer, uint8_t* out) {
    OM_uint32 flags = context.m_ReqFlags & ~static_cast<OM_uint32>(GSS_C_DELEG_FLAG);
    aes_key second_key;
    aes_set_key(&second_key, second.m_TransferKey.span());
    credential_token credential;
    constructInitToken(token_of(context, target, flags), second_key, credential.init_token_bytes);
    credential.context_id = context.m_CtxID;
    credential.flags = flags;
    put_name(credential.target_name, second.m_CredName);
    credential.session_key = context.m_SessionKey;
    constructCredToken(credential, transfer, out);
}

OM_uint32 constructTokens(OM_uint32* minor, const gss_ctx_id_struct& context, gss_buffer_t output) {
    const gss_cred_id_struct& cred = *context.m_CtxCred;
    const gss_cred_entry& own = cred.m_CredAry[0];
    bool delegates = (context.m_ReqFlags & GSS_C_DELEG_FLAG) != 0;
    if (delegates && cred.m_CredAry_Cnt < 2) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CRED);
    }
    init_token token = token_of(context, own.m_CredName, context.m_ReqFlags);
    token.has_credential = delegates;
    OM_uint32 failed = plugin_name(cred, token.m_pPlugInName);
    if (failed != 0) {
        return result(minor, failed, GSS_S_FAILURE);
    }
    aes_key transfer;
    aes_set_key(&transfer, own.m_TransferKey.span());
    uint8_t bytes[gss_init_token_with_credential_size];
    constructInitToken(token, transfer, bytes);
    if (delegates) {
        append_credential(context, cred.m_CredAry[1], padded_name(context.m_PartnerName), transfer,
                          bytes + gss_init_token_size);
    }
    return give_buffer(minor, bytes, delegates ? gss_init_token_with_credential_size : gss_init_token_size,
                       output);
}

// Presents the token that came inside a delegated credential.
OM_uint32 reuse_delegated(OM_uint32* minor, gss_ctx_id_struct* context, gss_buffer_t output) {
    const gss_cred_entry& entry = context->m_CtxCred->m_CredAry[0];
    context->m_CtxID = entry.m_CtxId;
    context->m_SessionKey = entry.m_Imp_SessionKey;
    return give_buffer(minor, entry.m_Imp_ContToken.data(), entry.m_Imp_ContToken.size(), output);
}

OM_uint32 gss_init_sec_context1(OM_uint32* minor, gss_cred_id_t cred, gss_ctx_id_t* context,
                                gss_name_t target, OM_uint32 req_flags, gss_buffer_t output) {
    std::unique_ptr<gss_ctx_id_struct> made(new (std::nothrow) gss_ctx_id_struct);
    if (made == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    made->m_ReqFlags = req_flags;
    put_name(made->m_PartnerName, name_text(*target));
    OM_uint32 major = cred != nullptr ? gss_duplicateCred(minor, cred, &made->m_CtxCred)
                                      : gss_acquire_cred(minor, target, GSS_C_INDEFINITE, nullptr,
                                                         GSS_C_INITIATE, &made->m_CtxCred, nullptr, nullptr);
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    const gss_cred_entry& own = made->m_CtxCred->m_CredAry[0];
    if (made->m_CtxCred->m_CredAry_Cnt == 0 || own.m_UsageCode == GSS_C_ACCEPT) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CRED);
    }
    if (!own.m_Imp_ContToken.empty() && (req_flags & GSS_C_DELEG_FLAG) == 0) {
        major = reuse_delegated(minor, made.get(), output);
    } else {
        gss_GetRandom(&made->m_CtxID, sizeof made->m_CtxID);
        OM_uint32 failed = new_session_key(made.get());
        if (failed != 0) {
            return result(minor, failed, GSS_S_FAILURE);
        }
        major = constructTokens(minor, *made, output);
    }
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    expand_session_key(made.get());
    made->m_CtxState = GSS_CTX_AWAITS_ACCEPT;
    *context = made.release();
    return result(minor, 0, GSS_S_CONTINUE_NEEDED);
}

OM_uint32 check_plugin_hash(const gss_ctx_id_struct& context, const accept_token& token) {
    if (context.m_CtxCred == nullptr || !is_machine_name(*context.m_CtxCred)) {
        return 0;
    }
    if (gss_callbacks().mf_checkPIHash == nullptr) {
        return GSS_MINOR_NO_CALLBACK;
    }
    return callback_result(gss_callbacks().mf_checkPIHash("", token.m_pPIHash), GSS_MINOR_PLUGIN_HASH);
}

OM_uint32 gss_init_sec_context2(OM_uint32* minor, gss_ctx_id_struct* context, const gss_buffer_desc& input) {
    accept_token token;
    OM_uint32 wrong =
        splitAcceptToken(static_cast<const uint8_t*>(input.value), input.length, context->full_key, &token);
    if (wrong == 0) {
        wrong = check_plugin_hash(*context, token);
    }
    if (wrong != 0) {
        context->m_CtxState = GSS_CTX_FAILED;
        return result(minor, wrong, GSS_S_DEFECTIVE_TOKEN);
    }
    memcpy(context->m_InitVect.data(), token.m_pIV, sizeof token.m_pIV);
    context->m_PartnerCtxID = token.m_DestCtxID;
    context->m_CtxState = GSS_CTX_INITIATED;
    qx_wipe(&token, sizeof token);
    return result(minor, 0, GSS_S_COMPLETE);
}

// The credential behind an init token as one that can be presented.
OM_uint32 GetCredFromToken(OM_uint32* minor, const uint8_t* bytes, const aes_key& transfer,
                           gss_cred_id_t* delegated) {
    credential_token token;
    OM_uint32 wrong = splitCredToken(bytes, transfer, &token);
    if (wrong != 0) {
        return result(minor, wrong, GSS_S_DEFECTIVE_TOKEN);
    }
    qx_secret<gss_key_size> no_key;
    OM_uint32 major = gss_acquire_cred_with_key(minor, padded_name(token.target_name), no_key.data(),
                                                GSS_C_INITIATE, delegated);
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    gss_cred_entry& entry = (*delegated)->m_CredAry[0];
    entry.m_CtxId = token.context_id;
    entry.m_Imp_CtxFlag = token.flags;
    entry.m_Imp_SessionKey = token.session_key;
    entry.m_Imp_ContToken.assign(std::begin(token.init_token_bytes), std::end(token.init_token_bytes));
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 answer_token(OM_uint32* minor, const gss_ctx_id_struct& context, const char* plugin,
                       gss_buffer_t output) {
    accept_token token;
    token.m_DestCtxID = context.m_CtxID;
    memcpy(token.m_pIV, context.m_InitVect.data(), sizeof token.m_pIV);
    if (gss_callbacks().mf_getPIHash == nullptr) {
        return result(minor, GSS_MINOR_NO_CALLBACK, GSS_S_FAILURE);
    }
    if (gss_callbacks().mf_getPIHash(padded_name(plugin), token.m_pPIHash) != 0) {
        return result(minor, GSS_MINOR_CALLBACK, GSS_S_FAILURE);
    }
    uint8_t bytes[gss_accept_token_size];
    constructAcceptToken(token, context.full_key, bytes);
    qx_wipe(&token, sizeof token);
    return give_buffer(minor, bytes, sizeof bytes, output);
}

void fill_accepted(gss_ctx_id_struct* context, const init_token& token) {
    gss_GetRandom(&context->m_CtxID, sizeof context->m_CtxID);
    gss_GetRandom(context->m_InitVect.data(), gss_key_size);
    context->m_PartnerCtxID = token.m_SrcCtxID;
    context->m_ReqFlags = token.m_Req_Flags;
    context->m_SessionKey = token.m_pCodSessionKey;
    memcpy(context->m_PartnerName, token.m_pCodName, gss_name_size);
    context->m_CtxState = GSS_CTX_ACCEPTED;
    expand_session_key(context);
}

OM_uint32 import_partner(OM_uint32* minor, const gss_ctx_id_struct& context, gss_name_t* source_name) {
    std::string_view name = gss_partner_name(context);
    gss_buffer_desc text{name.size(), const_cast<char*>(name.data())};
    return gss_import_name(minor, &text, GSS_C_NT_MACHINE_UID_NAME, source_name);
}

}  // namespace

gss_ctx_id_struct::~gss_ctx_id_struct() {
    gss_release_cred(nullptr, &m_CtxCred);
}

std::string_view gss_partner_name(const gss_ctx_id_struct& context) {
    return padded_name(context.m_PartnerName);
}

OM_uint32 gss_init_sec_context(OM_uint32* minor, gss_cred_id_t cred, gss_ctx_id_t* context, gss_name_t target,
                               gss_OID mech, OM_uint32 req_flags, OM_uint32, const void*,
                               const gss_buffer_desc* input, gss_OID* actual_mech, gss_buffer_t output,
                               OM_uint32* ret_flags, OM_uint32* actual_time) {
    if (context == nullptr || output == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *output = {};
    if (mech != nullptr && !gss_compareOID(mech, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    bool has_input = input != nullptr && input->length != 0 && input->value != nullptr;
    OM_uint32 major;
    if (*context == nullptr && !has_input) {
        if (target == nullptr || target->m_Name.empty()) {
            return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
        }
        major = gss_init_sec_context1(minor, cred, context, target, req_flags, output);
    } else if (*context != nullptr && has_input && (*context)->m_CtxState == GSS_CTX_AWAITS_ACCEPT) {
        major = gss_init_sec_context2(minor, *context, *input);
    } else {
        return result(minor, GSS_MINOR_PARAMETER,
                      *context == nullptr ? GSS_S_DEFECTIVE_TOKEN : GSS_S_NO_CONTEXT);
    }
    if (major > GSS_S_CONTINUE_NEEDED) {
        return major;
    }
    if (actual_mech != nullptr) {
        *actual_mech = GSS_MECH_KLVT_QX7;
    }
    if (ret_flags != nullptr) {
        *ret_flags = reported_flags((*context)->m_ReqFlags);
    }
    if (actual_time != nullptr) {
        *actual_time = GSS_C_INDEFINITE;
    }
    return major;
}

OM_uint32 gss_accept_sec_context(OM_uint32* minor, gss_ctx_id_t* context, gss_cred_id_t cred,
                                 const gss_buffer_desc* input, const void*, gss_name_t* source_name,
                                 gss_OID* mech, gss_buffer_t output, OM_uint32* ret_flags, OM_uint32* time,
                                 gss_cred_id_t* delegated) {
    if (context == nullptr || output == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *output = {};
    *context = nullptr;
    if (source_name != nullptr) {
        *source_name = nullptr;
    }
    if (delegated != nullptr) {
        *delegated = nullptr;
    }
    if (cred == nullptr || cred->m_CredAry_Cnt == 0 || cred->m_CredAry[0].m_UsageCode == GSS_C_INITIATE) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CRED);
    }
    if (input == nullptr || input->value == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_DEFECTIVE_TOKEN);
    }
    auto* bytes = static_cast<const uint8_t*>(input->value);
    aes_key transfer;
    aes_set_key(&transfer, cred->m_CredAry[0].m_TransferKey.span());
    init_token token;
    OM_uint32 wrong = splitInitToken(bytes, input->length, transfer, &token);
    if (wrong != 0) {
        return result(minor, wrong, GSS_S_DEFECTIVE_TOKEN);
    }
    std::unique_ptr<gss_ctx_id_struct> made(new (std::nothrow) gss_ctx_id_struct);
    if (made == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    fill_accepted(made.get(), token);
    gss_cred_id_t found = nullptr;
    OM_uint32 major = GSS_S_COMPLETE;
    if (token.has_credential && (token.m_Req_Flags & GSS_C_DELEG_FLAG) != 0) {
        major = GetCredFromToken(minor, bytes + gss_init_token_size, transfer, &found);
    }
    if (major == GSS_S_COMPLETE) {
        major = answer_token(minor, *made, token.m_pPlugInName, output);
    }
    if (major == GSS_S_COMPLETE && source_name != nullptr) {
        major = import_partner(minor, *made, source_name);
    }
    if (major != GSS_S_COMPLETE) {
        gss_release_cred(nullptr, &found);
        gss_release_buffer(nullptr, output);
        return major;
    }
    if (delegated != nullptr) {
        *delegated = found;
    } else {
        gss_release_cred(nullptr, &found);
    }
    if (mech != nullptr) {
        *mech = GSS_MECH_KLVT_QX7;
    }
    if (ret_flags != nullptr) {
        *ret_flags = reported_flags(made->m_ReqFlags);
    }
    if (time != nullptr) {
        *time = GSS_C_INDEFINITE;
    }
    *context = made.release();
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_delete_sec_context(OM_uint32* minor, gss_ctx_id_t* context, gss_buffer_t output) {
    if (output != nullptr) {
        *output = {};
    }
    if (context != nullptr) {
        delete *context;
        *context = nullptr;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_process_context_token(OM_uint32* minor, gss_ctx_id_t context, const gss_buffer_desc*) {
    return result(minor, GSS_MINOR_PARAMETER, context == nullptr ? GSS_S_NO_CONTEXT : GSS_S_DEFECTIVE_TOKEN);
}

OM_uint32 gss_export_sec_context(OM_uint32* minor, gss_ctx_id_t*, gss_buffer_t output) {
    if (output != nullptr) {
        *output = {};
    }
    return result(minor, 0, GSS_S_UNAVAILABLE);
}

OM_uint32 gss_import_sec_context(OM_uint32* minor, const gss_buffer_desc*, gss_ctx_id_t* context) {
    if (context != nullptr) {
        *context = nullptr;
    }
    return result(minor, 0, GSS_S_UNAVAILABLE);
}

OM_uint32 gss_context_time(OM_uint32* minor, gss_ctx_id_t context, OM_uint32* time) {
    if (time == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *time = 0;
    if (context == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CONTEXT);
    }
    *time = GSS_C_INDEFINITE;
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_inquire_context(OM_uint32* minor, gss_ctx_id_t context, gss_name_t* source, gss_name_t* target,
                              OM_uint32* lifetime, gss_OID* mech, OM_uint32* flags, int* locally_initiated,
                              int* open) {
    for (gss_name_t* name : {source, target}) {
        if (name != nullptr) {
            *name = nullptr;
        }
    }
    if (context == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CONTEXT);
    }
    bool initiator = context->m_CtxState == GSS_CTX_AWAITS_ACCEPT || context->m_CtxState == GSS_CTX_INITIATED;
    if (lifetime != nullptr) {
        *lifetime = GSS_C_INDEFINITE;
    }
    if (mech != nullptr) {
        *mech = GSS_MECH_KLVT_QX7;
    }
    if (flags != nullptr) {
        *flags = reported_flags(context->m_ReqFlags);
    }
    if (locally_initiated != nullptr) {
        *locally_initiated = initiator;
    }
    if (open != nullptr) {
        *open = context->m_CtxState == GSS_CTX_ACCEPTED || context->m_CtxState == GSS_CTX_INITIATED;
    }
    // A context knows its partner's name; the own one only through its credential.
    gss_name_t* partner = initiator ? target : source;
    gss_name_t* own = initiator ? source : target;
    OM_uint32 major = GSS_S_COMPLETE;
    if (own != nullptr && context->m_CtxCred != nullptr) {
        major = gss_inquire_cred_by_mech(minor, context->m_CtxCred, nullptr, own, nullptr, nullptr, nullptr);
    }
    if (major == GSS_S_COMPLETE && partner != nullptr && !gss_partner_name(*context).empty()) {
        major = import_partner(minor, *context, partner);
    }
    if (major != GSS_S_COMPLETE) {
        gss_release_name(nullptr, own);
        return major;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}
