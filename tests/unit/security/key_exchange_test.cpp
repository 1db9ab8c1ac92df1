#include "security/key_exchange.h"

#include <gtest/gtest.h>

#include <cstring>

#include "peer.h"
#include "scratch.h"

namespace {

struct exchange_test : testing::Test {
    scratch folder;
    key_manager agent, server;

    exchange_test() {
        EXPECT_EQ(KM_OK, KComInit(&agent, "PROD", "AGENT1", {}, folder / "agent.ini"));
        EXPECT_EQ(KM_OK, KComInit(&server, "PROD", "CP1", {}, folder / "server.ini"));
    }

    int answer_to(const bytes& package, bytes* answer, int command = GSS_CMD_START) {
        answer->assign(2000, 0);
        size_t length = answer->size();
        int number = cmdData(&agent, "AGENT1", command, package.data(), package.size(), answer->data(),
                             &length, nullptr, nullptr);
        answer->resize(length);
        return number;
    }
    bytes company() const { return bytes(agent.g_pCompKey.data(), agent.g_pCompKey.data() + 32); }
    bool agent_holds_a_key() const {
        uint8_t key[32];
        return get_transfer_key(agent, "AGENT1", key) == KM_OK;
    }
};

TEST_F(exchange_test, both_sides_hold_the_same_key) {
    for (bool encode : {true, false}) {
        delEncKey(&agent, "AGENT1", 0, KEY_TYPE_PARTNER);
        key_exchange exchange;
        exchange.encode = encode;
        bytes package(start_package_size), answer, agreed(32), stored(32);
        ASSERT_EQ(KM_OK, key_exchange_start(server, "AGENT1", &exchange, package.data()));
        EXPECT_EQ(encode ? 0x81 : 0x01, package[3]);
        ASSERT_EQ(KM_OK, answer_to(package, &answer));
        ASSERT_EQ(response_package_size, answer.size());
        EXPECT_EQ(package[3], answer[2]) << "the answer has the form of the question";
        ASSERT_EQ(KM_OK, key_exchange_finish(server, exchange, answer.data(), answer.size(), agreed.data()));
        ASSERT_EQ(KM_OK, get_transfer_key(agent, "AGENT1", stored.data()));
        EXPECT_EQ(stored, agreed);
        EXPECT_NE(bytes(32), agreed);
    }
}

TEST_F(exchange_test, an_agent_that_takes_no_key_says_why) {
    key_exchange exchange;
    bytes package(start_package_size), answer, agreed(32);
    ASSERT_EQ(KM_OK, key_exchange_start(server, "AGENT1", &exchange, package.data()));
    agent.first_contact = false;
    EXPECT_EQ(KM_UNEXPECTED, answer_to(package, &answer));
    EXPECT_EQ(KM_UNEXPECTED,
              key_exchange_finish(server, exchange, answer.data(), answer.size(), agreed.data()));
    EXPECT_FALSE(agent_holds_a_key());
    agent.first_contact = true;
    agent.file = folder / "none/agent.ini";
    EXPECT_EQ(KM_WRITE, answer_to(package, &answer));
    EXPECT_EQ("the key store cannot be written, '" + agent.file + "': No such file or directory",
              km_explain(agent, KM_WRITE));
}

// A server written from the tables: packages by byte, arithmetic by plain repeated multiplication of small
// exponents.
TEST_F(exchange_test, packages_have_the_published_layout) {
    startpack start;
    memcpy(start.pExName, "AGENT1", 6);
    for (size_t i = 0; i < 4; ++i) {
        // Private number i + 1, so that the public value is a power that can be multiplied out.
        start.pDHValues[i] = server.generator % server.modulus;
        for (size_t times = 0; times < i; ++times) {
            start.pDHValues[i] = static_cast<uint64_t>(static_cast<unsigned __int128>(start.pDHValues[i]) *
                                                       server.generator % server.modulus);
        }
    }
    bytes expected(180);
    place(&expected, 0, from_hex("0481b181"));
    expected[20] = 1;
    place(&expected, 85, {'A', 'G', 'E', 'N', 'T', '1'});
    for (size_t i = 0; i < 32; ++i) {
        expected[53 + i] = static_cast<uint8_t>(start.pDHValues[i / 8] >> (8 * (7 - i % 8)));
    }
    place(&expected, 4, peer_md5(slice(expected, 20, 160)));
    encipher_range(&expected, 4, 176, company());
    bytes package(180);
    buildSPpackage(start, package.data());
    ASSERT_EQ(KM_OK, cryptSPpackage(server, package.data()));
    EXPECT_EQ(expected, package);

    bytes answer;
    ASSERT_EQ(KM_OK, answer_to(package, &answer));
    place(&answer, 3, peer_cbc(company(), zero_iv, slice(answer, 3, 112), false));
    EXPECT_EQ(from_hex("047181"), slice(answer, 0, 3));
    EXPECT_EQ(peer_md5(slice(answer, 19, 96)), slice(answer, 3, 16));
    EXPECT_EQ(2, answer[19]);
    EXPECT_EQ(0, answer[20]);
    EXPECT_EQ(bytes(62), slice(answer, 53, 62));
    // Their shared key: the agent's public values to the powers 1 to 4.
    bytes key(32), stored(32);
    for (size_t i = 0; i < 4; ++i) {
        uint64_t value = 0, power = 1;
        for (size_t at = 0; at < 8; ++at) {
            value = value << 8 | answer[21 + 8 * i + at];
        }
        for (size_t times = 0; times <= i; ++times) {
            power = static_cast<uint64_t>(static_cast<unsigned __int128>(power) * value % server.modulus);
        }
        for (size_t at = 0; at < 8; ++at) {
            key[8 * i + at] = static_cast<uint8_t>(power >> (56 - 8 * at));
        }
    }
    ASSERT_EQ(KM_OK, get_transfer_key(agent, "AGENT1", stored.data()));
    EXPECT_EQ(key, stored);
}

TEST_F(exchange_test, a_package_that_cannot_be_opened_gets_no_answer) {
    key_exchange exchange;
    bytes good(start_package_size), answer;
    ASSERT_EQ(KM_OK, key_exchange_start(server, "AGENT1", &exchange, good.data()));
    for (size_t at = 0; at < good.size(); ++at) {
        bytes package = good;
        package[at] ^= 0x08;
        int number = answer_to(package, &answer);
        ASSERT_EQ(at < 4 ? KM_WRONG_DATA : KM_HASH, number) << at;
        ASSERT_TRUE(answer.empty()) << at;
    }
    good[3] ^= 0x80;
    EXPECT_EQ(KM_HASH, answer_to(good, &answer));
    good[3] ^= 0x80;
    key_manager stranger;
    ASSERT_EQ(KM_OK, KComInit(&stranger, "OTHER", "CP1", {}, folder / "stranger.ini"));
    ASSERT_EQ(KM_OK, key_exchange_start(stranger, "AGENT1", &exchange, good.data()));
    EXPECT_EQ(KM_HASH, answer_to(good, &answer));
    for (size_t length : {0u, 1u, 179u, 181u, 512u, 513u}) {
        EXPECT_EQ(KM_WRONG_DATA, answer_to(bytes(length), &answer));
    }
    EXPECT_EQ(KM_UNEXPECTED, answer_to(good, &answer, GSS_CMD_RESPONSE));
    EXPECT_EQ(KM_WRONG_DATA, answer_to(good, &answer, GSS_CMD_20));
    EXPECT_FALSE(agent_holds_a_key());
}

TEST_F(exchange_test, what_opens_but_is_refused_is_answered_with_the_number) {
    auto refuse = [&](const startpack& start, int expected) {
        bytes package(start_package_size), answer, key(32);
        buildSPpackage(start, package.data());
        cryptSPpackage(server, package.data());
        EXPECT_EQ(expected, answer_to(package, &answer));
        ASSERT_EQ(response_package_size, answer.size());
        key_exchange exchange;
        EXPECT_EQ(expected, key_exchange_finish(server, exchange, answer.data(), answer.size(), key.data()));
        decryptRPpackage(server, answer.data());
        EXPECT_EQ(expected - 5000, answer[20]);
        EXPECT_EQ(bytes(32), slice(answer, 21, 32));
        EXPECT_FALSE(agent_holds_a_key());
    };
    startpack good;
    memcpy(good.pExName, "AGENT1", 6);
    for (uint64_t& value : good.pDHValues) {
        value = 12345;
    }
    startpack bad = good;
    memcpy(bad.pExName, "AGENT2", 6);
    refuse(bad, KM_WRONG_DATA);
    bad = good;
    strcpy(bad.pKStorePlug, "absent");
    refuse(bad, KM_LIBRARY);
    for (uint64_t value : {uint64_t{0}, uint64_t{1}, agent.modulus - 1, agent.modulus, ~uint64_t{0}}) {
        bad = good;
        bad.pDHValues[2] = value;
        refuse(bad, KM_RANGE);
    }
}

TEST_F(exchange_test, a_key_that_is_there_is_never_replaced) {
    const bytes held = counting(32);
    ASSERT_EQ(KM_OK, set_transfer_key(&agent, "AGENT1", held.data()));
    key_exchange exchange;
    bytes package(start_package_size), answer, key(32);
    ASSERT_EQ(KM_OK, key_exchange_start(server, "AGENT1", &exchange, package.data()));
    EXPECT_EQ(KM_KEY_EXISTS, answer_to(package, &answer));
    EXPECT_EQ(KM_KEY_EXISTS, key_exchange_finish(server, exchange, answer.data(), answer.size(), key.data()));
    ASSERT_EQ(KM_OK, get_transfer_key(agent, "AGENT1", key.data()));
    EXPECT_EQ(held, key);
}

TEST_F(exchange_test, a_server_refuses_changed_answers) {
    key_exchange exchange;
    bytes package(start_package_size), good, key(32);
    ASSERT_EQ(KM_OK, key_exchange_start(server, "AGENT1", &exchange, package.data()));
    ASSERT_EQ(KM_OK, answer_to(package, &good));
    for (size_t at = 0; at < good.size(); ++at) {
        bytes answer = good;
        answer[at] ^= 0x02;
        ASSERT_EQ(at < 3 ? KM_WRONG_DATA : KM_HASH,
                  key_exchange_finish(server, exchange, answer.data(), answer.size(), key.data()))
            << at;
    }
    EXPECT_EQ(KM_WRONG_DATA, key_exchange_finish(server, exchange, good.data(), 114, key.data()));
}

TEST_F(exchange_test, bodies_are_told_apart) {
    int command = 0;
    bool token = false;
    auto classify = [&](bytes data) { return classifyData(data.data(), data.size(), &command, &token); };
    EXPECT_EQ(KM_RANGE, classify({4, 1}));
    EXPECT_EQ(KM_RANGE, classifyData(nullptr, 10, &command, &token));
    const struct {
        size_t length;
        int command;
    } rows[] = {{5, 18}, {6, 19}, {7, 21}, {21, 20}, {115, 17}, {180, 16}};
    for (const auto& row : rows) {
        bytes data(row.length);
        data[1] = static_cast<uint8_t>(row.length < 130 ? row.length - 2 : 129);
        data[2] = static_cast<uint8_t>(row.length < 130 ? 0 : row.length - 3);
        EXPECT_EQ(KM_OK, classify(data)) << row.length;
        EXPECT_EQ(row.command, command);
        EXPECT_FALSE(token);
        data.push_back(0);
        EXPECT_EQ(KM_WRONG_DATA, classify(data)) << "a length that isn't the told one";
    }
    EXPECT_EQ(KM_WRONG_DATA, classify({4, 2, 0, 0}));
    bytes head = from_hex("608194060b2b06010401868d1f0101000385");
    head.resize(151);
    EXPECT_EQ(KM_OK, classify(head));
    EXPECT_TRUE(token);
    head[15] = 1;
    EXPECT_EQ(KM_WRONG_DATA, classify(head)) << "a credential is announced that isn't there";
    head.resize(406);
    EXPECT_EQ(KM_OK, classify(head));
    EXPECT_TRUE(token);
}

TEST(numbers, powers_and_primes_are_right) {
    EXPECT_EQ(1u, XpowYmodN(5, 0, 7));
    EXPECT_EQ(0u, XpowYmodN(5, 0, 1));
    EXPECT_EQ(4u, XpowYmodN(2, 10, 17) == 4 ? 4u : 0u);
    // Fermat, with the largest prime below 2^64.
    const uint64_t largest = 18446744073709551557u;
    EXPECT_EQ(1u, XpowYmodN(123456789, largest - 1, largest));
    for (uint64_t prime :
         {uint64_t{2}, uint64_t{3}, uint64_t{5}, uint64_t{65537}, uint64_t{2147483647}, largest}) {
        EXPECT_TRUE(MillerRabin(prime, 100)) << prime;
    }
    // Products of two primes, Carmichael numbers and numbers that fool single bases.
    for (uint64_t composite : {uint64_t{0}, uint64_t{1}, uint64_t{4}, uint64_t{561}, uint64_t{2047},
                               uint64_t{3215031751}, uint64_t{4294967291} * 4294967279u, largest - 2}) {
        EXPECT_FALSE(MillerRabin(composite, 100)) << composite;
    }
}

}  // namespace
