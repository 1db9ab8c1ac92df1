// File events and file scanning.
// Fixed parts as they stand on the wire when every version's fields are sent; variable data follows them.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"
#include "messages/records_common.h"

#pragma pack(push, 1)

struct MSG_TYPE_FSC_CONT {
    static constexpr std::string_view catalogue_name = "FSC_CONT";
    char filename[256];
    char chars[256];
    char type;
    char filler[7];
};
static_assert(sizeof(MSG_TYPE_FSC_CONT) == 520);

struct MSG_TYPE_SUB_FH_APINF {
    static constexpr std::string_view catalogue_name = "SUB_FH_APINF";
    int64_t totaldiscspc;
    int64_t useddiscspc;
    int64_t freediscspc;
    int32_t anz_files;
    int32_t anz_folders;
    int64_t sizeoffiles;
    int64_t usedszeofiles;
    int64_t relablesize;
    int32_t bytesperunit;
    char filler[4];
    char filename[256];
};
static_assert(sizeof(MSG_TYPE_SUB_FH_APINF) == 320);

struct MSG_TYPE_FH_CHK {
    static constexpr std::string_view catalogue_name = "FH_CHK";
    QX_HEADM header;
    int32_t ah_idnr;
    char filename[255];
    char logininfo[200];
    unsigned char passw[63];
    char incsubdirs;
    char type;
    char op;
    char filler[3];
    uint64_t size;
    int16_t durhour;
    int16_t durminute;
    char type2;
    char considerallfiles;
    char filler2[2];
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_FH_CHK) == 568);

struct MSG_TYPE_FH_CONT {
    static constexpr std::string_view catalogue_name = "FH_CONT";
    QX_HEADM header;
    int32_t ah_idnr;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FH_CONT) == 24);

struct MSG_TYPE_FH_DEL {
    static constexpr std::string_view catalogue_name = "FH_DEL";
    QX_HEADM header;
    char filename[256];
    char logininfo[200];
    unsigned char passw[63];
    char filler;
    int32_t ah_idnr;
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_FH_DEL) == 548);

struct MSG_TYPE_FH_WADEL {
    static constexpr std::string_view catalogue_name = "FH_WADEL";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_FH_WADEL) == 20);

struct MSG_TYPE_FH_PINF {
    static constexpr std::string_view catalogue_name = "FH_PINF";
    QX_HEADM header;
    char logininfo[200];
    unsigned char passw[63];
    char unused;
    char path[256];
    int32_t ah_idnr;
    int8_t inclSubDir;
    char filler[3];
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_FH_PINF) == 552);

struct MSG_TYPE_FH_APINF {
    static constexpr std::string_view catalogue_name = "FH_APINF";
    QX_HEADM header;
    MSG_TYPE_SUB_FH_APINF fh_apinf;
};
static_assert(sizeof(MSG_TYPE_FH_APINF) == 336);

struct MSG_TYPE_FH_AQUIT {
    static constexpr std::string_view catalogue_name = "FH_AQUIT";
    QX_HEADM header;
    int32_t err_Nr;
    char err_Ins[256];
    char err_SysTxt[256];
    int32_t ah_idnr;
    char msg_type[8];
};
static_assert(sizeof(MSG_TYPE_FH_AQUIT) == 544);

struct MSG_TYPE_FH_HIT {
    static constexpr std::string_view catalogue_name = "FH_HIT";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t count;
    MSG_TYPE_TIMESTAMP timestamp;
    char file_name[256];
    int64_t file_size;
    int32_t file_count;
    char result;
    char filler[3];
};
static_assert(sizeof(MSG_TYPE_FH_HIT) == 312);

struct MSG_TYPE_FSCAN {
    static constexpr std::string_view catalogue_name = "FSCAN";
    QX_HEADM header;
    int32_t ah_idnr;
    char logininfo[200];
    unsigned char passw[63];
    char condition;
    int32_t cont_entries;
    int32_t cont_dist;
    int32_t code_dist;
    int32_t code_len;
    char filler[4];
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_FSCAN) == 312);

struct MSG_TYPE_FSCANQU {
    static constexpr std::string_view catalogue_name = "FSCANQU";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t retcode;
    char filler[4];
    int32_t msgnr;
    char msg_insert[256];
};
static_assert(sizeof(MSG_TYPE_FSCANQU) == 288);

#pragma pack(pop)
