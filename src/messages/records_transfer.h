// File transfer, both protocols.
// Fixed parts as they stand on the wire when every version's fields are sent; variable data follows them.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"
#include "messages/records_common.h"

#pragma pack(push, 1)

struct MSG_TYPE_FT_SENDU {
    static constexpr std::string_view catalogue_name = "FT_SENDU";
    int32_t ah_idnr;
    char src_file[255];
    char reserv1;
    char src_logininfo[200];
    char dst_host[32];
    char dst_file[255];
    char reserv2;
    char dst_logininfo[200];
    char type;
    char ov;
    char erase;
    char folder;
    char compress;
    char filler[11];
    int32_t maxrecords;
    char filler2[4];
    int32_t rec_start;
    int32_t rec_end;
    int32_t col_start;
    int32_t col_end;
    char filler3[2];
    int16_t dataqu;
    unsigned char src_passw[63];
    unsigned char dst_passw[63];
    char flag;
    char filler4;
    int64_t possend;
    int64_t posrecv;
    int32_t rest_dist;
    int32_t rest_len;
    int32_t src_code_dist;
    int32_t src_code_len;
    int32_t dst_code_dist;
    int32_t dst_code_len;
    int32_t cont_dist;     // from version 02 on
    int32_t cont_len;      // from version 02 on
    int32_t src_pwd_dist;  // from version 02 on
    int32_t src_pwd_len;   // from version 02 on
    int32_t dst_pwd_dist;  // from version 02 on
    int32_t dst_pwd_len;   // from version 02 on
};
static_assert(sizeof(MSG_TYPE_FT_SENDU) == 1184);

struct MSG_TYPE_FT_FILEG {
    static constexpr std::string_view catalogue_name = "FT_FILEG";
    char path[255];
    char filename[255];
};
static_assert(sizeof(MSG_TYPE_FT_FILEG) == 510);

struct MSG_TYPE_FTXSNDRCV {
    static constexpr std::string_view catalogue_name = "FTXSNDRCV";
    int32_t ah_idnr;
    int32_t ah_idnr2;
    int32_t src_file_dist;
    int32_t src_file_len;
    int32_t dst_file_dist;
    int32_t dst_file_len;
    char src_logininfo[200];
    unsigned char src_passw[64];
    char dst_logininfo[200];
    unsigned char dst_passw[64];
    char dst_host[32];
    int32_t src_fs_type;
    char type;
    char override;
    char erase;
    char subdir;
    char compress;
    char restart;
    char wildcard;
    char file_attributes;
    char connect_name[32];
    char connect_ip[64];
    int32_t connect_port;
    int32_t async_quit_min;
    int32_t async_quit_max;
    int32_t async_quit_num;
    int32_t src_code_dist;
    int32_t src_code_len;
    int32_t dst_code_dist;
    int32_t dst_code_len;
    int32_t gss_dist;
    int32_t gss_len;
    int32_t rest_dist;
    int32_t rest_len;
    int16_t svc_list;
    char abort_on_error;
    char can_continue;
    int8_t subdirstruct;
    char filler[7];
    int32_t src_pwd_dist;
    int32_t src_pwd_len;
    int32_t dst_pwd_dist;
    int32_t dst_pwd_len;
};
static_assert(sizeof(MSG_TYPE_FTXSNDRCV) == 768);

struct MSG_TYPE_FTXQUIT_RECORD {
    static constexpr std::string_view catalogue_name = "FTXQUIT_RECORD";
    int32_t file_id;
    char status_flag;
    char filler[3];
    int64_t filesize;
    int32_t dstname_dist;
    int32_t dstname_len;
    int32_t msl_id;
    int32_t msl_dist;
    int32_t msl_len;
    int32_t res_dist;
    int32_t res_len;
    char filler2[4];
};
static_assert(sizeof(MSG_TYPE_FTXQUIT_RECORD) == 48);

