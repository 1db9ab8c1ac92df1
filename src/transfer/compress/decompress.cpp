// Opening, header and closing of the receiving side.
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/compress.h"
#include "transfer/compress/decoder.h"
#include "transfer/compress/error.h"

namespace {

constexpr size_t output_size = 0x20000;

DecompressFile* openCall(const DecompressFile& call, ErrMsg* err) {
    clearError(err);
    constexpr int allFlags = compress_record | compress_size | compress_boundaries | compress_framed;
    if ((call.flags & ~allFlags) != 0 || call.framed() != (call.write3 != nullptr) ||
        (call.write == nullptr) == (call.write3 == nullptr)) {
        compressError(err, number_compress_bad_call, "%d|%d|", -1, call.flags);
        return nullptr;
    }
    auto* df = new (std::nothrow) DecompressFile;
    if (df == nullptr) {
        compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(DecompressFile)),
                      "DecompressFile");
        return nullptr;
    }
    df->hOut = call.hOut;
    df->write = call.write;
    df->write3 = call.write3;
    df->flags = call.flags;
    return df;
}

// What a decode table holds for each symbol, but for the length of its code.
void shapeEntries(DecompressFile& df) {
    const MethodSymbols symbols = methodSymbols(df.id, df.parameters);
    for (unsigned i = 0; i < alphabet_size; ++i) {
        const SymbolShape& shape = symbols[i];
        const uint32_t base = shape.kind == SymbolKind::literal ? i : shape.base;
        df.shape[i] = uint32_t{shape.extraBits} << entry_bits_shift | base << entry_base_shift |
                      uint32_t{shape.place} << entry_place_shift |
                      static_cast<uint32_t>(shape.kind) << entry_kind_shift;
    }
}

int openLzp(DecompressFile& df, ErrMsg* err) {
    const ContextOrders orders = contextOrders(df.parameters.lzpHash);
    const uint32_t size = 512U << df.parameters.lzpHashTableSize;
    for (unsigned i = 0; i < 2; ++i) {
        const unsigned order = i == 0 ? orders.first : orders.second;
        if (order == 0) {
            break;
        }
        ReceiveContext& context = df.context[i];
        context.hash = contextHash(size, order);
        context.value = context.hash.start;
        if (!context.memory.take((size_t{context.hash.mask} + 1) * sizeof(uint32_t), "lzp", err)) {
            return -1;
        }
    }
    return 0;
}

// All of the header is known: takes the memory that it implies.
int openBody(DecompressFile& df, ErrMsg* err) {
    df.state = ReceiveState::body;
    const size_t pool = size_t{4096} << df.parameters.lzpBufferSize;
    shapeEntries(df);
    switch (df.id) {
        case compress_huffman:
            df.literals.reset(new (std::nothrow) LiteralTable);
            if (df.literals == nullptr) {
                return compressError(err, number_compress_no_memory, "%d|%s|",
                                     static_cast<int>(sizeof(LiteralTable)), "huf");
            }
            return allocOutBuf(df, output_size, 0, err);
        case compress_rle:
            return allocOutBuf(df, output_size, 4, err);
        case compress_lzss:
            df.classes = positionClasses(df.parameters.lzssWindow + 6);
            return allocOutBuf(df, 2 * size_t{df.classes.slidSize} + output_size, df.classes.slidSize, err);
        case compress_lzp:
            if (openLzp(df, err) < 0 || allocOutBuf(df, 3 * pool, pool, err) < 0) {
                return -1;
            }
            if (pool >= large_pool) {
                df.out.memory.preferLargePages();
                df.context[0].memory.preferLargePages();
            }
            return 0;
        case compress_lzx:
            return df.buckets.open(df.parameters, err) < 0 ? -1 : allocOutBuf(df, 3 * pool, pool, err);
        case compress_zlib:
            return openZlibReceiver(df, err) < 0 ? -1 : allocOutBuf(df, output_size, 0, err);
        default:
            return allocOutBuf(df, output_size, 0, err);
    }
}

int badHeader(ErrMsg* err) {
    return compressError(err, number_compress_invalid_header, "%s", "");
}

int takeFlags(DecompressFile& df, uint8_t byte, ErrMsg* err) {
    if ((byte & compress_record) != (df.flags & compress_record)) {
        return compressError(err, number_compress_text_differs, "%s", "");
    }
    if ((byte & compress_framed) != 0 && !df.framed()) {
        return compressError(err, number_compress_bad_call, "%d|%d|", -1, int{byte});
    }
    df.streamFlags = byte;
    df.flags |= byte;
    df.state = ReceiveState::id;
    return 0;
}

int startMethod(DecompressFile& df, ErrMsg* err) {
    switch (df.id) {
        case compress_lzss:
            df.state = ReceiveState::lzssWindow;
            return 0;
        case compress_lzp:
            df.state = ReceiveState::lzpHash;
            return 0;
        case compress_lzx:
            df.state = ReceiveState::lzxBits;
            return 0;
        default:
            return openBody(df, err);
    }
}

int takeId(DecompressFile& df, uint8_t byte, ErrMsg* err) {
    if (validCompressed(byte) == 0) {
        return badHeader(err);
    }
    df.id = byte;
    if ((df.streamFlags & compress_size) != 0) {
        df.state = ReceiveState::size;
        return 0;
    }
    return startMethod(df, err);
}

int takeSize(DecompressFile& df, uint8_t byte, ErrMsg* err) {
    df.streamSize |= uint64_t{byte} << (8 * df.sizeBytes);
    if (++df.sizeBytes < 8) {
        return 0;
    }
    df.sizeKnown = true;
    return startMethod(df, err);
}

