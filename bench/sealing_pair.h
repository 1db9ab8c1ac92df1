// Two ends of one sealed connection in one process, for benchmarks of sealing.
#pragma once

#include <cstdint>
#include <vector>

#include "security/key_store.h"
#include "security/mechanism.h"

// An established pair of contexts.
struct sealing_pair {
    gss_ctx_id_t initiator = nullptr, acceptor = nullptr;

    sealing_pair() {
        KMsetGSSCallback();
        const std::vector<uint8_t> key(gss_key_size, 0x5A);
        gss_cred_id_t ours = nullptr, theirs = nullptr;
        gss_name_t target = nullptr;
        char name[] = "AGENT";
        gss_buffer_desc text{5, name}, token, answer, none;
        gss_acquire_cred_with_key(nullptr, "SYSTEM", key.data(), GSS_C_INITIATE, &ours);
        gss_acquire_cred_with_key(nullptr, "AGENT", key.data(), GSS_C_ACCEPT, &theirs);
        gss_import_name(nullptr, &text, GSS_C_NT_MACHINE_UID_NAME, &target);
        gss_init_sec_context(nullptr, ours, &initiator, target, nullptr, 0, 0, nullptr, nullptr, nullptr,
                             &token, nullptr, nullptr);
        gss_accept_sec_context(nullptr, &acceptor, theirs, &token, nullptr, nullptr, nullptr, &answer,
                               nullptr, nullptr, nullptr);
        gss_init_sec_context(nullptr, nullptr, &initiator, nullptr, nullptr, 0, 0, nullptr, &answer, nullptr,
                             &none, nullptr, nullptr);
        gss_release_buffer(nullptr, &token);
        gss_release_buffer(nullptr, &answer);
        gss_release_name(nullptr, &target);
        gss_release_cred(nullptr, &ours);
        gss_release_cred(nullptr, &theirs);
    }
    ~sealing_pair() {
        gss_delete_sec_context(nullptr, &initiator, nullptr);
        gss_delete_sec_context(nullptr, &acceptor, nullptr);
    }
    sealing_pair(const sealing_pair&) = delete;
    sealing_pair& operator=(const sealing_pair&) = delete;
};
