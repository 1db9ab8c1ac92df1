// Random contents with random method, parameters, mode and splits: they come back, and twice gives the same
// bytes.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "transfer/compress/compress.h"

namespace {

struct Source {
    std::string data;
    size_t at = 0;
    size_t most = 1;
};

int give(void* in, char* buf, int size, int mode, ErrMsg* /*err*/) {
    auto& source = *static_cast<Source*>(in);
    if (source.at == source.data.size()) {
        return -1;
    }
    const size_t wanted = mode != 0 ? 1 + static_cast<unsigned char>(source.data[source.at]) : source.most;
    const size_t n = std::min({wanted, static_cast<size_t>(size), source.data.size() - source.at});
    memcpy(buf, source.data.data() + source.at, n);
    source.at += n;
    return static_cast<int>(n);
}

int giveItem(void* in, char* buf, int size, int /*mode*/, int* rest, int* ctrl, ErrMsg* err) {
    *rest = 0;
    *ctrl = 0;
    return give(in, buf, size, 1, err);
}

int tellSize(void* in, long* size, ErrMsg* /*err*/) {
    *size = static_cast<long>(static_cast<Source*>(in)->data.size());
    return 0;
}

int take(void* out, const char* buf, int len, int /*mode*/, ErrMsg* /*err*/) {
    static_cast<std::string*>(out)->append(buf, static_cast<size_t>(len));
    return 0;
}

int takeItem(void* out, const char* buf, int len, int mode, int /*ctrl*/, ErrMsg* err) {
    return take(out, buf, len, mode, err);
}

std::string encode(Source source, int id, int flags, const CompressParameter& parameters, size_t ask) {
    ErrMsg err{};
    CompressFile* cf =
        (flags & compress_framed) != 0
            ? cs3Open(&source, id, flags, giveItem, tellSize, nullptr, &parameters, nullptr, &err)
            : csOpen(&source, id, flags, give, tellSize, nullptr, &parameters, nullptr, &err);
    std::string stream;
    std::string piece(ask, '\0');
    for (int n; cf != nullptr && (n = csRead(cf, piece.data(), static_cast<int>(ask), &err)) > 0;) {
        stream.append(piece, 0, static_cast<size_t>(n));
    }
    csClose(cf);
    if (err.code != 0) {
        abort();
    }
    return stream;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 12) {
        return 0;
    }
    constexpr int ids[] = {0, 1, 3, 5, 9, 11, 127};
    const int id = ids[data[0] % 7];
    const int flags = data[1] & (compress_record | compress_size | compress_framed);
    CompressParameter parameters{};
    parameters.hufBlock = 1;
    parameters.lzssWindow = data[2] % 4 + 1U;
    parameters.lzssLevel = data[2] / 16 % 6 + 1U;
    parameters.var = data[3] % 5;
    parameters.lzpHash = data[4] % 11;
    parameters.lzpHashTableSize = data[5] % 3 + 1U;
    parameters.lzpBufferSize = data[5] / 16 % 2 + 1U;
    parameters.lzmixBits = data[6] % 7;
    parameters.lzmixLevel = data[7] % 48;
    Source source;
    // Short inputs grow by repeating themselves, so that blocks, pools and windows are passed.
    const std::string unit(reinterpret_cast<const char*>(data + 10), size - 10);
    for (unsigned i = 0; i <= data[8]; ++i) {
        source.data += unit.substr(i % unit.size()) + static_cast<char>(i * 7);
    }
    source.most = data[9] * 16U + 1;
    const std::string stream = encode(source, id, flags, parameters, 4096);
    Source other = source;
    other.most = 65536;
    if (encode(other, id, flags, parameters, data[9] + 1U) != stream) {
        abort();
    }
    std::string back;
    ErrMsg err{};
    DecompressFile* df = (flags & compress_framed) != 0 ? dcs3Open(&back, flags, takeItem, &err)
                                                        : dcsOpen(&back, flags & compress_record, take, &err);
    const size_t step = data[9] + 1U;
    for (size_t at = 0; at < stream.size(); at += step) {
        dcsWrite(df, stream.data() + at, static_cast<int>(std::min(step, stream.size() - at)), &err);
        if (err.code != 0) {
            abort();
        }
    }
    if (dcsClose(df, &err) != 0 || back != source.data) {
        abort();
    }
    return 0;
}
