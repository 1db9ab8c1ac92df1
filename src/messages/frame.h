// Frames: a 48-byte ASCII header, then a body. The body of a native frame is a row of items, each with a key,
// a length and data; one of them is the message or one piece of connection data, the others are addresses.
//
// Reading is bytes in, values out: nothing here knows sockets, and every length is tested before it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "messages/catalogue.h"

#pragma pack(push, 1)
struct QX7_PROTOCOL_HEADER {
    char cLength[8];     // of the whole frame, decimal digits with leading zeros
    char cEyeCatch[10];  // "QX7:global"
    char cVersion[3];    // "001"
    char cProtocol[3];   // "NAT", "GSS", "IPC", "XML"
    char cCoding[8];     // blanks; in a GSS frame a short text
    char cSessionId[16];
};
#pragma pack(pop)
static_assert(sizeof(QX7_PROTOCOL_HEADER) == 48);
static_assert(offsetof(QX7_PROTOCOL_HEADER, cProtocol) == 21 && offsetof(QX7_PROTOCOL_HEADER, cCoding) == 24);

inline constexpr size_t frame_header_size = 48;
inline constexpr int64_t frame_length_max = 99'999'999;  // what eight digits hold
inline constexpr char protocol_native[] = "NAT";
inline constexpr char protocol_gss[] = "GSS";
inline constexpr char protocol_ipc[] = "IPC";
inline constexpr char protocol_xml[] = "XML";

enum item_key : unsigned char {
    key_name = 1,     // module, 8 characters blank-padded
    key_acv = 2,      // access code, 32 bits
    key_address = 3,  // channel name, up to 32 characters
    key_executor_data = 4,
    key_define_addr = 5,
    key_scramble = 6,
    key_close_connection = 7,
    key_protocol_59 = 59,
    key_server_data = 65,
    key_cp_list = 68,
    key_system_shutdown = 249,
    key_source_group = 253,
    key_message_short = 254,  // 2-byte length
    key_message = 255         // 4-byte length
};

// ---- header ----

// Fills a native header with the length 48. `buffer` has 48 bytes.
void CrProtocolHeader(void* buffer);
// The length of the whole frame, or 0 when the eye-catcher is wrong or `cLength` is no number. `buffer` has
// 48 bytes.
int64_t GetProtocolLength(const void* buffer);
// Writes the length when the eye-catcher is right and it fits eight digits. 0, or -1 with nothing written.
int SetProtocolLength(void* buffer, int64_t length);
// Fills a header for a frame of `length` bytes (header included). -1 when the length is below 48 or above
// frame_length_max.
int frame_set_header(void* buffer, const char* protocol, int64_t length, std::string_view coding = {});
// Whether a whole header (48 bytes) is one of `protocol`.
bool frame_protocol_is(const void* buffer, const char* protocol);

// ---- items ----

// Size of a key's length field: 1, 2 or 4 bytes little-endian, or 7 decimal digits.
size_t TcpKzLengthFieldLen(unsigned char key);
// The same as the agent's reader and writer have it: keys 59 and 249 have 2 bytes.
size_t item_length_field_size(unsigned char key);

// Total length of the item at `src` (key, length field, data), `available` bytes of which are there; its data
// are copied to `dst` when that is not null and has room for them (`dst_size`). -1 when the item is cut, its
// digits are none, or the room is too small. `keylen` is the size of the length field.
int64_t extract_protocol_data(const unsigned char* src, size_t available, size_t keylen, unsigned char* dst,
                              size_t dst_size);

// Writes key and length field of an item; returns their size (at most 8). 0 when `length` does not fit the
// key's field.
size_t item_write_head(unsigned char* dst, unsigned char key, size_t length);

// ---- bodies ----

// Address fields of a frame; texts end with a NUL, a number 0 is unset. An address is cut at 32 and a name at
// 8 characters when written.
struct frame_address {
    char dst_addr[64] = {};
    char dst_name[64] = {};
    uint32_t dst_acv = 0;
    char src_addr[64] = {};
    char src_name[64] = {};
    uint32_t src_acv = 0;
};

// Room that the items of an address need at most in front of (header, items 2, 1, 3, 255) and behind a
// message.
inline constexpr size_t frame_headroom = 48 + 6 + 10 + 34 + 5;
inline constexpr size_t frame_tailroom = 3 + 34 + 10 + 6;

// Puts the items around a message of `length` bytes at `message`, which has frame_headroom bytes in front and
// frame_tailroom behind. `*body` is where the body begins, in front of the message. Returns the body's
// length.
size_t frame_wrap_message(unsigned char* message, size_t length, const frame_address& address,
                          unsigned char** body);

// Puts a header of `protocol` in front of a body, which has 48 bytes in front of it. Returns the frame's
// length, or -1 when it would pass frame_length_max.
int64_t frame_wrap_body(unsigned char* body, size_t length, const char* protocol, unsigned char** frame);

// A whole native frame in a buffer of its own: for senders that hold no message buffer. Empty when too long.
std::vector<unsigned char> frame_make_message(const void* message, size_t length,
                                              const frame_address& address);