struct MSG_TYPE_FTXWRITE_RECORD {
    static constexpr std::string_view catalogue_name = "FTXWRITE_RECORD";
    MSG_TYPE_TIMESTAMP timestamp;
    int32_t msl_id;
    int32_t msl_dist;
    int32_t msl_len;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FTXWRITE_RECORD) == 32);

struct MSG_TYPE_FTXSEND {
    static constexpr std::string_view catalogue_name = "FTXSEND";
    QX_HEADM header;
    MSG_TYPE_FTXSNDRCV ftxsndrcv;
};
static_assert(sizeof(MSG_TYPE_FTXSEND) == 784);

struct MSG_TYPE_FTXSENDQ {
    static constexpr std::string_view catalogue_name = "FTXSENDQ";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t files_total;
    int64_t size_total;
    char filler[4];
    int32_t msl_no;
    int32_t msl_dist;
    int32_t msl_len;
};
static_assert(sizeof(MSG_TYPE_FTXSENDQ) == 48);

struct MSG_TYPE_FTXRECV {
    static constexpr std::string_view catalogue_name = "FTXRECV";
    QX_HEADM header;
    MSG_TYPE_FTXSNDRCV ftxsndrcv;
};
static_assert(sizeof(MSG_TYPE_FTXRECV) == 784);

struct MSG_TYPE_FTXRECVQ {
    static constexpr std::string_view catalogue_name = "FTXRECVQ";
    QX_HEADM header;
    int32_t ah_idnr;
    char can_continue;
    char filler;
    int16_t svc_list;
    int32_t msl_no;
    int32_t msl_dist;
    int32_t msl_len;
};
static_assert(sizeof(MSG_TYPE_FTXRECVQ) == 36);

struct MSG_TYPE_FTXDATA {
    static constexpr std::string_view catalogue_name = "FTXDATA";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_FTXDATA) == 20);

struct MSG_TYPE_FTXQUIT {
    static constexpr std::string_view catalogue_name = "FTXQUIT";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t count;
    int32_t flag;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FTXQUIT) == 32);

struct MSG_TYPE_FTXEND {
    static constexpr std::string_view catalogue_name = "FTXEND";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t msl_no;
    int32_t msl_dist;
    int32_t msl_len;
};
static_assert(sizeof(MSG_TYPE_FTXEND) == 32);

struct MSG_TYPE_FTXENDQ {
    static constexpr std::string_view catalogue_name = "FTXENDQ";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_FTXENDQ) == 20);

struct MSG_TYPE_FTXSTA {
    static constexpr std::string_view catalogue_name = "FTXSTA";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t files_total;
    int32_t files_sent;
    int32_t files_successful;
    int64_t file_size;
    char status_flag;
    char filler[3];
    int32_t dir_total;
    int64_t sent_size;
    int64_t compressed_size;
    int64_t datastream_size;
    int32_t count;
    int32_t dir_sent;
    MSG_TYPE_TIMESTAMP end_time;
    int64_t records;
    int32_t msl_no;
    int32_t msl_dist;
    int32_t msl_len;
    int32_t dir_successfull;
};
static_assert(sizeof(MSG_TYPE_FTXSTA) == 120);

struct MSG_TYPE_FTXCANC {
    static constexpr std::string_view catalogue_name = "FTXCANC";
    QX_HEADM header;
    int32_t ah_idnr;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FTXCANC) == 24);

struct MSG_TYPE_FTXDEL {
    static constexpr std::string_view catalogue_name = "FTXDEL";
    QX_HEADM header;
    int32_t ah_idnr;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FTXDEL) == 24);

struct MSG_TYPE_FTXINF {
    static constexpr std::string_view catalogue_name = "FTXINF";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t ref_ah_idnr;
};
static_assert(sizeof(MSG_TYPE_FTXINF) == 24);

struct MSG_TYPE_FTXREPG {
    static constexpr std::string_view catalogue_name = "FTXREPG";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t block_size;
    int32_t last_id;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FTXREPG) == 32);

