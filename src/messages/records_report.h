// Reports, files written by order of the server, stored resources.
// Fixed parts as they stand on the wire when every version's fields are sent; variable data follows them.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"
#include "messages/records_common.h"

#pragma pack(push, 1)

struct MSG_TYPE_REP_GET {
    static constexpr std::string_view catalogue_name = "REP_GET";
    QX_HEADM header;
    int32_t ah_idnr;
    char filename[256];
    int32_t rep_ah_idnr;
    int32_t rep_rh_idnr;
    char rep_type[8];
    int32_t rep_blk;
    int32_t blksize;
    char logininfo[200];
    unsigned char passw[63];
    char erase;
    int32_t maxrecords;
    int32_t maxblk;
    int32_t match_dist;
    int32_t match_len;
    int32_t code_dist;
    int32_t code_len;
    char filler[4];
    int64_t transferred;
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_REP_GET) == 608);

struct MSG_TYPE_REP_DATA {
    static constexpr std::string_view catalogue_name = "REP_DATA";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t rep_ah_idnr;
    int32_t rep_rh_idnr;
    char rep_type[8];
    int32_t rep_blk;
    int64_t totalsize;
    int64_t transfered;
    int64_t reccnt;
    int32_t data_dist;
    int32_t data_len;
};
static_assert(sizeof(MSG_TYPE_REP_DATA) == 72);

struct MSG_TYPE_REP_QUIT {
    static constexpr std::string_view catalogue_name = "REP_QUIT";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t rep_ah_idnr;
    int32_t rep_rh_idnr;
    char rep_type[8];
    int32_t rep_blk;
    int32_t msgnr;
    char msg_insert[256];
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_REP_QUIT) == 304);

struct MSG_TYPE_REP_END {
    static constexpr std::string_view catalogue_name = "REP_END";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t rep_ah_idnr;
    char rep_type[8];
    int32_t rep_blk;
    int32_t msgnr;
    char msg_insert[256];
    int64_t totalsize;
    int64_t transfered;
    int64_t reccnt;
};
static_assert(sizeof(MSG_TYPE_REP_END) == 320);

struct MSG_TYPE_REP_STOP {
    static constexpr std::string_view catalogue_name = "REP_STOP";
    QX_HEADM header;
    char host[32];
};
static_assert(sizeof(MSG_TYPE_REP_STOP) == 48);

struct MSG_TYPE_PRCWRITE {
    static constexpr std::string_view catalogue_name = "PRCWRITE";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t file_dist;
    int32_t file_len;
    int32_t text_dist;
    int32_t text_len;
    int32_t code_dist;
    int32_t code_len;
    int32_t attr_dist;
    int32_t attr_len;
    char mode;
    char filler[3];
    char logininfo[200];
    unsigned char passw[64];
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_PRCWRITE) == 328);

struct MSG_TYPE_RES_GET {
    static constexpr std::string_view catalogue_name = "RES_GET";
    QX_HEADM header;
    int16_t client;
    char type[8];
    char name[200];
    char filler[6];
    int32_t key;
    char filler2[196];
};
static_assert(sizeof(MSG_TYPE_RES_GET) == 432);

struct MSG_TYPE_RES_DATA {
    static constexpr std::string_view catalogue_name = "RES_DATA";
    QX_HEADM header;
    char type[8];
    char name[200];
    MSG_TYPE_TIMESTAMP timestamp;
    int32_t content_dist;
    int32_t content_len;
};
static_assert(sizeof(MSG_TYPE_RES_DATA) == 248);

struct MSG_TYPE_BIN_GET {
    static constexpr std::string_view catalogue_name = "BIN_GET";
    QX_HEADM header;
    char name[200];
    char subname[200];
    int32_t ah_idnr;
    char filler[4];
    char hostattrtype[8];
    char hw[32];
    char sw[32];
};
static_assert(sizeof(MSG_TYPE_BIN_GET) == 496);

struct MSG_TYPE_BIN_DATA {
    static constexpr std::string_view catalogue_name = "BIN_DATA";
    QX_HEADM header;
    char type[8];
    char name[200];
    MSG_TYPE_TIMESTAMP timestamp;
    int32_t content_dist;
    int32_t content_len;
    int32_t ah_idnr;
    char object_name[200];
    char file_type;
    char filler[3];
};
static_assert(sizeof(MSG_TYPE_BIN_DATA) == 456);

struct MSG_TYPE_BIN_PUT {
    static constexpr std::string_view catalogue_name = "BIN_PUT";
    QX_HEADM header;
    char name[200];
    char subname[200];
    char overwrite;
    char filler[3];
    int32_t content_dist;
    int32_t content_len;
    int32_t file_name_len;
    char hostattrtype[8];
    char hw[32];
    char sw[32];
    char cache_type;
    int8_t replace_var;
    char file_type;
    char filler2;
    char version[512];
};
static_assert(sizeof(MSG_TYPE_BIN_PUT) == 1020);

#pragma pack(pop)