// A whole native frame with one connection item (keys 4, 5, 7, 59, 65, 68, 249). Empty when the data do not
// fit the key.
std::vector<unsigned char> frame_make_item(unsigned char key, const void* data, size_t length);

// What a native body holds.
struct frame_body {
    frame_address address;
    unsigned char protocol_key = 0;  // key of the connection item, 0 when there is none
    bool is_message = false;         // an item 254 or 255 was there
    bool is_xml = false;             // the message begins with "<?xml": it is not converted
    size_t offset = 0;               // of the message or of the connection item's data within the body
    size_t length = 0;               // of these data; 0 when the body holds neither
};

// Reads a native body (the bytes behind the header, unsealed). Any fault in it is -1, with the message number
// 1002204 to 1002206 or 1002208 in `error`; the connection ends then. Address texts come trimmed of blanks.
// Limits: key 1 at most 8, key 2 exactly 4, key 3 at most 32, key 4 from 37, key 7 1 to 32, key 65 from 76,
// key 249 from 296, group 253 only 1, 2 and 3; at most one message or connection item; 8, 9, 14, 61, 62, 63
// and 66 are passed over, other keys refused.
int frame_parse_body(const unsigned char* body, size_t length, frame_body* out, qx7_error* error);

// ---- checks ----

// Bits of the flags of TCP_Chk.
enum tcp_check : unsigned {
    TCP_CHK_SERVER = 1,       // connection to a server: restricted keys allowed, no size limit
    TCP_CHK_SERVER_DATA = 2,  // item 65 allowed
    TCP_CHK_HEADER = 4,
    TCP_CHK_XML = 8,
    TCP_CHK_NAT = 16,
    TCP_CHK_BODY = 32,        // scan the items
    TCP_CHK_DESCRAMBLE = 64,  // item 6 descrambles what follows
    TCP_CHK_GSS = 128,
    TCP_CHK_NO_LIMIT = 256,  // iMaxPhysMsgSize does not count
    TCP_CHK_IPC = 512
};
// What the agent's reader asks for; it adds TCP_CHK_SERVER on a server channel.
inline constexpr unsigned tcp_chk_reader = TCP_CHK_HEADER | TCP_CHK_NAT | TCP_CHK_GSS | TCP_CHK_IPC;
static_assert(tcp_chk_reader == 660);

inline constexpr int tcp_used_by_agent = 8;

struct TCPMSG_MSG_TYPE {
    char name[8];
};

struct TCPMSG_WORK_AREA {
    char cID[8];  // "%TcpMsg%"
    int iUsedBy;
    int iMaxPhysMsgSize;  // 0: no limit
    void* pToEbcdic;
    void* pToAscii;
    void* pToEbcdicCode;
    void* pEbcdicCodeTable;
    void* pToAsciiCode;
    void* pAsciiCodeTable;
    int iMsgCnt;
    int iMsgCntUse;
    TCPMSG_MSG_TYPE* pMsgArea;
};

struct TCPMSG_PARMS {
    int iSizeOfParms;
    int iMaxPhysMsgSize;
    void* pToEbcdic;
    void* pToAscii;
    void* pToEbcdicCode;
    void* pEbcdicCodeTable;
    void* pToAsciiCode;
    void* pAsciiCodeTable;
};
static_assert(sizeof(TCPMSG_PARMS) == 56);
inline constexpr int tcp_parms_size = 64;  // the value of iSizeOfParms

// Allocates a work area; null without memory. Free it with TCP_Close.
TCPMSG_WORK_AREA* TCP_Open(int usedBy);
// 0, or 1002201 for a bad handle (null included).
int TCP_Close(TCPMSG_WORK_AREA* handle);
int TCP_Used(TCPMSG_WORK_AREA* handle, int usedBy);
int TCP_Parms(TCPMSG_WORK_AREA* handle, const TCPMSG_PARMS* parms);
// Registers a message type. 0, 1002201, 1002202 (no memory), or 1002209 when `msgtab` is given and lacks it.
int TCP_Allow(TCPMSG_WORK_AREA* handle, const char* msgType, const MSGTAB* msgtab, char* retText,
              size_t retTextLength);
// The types that a partner agent's connection may carry, registered by TcpMsg_Open.
bool TCP_Allowed(const TCPMSG_WORK_AREA* handle, const void* msgType);
// A work area with all types registered that a partner may send. Null without memory.
TCPMSG_WORK_AREA* TcpMsg_Open(int usedBy);
void TcpMsg_Close(TCPMSG_WORK_AREA* handle);

// Checks the first `length` bytes of a frame as far as they reach, header and items as `flags` ask. 0 or a
// message number, with its inserts in `retText`. `msg` is changed only by TCP_CHK_DESCRAMBLE.
int TCP_Chk(const TCPMSG_WORK_AREA* handle, unsigned char* msg, size_t length, unsigned flags, char* retText,
            size_t retTextLength);

// The old scrambling of bodies: applied twice it gives the plain bytes back.
void TcpConvert(uint32_t key, unsigned char* data, size_t length);
uint32_t TcpNewKey(uint32_t key);