struct MSG_TYPE_FTXWRITE {
    static constexpr std::string_view catalogue_name = "FTXWRITE";
    QX_HEADM header;
    int32_t ah_idnr;
    char status;
    char filler[3];
    int32_t last_id;
    int32_t count;
};
static_assert(sizeof(MSG_TYPE_FTXWRITE) == 32);

struct MSG_TYPE_FT_SEND {
    static constexpr std::string_view catalogue_name = "FT_SEND";
    QX_HEADM header;
    MSG_TYPE_FT_SENDU ft_send;
};
static_assert(sizeof(MSG_TYPE_FT_SEND) == 1200);

struct MSG_TYPE_FT_RECV {
    static constexpr std::string_view catalogue_name = "FT_RECV";
    QX_HEADM header;
    MSG_TYPE_FT_SENDU ft_recv;
};
static_assert(sizeof(MSG_TYPE_FT_RECV) == 1200);

struct MSG_TYPE_FT_DATA {
    static constexpr std::string_view catalogue_name = "FT_DATA";
    QX_HEADM header;
    uint32_t i4transid;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_FT_DATA) == 24);

struct MSG_TYPE_FT_END {
    static constexpr std::string_view catalogue_name = "FT_END";
    QX_HEADM header;
    uint32_t i4transid;
    char cRecDelim;
    char filler[15];
    int32_t i4retcode;
    char crettext[256];
    int32_t stp_dist;  // from version 02 on
    int32_t stp_len;   // from version 02 on
};
static_assert(sizeof(MSG_TYPE_FT_END) == 304);

struct MSG_TYPE_FT_QUIT {
    static constexpr std::string_view catalogue_name = "FT_QUIT";
    QX_HEADM header;
    uint32_t ah_idnr;
    uint32_t acv;
    MSG_TYPE_TIMESTAMP ts;
    char filler[16];
    int32_t msgnr;
    char msg_insert[256];
    char flagResume;
    char filler2[3];
    int64_t filesize;
    int64_t anzahl;
    int64_t records;
    int64_t anzahl_compr;
    int32_t stp_dist;  // from version 02 on
    int32_t stp_len;   // from version 02 on
};
static_assert(sizeof(MSG_TYPE_FT_QUIT) == 360);

struct MSG_TYPE_FT_STA {
    static constexpr std::string_view catalogue_name = "FT_STA";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t cnt;
    int64_t filesize;
    int64_t anzahl;
    int64_t records;
    int64_t anzahl_compr;
    int32_t stp_dist;  // from version 02 on
    int32_t stp_len;   // from version 02 on
};
static_assert(sizeof(MSG_TYPE_FT_STA) == 64);

struct MSG_TYPE_FT_CAN {
    static constexpr std::string_view catalogue_name = "FT_CAN";
    QX_HEADM header;
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_FT_CAN) == 20);

struct MSG_TYPE_FT_DIR {
    static constexpr std::string_view catalogue_name = "FT_DIR";
    QX_HEADM header;
    int32_t ah_idnr;
    char filename[255];
    char folder;
    char logininfo[200];
    unsigned char passw[63];
    char filler;
    int32_t rest_dist;
    int32_t rest_len;
    int32_t pwd_dist;
    int32_t pwd_len;
};
static_assert(sizeof(MSG_TYPE_FT_DIR) == 556);

struct MSG_TYPE_FT_FILE {
    static constexpr std::string_view catalogue_name = "FT_FILE";
    QX_HEADM header;
    int32_t ah_idnr;
    int32_t fileanz;
};
static_assert(sizeof(MSG_TYPE_FT_FILE) == 24);

struct MSG_TYPE_FT_STOP {
    static constexpr std::string_view catalogue_name = "FT_STOP";
    QX_HEADM header;
    uint32_t i4transid;
    char cpeer[32];
    char filler[12];
};
static_assert(sizeof(MSG_TYPE_FT_STOP) == 64);

#pragma pack(pop)
