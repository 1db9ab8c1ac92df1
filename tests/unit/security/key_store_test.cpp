#include "security/key_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/context.h"
#include "peer.h"
#include "scratch.h"
#include "security/key_exchange.h"
#include "security/key_file.h"

namespace {

namespace fs = std::filesystem;

struct store_test : testing::Test {
    scratch place;
    const fs::path folder = place.path;
    const std::string file = place.at("KStore.ini");

    std::string content() const { return place.read("KStore.ini"); }
    void write(const std::string& text) const { place.write("KStore.ini", text); }
    unsigned mode() const {
        struct stat status;
        return stat(file.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

TEST_F(store_test, the_company_key_of_two_installations_agrees_by_system_name) {
    key_manager one, two, other;
    ASSERT_EQ(KM_OK, KComInit(&one, "PROD", "A", {}, file));
    ASSERT_EQ(KM_OK, KComInit(&two, "prod  ", "B", {}, folder / "other.ini"));
    ASSERT_EQ(KM_OK, KComInit(&other, "TEST", "A", {}, file));
    // The published derivation: AES-128 under MD5 of the name.
    const bytes name = {'P', 'R', 'O', 'D'};
    const bytes base = from_hex("ad48db295a0460dc3090debb3e5f00da928a6a9ce12093cbea408f7faf9fbbcc");
    const bytes expected = peer_cbc(peer_md5(name), zero_iv, base, true);
    EXPECT_EQ(0, memcmp(expected.data(), one.g_pCompKey.data(), 32));
    EXPECT_EQ(0, memcmp(one.g_pCompKey.data(), two.g_pCompKey.data(), 32));
    EXPECT_NE(0, memcmp(one.g_pCompKey.data(), other.g_pCompKey.data(), 32));
    EXPECT_EQ(one.generator, two.generator);
    EXPECT_EQ(one.modulus, two.modulus);
    EXPECT_FALSE(fs::exists(file)) << "opening doesn't write";
}

TEST_F(store_test, a_transfer_key_is_kept_enciphered_and_read_only) {
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "AGENT1", {}, file));
    const bytes key = counting(32);
    bytes got(32);
    EXPECT_EQ(KM_NAME_UNKNOWN, get_transfer_key(keys, "AGENT1", got.data()));
    bytes hash(16, 9);
    getKeyHash(keys, "AGENT1", hash.data());
    EXPECT_EQ(bytes(16), hash);
    EXPECT_EQ("", key_fingerprint(keys, "AGENT1"));

    ASSERT_EQ(KM_OK, set_transfer_key(&keys, "AGENT1", key.data()));
    EXPECT_EQ(0400u, mode());
    const bytes company(keys.g_pCompKey.data(), keys.g_pCompKey.data() + 32);
    std::string hex;
    for (uint8_t byte : peer_cbc(company, zero_iv, key, true)) {
        char text[3];
        snprintf(text, sizeof text, "%02X", byte);
        hex += text;
    }
    EXPECT_EQ("[AGENT1]\n0.1=" + hex + "\n", content());
    ASSERT_EQ(KM_OK, get_transfer_key(keys, "AGENT1", got.data()));
    EXPECT_EQ(key, got);
    getKeyHash(keys, "AGENT1", hash.data());
    EXPECT_EQ(peer_md5(key), hash);
    // As another program computes it: 512 rounds of MD5 over the purpose and the key.
    EXPECT_EQ("F4DE-64AE-3C03-EECA-C196-F9C0-A82F-2930", key_fingerprint(keys, "agent1"));

    const bytes newer = counting(32, 50);
    ASSERT_EQ(KM_OK, set_transfer_key(&keys, "AGENT1", newer.data()));
    ASSERT_EQ(KM_OK, get_transfer_key(keys, "agent1", got.data()));
    EXPECT_EQ(newer, got);
    EXPECT_EQ(KM_OK, delEncKey(&keys, "AGENT1", 0, KEY_TYPE_PARTNER));
    EXPECT_EQ(KM_NAME_UNKNOWN, get_transfer_key(keys, "AGENT1", got.data()));
    EXPECT_EQ(KM_NAME_UNKNOWN, updEncKey(&keys, "AGENT1", 0, key.data(), 32, KEY_TYPE_PARTNER));
    EXPECT_FALSE(fs::exists(file + ".tmp"));
}

TEST_F(store_test, a_store_of_hand_keeps_its_other_lines) {
    write("; kept by hand\r\n[ Other ]\nx = 1\n\n[agent1]\nnote=here\n\n[Third]\n0.1=00\n");
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "AGENT1", {}, file));
    const uint8_t two[2] = {0xAB, 0xCD};
    ASSERT_EQ(KM_OK, setEncKey(&keys, "AGENT1", 3, two, 2, KEY_TYPE_PARTNER));
    EXPECT_EQ("; kept by hand\r\n[ Other ]\nx = 1\n\n[agent1]\nnote=here\n3.1=ABCD\n\n[Third]\n0.1=00\n",
              content());
    ASSERT_EQ(KM_OK, setEncKey(&keys, "agent1", 3, two, 1, KEY_TYPE_PARTNER));
    ASSERT_EQ(KM_OK, setEncKey(&keys, "New", 0, two, 1, KEY_TYPE_PARTNER));
    EXPECT_EQ(
        "; kept by hand\r\n[ Other ]\nx = "
        "1\n\n[agent1]\nnote=here\n3.1=AB\n\n[Third]\n0.1=00\n[New]\n0.1=AB\n",
        content());
    uint8_t got[32];
    size_t length = sizeof got;
    int type = 0;
    EXPECT_EQ(KM_OK,
              getEncKey(keys, "other", 0, 0, got, &length, &type) == KM_NAME_UNKNOWN ? KM_OK : KM_UNKNOWN);
    EXPECT_EQ(KM_OK, getEncKey(keys, "Third", 0, 0, got, &length, &type));
    EXPECT_EQ(KEY_TYPE_PARTNER, type);
    EXPECT_EQ(1u, length);
}

