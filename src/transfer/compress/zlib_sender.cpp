// Sending side of id 127.
#include <algorithm>
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/bucket.h"
#include "transfer/compress/encoder.h"
#include "transfer/compress/error.h"
#include "transfer/compress/lzss_search.h"

namespace {

// Fixed pieces in both directions, so that the bytes do not depend on what a caller asks for.
constexpr size_t input_piece = 32768;
constexpr size_t output_piece = 65536;

int zlibError(int result, const z_stream& stream, ErrMsg* err) {
    if (result == Z_MEM_ERROR) {
        err->code = number_compress_zlib_no_memory;
        err->text[0] = 0;
        return -1;
    }
    return compressError(err, number_compress_zlib_error, "%s|",
                         stream.msg != nullptr ? stream.msg : zError(result));
}

// Counts the bytes of the source that `size` more returned bytes cover.
int zlibUsed(CompressFile& cf, uint8_t* returned, size_t size, ErrMsg* err) {
    ZlibSender& zlib = *cf.zlib;
    zlib.counter.next_in = returned;
    zlib.counter.avail_in = static_cast<uInt>(size);
    for (;;) {
        zlib.counter.next_out = zlib.counterOutput.data();
        zlib.counter.avail_out = static_cast<uInt>(zlib.counterOutput.size());
        const int result = inflate(&zlib.counter, Z_SYNC_FLUSH);
        cf.account.source += zlib.counterOutput.size() - zlib.counter.avail_out;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            return zlibError(result, zlib.counter, err);
        }
        if (zlib.counter.avail_out != 0) {
            return 0;
        }
    }
}

// One fixed piece of output, shorter only at the end.
int fillOutput(CompressFile& cf, ErrMsg* err) {
    ZlibSender& zlib = *cf.zlib;
    z_stream& stream = zlib.stream;
    stream.next_out = zlib.output.data();
    stream.avail_out = output_piece;
    while (stream.avail_out != 0 && !zlib.finished) {
        if (fillInBuf(cf, input_piece, err) < 0) {
            return -1;
        }
        const size_t piece = std::min(cf.in.available(), input_piece);
        const bool last = cf.in.eof && piece == cf.in.available();
        stream.next_in = cf.in.at(cf.in.src);
        stream.avail_in = static_cast<uInt>(piece);
        const int result = deflate(&stream, last ? Z_FINISH : Z_NO_FLUSH);
        cf.in.src += piece - stream.avail_in;
        if (result == Z_STREAM_END) {
            zlib.finished = true;
        } else if (result != Z_OK && result != Z_BUF_ERROR) {
            return zlibError(result, stream, err);
        }
    }
    zlib.outputAt = 0;
    zlib.outputEnd = output_piece - stream.avail_out;
    return 0;
}

}  // namespace

ZlibSender::~ZlibSender() {
    if (open) {
        deflateEnd(&stream);
    }
    if (counterOpen) {
        inflateEnd(&counter);
    }
}

int openZlib(CompressFile& cf, ErrMsg* err) {
    cf.zlib.reset(new (std::nothrow) ZlibSender);
    if (cf.zlib == nullptr) {
        return compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(sizeof(ZlibSender)),
                             "zlib");
    }
    ZlibSender& zlib = *cf.zlib;
    if (!zlib.output.take(output_piece, "zlib", err)) {
        return -1;
    }
    int result = deflateInit(&zlib.stream, static_cast<int>(cf.parameters.zlibLevel));
    if (result != Z_OK) {
        return zlibError(result, zlib.stream, err);
    }
    zlib.open = true;
    if (cf.account.used != nullptr) {
        if (!zlib.counterOutput.take(output_piece, "zlib2", err)) {
            return -1;
        }
        result = inflateInit(&zlib.counter);
        if (result != Z_OK) {
            return zlibError(result, zlib.counter, err);
        }
        zlib.counterOpen = true;
    }
    return 0;
}

int zlibReadCompress(CompressFile& cf, uint8_t* out, int len, ErrMsg* err) {
    ZlibSender& zlib = *cf.zlib;
    const auto size = static_cast<size_t>(len);
    size_t done = 0;
    while (done < size) {
        if (zlib.outputAt == zlib.outputEnd) {
            if (zlib.finished) {
                if (fillInBuf(cf, 1, err) < 0) {
                    return -1;
                }
                if (cf.in.available() == 0) {
                    break;
                }
                return compressError(err, number_compress_bad_call, "%d|%d|", cf.id,
                                     cf.flags);  // resumed behind its end
            }
            if (fillOutput(cf, err) < 0) {
                return -1;
            }
            continue;
        }
        const size_t part = std::min(size - done, zlib.outputEnd - zlib.outputAt);
        memcpy(out + done, zlib.output.data() + zlib.outputAt, part);
        zlib.outputAt += part;
        done += part;
    }
    if (zlib.counterOpen && done != 0 && zlibUsed(cf, out, done, err) < 0) {
        return -1;
    }
    return static_cast<int>(done);
}
