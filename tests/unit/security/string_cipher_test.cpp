#include "security/string_cipher.h"

#include <gtest/gtest.h>

#include <cstring>

#include "peer.h"
#include "security/des.h"

namespace {

std::string encipher(const std::string& text, const char* key) {
    std::string out(EnMaxim_size(text.size()), '?');
    EXPECT_EQ(0, ZUSTRNG_EnMaxim2(out.data(), out.size(), text.c_str(), key));
    return out.c_str();
}

std::string decipher(const std::string& text, const char* key, int expected = 0) {
    std::string out(text.size() + 1, '?');
    EXPECT_EQ(expected, ZUSTRNG_DeMaxim2(out.data(), out.size(), text.c_str(), key)) << text;
    return out.c_str();
}

TEST(string_cipher, texts_come_back_for_every_length) {
    for (size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'x');
        const std::string sealed = encipher(text, "key");
        EXPECT_EQ(4 + (length / 8 + 1) * 16, sealed.size());
        EXPECT_EQ(
            "\xAD\xAD"
            "10",
            sealed.substr(0, 4));
        EXPECT_EQ(text, decipher(sealed, "key"));
    }
}

TEST(string_cipher, seven_characters_and_their_end_fill_one_block) {
    des_key key;
    desinit(&key, reinterpret_cast<const uint8_t*>("12345678"));
    uint8_t block[8] = {'s', 'e', 'c', 'r', 'e', 't', 's', 0};
    endes(key, block);
    std::string expected(
        "\xAD\xAD"
        "10");
    for (uint8_t byte : block) {
        char hex[3];
        snprintf(hex, sizeof hex, "%02X", byte);
        expected += hex;
    }
    EXPECT_EQ(expected, encipher("secrets", "12345678 and what follows doesn't count"));
    EXPECT_EQ(encipher("secrets", "12345678"), encipher("secrets", "12345678"));
    EXPECT_NE(encipher("secret", "12345678"), encipher("secret", "12345678"))
        << "a filled block is never the same";
}

TEST(string_cipher, what_is_not_enciphered_passes_through) {
    const std::string good = encipher("word", "key");
    std::string version = good, odd = good.substr(0, good.size() - 1), no_hex = good, older = good;
    version[3] = '1';
    no_hex[9] = 'G';
    older[0] = older[1] = '-';
    for (const std::string& text : {std::string("plain"), std::string(), version, odd, no_hex,
                                    std::string("\xAD\xAD"
                                                "10")}) {
        EXPECT_EQ(text, decipher(text, "key", 1));
    }
    EXPECT_EQ("word", decipher(older, "key"));
    std::string lower = good;
    for (char& c : lower) {
        c = static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c);
    }
    EXPECT_EQ("word", decipher(lower, "key"));
}

TEST(string_cipher, works_in_place_and_within_its_room) {
    std::string text = encipher("in the same place", "key");
    ASSERT_EQ(0, ZUSTRNG_DeMaxim2(text.data(), text.size() + 1, text.c_str(), "key"));
    EXPECT_STREQ("in the same place", text.c_str());
    char small[5] = "full";
    EXPECT_EQ(-1, ZUSTRNG_EnMaxim2(small, sizeof small, "secret", "key"));
    EXPECT_STREQ("", small);
    EXPECT_EQ(-1, ZUSTRNG_DeMaxim2(small, sizeof small, encipher("12345", "key").c_str(), "key"));
    EXPECT_EQ(0, ZUSTRNG_DeMaxim2(small, sizeof small, encipher("1234", "key").c_str(), "key"));
    EXPECT_STREQ("1234", small);
    EXPECT_EQ(-1, ZUSTRNG_DeMaxim2(small, sizeof small, "plain", "key"));
    // Another key gives a text without an end, or another text, but never more than there is room for.
    for (int i = 0; i < 50; ++i) {
        char out[16];
        int result = ZUSTRNG_DeMaxim2(out, sizeof out,
                                      encipher("some words", ("k" + std::to_string(i)).c_str()).c_str(), "z");
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_LT(strnlen(out, sizeof out), sizeof out);
    }
}

TEST(string_cipher, the_current_key_is_built_in_until_one_is_set) {
    clearkey();
    char with_current[40], with_built_in[40];
    ASSERT_EQ(0, ZUSTRNG_EnMaxim(with_current, sizeof with_current, "1234567"));
    ASSERT_EQ(0, ZUSTRNG_EnMaxim2(with_built_in, sizeof with_built_in, "1234567", "QX7-string-cipher"));
    EXPECT_STREQ(with_built_in, with_current);
    initkey("mine");
    ASSERT_EQ(0, ZUSTRNG_EnMaxim(with_current, sizeof with_current, "1234567"));
    EXPECT_STRNE(with_built_in, with_current);
    EXPECT_EQ("1234567", decipher(with_current, "mine"));
    // The call with a key of its own has cleared the current one.
    ASSERT_EQ(0, ZUSTRNG_EnMaxim(with_current, sizeof with_current, "1234567"));
    EXPECT_STREQ(with_built_in, with_current);
    clearkey();
    clearkey();
}

TEST(password, the_field_opens_under_its_number_only) {
    for (const std::string& word :
         {std::string("secret"), std::string(15, 'p'), std::string(16, 'q'), std::string(17, 'r')}) {
        const std::string field = build_password_field(4711, word);
        const size_t length = (word.size() + 15) / 16 * 16;
        ASSERT_EQ(10 + length, field.size());
        EXPECT_EQ(length, std::stoul(field.substr(0, 10)));
        auto* input = reinterpret_cast<const uint8_t*>(field.data() + 10);
        std::string key(32, '0');
        key.replace(28, 4, "4711");
        bytes plain(word.begin(), word.end());
        plain.resize(length);
        EXPECT_EQ(peer_cbc(bytes(key.begin(), key.end()), zero_iv, plain, true),
                  bytes(input, input + length));
        std::vector<char> out(length + 1);
        EXPECT_EQ(out.data(), PwdDeChiffreTh(4711, input, length, out.data(), out.size()));
        EXPECT_EQ(word, out.data());
        PwdDeChiffreTh(4712, input, length, out.data(), out.size());
        EXPECT_NE(0, memcmp(word.data(), out.data(), word.size()));
    }
    EXPECT_EQ("0000000000", build_password_field(1, ""));
}

TEST(password, too_little_room_gives_an_empty_text) {
    char out[16];
    memset(out, 'x', sizeof out);
    const bytes input = counting(32);
    EXPECT_EQ(out, PwdDeChiffreTh(1, input.data(), 32, out, sizeof out));
    EXPECT_EQ(0, memcmp(out, "\0\0\0\0xxxx", 8));
    memset(out, 'x', sizeof out);
    PwdDeChiffreTh(1, input.data(), 15, out, sizeof out);
    EXPECT_EQ(0, memcmp(out, "\0\0\0\0xxxx", 8));
    char tiny[2] = {'x', 'x'};
    PwdDeChiffreTh(1, input.data(), 16, tiny, 1);
    EXPECT_EQ('x', tiny[1]);
}

}  // namespace
