// The worked example of docs/security.md is what this code does: whoever writes the other side compares with
// it.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "peer.h"
#include "security/key_exchange.h"
#include "security/string_cipher.h"
#include "security/token.h"

namespace {

// The example's text without blanks and line ends.
std::string example() {
    std::ifstream in(std::string(QX_SOURCE_DIR) + "/docs/security.md");
    std::stringstream text;
    text << in.rdbuf();
    std::string page = text.str(), out;
    size_t at = page.find("## A worked example");
    for (char c : at == std::string::npos ? "" : page.substr(at)) {
        if (c > 32) {
            out += c;
        }
    }
    return out;
}

std::string hex(const uint8_t* data, size_t length) {
    std::string out;
    for (size_t i = 0; i < length; ++i) {
        char text[3];
        snprintf(text, sizeof text, "%02X", data[i]);
        out += text;
    }
    return out;
}

TEST(worked_example, is_what_this_code_does) {
    const std::string page = example();
    ASSERT_FALSE(page.empty());
    auto stands = [&](const char* what, const uint8_t* data, size_t length) {
        EXPECT_NE(std::string::npos, page.find(hex(data, length))) << what << " " << hex(data, length);
    };
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "CP", {}, testing::TempDir() + "no-such-store"));
    stands("company key", keys.g_pCompKey.data(), gss_key_size);

    startpack start;
    memcpy(start.pExName, "AGENT1", 6);
    for (unsigned i = 0; i < 4; ++i) {
        start.pDHValues[i] = XpowYmodN(keys.generator, i + 1, keys.modulus);
    }
    uint8_t package[start_package_size];
    buildSPpackage(start, package);
    cryptSPpackage(keys, package);
    stands("start package", package, sizeof package);

    aes_key transfer, session;
    aes_set_key(&transfer, counting(32, 0x00, 1));
    aes_set_key(&session, counting(32, 0x20, 1));
    init_token init;
    init.m_SrcCtxID = 0x01020304;
    memcpy(init.m_pCodName, "PROD", 4);
    memcpy(init.m_pCodSessionKey.data(), counting(32, 0x20, 1).data(), gss_key_size);
    uint8_t init_bytes[gss_init_token_size], accept_bytes[gss_accept_token_size];
    constructInitToken(init, transfer, init_bytes);
    stands("init token", init_bytes, sizeof init_bytes);

    accept_token accept;
    accept.m_DestCtxID = 0x0A0B0C0D;
    memcpy(accept.m_pIV, counting(32, 0x40, 1).data(), sizeof accept.m_pIV);
    constructAcceptToken(accept, session, accept_bytes);
    stands("accept token", accept_bytes, sizeof accept_bytes);

    gss_ctx_id_struct context;
    context.m_PartnerCtxID = accept.m_DestCtxID;
    context.m_CtxState = GSS_CTX_INITIATED;
    memcpy(context.m_InitVect.data(), accept.m_pIV, gss_key_size);
    aes_set_key(&context.full_key, counting(32, 0x20, 1));
    const bytes hello = {'h', 'e', 'l', 'l', 'o'};
    bytes sealed(CalcMsgSize(hello.size()));
    size_t written = 0;
    ASSERT_EQ(GSS_S_COMPLETE, gss_wrap_ex(nullptr, &context, 1, 3, hello, sealed, &written));
    stands("sealed message", sealed.data(), written);

    const std::string field = build_password_field(4711, "secret");
    EXPECT_NE(std::string::npos,
              page.find(field.substr(0, 10) + hex(reinterpret_cast<const uint8_t*>(field.data()) + 10, 16)));
}

}  // namespace
