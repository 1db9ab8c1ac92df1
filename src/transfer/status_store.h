// Keys and records of a transfer's status store.
//
// Records go to the file as they stand in memory: natural alignment, pointers of 8 bytes. Pointers are zero
// in the file and never taken from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr unsigned long status_store_version = 20180524;
inline constexpr long status_store_ftx_size = 1608;

// One file of a transfer.
struct __ftx_elem {
    uint64_t nxt;
    int32_t ftxe_msgnr;
    int32_t ftxe_errno;
    char ftxe_text_coding;
    uint8_t dst_file_alive;
    uint8_t dst_Temp_File;
    uint8_t dst_temp_alive;
    uint8_t dst_filler_1;
    int32_t ftxe_startStamp;
    int32_t ftxe_endStamp;
    uint64_t ftxe_msgInsert;
    uint64_t src_filename;
    uint64_t dst_filename;
    int64_t ftxe_fileSize;
    int64_t ftxe_rss_records;
    int32_t ftxe_lifeTime;
    int32_t ftxe_oId;
    uint64_t ftxe_rss;
    int32_t ftxe_rss_len;
    uint64_t ftxe_rsr;
    int32_t ftxe_rsr_len;
    int64_t ftxe_transferedBytes;
    int64_t ftxe_compressed_size;
    int64_t ftxe_records;
    int32_t ftxe_flag;
    char ftxe_status;
};
static_assert(sizeof(__ftx_elem) == 144);
static_assert(offsetof(__ftx_elem, ftxe_text_coding) == 16 && offsetof(__ftx_elem, ftxe_startStamp) == 24 &&
              offsetof(__ftx_elem, ftxe_msgInsert) == 32 && offsetof(__ftx_elem, ftxe_fileSize) == 56 &&
              offsetof(__ftx_elem, ftxe_oId) == 76 && offsetof(__ftx_elem, ftxe_rss) == 80 &&
              offsetof(__ftx_elem, ftxe_rsr) == 96 && offsetof(__ftx_elem, ftxe_transferedBytes) == 112 &&
              offsetof(__ftx_elem, ftxe_flag) == 136 && offsetof(__ftx_elem, ftxe_status) == 140);

// The transfer itself. Pointers, descriptors, handles and what belongs to them stand in the file as zero; the
// fields that do count are listed in status_store.cpp.
struct FTX_AREA {
    char ftx_ID[16];
    uint64_t nxt;
    uint64_t cmpHnd;
    uint64_t cmpMsg;
    uint64_t ftx_UserName;
    uint64_t ftx_LoginName;
    uint64_t ftx_UserHomeDir;
    uint64_t src_file;
    uint64_t dst_file;
    uint64_t ftx_FileAttribute;
    uint64_t ftx_ss_filename;
    uint64_t kvsdb;
    int32_t ftx_transfer_id;  // ah_idnr
    int32_t ftx_ah_idnr2;     // other than 0: a repeat of that transfer, whose store is used
    unsigned char ftxsend_addr[288];
    uint32_t ftx_UsrIdNr;
    uint16_t ftx_Mandant;
    uint16_t ftx_filler1;
    int16_t ftx_sReverseConnect;
    int16_t ftx_sSvcList;
    char ftx_etime[16];
    alignas(8) unsigned char ftx_lock_mutexx[40];

    int64_t ftx_compressed_size;
    int64_t ftx_size_total;
    int32_t ftx_files_total;
    int32_t ftx_nof_completed;
    int32_t ftx_nof_error;
    int32_t ftx_nof_active;
    int32_t ftx_nof_sent;
    int32_t ftx_max_oid;
    int32_t ftx_send_flag;
    int32_t ftx_report_block_size;
    int32_t ftx_report_curr_size;
    uint64_t ftxeq[2];
    uint64_t ftx_cElem;
    uint64_t ftxlogq[2];
    int32_t ftx_last_log_nr;
    int32_t src_origLength;
    int32_t dst_origLength;

    uint64_t ftx_passw;
    int32_t ftx_passw_len;
    char ftx_dst_host[32];
    char ftx_src_host[32];
    char ftx_connect_name[32];
    char ftx_connect_ip[64];
    int32_t ftx_connect_port;
    int32_t ftx_src_hosttype;
    char ftx_attr_connect_name[64];
    char ftx_attr_connect_ip[64];
    int32_t ftx_attr_connect_port;
    int32_t ftx_attr_rifreq;

    int32_t ftx_socket;
    uint64_t ftx_fcb;
    int32_t ftx_fd;
    int32_t ftx_userLength;
    int16_t ftx_SrvSession;

    char ftx_type;
    char ftx_overwrite;
    char ftx_erase;
    char ftx_subdir;
    char ftx_compress;
    char ftx_restart;
    char ftx_wildcard;
    char ftx_file_attributes;
    char ftx_status_flag;

    int32_t ftx_progress;
    int32_t ftx_flag;
    int32_t ftx_rstrt_interval;
    int32_t ftx_async_quit_min;
    int32_t ftx_async_quit_max;
    int32_t ftx_async_quit_num;
    int32_t ftx_unquitted;
    int32_t ftx_nof_unquitted;
    int32_t ftx_packageid_current;
    int32_t ftx_sta_count;
    int64_t ftx_Used[3];  // transferedBytes, recCount, SeekFilePos

