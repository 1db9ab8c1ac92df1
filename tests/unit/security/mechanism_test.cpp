#include <gtest/gtest.h>

#include <cstring>

#include "pair.h"
#include "security/token.h"

namespace {

void put_text(bytes* into, size_t at, std::string_view text) {
    place(into, at, bytes(text.begin(), text.end()));
}

const bytes oid = from_hex("2b06010401868d1f0101");

// An init token written from the table of its bytes with the peer's ciphers.
bytes written_init_token(const bytes& transfer, const bytes& session, std::string_view name, uint32_t context,
                         uint32_t flags) {
    bytes token(151);
    place(&token, 0, from_hex("608194060b"));
    place(&token, 5, oid);
    place(&token, 16, from_hex("0385"));
    put_text(&token, 34, "CRY1");
    token[38] = 1;
    for (size_t i = 0; i < 4; ++i) {
        token[39 + i] = static_cast<uint8_t>(context >> (24 - 8 * i));
        token[47 + i] = static_cast<uint8_t>(flags >> (24 - 8 * i));
    }
    token[46] = 1;
    put_text(&token, 55, name);
    encipher_range(&token, 55, 32, transfer);
    place(&token, 87, session);
    encipher_range(&token, 87, 32, transfer);
    place(&token, 18, peer_md5(slice(token, 34, 117)));
    encipher_range(&token, 18, 128, transfer);
    return token;
}

bytes written_accept_token(const bytes& session, const bytes& iv, uint32_t context) {
    bytes token(100);
    place(&token, 0, from_hex("0362"));
    put_text(&token, 19, "CRY1");
    token[23] = 2;
    for (size_t i = 0; i < 4; ++i) {
        token[24 + i] = static_cast<uint8_t>(context >> (24 - 8 * i));
    }
    token[31] = 1;
    place(&token, 36, iv);
    encipher_range(&token, 36, 32, session);
    place(&token, 3, peer_md5(slice(token, 19, 81)));
    encipher_range(&token, 3, 96, session);
    return token;
}

bytes written_credential(const bytes& transfer, const bytes& session, uint32_t context,
                         std::string_view target, const bytes& inner) {
    bytes token(255);
    place(&token, 0, from_hex("0381dc"));
    put_text(&token, 19, "CRY1");
    token[23] = 4;
    for (size_t i = 0; i < 4; ++i) {
        token[24 + i] = static_cast<uint8_t>(context >> (24 - 8 * i));
    }
    token[31] = 1;
    put_text(&token, 40, target);
    place(&token, 72, session);
    place(&token, 104, inner);
    place(&token, 3, peer_md5(slice(token, 19, 236)));
    encipher_range(&token, 31, 224, transfer);
    return token;
}

struct acceptor {
    OM_uint32 minor = 0, major = 0;
    gss_ctx_id_t context = nullptr;
    gss_cred_id_t delegated = nullptr;
    bytes answer;

