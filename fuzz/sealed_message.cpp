// Sealed messages: any bytes to an established context, and a good message whose bytes the input changes.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "security/mechanism.h"

namespace {

// A context as both sides of a handshake would have it, addressed to itself.
gss_ctx_id_struct* standing_context() {
    static gss_ctx_id_struct* context = nullptr;
    if (context == nullptr) {
        context = new gss_ctx_id_struct;
        context->m_CtxID = context->m_PartnerCtxID = 0x01020304;
        for (size_t i = 0; i < gss_key_size; ++i) {
            context->m_SessionKey.bytes[i] = static_cast<uint8_t>(i);
        }
        aes_set_key(&context->full_key, context->m_SessionKey.span());
        aes_set_key(&context->short_keys[0], context->m_SessionKey.span().first<16>());
        aes_set_key(&context->short_keys[1], context->m_SessionKey.span().first<24>());
        context->m_CtxState = GSS_CTX_ACCEPTED;
    }
    context->m_InMsgCounter = context->m_OutMsgCounter = 0;
    return context;
}

bool opens(const std::vector<uint8_t>& sealed) {
    gss_ctx_id_struct* context = standing_context();
    std::vector<uint8_t> plain(sealed.size());
    size_t written = 0;
    OM_uint32 major = gss_unwrap_ex(nullptr, context, 0, sealed, plain, &written, nullptr);
    if ((major == GSS_S_COMPLETE) != (written != 0) || written > sealed.size()) {
        abort();
    }
    gss_buffer_desc input{sealed.size(), const_cast<uint8_t*>(sealed.data())}, output;
    gss_unwrap(nullptr, context, &input, &output, nullptr, nullptr);
    gss_release_buffer(nullptr, &output);
    return major == GSS_S_COMPLETE;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> bytes(data, data + size);
    opens(bytes);
    if (size < 3) {
        return 0;
    }
    // First byte: QOP and kind of change; second: place; the rest is the plain text.
    const std::vector<uint8_t> plain(data + 2, data + size);
    std::vector<uint8_t> sealed(CalcMsgSize(plain.size()));
    size_t written = 0;
    gss_qop_t qop = data[0] % 7;
    if (gss_wrap_ex(nullptr, standing_context(), qop != 0, qop, plain, sealed, &written) != GSS_S_COMPLETE ||
        written != sealed.size()) {
        abort();
    }
    if (!opens(sealed)) {
        abort();
    }
    sealed[data[1] % sealed.size()] ^= static_cast<uint8_t>(data[0] | 1);
    if (opens(sealed)) {
        abort();
    }
    return 0;
}
