// Reading of a source: its three kinds of callbacks, and the store of what a trial has read ahead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "transfer/compress/compress.h"

struct SourceChain;

// One source. Exactly one of the callbacks is set; with a chain they are asked only through it.
struct Source {
    void* hIn = nullptr;
    MyRead read = nullptr;
    My2Read read2 = nullptr;
    My3Read read3 = nullptr;
    MySize mySize = nullptr;
    int flags = 0;
    SourceChain* chain = nullptr;  // read this first; not owned
    size_t chainPosition = 0;
    bool trial = false;  // ends where the chain may not grow any more
    long fileSize = -1;  // answer of mySize, once it was asked

    bool record() const { return (flags & compress_record) != 0; }
    bool framed() const { return (flags & compress_framed) != 0; }
};

// What came with a piece of a source.
struct SourcePiece {
    int rest = 0;
    int ctrl = 0;
};

// Bytes that several readers of one source share, so that the source itself is read once. In record and
// framed mode each piece stands behind a head with its length and its SourcePiece.
struct SourceChain {
    static constexpr size_t buffer_size = 65536;
    Source* source = nullptr;
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
    size_t filled = 0;
    size_t limit = 0;
    bool ended = false;
};

// Reads the next piece into `buf`. Returns its length, -1 at the end and on failure (code in `err`).
int readSource(Source& source, uint8_t* buf, int size, SourcePiece* piece, ErrMsg* err);

// Size of the source; LONG_MAX when unknown. The callback is asked once. -1 with a code in `err` when the
// callback failed.
long getFileSize(Source& source, ErrMsg* err);
