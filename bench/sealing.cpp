// Sealing and unsealing, beside MD5 and AES-256-CBC of libcrypto in series over the same bytes.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "sealing_pair.h"

namespace {

constexpr size_t message_size = 32768;
constexpr gss_qop_t quality = 3;

struct peer {
    EVP_CIPHER_CTX* encrypt = EVP_CIPHER_CTX_new();
    EVP_CIPHER_CTX* decrypt = EVP_CIPHER_CTX_new();
    EVP_MD_CTX* hash = EVP_MD_CTX_new();
    unsigned char key[32] = {1}, iv[16] = {2};

    peer() {
        EVP_EncryptInit_ex(encrypt, EVP_aes_256_cbc(), nullptr, key, iv);
        EVP_DecryptInit_ex(decrypt, EVP_aes_256_cbc(), nullptr, key, iv);
        EVP_CIPHER_CTX_set_padding(decrypt, 0);
    }
    ~peer() {
        EVP_CIPHER_CTX_free(encrypt);
        EVP_CIPHER_CTX_free(decrypt);
        EVP_MD_CTX_free(hash);
    }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

    void digest(const unsigned char* data, size_t length) {
        unsigned char out[16];
        EVP_DigestInit_ex(hash, EVP_md5(), nullptr);
        EVP_DigestUpdate(hash, data, length);
        EVP_DigestFinal_ex(hash, out, nullptr);
        benchmark::DoNotOptimize(out);
    }
    // What sealing does to the data, and what unsealing does.
    void seal(const std::vector<unsigned char>& in, std::vector<unsigned char>* out) {
        int length = 0;
        EVP_EncryptUpdate(encrypt, out->data(), &length, in.data(), static_cast<int>(in.size()));
        digest(out->data(), in.size());
    }
    void unseal(const std::vector<unsigned char>& in, std::vector<unsigned char>* out) {
        int length = 0;
        digest(in.data(), in.size());
        EVP_DecryptUpdate(decrypt, out->data(), &length, in.data(), static_cast<int>(in.size()));
    }
};

struct buffers {
    std::vector<unsigned char> plain = std::vector<unsigned char>(message_size, 'x');
    std::vector<unsigned char> sealed = std::vector<unsigned char>(CalcMsgSize(message_size));
    std::vector<unsigned char> opened = std::vector<unsigned char>(CalcMsgSize(message_size));
};

bool round_of_seal(sealing_pair* pair, buffers* data) {
    size_t written = 0, read = 0;
    return gss_wrap_ex(nullptr, pair->initiator, 1, quality, data->plain, data->sealed, &written) == 0 &&
           gss_unwrap_ex(nullptr, pair->acceptor, quality, data->sealed, data->opened, &read, nullptr) == 0 &&
           read == message_size;
}

void count_bytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * message_size));
}

void seal_and_unseal(benchmark::State& state) {
    sealing_pair pair;
    buffers data;
    for (auto _ : state) {
        if (!round_of_seal(&pair, &data)) {
            state.SkipWithError("a message did not open");
        }
    }
    count_bytes(state);
}
BENCHMARK(seal_and_unseal);

void libcrypto_in_series(benchmark::State& state) {
    peer other;
    buffers data;
    data.sealed.resize(message_size);
    for (auto _ : state) {
        other.seal(data.plain, &data.sealed);
        other.unseal(data.sealed, &data.opened);
    }
    count_bytes(state);
}
BENCHMARK(libcrypto_in_series);

template <typename work>
double seconds_for(int rounds, work run) {
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        run();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Alternates the two, so that both meet the same machine, and tells the ratio of their medians.
void sealing_ratio(benchmark::State& state) {
    constexpr int batches = 21, rounds = 20;
    sealing_pair pair;
    peer other;
    buffers data, peer_data;
    peer_data.sealed.resize(message_size);
    for (auto _ : state) {
        std::vector<double> own, theirs;
        for (int i = 0; i < batches; ++i) {
            own.push_back(seconds_for(rounds, [&] { round_of_seal(&pair, &data); }));
            theirs.push_back(seconds_for(rounds, [&] {
                other.seal(peer_data.plain, &peer_data.sealed);
                other.unseal(peer_data.sealed, &peer_data.opened);
            }));
        }
        std::nth_element(own.begin(), own.begin() + batches / 2, own.end());
        std::nth_element(theirs.begin(), theirs.begin() + batches / 2, theirs.end());
        state.counters["ratio_to_libcrypto"] = theirs[batches / 2] / own[batches / 2];
        state.counters["aim"] = 0.85;
    }
}
BENCHMARK(sealing_ratio)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