TEST_F(store_test, names_that_would_break_the_file_are_refused) {
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "AGENT1", {}, file));
    const bytes key = counting(32);
    for (std::string_view bad : {"", "A]B", "A\n[CompanyKey]", " A", "A[", "A\rB"}) {
        EXPECT_EQ(KM_RANGE, set_transfer_key(&keys, bad, key.data())) << bad;
    }
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(store_test, faults_of_the_store_have_their_numbers) {
    key_manager keys;
    EXPECT_EQ(KM_NOT_INITIALIZED, setEncKey(&keys, "A", 0, counting(4).data(), 4, 1));
    EXPECT_EQ(KM_RANGE, KComInit(&keys, "PROD", "A", {}, ""));
    write("[CompanyKey]\n0.2=XY\n");
    EXPECT_EQ(KM_WRONG_DATA, KComInit(&keys, "PROD", "A", {}, file));
    write("[CompanyKey]\n0.2=ABC\n");
    EXPECT_EQ(KM_WRONG_DATA, KComInit(&keys, "PROD", "A", {}, file));
    write("[CompanyKey]\n0.2=ABCD\n");
    EXPECT_EQ(KM_WRONG_DATA, KComInit(&keys, "PROD", "A", {}, file));
    write("[CompanyKey]\n0.2=" + std::string(66, 'A') + "\n");
    EXPECT_EQ(KM_BUFFER_SMALL, KComInit(&keys, "PROD", "A", {}, file));
    EXPECT_EQ(KM_OPEN, KComInit(&keys, "PROD", "A", {}, folder)) << "a directory is no store";
    write(std::string(key_file_limit + 1, '\n'));
    EXPECT_EQ(KM_READ, KComInit(&keys, "PROD", "A", {}, file));
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "A", {}, folder / "missing" / "store"));
    EXPECT_EQ(KM_WRITE, setEncKey(&keys, "A", 0, counting(4).data(), 4, 1));
    EXPECT_STREQ("", km_error_text(KM_PRIMES));
    EXPECT_STREQ("can't open the given file", km_error_text(KM_OPEN));
    EXPECT_STREQ("A bad mech type has been given", km_error_text(KM_KEY_EXISTS));
}

TEST_F(store_test, a_company_key_in_the_store_comes_first) {
    std::string hex;
    for (int i = 0; i < 32; ++i) {
        hex += "0F";
    }
    write("[CompanyKey]\n0.2=" + hex + "\n");
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "A", {}, file));
    EXPECT_EQ(bytes(32, 0x0F), bytes(keys.g_pCompKey.data(), keys.g_pCompKey.data() + 32));
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "A", counting(40), file));
    EXPECT_EQ(counting(32), bytes(keys.g_pCompKey.data(), keys.g_pCompKey.data() + 32))
        << "a given key is cut";
}

