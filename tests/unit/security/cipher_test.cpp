#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include "peer.h"
#include "security/aes.h"
#include "security/aes_instructions.h"
#include "security/des.h"
#include "security/md5.h"
#include "security/random.h"

namespace {

struct engine_test : testing::TestWithParam<aes_engine> {
    void SetUp() override {
        if (GetParam() == aes_engine::instructions && !aes_instructions_present()) {
            GTEST_SKIP() << "this processor has no AES instructions";
        }
    }
};

std::string engine_name(const testing::TestParamInfo<aes_engine>& info) {
    return info.param == aes_engine::portable ? "portable" : "instructions";
}

// SP 800-38A, F.2: the same plain text under keys of the three lengths.
TEST_P(engine_test, cbc_gives_the_published_vectors) {
    const bytes plain = from_hex(
        "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
        "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const struct {
        const char* key;
        const char* cipher;
    } rows[] = {{"2b7e151628aed2a6abf7158809cf4f3c",
                 "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                 "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
                {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
                 "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
                 "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"},
                {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
                 "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                 "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"}};
    for (const auto& row : rows) {
        aes_key key;
        ASSERT_EQ(0, aes_set_key(&key, from_hex(row.key), GetParam()));
        EXPECT_EQ(GetParam(), key.engine);
        bytes iv = from_hex("000102030405060708090a0b0c0d0e0f"), out(plain.size()), back(plain.size());
        aes_cbc_encrypt(key, plain.data(), out.data(), 4, iv.data());
        EXPECT_EQ(from_hex(row.cipher), out);
        EXPECT_EQ(slice(out, 48, 16), iv) << "a stream must be able to go on";
        iv = from_hex("000102030405060708090a0b0c0d0e0f");
        aes_cbc_decrypt(key, out.data(), back.data(), 4, iv.data());
        EXPECT_EQ(plain, back);
    }
}

// FIPS 197, appendix C: single blocks.
TEST_P(engine_test, single_blocks_give_the_published_vectors) {
    const struct {
        size_t key_size;
        const char* cipher;
    } rows[] = {{16, "69c4e0d86a7b0430d8cdb78070b4c55a"},
                {24, "dda97ca4864cdfe06eaf70a0ec0d7191"},
                {32, "8ea2b7ca516745bfeafc49904b496089"}};
    for (const auto& row : rows) {
        aes_key key;
        ASSERT_EQ(0, aes_set_key(&key, counting(row.key_size, 0, 1), GetParam()));
        bytes block = from_hex("00112233445566778899aabbccddeeff"), iv(16);
        aes_cbc_encrypt(key, block.data(), block.data(), 1, iv.data());
        EXPECT_EQ(from_hex(row.cipher), block);
    }
}

// Every count of blocks around the widths that the engines work in, in place and apart, in one piece and in
// two.
TEST_P(engine_test, any_number_of_blocks_agrees_with_the_peer) {
    for (size_t key_size : {16u, 24u, 32u}) {
        const bytes secret = counting(key_size, 3, 11), start = counting(16, 90, 5);
        aes_key key;
        ASSERT_EQ(0, aes_set_key(&key, secret, GetParam()));
        for (size_t blocks = 0; blocks <= 35; ++blocks) {
            const bytes plain = counting(blocks * 16, static_cast<unsigned>(blocks));
            const bytes expected = peer_cbc(secret, start, plain, true);
            bytes apart(plain.size()), in_place = plain, iv = start;
            aes_cbc_encrypt(key, plain.data(), apart.data(), blocks, iv.data());
            ASSERT_EQ(expected, apart) << blocks;
            iv = start;
            aes_cbc_encrypt(key, in_place.data(), in_place.data(), blocks / 3, iv.data());
            aes_cbc_encrypt(key, in_place.data() + blocks / 3 * 16, in_place.data() + blocks / 3 * 16,
                            blocks - blocks / 3, iv.data());
            ASSERT_EQ(expected, in_place) << blocks;
            iv = start;
            aes_cbc_decrypt(key, expected.data(), apart.data(), blocks, iv.data());
            ASSERT_EQ(plain, apart) << blocks;
            iv = start;
            size_t first = blocks / 2;
            aes_cbc_decrypt(key, in_place.data(), in_place.data(), first, iv.data());
            aes_cbc_decrypt(key, in_place.data() + first * 16, in_place.data() + first * 16, blocks - first,
                            iv.data());
            ASSERT_EQ(plain, in_place) << blocks;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(aes, engine_test, testing::Values(aes_engine::portable, aes_engine::instructions),
                         engine_name);

TEST(aes, refuses_keys_and_data_of_other_lengths) {
    aes_key key;
    for (size_t length : {0u, 8u, 15u, 17u, 31u, 33u, 64u}) {
        EXPECT_EQ(-1, aes_set_key(&key, counting(length)));
    }
    bytes data = counting(31);
    EXPECT_EQ(-1, gss_AESEncrypt(data.data(), 16, data.data(), 31));
    EXPECT_EQ(counting(31), data);
}

TEST(aes, handles_know_their_algorithm) {
    const bytes secret = counting(32), iv = counting(32, 5), plain = counting(48);
    enc_handle* handle = nullptr;
    EXPECT_EQ(ENC_BAD_ALGORITHM, InitializeEnc(&handle, secret.data(), 32, 5, 0));
    EXPECT_EQ(ENC_BAD_MODE, InitializeEnc(&handle, secret.data(), 32, ENC_AES, 1));
    EXPECT_EQ(nullptr, handle);
    ASSERT_EQ(ENC_OK, InitializeEnc(&handle, secret.data(), 32, ENC_AES, 0));
    bytes data = plain;
    EXPECT_EQ(ENC_OK, CMNEncrypt(handle, data.data(), data.size(), iv.data(), iv.size()));
    EXPECT_EQ(peer_cbc(secret, iv, plain, true), data);
    EXPECT_EQ(ENC_OK, CMNDecrypt(handle, data.data(), data.size(), iv.data(), iv.size()));
    EXPECT_EQ(plain, data);
    EXPECT_EQ(ENC_BAD_MODE, CMNEncrypt(handle, data.data(), 47, iv.data(), iv.size()));
    EncFree(handle);
    ASSERT_EQ(ENC_OK, InitializeEnc(&handle, secret.data(), 32, ENC_NULL, 0));
    EXPECT_EQ(ENC_OK, CMNEncrypt(handle, data.data(), data.size(), iv.data(), iv.size()));
    EXPECT_EQ(plain, data);
    EncFree(handle);
    EncFree(nullptr);
}

TEST(aes, a_cleared_key_holds_nothing) {
    aes_key key;
    aes_set_key(&key, counting(32));
    aes_clear(&key);
    for (uint8_t byte : key.encrypt_rounds) {
        ASSERT_EQ(0, byte);
    }
    for (uint8_t byte : key.decrypt_rounds) {
        ASSERT_EQ(0, byte);
    }
}

// RFC 1321, A.5.
TEST(md5, gives_the_published_vectors) {
    const struct {
        const char* text;
        const char* digest;
    } rows[] = {{"", "d41d8cd98f00b204e9800998ecf8427e"},
                {"a", "0cc175b9c0f1b6a831c399e269772661"},
                {"abc", "900150983cd24fb0d6963f7d28e17f72"},
                {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
                {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
                {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
                 "d174ab98d277d9f5a5611c2c9f419d9f"},
                {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
                 "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& row : rows) {
        bytes digest(16);
        MD5Generate(row.text, strlen(row.text), digest.data());
        EXPECT_EQ(from_hex(row.digest), digest) << row.text;
    }
}

TEST(md5, pieces_of_any_length_give_the_digest_of_the_whole) {
    const bytes data = counting(400);
    for (size_t length = 0; length <= data.size(); length += 3) {
        for (size_t cut = 0; cut <= length; cut += 17) {
            md5_context context;
            bytes digest(16);
            md5_init(&context);
            md5_update(&context, data.data(), cut);
            md5_update(&context, data.data() + cut, length - cut);
            md5_final(&context, digest.data());
            ASSERT_EQ(peer_md5(slice(data, 0, length)), digest) << length << " " << cut;
        }
    }
}

TEST(md5, hashes_a_file) {
    const std::string file = testing::TempDir() + "md5_file";
    const bytes data = counting(40000);
    std::ofstream(file).write(reinterpret_cast<const char*>(data.data()),
                              static_cast<std::streamsize>(data.size()));
    bytes digest(16);
    EXPECT_EQ(0, MD5FileHash(file.c_str(), digest.data()));
    EXPECT_EQ(peer_md5(data), digest);
    unlink(file.c_str());
    EXPECT_EQ(-1, MD5FileHash(file.c_str(), digest.data()));
    EXPECT_EQ(ENOENT, errno);
}

TEST(des, agrees_with_the_peer) {
    OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    OSSL_PROVIDER* standard = OSSL_PROVIDER_load(nullptr, "default");
    if (legacy == nullptr) {
        GTEST_SKIP() << "the peer has no DES";
    }
    EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, "DES-ECB", nullptr);
    for (unsigned i = 0; i < 200; ++i) {
        const bytes secret = counting(8, i * 31, i * 2 + 1), plain = counting(8, i * 77, i + 3);
        des_key key;
        desinit(&key, secret.data());
        bytes block = plain;
        endes(key, block.data());
        ASSERT_EQ(peer_cipher(cipher, secret, {}, plain, true), block) << i;
        dedes(key, block.data());
        ASSERT_EQ(plain, block);
    }
    EVP_CIPHER_free(cipher);
    OSSL_PROVIDER_unload(standard);
    OSSL_PROVIDER_unload(legacy);
}

TEST(des, gives_published_vectors) {
    const struct {
        const char *key, *plain, *cipher;
    } rows[] = {{"133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405"},
                {"0101010101010101", "8000000000000000", "95f8a5e5dd31d900"},
                {"8001010101010101", "0000000000000000", "95a8d72813daa94d"},
                {"10316e028c8f3b4a", "0000000000000000", "82dcbafbdeab6602"}};
    for (const auto& row : rows) {
        des_key key;
        desinit(&key, from_hex(row.key).data());
        bytes block = from_hex(row.plain);
        endes(key, block.data());
        EXPECT_EQ(from_hex(row.cipher), block) << row.key;
    }
}

TEST(random_numbers, differ_between_calls_threads_and_seeds) {
    std::set<bytes> seen;
    auto draw = [&] {
        bytes number(16);
        GetRandomEx(number.data(), number.size());
        EXPECT_TRUE(seen.insert(number).second);
    };
    for (int i = 0; i < 100; ++i) {
        draw();
    }
    std::thread(draw).join();
    InitRandom();
    draw();
    CloseRandom();
    CloseRandom();
    draw();
    EXPECT_EQ(5002, gss_GetRandom(nullptr, 4));
}

// Keys drawn on both sides of a fork from the same registers must not be the same.
TEST(random_numbers, of_a_child_are_its_own) {
    bytes warm(16), parents(16), childs(16);
    GetRandomEx(warm.data(), warm.size());
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    pid_t child = fork();
    if (child == 0) {
        GetRandomEx(childs.data(), childs.size());
        _exit(write(ends[1], childs.data(), childs.size()) == 16 ? 0 : 1);
    }
    GetRandomEx(parents.data(), parents.size());
    ASSERT_EQ(16, read(ends[0], childs.data(), childs.size()));
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
    EXPECT_NE(parents, childs);
    close(ends[0]);
    close(ends[1]);
}

// Bits of a long draw are about half ones, in every place of a byte.
TEST(random_numbers, have_no_stuck_bits) {
    bytes numbers(20000);
    GetRandomEx(numbers.data(), numbers.size());
    for (int bit = 0; bit < 8; ++bit) {
        int ones = 0;
        for (uint8_t number : numbers) {
            ones += (number >> bit) & 1;
        }
        EXPECT_NEAR(10000, ones, 500) << bit;
    }
}

}  // namespace
