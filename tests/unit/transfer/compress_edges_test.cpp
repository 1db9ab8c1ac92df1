// Rules at the edges: headers, modes, ends, errors, strong mode, sizes that must not change unseen.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "base/message_numbers.h"
#include "compress_support.h"
#include "transfer/compress/bucket.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/lzp_places.h"
#include "transfer/compress/lzss_search.h"

namespace {

struct BadStream {
    const char* name;
    const char* hex;
    int flags;
    int code;
};

const BadStream bad_streams[] = {
    {"text flag differs", "01", 0, number_compress_text_differs},
    {"text flag differs, framed too", "09", 0, number_compress_text_differs},
    {"framed stream, plain caller", "08", 0, number_compress_bad_call},
    {"no such method", "0002", 0, number_compress_invalid_header},
    {"window above 15", "000510", 0, number_compress_invalid_header},
    {"contexts of order 1", "000901", 0, number_compress_invalid_header},
    {"contexts of variant 11", "00090b", 0, number_compress_invalid_header},
    {"7 bits", "000b73", 0, number_compress_invalid_header},
    {"order 5", "000b25", 0, number_compress_invalid_header},
    {"level 0", "000b230000", 0, number_compress_invalid_header},
    {"level 47 of 2 bits", "000b23002f", 0, number_compress_invalid_header},
    {"level 11 of 6 bits", "000b63000b", 0, number_compress_invalid_header},
    {"tree without lengths", "00010000000000", 0, number_compress_invalid_data},
    {"item of 65,537 bytes", "08000100010000000000", compress_framed, number_compress_item_incomplete},
    {"part of an item", "08000200000000000061", compress_framed, number_compress_item_incomplete},
    {"part of a record", "01000500616263", compress_record, number_compress_item_incomplete},
    {"byte behind zlib", "007f78da03000000000100", 0, number_compress_behind_zlib},
    {"zlib cut", "007f78da03", 0, number_compress_zlib_incomplete},
    {"zlib cut before its body", "027f0400", 0, number_compress_zlib_incomplete},
    {"zlib cut, in a record", "017f", compress_record, number_compress_zlib_incomplete},
    {"no zlib", "007fffff", 0, number_compress_zlib_error},
    {"nothing", "", 0, 0},
    {"half a header", "00", 0, 0},
    {"a plain stream for a framed caller", "0000020000000000006162", compress_framed, 0},
};

TEST(Edges, BadStreamsEndWithTheirNumber) {
    for (const BadStream& bad : bad_streams) {
        SCOPED_TRACE(bad.name);
        EXPECT_EQ(decode(fromHex(bad.hex), bad.flags).error.code, bad.code);
        EXPECT_EQ(decode(fromHex(bad.hex), bad.flags, 1).error.code, bad.code);
    }
}

TEST(Edges, DataBeforeAnErrorIsDelivered) {
    ErrMsg err{};
    EncodeOptions options;
    options.id = compress_zlib;
    const Decoded decoded = decode(encode("hello", options, &err) + "x", 0);
    EXPECT_EQ(decoded.sink.all, "hello");
    EXPECT_EQ(decoded.error.code, number_compress_behind_zlib);
}

TEST(Edges, OpenCallsRefuseWhatDoesNotFit) {
    ErrMsg err{};
    EncodeOptions options;
    for (const int id : {2, 4, 10, 258, 299, 308, -1}) {
        options.id = id;
        encode("x", options, &err);
        EXPECT_EQ(err.code, number_compress_bad_call) << id;
        EXPECT_EQ(err.text, std::to_string(id) + "|0|");
    }
    EXPECT_EQ(csOpen(nullptr, 1, compress_framed, nullptr, nullptr, nullptr, nullptr, nullptr, &err),
              nullptr);
    EXPECT_EQ(err.code, number_compress_bad_call);
}

TEST(Edges, ParametersHaveTheirLimits) {
    CompressParameter in{};
    CompressParameter out{};
    getParameters(&out, nullptr, 9, 0);
    EXPECT_EQ(out.lzpHash, 9u);
    EXPECT_EQ(out.lzpBufferSize, 10u);
    in = {300, 99, 99, 9, 99, 99, 99, 99, 5, 9, 99};
    getParameters(&out, &in, 11, 0);
    EXPECT_EQ(out.hufBlock, 256u);
    EXPECT_EQ(out.lzssWindow, 16u);
    EXPECT_EQ(out.lzssLevel, 30u);
    EXPECT_EQ(out.lzpHash, 4u);
    EXPECT_EQ(out.lzpBufferSize, 16u);
    EXPECT_EQ(out.lzmixBits, 6u);
    EXPECT_EQ(out.lzmixLevel, 10u);
    in = {.lzpBufferSize = 1};
    getParameters(&out, &in, 9, compress_record);
    EXPECT_EQ(out.lzpBufferSize, 3u);
    limitLzpBuffer(&out, 100);  // may pass the floor
    EXPECT_EQ(out.lzpBufferSize, 1u);
    out.lzpBufferSize = 16;
    limitLzpBuffer(&out, 0x7fffffffffffffff);
    EXPECT_EQ(out.lzpBufferSize, 16u);
}

// The size field of a source that does not tell its size.
TEST(Edges, UnknownSize) {
    ErrMsg err{};
    EncodeOptions options;
    options.flags = compress_size;
    options.sizeKnown = false;
    EXPECT_EQ(toHex(encode("A", options, &err)).substr(0, 24), "0209ffffffffffffff7f09a9");
}

TEST(Edges, StrongIsTheSmallestCandidate) {
    for (const std::string& data :
         {makeText(90000, 1), makeNoise(50000, 2), makeRuns(90000, 3), std::string("ab")}) {
        ErrMsg err{};
        EncodeOptions options;
        options.id = compress_strong;
        const size_t strong = encode(data, options, &err).size();
        size_t least = SIZE_MAX;
        for (int preset = compress_preset; preset <= compress_last_preset; ++preset) {
            options.id = preset;
            least = std::min(least, encode(data, options, &err).size());
        }
        EXPECT_EQ(strong, least);
    }
}

TEST(Edges, RecordBoundariesOfMethodNone) {
    TestSource source;
    source.pieces = {{"", 0}, {"abc", 0}, {"de", 0}};
    const auto read = [](void* in, char* buf, int, int, ErrMsg*) {
        auto& from = *static_cast<TestSource*>(in);
        if (from.next == from.pieces.size()) {
            return -1;
        }
        const std::string& data = from.pieces[from.next++].data;
        data.copy(buf, data.size());
        return static_cast<int>(data.size());
    };
    ErrMsg err{};
    CompressFile* cf = csOpen(&source, 0, compress_record | compress_boundaries, read, nullptr, nullptr,
                              nullptr, nullptr, &err);
    ASSERT_NE(cf, nullptr);
    char buf[100];
    for (const int expected : {2, 2, 5, 4, 0}) {
        EXPECT_EQ(csRead(cf, buf, sizeof buf, &err), expected);
    }
    csClose(cf);
}

// Beyond an end more may come: the stream goes on as one.
TEST(Edges, ReadingGoesOnPastAnEnd) {
    for (const int id : {0, 1, 3, 5, 9}) {
        TestSource source;
        source.pieces = {{makeText(70000, 1), 0}};
        const auto read = [](void* in, char* buf, int size, int, ErrMsg*) {
            auto& from = *static_cast<TestSource*>(in);
            const size_t n = from.pieces[0].data.copy(buf, static_cast<size_t>(size), from.offset);
            from.offset += n;
            return static_cast<int>(n);
        };
        ErrMsg err{};
        CompressFile* cf = csOpen(&source, id, 0, read, nullptr, nullptr, nullptr, nullptr, &err);
        std::string stream;
        char buf[5000];
        for (int part = 0; part < 2; ++part) {
            for (int n; (n = csRead(cf, buf, sizeof buf, &err)) > 0;) {
                stream.append(buf, static_cast<size_t>(n));
            }
            ASSERT_EQ(err.code, 0) << id;
            source.pieces[0].data += part == 0 ? makeText(30000, 2) : "";
            csResetEOF(cf);
        }
        csClose(cf);
        EXPECT_TRUE(decode(stream, 0).sink.all == source.pieces[0].data) << id;
    }
}

// Positions are moved down long before they could wrap; here after every block.
TEST(Edges, LoweredPositionsDecode) {
    const std::string data = makeText(300000, 1) + makeRuns(200000, 2) + makeBinary(200000, 3);
    for (const int id : {5, 9, 11}) {
        TestSource source;
        source.pieces = {{data, 0}};
        const auto read = [](void* in, char* buf, int size, int, ErrMsg*) {
            auto& from = *static_cast<TestSource*>(in);
            const size_t n = from.pieces[0].data.copy(buf, static_cast<size_t>(size), from.offset);
            from.offset += n;
            return static_cast<int>(n);
        };
        ErrMsg err{};
        const CompressParameter parameters{
            .hufBlock = 1, .lzssWindow = 3, .lzpHashTableSize = 4, .lzpBufferSize = 3};
        CompressFile* cf = csOpen(&source, id, 0, read, nullptr, nullptr, &parameters, nullptr, &err);
        cf->positionHigh = static_cast<uint32_t>(cf->in.history) * 2;
        std::string stream;
        char buf[9000];
        for (int n; (n = csRead(cf, buf, sizeof buf, &err)) > 0;) {
            stream.append(buf, static_cast<size_t>(n));
        }
        csClose(cf);
        EXPECT_TRUE(decode(stream, 0).sink.all == data) << id;
    }
}

TEST(Edges, CallbackErrorsComeThrough) {
    ErrMsg err{};
    const auto failing = [](void*, char*, int, int, ErrMsg* e) {
        e->code = 4711;
        return -1;
    };
    CompressFile* cf = csOpen(nullptr, 9, 0, failing, nullptr, nullptr, nullptr, nullptr, &err);
    char buf[100];
    EXPECT_EQ(csRead(cf, buf, sizeof buf, &err), -1);
    EXPECT_EQ(err.code, 4711);
    EXPECT_EQ(csRead(cf, buf, sizeof buf, &err), -1) << "a failure stays";
    csClose(cf);
}

// What a processor can do must not show in the stream.
TEST(Places, VectorsGiveWhatAnyProcessorGives) {
    const PlaceForm* const vectors = vectorPlaces();
    if (vectors == nullptr) {
        GTEST_SKIP() << "this processor has no vectors of 32 bytes";
    }
    const std::string data = makeBinary(600, 7);
    const auto* const p = reinterpret_cast<const uint8_t*>(data.data()) + 16;
    const PlaceRule rules[] = {
        {6, 4, 0xfffff, 4, 24}, {2, 5, 0x1ff, 0, 24}, {6, 5, 0x1ffffff, 2, 30}, {8, 1, 0xff, 0, 24}};
    for (const PlaceRule& rule : rules) {
        for (const unsigned count : {1U, 7U, 8U, 509U, 512U}) {
            std::vector<uint32_t> index[2];
            std::vector<uint32_t> fresh[2];
            std::vector<uint8_t> found[2];
            for (int form = 0; form < 2; ++form) {
                index[form].resize(count + 8);
                fresh[form].resize(count + 8);
                found[form].resize((count + 7) / 8);
                const PlaceForm& here = form == 0 ? portable_places : *vectors;
                here.contexts(rule, p, count, 4097, index[form].data(), fresh[form].data());
                index[form].resize(count);
                fresh[form].resize(count);
                std::vector<uint32_t> distance(count + 8, UINT32_MAX);
                std::transform(fresh[0].begin(), fresh[0].end(), distance.begin(),
                               [](uint32_t slot) { return slot % 8192; });
                here.usable(distance.data(), count, 4096, found[form].data());
            }
            EXPECT_EQ(index[0], index[1]) << rule.shift << ", " << count;
            EXPECT_EQ(fresh[0], fresh[1]) << rule.shift << ", " << count;
            EXPECT_EQ(found[0], found[1]) << rule.shift << ", " << count;
        }
    }
}

// Id 9 drops its second table where that costs little, and keeps it where it counts.
TEST(Places, SecondTableIsUsedWhereItPays) {
    const auto sizes = [](const std::string& data) {
        ErrMsg err{};
        EncodeOptions options;
        options.id = compress_lzp;
        const size_t chosen = encode(data, options, &err).size();
        options.parameters.lzpHash = 9;
        return std::pair(chosen, encode(data, options, &err).size());
    };
    const auto [chosen, both] = sizes(makeBinary(2000000, 3));
    EXPECT_EQ(chosen, both) << "words of two and four bytes";
    const auto [fast, small] = sizes(makeText(2000000, 2));
    EXPECT_GT(fast, small);
    EXPECT_LT(fast, small + small / 8);
}

// Sizes of known contents with each method. A change shows here and in the table of the documentation: run
// the test with QX_WRITE_SIZES=1 to write the table anew.
TEST(Sizes, AreThoseOfTheTable) {
    const std::pair<const char*, std::string> files[] = {
        {"text", makeText(400000, 1)},   {"log", makeLog(400000, 2)},   {"binary", makeBinary(400000, 3)},
        {"noise", makeNoise(200000, 4)}, {"runs", makeRuns(400000, 5)}, {"zeros", std::string(400000, '\0')}};
    std::ostringstream table;
    for (const auto& [name, data] : files) {
        for (const int id : {0, 1, 3, 5, 9, 11, 127, 257}) {
            ErrMsg err{};
            EncodeOptions options;
            options.id = id;
            table << name << " " << id << " " << encode(data, options, &err).size() << "\n";
        }
    }
    const std::string path = QX_SOURCE_DIR "/tests/unit/transfer/sizes.txt";
    if (getenv("QX_WRITE_SIZES") != nullptr) {
        std::ofstream(path) << table.str();
    }
    std::ifstream file(path);
    std::stringstream committed;
    committed << file.rdbuf();
    EXPECT_EQ(table.str(), committed.str());
}

}  // namespace
