// Streaming compressor and decompressor of transfers.
//
// Sending pulls: csRead gives the next compressed bytes and reads the source through a callback. Receiving
// pushes: dcsWrite takes compressed bytes in pieces of any size and hands what they hold to a callback.
// The same source gives the same bytes, whatever the pieces are in which it is delivered or asked for.
//
// A handle belongs to one thread at a time; different handles are independent.
#pragma once

// Outcome of a call. Every call sets `code` to 0 first; a caller tests `code`.
// text  inserts of the message `code`, each ended by "|"
struct ErrMsg {
    char text[256];
    int code;
};
static_assert(sizeof(ErrMsg) == 260);

enum CompressId : int {
    compress_none = 0,
    compress_huffman = 1,
    compress_rle = 3,
    compress_lzss = 5,
    compress_lzp = 9,
    compress_lzx = 11,
    compress_zlib = 127,
    // Values for an open call only; none of them stands in a stream.
    compress_default = 256,
    compress_strong = 257,
    compress_preset = 300,
    compress_last_preset = 307,
};

enum CompressFlag : int {
    compress_record = 0x1,      // the source is records (text)
    compress_size = 0x2,        // the header holds the source's size
    compress_boundaries = 0x4,  // method 0 in record mode: csRead stops at the end of each read
    compress_framed = 0x8,      // items with a control value
};

inline constexpr int compress_item_max = 65536;    // payload of a framed item
inline constexpr int compress_record_max = 65535;  // bytes of a record

// Parameters of the methods. 0 stands for the default; getParameters tells the limits.
struct CompressParameter {
    unsigned hufBlock = 0;          // symbols of a block, in 1024
    unsigned lzssWindow = 0;        // id 5: log2 of the window, less 6
    unsigned lzssLevel = 0;         // id 5: log2 of the candidates that a search tries
    unsigned var = 0;               // id 3: longest period; id 5: strategy
    unsigned lzpHash = 0;           // id 9, 11: orders of the contexts
    unsigned lzpHashTableSize = 0;  // id 9, 11: log2 of the contexts, less 9
    unsigned lzpBufferSize = 0;     // id 9, 11: log2 of the pool, less 12
    unsigned zlibLevel = 0;         // id 127
    unsigned strongBuf = 0;         // strong mode: bytes of the trial, in megabytes
    unsigned lzmixBits = 0;         // id 11: log2 of the lengths that have a code of their own
    unsigned lzmixLevel = 0;        // id 11: positions remembered for a context
};

struct CompressFile;
struct DecompressFile;

// Callbacks of a source. Each puts at most `size` bytes into `buf` and returns how many; `mode` is
// compress_record in record mode, else 0. In plain mode 0 or less ends the source; in record mode each call
// gives one record, 0 bytes is an empty one, and less than 0 ends the source. -2 is asked again once.
// rest  bytes of the source that the record took beyond the returned ones (a line end that was stripped)
// ctrl  control value of the item. In framed mode 0 bytes without it end a source that is not in record mode.
// A code in `err` ends the compression with it.
using MyRead = int (*)(void* hIn, char* buf, int size, int mode, ErrMsg* err);
using My2Read = int (*)(void* hIn, char* buf, int size, int mode, int* rest, ErrMsg* err);
using My3Read = int (*)(void* hIn, char* buf, int size, int mode, int* rest, int* ctrl, ErrMsg* err);
// Size of the source in bytes of payload; below 0 when it is unknown. Called once.
using MySize = int (*)(void* hIn, long* size, ErrMsg* err);
using MyReset = int (*)(void* hIn, ErrMsg* err);
// Callbacks of a destination: plain bytes, whole records, or whole items. The bytes are valid during the
// call. A code in `err` ends the decompression with it; the result is not looked at.
using MyWrite = int (*)(void* hOut, const char* buf, int len, int mode, ErrMsg* err);
using My3Write = int (*)(void* hOut, const char* buf, int len, int mode, int ctrl, ErrMsg* err);
using CompressTrace = int (*)(void* something, ...);

