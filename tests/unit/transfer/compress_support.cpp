#include "compress_support.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

// The same numbers on every machine.
class Random {
  public:
    explicit Random(uint32_t seed) : state_(seed * 2654435769U + 1) {}
    uint32_t operator()() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_ * 0x9e3779b1U >> 1 ^ state_;
    }

  private:
    uint32_t state_;
};

int readPlain(void* hIn, char* buf, int size, int mode, ErrMsg* /*err*/) {
    auto& source = *static_cast<TestSource*>(hIn);
    if (source.again > 0) {
        --source.again;
        return -2;
    }
    if (source.next == source.pieces.size()) {
        return -1;
    }
    const std::string& data = source.pieces[source.next].data;
    const size_t left = data.size() - source.offset;
    const size_t most = mode != 0 ? SIZE_MAX : source.most;
    const size_t n = std::min({left, static_cast<size_t>(size), most});
    memcpy(buf, data.data() + source.offset, n);
    source.offset += n;
    if (source.offset == data.size()) {
        ++source.next;
        source.offset = 0;
    }
    return static_cast<int>(n);
}

int readFramed(void* hIn, char* buf, int size, int mode, int* rest, int* ctrl, ErrMsg* err) {
    auto& source = *static_cast<TestSource*>(hIn);
    *rest = 0;
    *ctrl = source.next < source.pieces.size() ? source.pieces[source.next].ctrl : 0;
    const size_t most = std::exchange(source.most, SIZE_MAX);
    const int n = readPlain(hIn, buf, size, mode, err);
    source.most = most;
    return n;
}

int sizeOf(void* hIn, long* size, ErrMsg* /*err*/) {
    *size = static_cast<TestSource*>(hIn)->size;
    return 0;
}

int writePlain(void* hOut, const char* buf, int len, int mode, ErrMsg* err) {
    auto& sink = *static_cast<TestSink*>(hOut);
    sink.all.append(buf, static_cast<size_t>(len));
    if (mode != 0) {
        sink.pieces.push_back({std::string(buf, static_cast<size_t>(len)), 0});
    }
    if (sink.all.size() > sink.failAfter) {
        err->code = 4711;
    }
    return 0;
}

int writeFramed(void* hOut, const char* buf, int len, int /*mode*/, int ctrl, ErrMsg* /*err*/) {
    auto& sink = *static_cast<TestSink*>(hOut);
    sink.all.append(buf, static_cast<size_t>(len));
    sink.pieces.push_back({std::string(buf, static_cast<size_t>(len)), ctrl});
    return 0;
}

constexpr const char* words[] = {
    "the",    "transfer", "of",       "file",   "server", "began", "with",   "error",  "receiver", "and",
    "answer", "channel",  "until",    "string", "return", "value", "struct", "const",  "for",      "while",
    "length", "buffer",   "position", "a",      "in",     "to",    "is",     "offset", "record",   "agent"};

}  // namespace

std::string encode(const std::vector<Piece>& pieces, const EncodeOptions& options, ErrMsg* err) {
    TestSource source;
    source.pieces = pieces;
    source.most = options.most;
    if (options.sizeKnown) {
        source.size = 0;
        for (const Piece& piece : pieces) {
            source.size += static_cast<long>(piece.data.size());
        }
    }
    const bool framed = (options.flags & compress_framed) != 0;
    CompressFile* cf = framed ? cs3Open(&source, options.id, options.flags, readFramed, sizeOf, nullptr,
                                        &options.parameters, options.used, err)
                              : csOpen(&source, options.id, options.flags, readPlain, sizeOf, nullptr,
                                       &options.parameters, options.used, err);
    std::string stream;
    if (cf == nullptr) {
        return stream;
    }
    std::string piece(options.ask, '\0');
    for (;;) {
        const int n = csRead(cf, piece.data(), static_cast<int>(piece.size()), err);
        if (n <= 0) {
            break;
        }
        stream.append(piece, 0, static_cast<size_t>(n));
        if (options.onRead) {
            options.onRead(cf, stream);
        }
    }
    csClose(cf);
    return stream;
}

std::string encode(const std::string& data, const EncodeOptions& options, ErrMsg* err) {
    std::vector<Piece> pieces;
    const size_t most = (options.flags & compress_framed) != 0 ? compress_item_max : SIZE_MAX;
    for (size_t at = 0; at < data.size(); at += std::min(most, data.size() - at)) {
        pieces.push_back({data.substr(at, most), 0});
    }
    return encode(pieces, options, err);
}

