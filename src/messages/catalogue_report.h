// Reports, files written by order of the server, stored resources. A part of the catalogue (see catalogue.h
// for the columns).
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr msg_el REP_GET_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filename", "", "notempty()", 2, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"rep_ah_idnr", "", "ne(0)", 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_rh_idnr", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_type", "", nullptr, 5, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"rep_blk", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"blksize", "", "lt(32768)", 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"logininfo", "", nullptr, 8, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 9, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"erase", "", nullptr, 10, 1, 0, 0, 0, 0, 11, 1, 0, 0},
    {"maxrecords", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"maxblk", "", "ne(0)", 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"match_dist", "", nullptr, 13, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"match_len", "", nullptr, 14, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_dist", "", nullptr, 15, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_len", "", nullptr, 16, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 17, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"transferred", "", nullptr, 18, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_dist", "", nullptr, 19, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 20, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"match", "", nullptr, 21, -14, 0, -13, 0, 0, 4, 1, 2, 0},
    {"code", "", nullptr, 22, -16, 0, -15, 0, 0, 7, 1, 2, 0},
    {"password", "", nullptr, 23, -20, 0, -19, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el REP_DATA_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_ah_idnr", "", "ne(0)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_rh_idnr", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_type", "", "notempty()", 4, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"rep_blk", "", "range(0, 32768)", 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"totalsize", "", nullptr, 6, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"transfered", "", nullptr, 7, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"reccnt", "", nullptr, 8, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"data_dist", "", "range(0, 32768)", 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"data_len", "", "range(0, 32768)", 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"data", "", nullptr, 11, -10, 0, -9, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el REP_QUIT_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_ah_idnr", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_rh_idnr", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_type", "", nullptr, 4, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"rep_blk", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msgnr", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 7, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 8, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el REP_END_elements[] = {
    {"ah_idnr", "", "ne(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_ah_idnr", "", "ne(0)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_type", "", "notempty()", 3, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"rep_blk", "", "ne(0)", 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msgnr", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 6, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"totalsize", "", nullptr, 7, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"transfered", "", nullptr, 8, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"reccnt", "", nullptr, 9, 8, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el REP_STOP_elements[] = {
    {"host", "", nullptr, 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el PRCWRITE_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file_dist", "", "range(16, 32768)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file_len", "", "gt(0)", 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"text_dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"text_len", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_dist", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_len", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"attr_dist", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"attr_len", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"mode", "", "enum('O', 'A', 'C')", 10, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 14, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"logininfo", "", nullptr, 15, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 16, 64, 0, 0, 0, 0, 6, 1, 0, 0},
    {"pwd_dist", "", nullptr, 17, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 18, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file", "", nullptr, 19, -3, 0, -2, 0, 0, 4, 1, 2, 0},
    {"text", "", nullptr, 20, -5, 0, -4, 0, 0, 4, 1, 2, 0},
    {"code", "", nullptr, 21, -7, 0, -6, 0, 0, 4, 1, 2, 0},
    {"attributes", "", nullptr, 22, -9, 0, -8, 0, 0, 4, 1, 2, 0},
    {"password", "", nullptr, 23, -18, 0, -17, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el RES_GET_elements[] = {
    {"client", "", nullptr, 1, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"type", "", nullptr, 2, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"name", "", nullptr, 3, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 4, 6, 0, 0, 0, 0, 98, 1, 0, 0},
    {"key", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 6, 196, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el RES_DATA_elements[] = {
    {"type", "", nullptr, 1, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"name", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"timestamp", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"content_dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"content_len", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"content", "", nullptr, 6, -5, 0, -4, 0, 0, 7, 1, 0, 0},
};

inline constexpr msg_el BIN_GET_elements[] = {
    {"name", "", nullptr, 1, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"subname", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ah_idnr", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 4, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"hostattrtype", "", nullptr, 5, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"hw", "", nullptr, 6, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"sw", "", nullptr, 7, 32, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el BIN_DATA_elements[] = {
    {"type", "", nullptr, 1, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"name", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"timestamp", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"content_dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"content_len", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ah_idnr", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"object_name", "", nullptr, 7, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"file_type", "", nullptr, 8, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 11, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"content", "", nullptr, 12, -5, 0, -4, 0, 0, 7, 1, 64, 0},
};

inline constexpr msg_el BIN_PUT_elements[] = {
    {"name", "", nullptr, 1, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"subname", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"overwrite", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 6, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"content_dist", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"content_len", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file_name_len", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"hostattrtype", "", nullptr, 10, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"hw", "", nullptr, 11, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"sw", "", nullptr, 12, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"cache_type", "", nullptr, 13, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"replace_var", "", nullptr, 16, 1, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file_type", "", nullptr, 19, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 22, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"version", "", nullptr, 23, 512, 0, 0, 0, 0, 3, 1, 0, 0},
    {"file_name", "", nullptr, 24, -9, 0, 0, 0, 0, 4, 1, 0, 0},
    {"content", "", nullptr, 25, -8, 0, -7, 0, 0, 7, 1, 0, 0},
};

// clang-format on

inline constexpr catalogue_part report_catalogue[] = {
    {"REP_GET ", REP_GET_elements, 608},  {"REP_DATA", REP_DATA_elements, 72},
    {"REP_QUIT", REP_QUIT_elements, 304}, {"REP_END ", REP_END_elements, 320},
    {"REP_STOP", REP_STOP_elements, 48},  {"PRCWRITE", PRCWRITE_elements, 328},
    {"RES_GET ", RES_GET_elements, 432},  {"RES_DATA", RES_DATA_elements, 248},
    {"BIN_GET ", BIN_GET_elements, 496},  {"BIN_DATA", BIN_DATA_elements, 456},
    {"BIN_PUT ", BIN_PUT_elements, 1020},
};
