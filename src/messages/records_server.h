// Logon, liveness, administration, log and mail: the messages between agent and server that concern the agent
// itself. Fixed parts as they stand on the wire when every version's fields are sent; variable data follows
// them.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"
#include "messages/records_common.h"

#pragma pack(push, 1)

struct MSG_TYPE_EXSTART2 {
    static constexpr std::string_view catalogue_name = "EXSTART2";
    QX_HEADM header;
    char host[32];
    char hw[32];
    char sw[32];
    char sw_vers[32];
    MSG_TYPE_VERS version;
    char reserved1;
    char starttype;
    char processid[10];
    char daylight;
    char filler[3];
    int32_t ah_idnr;
    char rep_type[8];
    uint32_t service;
    MSG_TYPE_TIMESTAMP starttime;
    MSG_TYPE_TIMESTAMP acttime;
    MSG_TYPE_ZEITZONE_STR zeitzone;
    char ipadr[64];
    int32_t ipport;
    char codename[200];
    char jclvar[32];
    int32_t varanz;
    int32_t vardist;
    int32_t cpu_count;
    int32_t erp_user1;
    int32_t erp_user2;
    int32_t erp_user3;
    int32_t erp_user4;
    int32_t erp_user5;
    char filler2[4];
    MSG_TYPE_DS ds;
    int32_t inilen;
    int32_t inidist;
    MSG_TYPE_SUB_EXSTART_1 Components;
    char conn_id[32];  // from version 02 on
};
static_assert(sizeof(MSG_TYPE_EXSTART2) == 1120);

struct MSG_TYPE_EXSTRTQ2 {
    static constexpr std::string_view catalogue_name = "EXSTRTQ2";
    QX_HEADM header;
    char system_name[32];
    MSG_TYPE_VERS version;
    char rep_type[8];
    int32_t code_dist;
    int32_t code_len;
    int32_t ip_dist;
    int32_t ip_len;
    int32_t conntab_dist;
    int32_t conntab_entrs;
    int32_t valuetab_dist;
    int32_t valuetab_entrs;
    char charset[30];
    char use_event;
    char anonymous_job;
    char anonymous_ft;
    char log_to_db;
    char enc_comp;
    char anonymous_fe;
    int32_t ah_idnr;
    int32_t job_check;
    int32_t keep_alive;
    int32_t reconnect;
    int32_t report;
    int32_t blksize;
    int32_t cmd_timeout;
    char component[200];
    MSG_TYPE_TIMESTAMP compTimeStamp;
    int32_t perfcounter;
    int32_t max_file_count;
    int32_t check_interval;
    int16_t ft_rst_life;
    int16_t rb_rt_time;
    MSG_TYPE_ABS_TIME2 rb_rt_check;
    MSG_TYPE_ABS_TIME ft_rst_check;
    int16_t ft_stat_timer;
    int16_t ft_rst_timer;
    int16_t ft_con_timeout;
    int16_t ft_report_time;
    char ft_use_md5;
    char fe_version;
    char filler[6];
    char token[128];
    int32_t settings_dist;
    int32_t settings_entries;
    MSG_TYPE_TIMESTAMP2 msg_timestamp;
    uint32_t chglog_intvl;  // from version 02 on
    uint32_t chglog_size;   // from version 02 on
};
static_assert(sizeof(MSG_TYPE_EXSTRTQ2) == 1092);

struct MSG_TYPE_EXSTOP {
    static constexpr std::string_view catalogue_name = "EXSTOP";
    QX_HEADM header;
    char host[32];
    char conn_id[32];
};
static_assert(sizeof(MSG_TYPE_EXSTOP) == 80);

struct MSG_TYPE_EXQUERY {
    static constexpr std::string_view catalogue_name = "EXQUERY";
    QX_HEADM header;
    MSG_TYPE_TIMESTAMP srvtime;
    int32_t ping1;
    int32_t ping2;
    char connection[200];
    MSG_TYPE_TIMESTAMP connection_ts;
};
static_assert(sizeof(MSG_TYPE_EXQUERY) == 256);

struct MSG_TYPE_EXINFO {
    static constexpr std::string_view catalogue_name = "EXINFO";
    QX_HEADM header;
    MSG_TYPE_TIMESTAMP srvtime;
    MSG_TYPE_TIMESTAMP extime;
    int32_t ping1;
    int32_t ping2;
    int32_t ftcount;
    int32_t jobcount;
    int32_t connectcount;
    int32_t cputime;
    int32_t iocount;
    int8_t sysflag;
    char filler[3];
    int32_t pcount;
    MSG_TYPE_TIMESTAMP LastCheck;
    int32_t msg_nr;
    char msg_insert[1024];
    char filler2[4];
    char hardware[32];    // from version 02 on
    char software[32];    // from version 02 on
    char sw_version[32];  // from version 02 on
};
static_assert(sizeof(MSG_TYPE_EXINFO) == 1228);

struct MSG_TYPE_SRVQUERY {
    static constexpr std::string_view catalogue_name = "SRVQUERY";
    QX_HEADM header;
    MSG_TYPE_TIMESTAMP extime;
    unsigned char anonym[8];
};
static_assert(sizeof(MSG_TYPE_SRVQUERY) == 40);

struct MSG_TYPE_SRVINFO {
    static constexpr std::string_view catalogue_name = "SRVINFO";
    QX_HEADM header;
    MSG_TYPE_TIMESTAMP extime;
    MSG_TYPE_TIMESTAMP srtime;
    unsigned char anonym[8];
};
static_assert(sizeof(MSG_TYPE_SRVINFO) == 56);

