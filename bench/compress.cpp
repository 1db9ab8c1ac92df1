// Compressor and status store beside zlib, in one process. `qxpack -b FILE…` measures on files, beside
// programs.
#include "transfer/compress/compress.h"

#include <benchmark/benchmark.h>
#ifdef QX_BENCH_SQLITE
#include <sqlite3.h>
#endif
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "transfer/kvstore.h"
#include "transfer/status_store.h"

namespace {

// QX_BENCH_QUICK in the environment: a small log, which shows only that all of it runs.
const size_t log_size = size_t{getenv("QX_BENCH_QUICK") == nullptr ? 50U : 1U} << 20;

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

// Value of a line of the process's status, in megabytes.
double statusMegabytes(const char* key) {
    FILE* const file = fopen("/proc/self/status", "re");
    long kilobytes = 0;
    for (char line[256]; file != nullptr && fgets(line, sizeof line, file) != nullptr;) {
        if (strncmp(line, key, strlen(key)) == 0) {
            sscanf(line + strlen(key), ": %ld", &kilobytes);
        }
    }
    if (file != nullptr) {
        fclose(file);
    }
    return static_cast<double>(kilobytes) / 1024;
}

// Memory that `work` takes at its peak, in megabytes.
template <class Work>
double peakMegabytes(Work work) {
    FILE* const file = fopen("/proc/self/clear_refs", "we");  // 5: the peak counts from here on
    if (file != nullptr) {
        fputs("5", file);
        fclose(file);
    }
    const double before = statusMegabytes("VmRSS");
    work();
    return statusMegabytes("VmHWM") - before;
}

void packAway(const std::string& data, int id) {
    Source source{data};
    ErrMsg err{};
    CompressFile* cf = csOpen(&source, id, 0, give, nullptr, nullptr, nullptr, nullptr, &err);
    std::vector<char> piece(65536);
    while (csRead(cf, piece.data(), static_cast<int>(piece.size()), &err) > 0) {
    }
    csClose(cf);
}

void unpackAway(const std::string& stream) {
    ErrMsg err{};
    DecompressFile* df = dcsOpen(nullptr, 0, drop, &err);
    dcsWrite(df, stream.data(), static_cast<int>(stream.size()), &err);
    dcsClose(df, &err);
}

// Many records, each third one empty, the others of 1 to 40 bytes.
struct RecordSource {
    unsigned left;
    unsigned state = 7;
};

int giveRecord(void* in, char* buf, int size, int /*mode*/, ErrMsg* /*err*/) {
    auto& source = *static_cast<RecordSource*>(in);
    if (source.left == 0) {
        return -1;
    }
    --source.left;
    source.state = source.state * 1664525 + 1013904223;
    const int n = source.left % 3 == 0 ? 0 : static_cast<int>(source.state >> 16) % 40 + 1;
    for (int i = 0; i < n && i < size; ++i) {
        buf[i] = "record of few words "[(source.state >> 28) + static_cast<unsigned>(i) % 4];
    }
    return n;
}

void packRecords(benchmark::State& state) {
    constexpr unsigned records = 1000000;
    long used[2] = {};
    for (auto _ : state) {
        RecordSource source{records};
        ErrMsg err{};
        used[0] = used[1] = 0;
        CompressFile* cf = csOpen(&source, static_cast<int>(state.range(0)), compress_record, giveRecord,
                                  nullptr, nullptr, nullptr, used, &err);
        std::vector<char> piece(65536);
        while (csRead(cf, piece.data(), static_cast<int>(piece.size()), &err) > 0) {
        }
        csClose(cf);
    }
    if (used[1] != records) {
        state.SkipWithError("not all records counted");
    }
    state.SetItemsProcessed(state.iterations() * records);
    state.SetBytesProcessed(state.iterations() * used[0]);
}

void pack(benchmark::State& state) {
    logText();  // is made before the time runs
    size_t size = 0;
    for (auto _ : state) {
        size = packed(static_cast<int>(state.range(0))).size();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(logText().size()));
    state.counters["ratio"] = static_cast<double>(size) / static_cast<double>(log_size);
    const int id = static_cast<int>(state.range(0));
    state.counters["peakMB"] = peakMegabytes([id] { packAway(logText(), id); });
    state.counters["smallMB"] = peakMegabytes([id] { packAway(std::string(1000, 'a'), id); });
}

void unpack(benchmark::State& state) {
    const std::string stream = packed(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        unpackAway(stream);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(logText().size()));
    state.counters["peakMB"] = peakMegabytes([&stream] { unpackAway(stream); });
}

void zlibUnpack(benchmark::State& state) {
    std::vector<unsigned char> packedLog(compressBound(log_size));
    std::vector<unsigned char> out(log_size + 200);
    uLongf size = packedLog.size();
    compress2(packedLog.data(), &size, reinterpret_cast<const unsigned char*>(logText().data()), log_size,
              static_cast<int>(state.range(0)));
    for (auto _ : state) {
        uLongf length = out.size();
        uncompress(out.data(), &length, packedLog.data(), size);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(log_size));
}

void zlibPack(benchmark::State& state) {
    logText();  // is made before the time runs
    std::vector<unsigned char> out(compressBound(log_size));
    uLongf size = 0;
    for (auto _ : state) {
        size = out.size();
        compress2(out.data(), &size, reinterpret_cast<const unsigned char*>(logText().data()), log_size,
                  static_cast<int>(state.range(0)));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(log_size));
    state.counters["ratio"] = static_cast<double>(size) / static_cast<double>(log_size);
}

const std::string& storeName() {
    static const std::string name = "/tmp/qx_bench_store_" + std::to_string(getpid());
    return name;
}

void storeSave(int count) {
    kvstore db;
    qx7_error err;
    unlink(storeName().c_str());
    kvstore_open(&db, storeName().c_str(), kvstore_create, &err);
    const __ftx_elem element{};
    for (int i = 0; i < count; ++i) {
        kvstore_put(&db, ss_elementKey(i, ""), &element, sizeof element, &err);
    }
}

// Elements of a transfer saved one by one, and the file opened and read again. Growth shows in the items of a
// second, which stay when time grows with their number alone.
void storeWrite(benchmark::State& state) {
    for (auto _ : state) {
        storeSave(static_cast<int>(state.range(0)));
    }
    unlink(storeName().c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void storeRead(benchmark::State& state) {
    storeSave(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        kvstore db;
        qx7_error err;
        kvstore_open(&db, storeName().c_str(), kvstore_existing, &err);
        for (int i = 0; i < state.range(0); ++i) {
            __ftx_elem back;
            size_t len = sizeof back;
            if (kvstore_get(&db, ss_elementKey(i, ""), &back, &len, &err) != sizeof back) {
                state.SkipWithError("an element is missing");
            }
        }
    }
    unlink(storeName().c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#ifdef QX_BENCH_SQLITE
// The peer: a table of keys and values, all written in one transaction.
void sqliteSave(int count) {
    unlink(storeName().c_str());
    sqlite3* db = nullptr;
    sqlite3_stmt* put = nullptr;
    sqlite3_open(storeName().c_str(), &db);
    sqlite3_exec(db, "pragma synchronous=off; create table kv(k text primary key, v blob); begin", nullptr,
                 nullptr, nullptr);
    sqlite3_prepare_v2(db, "insert into kv values(?, ?)", -1, &put, nullptr);
    const __ftx_elem element{};
    for (int i = 0; i < count; ++i) {
        const std::string key = ss_elementKey(i, "");
        sqlite3_bind_text(put, 1, key.c_str(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_blob(put, 2, &element, sizeof element, SQLITE_STATIC);
        sqlite3_step(put);
        sqlite3_reset(put);
    }
    sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
    sqlite3_finalize(put);
    sqlite3_close(db);
}

void sqliteWrite(benchmark::State& state) {
    for (auto _ : state) {
        sqliteSave(static_cast<int>(state.range(0)));
    }
    unlink(storeName().c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void sqliteRead(benchmark::State& state) {
    sqliteSave(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        sqlite3* db = nullptr;
        sqlite3_stmt* get = nullptr;
        sqlite3_open(storeName().c_str(), &db);
        sqlite3_exec(db, "begin", nullptr, nullptr, nullptr);
        sqlite3_prepare_v2(db, "select v from kv where k=?", -1, &get, nullptr);
        for (int i = 0; i < state.range(0); ++i) {
            const std::string key = ss_elementKey(i, "");
            sqlite3_bind_text(get, 1, key.c_str(), static_cast<int>(key.size()), SQLITE_STATIC);
            if (sqlite3_step(get) != SQLITE_ROW || sqlite3_column_bytes(get, 0) != sizeof(__ftx_elem)) {
                state.SkipWithError("an element is missing");
            }
            sqlite3_reset(get);
        }
        sqlite3_finalize(get);
        sqlite3_close(db);
    }
    unlink(storeName().c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
#endif

}  // namespace

BENCHMARK(zlibPack)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);
BENCHMARK(zlibUnpack)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);
BENCHMARK(packRecords)->Arg(1)->Arg(5)->Arg(9)->Arg(11)->Arg(127)->Unit(benchmark::kMillisecond);
BENCHMARK(pack)->Arg(1)->Arg(3)->Arg(5)->Arg(9)->Arg(11)->Arg(127)->Unit(benchmark::kMillisecond);
BENCHMARK(unpack)->Arg(1)->Arg(3)->Arg(5)->Arg(9)->Arg(11)->Arg(127)->Unit(benchmark::kMillisecond);
BENCHMARK(storeWrite)->Arg(10000)->Arg(50000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(storeRead)->Arg(10000)->Arg(50000)->Arg(100000)->Unit(benchmark::kMillisecond);
#ifdef QX_BENCH_SQLITE
BENCHMARK(sqliteWrite)->Arg(10000)->Arg(50000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(sqliteRead)->Arg(10000)->Arg(50000)->Arg(100000)->Unit(benchmark::kMillisecond);
#endif

BENCHMARK_MAIN();
