// What the encoder writes, the decoder reads: every method, parameter and mode, at any split of both sides.
#include <gtest/gtest.h>

#include <algorithm>

#include "base/message_numbers.h"
#include "compress_support.h"

namespace {

struct Setting {
    const char* name;
    int id;
    CompressParameter parameters;
};

const std::vector<Setting>& settings() {
    static const std::vector<Setting> all = [] {
        std::vector<Setting> list = {{"plain", 0, {}},
                                     {"huffman", 1, {}},
                                     {"huffman 1", 1, {.hufBlock = 1}},
                                     {"huffman 256", 1, {.hufBlock = 256}},
                                     {"zlib", 127, {}},
                                     {"zlib 1", 127, {.zlibLevel = 1}},
                                     {"strong", 257, {.strongBuf = 1}}};
        for (unsigned var = 1; var <= 4; ++var) {
            list.push_back({"rle", 3, {.var = var}});
        }
        for (const unsigned window : {1U, 2U, 3U, 4U, 7U, 12U, 16U}) {
            list.push_back({"lzss", 5, {.hufBlock = 1 + window % 3, .lzssWindow = window}});
        }
        for (unsigned var = 1; var <= 3; ++var) {
            list.push_back({"lzss var", 5, {.lzssLevel = 1 + 4 * var, .var = var}});
        }
        for (unsigned hash = 2; hash <= 10; ++hash) {
            list.push_back({"lzp", 9, {.lzpHash = hash}});
            list.push_back({"lzp small",
                            9,
                            {.hufBlock = 1, .lzpHash = hash, .lzpHashTableSize = 1, .lzpBufferSize = 1}});
        }
        for (unsigned hash = 2; hash <= 4; ++hash) {
            for (unsigned bits = 2; bits <= 6; ++bits) {
                list.push_back(
                    {"lzx",
                     11,
                     {.lzpHash = hash, .lzpHashTableSize = 4, .lzpBufferSize = 2, .lzmixBits = bits}});
            }
            list.push_back(
                {"lzx 1", 11, {.lzpHash = hash, .lzpHashTableSize = 2, .lzpBufferSize = 1, .lzmixLevel = 1}});
        }
        return list;
    }();
    return all;
}

std::vector<std::string> contents() {
    return {"",
            "x",
            "ab",
            makeText(100000, 1),
            makeBinary(150000, 2),
            makeNoise(70000, 3),
            makeRuns(400000, 4),
            std::string(100000, '\0')};
}

class Roundtrip : public testing::TestWithParam<size_t> {
  protected:
    const Setting& setting() const { return settings()[GetParam()]; }
    EncodeOptions options(int flags) const {
        EncodeOptions options;
        options.id = setting().id;
        options.parameters = setting().parameters;
        options.flags = flags;
        return options;
    }
};

TEST_P(Roundtrip, PlainAtAnySplit) {
    SCOPED_TRACE(setting().name);
    for (const std::string& data : contents()) {
        ErrMsg err{};
        EncodeOptions once = options(0);
        once.ask = 1 << 20;
        const std::string stream = encode(data, once, &err);
        ASSERT_EQ(err.code, 0) << err.text;
        for (const size_t step : {SIZE_MAX, size_t{1000}, size_t{7}}) {
            const Decoded decoded = decode(stream, 0, step);
            ASSERT_EQ(decoded.error.code, 0) << "step " << step << " size " << data.size();
            ASSERT_TRUE(decoded.sink.all == data) << "step " << step << " size " << data.size();
        }
        EncodeOptions pieces = options(0);
        pieces.ask = 13;
        pieces.most = 4093;
        EXPECT_TRUE(encode(data, pieces, &err) == stream)
            << "other bytes for other splits, size " << data.size();
    }
}

TEST_P(Roundtrip, OneByteAtATime) {
    const std::string data = makeText(3000, 5) + makeRuns(3000, 6) + makeNoise(500, 7);
    ErrMsg err{};
    EncodeOptions single = options(compress_size);
    single.ask = 1;
    single.most = 1;
    const std::string stream = encode(data, single, &err);
    EXPECT_TRUE(stream == encode(data, options(compress_size), &err));
    const Decoded decoded = decode(stream, 0, 1);
    EXPECT_EQ(decoded.error.code, 0);
    EXPECT_TRUE(decoded.sink.all == data);
}

TEST_P(Roundtrip, RecordsAndItems) {
    const std::vector<Piece> items = makeRecords(600, 8);
    std::vector<Piece> records = items;
    for (Piece& record : records) {
        record.ctrl = 0;
    }
    for (const int flags : {int{compress_record}, int{compress_framed}, compress_framed | compress_record}) {
        std::vector<Piece> pieces = flags == compress_record ? records : items;
        if (flags == compress_framed) {  // an empty item without control value ends the source there
            std::erase_if(pieces, [](const Piece& piece) { return piece.data.empty() && piece.ctrl == 0; });
        }
        ErrMsg err{};
        const std::string stream = encode(pieces, options(flags), &err);
        ASSERT_EQ(err.code, 0);
        EncodeOptions small = options(flags);
        small.ask = 100;
        small.sizeKnown = true;
        EXPECT_TRUE(encode(pieces, small, &err) == stream);
        for (const size_t step : {SIZE_MAX, size_t{11}}) {
            const Decoded decoded = decode(stream, flags, step);
            ASSERT_EQ(decoded.error.code, 0) << "flags " << flags;
            EXPECT_TRUE(decoded.sink.pieces == pieces) << "flags " << flags << " step " << step;
        }
    }
}

// What csRead has returned lets a decoder deliver exactly what `used` says.
TEST_P(Roundtrip, UsedIsWhatADecoderHas) {
    std::vector<Piece> pieces = makeRecords(150, 9);
    for (const int flags : {0, int{compress_record}, compress_framed | compress_record}) {
        std::vector<Piece> source = flags == 0 ? std::vector<Piece>{{makeText(20000, 1), 0}} : pieces;
        long used[2] = {-1, -1};
        EncodeOptions watched = options(flags);
        watched.ask = 61;
        watched.used = used;
        size_t looks = 0;
        watched.onRead = [&](CompressFile*, const std::string& stream) {
            if (++looks % 16 != 0) {
                return;
            }
            const Decoded decoded = decode(stream, flags);
            ASSERT_EQ(static_cast<long>(decoded.sink.all.size()), used[0]);
            ASSERT_EQ(static_cast<long>(decoded.sink.pieces.size()), used[1]);
        };
        ErrMsg err{};
        encode(source, watched, &err);
        size_t all = 0;
        for (const Piece& piece : source) {
            all += piece.data.size();
        }
        EXPECT_EQ(used[0], static_cast<long>(all));
        EXPECT_EQ(used[1], flags == 0 ? 0 : static_cast<long>(source.size()));
        if (HasFatalFailure()) {
            break;
        }
    }
}

// A cut stream gives a prefix; a changed one gives a prefix and a number, or other data, but never a crash.
TEST_P(Roundtrip, CutAndChangedAnywhere) {
    const std::string data = makeText(700, 10) + makeRuns(600, 11);
    ErrMsg err{};
    const std::string stream = encode(data, options(0), &err);
    for (size_t cut = 0; cut < stream.size(); ++cut) {
        const Decoded decoded = decode(stream.substr(0, cut), 0);
        const bool zlib = cut >= 2 && stream[1] == 127;
        ASSERT_EQ(decoded.error.code, zlib ? number_compress_zlib_incomplete : 0) << cut;
        ASSERT_TRUE(data.starts_with(decoded.sink.all)) << cut;
        std::string changed = stream;
        for (const int bit : {1, 32}) {
            changed[cut] = static_cast<char>(stream[cut] ^ bit);
            decode(changed, 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Settings, Roundtrip, testing::Range(size_t{0}, settings().size()),
                         [](const testing::TestParamInfo<size_t>& info) {
                             std::string name = settings()[info.param].name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name + "_" + std::to_string(info.param);
                         });

}  // namespace