Decoded decode(const std::string& stream, int flags, size_t step) {
    Decoded decoded;
    const bool framed = (flags & compress_framed) != 0;
    DecompressFile* df = framed ? dcs3Open(&decoded.sink, flags, writeFramed, &decoded.error)
                                : dcsOpen(&decoded.sink, flags, writePlain, &decoded.error);
    for (size_t at = 0; at < stream.size() && decoded.error.code == 0;
         at += std::min(step, stream.size() - at)) {
        dcsWrite(df, stream.data() + at, static_cast<int>(std::min(step, stream.size() - at)),
                 &decoded.error);
    }
    ErrMsg closing{};
    dcsClose(df, decoded.error.code == 0 ? &decoded.error : &closing);
    return decoded;
}

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string toHex(const std::string& bytes) {
    constexpr const char* digits = "0123456789abcdef";
    std::string hex;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex.push_back(digits[byte >> 4]);
        hex.push_back(digits[byte & 15]);
    }
    return hex;
}

std::string makeText(size_t size, uint32_t seed) {
    Random random(seed);
    std::string text;
    while (text.size() < size) {
        const uint32_t draw = random();
        const size_t count = std::size(words);
        text += words[std::min<size_t>(draw % count, (draw >> 8) % count)];
        text += draw >> 28 == 0 ? ";\n    " : draw >> 28 == 1 ? "(" : " ";
    }
    text.resize(size);
    return text;
}

std::string makeLog(size_t size, uint32_t seed) {
    Random random(seed);
    std::string text;
    unsigned second = 0;
    while (text.size() < size) {
        char line[160];
        second += random() % 3;
        snprintf(line, sizeof line, "2026-11-24 %02u:%02u:%02u.%03u [%5u] %s: %s %s %s id=%u\n",
                 second / 3600 % 24, second / 60 % 60, second % 60, random() % 1000, 1000 + random() % 8,
                 random() % 9 == 0 ? "WARN" : "INFO", words[random() % 30], words[random() % 8],
                 words[random() % 30], random() % 100000);
        text += line;
    }
    text.resize(size);
    return text;
}

std::string makeBinary(size_t size, uint32_t seed) {
    Random random(seed);
    std::string data;
    std::array<uint32_t, 64> pool;
    for (uint32_t& word : pool) {
        word = random();
    }
    while (data.size() < size) {
        const uint32_t draw = random();
        if (draw % 5 == 0) {
            data.append(draw >> 8 & 15, '\0');
        } else if (draw % 5 == 1) {
            data.push_back(static_cast<char>(0x48));
            data.push_back(static_cast<char>(0x8b + (draw >> 8) % 4));
        }
        const uint32_t word = pool[(draw >> 12) % 64] + (draw >> 26);
        data.append(reinterpret_cast<const char*>(&word), draw % 7 == 0 ? 2 : 4);
    }
    data.resize(size);
    return data;
}

std::string makeNoise(size_t size, uint32_t seed) {
    Random random(seed);
    std::string data(size, '\0');
    for (char& c : data) {
        c = static_cast<char>(random() >> 13);
    }
    return data;
}

std::string makeRuns(size_t size, uint32_t seed) {
    Random random(seed);
    std::string data;
    while (data.size() < size) {
        const uint32_t draw = random();
        const size_t period = 1 + draw % 6;
        const size_t length = draw % 37 == 0 ? 200000 : draw >> 3 & 127;
        std::string unit;
        for (size_t i = 0; i < period; ++i) {
            unit.push_back(static_cast<char>('a' + random() % 5));
        }
        for (size_t i = 0; i < length; ++i) {
            data.push_back(unit[i % period]);
        }
    }
    data.resize(size);
    return data;
}

std::vector<Piece> makeRecords(size_t count, uint32_t seed) {
    Random random(seed);
    std::vector<Piece> pieces;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t draw = random();
        const size_t length = draw % 4 == 0 ? 0 : draw % 301 == 0 ? 65535 : draw >> 8 & 63;
        pieces.push_back({makeText(length, draw), draw % 7 == 0 ? static_cast<int>(draw % 6) + 1 : 0});
    }
    return pieces;
}
