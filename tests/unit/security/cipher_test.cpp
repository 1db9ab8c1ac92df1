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

// Every count of blocks around the widths that the engines work in, in place and apart, in one piece and in
// two.
TEST_P(engine_test, any_number_of_blocks_agrees_with_the_peer) {
    for (size_t key_size : {16u, 24u, 32u}) {
        const bytes secret = counting(key_size, 3, 11), start = counting(16, 90, 5);
        aes_key key;
        ASSERT_EQ(0, aes_set_key(&key, secret, GetParam()));
        EXPECT_EQ(GetParam(), key.engine);
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
