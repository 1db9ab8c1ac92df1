// File transfer, both protocols. A part of the catalogue (see catalogue.h for the columns).
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr msg_el FT_SENDU_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_file", "", nullptr, 2, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"reserv1", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"src_logininfo", "", nullptr, 4, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"dst_host", "", nullptr, 5, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"dst_file", "", nullptr, 6, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"reserv2", "", nullptr, 7, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"dst_logininfo", "", nullptr, 8, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"type", "", nullptr, 9, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ov", "", nullptr, 12, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"erase", "", nullptr, 16, 1, 0, 0, 0, 0, 11, 1, 0, 0},
    {"folder", "", nullptr, 19, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"compress", "", nullptr, 21, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 25, 11, 0, 0, 0, 0, 98, 1, 0, 0},
    {"maxrecords", "", nullptr, 26, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 27, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"rec_start", "", nullptr, 28, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rec_end", "", nullptr, 29, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"col_start", "", nullptr, 30, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"col_end", "", nullptr, 31, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 32, 2, 0, 0, 0, 0, 98, 1, 0, 0},
    {"dataqu", "", nullptr, 33, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_passw", "", nullptr, 34, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"dst_passw", "", nullptr, 35, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"flag", "", nullptr, 36, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 39, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"possend", "", nullptr, 40, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"posrecv", "", nullptr, 41, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest_dist", "", nullptr, 42, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest_len", "", nullptr, 43, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_code_dist", "", nullptr, 44, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_code_len", "", nullptr, 45, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_code_dist", "", nullptr, 46, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_code_len", "", nullptr, 47, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cont_dist", "", nullptr, 48, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"cont_len", "", nullptr, 49, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"src_pwd_dist", "", nullptr, 50, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"src_pwd_len", "", nullptr, 51, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"dst_pwd_dist", "", nullptr, 52, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"dst_pwd_len", "", nullptr, 53, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"rest", "", nullptr, 54, -43, 0, -42, 0, 0, 4, 1, 2, 0},
    {"src_code", "", nullptr, 55, -45, 0, -44, 0, 0, 7, 1, 2, 0},
    {"dst_code", "", nullptr, 56, -47, 0, -46, 0, 0, 7, 1, 2, 0},
    {"cont", "", nullptr, 57, -49, 0, -48, 0, 0, 7, 2, 2, 0},
    {"src_password", "", nullptr, 58, -51, 0, -50, 0, 0, 7, 2, 2, 0},
    {"dst_password", "", nullptr, 59, -53, 0, -52, 0, 0, 7, 2, 2, 0},
};

inline constexpr msg_el FT_FILEG_elements[] = {
    {"path", "", nullptr, 1, 255, 0, 0, 0, 0, 5, 1, 4, 0},
    {"filename", "", nullptr, 2, 255, 0, 0, 0, 0, 5, 1, 4, 0},
};