    acceptor(const bytes& transfer, bytes token, std::string_view name = "AGENT1") {
        gss_cred_id_t cred = credential(name, transfer, GSS_C_ACCEPT);
        gss_buffer_desc input{token.size(), token.data()}, output;
        major = gss_accept_sec_context(&minor, &context, cred, &input, nullptr, nullptr, nullptr, &output,
                                       nullptr, nullptr, &delegated);
        answer = take(&output);
        gss_release_cred(nullptr, &cred);
    }
    ~acceptor() {
        gss_delete_sec_context(nullptr, &context, nullptr);
        gss_release_cred(nullptr, &delegated);
    }
    acceptor(const acceptor&) = delete;
    acceptor& operator=(const acceptor&) = delete;
};

struct mechanism_test : testing::Test {
    const bytes transfer = counting(32, 100, 3);
    const bytes session = counting(32, 7, 13);
    mechanism_test() { KMsetGSSCallback(); }
    ~mechanism_test() override { gss_setCallbacks(nullptr); }
};

TEST_F(mechanism_test, an_init_token_of_the_peer_is_accepted) {
    acceptor side(transfer, written_init_token(transfer, session, "PRODSYS", 0x01020304, 16));
    ASSERT_EQ(GSS_S_COMPLETE, side.major) << side.minor;
    EXPECT_EQ("PRODSYS", gss_partner_name(*side.context));
    EXPECT_EQ(0x01020304u, side.context->m_PartnerCtxID);
    EXPECT_EQ(16u, side.context->m_ReqFlags);
    EXPECT_EQ(GSS_CTX_ACCEPTED, side.context->m_CtxState);
    EXPECT_EQ(0, memcmp(session.data(), side.context->m_SessionKey.data(), 32));
    // The answer is what the table says, and the vector in it is the context's.
    EXPECT_EQ(written_accept_token(
                  session, bytes(side.context->m_InitVect.data(), side.context->m_InitVect.data() + 32),
                  side.context->m_CtxID),
              side.answer);
}

TEST_F(mechanism_test, an_initiator_writes_what_the_peer_writes_and_takes_its_answer) {
    gss_cred_id_t cred = credential("SYSTEM", transfer, GSS_C_INITIATE);
    gss_name_t target = name("AGENT1");
    gss_ctx_id_t context = nullptr;
    gss_buffer_desc output;
    OM_uint32 minor = 0, flags = 0;
    ASSERT_EQ(GSS_S_CONTINUE_NEEDED,
              gss_init_sec_context(&minor, cred, &context, target, GSS_MECH_KLVT_QX7,
                                   GSS_C_CONF_FLAG | GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE, nullptr, nullptr,
                                   nullptr, &output, &flags, nullptr));
    EXPECT_EQ(GSS_C_CONF_FLAG | GSS_C_PROT_READY_FLAG, static_cast<int>(flags))
        << "what isn't passed through is dropped";
    const bytes drawn(context->m_SessionKey.data(), context->m_SessionKey.data() + 32);
    EXPECT_EQ(
        written_init_token(transfer, drawn, "SYSTEM", context->m_CtxID, GSS_C_CONF_FLAG | GSS_C_MUTUAL_FLAG),
        take(&output));
    bytes answer = written_accept_token(drawn, counting(32, 40), 0xA1B2C3D4);
    gss_buffer_desc input{answer.size(), answer.data()};
    ASSERT_EQ(GSS_S_COMPLETE, gss_init_sec_context(&minor, nullptr, &context, nullptr, nullptr, 0, 0, nullptr,
                                                   &input, nullptr, &output, nullptr, nullptr));
    EXPECT_EQ(0xA1B2C3D4u, context->m_PartnerCtxID);
    EXPECT_EQ(GSS_CTX_INITIATED, context->m_CtxState);
    EXPECT_EQ(counting(32, 40), bytes(context->m_InitVect.data(), context->m_InitVect.data() + 32));
    // A second answer finds no context that waits for one.
    EXPECT_EQ(GSS_S_NO_CONTEXT, gss_init_sec_context(&minor, nullptr, &context, nullptr, nullptr, 0, 0,
                                                     nullptr, &input, nullptr, &output, nullptr, nullptr));
    gss_delete_sec_context(nullptr, &context, nullptr);
    gss_release_cred(nullptr, &cred);
    gss_release_name(nullptr, &target);
}

// Which number a change at a place of the init token gives: the order of the acceptor's checks.
OM_uint32 number_for_init_byte(size_t at) {
    if (at < 18) {
        return GSS_MINOR_PARAMETER;  // tag, identifier, body tag
    }
    // A block of ciphertext spoils its own plain text and flips the same bits of the next: a change in bytes
    // 18 to 21, 22 and 27 to 30 flips reference, type and version, one in the block that holds them spoils
    // the reference.
    bool reference_type_version = at <= 22 || (at >= 27 && at <= 30) || (at >= 34 && at <= 49);
    return reference_type_version ? GSS_MINOR_VERSION : GSS_MINOR_HASH;
}

TEST_F(mechanism_test, every_changed_byte_of_an_init_token_is_refused_by_its_number) {
    const bytes good = written_init_token(transfer, session, "SYSTEM", 1, 0);
    for (size_t at = 0; at < good.size(); ++at) {
        for (unsigned change : {0x01u, 0x80u, 0xFFu}) {
            bytes token = good;
            token[at] = static_cast<uint8_t>(token[at] ^ change);
            acceptor side(transfer, token);
            ASSERT_EQ(GSS_S_DEFECTIVE_TOKEN, side.major) << at;
            ASSERT_EQ(number_for_init_byte(at), side.minor) << at;
            ASSERT_EQ(nullptr, side.context);
            ASSERT_TRUE(side.answer.empty());
        }
    }
}

TEST_F(mechanism_test, init_tokens_of_other_lengths_and_keys_are_refused) {
    const bytes good = written_init_token(transfer, session, "SYSTEM", 1, 0);
    for (size_t length : {0u, 1u, 18u, 150u, 152u, 405u, 406u, 407u, 4096u}) {
        bytes token = good;
        token.resize(length, 0);
        acceptor side(transfer, token);
        EXPECT_EQ(GSS_S_DEFECTIVE_TOKEN, side.major) << length;
        EXPECT_EQ(GSS_MINOR_PARAMETER, static_cast<int>(side.minor)) << length;
    }
    acceptor other(counting(32, 1, 1), good);
    EXPECT_EQ(GSS_MINOR_VERSION, static_cast<int>(other.minor));
}

TEST_F(mechanism_test, every_changed_byte_of_an_accept_token_ends_the_context) {
    for (size_t at = 0; at < 100; ++at) {
        handshake pair(transfer);
        ASSERT_EQ(GSS_S_CONTINUE_NEEDED, pair.start());
        bytes answer = pair.accept();
        answer[at] ^= 0x40;
        EXPECT_EQ(GSS_S_DEFECTIVE_TOKEN, pair.finish(answer));
        OM_uint32 expected = at < 2 ? GSS_MINOR_PARAMETER : at == 2 ? GSS_MINOR_NOT_ACCEPTED : GSS_MINOR_HASH;
        EXPECT_EQ(expected, pair.minor) << at;
        EXPECT_EQ(GSS_CTX_FAILED, pair.initiator->m_CtxState);
    }
    handshake cut(transfer);
    cut.start();
    bytes answer = cut.accept();
    answer.pop_back();
    EXPECT_EQ(GSS_S_DEFECTIVE_TOKEN, cut.finish(answer));
    EXPECT_EQ(GSS_MINOR_PARAMETER, static_cast<int>(cut.minor));
}

TEST_F(mechanism_test, an_accept_token_with_a_plugin_hash_is_refused_without_a_plugin) {
    handshake pair(transfer);
    pair.start();
    aes_key key;
    aes_set_key(&key, pair.initiator->m_SessionKey.span());
    accept_token token;
    token.m_pPIHash[5] = 1;
    bytes answer(100);
    constructAcceptToken(token, key, answer.data());
    EXPECT_EQ(GSS_S_DEFECTIVE_TOKEN, pair.finish(answer));
    EXPECT_EQ(GSS_MINOR_PLUGIN_HASH, static_cast<int>(pair.minor));
}

TEST_F(mechanism_test, names_are_cut_at_the_field) {
    const std::string longest(32, 'N');
    acceptor full(transfer, written_init_token(transfer, session, longest, 1, 0));
    ASSERT_EQ(GSS_S_COMPLETE, full.major);
    EXPECT_EQ(longest, gss_partner_name(*full.context));
    gss_cred_id_t cred = credential(longest + "more", transfer, GSS_C_INITIATE);
    EXPECT_EQ(longest, cred->m_CredAry[0].m_CredName);
    gss_release_cred(nullptr, &cred);
}

// ---- delegation

struct delegation_test : mechanism_test {
    const bytes target_key = counting(32, 200, 9);

