// A transfer as this process holds it: the order, its files, its report, and what is open for it.
//
// The values that the status store keeps stand in FTX_AREA and __ftx_elem (transfer/status_store.h); what
// belongs to this process alone stands beside them in the two structures below. Main thread.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/error.h"
#include "base/memory.h"
#include "channels/ccm.h"
#include "security/md5.h"
#include "transfer/compress/compress.h"
#include "transfer/kvstore.h"
#include "transfer/status_store.h"

struct EX_PCX;

// Bits of ftx_flag.
enum ftx_flag_bit : int {
    FTX_WILDCARD = 0x1,
    FTX_SUBDIR = 0x2,
    FTX_SENDER = 0x8,
    FTX_DIRECT = 0x40,        // ordered by the server from the sender, who connects
    FTX_CONNECT_BACK = 0x80,  // ordered by the server from the receiver, who connects
    FTX_RECEIVER = 0x100,
    FTX_SYNC_SEEN = 0x200,  // confirm at once
    FTX_REPORT_ASKED = 0x800,
    FTX_DELETED = 0x2000,  // skipped by lookups, freed by the next status check
    FTX_ABORT_ON_ERROR = 0x4000,
    FTX_CAN_CONTINUE = 0x8000,  // both agents
    FTX_REBUILT = 0x20000,      // for a question after a lost process
    FTX_END_LOGGED = 0x40000,
    FTX_SUBDIRSTRUCT = 0x80000,  // empty folders are transferred
    FTX_IDLE = 0x100000,         // nothing was sent for ftx_con_timeout seconds
    FTX_END_REPORTED = 0x200000,
    FTX_FROM_RECEIVER = 0x400000,     // the order came over the agent channel
    FTX_ANSWERS_FOR_LOST = 0x800000,  // this worker was started only to answer for a lost one
};

// Bits of ftx_send_flag.
enum ftx_send_bit : int {
    FTX_SEND_EXHAUSTED = 0x1,
    FTX_SEND_NO_END = 0x2,
    FTX_SEND_RESEND_WANTED = 0x4,
    FTX_SEND_RESENDING = 0x8,
    FTX_SEND_ANSWERED = 0x10,  // FTXSENDQ is out
};

// Values of ftx_progress.
enum ftx_progress_step : int {
    FTX_STARTING = 0,
    FTX_STARTED = 1,
    FTX_BETWEEN_FILES = 10,
    FTX_IN_FILE = 12,
    FTX_SYNC_DUE = 13,
    FTX_CANCELLED = 14,
    FTX_SYNC_ISSUED = 15,
    FTX_FINISHED = 99,
};

// Values of ftx_status_flag.
enum ftx_status : char {
    FTX_STATUS_RUNNING = 'R',
    FTX_STATUS_FINISHED = 'F',
    FTX_STATUS_ERROR = 'E',
    FTX_STATUS_CANCELLED = 'C'
};

// Letters of ftxe_status and of a record of FTXQUIT.
enum ftxe_status_letter : char {
    FTXE_WAITING = 'W',
    FTXE_ACTIVE = 'A',
    FTXE_AGAIN = 'R',
    FTXE_SENT = 'S',
    FTXE_COMPLETE = 'C',
    FTXE_ERROR = 'E',
    FTXE_LEFT_OUT = 'X',
};

// Bits of ftxe_flag.
enum ftxe_flag_bit : int {
    FTXE_REPORTED = 0x1,
    FTXE_CHANGED = 0x4,
    FTXE_MD5 = 0x8,
    FTXE_FILE = 0x10,
    FTXE_LINK = 0x20,
    FTXE_DIRECTORY = 0x40,
    FTXE_KINDS = 0x70,
    FTXE_SAVE_SOURCE = 0x80,
    FTXE_SAVE_DESTINATION = 0x100,
    FTXE_SAVE_RESTART = 0x200,
    FTXE_MUST_SAVE = 0x384,
};

// Types of control items in the compressed stream, and the bit that ends a text record.
enum ftx_control : int {
    CTRL_DATA = 0,
    CTRL_FILE_OPEN = 1,
    CTRL_FILE_CLOSE = 2,
    CTRL_SYNC = 3,
    CTRL_NO_OPERATION = 4,
    CTRL_RESTART_INFO = 5,
    CTRL_MAKE_DIR = 6,
    CTRL_RECORD_END = 0x100,
};

