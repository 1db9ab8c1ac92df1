// What a file request reads: pieces of a text when the file is opened, blocks of bytes when they are asked
// for.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/error_text.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "identity/user_files.h"
#include "retrieval/file_retrieval.h"

namespace {

constexpr size_t piece_size = 8192;  // even, so that no pair of a two-byte encoding is split
constexpr size_t head_size = sizeof(MSG_TYPE_XML_DATA);

bool is_text(const GETF_PL* request) {
    return request->gf_cData.cd_filetype == FILE_REQUEST_TEXT;
}

int file_failure(const GETF_PL* request, int error_number, const std::string& text, qx7_error* error) {
    return qx_error_set(error, -1, error_number, number_file_read_failed, "%s|%d - %s|",
                        printable(request->gf_sFileName).c_str(), error_number, text.c_str());
}

int errno_failure(const GETF_PL* request, qx7_error* error) {
    const int number = errno;
    // Once the others are done there is more room.
    if (number == EFBIG && request->gf_room < file_request_bytes_max) {
        return qx_error_set(error, -1, EBUSY, number_file_read_failed, "%s|%s|",
                            printable(request->gf_sFileName).c_str(), file_requests_busy);
    }
    return file_failure(request, number,
                        number == read_record_too_long ? "record size too long" : error_text(number), error);
}

// All of `size` bytes, or -1; a file that became shorter in the meantime is EIO.
int read_whole(int fd, char* to, size_t size, int64_t position) {
    for (size_t done = 0; done < size;) {
        const ssize_t got = pread(fd, to + done, size - done, position + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            errno = got == 0 ? EIO : errno;
            return -1;
        }
        done += static_cast<size_t>(got);
    }
    return 0;
}

// Behind the first line end in data[from, size), or npos. `from` is even.
size_t line_end(std::string_view data, size_t from, char code) {
    if (text_code_unit(code) == 1) {
        const size_t at = data.find('\n', from);
        return at == std::string_view::npos ? at : at + 1;
    }
    const std::string_view end =
        code == TEXT_CODE_UCS2BE ? std::string_view("\0\n", 2) : std::string_view("\n\0", 2);
    for (size_t at = from; at + 1 < data.size(); at += 2) {
        if (data.compare(at, 2, end) == 0) {
            return at + 2;
        }
    }
    return std::string_view::npos;
}

int read_piece(GETF_PL* request, int fd, int64_t position, int64_t end) {
    const size_t size = static_cast<size_t>(std::min<int64_t>(end - position, piece_size));
    RCV_RB piece;
    piece.rb_data.resize(size);
    if (read_whole(fd, piece.rb_data.data(), size, position) != 0) {
        return -1;
    }
    request->gf_firstRb.push_back(std::move(piece));
    return 0;
}

// Lines that a walk along pieces has passed, and the length of the one that it is in.
struct line_count {
    int64_t lines = 0;
    size_t length = 0;
};

// Where the last wanted line ends in the piece, or its size. -1: a line is longer than `max`.
ssize_t count_lines(std::string_view piece, char code, int64_t wanted, size_t max, line_count* count) {
    if (text_code_unit(code) == 1 && count->length + piece.size() <= max) {
        // No line here can be too long, and in most pieces none is the last one: these are only counted.
        const int64_t ends = std::count(piece.begin(), piece.end(), '\n');
        if (count->lines + ends < wanted) {
            const size_t last = piece.rfind('\n');
            count->lines += ends;
            count->length =
                last == std::string_view::npos ? count->length + piece.size() : piece.size() - last - 1;
            return static_cast<ssize_t>(piece.size());
        }
    }
    for (size_t at = 0; at < piece.size();) {
        const size_t end = line_end(piece, at, code);
        const size_t stop = end == std::string_view::npos ? piece.size() : end;
        count->length += stop - at;
        if (count->length > max) {
            return -1;
        }
        if (end != std::string_view::npos) {
            count->length = 0;
            if (++count->lines == wanted) {
                return static_cast<ssize_t>(end);
            }
        }
        at = stop;
    }
    return static_cast<ssize_t>(piece.size());
}

void put_head(GETF_PL* request, size_t length) {
    MSG_TYPE_XML_DATA head;
    head.remaining_bytes = iCnvI64(request->gf_restSendSize);
    head.pos = iCnvI64(request->gf_startPos);
    head.datalen = iCnvI32(static_cast<int32_t>(length));
    memcpy(request->gf_pCdataBuff.data(), &head, sizeof head);
}

int open_text(GETF_PL* request, int fd) {
    if (set_textCoding(request, fd) != 0) {
        return -1;
    }
    return request->gf_cData.cd_readdirection == FILE_REQUEST_END ? create_endRecBuf(request, fd)
                                                                  : create_beginRecBuf(request, fd);
}

}  // namespace

int create_sendRecBuf(GETF_PL* request, qx7_error* error) {
    qx_descriptor file(
        Open_ReadEffUser(request->gf_sLoginInfo.c_str(), request->gf_sFileName.c_str(), error));
    if (!file.valid()) {
        const int number = error->qx_errno;
        return error->qx_msgnr != 0
                   ? -1
                   : file_failure(request, number, number == EINVAL ? "no regular file" : error_text(number),
                                  error);
    }
    request->gf_fileSize = getFileSize1(file.get());
    if (request->gf_fileSize < 0) {
        return errno_failure(request, error);
    }
    if (!is_text(request)) {
        request->gf_text_coding = TEXT_CODE_BINARY;
        request->gf_startPos = 0;
        request->gf_sendSize = request->gf_fileSize;
        request->gf_restSendSize = request->gf_fileSize;
        request->gf_fd = std::move(file);
        return 0;
    }
    if (open_text(request, file.get()) != 0) {
        return errno_failure(request, error);
    }
    request->gf_restSendSize += request->gf_sendSize;
    return 0;
}

