// Records that stand inside several messages.
// Fixed parts as they stand on the wire when every version's fields are sent; variable data follows them.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"

#pragma pack(push, 1)

struct MSG_TYPE_ABS_TIME {
    static constexpr std::string_view catalogue_name = "ABS_TIME";
    int16_t hh;
    int16_t mm;
    int16_t ss;
};
static_assert(sizeof(MSG_TYPE_ABS_TIME) == 6);

struct MSG_TYPE_ABS_TIME2 {
    static constexpr std::string_view catalogue_name = "ABS_TIME2";
    int16_t abs2_hh;
    int16_t abs2_mm;
    int16_t abs2_ss;
};
static_assert(sizeof(MSG_TYPE_ABS_TIME2) == 6);

struct MSG_TYPE_TIMESTAMP {
    static constexpr std::string_view catalogue_name = "TIMESTAMP";
    int16_t jjjj;
    int16_t mo;
    int16_t tt;
    int16_t hh;
    int16_t mi;
    int16_t ss;
    int32_t ns;
};
static_assert(sizeof(MSG_TYPE_TIMESTAMP) == 16);

struct MSG_TYPE_CONNTAB1 {
    static constexpr std::string_view catalogue_name = "CONNTAB1";
    char component[200];
    char connection[200];
    MSG_TYPE_TIMESTAMP connTimeStamp;
};
static_assert(sizeof(MSG_TYPE_CONNTAB1) == 416);

struct MSG_TYPE_DS {
    static constexpr std::string_view catalogue_name = "DS";
    uint32_t dyn_service;
};
static_assert(sizeof(MSG_TYPE_DS) == 4);

struct MSG_TYPE_INFOTEXT {
    static constexpr std::string_view catalogue_name = "INFOTEXT";
    char last_rp[8];
    char infotext[24];
};
static_assert(sizeof(MSG_TYPE_INFOTEXT) == 32);

struct MSG_TYPE_OUTFILE {
    static constexpr std::string_view catalogue_name = "OUTFILE";
    char ulogin;
    char outfile[512];
};
static_assert(sizeof(MSG_TYPE_OUTFILE) == 513);

struct MSG_TYPE_QUITT_MSG2 {
    static constexpr std::string_view catalogue_name = "QUITT_MSG2";
    int32_t msg2_1_4;
    int32_t msg2_5_8;
};
static_assert(sizeof(MSG_TYPE_QUITT_MSG2) == 8);

struct MSG_TYPE_SDMAIL2X {
    static constexpr std::string_view catalogue_name = "SDMAIL2X";
    char type;
    char flag;
    char filler[2];
    int32_t len;
};
static_assert(sizeof(MSG_TYPE_SDMAIL2X) == 8);

struct MSG_TYPE_SNDMAILX {
    static constexpr std::string_view catalogue_name = "SNDMAILX";
    char type;
    char flag;
    uint16_t len;
};
static_assert(sizeof(MSG_TYPE_SNDMAILX) == 4);

struct MSG_TYPE_STATUS_VALUE {
    static constexpr std::string_view catalogue_name = "STATUS_VALUE";
    char name[200];
    char value[1024];
    char type;
};
static_assert(sizeof(MSG_TYPE_STATUS_VALUE) == 1225);

struct MSG_TYPE_STEPLIST {
    static constexpr std::string_view catalogue_name = "STEPLIST";
    char step_name[254];
    int16_t step_retcode;
};
static_assert(sizeof(MSG_TYPE_STEPLIST) == 256);

struct MSG_TYPE_SUB_EXSTART_1 {
    static constexpr std::string_view catalogue_name = "SUB_EXSTART_1";
    char Comp1;
    char Comp2;
    char Comp3;
    char filler[5];
};
static_assert(sizeof(MSG_TYPE_SUB_EXSTART_1) == 8);

struct MSG_TYPE_TIMESTAMP2 {
    static constexpr std::string_view catalogue_name = "TIMESTAMP2";
    int16_t jjjj;
    int16_t mo;
    int16_t tt;
    int16_t hh;
    int16_t mi;
    int16_t ss;
    int32_t ns;
};
static_assert(sizeof(MSG_TYPE_TIMESTAMP2) == 16);

struct MSG_TYPE_VALUETAB {
    static constexpr std::string_view catalogue_name = "VALUETAB";
    char name[200];
    char value[1024];
    char isencrypted[2];
};
static_assert(sizeof(MSG_TYPE_VALUETAB) == 1226);

struct MSG_TYPE_VARTAB {
    static constexpr std::string_view catalogue_name = "VARTAB";
    char varname[200];
    char varinhalt[255];
};
static_assert(sizeof(MSG_TYPE_VARTAB) == 455);

struct MSG_TYPE_VERS {
    static constexpr std::string_view catalogue_name = "VERS";
    int16_t major;
    int16_t minor;
    int16_t patch;
    char release_id[256];
    char remote_id[256];
    char filler[2];
};
static_assert(sizeof(MSG_TYPE_VERS) == 520);

struct MSG_TYPE_ZEITZONE_STR {
    static constexpr std::string_view catalogue_name = "ZEITZONE_STR";
    int16_t zz_hh;
    int16_t zz_mi;
};
static_assert(sizeof(MSG_TYPE_ZEITZONE_STR) == 4);

struct MSG_TYPE_BINPATHS {
    static constexpr std::string_view catalogue_name = "BINPATHS";
    char task_cache_path[512];
    char client_cache_path[512];
};
static_assert(sizeof(MSG_TYPE_BINPATHS) == 1024);

struct MSG_TYPE_BINTAB {
    static constexpr std::string_view catalogue_name = "BINTAB";
    char object_name[200];
    char resource_name[200];
    char file_name[512];
    MSG_TYPE_TIMESTAMP mod_date;
    char cache_type;
    char filler[7];
};
static_assert(sizeof(MSG_TYPE_BINTAB) == 936);

struct MSG_TYPE_REPTAB {
    static constexpr std::string_view catalogue_name = "REPTAB";
    char reporttyp[4];
    char filename[255];
};
static_assert(sizeof(MSG_TYPE_REPTAB) == 259);

#pragma pack(pop)
