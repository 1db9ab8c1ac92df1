// The XML of file retrieval: what a request says, and the texts of the answers. Bytes in, bytes out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/error.h"

inline constexpr int FILE_REQUEST_LOGGED = 2000256;
inline constexpr int FILE_REQUEST_FAILED = 2000258;
inline constexpr int FILE_REQUEST_FORM = 2001055;
inline constexpr int FILE_REQUEST_NO_LOGIN = 2001058;

inline constexpr size_t file_request_text_max = 65536;  // a longer text is no request
inline constexpr size_t file_request_key_size = 64;     // with its NUL
inline constexpr int32_t file_request_block_min = 24;
inline constexpr int32_t file_request_block_max = 1 << 20;
inline constexpr size_t file_answer_error_max = 2048;
inline constexpr char file_requests_busy[] = "too many files are being read, try again in half a minute";
inline constexpr char file_request_no_key[] = "error, file request key not exist";

enum file_request_type : char { FILE_REQUEST_TEXT = 'T' };  // every other letter: bytes
enum file_request_direction : char { FILE_REQUEST_BEGIN = 'B', FILE_REQUEST_END = 'E' };

#pragma pack(push, 1)
// What stands as base64 in the CDATA section. Numbers are little-endian.
struct RCV_CD {
    char cd_requesttype[8];  // "GETFILE " or "GET_FILE"
    char cd_filename[512];
    int32_t cd_blocksize;  // bytes of file in one answer
    int32_t cd_records;    // lines wanted
    int64_t cd_pos;
    char cd_loginobject[200];
    int16_t cd_client;
    char cd_filetype;       // file_request_type
    char cd_readdirection;  // file_request_direction
};

// In front of the file's bytes in an answer.
struct MSG_TYPE_XML_DATA {
    int64_t remaining_bytes;  // that are still to come behind this block
    int64_t pos;              // where in the file the part that is sent begins
    int32_t datalen;
};
#pragma pack(pop)
static_assert(sizeof(RCV_CD) == 740);
static_assert(offsetof(RCV_CD, cd_blocksize) == 520 && offsetof(RCV_CD, cd_pos) == 528);
static_assert(offsetof(RCV_CD, cd_loginobject) == 536 && offsetof(RCV_CD, cd_client) == 736);
static_assert(offsetof(RCV_CD, cd_filetype) == 738 && offsetof(RCV_CD, cd_readdirection) == 739);
static_assert(sizeof(MSG_TYPE_XML_DATA) == 20);

struct file_request {
    std::string addr, name, request, session, reqName, reqSrc;  // as they stand, entities and all
    uint32_t uidnr = 0;
    RCV_CD cdata{};  // numbers in host form, cd_blocksize within its bounds
};

// The key of a request: what stands between the quotes of `request="`. At most size - 1 characters. 0, or -1
// with 2001055 and an empty key.
int read_requestKey(std::string_view text, char* key, size_t size, qx7_error* error);

// The whole request. Only what stands outside of the CDATA section and, in a tag, outside of quotes counts as
// an attribute's name. 0, or -1 with 2001055 or 2001058.
int file_request_parse(std::string_view text, file_request* out, qx7_error* error);

// The answer with `record`, the head and the bytes of the file.
std::string file_answer_data(std::string_view key, std::string_view record);
// The answer with a failure, at most 2048 characters; the insert is cut to fit. The key is cut at its first blank,
// but for file_request_no_key.
std::string file_answer_error(std::string_view key, int number, std::string_view insert);