int set_textCoding(GETF_PL* request, int fd) {
    char bytes[3] = {};
    const ssize_t got = pread(fd, bytes, sizeof bytes, 0);
    if (got < 0) {
        return -1;
    }
    const std::string_view start(bytes, static_cast<size_t>(got));
    request->gf_text_coding = TEXT_CODE_NORMAL;
    for (const char code : {TEXT_CODE_UTF8, TEXT_CODE_UCS2BE, TEXT_CODE_UCS2LE}) {
        if (start.starts_with(text_code_mark(code))) {
            request->gf_text_coding = code;
            break;
        }
    }
    return 0;
}

int create_beginRecBuf(GETF_PL* request, int fd) {
    request->gf_startPos = 0;
    const int64_t size = request->gf_fileSize;
    const char code = request->gf_text_coding;
    line_count count;
    // A mark alone is no line.
    bool done = request->gf_records <= 0 || size <= text_code_mark_size(code);
    for (int64_t position = 0; position < size && !done;) {
        if (position >= request->gf_room) {
            errno = EFBIG;
            return -1;
        }
        if (read_piece(request, fd, position, size) != 0) {
            return -1;
        }
        std::string& data = request->gf_firstRb.back().rb_data;
        const ssize_t kept = count_lines(data, code, request->gf_records, request->gf_maxRecSize, &count);
        if (kept < 0) {
            errno = read_record_too_long;
            return -1;
        }
        data.resize(static_cast<size_t>(kept));
        position += kept;
        request->gf_sendSize = position;
        done = count.lines == request->gf_records;
    }
    return 0;
}

int create_endRecBuf(GETF_PL* request, int fd) {
    const int64_t size = request->gf_fileSize;
    const int64_t start =
        text_last_records(fd, size, request->gf_records, request->gf_text_coding, size - request->gf_room);
    if (start < 0) {
        return -1;
    }
    if (size - start > request->gf_room) {
        errno = EFBIG;
        return -1;
    }
    for (int64_t position = start; position < size; position += piece_size) {
        if (read_piece(request, fd, position, size) != 0) {
            return -1;
        }
    }
    request->gf_startPos = start;
    request->gf_sendSize = size - start;
    return 0;
}

void alloc_currReadBuffer(GETF_PL* request) {
    request->gf_pCdataBuff.assign(head_size + request->gf_blocksize, '\0');
}

int get_nextRecord(GETF_PL* request) {
    std::string& record = request->gf_pLastRec;
    record.clear();
    while (!request->gf_firstRb.empty()) {
        RCV_RB& piece = request->gf_firstRb.front();
        const size_t end = line_end(piece.rb_data, piece.rb_dist, request->gf_text_coding);
        const size_t stop = end == std::string::npos ? piece.rb_data.size() : end;
        if (record.size() + stop - piece.rb_dist > request->gf_maxRecSize) {
            return -1;
        }
        record.append(piece.rb_data, piece.rb_dist, stop - piece.rb_dist);
        piece.rb_dist = stop;
        if (stop == piece.rb_data.size()) {
            request->gf_firstRb.pop_front();
        }
        if (end != std::string::npos) {
            break;
        }
    }
    return record.empty() ? 0 : 1;
}

int read_recordsToBuff(GETF_PL* request, qx7_error* error) {
    alloc_currReadBuffer(request);
    size_t length = 0;
    int more = request->gf_pLastRec.empty() ? get_nextRecord(request) : 1;
    while (more > 0 && length + request->gf_pLastRec.size() <= request->gf_blocksize) {
        memcpy(request->gf_pCdataBuff.data() + head_size + length, request->gf_pLastRec.data(),
               request->gf_pLastRec.size());
        length += request->gf_pLastRec.size();
        more = get_nextRecord(request);
    }
    if (more < 0) {
        return qx_error_set(error, -1, read_record_too_long, number_file_read_failed, "%s|%s|",
                            printable(request->gf_sFileName).c_str(), "record size is too long");
    }
    request->gf_restSendSize -= static_cast<int64_t>(length);
    request->gf_pCdataBuff.resize(head_size + length);
    put_head(request, length);
    return 0;
}

int read_fileToBuff(GETF_PL* request, qx7_error* error) {
    alloc_currReadBuffer(request);
    const size_t length = static_cast<size_t>(
        std::min<int64_t>(request->gf_restSendSize, static_cast<int64_t>(request->gf_blocksize)));
    if (length > 0 && read_whole(request->gf_fd.get(), request->gf_pCdataBuff.data() + head_size, length,
                                 request->gf_sendSize - request->gf_restSendSize) != 0) {
        return errno == EIO ? file_failure(request, EIO, "the file became shorter or cannot be read", error)
                            : errno_failure(request, error);
    }
    request->gf_restSendSize -= static_cast<int64_t>(length);
    if (request->gf_restSendSize == 0) {
        request->gf_fd.reset();
    }
    request->gf_pCdataBuff.resize(head_size + length);
    put_head(request, length);
    return 0;
}
