// Sources and destinations for tests of the compressor.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "transfer/compress/compress.h"

// A record or item; plain data is one of them without control value.
struct Piece {
    std::string data;
    int ctrl = 0;
    bool operator==(const Piece&) const = default;
};

struct TestSource {
    std::vector<Piece> pieces;
    size_t next = 0;
    size_t offset = 0;
    size_t most = SIZE_MAX;  // bytes that a plain read gives at most
    int again = 0;           // reads that answer -2 first
    long size = -1;
};

struct TestSink {
    std::vector<Piece> pieces;
    std::string all;
    size_t failAfter = SIZE_MAX;
};

struct EncodeOptions {
    int id = compress_default;
    int flags = 0;
    CompressParameter parameters{};
    size_t ask = 65536;      // bytes per csRead
    size_t most = SIZE_MAX;  // bytes per plain read of the source
    bool sizeKnown = true;
    long* used = nullptr;
    std::function<void(CompressFile*, const std::string&)> onRead;
};

std::string encode(const std::vector<Piece>& pieces, const EncodeOptions& options, ErrMsg* err);
std::string encode(const std::string& data, const EncodeOptions& options, ErrMsg* err);

struct Decoded {
    TestSink sink;
    ErrMsg error{};  // of the first call that failed, dcsClose included
};

// Feeds `stream` in pieces of `step` bytes.
Decoded decode(const std::string& stream, int flags, size_t step = SIZE_MAX);

std::string fromHex(const std::string& hex);
std::string toHex(const std::string& bytes);

// Deterministic contents of several kinds.
std::string makeText(size_t size, uint32_t seed);
std::string makeLog(size_t size, uint32_t seed);
std::string makeBinary(size_t size, uint32_t seed);
std::string makeNoise(size_t size, uint32_t seed);
std::string makeRuns(size_t size, uint32_t seed);
std::vector<Piece> makeRecords(size_t count, uint32_t seed);