    char ftx_send_item;
    char ftx_separate;
    char ftx_cr_folder;
    char ftx_set_userid;
    char ftx_Temp_File;
    char ftx_text_coding;
    char ftx_OwnerUid;
    char ftx_OwnerGid;
    int32_t ftx_reclen;
    int32_t partnerID;  // channel of the other agent
    char ftx_peer_txt[16];
    char ftx_agent_modul[16];
    uint32_t ftx_agent_acv;
    char ftx_srv_partner[40];
    char ftx_srv_modul[16];
    uint32_t ftx_srv_acv;
    uint32_t ftx_uid;
    uint32_t ftx_gid;
    uint32_t ftx_pw_uid;
    uint32_t ftx_pw_gid;

    // On the alarm clock.
    int64_t ftx_rst_timeStamp;
    int64_t ftx_sta_timeStamp;
    int64_t ftx_rep_timeStamp;
    int64_t ftx_con_timeStamp;

    int32_t ftx_errno;
    int32_t ftx_msgNr;
    char ftx_Insert[256];

    int32_t rb_pos;
    int32_t rb_len;
    uint64_t ftx_fiob;
    int32_t ftx_fiob_size;
    unsigned char ftx_md5[88];
    int32_t srv_session_counter;
    int32_t ftx_restLength;
    uint64_t ftx_restPtr;
    int32_t gss_token_len;
    uint64_t gss_token;
    int32_t ftx_cCodeLen;
    uint64_t ftx_cCodeTab;
    int32_t ftx_FtxSend_len;
    uint64_t ftx_FtxSend;
    int32_t simulate_readerror;
    int32_t simulate_writeerror;
};
static_assert(sizeof(FTX_AREA) == status_store_ftx_size);
static_assert(offsetof(FTX_AREA, ftxsend_addr) == 112 && offsetof(FTX_AREA, ftx_etime) == 412 &&
              offsetof(FTX_AREA, ftx_lock_mutexx) == 432 && offsetof(FTX_AREA, ftx_compressed_size) == 472 &&
              offsetof(FTX_AREA, ftxeq) == 528 && offsetof(FTX_AREA, ftx_passw) == 584 &&
              offsetof(FTX_AREA, ftx_dst_host) == 596 && offsetof(FTX_AREA, ftx_socket) == 900 &&
              offsetof(FTX_AREA, ftx_type) == 922 && offsetof(FTX_AREA, ftx_progress) == 932 &&
              offsetof(FTX_AREA, ftx_Used) == 976 && offsetof(FTX_AREA, ftx_send_item) == 1000 &&
              offsetof(FTX_AREA, ftx_rst_timeStamp) == 1128 && offsetof(FTX_AREA, ftx_Insert) == 1168 &&
              offsetof(FTX_AREA, rb_pos) == 1424 && offsetof(FTX_AREA, ftx_md5) == 1444);

// The image of a record as it goes to the file, and the other way: single fields only, so that a file that
// somebody made up cannot reach anything else. A transfer's numbers, client and user are written, but never
// taken.
FTX_AREA ftx_to_image(const FTX_AREA& area);
void ftx_from_image(const FTX_AREA& image, FTX_AREA* area);
__ftx_elem ftxe_to_image(const __ftx_elem& elem);
void ftxe_from_image(const __ftx_elem& image, __ftx_elem* elem);

// Fixed part of a report record; its text follows at once and is terminated.
struct __ftx_log {
    uint64_t nxt;
    int32_t log_nr;
    char timestamp[16];
    int32_t msl_id;
    int32_t msl_insert_len;
};
inline constexpr size_t ftx_log_text = 36;
static_assert(offsetof(__ftx_log, timestamp) == 12 && offsetof(__ftx_log, msl_id) == 28 &&
              offsetof(__ftx_log, msl_insert_len) + sizeof(int32_t) == ftx_log_text &&
              sizeof(__ftx_log) == 40);

// Length of the stored record with a text of `insertLength` bytes. The record counts whole, with what pads
// it.
inline constexpr size_t ftxLogLength(size_t insertLength) {
    return insertLength + sizeof(__ftx_log) + 1;
}

inline constexpr const char* key_version = "STATUS_STORE_VERSION";
inline constexpr const char* key_ftx = "FTX";
inline constexpr const char* key_ftx_source = "FTX-SRCFILE";
inline constexpr const char* key_ftx_destination = "FTX-DSTFILE";
// Behind the key of an element.
inline constexpr const char* key_part_source = "-SRCFILE";
inline constexpr const char* key_part_destination = "-DSTFILE";
inline constexpr const char* key_part_sender = "-RSS";
inline constexpr const char* key_part_receiver = "-RSR";
inline constexpr const char* key_part_insert = "-MSGINSER";

// "OID-%d" and a part, which may be empty.
std::string ss_elementKey(int oid, const char* part);
// "RPT%.10u-%.8d"; the id is the one that names the store's file.
std::string ss_reportKey(uint32_t id, int logNumber);

// The text that a store must hold, without a terminator.
std::string ss_getVersionText();
bool ss_checkVersionText(const std::string& found);
