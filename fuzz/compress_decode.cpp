// Any bytes as a compressed stream, delivered in pieces that the input chooses: whole or in pieces, the
// outcome is the same.
#include <cstdlib>
#include <string>

#include "transfer/compress/compress.h"

namespace {

int take(void* out, const char* buf, int len, int /*mode*/, ErrMsg* /*err*/) {
    auto& all = *static_cast<std::string*>(out);
    if (all.size() < 1 << 20) {
        all.append(buf, static_cast<size_t>(len));
    }
    return 0;
}

int takeItem(void* out, const char* buf, int len, int mode, int ctrl, ErrMsg* err) {
    static_cast<std::string*>(out)->append(reinterpret_cast<const char*>(&ctrl), sizeof ctrl);
    return take(out, buf, len, mode, err);
}

int decode(const char* data, size_t size, int flags, size_t step, std::string* all) {
    ErrMsg err{};
    DecompressFile* df = (flags & compress_framed) != 0 ? dcs3Open(all, flags, takeItem, &err)
                                                        : dcsOpen(all, flags, take, &err);
    for (size_t at = 0; at < size && err.code == 0; at += step) {
        dcsWrite(df, data + at, static_cast<int>(step < size - at ? step : size - at), &err);
    }
    ErrMsg closing{};
    dcsClose(df, &closing);
    return err.code != 0 ? err.code : closing.code;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) {
        return 0;
    }
    const auto* stream = reinterpret_cast<const char*>(data + 1);
    std::string input(stream, size - 1);
    // Tables of streams that no test needs would only cost time: small sizes, all else as it is.
    const size_t sizes = input[1] == compress_lzp ? 3 : input[1] == compress_lzx ? 3 : 0;
    if (sizes != 0 && (input[0] & compress_size) == 0 && input.size() > sizes) {
        input[sizes] = static_cast<char>(input[sizes] & 0x33);
    }
    const int flags = input[0] & (compress_record | compress_framed);
    std::string whole;
    std::string pieces;
    const int first = decode(input.data(), input.size(), flags, input.size(), &whole);
    const int second = decode(input.data(), input.size(), flags, data[0] % 31 + 1U, &pieces);
    if (first != second || whole != pieces) {
        abort();
    }
    return 0;
}
