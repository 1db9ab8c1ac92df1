// Text records in four encodings, forward and backward.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_data.h"

namespace {

constexpr size_t reader_block = 65536;
constexpr int64_t backward_piece = 8192;  // pieces start at multiples of it, so that a pair is never split

// Where the line end that begins the search at `from` ends, or npos. `odd` tells that the first byte stands
// on an odd file position: two-byte line ends count at even positions only.
size_t find_record_end(const unsigned char* data, size_t length, size_t from, char code, bool odd) {
    if (text_code_unit(code) == 1) {
        if (code == TEXT_CODE_BINARY || from >= length) {
            return std::string_view::npos;
        }
        const void* end = memchr(data + from, '\n', length - from);
        return end == nullptr ? std::string_view::npos
                              : static_cast<size_t>(static_cast<const unsigned char*>(end) - data) + 1;
    }
    const unsigned char first = code == TEXT_CODE_UCS2BE ? 0x00 : 0x0A;
    const unsigned char second = code == TEXT_CODE_UCS2BE ? 0x0A : 0x00;
    size_t at = from + ((from & 1) != static_cast<size_t>(odd) ? 1 : 0);
    for (; at + 1 < length; at += 2) {
        if (data[at] == first && data[at + 1] == second) {
            return at + 2;
        }
    }
    return std::string_view::npos;
}

ssize_t read_at(int fd, void* buffer, size_t n, int64_t position) {
    char* bytes = static_cast<char*>(buffer);
    size_t length = 0;
    while (length < n) {
        const ssize_t got = pread(fd, bytes + length, n - length, position + static_cast<off_t>(length));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        length += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(length);
}

// The longest record that a buffer takes: one byte less than where the record counts as too long.
size_t record_limit(size_t size, char code) {
    const size_t spare = text_code_unit(code) == 1 ? 1 : 2;
    return size > spare ? size - spare : 0;
}

int too_long(char* buffer) {
    buffer[0] = '\0';
    errno = read_record_too_long;
    return -1;
}

int end_of_file(char* buffer) {
    buffer[0] = '\0';
    errno = read_end_of_file;
    return 0;
}

// What cannot seek is read unit by unit, so that nothing behind the record is taken.
int read_record_from_pipe(int fd, char* buffer, size_t size, char code) {
    const size_t unit = static_cast<size_t>(text_code_unit(code));
    const size_t limit = record_limit(size, code);
    size_t length = 0;
    for (;;) {
        if (length + unit > limit) {
            return code == TEXT_CODE_BINARY ? static_cast<int>(length) : too_long(buffer);
        }
        const ssize_t got = readn(fd, buffer + length, unit);
        if (got < 0) {
            return static_cast<int>(got);
        }
        length += static_cast<size_t>(got);
        buffer[length] = '\0';
        if (static_cast<size_t>(got) < unit) {
            return length == 0 ? end_of_file(buffer) : static_cast<int>(length);
        }
        const unsigned char* last = reinterpret_cast<const unsigned char*>(buffer) + length - unit;
        if (find_record_end(last, unit, 0, code, false) != std::string_view::npos) {
            return length >= limit ? too_long(buffer) : static_cast<int>(length);
        }
    }
}

// Makes the block hold `wanted` bytes from the reader's position on, as far as the file has them.
int fill_block(text_reader* reader, size_t wanted) {
    if (reader->block == nullptr) {
        reader->block.reset(new (std::nothrow) unsigned char[reader_block]);
        if (reader->block == nullptr) {
            errno = ENOMEM;
            return -1;
        }
    }
    const int64_t offset = reader->position - reader->block_start;
    size_t kept = 0;
    if (offset >= 0 && offset < static_cast<int64_t>(reader->block_length)) {
        kept = reader->block_length - static_cast<size_t>(offset);
        if (kept >= wanted) {
            return 0;
        }
        memmove(reader->block.get(), reader->block.get() + offset, kept);
    }
    reader->block_start = reader->position;
    reader->block_length = kept;
    const ssize_t got = read_at(reader->fd, reader->block.get() + kept, reader_block - kept,
                                reader->position + static_cast<int64_t>(kept));
    if (got < 0) {
        return -1;
    }
    reader->block_length += static_cast<size_t>(got);
    return 0;
}

// Line ends of one backward piece, last one first: the position behind the one that completes `wanted`, or
// -1.
int64_t count_back(const unsigned char* data, size_t length, int64_t start, int64_t* wanted, char code) {
    const size_t unit = static_cast<size_t>(text_code_unit(code));
    if (unit == 1) {
        // Most pieces are only counted: looking each line end up costs fifty times as much where lines are
        // empty.
        const int64_t ends = std::count(data, data + length, static_cast<unsigned char>('\n'));
        if (ends < *wanted) {
            *wanted -= ends;
            return -1;
        }
        while (const void* hit = memrchr(data, '\n', length)) {
            length = static_cast<size_t>(static_cast<const unsigned char*>(hit) - data);
            if (--*wanted == 0) {
                return start + static_cast<int64_t>(length + 1);
            }
        }
        return -1;
    }
    size_t at = length - length % unit;
    while (at >= unit) {
        at -= unit;
        const bool hit = find_record_end(data + at, unit, 0, code, false) != std::string_view::npos;
        if (hit && --*wanted == 0) {
            return start + static_cast<int64_t>(at + unit);
        }
    }
    return -1;
}

}  // namespace

int text_code_unit(char code) {
    return code == TEXT_CODE_UCS2BE || code == TEXT_CODE_UCS2LE ? 2 : 1;
}

std::string_view text_code_mark(char code) {
    switch (code) {
        case TEXT_CODE_UTF8:
            return "\xEF\xBB\xBF";
        case TEXT_CODE_UCS2BE:
            return "\xFE\xFF";
        case TEXT_CODE_UCS2LE:
            return "\xFF\xFE";
        default:
            return {};
    }
}

int text_code_mark_size(char code) {
    return static_cast<int>(text_code_mark(code).size());
}

int fdReadTextRec(int fd, char* buffer, size_t size, char code) {
    const off_t position = lseek(fd, 0, SEEK_CUR);
    if (position < 0) {
        return read_record_from_pipe(fd, buffer, size, code);
    }
    const size_t unit = static_cast<size_t>(text_code_unit(code));
    const size_t limit = record_limit(size, code);
    size_t length = 0;
    size_t end = std::string_view::npos;
    // Small pieces first: most records are short, and what was read too much is read again.
    for (size_t piece = 512; end == std::string_view::npos && length < limit; piece *= 4) {
        const size_t wanted = std::min(piece, limit - length);
        const ssize_t got = read_at(fd, buffer + length, wanted, position + static_cast<off_t>(length));
        if (got < 0) {
            return static_cast<int>(got);
        }
        const size_t searched = length - length % unit;
        length += static_cast<size_t>(got);
        end = find_record_end(reinterpret_cast<const unsigned char*>(buffer), length, searched, code, false);
        if (static_cast<size_t>(got) < wanted) {
            break;
        }
    }
    const size_t taken = end != std::string_view::npos ? end : length;
    if (taken == 0) {
        return end_of_file(buffer);
    }
    if (code != TEXT_CODE_BINARY && taken >= limit) {
        return too_long(buffer);
    }
    if (lseek(fd, position + static_cast<off_t>(taken), SEEK_SET) < 0) {
        return -1;
    }
    buffer[taken] = '\0';
    return static_cast<int>(taken);
}

void text_reader_open(text_reader* reader, int fd, char code, int64_t position) {
    reader->fd = fd;
    reader->code = code;
    reader->position = position;
    reader->block_start = 0;
    reader->block_length = 0;
}

void text_reader_read_ahead(text_reader* reader, size_t wanted) {
    const int error_number = errno;
    (void)fill_block(reader, std::min(wanted, reader_block));
    errno = error_number;
}

int64_t text_reader_whole_until(const text_reader* reader) {
    const unsigned char* block = reader->block.get();
    const void* end = block == nullptr ? nullptr : memrchr(block, '\n', reader->block_length);
    return end == nullptr ? reader->block_start
                          : reader->block_start + (static_cast<const unsigned char*>(end) - block) + 1;
}

int text_reader_next_view(text_reader* reader, size_t limit, std::string_view* record, bool* cut) {
    *record = {};
    *cut = false;
    const size_t unit = static_cast<size_t>(text_code_unit(reader->code));
    limit = std::max(std::min(limit, reader_block) / unit * unit, unit);
    if (fill_block(reader, 1) != 0) {
        return -1;
    }
    const bool odd = (reader->position & 1) != 0;
    size_t end = std::string_view::npos;
    // A record that does not end in what was read before may have grown since.
    for (bool read_again = false;; read_again = true) {
        const size_t offset = static_cast<size_t>(reader->position - reader->block_start);
        const size_t length = std::min(limit, reader->block_length - offset);
        end = find_record_end(reader->block.get() + offset, length, 0, reader->code, odd);
        if (end != std::string_view::npos || length == limit || read_again) {
            break;
        }
        if (fill_block(reader, limit) != 0) {
            return -1;
        }
    }
    const size_t offset = static_cast<size_t>(reader->position - reader->block_start);
    const size_t available = reader->block_length - offset;
    if (available == 0) {
        errno = read_end_of_file;
        return 0;
    }
    size_t taken = end;
    if (end == std::string_view::npos) {
        taken = std::min(limit, available);
        // A line end that was cut off by the limit alone still belongs to this record's next piece.
        *cut = reader->code != TEXT_CODE_BINARY && (available > limit || taken == limit);
    }
    *record = {reinterpret_cast<const char*>(reader->block.get()) + offset, taken};
    reader->position += static_cast<int64_t>(taken);
    return static_cast<int>(taken);
}

int text_reader_next(text_reader* reader, char* buffer, size_t size) {
    const size_t limit = record_limit(size, reader->code);
    const int64_t start = reader->position;
    size_t length = 0;
    for (;;) {
        std::string_view record;
        bool cut = false;
        const int result = text_reader_next_view(reader, std::max<size_t>(limit - length, 2), &record, &cut);
        if (result < 0) {
            return result;
        }
        if (result == 0) {
            return length == 0 ? end_of_file(buffer) : static_cast<int>(length);
        }
        if (length + record.size() > limit || (length + record.size() == limit && reader->code != '0')) {
            reader->position = start;
            return too_long(buffer);
        }
        memcpy(buffer + length, record.data(), record.size());
        length += record.size();
        buffer[length] = '\0';
        if (!cut) {
            return static_cast<int>(length);
        }
    }
}

int64_t text_last_records(int fd, int64_t size, int64_t records, char code, int64_t lowest) {
    unsigned char piece[backward_piece];
    if (records <= 0) {
        return size;
    }
    // One more than records: the file's own last line end is the first one met.
    int64_t wanted = records + 1;
    for (int64_t end = size; end > 0;) {
        if (end <= lowest) {
            errno = EFBIG;
            return -1;
        }
        const int64_t start = (end - 1) / backward_piece * backward_piece;
        const ssize_t got = read_at(fd, piece, static_cast<size_t>(end - start), start);
        if (got < 0) {
            return -1;
        }
        const int64_t found = count_back(piece, static_cast<size_t>(got), start, &wanted, code);
        if (found >= 0) {
            return found;
        }
        end = start;
    }
    const std::string_view mark = text_code_mark(code);
    const ssize_t got = read_at(fd, piece, mark.size(), 0);
    if (got < 0) {
        return -1;
    }
    const bool marked = !mark.empty() && static_cast<size_t>(got) == mark.size() &&
                        memcmp(piece, mark.data(), mark.size()) == 0 &&
                        size >= static_cast<int64_t>(mark.size());
    return marked ? static_cast<int64_t>(mark.size()) : 0;
}
