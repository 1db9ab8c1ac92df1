// A transfer of the older protocol as this agent holds it, and what the module keeps beside. Main thread.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/file_data.h"
#include "channels/ccm.h"
#include "messages/head.h"
#include "transfer/compress/compress.h"
#include "transfer/legacy/restart_data.h"

struct EX_PCX;

inline constexpr char ft_module[] = "QXFTEX";
inline constexpr time_t ft_idle_limit = 1800;      // seconds without a word of the receiver
inline constexpr time_t ft_connection_idle = 300;  // seconds that a connection stays without a transfer
inline constexpr size_t ft_areas_max = 1000;       // of all partners together
inline constexpr size_t ft_line_max = 31744;       // bytes of a text record

// What the last message to the partner awaits.
enum ft_send_item : char {
    FT_AWAITS_NOTHING = 'Q',
    FT_AWAITS_RECV = 'R',
    FT_AWAITS_DATA = 'D',
    FT_AWAITS_END = 'E',
    FT_TIMED_OUT = 'T',
};

enum ft_status : char {
    FT_NORMAL = 'N',
    FT_ENDED = 'E',
    FT_CANCELLED = 'C',
    FT_MAX_RECORDS = 'M',
    FT_LINE_TOO_LONG = 'L',
    FT_DATA_ERROR = 'D',
    FT_RECEIVE_FAILED = 'F',
    FT_END_FAILED = 'V',
    FT_ERASE_FAILED = 'R',
};

// Letters of an order.
enum ft_order_letter : char {
    FT_TEXT = 'T',
    FT_BINARY = 'B',
    FT_KEEP = '0',     // ov: an existing file stays
    FT_REPLACE = '1',  // ov
    FT_APPEND = '2',   // ov
    FT_ERASE = '1',
    FT_PLAIN = '0',   // compress
    FT_PACKED = '1',  // compress
    FT_STRONG = '2',  // compress
    FT_NO_RESUME = '0',
    FT_CAN_RESUME = '1',
    FT_DO_RESUME = '2',
    FT_NO_DELIMITER = '0',  // cRecDelim: the last line of the source has no end
    FT_WITH_DELIMITER = '1',
};

enum ft_separate : char {
    FT_LINE_LF = 'L',
    FT_LINE_CRLF = 'C',
    FT_LINE_NONE = 'N',
    FT_LINE_STRIP_CR = 'M',  // sender: a CR at a line's end is no part of it
};

enum ft_owner : char { FT_OWNER_PARENT = 'p', FT_OWNER_USER = 'u', FT_OWNER_NONE = 'n' };

// Beside those that both protocols share (transfer/ftx/module.h).
struct ft_settings {
    bool link_files = false;
    bool rename_file = true;
    bool end_delimiter = false;
    bool remove_check = true;
    bool resume = true;
    size_t message_size = 32256;  // of a FT_DATA in all
};
ft_settings& ft_config();

// The sender's file.
struct ft_source {
    qx_descriptor file;
    struct stat opened = {};  // which an erase must still find
    text_reader lines;
    int64_t position = 0;         // of what is read next, without lines
    int64_t made_up = -1;         // bytes of a stream that a performance test makes, -1: a file
    bool last_line_open = false;  // the last line read has no end
};

// The receiver's file.
struct ft_target {
    qx_descriptor folder;    // a place only
    struct stat place = {};  // of the folder
    std::string name;
    std::string working_name;  // `name`, or the temporary name
    qx_descriptor file;
    struct stat opened = {};
    std::string waiting;   // bytes to be written
    int64_t position = 0;  // behind them
    bool existed = false;
    struct stat before = {};  // the file that had the name
    bool discard = false;     // a performance test
    bool temporary() const { return working_name != name; }
};

struct FT_AREA {
    EX_PCX* pcx = nullptr;
    int transfer_id = 0;  // ah_idnr of the order
    QX_HEADM head = {};   // of the order
    int version = 1;      // of the order, which the partner and the server speak
    bool destination = false;
    ccm_addr_t order_address = {};  // whom the order came from: b_addr, b_name, b_acv
    int channel = 0;                // to the partner
    std::string peer_name;
    time_t last_use = 0;

    std::string Userid;  // whose rights count; empty: the agent's
    std::string home;
    uid_t ft_pw_uid = 0;
    gid_t ft_pw_gid = 0;
    std::string rest;       // the own part of the rest field, in lower case
    std::string orig_file;  // as ordered
    std::string file;       // whole path
    char type = FT_BINARY;
    char overwrite = FT_KEEP;
    char erase = '0';
    char compress = FT_PLAIN;
    char flagResume = FT_NO_RESUME;
    char separate = FT_LINE_LF;
    char Ft_Owner_uid = FT_OWNER_NONE;
    char Ft_Owner_gid = FT_OWNER_NONE;
    size_t recLen = 0;  // of a text without line ends
    int64_t maxrecords = 0;
    std::array<unsigned char, 256> code_table = {};

    char send_item = FT_AWAITS_NOTHING;
    char status = FT_NORMAL;
    int Result = 0;  // the first failure
    std::string ft_Insert;

    int64_t fileSize = 0;
    int64_t transferedBytes = 0;  // binary: payload; text: two bytes more for each record
    int64_t recCount = 0;
    int64_t anzahl_compr = 0;
    long Used[2] = {};          // sender: bytes and records that the blocks hold which went out
    int64_t resumed_bytes = 0;  // sender: in front of the running stream
    int64_t resumed_records = 0;
    int sta_cnt = 0;
    time_t next_sta = 0;

    std::string order;         // sender: FT_SEND as it came
    DATA_FT_STP restart;       // of the order
    std::string partner_part;  // sender: the receiver's restart data, as they came last
    std::string ft_contInsert;

    ft_source source;
    ft_target target;
    CompressFile* compressor = nullptr;
    DecompressFile* decompressor = nullptr;
    int64_t block_started_ms = 0;  // receiver: when the block in hand came
    ErrMsg cmpMsg = {};

    FT_AREA() = default;
    FT_AREA(const FT_AREA&) = delete;
    FT_AREA& operator=(const FT_AREA&) = delete;
    ~FT_AREA();

    bool text() const { return type == FT_TEXT; }
    const char* user() const { return Userid.c_str(); }
    // What the receiver has for certain, or what the sender's blocks hold.
    int64_t covered_bytes() const;
    int64_t covered_records() const;
};

// A rename that failed and that the sender may order again, without anything else.
struct ft_pending_rename {
    std::string peer_name;
    std::string Userid;
    std::string path;  // of the file
    std::string temp_name;
    char overwrite = FT_KEEP;
    dev_t device = 0;
    ino_t inode = 0;
};
std::list<ft_pending_rename>& ft_pending_renames();
inline constexpr size_t ft_pending_max = 1000;

// The transfers under way, the oldest first.
std::list<std::unique_ptr<FT_AREA>>& firstFT();
// Null when there is none. On channel 0: of any channel.
FT_AREA* find_ft_area(int transfer_id, bool destination, int channel);
FT_AREA* add_ft_area(std::unique_ptr<FT_AREA> area);
void Delete_FtArea(FT_AREA* area);

// The first failure of a transfer counts. Always -1.
int ft_fail(FT_AREA* area, int number, std::string_view insert);
// The same with a call that failed: 2003041.
int ft_call_failed(FT_AREA* area, std::string_view call, std::string_view file, int error_number);
// Line about the end of a transfer.
void ft_log_end(const FT_AREA* area);