void takePackedSizes(DecompressFile& df, uint8_t byte) {
    df.parameters.lzpHashTableSize = (byte >> 4) + 1U;
    df.parameters.lzpBufferSize = (byte & 15) + 1U;
}

int takeLzxBits(DecompressFile& df, uint8_t byte, ErrMsg* err) {
    df.parameters.lzmixBits = byte >> 4;
    df.parameters.lzpHash = byte & 15;
    if (df.parameters.lzmixBits < 2 || df.parameters.lzmixBits > 6 || df.parameters.lzpHash < 2 ||
        df.parameters.lzpHash > 4) {
        return badHeader(err);
    }
    df.state = ReceiveState::lzxSizes;
    return 0;
}

int takeLzxLevel(DecompressFile& df, uint8_t byte, ErrMsg* err) {
    CompressParameter allowed{};
    df.parameters.lzmixLevel = byte;
    getParameters(&allowed, &df.parameters, compress_lzx, 0);
    if (byte == 0 || byte > allowed.lzmixLevel) {
        return badHeader(err);
    }
    return openBody(df, err);
}

int takeHeader(DecompressFile& df, uint8_t byte, ErrMsg* err) {
    switch (df.state) {
        case ReceiveState::flags:
            return takeFlags(df, byte, err);
        case ReceiveState::id:
            return takeId(df, byte, err);
        case ReceiveState::size:
            return takeSize(df, byte, err);
        case ReceiveState::lzssWindow:
            if (byte > 15) {
                return badHeader(err);
            }
            df.parameters.lzssWindow = byte + 1U;
            return openBody(df, err);
        case ReceiveState::lzpHash:
            if (byte < 2 || byte > 10) {
                return badHeader(err);
            }
            df.parameters.lzpHash = byte;
            df.state = ReceiveState::lzpSizes;
            return 0;
        case ReceiveState::lzpSizes:
            takePackedSizes(df, byte);
            return openBody(df, err);
        case ReceiveState::lzxBits:
            return takeLzxBits(df, byte, err);
        case ReceiveState::lzxSizes:
            takePackedSizes(df, byte);
            df.state = ReceiveState::lzxLevel;
            return 0;
        case ReceiveState::lzxLevel:
            return takeLzxLevel(df, byte, err);
        case ReceiveState::body:
            break;
    }
    return 0;
}

// Method 0.
int copyBody(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err) {
    OutputBuffer& out = df.out;
    while (size > 0) {
        const size_t part = size < out.free() ? size : out.free();
        memcpy(out.at(out.end), from, part);
        out.end += part;
        from += part;
        size -= part;
        if (flushOutBuf(df, err) < 0) {
            return -1;
        }
    }
    return 0;
}

int takeBody(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err) {
    switch (df.id) {
        case compress_none:
            return copyBody(df, from, size, err);
        case compress_zlib:
            return zlibWriteDecompress(df, from, size, err);
        default:
            return hufWriteDecompress(df, from, size, err);
    }
}

int take(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err) {
    while (size > 0 && df.state != ReceiveState::body) {
        if (takeHeader(df, *from, err) < 0) {
            return -1;
        }
        ++from;
        --size;
    }
    return size > 0 ? takeBody(df, from, size, err) : 0;
}

// What the end of the stream itself has to say.
int closeBody(const DecompressFile& df, ErrMsg* err) {
    if (!dcsEnded(&df)) {
        return compressError(err, number_compress_zlib_incomplete, "%s", "");
    }
    if (df.out.delivered < df.out.end) {
        return compressError(err, number_compress_item_incomplete, "%s", "");
    }
    return 0;
}

}  // namespace

bool dcsEnded(const DecompressFile* df) {
    return df->id != compress_zlib || (df->zlib != nullptr && df->zlib->ended);
}

DecompressFile* dcsOpen(void* hOut, int flags, MyWrite myWrite, ErrMsg* err) {
    DecompressFile call;
    call.hOut = hOut;
    call.flags = flags;
    call.write = myWrite;
    return openCall(call, err);
}

DecompressFile* dcs3Open(void* hOut, int flags, My3Write my3Write, ErrMsg* err) {
    DecompressFile call;
    call.hOut = hOut;
    call.flags = flags | compress_framed;
    call.write3 = my3Write;
    return openCall(call, err);
}

DecompressFile* dcs4Open(void* hOut, int flags, My3Write my3Write, ErrMsg* err, void* /*something*/,
                         const int* /*level*/, CompressTrace /*callTrace*/, CompressTrace /*callTextTrace*/) {
    return dcs3Open(hOut, flags, my3Write, err);
}

int dcsWrite(DecompressFile* df, const char* buf, int len, ErrMsg* err) {
    clearError(err);
    if (df->failure.code != 0) {
        *err = df->failure;
        return -1;
    }
    if (len <= 0) {
        return 0;
    }
    if (take(*df, reinterpret_cast<const uint8_t*>(buf), static_cast<size_t>(len), err) < 0) {
        df->failure = *err;
        return -1;
    }
    return 0;
}

int dcsClose(DecompressFile* df, ErrMsg* err) {
    clearError(err);
    if (df == nullptr) {
        return 0;
    }
    const std::unique_ptr<DecompressFile> owned(df);
    if (df->failure.code != 0) {
        *err = df->failure;
        return -1;
    }
    return closeBody(*df, err);
}

CompressHeader dcsHeader(const DecompressFile* df) {
    return {df->streamFlags, df->id, df->sizeKnown ? static_cast<long>(df->streamSize) : -1,
            df->state == ReceiveState::body, df->parameters};
}

int dcsTrace(DecompressFile* /*df*/, int /*level*/) {
    return 0;
}
int dcs2Trace(DecompressFile* /*df*/, void* /*something*/) {
    return 0;
}