struct MSG_TYPE_CONNECT {
    static constexpr std::string_view catalogue_name = "CONNECT";
    QX_HEADM header;
    char name[32];
    char ipaddr[64];
    int32_t port;
    char filler[4];
    int32_t gss_dist;
    int32_t gss_len;
};
static_assert(sizeof(MSG_TYPE_CONNECT) == 128);

struct MSG_TYPE_TRCGET {
    static constexpr std::string_view catalogue_name = "TRCGET";
    QX_HEADM header;
    char host[32];
};
static_assert(sizeof(MSG_TYPE_TRCGET) == 48);

struct MSG_TYPE_TRCSET {
    static constexpr std::string_view catalogue_name = "TRCSET";
    QX_HEADM header;
    char host[32];
    char flags[16];
    int32_t max_task;
    int32_t keep_alive;
    int32_t max_report;
    int32_t log_mb;
    int32_t log_days;
    int32_t min_envt_int;
    int32_t res_api_users;
    int32_t last_use;
    int32_t max_ft;
    char filler[4];
    int32_t max_size;   // from version 02 on
    char trigger_type;  // from version 02 on
    char mem_trace;
    char dump_memory;  // from version 02 on
    char force_trace;
    int32_t trigger_len;       // from version 02 on
    int32_t trigger_dist;      // from version 02 on
    int32_t zwang_info_msgnr;  // from version 02 on
    int32_t zwang_info_len;    // from version 02 on
    int32_t zwang_info_dist;   // from version 02 on
};
static_assert(sizeof(MSG_TYPE_TRCSET) == 132);

struct MSG_TYPE_CHGLOG {
    static constexpr std::string_view catalogue_name = "CHGLOG";
    QX_HEADM header;
    char rtyp[8];
    int32_t ah_idnr;
};
static_assert(sizeof(MSG_TYPE_CHGLOG) == 28);

struct MSG_TYPE_CHGLOGQU {
    static constexpr std::string_view catalogue_name = "CHGLOGQU";
    QX_HEADM header;
    int32_t ah_idnr_old;
    int32_t ah_idnr_new;
    MSG_TYPE_TIMESTAMP timestamp;
    int32_t rep_count;
    char filler[4];
    char wp_name[32];
};
static_assert(sizeof(MSG_TYPE_CHGLOGQU) == 80);

struct MSG_TYPE_CHGLOGR {
    static constexpr std::string_view catalogue_name = "CHGLOGR";
    QX_HEADM header;
    int32_t ah_idnr_old;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_CHGLOGR) == 24);

struct MSG_TYPE_WRITE {
    static constexpr std::string_view catalogue_name = "WRITE";
    QX_HEADM header;
    char typ[8];
    int32_t ah_idnr;
    MSG_TYPE_TIMESTAMP timestamp;
    int32_t msgnr;
    int32_t blksize;
    int32_t inhalt_dist;
    int32_t inhalt_len;
};
static_assert(sizeof(MSG_TYPE_WRITE) == 60);

struct MSG_TYPE_SNOOZE {
    static constexpr std::string_view catalogue_name = "SNOOZE";
    QX_HEADM header;
    char filler[16];
};
static_assert(sizeof(MSG_TYPE_SNOOZE) == 32);

struct MSG_TYPE_WAKEUP {
    static constexpr std::string_view catalogue_name = "WAKEUP";
    QX_HEADM header;
    char filler[16];
};
static_assert(sizeof(MSG_TYPE_WAKEUP) == 32);

struct MSG_TYPE_SNDMAIL {
    static constexpr std::string_view catalogue_name = "SNDMAIL";
    QX_HEADM header;
    char subject[255];
    char filler;
    int32_t ah_idnr;
    int32_t dist;
    int32_t entries;
    char filler2[52];
};
static_assert(sizeof(MSG_TYPE_SNDMAIL) == 336);

struct MSG_TYPE_SNDMAIL2 {
    static constexpr std::string_view catalogue_name = "SNDMAIL2";
    QX_HEADM header;
    char subject[255];
    char filler;
    int32_t ah_idnr;
    int32_t dist;
    int32_t entries;
    char filler2[4];
};
static_assert(sizeof(MSG_TYPE_SNDMAIL2) == 288);

struct MSG_TYPE_EX_CLEAN {
    static constexpr std::string_view catalogue_name = "EX_CLEAN";
    QX_HEADM header;
    int32_t ah_idnr;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_EX_CLEAN) == 24);

struct MSG_TYPE_EX_UPGRD {
    static constexpr std::string_view catalogue_name = "EX_UPGRD";
    QX_HEADM header;
    int32_t ah_idnr;
    char filler[4];
    char cau_report[256];
    int32_t bintab_dist;
    int32_t bintab_entries;
};
static_assert(sizeof(MSG_TYPE_EX_UPGRD) == 288);

struct MSG_TYPE_EX_UPCAN {
    static constexpr std::string_view catalogue_name = "EX_UPCAN";
    QX_HEADM header;
    int32_t ah_idnr;
    char filler[4];
};
static_assert(sizeof(MSG_TYPE_EX_UPCAN) == 24);

struct MSG_TYPE_QUITT {
    static constexpr std::string_view catalogue_name = "QUITT";
    QX_HEADM header;
    char quitt[2];
    char filler[2];
    char msg[8];
    MSG_TYPE_QUITT_MSG2 msg2;
    int32_t msgnr;
    char msg_insert[256];
    int32_t msg_dist;
    int32_t msg_len;
};
static_assert(sizeof(MSG_TYPE_QUITT) == 304);

#pragma pack(pop)
