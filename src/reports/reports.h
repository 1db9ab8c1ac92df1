// Report transfer: the server pulls a text file block by block. REP_GET opens the transfer and brings the
// first REP_DATA, each REP_QUIT asks for the next block, REP_END closes it. Main thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/file_data.h"
#include "base/time.h"
#include "channels/messages.h"
#include "messages/records_report.h"

struct EX_PCX;
struct qx7_error;

inline constexpr int report_block_min = 128;
inline constexpr int report_block_max = 32768;
inline constexpr time_t report_idle_limit = 24 * 3600;  // seconds; an idle transfer is closed
inline constexpr int report_data_offset = 72;           // of the text in REP_DATA

// A REP_DATA that is being made.
struct report_block {
    MSG_TYPE_REP_DATA head{};
    ccm_msg_t* msg = nullptr;  // owned; null without one
    int length = 0;            // of the text
    bool full = false;
    bool prepared = false;  // framed, perhaps sealed, with `head` as it stands
    unsigned char* body() const { return msg->buffer1 + ccm_msg_headroom; }
    unsigned char* text() const { return body() + report_data_offset; }
};

// Gives the message back; `block` is as new afterwards.
void drop_block(EX_PCX* pcx, report_block* block);

inline constexpr char report_eye_catcher[] = "%%REPID_CATCHER%";

// One open transfer. "constant" fields are set when it opens.
struct REP_Area {
    char rep_ID[16];  // report_eye_catcher

    // constant
    int iRepGet_ah_idnr = 0;  // key of the transfer
    int rep_ah_idnr = 0;      // job whose report it is
    std::string cFile;
    std::string erase_user;  // who erases: the user of the login, empty for the agent
    int i4Blksize = 0;
    char cErase = '0';
    char RepGet_bAddr[32] = {};
    char RepGet_bName[8] = {};
    uint32_t RepGet_bAcv = 0;
    std::string RepEnd_bName;  // module that gets REP_END
    int lMaxRecords = 0;       // 0: no limit
    int lMaxBlk = 0;           // 0: no limit
    bool translate = false;    // cCodeTab changes something
    unsigned char cCodeTab[256] = {};
    std::string cMatch;  // upper-cased pattern, empty: all lines

    // position
    qx_descriptor rep_fd;
    text_reader pFile;
    int64_t llByteSend = 0;
    int64_t llRecCount = 0;
    int64_t rep_llByteSend = 0;  // at the start of the current block
    int64_t rep_llRecCount = 0;
    int i4Errno = 0;
    int lRetCode = 0;  // why the transfer ends at the next REP_QUIT
    std::string cRetText;
    int lLastRec = 0;           // length of the line in hand, or the reading's end
    bool line_in_hand = false;  // pLastRec was read and not sent
    bool last_was_cut = false;  // its full length is last_full
    int64_t last_full = 0;
    bool line_too_long = false;  // the end of the line in hand was not found: the transfer ends behind it
    std::string_view pLastRec;   // in the reader's buffer, or cut_record
    std::string cut_record;
    std::string pMatchRecord;
    time_t last_use = 0;
    report_block
        ahead;  // the block behind the last that was sent, as far as it is made; rep_ll* stand at its start

    // the asker of the last REP_QUIT
    std::string RepQuit_bAddr;
    std::string RepQuit_bName;
    uint32_t RepQuit_bAcv = 0;
};

// Clears the list and reads whether agent shell commands are allowed. 0.
int REP_Open(EX_PCX* pcx);
int REP_Close(EX_PCX* pcx);
// The same in a forked child, whose messages are its parent's.
int REP_after_fork(EX_PCX* pcx);

// Runs a command of the service console and writes what it shows to a new file; 0 or -1.
using report_shell = int (*)(const char* output_file, const char* request);
// Without one (null) there are no commands.
void REP_set_shell(report_shell shell);

// Null for an unknown key and for keys below 1.
REP_Area* getReportEntry(EX_PCX* pcx, int ah_idnr);
// The list owns the entry from here on; an older one of the same key is closed.
void addReportEntry(EX_PCX* pcx, std::unique_ptr<REP_Area> area);
void deleteReportEntry(EX_PCX* pcx, int ah_idnr);
int getReportCount();
void deleteAllReportEntry(EX_PCX* pcx);
// False for a damaged entry, which is dumped to the log.
bool checkReportEntry(const REP_Area* area);
// Closes transfers that nobody has asked for a day.
void close_idle_reports(EX_PCX* pcx);

// Handlers. 1: the transfer ended; 0: it goes on; -1: no message buffer.
int process_repget(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_repquit(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_repstop(EX_PCX* pcx, ccm_msg_t* msg, int row);
// Writes or extends a user's text file.
int process_iprcwrite(EX_PCX* pcx, ccm_msg_t* msg, int row);

// ---- reading, shared by its two users and the tests

enum report_fill {
    REPORT_FILL_FULL,
    REPORT_FILL_END,
    REPORT_FILL_ERROR,
    REPORT_FILL_LIMIT,
    REPORT_FILL_PAUSE
};
enum report_stage { REPORT_FIRST, REPORT_LATER, REPORT_AHEAD };

// Reads the next line into pLastRec, cut to what `size` allows (a line of more than size - 2 bytes is cut to
// size - 1 and its rest passed over). lLastRec is its length, read_failed or read_end_of_file.
void report_read_line(REP_Area* area, size_t size);
// Fills `block` (i4Blksize bytes) with converted lines, each followed by CR LF, and counts them. `size` is
// for report_read_line. Goes on behind the `*length` bytes that stand there. Ahead of the server's order only
// whole lines are taken that were read already, and it pauses where they end or a limit is reached: what the
// file has then is told when the order comes.
report_fill report_fill_block(REP_Area* area, unsigned char* block, int* length, size_t size,
                              report_stage stage);
// The block that ends a report under a block limit: the mark, then the last lines of the file. 0 and the
// length, or -1 with `error`.
int create_lastRecBuf(REP_Area* area, unsigned char* block, int* length, qx7_error* error);
