// Streams, blocks and positions.
#include "base/file_data.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/text.h"

namespace {

// What one line of a stream gave: bytes in the buffer, and how it ended.
struct stream_line {
    int length = 0;
    bool line_end = false;
    bool failed = false;
};

// Counts what was read by itself: a line may hold NUL bytes.
stream_line read_stream_line(FILE* stream, char* buffer, int limit) {
    stream_line line;
    flockfile(stream);
    while (line.length < limit) {
        const int c = getc_unlocked(stream);
        if (c == EOF) {
            line.failed = ferror_unlocked(stream) != 0;
            break;
        }
        if (c == '\n') {
            line.line_end = true;
            break;
        }
        buffer[line.length++] = static_cast<char>(c);
    }
    funlockfile(stream);
    buffer[line.length] = '\0';
    return line;
}

int stream_error(qx7_error* error, const char* function) {
    return file_error(error, function, "", errno);
}

}  // namespace

int ReadFgetS(FILE* stream, char* buffer, int size, char* text, size_t text_size) {
    if (text != nullptr) {
        copy_text(text, text_size, "");
    }
    const stream_line line = read_stream_line(stream, buffer, size - 1);
    if (line.failed) {
        if (text != nullptr) {
            snprintf(text, text_size, "%s - %s", "ReadFgetS", strerror(errno));
        }
        return read_failed;
    }
    if (line.line_end) {
        return line.length;
    }
    if (line.length == size - 1) {
        return read_line_too_long;
    }
    return line.length == 0 ? read_end_of_file : line.length;
}

int FileReadText(FILE* stream, char* buffer, int size, char* text, size_t text_size) {
    const int result = ReadFgetS(stream, buffer, size, text, text_size);
    if (result != read_line_too_long) {
        return result;
    }
    int dropped = 0;
    for (int c = ReadFgetC(stream); c != EOF && c != '\n'; c = ReadFgetC(stream)) {
        // An endless line stays one line; its length stops counting before the number overflows.
        dropped = std::min(dropped + 1, INT_MAX - size);
    }
    return ferror(stream) != 0 ? read_failed : size - 1 + dropped;
}

int FileReadText_r(FILE* stream, std::string* line) {
    line->clear();
    bool any = false;
    for (;;) {
        const int c = ReadFgetC(stream);
        if (c == EOF) {
            if (ferror(stream) != 0) {
                return read_failed;
            }
            return any ? static_cast<int>(line->size()) : read_end_of_file;
        }
        any = true;
        if (c == '\n' || line->size() == INT_MAX) {
            return static_cast<int>(line->size());
        }
        if (c >= 32) {
            line->push_back(static_cast<char>(c));
        }
    }
}

int ReadFgetC(FILE* stream) {
    return getc(stream);
}

int FileReadBin(FILE* stream, void* buffer, size_t size) {
    const size_t length = fread(buffer, 1, std::min<size_t>(size, INT_MAX), stream);
    if (length > 0) {
        return static_cast<int>(length);
    }
    return ferror(stream) != 0 ? read_failed : read_end_of_file;
}

int FileWriteText(FILE* stream, std::string_view text) {
    return WriteFwrite(stream, text.data(), text.size()) == 0 && putc('\n', stream) != EOF ? 0 : -1;
}

int WriteFputS(FILE* stream, const char* text) {
    return fputs(text, stream) == EOF ? -1 : 0;
}

int WriteFwrite(FILE* stream, const void* data, size_t length) {
    return length == 0 || fwrite(data, 1, length, stream) == length ? 0 : -1;
}

FILE* FcbOpenFile(const char* path, const char* mode, qx7_error* error) {
    qx_error_clear(error);
    effUser_guard guard;
    FILE* stream = FileFOpen(path, mode);
    if (stream == nullptr) {
        file_error(error, "FcbOpenFile()", path, errno);
    }
    return stream;
}

int FcbPutsText(FILE* stream, std::string_view text, qx7_error* error) {
    qx_error_clear(error);
    if (WriteFwrite(stream, text.data(), text.size()) == 0) {
        return 0;
    }
    const int number = errno;
    qx_error_set(error, -1, number, 0, "%s     error '%s' in fputs() call", "FcbPutsText", strerror(number));
    errno = number;
    return -1;
}

int FcbWriteText(FILE* stream, const char* text, int length, qx7_error* error) {
    std::string line(text, length < 0 ? strlen(text) : static_cast<size_t>(length));
    line += '\n';
    return FcbPutsText(stream, line, error);
}

int FcbReadText(FILE* stream, char* buffer, int size, qx7_error* error) {
    qx_error_clear(error);
    char text[256];
    const int result = FileReadText(stream, buffer, size, text, sizeof text);
    if (result == read_failed) {
        const int number = errno;
        qx_error_set(error, read_failed, number, number_file_call, "%s||%d|%s|", "fgets()", number, text);
    }
    return result;
}

int FcbCloseFile(FILE* stream, qx7_error* error) {
    qx_error_clear(error);
    return FileFClose(stream) == 0 ? 0 : stream_error(error, "fclose()");
}

ssize_t readn(int fd, void* buffer, size_t n) {
    char* bytes = static_cast<char*>(buffer);
    size_t length = 0;
    while (length < n) {
        const ssize_t got = read(fd, bytes + length, n - length);
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

ssize_t FD_Read_N(int fd, void* buffer, size_t n) {
    return readn(fd, buffer, n);
}

int WriteFdWrite(int fd, const void* data, size_t length) {
    const char* bytes = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return -1;
        }
        bytes += written;
        length -= static_cast<size_t>(written);
    }
    return 0;
}

bool read_whole_file(int fd, size_t limit, std::string* out) {
    out->clear();
    struct stat status;
    if (fstat(fd, &status) != 0) {
        return false;
    }
    if (status.st_size > static_cast<off_t>(limit)) {
        errno = EFBIG;
        return false;
    }
    // One byte more than the size tells whether the file has grown since.
    out->resize(static_cast<size_t>(status.st_size) + 1);
    size_t length = 0;
    for (;;) {
        const ssize_t got = readn(fd, out->data() + length, out->size() - length);
        if (got < 0) {
            return false;
        }
        length += static_cast<size_t>(got);
        if (length < out->size()) {
            out->resize(length);
            return true;
        }
        if (length > limit) {
            errno = EFBIG;
            return false;
        }
        out->resize(std::min(length * 2 + 1, limit + 1));
    }
}

int64_t GetFilePos(FILE* stream) {
    return ftello(stream);
}
int SetFilePos(FILE* stream, int64_t position) {
    return fseeko(stream, position, SEEK_SET);
}
int FileSeekSet(FILE* stream, int64_t position) {
    return SetFilePos(stream, position);
}
int FileSeekEnd(FILE* stream) {
    return fseeko(stream, 0, SEEK_END);
}
int FileSeekReset(FILE* stream) {
    return fseeko(stream, 0, SEEK_SET);
}
int64_t TellFilePos(int fd) {
    return lseek(fd, 0, SEEK_CUR);
}
int64_t fd_SeekSet(int fd, int64_t position) {
    return lseek(fd, position, SEEK_SET);
}
int64_t fd_SeekEnd(int fd) {
    return lseek(fd, 0, SEEK_END);
}
int64_t fd_SeekReset(int fd) {
    return lseek(fd, 0, SEEK_SET);
}
