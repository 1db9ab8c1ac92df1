// The records of file retrieval, which travel as base64 in XML texts. Numbers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

enum file_request_type : char { FILE_REQUEST_TEXT = 'T' };  // every other letter: bytes
enum file_request_direction : char { FILE_REQUEST_BEGIN = 'B', FILE_REQUEST_END = 'E' };

#pragma pack(push, 1)
// A request: what stands in its CDATA section.
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
