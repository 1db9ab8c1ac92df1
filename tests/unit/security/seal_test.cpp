#include <gtest/gtest.h>

#include <cstring>

#include "pair.h"
#include "security/aes_instructions.h"

namespace {

struct seal_test : testing::Test {
    const bytes transfer = counting(32, 5, 9);

    seal_test() { KMsetGSSCallback(); }
    ~seal_test() override { gss_setCallbacks(nullptr); }
};

bytes secret_part(const gss_ctx_id_struct& context, size_t length) {
    return bytes(context.m_SessionKey.data(), context.m_SessionKey.data() + length);
}

bytes number(uint32_t value) {
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

// A sealed message written from its table with the peer's ciphers; `inner_change` is done before the hash is
// taken.
struct recipe {
    gss_qop_t qop = 3;
    uint32_t counter = 1;
    bytes plain;
    uint32_t told_length = 0;  // 0: the plain text's
    uint8_t padding = 0;
    uint8_t told_qop = 0xFF;  // 0xFF: the one used
    uint32_t context_id = 0;  // 0: the right one
};

bytes written_seal(const gss_ctx_id_struct& sender, const recipe& how) {
    const bytes iv(sender.m_InitVect.data(), sender.m_InitVect.data() + 16);
    bytes data = how.plain;
    data.resize((data.size() + 15) / 16 * 16, how.padding);
    if (how.qop != 0) {
        data = peer_cbc(secret_part(sender, how.qop == 1 ? 16 : how.qop == 2 ? 24 : 32), iv, data, true);
    }
    bytes inner(34);
    inner[0] = 3;
    place(&inner, 17, {'C', 'R', 'Y', '1'});
    inner[21] = how.told_qop == 0xFF ? static_cast<uint8_t>(how.qop) : how.told_qop;
    place(&inner, 22,
          number(how.told_length != 0 ? how.told_length : static_cast<uint32_t>(how.plain.size())));
    place(&inner, 26, number(how.counter));
    place(&inner, 30, number(how.context_id != 0 ? how.context_id : sender.m_PartnerCtxID));
    inner.insert(inner.end(), data.begin(), data.end());
    place(&inner, 1, peer_md5(slice(inner, 17, inner.size() - 17)));
    place(&inner, 1, peer_cbc(secret_part(sender, 32), iv, slice(inner, 1, 32), true));
    bytes out = {3};
    if (inner.size() < 127) {
        out.push_back(static_cast<uint8_t>(inner.size()));
    } else {
        bytes length = number(static_cast<uint32_t>(inner.size()));
        while (length.front() == 0) {
            length.erase(length.begin());
        }
        out.push_back(static_cast<uint8_t>(0x80 | length.size()));
        out.insert(out.end(), length.begin(), length.end());
    }
    out.insert(out.end(), inner.begin(), inner.end());
    return out;
}

struct opened_message {
    OM_uint32 major = 0, minor = 0;
    gss_qop_t qop = 99;
    bytes plain;
};

opened_message unseal(gss_ctx_id_t context, const bytes& sealed, gss_qop_t own_qop = 3) {
    opened_message result;
    result.plain.assign(sealed.size(), 0xEE);
    size_t written = 0;
    result.major =
        gss_unwrap_ex(&result.minor, context, own_qop, sealed, result.plain, &written, &result.qop);
    result.plain.resize(written);
    return result;
}

bytes seal(gss_ctx_id_t context, const bytes& plain, gss_qop_t qop) {
    bytes out(CalcMsgSize(plain.size()));
    size_t written = 0;
    EXPECT_EQ(GSS_S_COMPLETE, gss_wrap_ex(nullptr, context, qop != 0, qop, plain, out, &written));
    EXPECT_EQ(out.size(), written);
    return out;
}

TEST_F(seal_test, messages_are_written_as_the_peer_writes_them) {
    handshake pair(transfer);
    pair.establish();
    uint32_t counter = 0;
    for (size_t length : {1u, 15u, 16u, 17u, 63u, 64u, 65u, 80u, 81u, 127u, 128u, 129u, 191u, 192u, 193u,
                          255u, 4096u, 32768u, 70001u}) {
        for (gss_qop_t qop : {0u, 1u, 2u, 3u, 6u}) {
            recipe how;
            how.qop = qop;
            how.counter = ++counter;
            how.plain = counting(length, counter);
            const bytes sealed = seal(pair.initiator, how.plain, qop);
            ASSERT_EQ(written_seal(*pair.initiator, how), sealed) << length << " qop " << qop;
            opened_message got = unseal(pair.acceptor, sealed, 0);
            ASSERT_EQ(GSS_S_COMPLETE, got.major) << got.minor;
            ASSERT_EQ(how.plain, got.plain);
            ASSERT_EQ(qop, got.qop);
        }
    }
}

// The instructions hash and encipher in one pass; without them two passes must give the same bytes.
TEST_F(seal_test, both_engines_seal_alike) {
    handshake pair(transfer);
    pair.establish();
    for (size_t length = 1; length < 500; length += 7) {
        const bytes plain = counting(length);
        const bytes fast = seal(pair.initiator, plain, 3);
        --pair.initiator->m_OutMsgCounter;
        aes_set_key(&pair.initiator->full_key, pair.initiator->m_SessionKey.span(), aes_engine::portable);
        ASSERT_EQ(fast, seal(pair.initiator, plain, 3)) << length;
        aes_set_key(&pair.initiator->full_key, pair.initiator->m_SessionKey.span());
    }
}

TEST_F(seal_test, a_message_opens_in_its_own_place) {
    handshake pair(transfer);
    pair.establish();
    for (gss_qop_t qop : {0u, 3u}) {
        const bytes plain = counting(1000);
        bytes sealed = seal(pair.acceptor, plain, qop);
        size_t at = sealed.size() - 1008, written = 0;
        ASSERT_EQ(GSS_S_COMPLETE, gss_unwrap_ex(nullptr, pair.initiator, 0, sealed,
                                                std::span(sealed).subspan(at), &written, nullptr));
        EXPECT_EQ(plain, slice(sealed, at, written));
    }
}

TEST_F(seal_test, every_changed_byte_is_refused_and_leaves_the_context_as_it_was) {
    handshake pair(transfer);
    pair.establish();
    const bytes plain = counting(200), good = seal(pair.initiator, plain, 3);
    const size_t inner = good.size() - 34 - 208;
    for (size_t at = 0; at < good.size(); ++at) {
        bytes sealed = good;
        sealed[at] ^= 0x10;
        opened_message got = unseal(pair.acceptor, sealed);
        ASSERT_EQ(GSS_S_DEFECTIVE_TOKEN, got.major) << at;
        // Tags and lengths; then the hash, whose first bytes flip the reference in the next block; then the
        // rest.
        OM_uint32 expected = at <= inner                                                 ? GSS_MINOR_PARAMETER
                             : (at >= inner + 17 && at <= inner + 32) || at <= inner + 4 ? GSS_MINOR_VERSION
                                                                                         : GSS_MINOR_HASH;
        ASSERT_EQ(expected, got.minor) << at;
        ASSERT_TRUE(got.plain.empty());
        ASSERT_EQ(0u, pair.acceptor->m_InMsgCounter);
    }
    EXPECT_EQ(plain, unseal(pair.acceptor, good).plain);
}

TEST_F(seal_test, cut_and_prolonged_messages_are_refused) {
    handshake pair(transfer);
    pair.establish();
    const bytes good = seal(pair.initiator, counting(100), 3);
    for (size_t length = 0; length < good.size() + 20; ++length) {
        if (length == good.size()) {
            continue;
        }
        bytes sealed = good;
        sealed.resize(length);
        opened_message got = unseal(pair.acceptor, sealed);
        ASSERT_EQ(GSS_S_DEFECTIVE_TOKEN, got.major);
        ASSERT_EQ(GSS_MINOR_PARAMETER, static_cast<int>(got.minor));
    }
    for (const char* hex :
         {"03", "0380", "0384ffffffff", "0385000000000003", "038103", "0384000000", "03ff0303"}) {
        EXPECT_EQ(GSS_MINOR_PARAMETER, static_cast<int>(unseal(pair.acceptor, from_hex(hex)).minor)) << hex;
    }
}

TEST_F(seal_test, what_is_well_hashed_but_wrong_has_its_number) {
    handshake pair(transfer);
    pair.establish();
    const struct {
        const char* what;
        recipe how;
        OM_uint32 major, minor;
    } rows[] = {
        {"length above the padded size",
         {3, 1, counting(20), 33},
         GSS_S_DEFECTIVE_TOKEN,
         GSS_MINOR_PARAMETER},
        {"length below the last block", {3, 1, counting(20), 16}, GSS_S_DEFECTIVE_TOKEN, GSS_MINOR_PARAMETER},
        {"length that would wrap",
         {3, 1, counting(20), 0xFFFFFFFF},
         GSS_S_DEFECTIVE_TOKEN,
         GSS_MINOR_PARAMETER},
        {"padding that isn't zero", {3, 1, counting(20), 0, 1}, GSS_S_DEFECTIVE_TOKEN, GSS_MINOR_DECRYPT},
        {"plain with padding", {0, 1, counting(20), 0, 1}, GSS_S_DEFECTIVE_TOKEN, GSS_MINOR_DECRYPT},
        {"unknown QOP", {3, 1, counting(20), 0, 0, 7}, GSS_S_DEFECTIVE_TOKEN, GSS_MINOR_PARAMETER},
        {"another context",
         {3, 1, counting(20), 0, 0, 0xFF, 0x12345678},
         GSS_S_NO_CONTEXT,
         GSS_MINOR_PARAMETER},
        {"a counter left out", {3, 2, counting(20)}, GSS_S_UNSEQ_TOKEN, GSS_MINOR_PARAMETER},
        {"a counter seen already", {3, 0, counting(20)}, GSS_S_DUPLICATE_TOKEN, GSS_MINOR_PARAMETER},
    };
    for (const auto& row : rows) {
        opened_message got = unseal(pair.acceptor, written_seal(*pair.initiator, row.how), 0);
        EXPECT_EQ(row.major, got.major) << row.what;
        EXPECT_EQ(row.minor, got.minor) << row.what;
        EXPECT_EQ(0u, pair.acceptor->m_InMsgCounter) << row.what;
    }
}

TEST_F(seal_test, a_replayed_or_reordered_message_is_refused) {
    handshake pair(transfer);
    pair.establish();
    const bytes first = seal(pair.initiator, counting(40), 3), second = seal(pair.initiator, counting(50), 3),
                third = seal(pair.initiator, counting(60), 3);
    EXPECT_EQ(GSS_S_COMPLETE, unseal(pair.acceptor, first).major);
    EXPECT_EQ(GSS_S_DUPLICATE_TOKEN, unseal(pair.acceptor, first).major);
    EXPECT_EQ(GSS_S_UNSEQ_TOKEN, unseal(pair.acceptor, third).major);
    EXPECT_EQ(GSS_S_COMPLETE, unseal(pair.acceptor, second).major);
    EXPECT_EQ(GSS_S_COMPLETE, unseal(pair.acceptor, third).major);
    EXPECT_EQ(GSS_S_DUPLICATE_TOKEN, unseal(pair.acceptor, second).major);
    // A message doesn't open at the side that sent it.
    EXPECT_EQ(GSS_S_NO_CONTEXT, unseal(pair.initiator, first).major);
}

TEST_F(seal_test, qop_follows_flags_and_own_setting) {
    handshake loose(transfer), strict(transfer, GSS_C_CONF_FLAG);
    loose.establish();
    strict.establish();
    const bytes plain = counting(30);
    bytes room(200);
    size_t written = 0;
    OM_uint32 minor = 0;
    EXPECT_EQ(GSS_S_BAD_QOP, unseal(loose.acceptor, seal(loose.initiator, plain, 0), 3).major)
        << "an own QOP that isn't 0 doesn't take plain data";
    for (gss_qop_t qop : {0u, 1u}) {
        EXPECT_EQ(GSS_S_BAD_QOP, gss_wrap_ex(&minor, strict.initiator, 1, qop, plain, room, &written));
        EXPECT_EQ(GSS_MINOR_QOP, static_cast<int>(minor));
        recipe how;
        how.qop = qop;
        how.plain = plain;
        opened_message got = unseal(strict.acceptor, written_seal(*strict.initiator, how), 0);
        EXPECT_EQ(GSS_S_BAD_QOP, got.major);
        EXPECT_EQ(GSS_MINOR_QOP, static_cast<int>(got.minor));
    }
    EXPECT_EQ(GSS_S_BAD_QOP, gss_wrap_ex(&minor, loose.initiator, 1, 7, plain, room, &written));
    EXPECT_EQ(0u, strict.initiator->m_OutMsgCounter);
}

TEST_F(seal_test, sizes_are_told_beforehand) {
    EXPECT_EQ(0u, CalcMsgSize(0));
    EXPECT_EQ(2u + 34 + 16, CalcMsgSize(1));
    EXPECT_EQ(2u + 34 + 16, CalcMsgSize(16)) << "a full block gets no padding block";
    EXPECT_EQ(2u + 34 + 80, CalcMsgSize(80));
    EXPECT_EQ(3u + 34 + 96, CalcMsgSize(81));
    EXPECT_EQ(3u + 34 + 208, CalcMsgSize(208));
    EXPECT_EQ(4u + 34 + 224, CalcMsgSize(209));
    handshake pair(transfer);
    pair.establish();
    bytes plain = counting(10), room(51);
    size_t written = 7;
    OM_uint32 minor = 0;
    EXPECT_EQ(GSS_S_FAILURE, gss_wrap_ex(&minor, pair.initiator, 1, 3, plain, room, &written));
    EXPECT_EQ(GSS_MINOR_PARAMETER, static_cast<int>(minor));
    EXPECT_EQ(GSS_S_FAILURE, gss_wrap_ex(&minor, pair.initiator, 1, 3, {}, room, &written));
    EXPECT_EQ(GSS_MINOR_PARAMETER, static_cast<int>(minor)) << "nothing can't be sealed";
}

TEST_F(seal_test, contexts_that_do_not_stand_seal_nothing) {
    handshake pair(transfer);
    pair.start();
    bytes room(100);
    size_t written = 0;
    EXPECT_EQ(GSS_S_NO_CONTEXT, gss_wrap_ex(nullptr, pair.initiator, 1, 3, counting(3), room, &written));
    EXPECT_EQ(GSS_S_NO_CONTEXT, unseal(pair.initiator, room).major);
    EXPECT_EQ(GSS_S_NO_CONTEXT, gss_wrap_ex(nullptr, nullptr, 1, 3, counting(3), room, &written));
}

TEST_F(seal_test, the_calls_with_buffers_report_gaps) {
    handshake pair(transfer, GSS_C_SEQUENCE_FLAG);
    pair.establish();
    auto pass = [&](bool deliver) -> OM_uint32 {
        bytes plain = counting(77);
        gss_buffer_desc input{plain.size(), plain.data()}, sealed, opened;
        int conf = 0;
        EXPECT_EQ(GSS_S_COMPLETE, gss_wrap(nullptr, pair.initiator, 1, 2, &input, &conf, &sealed));
        EXPECT_EQ(1, conf);
        OM_uint32 major = 0;
        if (deliver) {
            gss_qop_t qop = 0;
            major = gss_unwrap(nullptr, pair.acceptor, &sealed, &opened, &conf, &qop);
            EXPECT_EQ(2u, qop);
            EXPECT_EQ(plain, take(&opened));
        }
        gss_release_buffer(nullptr, &sealed);
        return major;
    };
    EXPECT_EQ(0u, pass(true));
    pass(false);
    EXPECT_EQ(static_cast<OM_uint32>(GSS_S_UNSEQ_TOKEN), pass(true));
}

}  // namespace
