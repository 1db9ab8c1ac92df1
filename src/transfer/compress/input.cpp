// Input buffer of the sending side, framing, and the list of records that `used` counts.
#include <algorithm>
#include <cstring>

#include "transfer/compress/encoder.h"

namespace {

constexpr size_t item_head = 7;
constexpr size_t record_head = 2;
constexpr size_t plain_read = 65536;  // small enough to stay in the cache until it is coded

void shiftDown(InputBuffer& in) {
    const size_t moved = in.src - std::min(in.src, in.history);
    if (moved != 0) {
        memmove(in.at(0), in.at(moved), in.end - moved);
        in.src -= moved;
        in.end -= moved;
        in.base += static_cast<uint32_t>(moved);
    }
}

void writeItemHead(uint8_t* to, int length, int ctrl) {
    to[0] = static_cast<uint8_t>(length);
    to[1] = static_cast<uint8_t>(length >> 8);
    to[2] = static_cast<uint8_t>(length >> 16);
    for (int i = 0; i < 4; ++i) {
        to[3 + i] = static_cast<uint8_t>(static_cast<unsigned>(ctrl) >> (24 - 8 * i));
    }
}

// Reads one item or record behind its head.
int readPiece(CompressFile& cf, ErrMsg* err) {
    InputBuffer& in = cf.in;
    const bool framed = cf.source.framed();
    const size_t head = framed ? item_head : record_head;
    uint8_t* const to = in.at(in.end);
    SourcePiece piece;
    const int n =
        readSource(cf.source, to + head, framed ? compress_item_max : compress_record_max, &piece, err);
    if (n < 0) {
        in.eof = true;
        return err->code != 0 ? -1 : 0;
    }
    if (framed) {
        writeItemHead(to, n, piece.ctrl);
    } else {
        to[0] = static_cast<uint8_t>(n);
        to[1] = static_cast<uint8_t>(n >> 8);
    }
    const size_t length = head + static_cast<size_t>(n);
    in.end += length;
    if (cf.account.used != nullptr) {
        cf.account.records.push_back({static_cast<uint32_t>(length), framed ? n : n + piece.rest});
    }
    return 0;
}

int readPlain(CompressFile& cf, size_t size, ErrMsg* err) {
    InputBuffer& in = cf.in;
    SourcePiece piece;
    const int n = readSource(cf.source, in.at(in.end), static_cast<int>(size), &piece, err);
    if (n < 0) {
        in.eof = true;
        return err->code != 0 ? -1 : 0;
    }
    in.end += static_cast<size_t>(n);
    return 0;
}

}  // namespace

int fillInBuf(CompressFile& cf, size_t need, ErrMsg* err) {
    InputBuffer& in = cf.in;
    const bool pieces = cf.source.framed() || cf.source.record();
    while (in.available() < need && !in.eof) {
        const size_t room =
            pieces ? item_head + compress_item_max : std::max(need - in.available(), plain_read);
        if (in.capacity - in.end < room) {
            shiftDown(in);
        }
        const int result =
            pieces ? readPiece(cf, err) : readPlain(cf, std::min(room, in.capacity - in.end), err);
        if (result < 0) {
            return -1;
        }
    }
    return 0;
}

void findRecord(CompressFile& cf) {
    UsedAccount& account = cf.account;
    if (account.used == nullptr) {
        return;
    }
    if (!cf.source.framed() && !cf.source.record()) {
        account.used[0] = static_cast<long>(account.source);
        return;
    }
    while (account.nextRecord < account.records.size()) {
        const UsedAccount::Record& record = account.records[account.nextRecord];
        if (account.recordsEnd + record.length > account.source) {
            break;
        }
        account.recordsEnd += record.length;
        account.used[0] += record.payload;
        account.used[1] += 1;
        ++account.nextRecord;
    }
    if (account.nextRecord > 4096 && account.nextRecord * 2 > account.records.size()) {
        account.records.erase(account.records.begin(),
                              account.records.begin() + static_cast<std::ptrdiff_t>(account.nextRecord));
        account.nextRecord = 0;
    }
}
