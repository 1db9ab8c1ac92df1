// Opening, reading and closing of the sending side.
#include "transfer/compress/compress.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/error.h"
#include "transfer/compress/lzss_search.h"
#include "transfer/compress/lzx_search.h"

CompressFile::CompressFile() = default;
CompressFile::~CompressFile() = default;

namespace {

constexpr size_t input_extra = 0x20008;

constexpr size_t block_slack = 64;  // literals are put down eight at a time

// The buffers of the methods, less what is added to all.
struct BufferSizes {
    size_t input;
    size_t history;
};

BufferSizes bufferSizes(int id, const CompressParameter& parameters) {
    const size_t blockSize = size_t{1024} * parameters.hufBlock;
    const size_t pool = size_t{4096} << parameters.lzpBufferSize;
    const size_t window = positionClasses(parameters.lzssWindow + 6).slidSize;
    switch (id) {
        case compress_rle:
            return {0x100000, parameters.var};
        case compress_lzss:
            return {4 * window + 32768, window};
        case compress_lzp:
        case compress_lzx:
            return {2 * pool + 32768, pool};
        case compress_zlib:
            return {0x80000, 0};
        default:
            return {blockSize, 0};
    }
}

void writeHeader(CompressFile& cf, long size) {
    uint8_t* to = cf.header.data();
    *to++ = static_cast<uint8_t>(cf.flags & ~compress_boundaries);
    *to++ = static_cast<uint8_t>(cf.id);
    if ((cf.flags & compress_size) != 0) {
        for (int i = 0; i < 8; ++i) {
            *to++ = static_cast<uint8_t>(static_cast<unsigned long>(size) >> (8 * i));
        }
    }
    const CompressParameter& parameters = cf.parameters;
    const auto sizes =
        static_cast<uint8_t>((parameters.lzpHashTableSize - 1) << 4 | (parameters.lzpBufferSize - 1));
    switch (cf.id) {
        case compress_lzss:
            *to++ = static_cast<uint8_t>(parameters.lzssWindow - 1);
            break;
        case compress_lzp:
            *to++ = static_cast<uint8_t>(parameters.lzpHash);
            *to++ = sizes;
            break;
        case compress_lzx:
            *to++ = static_cast<uint8_t>(parameters.lzmixBits << 4 | parameters.lzpHash);
            *to++ = sizes;
            *to++ = static_cast<uint8_t>(parameters.lzmixLevel);
            break;
        default:
            break;
    }
    cf.headerSize = static_cast<unsigned>(to - cf.header.data());
}

int openBlock(CompressFile& cf, ErrMsg* err) {
    Block& block = cf.block;
    block.size = 1024 * cf.parameters.hufBlock;
    if (cf.id != compress_huffman) {
        const size_t width = cf.id == compress_lzss ? sizeof(uint64_t) : sizeof(uint32_t);
        if (!block.memory.take(block.size * width + block_slack, "block", err)) {
            return -1;
        }
        if (cf.id == compress_lzss) {
            block.wide = block.memory.as<uint64_t>();
        } else {
            block.entries = block.memory.as<uint32_t>();
        }
    }
    cf.symbols = methodSymbols(cf.id, cf.parameters);
    return cf.overflow.take(transmitted_tree_max + 1024, "overflow", err) ? 0 : -1;
}

int openMethod(CompressFile& cf, ErrMsg* err) {
    switch (cf.id) {
        case compress_lzss:
            return openLzss(cf, err);
        case compress_lzp:
            return openLzp(cf, err);
        case compress_lzx:
            return openLzx(cf, err);
        case compress_zlib:
            return openZlib(cf, err);
        default:
            return 0;
    }
}

// Method 0. With compress_boundaries a call ends where a record does.
int noReadCompress(CompressFile& cf, uint8_t* out, int len, ErrMsg* err) {
    InputBuffer& in = cf.in;
    const bool stop =
        (cf.flags & (compress_boundaries | compress_record)) == (compress_boundaries | compress_record);
    const auto size = static_cast<size_t>(len);
    size_t done = 0;
    while (done < size) {
        if (in.available() == 0) {
            if ((stop && done != 0) || in.eof) {
                break;
            }
            if (fillInBuf(cf, 1, err) < 0) {
                return -1;
            }
            continue;
        }
        const size_t part = std::min(size - done, in.available());
        memcpy(out + done, in.at(in.src), part);
        in.src += part;
        done += part;
    }
    cf.account.source += done;
    return static_cast<int>(done);
}

int readBody(CompressFile& cf, uint8_t* out, int len, ErrMsg* err) {
    switch (cf.id) {
        case compress_none:
            return noReadCompress(cf, out, len, err);
        case compress_zlib:
            return zlibReadCompress(cf, out, len, err);
        default:
            return hufReadCompress(cf, out, len, err);
    }
}

struct OpenCall {
    Source source;
    int id;
    const CompressParameter* params;
    long* used;
};

// Turns the value of an open call into a method and its parameters.
int resolveId(CompressFile& cf, const OpenCall& call, CompressParameter* given, ErrMsg* err) {
    *given = call.params != nullptr ? *call.params : CompressParameter{};
    if (call.id == compress_default) {
        *given = {};
        return compress_lzp;
    }
    if (call.id >= compress_preset && call.id <= compress_last_preset) {
        return strongParameters(call.id - compress_preset, given);
    }
    if (call.id == compress_strong) {
        int id = -1;
        return findStrongest(cf, &id, given, err) < 0 ? -1 : id;
    }
    return call.id;
}

CompressFile* openCall(const OpenCall& call, ErrMsg* err) {
    clearError(err);
    const bool known = validCompressed(call.id) != 0 || call.id == compress_default ||
                       call.id == compress_strong ||
                       (call.id >= compress_preset && call.id <= compress_last_preset);
    constexpr int allFlags = compress_record | compress_size | compress_boundaries | compress_framed;
    const bool callback =
        call.source.read != nullptr || call.source.read2 != nullptr || call.source.read3 != nullptr;
    const bool flagsFit = (call.source.flags & ~allFlags) == 0 && callback &&
                          call.source.framed() == (call.source.read3 != nullptr);
    if (!known || !flagsFit) {
        compressError(err, number_compress_bad_call, "%d|%d|", call.id, call.source.flags);
        return nullptr;
    }
    std::unique_ptr<CompressFile> cf(new (std::nothrow) CompressFile);
    if (cf == nullptr) {
        compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(CompressFile)),
                      "CompressFile");
        return nullptr;
    }
    cf->source = call.source;
    cf->account.used = call.used;
    if (call.used != nullptr) {
        call.used[0] = 0;
        call.used[1] = 0;
    }
    CompressParameter given{};
    cf->flags = call.source.flags;
    cf->id = resolveId(*cf, call, &given, err);
    if (cf->id < 0) {
        return nullptr;
    }
    cf->parameters = given;
    return openSender(*cf, err) < 0 ? nullptr : cf.release();
}

