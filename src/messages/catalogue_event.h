// File events and file scanning. A part of the catalogue (see catalogue.h for the columns).
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr msg_el FSC_CONT_elements[] = {
    {"filename", "", "notempty()", 1, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"chars", "", "notempty()", 2, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"type", "", "enum('C','N')", 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 6, 7, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el SUB_FH_APINF_elements[] = {
    {"totaldiscspc", "", nullptr, 1, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"useddiscspc", "", nullptr, 2, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"freediscspc", "", nullptr, 3, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"anz_files", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"anz_folders", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"sizeoffiles", "", nullptr, 6, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"usedszeofiles", "", nullptr, 7, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"relablesize", "", nullptr, 8, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"bytesperunit", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 10, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"filename", "", nullptr, 11, 256, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el FH_CHK_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filename", "", "notempty()", 2, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"logininfo", "", nullptr, 3, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 4, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"incsubdirs", "", "enum('1','2')", 5, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"type", "", "enum('1','2','3')", 8, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"op", "", "enum('1','2','3','4','5','6')", 12, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 19, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"size", "", nullptr, 20, 8, 0, 0, 0, 0, 2, 1, 0, 0},
    {"durhour", "", "range(0,59)", 21, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"durminute", "", "range(0,59)", 22, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"type2", "", "enum('0','1','2')", 23, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"considerallfiles", "", "enum('1','2')", 27, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 30, 2, 0, 0, 0, 0, 98, 1, 0, 0},
    {"pwd_dist", "", nullptr, 31, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 32, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"password", "", nullptr, 33, -32, 0, -31, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el FH_CONT_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el FH_DEL_elements[] = {
    {"filename", "", "notempty()", 1, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"logininfo", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 3, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"filler", "", nullptr, 4, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"ah_idnr", "", "gt(0)", 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_dist", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"password", "", nullptr, 8, -7, 0, -6, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el FH_WADEL_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el FH_PINF_elements[] = {
    {"logininfo", "", nullptr, 1, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 2, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"unused", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"path", "", nullptr, 4, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ah_idnr", "", "gt(0)", 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"inclSubDir", "", "enum(1,0)", 6, 1, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 9, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"pwd_dist", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"password", "", nullptr, 12, -11, 0, -10, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el FH_APINF_elements[] = {
    {"fh_apinf", "SUB_FH_APINF", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el FH_AQUIT_elements[] = {
    {"err_Nr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"err_Ins", "", nullptr, 2, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"err_SysTxt", "", nullptr, 3, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ah_idnr", "", "gt(0)", 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_type", "", "notempty()", 5, 8, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el FH_HIT_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"count", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"timestamp", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"file_name", "", nullptr, 4, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"file_size", "", nullptr, 5, 8, 0, 0, 0, 0, 1, 1, 0, 0},
    {"file_count", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"result", "", "enum('Y','N')", 7, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 10, 3, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el FSCAN_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"logininfo", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 3, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"condition", "", "enum('A','O')", 4, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"cont_entries", "", "gt(0)", 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cont_dist", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_dist", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_len", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 11, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"pwd_dist", "", nullptr, 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 13, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cont", "FSC_CONT", nullptr, 14, 0, -7, -8, 0, 0, 8, 1, 2, 0},
    {"code", "", nullptr, 15, -10, 0, -9, 0, 0, 7, 1, 2, 0},
    {"password", "", nullptr, 16, -13, 0, -12, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el FSCANQU_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"retcode", "", "enum(0,1,2)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 6, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"msgnr", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 8, 256, 0, 0, 0, 0, 3, 1, 0, 0},
};

// clang-format on

inline constexpr catalogue_part event_catalogue[] = {
    {"FSC_CONT", FSC_CONT_elements, 520}, {"SUB_FH_APINF", SUB_FH_APINF_elements, 320},
    {"FH_CHK  ", FH_CHK_elements, 568},   {"FH_CONT ", FH_CONT_elements, 24},
    {"FH_DEL  ", FH_DEL_elements, 548},   {"FH_WADEL", FH_WADEL_elements, 20},
    {"FH_PINF ", FH_PINF_elements, 552},  {"FH_APINF", FH_APINF_elements, 336},
    {"FH_AQUIT", FH_AQUIT_elements, 544}, {"FH_HIT  ", FH_HIT_elements, 312},
    {"FSCAN   ", FSCAN_elements, 312},    {"FSCANQU ", FSCANQU_elements, 288},
};