inline constexpr msg_el FTXSNDRCV_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ah_idnr2", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_file_dist", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_file_len", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_file_dist", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_file_len", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_logininfo", "", nullptr, 7, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"src_passw", "", nullptr, 8, 64, 0, 0, 0, 0, 6, 1, 0, 0},
    {"dst_logininfo", "", nullptr, 9, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"dst_passw", "", nullptr, 10, 64, 0, 0, 0, 0, 6, 1, 0, 0},
    {"dst_host", "", nullptr, 11, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"src_fs_type", "", nullptr, 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"type", "", "enum('T','B')", 13, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"override", "", "enum('N','Y','A')", 16, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"erase", "", "enum('Y','N')", 20, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"subdir", "", "enum('Y','N')", 23, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"compress", "", "enum('0','1')", 26, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"restart", "", "enum('0','1','2')", 29, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"wildcard", "", "enum('Y','N')", 33, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"file_attributes", "", "enum('Y','N')", 36, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"connect_name", "", "notempty()", 39, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"connect_ip", "", "notempty()", 40, 64, 0, 0, 0, 0, 3, 1, 0, 0},
    {"connect_port", "", "gt(0)", 41, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"async_quit_min", "", nullptr, 42, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"async_quit_max", "", "gt(0)", 43, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"async_quit_num", "", "gt(0)", 44, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_code_dist", "", nullptr, 45, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_code_len", "", nullptr, 46, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_code_dist", "", nullptr, 47, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_code_len", "", nullptr, 48, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"gss_dist", "", nullptr, 49, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"gss_len", "", "gt(150)", 50, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest_dist", "", nullptr, 51, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest_len", "", nullptr, 52, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"svc_list", "", nullptr, 53, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"abort_on_error", "", "enum('Y','N')", 55, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"can_continue", "", nullptr, 58, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"subdirstruct", "", nullptr, 59, 1, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 62, 7, 0, 0, 0, 0, 98, 1, 0, 0},
    {"src_pwd_dist", "", nullptr, 63, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_pwd_len", "", nullptr, 64, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_pwd_dist", "", nullptr, 65, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dst_pwd_len", "", nullptr, 66, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"src_file", "", nullptr, 67, -4, 0, -3, 0, 0, 4, 1, 0, 0},
    {"dst_file", "", nullptr, 68, -6, 0, -5, 0, 0, 4, 1, 0, 0},
    {"src_code", "", nullptr, 69, -46, 0, -45, 0, 0, 7, 1, 0, 0},
    {"dst_code", "", nullptr, 70, -48, 0, -47, 0, 0, 7, 1, 0, 0},
    {"gss_token", "", nullptr, 71, -50, 0, -49, 0, 0, 7, 1, 0, 0},
    {"rest", "", nullptr, 72, -52, 0, -51, 0, 0, 7, 1, 0, 0},
    {"src_password", "", nullptr, 73, -64, 0, -63, 0, 0, 7, 1, 2, 0},
    {"dst_password", "", nullptr, 74, -66, 0, -65, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el FTXQUIT_RECORD_elements[] = {
    {"file_id", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"status_flag", "", "enum('A','C','E','R')", 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 7, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"filesize", "", nullptr, 8, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dstname_dist", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dstname_len", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_id", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_dist", "", nullptr, 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_len", "", nullptr, 13, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"res_dist", "", nullptr, 14, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"res_len", "", nullptr, 15, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 16, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"msl_insert", "", nullptr, 17, -13, 0, -12, 0, 0, 4, 1, 0, 0},
    {"file_name", "", nullptr, 18, -10, 0, -9, 0, 0, 4, 1, 0, 0},
    {"restart_info", "", nullptr, 19, -15, 0, -14, 0, 0, 7, 1, 0, 0},
};

inline constexpr msg_el FTXWRITE_RECORD_elements[] = {
    {"timestamp", "TIMESTAMP", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"msl_id", "", "gt(0)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_dist", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_len", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 5, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"text", "", nullptr, 6, -4, 0, -3, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el FTXSEND_elements[] = {
    {"ftxsndrcv", "FTXSNDRCV", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FTXSENDQ_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"files_total", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"size_total", "", nullptr, 3, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 4, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"msl_no", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_dist", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_len", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_text", "", nullptr, 9, -8, 0, -7, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el FTXRECV_elements[] = {
    {"ftxsndrcv", "FTXSNDRCV", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FTXRECVQ_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"can_continue", "", "enum('Y','N')", 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 5, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"svc_list", "", nullptr, 6, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_no", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_dist", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_len", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_text", "", nullptr, 12, -11, 0, -10, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el FTXDATA_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el FTXQUIT_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"count", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"flag", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 5, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"records", "FTXQUIT_RECORD", nullptr, 6, 0, -2, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FTXEND_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_no", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_dist", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_len", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_text", "", nullptr, 5, -4, 0, -3, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el FTXENDQ_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el FTXSTA_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"files_total", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"files_sent", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"files_successful", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file_size", "", nullptr, 5, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"status_flag", "", "enum('R', 'F', 'E', 'C' )", 6, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 11, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"dir_total", "", nullptr, 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"sent_size", "", nullptr, 13, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"compressed_size", "", nullptr, 14, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"datastream_size", "", nullptr, 15, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"count", "", nullptr, 16, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dir_sent", "", nullptr, 17, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"end_time", "TIMESTAMP", nullptr, 18, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"records", "", nullptr, 19, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_no", "", nullptr, 20, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_dist", "", nullptr, 21, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_len", "", nullptr, 22, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dir_successfull", "", nullptr, 23, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msl_text", "", nullptr, 24, -22, 0, -21, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el FTXCANC_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el FTXDEL_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el FTXINF_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ref_ah_idnr", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el FTXREPG_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"block_size", "", "range(0,32768)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"last_id", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 4, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el FTXWRITE_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"status", "", "enum('E','C')", 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 5, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"last_id", "", "gt(-2)", 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"count", "", "range(0, 32768)", 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"records", "FTXWRITE_RECORD", nullptr, 8, 0, -7, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FT_SEND_elements[] = {
    {"ft_send", "FT_SENDU", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FT_RECV_elements[] = {
    {"ft_recv", "FT_SENDU", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FT_DATA_elements[] = {
    {"i4transid", "", nullptr, 1, 4, 0, 0, 0, 0, 2, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el FT_END_elements[] = {
    {"i4transid", "", nullptr, 1, 4, 0, 0, 0, 0, 2, 1, 0, 0},
    {"cRecDelim", "", nullptr, 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 5, 15, 0, 0, 0, 0, 98, 1, 0, 0},
    {"i4retcode", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"crettext", "", nullptr, 7, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"stp_dist", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"stp_len", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"stp", "", nullptr, 10, -9, 0, -8, 0, 0, 7, 2, 2, 0},
};

inline constexpr msg_el FT_QUIT_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 2, 1, 0, 0},
    {"acv", "", nullptr, 2, 4, 0, 0, 0, 0, 2, 1, 1, 0},
    {"ts", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"filler", "", nullptr, 4, 16, 0, 0, 0, 0, 98, 1, 0, 0},
    {"msgnr", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 6, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"flagResume", "", nullptr, 7, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 11, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"filesize", "", nullptr, 12, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"anzahl", "", nullptr, 13, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"records", "", nullptr, 14, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"anzahl_compr", "", nullptr, 15, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"stp_dist", "", nullptr, 16, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"stp_len", "", nullptr, 17, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"stp", "", nullptr, 18, -17, 0, -16, 0, 0, 7, 2, 2, 0},
};

inline constexpr msg_el FT_STA_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cnt", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filesize", "", nullptr, 3, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"anzahl", "", nullptr, 4, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"records", "", nullptr, 5, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"anzahl_compr", "", nullptr, 6, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"stp_dist", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"stp_len", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"stp", "", nullptr, 9, -8, 0, -7, 0, 0, 7, 2, 2, 0},
};

inline constexpr msg_el FT_CAN_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el FT_DIR_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filename", "", nullptr, 2, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"folder", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"logininfo", "", nullptr, 6, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 7, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"filler", "", nullptr, 8, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"rest_dist", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest_len", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_dist", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest", "", nullptr, 13, -10, 0, -9, 0, 0, 4, 1, 0, 0},
    {"password", "", nullptr, 14, -12, 0, -11, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el FT_FILE_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"fileanz", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"files", "FT_FILEG", nullptr, 3, 0, -2, 0, 0, 0, 8, 1, 2, 0},
};

inline constexpr msg_el FT_STOP_elements[] = {
    {"i4transid", "", nullptr, 1, 4, 0, 0, 0, 0, 2, 1, 0, 0},
    {"cpeer", "", nullptr, 2, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 3, 12, 0, 0, 0, 0, 98, 1, 0, 0},
};

// clang-format on

inline constexpr catalogue_part transfer_catalogue[] = {
    {"FT_SENDU", FT_SENDU_elements, 1184},
    {"FT_FILEG", FT_FILEG_elements, 510},
    {"FTXSNDRCV", FTXSNDRCV_elements, 768},
    {"FTXQUIT_RECORD", FTXQUIT_RECORD_elements, 48},
    {"FTXWRITE_RECORD", FTXWRITE_RECORD_elements, 32},
    {"FTXSEND ", FTXSEND_elements, 784},
    {"FTXSENDQ", FTXSENDQ_elements, 48},
    {"FTXRECV ", FTXRECV_elements, 784},
    {"FTXRECVQ", FTXRECVQ_elements, 36},
    {"FTXDATA ", FTXDATA_elements, 20},
    {"FTXQUIT ", FTXQUIT_elements, 32},
    {"FTXEND  ", FTXEND_elements, 32},
    {"FTXENDQ ", FTXENDQ_elements, 20},
    {"FTXSTA  ", FTXSTA_elements, 120},
    {"FTXCANC ", FTXCANC_elements, 24},
    {"FTXDEL  ", FTXDEL_elements, 24},
    {"FTXINF  ", FTXINF_elements, 24},
    {"FTXREPG ", FTXREPG_elements, 32},
    {"FTXWRITE", FTXWRITE_elements, 32},
    {"FT_SEND ", FT_SEND_elements, 1200},
    {"FT_RECV ", FT_RECV_elements, 1200},
    {"FT_DATA ", FT_DATA_elements, 24},
    {"FT_END  ", FT_END_elements, 304},
    {"FT_QUIT ", FT_QUIT_elements, 360},
    {"FT_STA  ", FT_STA_elements, 64},
    {"FT_CAN  ", FT_CAN_elements, 20},
    {"FT_DIR  ", FT_DIR_elements, 556},
    {"FT_FILE ", FT_FILE_elements, 24},
    {"FT_STOP ", FT_STOP_elements, 64},
};
