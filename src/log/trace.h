// Trace: time-stamped text lines and hex dumps, by area, into a file or into a ring in memory.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "base/context.h"
#include "base/trace_area.h"

// Bits of _pzutrace::flag.
enum trace_flag : int { TRACE_ACTIVE = 1, TRACE_RING = 2, TRACE_TRIGGER_HIT = 4 };

// Entry types of the ring.
enum trace_entry_type : short { TRACE_ENTRY_TEXT = 1, TRACE_ENTRY_DUMP = 2 };

// One entry of the ring; behind it the dump bytes and the NUL-terminated text.
struct _ring_trace {
    char eyec[8];  // "%RTRACE%"
    char id[16];   // running number, "%.8X"
    char time[32];
    _ring_trace* nxt;
    const void* addr;
    unsigned char* dump;
    char* text;
    uint32_t size;  // whole entry, a multiple of 32
    short type;     // trace_entry_type
    short filler1;
    uint32_t dump_len;
    uint32_t main_thread;
    uint64_t thread;
};
inline constexpr size_t ring_entry_head = 112;
static_assert(sizeof(_ring_trace) == ring_entry_head);

struct __ring_trace_block {
    char eyec[4];         // "%RTB"
    uint32_t rt_maxsize;  // bytes of the buffer
    uint32_t rt_size;     // bytes used
    uint32_t rt_num;      // entries
    unsigned char* buffer;
};

inline constexpr int ring_block_count = 8;

// The trace handle. Everything is guarded by the trace lock, `flag` may be read without it.
struct _pzutrace {
    char id[4] = {'%', 'T', 'R', 'C'};
    char filename[qx_path_size] = {};
    FILE* fcb = nullptr;
    int PutErrNum = 0;
    int ErrNum = 0;
    char sZeit[32] = {};
    int iFileCount = 0;
    char trc_file[qx_path_size] = {};
    uint64_t uFileLimit = 0;
    uint64_t uCurrentLength = 0;
    pthread_t mainThreadID = {};
    pthread_t trace_pthreadID = {};
    char record[2048] = {};
    std::atomic<int> flag = 0;  // trace_flag
    uint64_t rt_maxsize = 0;
    uint64_t rt_size = 0;
    uint32_t rt_num = 0;
    uint32_t rt_lid = 0;
    char rt_lid_char[32] = {};
    _ring_trace* rtf = nullptr;
    _ring_trace* rtl = nullptr;
    int rtb_current = 0;
    __ring_trace_block rtbs[ring_block_count] = {};
    char trigger_type = 0;
    char* trigger_text = nullptr;  // malloc'ed
    time_t createFailed = 0;       // when the file could not be created; tried again after a minute
};
using PZUTRACE = _pzutrace*;

// Front. Any thread. Nothing happens without a context or a trace handle. Texts are cut at 2047 bytes.
void _TraceText(const char* format, ...) __attribute__((format(printf, 1, 2)));
void _TraceTrace(const char* title, const void* address, int length);
void trcdump(const char* title, const void* address, int length);
// Dumps at most `limit` bytes.
void trcdump_limited(const char* title, const void* address, int length, int limit);
// Same line form as _TraceText; the name that the IO service client uses.
void iostrc(const char* format, ...) __attribute__((format(printf, 1, 2)));

// All positions to '0', then what section TRACE of the INI file says. Main thread.
void InitTrcFlgs(EX_PCX* pcx);
// Trace calls of the whole process go to `trace`; the former handle is returned. For a caller that holds the
// trace lock while it writes somewhere else.
PZUTRACE trc_swap_handle(EX_PCX* pcx, PZUTRACE trace);
// Sets all positions from at most 16 characters; what is no digit counts as '0'.
void trc_set_flags(EX_PCX* pcx, std::string_view flags);
// Passes the trace settings of the context to its handle: file, count, limit, ring, trigger; starts tracing.
// A child's file is created with its first line. 0, or -1.
int OpenTraceFile(EX_PCX* pcx);
// The name of this process's trace: `text` goes behind the last "#" of the pattern, or to its end.
void trace_name_for_child(const char* pattern, const char* text, char* out, size_t size);

// A handle, or null with errno. A name is optional: without one the file gets a name with the time stamp.
PZUTRACE ZUTRACE_Open(const char* name);
// A handle that traces into an open file at once, without limit, trigger or ring. It takes the descriptor
// over, also when it fails. Null with errno.
PZUTRACE ZUTRACE_OpenDescriptor(int fd);
// Closes the file, frees the ring and the handle. 0, or 1 for a bad handle.
int ZUTRACE_Close(PZUTRACE handle);
// length -1 or 65535 means a string; trailing blanks are dropped. 0, or 1 for a bad handle.
int ZUTRACE_Text(PZUTRACE handle, const char* text, int length);
int ZUTRACE_Trace(PZUTRACE handle, const char* title, const void* address, int length);
// Sets PCX_TODO_TRACE_FILE when the file has reached its limit.
void ZUTRACE_check_trace_limit(PZUTRACE handle);
// Matches the text against the trigger; the first match consumes it and sets TRACE_TRIGGER_HIT. 1 on a match.
int ZUTRACE_check_trigger(PZUTRACE handle, const char* text);
// A copy of `text` becomes the trigger; null or empty removes it.
int ZUTRACE_set_trigger(PZUTRACE handle, char type, const char* text);
// Closes the file and continues in a new one: `name`, or the pattern's next, as when `name` fails. 0, or 1.
int ChangeTraceFile(PZUTRACE handle, const char* name);
// The next name of the handle's pattern, or `fallback` with "%s" replaced by the time stamp. 0, or 1.
int zutrace_generate_filename(PZUTRACE handle, const char* fallback);
int zutrace_create_tracefile(PZUTRACE handle);
int zutrace_close_file(PZUTRACE handle);
int zutrace_start_tracing(PZUTRACE handle);
int zutrace_stop_tracing(PZUTRACE handle);
// All areas off, the ring is written to a file, tracing stops.
int zutrace_trigger_hit(PZUTRACE handle);
// For a forked child: forgets the parent's file without writing to it and starts no new one before the first
// line.
void zutrace_forget_file(PZUTRACE handle);

// Ring mode with `size` megabytes (1 to 1024); 0 ends ring mode. 0, or -1 when there is no memory.
int trc_set_rt_size(PZUTRACE handle, int size);
int trc_rt_add(PZUTRACE handle, trace_entry_type type, const char* text, size_t text_length,
               const void* address, size_t dump_length);
// Writes the ring to the handle's file; flush also empties it. Number of entries written, -1 on failure.
int trc_rt_writeout_all(PZUTRACE handle);
int trc_rt_flush(PZUTRACE handle);

// The trace lock: recursive, rank FORK_LOCK_TRACE. Nobody takes the log lock while holding it.
void init_traceLock();
void set_traceLock();
void reset_traceLock();
void destroy_traceLock();
