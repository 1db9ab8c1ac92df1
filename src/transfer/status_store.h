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
