// The log file, the memory copy of its lines, and the log calls of all modules.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "base/context.h"
#include "log/message_library.h"

// ---- Log file

inline constexpr int log_line_size = 2048;
inline constexpr int log_memory_lines = 100000;  // lines that wait for the server at most

// States of a line in memory.
enum log_line_status : unsigned char { LOG_LINE_TO_SEND = 1, LOG_LINE_BEING_SENT = 2 };

struct ZULOGG_MSG_BUFFER {
    ZULOGG_MSG_BUFFER* nxt;
    unsigned char MsgStatus;  // log_line_status
    uint32_t length;
    char text[1];  // length bytes and a NUL
};

struct _pzulogg {
    char id[4] = {'%', 'L', 'O', 'G'};
    char filename[qx_path_size] = {};
    char sZeit[32] = {};
    FILE* fcb = nullptr;
    PZUHELP hlpHandle = nullptr;
    _pzutrace* trcHandle = nullptr;
    ZULOGG_MSG_BUFFER* pFirstMsg = nullptr;
    ZULOGG_MSG_BUFFER* pLastMsg = nullptr;
    int msgCount = 0;      // lines in memory
    uint64_t dropped = 0;  // lines lost since the last note about it
    int PutErrNum = 0;
    int ErrNum = 0;
    char msgFlg = 0;
    char printFlg = 0;
    pthread_t mainThreadID = {};
    char logThreadFlag = 0;
    char f1 = 0;
    char buffer[log_line_size] = {};
    time_t logStartedTime = 0;
    uint64_t logFileSize = 0;
    time_t retryTime = 0;  // when a log that could not be opened is tried again
};
using PZULOGG = _pzulogg*;

// The agent's handle with library and trace of the context, without a file. 0, or -1 with errno.
int CreateLogHandle(EX_PCX* pcx);
void DeleteLogHandle(EX_PCX* pcx);
// Rotates the generations and starts a new file with pcx->logFile and pcx->logCount. Never in a child. 0, or
// -1.
int OpenLogFile(EX_PCX* pcx);
int CloseLogFile(EX_PCX* pcx);
// For a forked child: forgets file, memory lines and library without writing; afterwards the logger is
// log_dummy.
void log_forget_in_child(EX_PCX* pcx);
// The same for a child that keeps the library.
void log_leave_in_child(EX_PCX* pcx);
// The same for a child that soon becomes another program: touches none of it, because each page that it frees
// would be copied first. The log's descriptor goes with exec.
void log_drop_in_child(EX_PCX* pcx);

// Opens `filename` into a new handle; an empty name opens no file. Null with errno on failure.
PZULOGG ZULOGG_Open(const char* filename, _pzutrace* trcHandle, PZUHELP hlpHandle, int cache);
int ZULOGG_Close(PZULOGG handle);
// Continues in a new file, or in none; lines in memory stay. 0, or -1 with errno.
int log_reopen(PZULOGG handle, const char* filename);
int log_close_file(PZULOGG handle);
int ZULOGG_Msg(PZULOGG handle, int number, int insLen, const char* insTxt);
int ZULOGG_Text(PZULOGG handle, const char* text, int length);
int ZULOGG_Dump(PZULOGG handle, const char* title, const void* address, int length);
int ZULOGG_Trace(PZULOGG handle, _pzutrace* trcHandle);
// Rotates generations; "##" in `filename` (size bytes) becomes the number 0. Without "##" nothing happens.
int ZULOGG_Reorg(char* filename, size_t size, int count);

// Memory copy of the lines.
int ZULOGG_UseMsg(PZULOGG handle, bool on);
int ZULOGG_UsePrintMsg(PZULOGG handle, bool on);
// Takes the oldest line that is to be sent and marks it as being sent; null when there is none. The line
// stays in the list; the pointer lives until ZULOGG_DelMsg, and only as long as the log lock is held.
ZULOGG_MSG_BUFFER* ZULOGG_GetMsg(PZULOGG handle);
// Puts lines that are being sent back: with a line only that one, with null all.
int ZULOGG_PutMsg(PZULOGG handle, ZULOGG_MSG_BUFFER* line);
// Removes the lines that are being sent; number removed.
int ZULOGG_DelMsg(PZULOGG handle);
// Appends a text to the memory copy only.
int ZULOGG_SetMsg(PZULOGG handle, const char* text, int length);
// Frees all lines.
int ZULOGG_FreeMsg(PZULOGG handle);
int ZULOGG_NrMsg(PZULOGG handle);

uint64_t ZULOGG_GetLogFileSize(PZULOGG handle);
int ZULOGG_SetLogFileSize(PZULOGG handle, unsigned megabytes);
time_t ZULOGG_GetLogFileStartTime(PZULOGG handle);
int ZULOGG_SetLogFileStartTime(PZULOGG handle, time_t start);
int ZULOGG_SetLogThreadFlag(PZULOGG handle, bool on);

// The log lock: recursive, rank FORK_LOCK_LOG.
void init_logLock();
void __set_logLock();
void __reset_logLock();
void destroy_logLock();

struct log_guard {
    log_guard() { __set_logLock(); }
    ~log_guard() { __reset_logLock(); }
    log_guard(const log_guard&) = delete;
    log_guard& operator=(const log_guard&) = delete;
};

// ---- Front: any thread

// A negative number writes the inserts as a text line. Without a log handle the agent prints to standard
// output and a child prints nothing.
void LogMessage(int number, const char* inserts);
// length below 0 means a string.
void LogText(const char* text, int length);
void LogDump(const char* title, const void* address, int length);

using log_function = void (*)(int number, const char* inserts);
// Sets the function that __log calls; null gives the agent's logger back. Returns the former one.
log_function __log_set_logger(log_function logger);
// Writes nothing; the logger of a child until it has one.
void log_dummy(int number, const char* inserts);

// Formats the inserts ("|" behind each) into 1024 bytes and gives them to the logger.
// A negative number is a line of text.
void __log(int number, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Logs what an operation left in its error record; nothing when that has no number.
void __log_error(const qx7_error& error);
// As __log, but always this process's LogMessage; an empty format is a message without inserts.
void __PutLogMessage(int number, const char* format, ...);
// A line of text; in a child it goes through the logger.
void __PutLogText(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The log's tail across a log change.
int LOG_CreateMsgStack(EX_PCX* pcx);
int LOG_LogMsgStack(EX_PCX* pcx);
int LOG_TraceMsgStack(EX_PCX* pcx);
int LOG_FreeMsgStack(EX_PCX* pcx);
