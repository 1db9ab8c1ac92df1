// Sealed messages.
#include <string.h>

#include <algorithm>

#include "security/aes_instructions.h"
#include "security/md5.h"
#include "security/mechanism.h"
#include "security/reference.h"
#include "security/token.h"

namespace {

// Offsets in the inner part, which begins behind the outer tag and length.
enum inner_offset : size_t {
    SEAL_TAG = 0,
    SEAL_HASH = 1,
    SEAL_REFERENCE = 17,
    SEAL_QOP = 21,
    SEAL_LENGTH = 22,
    SEAL_COUNTER = 26,
    SEAL_CONTEXT = 30,
    SEAL_DATA = 34,
};
static_assert(SEAL_DATA == gss_sealed_head_size);

constexpr uint8_t seal_tag = 0x03;
// Enciphered once more with the full key; the last byte of the context id stays plain.
constexpr size_t seal_head_sealed = 32;
// What the hash covers in front of the data.
constexpr size_t hashed_head = SEAL_DATA - SEAL_REFERENCE;
constexpr gss_qop_t highest_qop = 6;
constexpr size_t longest_message = 0xFFFFFFFFu - 64;

OM_uint32 result(OM_uint32* minor, OM_uint32 minor_value, OM_uint32 major) {
    if (minor != nullptr) {
        *minor = minor_value;
    }
    return major;
}

bool established(const gss_ctx_id_struct& context) {
    return context.m_CtxState == GSS_CTX_ACCEPTED || context.m_CtxState == GSS_CTX_INITIATED;
}

size_t padded_size(size_t length) {
    return ((length - 1) & ~size_t{15}) + 16;
}

// Bytes of the length field. A length of 127 takes the long form: the other side writes it so.
size_t length_size(size_t inner) {
    size_t size = 1;
    if (inner >= 127) {
        for (size_t rest = inner; rest != 0; rest >>= 8) {
            ++size;
        }
    }
    return size;
}

void write_length(size_t inner, uint8_t* out) {
    size_t size = length_size(inner);
    if (size == 1) {
        out[0] = static_cast<uint8_t>(inner);
        return;
    }
    out[0] = static_cast<uint8_t>(0x80 | (size - 1));
    for (size_t i = size - 1; i != 0; i--, inner >>= 8) {
        out[i] = static_cast<uint8_t>(inner);
    }
}

const aes_key& key_for(const gss_ctx_id_struct& context, gss_qop_t qop) {
    return qop == 1 ? context.short_keys[0] : qop == 2 ? context.short_keys[1] : context.full_key;
}

// Enciphers whole blocks and hashes them, the head in front of them included, as they come out.
// `hash` is at its start; on return it holds everything.
void encipher_and_hash(const aes_key& key, const uint8_t* in, uint8_t* out, size_t blocks, uint8_t iv[16],
                       md5_context* hash, const uint8_t* head) {
    constexpr size_t group = 64, group_blocks = group / aes_block_size;
    // The hashed text begins `hashed_head` bytes before the data, so that its blocks lag behind those of the
    // cipher.
    size_t groups = key.engine == aes_engine::instructions && key.rounds == 14 ? blocks / group_blocks : 0;
    size_t hashed = 0;
    if (groups > 1) {
        aes_cbc_encrypt(key, in, out, group_blocks, iv);
        aes_instructions_cbc_encrypt_md5(key, in + group, out + group, groups - 1, iv, hash->state, head);
        hash->length = hashed = (groups - 1) * group;
        in += groups * group;
        out += groups * group;
        blocks -= groups * group_blocks;
    }
    aes_cbc_encrypt(key, in, out, blocks, iv);
    const uint8_t* end = out + blocks * aes_block_size;
    md5_update(hash, head + hashed, static_cast<size_t>(end - (head + hashed)));
}

// Data, padding and hash of a message whose head stands already.
void seal_data(const gss_ctx_id_struct& context, gss_qop_t qop, std::span<const uint8_t> input,
               uint8_t* inner, uint8_t digest[md5_size]) {
    md5_context hash;
    md5_init(&hash);
    uint8_t* data = inner + SEAL_DATA;
    const uint8_t* head = inner + SEAL_REFERENCE;
    size_t whole = input.size() / aes_block_size, rest = input.size() % aes_block_size;
    uint8_t last[aes_block_size] = {};
    memcpy(last, input.data() + whole * aes_block_size, rest);
    if (qop == 0) {
        memcpy(data, input.data(), whole * aes_block_size);
        if (rest != 0) {
            memcpy(data + whole * aes_block_size, last, aes_block_size);
        }
        md5_update(&hash, head, hashed_head + padded_size(input.size()));
    } else {
        uint8_t iv[aes_block_size];
        memcpy(iv, context.m_InitVect.data(), sizeof iv);
        const aes_key& key = key_for(context, qop);
        encipher_and_hash(key, input.data(), data, whole, iv, &hash, head);
        if (rest != 0) {
            aes_cbc_encrypt(key, last, data + whole * aes_block_size, 1, iv);
            md5_update(&hash, data + whole * aes_block_size, aes_block_size);
        }
    }
    qx_wipe(last, sizeof last);
    md5_final(&hash, digest);
}

struct sealed_message {
    const uint8_t* inner = nullptr;
    size_t padded = 0;
    uint8_t head[gss_sealed_head_size] = {};  // deciphered
    uint32_t length = 0;
    uint32_t counter = 0;
    uint32_t context_id = 0;
    gss_qop_t qop = 0;
};

// Outer tag and length, inner tag, and that they cover the buffer.
bool testMsgHdr(std::span<const uint8_t> input, sealed_message* out) {
    if (input.size() < 2 || input[0] != seal_tag) {
        return false;
    }
    size_t inner = input[1], at = 2;
    if (inner >= 0x80) {
        size_t count = inner & 0x7F;
        if (count < 1 || count > 4 || input.size() < at + count) {
            return false;
        }
        inner = 0;
        for (; count != 0; --count) {
            inner = inner << 8 | input[at++];
        }
    }
    if (inner != input.size() - at || inner < SEAL_DATA + aes_block_size || input[at] != seal_tag) {
        return false;
    }
    out->inner = input.data() + at;
    out->padded = inner - SEAL_DATA;
    return out->padded % aes_block_size == 0;
}

// Checks everything that needs no knowledge of what the context expects. 0 or the minor status.
OM_uint32 SplitSealedMsg(const gss_ctx_id_struct& context, std::span<const uint8_t> input,
                         sealed_message* out) {
    if (!testMsgHdr(input, out)) {
        return GSS_MINOR_PARAMETER;
    }
    memcpy(out->head, out->inner, sizeof out->head);
    uint8_t iv[aes_block_size];
    memcpy(iv, context.m_InitVect.data(), sizeof iv);
    aes_cbc_decrypt(context.full_key, out->head + SEAL_HASH, out->head + SEAL_HASH,
                    seal_head_sealed / aes_block_size, iv);
    if (memcmp(out->head + SEAL_REFERENCE, g_RefCode, sizeof g_RefCode) != 0) {
        return GSS_MINOR_VERSION;
    }
    md5_context hash;
    uint8_t digest[md5_size];
    md5_init(&hash);
    md5_update(&hash, out->head + SEAL_REFERENCE, hashed_head);
    md5_update(&hash, out->inner + SEAL_DATA, out->padded);
    md5_final(&hash, digest);
    if (!qx_equal_constant_time(digest, out->head + SEAL_HASH, md5_size)) {
        return GSS_MINOR_HASH;
    }
    out->qop = out->head[SEAL_QOP];
    out->length = TransToUInt32(out->head + SEAL_LENGTH);
    out->counter = TransToUInt32(out->head + SEAL_COUNTER);
    out->context_id = TransToUInt32(out->head + SEAL_CONTEXT);
    if (out->length == 0 || out->length > longest_message || padded_size(out->length) != out->padded ||
        out->qop > highest_qop) {
        return GSS_MINOR_PARAMETER;
    }
    return 0;
}

// Deciphers or copies the padded data; false when its padding isn't zero.
bool open_data(const gss_ctx_id_struct& context, const sealed_message& message, uint8_t* out) {
    const uint8_t* data = message.inner + SEAL_DATA;
    if (message.qop == 0) {
        memmove(out, data, message.padded);
    } else {
        uint8_t iv[aes_block_size];
        memcpy(iv, context.m_InitVect.data(), sizeof iv);
        aes_cbc_decrypt(key_for(context, message.qop), data, out, message.padded / aes_block_size, iv);
    }
    uint8_t stray = 0;
    for (size_t i = message.length; i < message.padded; ++i) {
        stray = static_cast<uint8_t>(stray | out[i]);
    }
    if (stray != 0) {
        qx_wipe(out, message.padded);
    }
    return stray == 0;
}

// What both forms of unsealing share. `*message` tells what was found once the result is GSS_S_COMPLETE.
OM_uint32 check_message(OM_uint32* minor, gss_ctx_id_t context, std::span<const uint8_t> input,
                        sealed_message* message) {
    if (context == nullptr || !established(*context)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CONTEXT);
    }
    OM_uint32 wrong = SplitSealedMsg(*context, input, message);
    if (wrong != 0) {
        return result(minor, wrong, GSS_S_DEFECTIVE_TOKEN);
    }
    if ((context->m_ReqFlags & GSS_C_CONF_FLAG) != 0 && message->qop < 2) {
        return result(minor, GSS_MINOR_QOP, GSS_S_BAD_QOP);
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

}  // namespace

size_t CalcMsgSize(size_t length) {
    if (length == 0 || length > longest_message) {
        return 0;
    }
    size_t inner = SEAL_DATA + padded_size(length);
    return 1 + length_size(inner) + inner;
}

OM_uint32 gss_wrap_ahead(OM_uint32* minor, const gss_ctx_id_struct* context, int conf, gss_qop_t qop,
                         std::span<const uint8_t> input, std::span<uint8_t> output, size_t* written,
                         uint32_t* counter) {
    *written = 0;
    *counter = 0;
    if (context == nullptr || !established(*context)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CONTEXT);
    }
    if (qop > highest_qop) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_QOP);
    }
    if (conf == 0) {
        qop = 0;
    }
    if ((context->m_ReqFlags & GSS_C_CONF_FLAG) != 0 && qop < 2) {
        return result(minor, GSS_MINOR_QOP, GSS_S_BAD_QOP);
    }
    size_t size = CalcMsgSize(input.size());
    if (size == 0 || size > output.size()) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    size_t inner_size = SEAL_DATA + padded_size(input.size());
    output[0] = seal_tag;
    write_length(inner_size, output.data() + 1);
    uint8_t* inner = output.data() + (size - inner_size);
    inner[SEAL_TAG] = seal_tag;
    memcpy(inner + SEAL_REFERENCE, g_RefCode, sizeof g_RefCode);
    inner[SEAL_QOP] = static_cast<uint8_t>(qop);
    UInt32ToTrans(static_cast<uint32_t>(input.size()), inner + SEAL_LENGTH);
    *counter = context->m_OutMsgCounter + 1;
    UInt32ToTrans(*counter, inner + SEAL_COUNTER);
    UInt32ToTrans(context->m_PartnerCtxID, inner + SEAL_CONTEXT);
    seal_data(*context, qop, input, inner, inner + SEAL_HASH);
    uint8_t iv[aes_block_size];
    memcpy(iv, context->m_InitVect.data(), sizeof iv);
    aes_cbc_encrypt(context->full_key, inner + SEAL_HASH, inner + SEAL_HASH,
                    seal_head_sealed / aes_block_size, iv);
    *written = size;
    return result(minor, 0, GSS_S_COMPLETE);
}

