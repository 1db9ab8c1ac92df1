// The recorded logon of docs/logon.md opens with the keys that stand on that page, and the table of primes of
// docs/security.md is the one that the key exchange uses.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "peer.h"
#include "security/key_exchange.h"
#include "security/token.h"

namespace {

std::string page(const char* name) {
    std::ifstream in(std::string(QX_SOURCE_DIR) + "/docs/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct frame_text {
    std::string header;
    bytes body;
};

// A frame is a line with the header in quotes and the lines of hex behind it, each indented by four blanks.
std::vector<frame_text> frames(const std::string& text) {
    std::vector<frame_text> out;
    std::istringstream lines(text);
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("    \"") && line.size() == 54) {
            out.push_back({line.substr(5, 48), {}});
            inside = true;
        } else if (inside && line.starts_with("    ")) {
            const bytes more = from_hex(line.substr(4));
            out.back().body.insert(out.back().body.end(), more.begin(), more.end());
        } else {
            inside = false;
        }
    }
    return out;
}

// The value in backquotes in the row of a key.
bytes row(const std::string& text, const std::string& name) {
    const size_t at = text.find("| " + name + " | `");
    const size_t start = text.find('`', at) + 1;
    return at == std::string::npos ? bytes() : from_hex(text.substr(start, text.find('`', start) - start));
}

uint32_t number(const bytes& from) {
    return from.size() == 4 ? TransToUInt32(from.data()) : 0;
}

void make_context(gss_ctx_id_struct* context, const bytes& session, const bytes& vector, uint32_t own,
                  uint32_t partner) {
    context->m_CtxID = own;
    context->m_PartnerCtxID = partner;
    context->m_CtxState = GSS_CTX_INITIATED;
    memcpy(context->m_InitVect.data(), vector.data(), gss_key_size);
    aes_set_key(&context->full_key, session);
}

std::string opened(gss_ctx_id_struct* context, const bytes& sealed) {
    bytes plain(sealed.size());
    size_t written = 0;
    OM_uint32 minor = 0;
    gss_qop_t qop = 0;
    if (gss_unwrap_ex(&minor, context, 3, sealed, plain, &written, &qop) != GSS_S_COMPLETE) {
        return "minor " + std::to_string(minor);
    }
    return std::string(plain.begin(), plain.begin() + static_cast<ptrdiff_t>(written));
}

TEST(logon_page, opens_with_its_keys) {
    const std::string text = page("logon.md");
    const auto all = frames(text);
    ASSERT_EQ(10u, all.size());
    for (const frame_text& each : all) {
        EXPECT_EQ(each.body.size() + 48, std::stoul(each.header.substr(0, 8))) << each.header;
    }
    const bytes transfer = row(text, "transfer key"), session = row(text, "session key");
    const bytes vector = row(text, "vector");
    const uint32_t server = number(row(text, "the server's context id"));
    const uint32_t agent = number(row(text, "the agent's context id"));
    ASSERT_EQ(32u, transfer.size());
    ASSERT_EQ(32u, session.size());
    ASSERT_EQ(32u, vector.size());

    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "CP", {}, testing::TempDir() + "no-such-store"));
    key_exchange exchange;
    const std::string at = "the server's private numbers | ";
    std::istringstream numbers(text.substr(text.find(at) + at.size()));
    for (uint64_t& x : exchange.private_numbers) {
        std::string word;
        numbers >> word;
        x = std::stoull(word.substr(1), nullptr, 16);
    }
    startpack start;
    memcpy(start.pExName, "AGENT1", 6);
    for (unsigned i = 0; i < 4; ++i) {
        start.pDHValues[i] = XpowYmodN(keys.generator, exchange.private_numbers[i], keys.modulus);
    }
    bytes package(start_package_size);
    buildSPpackage(start, package.data());
    cryptSPpackage(keys, package.data());
    EXPECT_EQ(package, all[2].body);
    bytes agreed(gss_key_size);
    ASSERT_EQ(KM_OK,
              key_exchange_finish(keys, exchange, all[3].body.data(), all[3].body.size(), agreed.data()));
    EXPECT_EQ(transfer, agreed);

    aes_key transfer_key, session_key;
    aes_set_key(&transfer_key, transfer);
    aes_set_key(&session_key, session);
    init_token init;
    ASSERT_EQ(0u, splitInitToken(all[4].body.data(), all[4].body.size(), transfer_key, &init));
    EXPECT_EQ(server, init.m_SrcCtxID);
    EXPECT_STREQ("PROD", init.m_pCodName);
    EXPECT_EQ(0, memcmp(session.data(), init.m_pCodSessionKey.data(), gss_key_size));
    accept_token accept;
    ASSERT_EQ(0u, splitAcceptToken(all[5].body.data(), all[5].body.size(), session_key, &accept));
    EXPECT_EQ(agent, accept.m_DestCtxID);
    EXPECT_EQ(0, memcmp(vector.data(), accept.m_pIV, gss_key_size));

    gss_ctx_id_struct at_server, at_agent;
    make_context(&at_server, session, vector, server, agent);
    make_context(&at_agent, session, vector, agent, server);
    EXPECT_NE(std::string::npos, opened(&at_server, all[6].body).find("EXSTART202"));
    EXPECT_NE(std::string::npos, opened(&at_agent, all[7].body).find("EXSTRTQ202"));
    EXPECT_NE(std::string::npos, opened(&at_agent, all[8].body).find("JOB_CAN 01"));
    EXPECT_NE(std::string::npos, opened(&at_server, all[9].body).find("QUITT   01"));
}

TEST(logon_page, table_of_primes_is_the_one_in_use) {
    const std::string text = page("security.md");
    const size_t at = text.find("## Table of primes");
    ASSERT_NE(std::string::npos, at);
    std::istringstream lines(text.substr(at));
    std::vector<uint64_t> primes;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.starts_with("    ") ? line.substr(4) : "");
        std::string word;
        if (words >> word) {
            EXPECT_EQ(primes.size(), std::stoul(word));
        }
        while (words >> word) {
            primes.push_back(std::stoull(word, nullptr, 16));
        }
    }
    ASSERT_EQ(256u, primes.size());
    for (size_t k = 0; k < 256; ++k) {
        bytes key(gss_key_size);
        key[9] = static_cast<uint8_t>(k);
        uint64_t generator = 0, modulus = 0;
        ASSERT_EQ(KM_OK, _compDHPrimes(key.data(), key.size(), &generator, &modulus));
        EXPECT_EQ(primes[k], generator) << k;
        EXPECT_EQ(primes[(k + 128) % 256], modulus) << k;
    }
}

}  // namespace
