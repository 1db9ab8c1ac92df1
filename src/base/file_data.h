// Reading and writing of file data: lines, blocks, positions, and text in four encodings, forward and
// backward.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

// Results of reading.
inline constexpr int read_failed = -4714;
inline constexpr int read_end_of_file = -4715;
inline constexpr int read_line_too_long = -4716;
inline constexpr int read_record_too_long = -4720;  // in errno

// Codes of text encodings.
enum text_code : char {
    TEXT_CODE_BINARY = '0',
    TEXT_CODE_NORMAL = '1',
    TEXT_CODE_UTF8 = '2',
    TEXT_CODE_UCS2BE = '3',
    TEXT_CODE_UCS2LE = '4',
};

// Bytes of one character unit (1 or 2) and of the byte-order mark (0, 3, 2).
int text_code_unit(char code);
int text_code_mark_size(char code);
std::string_view text_code_mark(char code);

// ---- One record by descriptor

// Reads up to and including the line end; the file position stands behind it afterwards. Result: bytes; 0 and
// errno -4715 at the end; -1 and errno -4720 when the record reaches size - 1 (two-byte codes: size - 2), the
// buffer then holds an empty text; what read gave when it failed. Code '0' fills the buffer. Works on pipes
// as well.
int fdReadTextRec(int fd, char* buffer, size_t size, char code);

// ---- A reader of text records with a buffer of its own

// Reads a descriptor in blocks from a position on (pread; the descriptor's own position is not touched). The
// descriptor stays the caller's. Results are those of fdReadTextRec; the byte-order mark belongs to the first
// record.
struct text_reader {
    int fd = -1;
    char code = TEXT_CODE_NORMAL;
    int64_t position = 0;  // file position of the next record
    std::unique_ptr<unsigned char[]> block;
    int64_t block_start = 0;
    size_t block_length = 0;
};
void text_reader_open(text_reader* reader, int fd, char code, int64_t position);
int text_reader_next(text_reader* reader, char* buffer, size_t size);
// The record as a view that lives until the next call. A record of more than `limit` bytes is cut there and
// goes on with the next call (*cut is then true); two-byte codes are cut at pairs. Same results.
int text_reader_next_view(text_reader* reader, size_t limit, std::string_view* record, bool* cut);
// Reads the next `wanted` bytes, as far as the file has them, while nobody waits for them. A failure shows
// when they are taken.
void text_reader_read_ahead(text_reader* reader, size_t wanted);
// Where the last whole line ends of what was read: up to there records come without a look at the file. For
// codes of one byte.
int64_t text_reader_whole_until(const text_reader* reader);

// Where the last `records` records of a file begin: read backwards in pieces of 8192 bytes that start at
// multiples of 8192; line ends of two-byte codes count at even positions. `size` is the file's size to work
// with. When the beginning is reached the position is behind the byte-order mark, if the file has one. -1
// with errno on failure. Nothing in front of the piece that holds `lowest` is read: EFBIG when the records
// begin there.
int64_t text_last_records(int fd, int64_t size, int64_t records, char code, int64_t lowest = 0);

// ---- Streams

// One line without its LF, which becomes NUL: its length; -4714 with "%s - %s" in `text`, -4715, -4716 (no LF
// within size; the rest is still to be read). Lines may hold NUL bytes.
int ReadFgetS(FILE* stream, char* buffer, int size, char* text, size_t text_size);
// The same, but the rest of a long line is dropped and the result is size - 1 plus what was dropped.
int FileReadText(FILE* stream, char* buffer, int size, char* text, size_t text_size);
// A line of any length, without CR and bytes below 32; its length or -4714, -4715.
int FileReadText_r(FILE* stream, std::string* line);
int ReadFgetC(FILE* stream);
// Bytes read, -4714, -4715.
int FileReadBin(FILE* stream, void* buffer, size_t size);
// 0 or -1 with errno.
int FileWriteText(FILE* stream, std::string_view text);  // adds LF
int WriteFputS(FILE* stream, const char* text);
int WriteFwrite(FILE* stream, const void* data, size_t length);

FILE* FcbOpenFile(const char* path, const char* mode, qx7_error* error);  // under the effective-user lock
int FcbWriteText(FILE* stream, const char* text, int length, qx7_error* error);
int FcbPutsText(FILE* stream, std::string_view text, qx7_error* error);
int FcbReadText(FILE* stream, char* buffer, int size, qx7_error* error);
int FcbCloseFile(FILE* stream, qx7_error* error);

// ---- Descriptors

// Exactly n bytes unless the file ends; bytes read, or -1 with errno. EINTR is retried.
ssize_t readn(int fd, void* buffer, size_t n);
ssize_t FD_Read_N(int fd, void* buffer, size_t n);
// All bytes; 0 or -1 with errno. EINTR and short writes are retried.
int WriteFdWrite(int fd, const void* data, size_t length);
// A whole regular file of at most `limit` bytes; false with errno (EFBIG when larger).
bool read_whole_file(int fd, size_t limit, std::string* out);

int64_t GetFilePos(FILE* stream);
int SetFilePos(FILE* stream, int64_t position);
int FileSeekSet(FILE* stream, int64_t position);
int FileSeekEnd(FILE* stream);
int FileSeekReset(FILE* stream);
int64_t TellFilePos(int fd);
int64_t fd_SeekSet(int fd, int64_t position);
int64_t fd_SeekEnd(int fd);
int64_t fd_SeekReset(int fd);
