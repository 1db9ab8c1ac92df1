// Packing and unpacking of one stream.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/message_numbers.h"
#include "qxpack.h"

namespace {

constexpr size_t piece_size = size_t{256} << 10;
constexpr int line_max = 31744;  // longest record that transfers of text make

struct FileSource {
    int fd = -1;
    std::string name;
    std::vector<char> buffer = std::vector<char>(piece_size);
    size_t at = 0;
    size_t end = 0;
    uint64_t done = 0;
    long size = -1;
    Progress* progress = nullptr;
    std::string error;
};

// Fills the source's own buffer when it is empty. false at the end and on failure.
bool refill(FileSource& source, ErrMsg* err) {
    if (source.at < source.end) {
        return true;
    }
    ssize_t n;
    do {
        n = read(source.fd, source.buffer.data(), source.buffer.size());
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        source.error = source.name + ": " + strerror(errno);
        err->code = -1;
        return false;
    }
    source.at = 0;
    source.end = static_cast<size_t>(n);
    source.done += source.end;
    source.progress->show(source.done);
    return n > 0;
}

int readPlain(void* hIn, char* buf, int size, int /*mode*/, ErrMsg* err) {
    auto& source = *static_cast<FileSource*>(hIn);
    if (!refill(source, err)) {
        return -1;
    }
    const size_t n = std::min(static_cast<size_t>(size), source.end - source.at);
    memcpy(buf, source.buffer.data() + source.at, n);
    source.at += n;
    return static_cast<int>(n);
}

// A record is a line with its end, or as much of a long line as a record takes: together they are the file.
int readLine(void* hIn, char* buf, int size, int /*mode*/, ErrMsg* err) {
    auto& source = *static_cast<FileSource*>(hIn);
    const auto most = static_cast<size_t>(std::min(size, line_max));
    size_t filled = 0;
    while (filled < most && refill(source, err)) {
        const char* const from = source.buffer.data() + source.at;
        const size_t span = std::min(most - filled, source.end - source.at);
        const auto* const newline = static_cast<const char*>(memchr(from, '\n', span));
        const size_t n = newline != nullptr ? static_cast<size_t>(newline - from) + 1 : span;
        memcpy(buf + filled, from, n);
        source.at += n;
        filled += n;
        if (newline != nullptr) {
            break;
        }
    }
    return filled == 0 ? -1 : static_cast<int>(filled);
}

int readItem(void* hIn, char* buf, int size, int mode, int* rest, int* ctrl, ErrMsg* err) {
    *rest = 0;
    *ctrl = 0;
    return mode != 0 ? readLine(hIn, buf, size, mode, err) : readPlain(hIn, buf, size, mode, err);
}

int sizeOf(void* hIn, long* size, ErrMsg* /*err*/) {
    *size = static_cast<FileSource*>(hIn)->size;
    return 0;
}

bool writeAll(ByteSink& sink, const char* buf, size_t len) {
    while (sink.fd >= 0 && len > 0) {
        const ssize_t n = write(sink.fd, buf, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            sink.error = sink.name + ": " + strerror(errno);
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

struct UnpackSink {
    ByteSink* bytes;
    StreamFacts* facts;
};

int writeItem(void* hOut, const char* buf, int len, int /*mode*/, int ctrl, ErrMsg* err) {
    auto& sink = *static_cast<UnpackSink*>(hOut);
    sink.facts->payload += static_cast<uint64_t>(len);
    sink.facts->items += 1;
    sink.facts->controls += ctrl != 0 ? 1 : 0;
    if (!writeAll(*sink.bytes, buf, static_cast<size_t>(len))) {
        err->code = -1;
    }
    return 0;
}

int writePlain(void* hOut, const char* buf, int len, int mode, ErrMsg* err) {
    auto& sink = *static_cast<UnpackSink*>(hOut);
    writeItem(hOut, buf, len, mode, 0, err);
    sink.facts->items -= mode != 0 ? 0 : 1;
    return 0;
}

}  // namespace

std::string errorText(const ErrMsg& err) {
    const auto text = [&]() -> const char* {
        switch (err.code) {
            case number_compress_no_memory:
                return "not enough memory";
            case number_compress_bad_call:
                return "method or mode does not fit the stream";
            case number_compress_invalid_data:
                return "invalid compressed data";
            case number_compress_zlib_error:
                return "zlib reports an error";
            case number_compress_behind_zlib:
                return "data behind the end of the stream";
            case number_compress_zlib_incomplete:
                return "stream is not complete";
            case number_compress_item_incomplete:
                return "item too long or not complete";
            case number_compress_invalid_header:
                return "not a compressed stream";
            case number_compress_zlib_no_memory:
                return "not enough memory for zlib";
            case number_compress_text_differs:
                return "stream and command differ in records";
            default:
                return "failed";
        }
    }();
    std::string line = text;
    std::string inserts = err.text;
    if (!inserts.empty() && inserts.back() == '|') {
        inserts.pop_back();
    }
    if (!inserts.empty()) {
        line += ": " + inserts;
    }
    return line + " (" + std::to_string(err.code) + ")";
}

bool packStream(int from, const std::string& name, const PackOptions& options, ByteSink& sink, uint64_t total,
                std::string* why) {
    Progress progress(name, total);
    FileSource source;
    source.fd = from;
    source.name = name;
    source.progress = &progress;
    source.size = total != 0 && total <= LONG_MAX ? static_cast<long>(total) : -1;
    ErrMsg err{};
    // Files of the kernel tell the size 0 whatever they hold: only an end at once is a size of 0.
    if (total == 0 && !refill(source, &err)) {
        if (err.code != 0) {
            *why = source.error;
            return false;
        }
        source.size = 0;
    }
    const bool framed = (options.flags & compress_framed) != 0;
    const bool records = (options.flags & compress_record) != 0;
    CompressFile* const cf = framed
                                 ? cs3Open(&source, options.id, options.flags, readItem, sizeOf, nullptr,
                                           &options.parameters, nullptr, &err)
                                 : csOpen(&source, options.id, options.flags, records ? readLine : readPlain,
                                          sizeOf, nullptr, &options.parameters, nullptr, &err);
    if (cf == nullptr) {
        *why = source.error.empty() ? name + ": " + errorText(err) : source.error;
        return false;
    }
    const std::unique_ptr<CompressFile, void (*)(CompressFile*)> owned(cf, csClose);
    std::vector<char> piece(piece_size);
    int n;
    while ((n = csRead(cf, piece.data(), static_cast<int>(piece.size()), &err)) > 0) {
        if (!writeAll(sink, piece.data(), static_cast<size_t>(n))) {
            *why = sink.error;
            return false;
        }
    }
    if (n < 0) {
        *why = source.error.empty() ? name + ": " + errorText(err) : source.error;
        return false;
    }
    return true;
}

bool unpackStream(int from, const std::string& name, const PackOptions& options, ByteSink& sink,
                  uint64_t total, StreamFacts* facts, std::string* why) {
    Progress progress(name, total);
    FileSource source;
    source.fd = from;
    source.name = name;
    source.progress = &progress;
    ErrMsg err{};
    if (!refill(source, &err)) {
        *why = source.error.empty() ? name + ": is empty" : source.error;
        return false;
    }
    // The stream itself tells its mode unless the command does.
    const int flags =
        options.modeGiven ? options.flags : source.buffer[0] & (compress_record | compress_framed);
    UnpackSink to{&sink, facts};
    DecompressFile* const df = (flags & compress_framed) != 0
                                   ? dcs3Open(&to, flags & compress_record, writeItem, &err)
                                   : dcsOpen(&to, flags & compress_record, writePlain, &err);
    if (df == nullptr) {
        *why = name + ": " + errorText(err);
        return false;
    }
    bool good = true;
    while (good && refill(source, &err)) {
        const size_t n = source.end - source.at;
        good = dcsWrite(df, source.buffer.data() + source.at, static_cast<int>(n), &err) == 0;
        facts->packed += n;
        source.at = source.end;
    }
    good = good && source.error.empty();
    facts->header = dcsHeader(df);
    ErrMsg closing{};
    const bool closed = dcsClose(df, &closing) == 0;
    if (!good || !closed) {
        *why = !source.error.empty() ? source.error
               : !sink.error.empty() ? sink.error
                                     : name + ": " + errorText(good ? closing : err);
        return false;
    }
    const long size = facts->header.size;
    if (!facts->header.whole) {
        *why = name + ": header is not complete";
        return false;
    }
    if (size >= 0 && size != LONG_MAX && facts->payload != static_cast<uint64_t>(size)) {
        *why = name + ": holds " + std::to_string(facts->payload) + " bytes, its header tells " +
               std::to_string(size);
        return false;
    }
    return true;
}

Progress::Progress(const std::string& name, uint64_t total) : name_(name), total_(total) {
    if (isatty(STDERR_FILENO) == 0 || total < (uint64_t{1} << 20)) {
        total_ = 0;
    }
}

Progress::~Progress() {
    if (shown_ >= 0) {
        fputs("\r\033[K", stderr);
    }
}

void Progress::show(uint64_t done) {
    if (total_ == 0) {
        return;
    }
    const int percent = static_cast<int>(std::min<uint64_t>(100, done * 100 / total_));
    if (percent == shown_) {
        return;
    }
    shown_ = percent;
    constexpr int width = 40;
    std::string bar(static_cast<size_t>(percent * width / 100), '#');
    bar.resize(width, '.');
    fprintf(stderr, "\r%.30s [%s] %3d %%", name_.c_str(), bar.c_str(), percent);
    fflush(stderr);
}