TEST_F(store_test, closing_wipes_and_may_be_repeated) {
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "A", {}, file));
    KComExit(&keys);
    KComExit(&keys);
    EXPECT_TRUE(keys.g_pCompKey.is_zero());
    uint8_t key[32];
    EXPECT_EQ(KM_NOT_INITIALIZED, get_transfer_key(keys, "A", key));
    EXPECT_EQ(KM_NOT_INITIALIZED, getCompKey(keys, key));
}

// ---- initial package

initial_package sample_package() {
    initial_package package;
    package.name = "AGENT1";
    memcpy(package.company_key.data(), counting(32, 9).data(), 32);
    memcpy(package.transfer_key.data(), counting(32, 77).data(), 32);
    return package;
}

std::span<const uint8_t> as_bytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST_F(store_test, an_initial_package_brings_both_keys) {
    for (std::string_view password : {"", "secret", "a password of more than sixteen"}) {
        fs::remove(file);
        key_manager keys;
        ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "agent1", {}, file));
        const std::string package = build_initial_package(sample_package(), password);
        ASSERT_EQ(KM_OK, ImportKey(&keys, as_bytes(package), password)) << password;
        bytes got(32);
        key_manager again;
        ASSERT_EQ(KM_OK, KComInit(&again, "PROD", "AGENT1", {}, file));
        EXPECT_EQ(0, memcmp(counting(32, 9).data(), again.g_pCompKey.data(), 32));
        ASSERT_EQ(KM_OK, get_transfer_key(again, "AGENT1", got.data()));
        EXPECT_EQ(counting(32, 77), got);
        EXPECT_EQ(0400u, mode());
    }
}

TEST_F(store_test, the_package_has_the_published_layout) {
    const std::string package = build_initial_package(sample_package(), "");
    std::string expected(
        "\x09"
        "CRY1\0\0\0\x01\0\0\0\0AGENT1\0\0\0",
        22);
    expected.append(16, '\0');
    for (uint8_t byte : counting(32, 9)) {
        expected += static_cast<char>(byte);
    }
    for (uint8_t byte : counting(32, 77)) {
        expected += static_cast<char>(byte);
    }
    EXPECT_EQ(expected, package);
}

TEST_F(store_test, a_package_with_the_company_key_only_is_for_every_agent) {
    initial_package content = sample_package();
    content.name = "SOMEBODY";
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "AGENT1", {}, file));
    EXPECT_EQ(KM_WRONG_DATA, ImportKey(&keys, as_bytes(build_initial_package(content, "")), ""));
    EXPECT_FALSE(fs::exists(file));
    content.flags = initial_package_company_only;
    EXPECT_EQ(KM_OK, ImportKey(&keys, as_bytes(build_initial_package(content, "")), ""));
    bytes got(32);
    EXPECT_EQ(KM_NAME_UNKNOWN, get_transfer_key(keys, "AGENT1", got.data()));
    EXPECT_EQ(0, memcmp(counting(32, 9).data(), keys.g_pCompKey.data(), 32));
}

TEST_F(store_test, faulty_packages_are_refused_by_number) {
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "PROD", "AGENT1", {}, file));
    const std::string good = build_initial_package(sample_package(), "");
    auto import = [&](std::string package, std::string_view password = "") {
        return ImportKey(&keys, as_bytes(package), password);
    };
    for (size_t length = 1; length < good.size(); ++length) {
        ASSERT_EQ(KM_WRONG_DATA, import(good.substr(0, length))) << length;
    }
    EXPECT_EQ(KM_WRONG_DATA, import(""));
    EXPECT_EQ(KM_WRONG_DATA, import(good + std::string(1024, 'x')));
    std::string other = good;
    other[0] = 8;
    EXPECT_EQ(KM_VERSION, import(other));
    other = good;
    other[8] = 2;
    EXPECT_EQ(KM_VERSION, import(other));
    EXPECT_EQ(KM_DECRYPT, import(build_initial_package(sample_package(), "right"), "wrong"));
    EXPECT_EQ(KM_PASSWORD, import(good, std::string(33, 'p')));
    initial_package with_plugin = sample_package();
    with_plugin.plugin = "no-such-store";
    EXPECT_EQ(KM_LIBRARY, import(build_initial_package(with_plugin, "")));
    with_plugin.plugin = "../store";
    EXPECT_EQ(KM_WRONG_DATA, import(build_initial_package(with_plugin, "")));
    EXPECT_FALSE(fs::exists(file));
}

// ---- the agent's start

