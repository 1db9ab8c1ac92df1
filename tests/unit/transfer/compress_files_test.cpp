// Round trips of real files, in every method and mode. Runs only when scripts/roundtrip-compress asks for it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "compress_support.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t trial_bytes = size_t{10} << 20;

// QX_ROUNDTRIP_ID names one method, when only that one has changed.
bool isWanted(int id) {
    const char* const only = getenv("QX_ROUNDTRIP_ID");
    return only == nullptr || atoi(only) == id;
}

std::vector<Piece> inPieces(const std::string& data, bool framed) {
    std::vector<Piece> pieces;
    for (size_t at = 0; at < data.size();) {
        size_t end = data.find('\n', at);
        end = end == std::string::npos ? data.size() : end + 1;
        end = std::min<size_t>(end, at + (framed ? compress_item_max : compress_record_max));
        pieces.push_back({data.substr(at, end - at), framed ? static_cast<int>(at & 0xff) : 0});
        at = end;
    }
    return pieces;
}

std::string roundTrip(const std::vector<Piece>& pieces, const std::string& data, int id, int flags) {
    EncodeOptions options;
    options.id = id;
    options.flags = flags;
    ErrMsg err{};
    const std::string stream = encode(pieces, options, &err);
    EXPECT_EQ(err.code, 0);
    const Decoded back = decode(stream, flags, 50000);
    EXPECT_EQ(back.error.code, 0);
    const bool same = flags == 0 ? back.sink.all == data : back.sink.pieces == pieces;
    EXPECT_TRUE(same);
    return stream;
}

// Strong mode takes the smallest of its candidates, where the trial covers the whole file.
void checkStrongest(const std::vector<Piece>& pieces, const std::string& data) {
    const size_t strong = roundTrip(pieces, data, compress_strong, 0).size();
    size_t smallest = SIZE_MAX;
    for (int id = compress_preset; id <= compress_last_preset; ++id) {
        smallest = std::min(smallest, roundTrip(pieces, data, id, 0).size());
    }
    EXPECT_EQ(strong, smallest);
}

}  // namespace

TEST(Files, RoundTrip) {
    const char* const folders = getenv("QX_ROUNDTRIP_FOLDERS");
    if (folders == nullptr) {
        GTEST_SKIP() << "takes long: run scripts/roundtrip-compress";
    }
    size_t files = 0;
    size_t trips = 0;
    size_t bytes = 0;
    std::istringstream list(folders);
    for (std::string folder; std::getline(list, folder, ':');) {
        for (const fs::directory_entry& entry :
             fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied)) {
            std::ifstream in(entry.path(), std::ios::binary);
            if (!entry.is_regular_file() || entry.is_symlink() || !in) {
                continue;
            }
            SCOPED_TRACE(entry.path().string());
            const std::string data{std::istreambuf_iterator<char>(in), {}};
            for (const int flags :
                 {0, +compress_record, +compress_framed, compress_record | compress_framed}) {
                const std::vector<Piece> pieces = flags == 0 ? std::vector<Piece>{{data, 0}}
                                                             : inPieces(data, (flags & compress_framed) != 0);
                for (const int id : {0, 1, 3, 5, 9, 11, 127}) {
                    if (isWanted(id)) {
                        roundTrip(pieces, data, id, flags);
                        ++trips;
                    }
                }
                if (isWanted(compress_strong) && flags == 0 && data.size() <= trial_bytes) {
                    checkStrongest(pieces, data);
                    trips += 9;
                }
            }
            bytes += data.size();
            if (++files % 200 == 0) {
                std::cout << files << " files, " << bytes << " bytes, " << trips << " round trips"
                          << std::endl;
            }
        }
        std::cout << folder << ": up to here " << files << " files, " << bytes << " bytes, " << trips
                  << " round trips" << std::endl;
    }
    EXPECT_GT(files, 0u);
}