bool gss_use_ahead(gss_ctx_id_t context, uint32_t counter) {
    if (context == nullptr || counter != context->m_OutMsgCounter + 1) {
        return false;
    }
    context->m_OutMsgCounter = counter;
    return true;
}

OM_uint32 gss_wrap_ex(OM_uint32* minor, gss_ctx_id_t context, int conf, gss_qop_t qop,
                      std::span<const uint8_t> input, std::span<uint8_t> output, size_t* written) {
    uint32_t counter = 0;
    OM_uint32 major = gss_wrap_ahead(minor, context, conf, qop, input, output, written, &counter);
    if (major == GSS_S_COMPLETE) {
        gss_use_ahead(context, counter);
    }
    return major;
}

OM_uint32 gss_wrap(OM_uint32* minor, gss_ctx_id_t context, int conf, gss_qop_t qop,
                   const gss_buffer_desc* input, int* conf_state, gss_buffer_t output) {
    if (output == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *output = {};
    size_t size = input == nullptr || input->value == nullptr ? 0 : CalcMsgSize(input->length);
    if (size == 0) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    auto* made = static_cast<uint8_t*>(malloc(size));
    if (made == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    size_t written = 0;
    OM_uint32 major =
        gss_wrap_ex(minor, context, conf, qop, {static_cast<const uint8_t*>(input->value), input->length},
                    {made, size}, &written);
    if (major != GSS_S_COMPLETE) {
        free(made);
        return major;
    }
    if (conf_state != nullptr) {
        *conf_state = conf != 0 && qop != 0;
    }
    output->value = made;
    output->length = written;
    return major;
}

OM_uint32 gss_unwrap_ex(OM_uint32* minor, gss_ctx_id_t context, gss_qop_t own_qop,
                        std::span<const uint8_t> input, std::span<uint8_t> output, size_t* written,
                        gss_qop_t* qop_state) {
    *written = 0;
    sealed_message message;
    OM_uint32 major = check_message(minor, context, input, &message);
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    if (message.context_id != context->m_CtxID) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CONTEXT);
    }
    uint32_t ahead = message.counter - context->m_InMsgCounter;
    if (ahead != 1) {
        return result(minor, GSS_MINOR_PARAMETER,
                      ahead == 0 || ahead > 0x7FFFFFFF ? GSS_S_DUPLICATE_TOKEN : GSS_S_UNSEQ_TOKEN);
    }
    if (message.qop == 0 && own_qop != 0) {
        return result(minor, GSS_MINOR_QOP, GSS_S_BAD_QOP);
    }
    if (output.size() < message.padded) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    if (!open_data(*context, message, output.data())) {
        return result(minor, GSS_MINOR_DECRYPT, GSS_S_DEFECTIVE_TOKEN);
    }
    ++context->m_InMsgCounter;
    *written = message.length;
    if (qop_state != nullptr) {
        *qop_state = message.qop;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_unwrap(OM_uint32* minor, gss_ctx_id_t context, const gss_buffer_desc* input,
                     gss_buffer_t output, int* conf_state, gss_qop_t* qop_state) {
    if (output == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *output = {};
    if (input == nullptr || input->value == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    sealed_message message;
    OM_uint32 major =
        check_message(minor, context, {static_cast<const uint8_t*>(input->value), input->length}, &message);
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    auto* opened = static_cast<uint8_t*>(malloc(message.padded));
    if (opened == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    if (!open_data(*context, message, opened)) {
        free(opened);
        return result(minor, GSS_MINOR_DECRYPT, GSS_S_DEFECTIVE_TOKEN);
    }
    bool gap =
        (context->m_ReqFlags & GSS_C_SEQUENCE_FLAG) != 0 && message.counter > context->m_InMsgCounter + 1;
    ++context->m_InMsgCounter;
    output->value = opened;
    output->length = message.length;
    if (conf_state != nullptr) {
        *conf_state = message.qop != 0;
    }
    if (qop_state != nullptr) {
        *qop_state = message.qop;
    }
    return result(minor, 0, gap ? GSS_S_UNSEQ_TOKEN : GSS_S_COMPLETE);
}

OM_uint32 gss_wrap_size_limit(OM_uint32* minor, gss_ctx_id_t context, int, gss_qop_t qop,
                              OM_uint32 output_size, OM_uint32* input_size) {
    if (input_size == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *input_size = 0;
    if (context == nullptr || !established(*context)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CONTEXT);
    }
    if (qop > highest_qop) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_QOP);
    }
    size_t blocks = output_size / aes_block_size;
    while (blocks != 0 && CalcMsgSize(blocks * aes_block_size) > output_size) {
        --blocks;
    }
    *input_size = static_cast<OM_uint32>(blocks * aes_block_size);
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_get_mic(OM_uint32* minor, gss_ctx_id_t, gss_qop_t, const gss_buffer_desc*, gss_buffer_t token) {
    if (token != nullptr) {
        *token = {};
    }
    return result(minor, 0, GSS_S_UNAVAILABLE);
}

OM_uint32 gss_verify_mic(OM_uint32* minor, gss_ctx_id_t, const gss_buffer_desc*, const gss_buffer_desc*,
                         gss_qop_t*) {
    return result(minor, 0, GSS_S_UNAVAILABLE);
}
