#include "transfer/compress/source.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "transfer/compress/error.h"

namespace {

constexpr int ask_again = -2;

int askCallback(const Source& source, uint8_t* buf, int size, SourcePiece* piece, ErrMsg* err) {
    char* const to = reinterpret_cast<char*>(buf);
    const int mode = source.flags & compress_record;
    *piece = {};
    if (source.read3 != nullptr) {
        return source.read3(source.hIn, to, size, mode, &piece->rest, &piece->ctrl, err);
    }
    if (source.read2 != nullptr) {
        return source.read2(source.hIn, to, size, mode, &piece->rest, err);
    }
    return source.read(source.hIn, to, size, mode, err);
}

int readCallback(const Source& source, uint8_t* buf, int size, SourcePiece* piece, ErrMsg* err) {
    int n = askCallback(source, buf, size, piece, err);
    if (n == ask_again && err->code == 0) {
        n = askCallback(source, buf, size, piece, err);
    }
    if (err->code != 0) {
        return -1;
    }
    if (n > size) {
        return compressError(err, number_compress_item_incomplete, "%d|", n);
    }
    const bool emptyEnds = !source.record() && (!source.framed() || piece->ctrl == 0);
    return n < 0 || (n == 0 && emptyEnds) ? -1 : n;
}

struct PieceHead {
    int length;
    SourcePiece piece;
};

bool appendChain(SourceChain& chain, const void* data, size_t size, ErrMsg* err) {
    const auto* from = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const size_t at = chain.filled % SourceChain::buffer_size;
        if (chain.filled / SourceChain::buffer_size == chain.buffers.size()) {
            chain.buffers.emplace_back(new (std::nothrow) uint8_t[SourceChain::buffer_size]);
            if (chain.buffers.back() == nullptr) {
                chain.buffers.pop_back();
                compressError(err, number_compress_no_memory, "%d|%s|",
                              static_cast<int>(SourceChain::buffer_size), "strong");
                return false;
            }
        }
        const size_t part = std::min(size, SourceChain::buffer_size - at);
        memcpy(chain.buffers.back().get() + at, from, part);
        chain.filled += part;
        from += part;
        size -= part;
    }
    return true;
}

void copyChain(const SourceChain& chain, size_t from, uint8_t* to, size_t size) {
    while (size > 0) {
        const size_t at = from % SourceChain::buffer_size;
        const size_t part = std::min(size, SourceChain::buffer_size - at);
        memcpy(to, chain.buffers[from / SourceChain::buffer_size].get() + at, part);
        from += part;
        to += part;
        size -= part;
    }
}

// Fetches one buffer of plain bytes, whole unless the source ends, or one piece.
bool growChain(SourceChain& chain, ErrMsg* err) {
    Source& source = *chain.source;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[SourceChain::buffer_size]);
    if (buffer == nullptr) {
        compressError(err, number_compress_no_memory, "%d|%s|", static_cast<int>(SourceChain::buffer_size),
                      "strong");
        return false;
    }
    PieceHead head{};
    if (source.record() || source.framed()) {
        const int most = source.framed() ? compress_item_max : compress_record_max;
        head.length = readCallback(source, buffer.get(), most, &head.piece, err);
        if (head.length < 0) {
            chain.ended = true;
            return err->code == 0;
        }
        return appendChain(chain, &head, sizeof head, err) &&
               appendChain(chain, buffer.get(), static_cast<size_t>(head.length), err);
    }
    size_t filled = 0;
    while (filled < SourceChain::buffer_size && !chain.ended) {
        const int n = readCallback(source, buffer.get() + filled,
                                   static_cast<int>(SourceChain::buffer_size - filled), &head.piece, err);
        if (n < 0) {
            chain.ended = true;
            if (err->code != 0) {
                return false;
            }
        } else {
            filled += static_cast<size_t>(n);
        }
    }
    return appendChain(chain, buffer.get(), filled, err);
}

int readChain(Source& source, uint8_t* buf, int size, SourcePiece* piece, ErrMsg* err) {
    SourceChain& chain = *source.chain;
    size_t& position = source.chainPosition;
    if (source.record() || source.framed()) {
        PieceHead head;
        copyChain(chain, position, reinterpret_cast<uint8_t*>(&head), sizeof head);
        position += sizeof head;
        if (head.length > size) {
            return compressError(err, number_compress_item_incomplete, "%d|", head.length);
        }
        copyChain(chain, position, buf, static_cast<size_t>(head.length));
        position += static_cast<size_t>(head.length);
        *piece = head.piece;
        return head.length;
    }
    const size_t part = std::min(static_cast<size_t>(size), chain.filled - position);
    copyChain(chain, position, buf, part);
    position += part;
    return static_cast<int>(part);
}

}  // namespace

int readSource(Source& source, uint8_t* buf, int size, SourcePiece* piece, ErrMsg* err) {
    if (source.chain == nullptr) {
        return readCallback(source, buf, size, piece, err);
    }
    SourceChain& chain = *source.chain;
    if (source.trial && source.chainPosition == chain.filled && !chain.ended && chain.filled < chain.limit &&
        !growChain(chain, err)) {
        return -1;
    }
    if (source.chainPosition < chain.filled) {
        return readChain(source, buf, size, piece, err);
    }
    if (source.trial || chain.ended) {
        return -1;
    }
    source.chain = nullptr;
    chain.buffers.clear();
    return readCallback(source, buf, size, piece, err);
}

long getFileSize(Source& source, ErrMsg* err) {
    if (source.fileSize >= 0) {
        return source.fileSize;
    }
    long size = -1;
    if (source.mySize != nullptr && source.mySize(source.hIn, &size, err) < 0) {
        size = -1;
    }
    if (err->code != 0) {
        return -1;
    }
    source.fileSize = size < 0 ? LONG_MAX : size;
    return source.fileSize;
}