// Letters of an order.
inline constexpr char ftx_yes = 'Y';
inline constexpr char ftx_append = 'A';
inline constexpr char ftx_text = 'T';
inline constexpr char ftx_resume = '1';
inline constexpr char ftx_anew = '2';

inline constexpr size_t ftx_name_max = 2047;  // bytes of a path
inline constexpr size_t ftx_order_max = 65536;
inline constexpr size_t ftx_buffer_size = 131088;
inline constexpr size_t ftx_flush_size = 65536;
inline constexpr int64_t ftx_digest_from = 1048576;  // a file above that many bytes has a digest
inline constexpr size_t ftx_data_max = 32256;        // of a FTXDATA in all
inline constexpr size_t ftx_restart_item_max = 128;

// Position and digest of a prefix, as it travels: 24 bytes, the number in the writer's byte order.
struct __ftx_restart_info {
    int64_t rst_filepos;
    unsigned char digest[md5_size];  // zero without a digest
};
static_assert(sizeof(__ftx_restart_info) == 24);

// One file. `ftxe_rss_len` and `ftxe_rsr_len` follow the two records below and are set when it is stored.
struct ftx_elem : __ftx_elem {
    std::string source_name;
    std::string destination_name;
    std::string insert;           // of ftxe_msgnr, at most 1023 bytes
    std::string sender_record;    // last restart record of the sender (ftxe_rss), at most 128 bytes, or empty
    std::string receiver_record;  // of the receiver (ftxe_rsr)
    // Sender: the source as it was when it was opened, which an erase must still find; st_ino 0 before.
    dev_t source_device = 0;
    ino_t source_inode = 0;
    timespec source_mtime = {};
    int64_t closed_item = 0;  // sender: which of ftx_entry::items is its file_close, 0 before it was read
    int resends = 0;          // how often the receiver asked for it anew

    ftx_elem() : __ftx_elem{} {}
};

struct ftx_log_line {
    int log_nr;
    char timestamp[16];
    int msl_id;
    std::string insert;
};

// Receiver: a file that is whole and waits, with others, to be brought to the disk before it is told as complete.
struct ftx_unsynced {
    int oid;
    qx_descriptor file;
    qx_descriptor folder;  // a place
    std::string working_name;
    std::string final_name;  // which it gets then
    bool may_replace;
};

struct compress_closer {
    void operator()(CompressFile* file) const { csClose(file); }
};
struct decompress_closer {
    void operator()(DecompressFile* file) const {
        ErrMsg ignored;
        dcsClose(file, &ignored);
    }
};

struct ftx_entry : FTX_AREA {
    EX_PCX* pcx = nullptr;
    std::string source_file;                         // src_file, at most ftx_name_max bytes, as are all names
    std::string destination_file;                    // dst_file
    std::string user_name;                           // ftx_UserName: what the agent acts as
    std::string login_name;                          // ftx_LoginName: as ordered, empty without a login
    std::string home_dir;                            // ftx_UserHomeDir
    std::string rest_text;                           // the own part of the order's rest field
    std::vector<unsigned char> order;                // the order message as it came (ftx_FtxSend)
    std::vector<unsigned char> token;                // of the order (gss_token)
    std::array<unsigned char, 256> code_table = {};  // ftx_cCodeTab, of text orders
    ccm_addr_t order_address = {};                   // ftxsend_addr

    // By OID, ascending. The receiver's list loses what was reported.
    std::map<int32_t, ftx_elem> elements;
    ftx_elem* current = nullptr;      // ftx_cElem
    std::deque<ftx_log_line> report;  // ftxlogq: what the server has not confirmed yet

    std::string store_name;  // ftx_ss_filename
    std::unique_ptr<kvstore> store;
    bool store_failing = false;  // the last line of the report did not get there

    // One of the two, on the side that it belongs to.
    std::unique_ptr<CompressFile, compress_closer> compressor;
    std::unique_ptr<DecompressFile, decompress_closer> decompressor;
    ErrMsg message = {};  // cmpMsg
    // Sender: items that its callbacks handed to the compressor, all streams together, and those of streams that
    // have ended. Behind those, ftx_Used[1] of them have gone out.
    int64_t items = 0;
    int64_t items_of_ended = 0;
    // Sender: blocks in each group that the receiver will quit as one, the oldest first, and in the one that fills.
    std::deque<int> open_groups;
    int filling_group = 0;

