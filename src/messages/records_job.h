// Jobs: activation, states, cancellation, queries and commands.
// Fixed parts as they stand on the wire when every version's fields are sent; variable data follows them.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"
#include "messages/records_common.h"

#pragma pack(push, 1)

struct MSG_TYPE_EXAKTJ {
    static constexpr std::string_view catalogue_name = "EXAKTJ";
    QX_HEADM header;
    int32_t ah_idnr;
    char name[200];
    char jobfile[255];
    char filler;
    char jobreport[255];
    char filler2;
    char jobsyslst[255];
    char filler3;
    char eventfile[255];
    char filler4;
    char logininfo[200];
    int32_t maxcpu;
    int16_t express;
    char jclass[8];
    char prio[5];
    char revision;
    char loggtyp[8];
    int32_t rest_dist;
    unsigned char passw[63];
    char filler5;
    int32_t max_retcode;
    int32_t rest_len;
    int32_t code_dist;
    int32_t code_len;
    int32_t jcl_dist;
    int32_t jcl_len;
    char component[200];               // from version 02 on
    MSG_TYPE_TIMESTAMP compTimeStamp;  // from version 02 on
    int32_t conntab_dist;              // from version 02 on
    int32_t conntab_entries;
    int32_t valuetab_dist;     // from version 02 on
    int32_t valuetab_entries;  // from version 02 on
    int32_t vartab_dist;       // from version 02 on
    int32_t vartab_entries;    // from version 02 on
    int32_t reptab_dist;       // from version 02 on
    int32_t reptab_entries;    // from version 02 on
    int32_t binpaths_dist;     // from version 02 on
    int32_t binpaths_entries;  // from version 02 on
    int32_t bintab_dist;       // from version 02 on
    int32_t bintab_entries;    // from version 02 on
    int32_t pwd_dist;          // from version 02 on
    int32_t pwd_len;           // from version 02 on
};
static_assert(sizeof(MSG_TYPE_EXAKTJ) == 1836);

struct MSG_TYPE_EXAKTJQU {
    static constexpr std::string_view catalogue_name = "EXAKTJQU";
    QX_HEADM header;
    char processid[10];
    char filler[2];
    MSG_TYPE_TIMESTAMP startzeit;
    int32_t restart_len;
    int32_t restart_dist;
    char jobname[8];
    char logininfo[200];
};
static_assert(sizeof(MSG_TYPE_EXAKTJQU) == 260);

struct MSG_TYPE_EXSTAJ {
    static constexpr std::string_view catalogue_name = "EXSTAJ";
    QX_HEADM header;
    int32_t ah_idnr;
    char processid[10];
    char status;
    char filler;
    int32_t retcode;
    int32_t cputime;
    int32_t kerneltime;
    int32_t usertime;
    int32_t iocount;
    int32_t cnt;
    MSG_TYPE_INFOTEXT infotext_alt;
    MSG_TYPE_TIMESTAMP endzeit;
    char progname[255];
    char filler2;
    int32_t stepcount;
    int32_t steplist_dist;
    int32_t restart_len;
    int32_t restart_dist;
    MSG_TYPE_TIMESTAMP startzeit;
    int32_t remote_status;    // from version 02 on
    char remote_insert[100];  // from version 04 on
    int32_t statusv_dist;     // from version 04 on
    int32_t statusv_entries;  // from version 04 on
    int32_t outfile_count;    // from version 04 on
    int32_t outfile_dist;     // from version 04 on
};
static_assert(sizeof(MSG_TYPE_EXSTAJ) == 512);

struct MSG_TYPE_EXSTAJQU {
    static constexpr std::string_view catalogue_name = "EXSTAJQU";
    QX_HEADM header;
    int32_t ah_idnr;
    char status;
    char filler[3];
};
static_assert(sizeof(MSG_TYPE_EXSTAJQU) == 24);

struct MSG_TYPE_JOB_INF {
    static constexpr std::string_view catalogue_name = "JOB_INF";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t restart_len;
    int32_t restart_dist;
    char processid[10];
    char status;
    char last_jobinf;
    int32_t cnt;
};
static_assert(sizeof(MSG_TYPE_JOB_INF) == 44);

struct MSG_TYPE_JOB_CAN {
    static constexpr std::string_view catalogue_name = "JOB_CAN";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_JOB_CAN) == 20);

struct MSG_TYPE_JOB_DEL {
    static constexpr std::string_view catalogue_name = "JOB_DEL";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_JOB_DEL) == 20);

struct MSG_TYPE_MELD {
    static constexpr std::string_view catalogue_name = "MELD";
    QX_HEADM header;
    int32_t msgnr;
    char msg_insert[256];
};
static_assert(sizeof(MSG_TYPE_MELD) == 276);

struct MSG_TYPE_EXREQCMD {
    static constexpr std::string_view catalogue_name = "EXREQCMD";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t max_rows;
    int32_t jcl_dist;
    int32_t jcl_len;
    char jobfile[255];
    char jobreport[255];
    char logininfo[200];
    unsigned char passw[63];
    char filler[3];
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_EXREQCMD) == 816);

struct MSG_TYPE_EXREQCAN {
    static constexpr std::string_view catalogue_name = "EXREQCAN";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_EXREQCAN) == 20);

struct MSG_TYPE_EXRESCMD {
    static constexpr std::string_view catalogue_name = "EXRESCMD";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t rep_dist;
    int32_t rep_len;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_EXRESCMD) == 32);

#pragma pack(pop)