struct open_test : store_test {
    EX_PCX context;
    open_test() {
        strcpy(context.sysName, "PROD");
        strcpy(context.exName, "AGENT1");
        strncpy(context.pcx_WorkFolder, folder.c_str(), sizeof context.pcx_WorkFolder - 1);
        strncpy(context.IniFile, (folder / "agent.ini").c_str(), sizeof context.IniFile - 1);
        GlbPcx = &context;
    }
    ~open_test() override {
        GssClose();
        GlbPcx = nullptr;
    }
    void settings(const std::string& text) { std::ofstream(context.IniFile) << text; }
};

TEST_F(open_test, opens_with_the_default_store_and_closes_repeatedly) {
    settings("[GLOBAL]\n");
    write("[AGENT1]\n0.1=" + std::string(64, '0') + "\n");
    chmod(file.c_str(), 0644);
    qx7_error error;
    ASSERT_EQ(0, GssOpen(&error)) << error.qx_msgInsert;
    EXPECT_EQ(0400u, mode()) << "nobody else reads the store";
    ASSERT_NE(nullptr, context.pcx_sName);
    EXPECT_EQ("AGENT1", std::string(context.pcx_sName->m_Name.data(), context.pcx_sName->m_Name.size()));
    gss_cred_id_t cred = nullptr;
    EXPECT_EQ(GSS_S_COMPLETE, gss_acquire_cred(nullptr, context.pcx_sName, 0, nullptr, GSS_C_ACCEPT, &cred,
                                               nullptr, nullptr));
    gss_release_cred(nullptr, &cred);
    GssClose();
    GssClose();
    EXPECT_EQ(nullptr, context.pcx_sName);
    EXPECT_TRUE(agent_keys().g_pCompKey.is_zero());
    EXPECT_EQ(0, GssOpen(&error)) << "and opens again";
}

TEST_F(open_test, a_bad_store_is_told_by_number) {
    settings("[AUTHORIZATION]\nKeyStore=bad.ini\n");
    std::ofstream(folder / "bad.ini") << "[CompanyKey]\n0.2=XYZ\n";
    qx7_error error;
    EXPECT_EQ(-1, GssOpen(&error));
    EXPECT_EQ(2000102, error.qx_msgnr);
    EXPECT_STREQ("KComInit|00001393|", error.qx_msgInsert);
}

TEST_F(open_test, an_initial_package_is_taken_once) {
    settings("[AUTHORIZATION]\nInitialPackage=start.pkg\n");
    std::ofstream(folder / "start.pkg") << build_initial_package(sample_package(), "");
    qx7_error error;
    ASSERT_EQ(0, GssOpen(&error)) << error.qx_msgInsert;
    bytes got(32);
    ASSERT_EQ(KM_OK, get_transfer_key(agent_keys(), "AGENT1", got.data()));
    EXPECT_EQ(counting(32, 77), got);
    ASSERT_EQ(KM_OK, set_transfer_key(&agent_keys(), "AGENT1", counting(32, 1).data()));
    GssClose();
    ASSERT_EQ(0, GssOpen(&error));
    ASSERT_EQ(KM_OK, get_transfer_key(agent_keys(), "AGENT1", got.data()));
    EXPECT_EQ(counting(32, 1), got) << "a package that was left behind doesn't bring the old key back";
    GssClose();
    fs::remove(file);
    std::ofstream(folder / "start.pkg") << "rubbish";
    EXPECT_EQ(-1, GssOpen(&error));
    EXPECT_STREQ("ImportKey|0000139D|", error.qx_msgInsert);
    fs::remove(folder / "start.pkg");
    EXPECT_EQ(0, GssOpen(&error)) << "an agent can do without a package";
}

TEST(derivation, keys_from_texts_follow_the_rounds) {
    const bytes first = {'u', 's', 'e', 'r'}, second = {'p', 'w'};
    bytes out(32), expected;
    ASSERT_EQ(KM_OK, GetKeyValue(first, second, out.data(), out.size()));
    for (uint8_t counter = 1; counter <= 2; ++counter) {
        bytes block(64, counter);
        for (size_t i = 0; i < 64; ++i) {
            block.push_back(first[i % 4]);
        }
        for (size_t i = 0; i < 64; ++i) {
            block.push_back(second[i % 2]);
        }
        bytes digest = peer_md5(block);
        for (int i = 0; i < 511; ++i) {
            digest = peer_md5(digest);
        }
        expected.insert(expected.end(), digest.begin(), digest.end());
    }
    EXPECT_EQ(expected, out);
    EXPECT_EQ(KM_RANGE, GetKeyValue(first, second, out.data(), 0));
}

}  // namespace
