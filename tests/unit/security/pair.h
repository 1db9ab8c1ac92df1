// The two sides of a handshake, for tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "peer.h"
#include "security/key_store.h"
#include "security/mechanism.h"

// The content of a buffer, which is released.
inline bytes take(gss_buffer_desc* buffer) {
    auto* data = static_cast<const uint8_t*>(buffer->value);
    bytes out(data, data + buffer->length);
    gss_release_buffer(nullptr, buffer);
    return out;
}

inline gss_name_t name(std::string text) {
    gss_name_t made = nullptr;
    gss_buffer_desc buffer{text.size(), text.data()};
    EXPECT_EQ(GSS_S_COMPLETE, gss_import_name(nullptr, &buffer, GSS_C_NT_MACHINE_UID_NAME, &made));
    return made;
}

inline gss_cred_id_t credential(std::string_view who, const bytes& key, int usage) {
    gss_cred_id_t made = nullptr;
    EXPECT_EQ(GSS_S_COMPLETE, gss_acquire_cred_with_key(nullptr, who, key.data(), usage, &made));
    return made;
}

// Initiator SYSTEM and acceptor AGENT1 under one transfer key.
struct handshake {
    bytes transfer;
    OM_uint32 flags;
    OM_uint32 minor = 0;
    gss_ctx_id_t initiator = nullptr;
    gss_ctx_id_t acceptor = nullptr;
    bytes token;

    explicit handshake(bytes key, OM_uint32 req_flags = 0) : transfer(std::move(key)), flags(req_flags) {}
    ~handshake() {
        gss_delete_sec_context(nullptr, &initiator, nullptr);
        gss_delete_sec_context(nullptr, &acceptor, nullptr);
    }
    handshake(const handshake&) = delete;
    handshake& operator=(const handshake&) = delete;

    OM_uint32 start() {
        gss_cred_id_t cred = credential("SYSTEM", transfer, GSS_C_INITIATE);
        gss_name_t target = name("AGENT1");
        gss_buffer_desc output;
        OM_uint32 major =
            gss_init_sec_context(&minor, cred, &initiator, target, GSS_MECH_KLVT_QX7, flags, GSS_C_INDEFINITE,
                                 nullptr, nullptr, nullptr, &output, nullptr, nullptr);
        token = take(&output);
        gss_release_cred(nullptr, &cred);
        gss_release_name(nullptr, &target);
        return major;
    }
    bytes accept() {
        gss_cred_id_t cred = credential("AGENT1", transfer, GSS_C_ACCEPT);
        gss_buffer_desc input{token.size(), token.data()}, output;
        EXPECT_EQ(GSS_S_COMPLETE, gss_accept_sec_context(&minor, &acceptor, cred, &input, nullptr, nullptr,
                                                         nullptr, &output, nullptr, nullptr, nullptr));
        gss_release_cred(nullptr, &cred);
        return take(&output);
    }
    OM_uint32 finish(bytes answer) {
        gss_buffer_desc input{answer.size(), answer.data()}, output;
        return gss_init_sec_context(&minor, nullptr, &initiator, nullptr, nullptr, 0, 0, nullptr, &input,
                                    nullptr, &output, nullptr, nullptr);
    }
    void establish() {
        ASSERT_EQ(GSS_S_CONTINUE_NEEDED, start());
        ASSERT_EQ(GSS_S_COMPLETE, finish(accept()));
    }
};