// Opens a source for compression. The caller owns the handle and frees it with csClose. Null on failure.
// id      a method, or one of the open-call values
// mySize  may be null: the size is unknown then; myReset is kept for callers and never called
// params  may be null: all defaults
// used    null, or two longs that csRead keeps up to date: bytes of payload, and records or items, that are
//         wholly covered by what csRead returned so far. Bytes count singly in plain mode, else by whole
//         records.
CompressFile* csOpen(void* hIn, int id, int flags, MyRead myRead, MySize mySize, MyReset myReset,
                     const CompressParameter* params, long* used, ErrMsg* err);
CompressFile* cs2Open(void* hIn, int id, int flags, My2Read my2Read, MySize mySize, MyReset myReset,
                      const CompressParameter* params, long* used, ErrMsg* err);
// Framed: adds compress_framed to the flags.
CompressFile* cs3Open(void* hIn, int id, int flags, My3Read my3Read, MySize mySize, MyReset myReset,
                      const CompressParameter* params, long* used, ErrMsg* err);
// As cs3Open; the four values of the trace are taken and not used.
CompressFile* cs4Open(void* hIn, int id, int flags, My3Read my3Read, MySize mySize, MyReset myReset,
                      const CompressParameter* params, long* used, ErrMsg* err, void* something,
                      const int* level, CompressTrace callTrace, CompressTrace callTextTrace);

// Puts the next compressed bytes into `buf`, at most `len`. Returns how many, 0 at the end of the stream,
// -1 with a code in `err`. After a failure every further call fails the same way.
int csRead(CompressFile* cf, char* buf, int len, ErrMsg* err);

// Lets csRead ask the source again after an end, and continue the same stream. A stream of ids 1 to 11 whose
// last byte left no way to continue, and an ended zlib stream, fail with number_compress_bad_call when more
// comes.
void csResetEOF(CompressFile* cf);

// Frees the handle; null is allowed.
void csClose(CompressFile* cf);

// Id that the stream of this handle carries: in strong mode the winner.
int csMethod(const CompressFile* cf);

// Opens a destination. flags: compress_record must equal the stream's; compress_framed must be set when the
// stream has it (dcs3Open sets it). Null on failure. The caller frees the handle with dcsClose.
DecompressFile* dcsOpen(void* hOut, int flags, MyWrite myWrite, ErrMsg* err);
DecompressFile* dcs3Open(void* hOut, int flags, My3Write my3Write, ErrMsg* err);
DecompressFile* dcs4Open(void* hOut, int flags, My3Write my3Write, ErrMsg* err, void* something,
                         const int* level, CompressTrace callTrace, CompressTrace callTextTrace);

// Takes the next `len` bytes of the stream; all that they complete is handed over in this call, also what
// stands before an error. Returns 0, or -1 with a code in `err`; further calls then fail the same way.
int dcsWrite(DecompressFile* df, const char* buf, int len, ErrMsg* err);

// Ends the stream and frees the handle. Returns 0, or -1 with a code in `err`: an item or record that is not
// complete, a zlib stream that has not ended, or the failure of an earlier call. Null is allowed.
int dcsClose(DecompressFile* df, ErrMsg* err);

// Whether nothing more can belong to the stream: false for a zlib stream before its own end. Streams of the other
// methods end where their reader says so; they are always ready for it.
bool dcsEnded(const DecompressFile* df);

// Facts of the header, as far as it has come: -1 for what is not known yet or not in the stream.
struct CompressHeader {
    int flags;
    int id;
    long size;
    bool whole;                    // the body comes next
    CompressParameter parameters;  // those that travel; the others are 0
};
CompressHeader dcsHeader(const DecompressFile* df);

// 1 if `id` is a method that stands in streams.
int validCompressed(int id);

// Fills `out` with the parameters that a stream of `id` is made with: `in`, where 0 or a null `in` means the
// default, within the limits of the method and the floor that record mode sets.
void getParameters(CompressParameter* out, const CompressParameter* in, int id, int flags);

// Shrinks lzpBufferSize to what a source of `size` bytes can use.
void limitLzpBuffer(CompressParameter* parameters, long size);

// Candidate `i` of strong mode, 0 to 7, and 8 to 10 beyond it. Returns its id, -1 when there is none.
int strongParameters(int i, CompressParameter* parameters);

// Kept for callers; they do nothing and return 0.
int csTrace(CompressFile* cf, int level);
int cs2Trace(CompressFile* cf, void* something);
int dcsTrace(DecompressFile* df, int level);
int dcs2Trace(DecompressFile* df, void* something);