    // A server lets AGENT1 present itself to AGENT2.
    bytes order() {
        gss_cred_id_t cred = credential("SYSTEM", transfer, GSS_C_INITIATE);
        EXPECT_EQ(GSS_S_COMPLETE,
                  gss_add_cred_with_key(nullptr, cred, "AGENT2", target_key.data(), GSS_C_INITIATE));
        gss_name_t receiver = name("AGENT1");
        gss_ctx_id_t context = nullptr;
        gss_buffer_desc output;
        EXPECT_EQ(GSS_S_CONTINUE_NEEDED,
                  gss_init_sec_context(nullptr, cred, &context, receiver, nullptr, GSS_C_DELEG_FLAG, 0,
                                       nullptr, nullptr, nullptr, &output, nullptr, nullptr));
        session_of_order.assign(context->m_SessionKey.data(), context->m_SessionKey.data() + 32);
        context_of_order = context->m_CtxID;
        gss_delete_sec_context(nullptr, &context, nullptr);
        gss_release_name(nullptr, &receiver);
        gss_release_cred(nullptr, &cred);
        return take(&output);
    }
    bytes session_of_order;
    uint32_t context_of_order = 0;
};

TEST_F(delegation_test, the_order_is_written_as_the_table_says) {
    const bytes token = order();
    ASSERT_EQ(406u, token.size());
    EXPECT_EQ(1, token[15]);
    const bytes inner = written_init_token(target_key, session_of_order, "AGENT1", context_of_order, 0);
    EXPECT_EQ(written_credential(transfer, session_of_order, context_of_order, "AGENT2", inner),
              slice(token, 151, 255));
}

TEST_F(delegation_test, the_agent_presents_itself_with_it) {
    acceptor agent1(transfer, order(), "AGENT1");
    ASSERT_EQ(GSS_S_COMPLETE, agent1.major) << agent1.minor;
    EXPECT_EQ("SYSTEM", gss_partner_name(*agent1.context));
    ASSERT_NE(nullptr, agent1.delegated);
    gss_name_t target = name("AGENT2");
    gss_ctx_id_t context = nullptr;
    gss_buffer_desc output;
    ASSERT_EQ(GSS_S_CONTINUE_NEEDED,
              gss_init_sec_context(nullptr, agent1.delegated, &context, target, GSS_MECH_KLVT_QX7, 0, 0,
                                   nullptr, nullptr, nullptr, &output, nullptr, nullptr));
    acceptor agent2(target_key, take(&output), "AGENT2");
    ASSERT_EQ(GSS_S_COMPLETE, agent2.major) << agent2.minor;
    EXPECT_EQ("AGENT1", gss_partner_name(*agent2.context));
    EXPECT_EQ(nullptr, agent2.delegated);
    gss_buffer_desc input{agent2.answer.size(), agent2.answer.data()};
    ASSERT_EQ(GSS_S_COMPLETE, gss_init_sec_context(nullptr, nullptr, &context, nullptr, nullptr, 0, 0,
                                                   nullptr, &input, nullptr, &output, nullptr, nullptr));
    EXPECT_EQ(agent2.context->m_CtxID, context->m_PartnerCtxID);
    EXPECT_EQ(context->m_CtxID, agent2.context->m_PartnerCtxID);
    gss_delete_sec_context(nullptr, &context, nullptr);
    gss_release_name(nullptr, &target);
}

TEST_F(delegation_test, every_changed_byte_of_the_credential_is_refused) {
    const bytes good = order();
    for (size_t at = 151; at < good.size(); ++at) {
        bytes token = good;
        token[at] ^= 0x20;
        acceptor side(transfer, token);
        ASSERT_EQ(GSS_S_DEFECTIVE_TOKEN, side.major) << at;
        ASSERT_EQ(GSS_MINOR_CREDENTIAL, static_cast<int>(side.minor)) << at;
        ASSERT_EQ(nullptr, side.context);
        ASSERT_EQ(nullptr, side.delegated);
    }
}

TEST_F(delegation_test, delegating_needs_a_second_name) {
    gss_cred_id_t cred = credential("SYSTEM", transfer, GSS_C_INITIATE);
    gss_name_t receiver = name("AGENT1");
    gss_ctx_id_t context = nullptr;
    gss_buffer_desc output;
    EXPECT_EQ(GSS_S_NO_CRED,
              gss_init_sec_context(nullptr, cred, &context, receiver, nullptr, GSS_C_DELEG_FLAG, 0, nullptr,
                                   nullptr, nullptr, &output, nullptr, nullptr));
    EXPECT_EQ(nullptr, context);
    EXPECT_EQ(GSS_S_COMPLETE,
              gss_add_cred_with_key(nullptr, cred, "AGENT2", target_key.data(), GSS_C_INITIATE));
    EXPECT_EQ(GSS_S_DUPLICATE_ELEMENT,
              gss_add_cred_with_key(nullptr, cred, "AGENT3", target_key.data(), GSS_C_INITIATE));
    gss_release_cred(nullptr, &cred);
    gss_release_name(nullptr, &receiver);
}

// ---- names, credentials, texts

TEST_F(mechanism_test, names_know_their_type_and_drop_their_terminator) {
    gss_buffer_desc terminated{7, const_cast<char*>("AGENT1")}, plain{6, const_cast<char*>("AGENT1")};
    gss_buffer_desc empty{1, const_cast<char*>("")};
    gss_name_t made = nullptr, none = nullptr;
    ASSERT_EQ(GSS_S_COMPLETE, gss_import_name(nullptr, &terminated, GSS_C_NT_MACHINE_UID_NAME, &made));
    EXPECT_EQ(6u, made->m_Name.size());
    EXPECT_EQ(GSS_S_BAD_NAME, gss_import_name(nullptr, &empty, nullptr, &none));
    EXPECT_EQ(GSS_S_BAD_NAMETYPE, gss_import_name(nullptr, &plain, GSS_MECH_KLVT_QX7, &none));
    gss_release_name(nullptr, &made);
    gss_release_name(nullptr, &made);
}

TEST_F(mechanism_test, missing_keys_and_callbacks_have_their_numbers) {
    OM_uint32 minor = 0;
    gss_name_t who = name("NOBODY");
    gss_cred_id_t cred = nullptr;
    EXPECT_EQ(GSS_S_NO_CRED, gss_acquire_cred(&minor, who, 0, nullptr, GSS_C_BOTH, &cred, nullptr, nullptr));
    EXPECT_EQ(GSS_MINOR_CALLBACK, static_cast<int>(minor));
    gss_setCallbacks(nullptr);
    EXPECT_EQ(GSS_S_NO_CRED, gss_acquire_cred(&minor, who, 0, nullptr, GSS_C_BOTH, &cred, nullptr, nullptr));
    EXPECT_EQ(GSS_MINOR_NO_CALLBACK, static_cast<int>(minor));
    handshake pair(transfer);
    EXPECT_EQ(GSS_S_FAILURE, pair.start());
    EXPECT_EQ(GSS_MINOR_NO_CALLBACK, static_cast<int>(pair.minor));
    gss_release_name(nullptr, &who);
}

TEST_F(mechanism_test, credentials_serve_their_usage_only) {
    const bytes token = written_init_token(transfer, session, "SYSTEM", 1, 0);
    gss_cred_id_t cred = credential("AGENT1", transfer, GSS_C_INITIATE);
    gss_buffer_desc input{token.size(), const_cast<uint8_t*>(token.data())}, output;
    gss_ctx_id_t context = nullptr;
    EXPECT_EQ(GSS_S_NO_CRED, gss_accept_sec_context(nullptr, &context, cred, &input, nullptr, nullptr,
                                                    nullptr, &output, nullptr, nullptr, nullptr));
    gss_release_cred(nullptr, &cred);
    EXPECT_EQ(GSS_S_FAILURE, gss_acquire_cred_with_key(nullptr, "A", transfer.data(), 3, &cred));
}

}  // namespace