int fail(CompressFile& cf, const ErrMsg& err) {
    cf.failure = err;
    return -1;
}

}  // namespace

int openSender(CompressFile& cf, ErrMsg* err) {
    if (cf.id != compress_none) {
        cf.flags &= ~compress_boundaries;
    }
    const CompressParameter given = cf.parameters;
    getParameters(&cf.parameters, &given, cf.id, cf.flags);
    cf.second.always = given.lzpHash != 0;
    const bool pool = cf.id == compress_lzp || cf.id == compress_lzx;
    long size = 0;
    if (pool || (cf.flags & compress_size) != 0) {
        size = getFileSize(cf.source, err);
        if (size < 0) {
            return -1;
        }
    }
    if (pool) {
        limitLzpBuffer(&cf.parameters, size);
    }
    writeHeader(cf, size);
    const BufferSizes sizes = bufferSizes(cf.id, cf.parameters);
    cf.in.capacity = sizes.input + input_extra;
    cf.in.history = sizes.history;
    if (!cf.in.memory.take(context_front + cf.in.capacity + input_slack, "input", err)) {
        return -1;
    }
    std::copy(context_before.begin(), context_before.end(), cf.in.at(0) - context_before.size());
    if (cf.id != compress_none && cf.id != compress_zlib && openBlock(cf, err) < 0) {
        return -1;
    }
    return openMethod(cf, err);
}

CompressFile* csOpen(void* hIn, int id, int flags, MyRead myRead, MySize mySize, MyReset /*myReset*/,
                     const CompressParameter* params, long* used, ErrMsg* err) {
    OpenCall call{{}, id, params, used};
    call.source.hIn = hIn;
    call.source.read = myRead;
    call.source.mySize = mySize;
    call.source.flags = flags;
    return openCall(call, err);
}

CompressFile* cs2Open(void* hIn, int id, int flags, My2Read my2Read, MySize mySize, MyReset /*myReset*/,
                      const CompressParameter* params, long* used, ErrMsg* err) {
    OpenCall call{{}, id, params, used};
    call.source.hIn = hIn;
    call.source.read2 = my2Read;
    call.source.mySize = mySize;
    call.source.flags = flags;
    return openCall(call, err);
}

CompressFile* cs3Open(void* hIn, int id, int flags, My3Read my3Read, MySize mySize, MyReset /*myReset*/,
                      const CompressParameter* params, long* used, ErrMsg* err) {
    OpenCall call{{}, id, params, used};
    call.source.hIn = hIn;
    call.source.read3 = my3Read;
    call.source.mySize = mySize;
    call.source.flags = flags | compress_framed;
    return openCall(call, err);
}

CompressFile* cs4Open(void* hIn, int id, int flags, My3Read my3Read, MySize mySize, MyReset myReset,
                      const CompressParameter* params, long* used, ErrMsg* err, void* /*something*/,
                      const int* /*level*/, CompressTrace /*callTrace*/, CompressTrace /*callTextTrace*/) {
    return cs3Open(hIn, id, flags, my3Read, mySize, myReset, params, used, err);
}

int csRead(CompressFile* cf, char* buf, int len, ErrMsg* err) {
    clearError(err);
    if (cf->failure.code != 0) {
        *err = cf->failure;
        return -1;
    }
    if (len <= 0) {
        return 0;
    }
    auto* out = reinterpret_cast<uint8_t*>(buf);
    const unsigned head = std::min(cf->headerSize - cf->headerSent, static_cast<unsigned>(len));
    memcpy(out, cf->header.data() + cf->headerSent, head);
    cf->headerSent += head;
    int done = static_cast<int>(head);
    if (done < len && !(done != 0 && (cf->flags & compress_boundaries) != 0)) {
        const int body = readBody(*cf, out + done, len - done, err);
        if (body < 0) {
            return fail(*cf, *err);
        }
        done += body;
    }
    findRecord(*cf);
    return done;
}

void csResetEOF(CompressFile* cf) {
    cf->in.eof = false;
    cf->chain.ended = false;
    if (cf->state == SendState::ended) {
        cf->state = SendState::body;
        cf->resumed = cf->haveTree;
    }
}

void csClose(CompressFile* cf) {
    delete cf;
}

int csMethod(const CompressFile* cf) {
    return cf->id;
}

int csTrace(CompressFile* /*cf*/, int /*level*/) {
    return 0;
}
int cs2Trace(CompressFile* /*cf*/, void* /*something*/) {
    return 0;
}
