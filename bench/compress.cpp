// Compressor and status store beside zlib, in one process. `qxpack -b FILE…` measures on files, beside
// programs.
#include "transfer/compress/compress.h"

#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "transfer/kvstore.h"
#include "transfer/status_store.h"

namespace {

constexpr size_t log_size = size_t{50} << 20;

const std::string& logText() {
    static const std::string text = [] {
        std::string log;
        unsigned state = 1;
        while (log.size() < log_size) {
            char line[160];
            state = state * 1664525 + 1013904223;
            snprintf(line, sizeof line,
                     "2026-11-24 %02u:%02u:%02u.%03u [%5u] INFO: transfer %u of file %u ended\n", state >> 27,
                     state >> 21 & 31, state >> 16 & 31, state % 1000, 1000 + (state >> 12 & 7),
                     state >> 8 & 0xffff, state & 63);
            log += line;
        }
        return log;
    }();
    return text;
}

struct Source {
    const std::string& data;
    size_t at = 0;
};

int give(void* in, char* buf, int size, int /*mode*/, ErrMsg* /*err*/) {
    auto& source = *static_cast<Source*>(in);
    const size_t n = source.data.copy(buf, static_cast<size_t>(size), source.at);
    source.at += n;
    return static_cast<int>(n);
}

int drop(void* /*out*/, const char* buf, int len, int /*mode*/, ErrMsg* /*err*/) {
    benchmark::DoNotOptimize(buf[len - 1]);
    return 0;
}

std::string packed(int id) {
    Source source{logText()};
    ErrMsg err{};
    CompressFile* cf = csOpen(&source, id, 0, give, nullptr, nullptr, nullptr, nullptr, &err);
    std::string stream;
    std::vector<char> piece(65536);
    for (int n; (n = csRead(cf, piece.data(), static_cast<int>(piece.size()), &err)) > 0;) {
        stream.append(piece.data(), static_cast<size_t>(n));
    }
    csClose(cf);
    return stream;
}

void pack(benchmark::State& state) {
    size_t size = 0;
    for (auto _ : state) {
        size = packed(static_cast<int>(state.range(0))).size();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * logText().size()));
    state.counters["ratio"] = static_cast<double>(size) / static_cast<double>(log_size);
}

void unpack(benchmark::State& state) {
    const std::string stream = packed(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        ErrMsg err{};
        DecompressFile* df = dcsOpen(nullptr, 0, drop, &err);
        dcsWrite(df, stream.data(), static_cast<int>(stream.size()), &err);
        dcsClose(df, &err);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * logText().size()));
}

void zlibPack(benchmark::State& state) {
    std::vector<unsigned char> out(compressBound(log_size));
    uLongf size = 0;
    for (auto _ : state) {
        size = out.size();
        compress2(out.data(), &size, reinterpret_cast<const unsigned char*>(logText().data()), log_size,
                  static_cast<int>(state.range(0)));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * log_size));
    state.counters["ratio"] = static_cast<double>(size) / static_cast<double>(log_size);
}

void storeElements(benchmark::State& state) {
    const std::string name = "/tmp/qx_bench_store_" + std::to_string(getpid());
    for (auto _ : state) {
        kvstore db;
        qx7_error err;
        unlink(name.c_str());
        kvstore_open(&db, name.c_str(), kvstore_create, &err);
        const __ftx_elem element{};
        for (int i = 0; i < state.range(0); ++i) {
            kvstore_put(&db, ss_elementKey(i, ""), &element, sizeof element, &err);
        }
        kvstore_open(&db, name.c_str(), kvstore_existing, &err);
        __ftx_elem back;
        for (int i = 0; i < state.range(0); ++i) {
            size_t len = sizeof back;
            kvstore_get(&db, ss_elementKey(i, ""), &back, &len, &err);
        }
    }
    unlink(name.c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(zlibPack)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);
BENCHMARK(pack)->Arg(1)->Arg(3)->Arg(5)->Arg(9)->Arg(11)->Arg(127)->Unit(benchmark::kMillisecond);
BENCHMARK(unpack)->Arg(1)->Arg(3)->Arg(5)->Arg(9)->Arg(11)->Arg(127)->Unit(benchmark::kMillisecond);
BENCHMARK(storeElements)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