    // The open file of the current element.
    qx_descriptor file;
    std::string folder_path;
    qx_descriptor folder;      // that holds it, kept for the next file
    std::string working_name;  // receiver: what is written there, the final name or a temporary one
    std::string final_name;
    bool may_replace = false;            // receiver: what has the final name when the file is complete
    std::vector<ftx_unsynced> unsynced;  // receiver, with an erase of the source only
    int64_t restart_position = -1;       // sender: of the last restart item
    bool prefix_unproven = false;        // sender: the file goes on if its prefix is what `prefix` tells
    int prefix_padding = 0;              // items that go out before it is read
    __ftx_restart_info prefix = {};
    std::unique_ptr<unsigned char[]> buffer;  // ftx_fiob
    md5_context md5 = {};

    bool interrupted = false;  // worker: what ends the transfer waits (transfer/ftx/interrupt.h)
    int64_t next_look_ms = 0;  // and when that is looked for again, on the alarm clock

    int connecting_ID = 0;      // agent: channel that this order opened, 0 without one
    int64_t waits_since = 0;    // agent: when FTXRECV went out, on the alarm clock
    bool end_sent = false;      // sender: FTXEND is out
    bool end_seen = false;      // receiver: FTXEND has come
    bool end_answered = false;  // receiver: FTXENDQ is out

    ftx_entry() : FTX_AREA{} {}
    ftx_entry(const ftx_entry&) = delete;
    ftx_entry& operator=(const ftx_entry&) = delete;

    bool has(int bits) const { return (ftx_flag & bits) != 0; }
    bool is_sender() const { return has(FTX_SENDER); }
    // Sender: whether this file's file_close has gone out.
    bool close_is_out(const ftx_elem& elem) const {
        return elem.closed_item != 0 && elem.closed_item <= items_of_ended + ftx_Used[1];
    }
};

// ---- The list of this process

// A new entry that is not in the list yet.
std::unique_ptr<ftx_entry> AllocFtxEntry(EX_PCX* pcx);
ftx_entry* AddFtxEntry(std::unique_ptr<ftx_entry> entry);
// Without deleted ones. Null when there is none.
ftx_entry* getFtxByIdnr(int ah_idnr);
ftx_entry* getFtxByPartnerID(int channel);
// All, deleted ones too.
std::list<std::unique_ptr<ftx_entry>>& ftx_entries();
// Takes it out of the list; the caller owns it.
std::unique_ptr<ftx_entry> ftx_unchain_entry(ftx_entry* entry);
// Out of the list, files and store closed, freed.
void FreeFtxEntry(ftx_entry* entry);
// A mark: the next status check frees it.
void ftx_deleteFtx(ftx_entry* entry);

// ---- Elements

// A new element with the OID, status 'W' and coding '0', counted in ftx_nof_active; an existing one is
// returned as it is. OIDs are 0 or more.
ftx_elem* ftxe_addnew(ftx_entry* ftx, int oid);
ftx_elem* ftxe_getbyOID(ftx_entry* ftx, int oid);
// The element behind ftx->current, or the first; null at the end. Sets ftx->current.
ftx_elem* getFtxElemNext(ftx_entry* ftx);
// Also as the current one, which is null then.
void ftxe_remove(ftx_entry* ftx, ftx_elem* elem);
void ftxe_remove_all(ftx_entry* ftx);
// Moves the counters and marks the element as changed. A letter that is none changes nothing: -1, and a line
// in the log.
int update_FtxStatus(ftx_entry* ftx, ftx_elem* elem, char status);
// The element's message.
void ftxe_set_message(ftx_elem* elem, int number, int error_number, std::string_view insert);
void ftxe_take_error(ftx_elem* elem, const qx7_error& error);

// ---- Words for trace and console

const char* ftx_statusflag2str(char status);
const char* ftx_progress2str(int progress);
const char* ftx_textcodin2str(char coding);
const char* ctrldata2str(int control);

// ---- The end state of a transfer

// Sets ftx_msgNr and ftx_Insert, cut at 255 bytes.
void ftx_set_message(ftx_entry* ftx, int number, std::string_view insert);
