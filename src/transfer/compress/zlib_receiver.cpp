// Receiving side of id 127.
#include <algorithm>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/decoder.h"
#include "transfer/compress/error.h"

namespace {

constexpr size_t input_most = size_t{1} << 30;

int zlibError(DecompressFile& df, int result, ErrMsg* err) {
    if (writeOut(df, err) < 0) {
        return -1;
    }
    if (result == Z_MEM_ERROR) {
        return compressError(err, number_compress_zlib_no_memory, "%s", "");
    }
    const char* const text = df.zlib->stream.msg != nullptr ? df.zlib->stream.msg : zError(result);
    return compressError(err, number_compress_zlib_error, "%s|", text);
}

}  // namespace

ZlibReceiver::~ZlibReceiver() {
    if (open) {
        inflateEnd(&stream);
    }
}

int openZlibReceiver(DecompressFile& df, ErrMsg* err) {
    df.zlib.reset(new (std::nothrow) ZlibReceiver);
    if (df.zlib == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(ZlibReceiver)),
                             "zlib");
    }
    const int result = inflateInit(&df.zlib->stream);
    if (result != Z_OK) {
        return zlibError(df, result, err);
    }
    df.zlib->open = true;
    return 0;
}

int zlibWriteDecompress(DecompressFile& df, const uint8_t* from, size_t size, ErrMsg* err) {
    z_stream& stream = df.zlib->stream;
    OutputBuffer& out = df.out;
    while (size > 0) {
        if (df.zlib->ended) {
            return writeOut(df, err) < 0 ? -1 : compressError(err, number_compress_behind_zlib, "%s", "");
        }
        const size_t part = std::min(size, input_most);
        stream.next_in = const_cast<uint8_t*>(from);  // zlib does not write there
        stream.avail_in = static_cast<uInt>(part);
        do {
            if (flushOutBuf(df, err) < 0) {
                return -1;
            }
            stream.next_out = out.at(out.end);
            stream.avail_out = static_cast<uInt>(out.free());
            const int result = inflate(&stream, Z_SYNC_FLUSH);
            out.end = out.capacity - stream.avail_out;
            if (result == Z_STREAM_END) {
                df.zlib->ended = true;
                break;
            }
            if (result != Z_OK && result != Z_BUF_ERROR) {
                return zlibError(df, result, err);
            }
        } while (stream.avail_in != 0 || stream.avail_out == 0);
        from += part - stream.avail_in;
        size -= part - stream.avail_in;
    }
    return flushOutBuf(df, err);
}
