// Initial packages, the operator's word about keys, and fingerprints.
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "console_fixture.h"
#include "security/key_store.h"

namespace {

struct keys : console {
    std::string package_path() const { return folder.path + "/agent.package"; }
    // What the server has printed of a kind, the last line of it.
    std::string event(const std::string& kind) const {
        std::string found;
        for (const std::string& line : lines_of(server.output())) {
            found = line.find("Z " + kind + " ") != std::string::npos ? line : found;
        }
        return found;
    }
};

TEST_F(keys, an_agent_with_an_initial_package_logs_on_without_a_key_exchange) {
    serve();
    installation host("PACKED", port);
    ASSERT_EQ(qxcp({"package", "PACKED", "--output", package_path()}), 0) << output;
    struct stat status;
    ASSERT_EQ(stat(package_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    const std::string told = output;
    EXPECT_EQ(qxcp({"package", "PACKED", "--output", package_path()}), 1) << "an old file stays";
    EXPECT_EQ(qxcp({"package", "packed", "--output", folder.path + "/second"}), 1);
    EXPECT_TRUE(says("qxcp forget-key packed")) << "the first package would be worth nothing: " << output;
    EXPECT_NE(access((folder.path + "/second").c_str(), F_OK), 0);

    host.ini["AUTHORIZATION"]["InitialPackage"] = package_path();
    log_on(host);
    EXPECT_TRUE(host.log_has("U02000103")) << host.log();
    EXPECT_EQ(server.output().find("first contact"), std::string::npos) << server.output();
    ASSERT_EQ(qxcp({"agents", "--json"}), 0);
    const std::string fingerprint = nlohmann::json::parse(output).value("key", "");
    EXPECT_EQ(fingerprint.size(), 39u);
    EXPECT_NE(told.find(fingerprint), std::string::npos) << told;
    EXPECT_EQ(qxcp({"run", script("#!/bin/sh\nexit 3\n")}), 3) << output;
}

TEST_F(keys, an_own_company_key_travels_in_a_package_for_any_agent) {
    serve({"--own-company-key"});
    ASSERT_EQ(qxcp({"package", "--company-only", "--output", package_path()}), 0) << output;
    EXPECT_FALSE(says("keeps nobody out")) << output;
    initial_package content;
    const std::string bytes = read_file(package_path());
    ASSERT_EQ(
        parse_initial_package({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, "", &content),
        0);
    EXPECT_EQ(content.flags, initial_package_company_only);
    EXPECT_TRUE(content.transfer_key.is_zero());
    qx_secret<gss_key_size> derived;
    default_company_key("TESTSYS", derived.data());
    EXPECT_NE(memcmp(content.company_key.data(), derived.data(), gss_key_size), 0);

    installation stranger("STRANGER", port);
    stranger.start();
    ASSERT_TRUE(wait_until(20000, [&] { return server.output().find("STRANGER") != std::string::npos; }));
    installation host("PACKED", port);
    host.ini["AUTHORIZATION"]["InitialPackage"] = package_path();
    log_on(host);
    EXPECT_FALSE(says("STRANGER")) << "the system's name alone is no key any more: " << output;
    EXPECT_NE(event("key").find("agent PACKED, fingerprint "), std::string::npos) << server.output();

    // It stays after a restart, and is not made where keys stand under another one.
    server.signal(SIGTERM);
    ASSERT_TRUE(server.wait_end(10000));
    serve();
    EXPECT_TRUE(agent_is_on("PACKED")) << host.log() << server.output();
}

TEST_F(keys, a_held_key_is_given_up_only_by_the_operators_word) {
    serve();
    installation host("KEYED", port);
    log_on(host);
    const std::string first = event("key");
    ASSERT_EQ(qxcp({"agents", "--json"}), 0) << output;
    const std::string fingerprint = nlohmann::json::parse(output).value("key", "");
    EXPECT_EQ(fingerprint.size(), 39u) << output;
    EXPECT_TRUE(first.ends_with("fingerprint " + fingerprint)) << first;
    EXPECT_TRUE(host.log_has("its fingerprint is " + fingerprint))
        << "both sides show the same: " << host.log();
    ASSERT_TRUE(host.stop());

    // The same name without a key: a stranger, or an agent that was installed anew.
    installation stranger("KEYED", port);
    stranger.start();
    ASSERT_TRUE(wait_until(20000, [&] {
        return event("fault").find("qxcp forget-key KEYED") != std::string::npos;
    })) << server.output();
    EXPECT_EQ(event("key"), first);
    EXPECT_TRUE(stranger.stop());
    log_on(host);
    ASSERT_TRUE(host.stop());

    EXPECT_EQ(qxcp({"forget-key", "NOBODY"}), 1);
    EXPECT_TRUE(says("no key of agent 'NOBODY'")) << output;
    ASSERT_EQ(qxcp({"forget-key", "KEYED"}), 0) << output;
    log_on(stranger);
    EXPECT_NE(event("key"), first);
    // Whoever holds the key that was given up is told apart, with what to do.
    ASSERT_TRUE(stranger.stop());
    host.start();
    EXPECT_TRUE(wait_until(20000, [&] {
        return event("fault").find("another transfer key") != std::string::npos;
    })) << server.output();
}

TEST_F(keys, a_key_store_that_cannot_be_written_is_told_in_words) {
    installation host("LOCKED", port);
    const std::string place = host.path("keys");
    ASSERT_EQ(mkdir(place.c_str(), 0700), 0);
    host.ini["AUTHORIZATION"]["KeyStore"] = place + "/KStore.ini";
    host.start();
    ASSERT_TRUE(wait_until(20000, [&] { return host.log_has("U02000355"); })) << host.log();
    std::filesystem::remove_all(place);  // no file can be made there, by root neither
    serve();
    ASSERT_TRUE(wait_until(40000, [&] { return !event("fault").empty(); })) << server.output() << host.log();
    EXPECT_NE(event("fault").find("the key store cannot be written"), std::string::npos) << event("fault");
}

}  // namespace
