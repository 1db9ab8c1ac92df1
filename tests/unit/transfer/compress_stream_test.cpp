// Streams with known bytes, and the rules at the edges of the stream.
#include <gtest/gtest.h>

#include "compress_support.h"

namespace {

struct KnownStream {
    const char* name;
    int id;
    int flags;
    std::vector<Piece> pieces;
    const char* hex;
};

const KnownStream known_streams[] = {
    {"one byte, id 1", 1, 0, {{"A", 0}}, "000170111000000000000010107527fffdaa"},
    {"one byte, id 9", 9, 0, {{"A", 0}}, "000909a070111000000000000010107527fffdaa"},
    {"a run, id 5", 5, 0, {{std::string(40, 'A'), 0}}, "00050b70191000000000001018165525fdffd489d098"},
    {"a run, id 3", 3, 0, {{std::string(100, 'z'), 0}}, "000370009000000000001818173f1de7e67ca348f0"},
    {"a run, id 11",
     11,
     0,
     {{std::string(40, 'A'), 0}},
     "000b23a02e702090000000000018201b2ae9fbffdd3f7e970648"},
    {"words, id 127", 127, 0, {{"hello hello hello", 0}}, "007f78dacb48cdc9c957c84090003a2e067d"},
    {"records, id 1",
     1,
     compress_record,
     {{"", 0}, {"abc", 0}},
     "01016199100000000018181b028ffc6e07f70810bba0"},
    {"nothing, id 9", 9, 0, {}, "000909a2"},
    {"nothing, id 127", 127, 0, {}, "007f78da030000000001"},
    {"nothing, id 1", 1, 0, {}, "0001"},
    {"plain, id 0", 0, compress_size, {{"ab", 0}}, "020002000000000000006162"},
    {"records, id 0", 0, compress_record, {{"", 0}, {"ab", 0}}, "0100000002006162"},
    {"items, id 0",
     0,
     compress_framed,
     {{"ab", 0}, {"", 0x102}},
     "08000200000000000061620000000000"
     "0102"},
};

TEST(Stream, KnownBytesBothWays) {
    for (const KnownStream& known : known_streams) {
        SCOPED_TRACE(known.name);
        ErrMsg err{};
        EncodeOptions options;
        options.id = known.id;
        options.flags = known.flags;
        EXPECT_EQ(toHex(encode(known.pieces, options, &err)), known.hex);
        EXPECT_EQ(err.code, 0);
        for (const size_t step : {size_t{1}, size_t{2}, size_t{1000}}) {
            const Decoded decoded = decode(fromHex(known.hex), known.flags, step);
            EXPECT_EQ(decoded.error.code, 0);
            std::string all;
            for (const Piece& piece : known.pieces) {
                all += piece.data;
            }
            EXPECT_EQ(decoded.sink.all, all);
            if ((known.flags & (compress_record | compress_framed)) != 0) {
                EXPECT_EQ(decoded.sink.pieces, known.pieces);
            }
        }
    }
}

// What a stream's symbols stand for: bytes as they are, or a copy.
struct Part {
    std::string bytes;
    size_t distance = 0;
    size_t length = 0;
};

struct ForeignStream {
    const char* name;
    int flags;
    size_t pieces;  // records; 0 in plain mode
    const char* hex;
    std::vector<Part> parts;
};

// Legal streams that this encoder never makes.
const ForeignStream foreign_streams[] = {
    {"id 1: an empty block, codes of 24 bits, lengths sent beyond the last, an end that is whole",
     compress_size,
     0,
     "0201090000000000000070010800000000000010113fdfefcb8054455545455555555555555555407c13ffaa96c68939f08ca7"
     "4adaf8ceb7cef8c13f46cfffffef7fffdffffdefffffeffffff6181100000000010181617f14ee17f328dc00",
     {{"vertexxyz"}}},
    {"id 3: all periods, single and longest counts",
     0,
     0,
     "00035221100000001810285ffabc97f5ee2fe892a31e2829ef1baffff0",
     {{"abcd"}, {"", 4, 4}, {"", 3, 210}, {"", 1, 1}, {"", 2, 65534}}},
    {"id 5: smallest window, one distance possible, few possible, the farthest",
     0,
     0,
     "0005006021100000001810202c5ffaf25fd8e4854c796491c34d9e8e0003ffffe7f5a0bfb0",
     {{"a"},
      {"", 1, 3},
      {"b"},
      {"", 2, 3},
      {"", 8, 32},
      {"", 33, 3},
      {"", 32, 16387},
      {"", 160, 32767},
      {"b"},
      {"", 1, 34},
      {"", 159, 3}}},
    {"id 9: orders 2 and 1, copies of one byte, slots older than the pool",
     0,
     0,
     "00090500402190000020084966416542f55782dfe64bcfad1a572b3c54cce8000048d15bd5f78ceb",
     {{"abcdzqqq"},
      {"", 1, 8192},
      {"01234ab"},
      {"", 13, 12},
      {"z"},
      {"", 23, 4},
      {"cd"},
      {"", 30, 1},
      {"", 4, 1}}},
    {"id 9: orders 4 and 3, largest tables",
     0,
     0,
     "00090af050111000000000102c64a74a9227ff2a273246a2cb21167b3bf8",
     {{"banana bana"}, {"", 5, 3}, {"na"}, {"", 5, 127}}},
    {"id 11: older slots of a bucket, slots older than the pool",
     0,
     0,
     "000b32000352211000000010183a4cae25de4f54ed2fe6d31f0890ab3c5b3cdb39aaaaf00022867db67e98",
     {{"abcxabdxab"}, {"", 8, 2}, {"qqqq"}, {"", 1, 8192}, {"012ab"}, {"", 19, 7}, {"xab"}, {"", 21, 12}}},
    {"id 9: longest record between empty ones",
     compress_record,
     3,
     "01090823500110000000000824bff157ff012ed20091249dfffeffec06",
     {{"r"}, {"", 1, 65534}}},
};

TEST(Stream, ForeignBytesDecode) {
    for (const ForeignStream& foreign : foreign_streams) {
        std::string all;
        for (const Part& part : foreign.parts) {
            all += part.bytes;
            for (size_t i = 0; i < part.length; ++i) {
                all += all[all.size() - part.distance];
            }
        }
        for (const size_t step : {size_t{1}, size_t{3}, size_t{1000}}) {
            const Decoded decoded = decode(fromHex(foreign.hex), foreign.flags & compress_record, step);
            EXPECT_EQ(decoded.error.code, 0) << foreign.name;
            EXPECT_TRUE(decoded.sink.all == all) << foreign.name;
            if (foreign.pieces != 0) {
                EXPECT_EQ(decoded.sink.pieces.size(), foreign.pieces) << foreign.name;
            }
        }
    }
}

}  // namespace
