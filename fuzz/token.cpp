// Tokens: any bytes as an init token, and any bytes as the answer to one's own; and tokens that are right but
// for the bytes that the input changes, so that what stands behind the hash is reached as well.
#include "security/token.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "security/key_exchange.h"
#include "security/key_store.h"

namespace {

const uint8_t transfer[gss_key_size] = {1, 2, 3};

void accept(std::vector<uint8_t> token) {
    static gss_cred_id_t cred = nullptr;
    if (cred == nullptr) {
        gss_acquire_cred_with_key(nullptr, "AGENT", transfer, GSS_C_ACCEPT, &cred);
    }
    gss_buffer_desc input{token.size(), token.data()}, output;
    gss_ctx_id_t context = nullptr;
    gss_cred_id_t delegated = nullptr;
    gss_name_t source = nullptr;
    OM_uint32 minor = 0;
    OM_uint32 major = gss_accept_sec_context(&minor, &context, cred, &input, nullptr, &source, nullptr,
                                             &output, nullptr, nullptr, &delegated);
    if ((major == GSS_S_COMPLETE) != (context != nullptr) ||
        (major == GSS_S_COMPLETE) != (output.length == 100)) {
        abort();
    }
    gss_release_buffer(nullptr, &output);
    gss_release_name(nullptr, &source);
    gss_release_cred(nullptr, &delegated);
    gss_delete_sec_context(nullptr, &context, nullptr);
}

void answer(std::vector<uint8_t> token) {
    static const uint8_t name[] = "AGENT";
    gss_cred_id_t cred = nullptr;
    gss_name_t target = nullptr;
    gss_ctx_id_t context = nullptr;
    gss_buffer_desc text{5, const_cast<uint8_t*>(name)}, output, input{token.size(), token.data()};
    gss_acquire_cred_with_key(nullptr, "SYSTEM", transfer, GSS_C_INITIATE, &cred);
    gss_import_name(nullptr, &text, nullptr, &target);
    gss_init_sec_context(nullptr, cred, &context, target, nullptr, 0, 0, nullptr, nullptr, nullptr, &output,
                         nullptr, nullptr);
    gss_release_buffer(nullptr, &output);
    if (gss_init_sec_context(nullptr, cred, &context, target, nullptr, 0, 0, nullptr, &input, nullptr,
                             &output, nullptr, nullptr) == GSS_S_COMPLETE) {
        abort();  // nobody knows the session key that was just drawn
    }
    gss_release_buffer(nullptr, &output);
    gss_delete_sec_context(nullptr, &context, nullptr);
    gss_release_name(nullptr, &target);
    gss_release_cred(nullptr, &cred);
}

// A token whose fields come from the input and whose hash is right.
void well_hashed(const uint8_t* data, size_t size) {
    init_token fields;
    credential_token credential;
    std::vector<uint8_t> token(gss_init_token_with_credential_size);
    auto fill = [&](void* to, size_t length) {
        size_t part = size < length ? size : length;
        memcpy(to, data, part);
        data += part;
        size -= part;
    };
    fill(&fields.m_SrcCtxID, 4);
    fill(&fields.m_Req_Flags, 4);
    fill(fields.m_pCodName, 32);
    fill(fields.m_pPlugInName, 32);
    fill(&credential.context_id, 4);
    fill(credential.target_name, 32);
    fill(credential.init_token_bytes, sizeof credential.init_token_bytes);
    fields.has_credential = size % 2 != 0;
    aes_key key;
    aes_set_key(&key, transfer);
    constructInitToken(fields, key, token.data());
    constructCredToken(credential, key, token.data() + gss_init_token_size);
    token.resize(fields.has_credential ? gss_init_token_with_credential_size : gss_init_token_size);
    accept(token);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    KMsetGSSCallback();
    const std::vector<uint8_t> bytes(data, data + size);
    int command = 0;
    bool is_token = false;
    classifyData(bytes.data(), bytes.size(), &command, &is_token);
    accept(bytes);
    answer(bytes);
    well_hashed(data, size);
    return 0;
}
