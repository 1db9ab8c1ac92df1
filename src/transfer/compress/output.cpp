// Output buffer of the receiving side: delivery of bytes, records and items, and making room.
#include <algorithm>
#include <climits>
#include <cstring>

#include "base/message_numbers.h"
#include "transfer/compress/decoder.h"
#include "transfer/compress/error.h"

namespace {

constexpr size_t output_least = 0x20008;
constexpr size_t item_head = 7;
constexpr size_t record_head = 2;
constexpr size_t deliver_most = size_t{1} << 30;

int write3Out(DecompressFile& df, ErrMsg* err) {
    OutputBuffer& out = df.out;
    while (out.end - out.delivered >= item_head) {
        const uint8_t* const head = out.at(out.delivered);
        const size_t length = size_t{head[0]} | size_t{head[1]} << 8 | size_t{head[2]} << 16;
        if (length > compress_item_max) {
            return compressError(err, number_compress_item_incomplete, "%s", "");
        }
        if (out.end - out.delivered - item_head < length) {
            break;
        }
        const uint32_t ctrl =
            uint32_t{head[3]} << 24 | uint32_t{head[4]} << 16 | uint32_t{head[5]} << 8 | head[6];
        df.write3(df.hOut, reinterpret_cast<const char*>(head + item_head), static_cast<int>(length),
                  df.flags & compress_record, static_cast<int>(ctrl), err);
        out.delivered += item_head + length;
        if (err->code != 0) {
            return -1;
        }
    }
    return 0;
}

int writeRecords(DecompressFile& df, ErrMsg* err) {
    OutputBuffer& out = df.out;
    while (out.end - out.delivered >= record_head) {
        const uint8_t* const head = out.at(out.delivered);
        const size_t length = size_t{head[0]} | size_t{head[1]} << 8;
        if (out.end - out.delivered - record_head < length) {
            break;
        }
        df.write(df.hOut, reinterpret_cast<const char*>(head + record_head), static_cast<int>(length),
                 compress_record, err);
        out.delivered += record_head + length;
        if (err->code != 0) {
            return -1;
        }
    }
    return 0;
}

int writePlain(DecompressFile& df, ErrMsg* err) {
    OutputBuffer& out = df.out;
    while (out.delivered < out.end) {
        const size_t part = std::min(out.end - out.delivered, deliver_most);
        df.write(df.hOut, reinterpret_cast<const char*>(out.at(out.delivered)), static_cast<int>(part), 0,
                 err);
        out.delivered += part;
        if (err->code != 0) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

int writeOut(DecompressFile& df, ErrMsg* err) {
    return df.framed() ? write3Out(df, err) : df.record() ? writeRecords(df, err) : writePlain(df, err);
}

int flushOutBuf(DecompressFile& df, ErrMsg* err) {
    if (writeOut(df, err) < 0) {
        return -1;
    }
    OutputBuffer& out = df.out;
    if (out.free() >= output_longest) {
        return 0;
    }
    const size_t keep = std::max(std::min(out.history, out.end), out.end - out.delivered);
    const size_t moved = out.end - keep;
    memmove(out.at(0), out.at(moved), keep);
    out.end = keep;
    out.delivered -= moved;
    out.base += moved;
    return 0;
}

int allocOutBuf(DecompressFile& df, size_t size, size_t history, ErrMsg* err) {
    OutputBuffer& out = df.out;
    // What stays (history, or an item that is not complete) and the longest copy must fit together.
    const size_t stays = std::max(history, item_head + compress_item_max);
    out.capacity = std::max({size, output_least, stays + 2 * output_longest});
    out.history = history;
    if (!out.memory.take(context_front + out.capacity + output_slack, "output", err)) {
        return -1;
    }
    std::copy(context_before.begin(), context_before.end(), out.at(0) - context_before.size());
    return 0;
}
