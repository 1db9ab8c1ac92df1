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

}  // namespace
