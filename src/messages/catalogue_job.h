// Jobs: activation, states, cancellation, queries and commands. A part of the catalogue (see catalogue.h for
// the columns).
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr msg_el EXAKTJ_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"name", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"jobfile", "", nullptr, 3, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 4, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"jobreport", "", nullptr, 5, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 6, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"jobsyslst", "", nullptr, 7, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 8, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"eventfile", "", nullptr, 9, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 10, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"logininfo", "", nullptr, 11, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"maxcpu", "", nullptr, 12, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"express", "", nullptr, 13, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jclass", "", nullptr, 14, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"prio", "", nullptr, 15, 5, 0, 0, 0, 0, 3, 1, 0, 0},
    {"revision", "", nullptr, 16, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"loggtyp", "", nullptr, 19, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"rest_dist", "", nullptr, 20, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"passw", "", nullptr, 21, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"filler", "", nullptr, 22, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"max_retcode", "", nullptr, 23, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rest_len", "", nullptr, 24, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_dist", "", nullptr, 25, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_len", "", nullptr, 26, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jcl_dist", "", nullptr, 27, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jcl_len", "", nullptr, 28, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"component", "", nullptr, 29, 200, 0, 0, 0, 0, 3, 2, 0, 0},
    {"compTimeStamp", "TIMESTAMP", nullptr, 30, 0, 0, 0, 0, 0, 8, 2, 0, 0},
    {"conntab_dist", "", nullptr, 31, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"conntab_entries", "", nullptr, 32, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"valuetab_dist", "", nullptr, 33, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"valuetab_entries", "", nullptr, 34, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"vartab_dist", "", nullptr, 35, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"vartab_entries", "", nullptr, 36, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"reptab_dist", "", nullptr, 37, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"reptab_entries", "", nullptr, 38, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"binpaths_dist", "", nullptr, 39, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"binpaths_entries", "", nullptr, 40, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"bintab_dist", "", nullptr, 41, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"bintab_entries", "", nullptr, 42, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"pwd_dist", "", nullptr, 43, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"pwd_len", "", nullptr, 44, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"rest", "", nullptr, 45, -24, 0, -20, 0, 0, 4, 1, 2, 0},
    {"code", "", nullptr, 46, -26, 0, -25, 0, 0, 7, 1, 2, 0},
    {"jcl", "", nullptr, 47, -28, 0, -27, 0, 0, 7, 1, 2, 0},
    {"conntab", "CONNTAB1", nullptr, 48, 0, -32, -31, 0, 0, 8, 2, 2, 0},
    {"valuetab", "VALUETAB", nullptr, 49, 0, -34, -33, 0, 0, 8, 2, 2, 0},
    {"vartab", "VARTAB", nullptr, 50, 0, -36, -35, 0, 0, 8, 2, 2, 0},
    {"reptab", "REPTAB", nullptr, 51, 0, -38, -37, 0, 0, 8, 2, 2, 0},
    {"binpaths", "BINPATHS", nullptr, 52, 0, -40, -39, 0, 0, 8, 2, 32, 0},
    {"bintab", "BINTAB", nullptr, 53, 0, -42, -41, 0, 0, 8, 2, 32, 0},
    {"password", "", nullptr, 54, -44, 0, -43, 0, 0, 7, 2, 2, 0},
};

inline constexpr msg_el EXAKTJQU_elements[] = {
    {"processid", "", nullptr, 1, 10, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 2, 2, 0, 0, 0, 0, 98, 1, 0, 0},
    {"startzeit", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"restart_len", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"restart_dist", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jobname", "", nullptr, 6, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"logininfo", "", nullptr, 7, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"restartinfo", "", nullptr, 8, -4, 0, -5, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el EXSTAJ_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"processid", "", nullptr, 2, 10, 0, 0, 0, 0, 3, 1, 0, 0},
    {"status", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 13, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"retcode", "", nullptr, 14, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cputime", "", nullptr, 15, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"kerneltime", "", nullptr, 16, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"usertime", "", nullptr, 17, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"iocount", "", nullptr, 18, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cnt", "", nullptr, 19, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"infotext_alt", "INFOTEXT", nullptr, 20, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"endzeit", "TIMESTAMP", nullptr, 21, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"progname", "", nullptr, 22, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 23, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"stepcount", "", nullptr, 24, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"steplist_dist", "", nullptr, 25, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"restart_len", "", nullptr, 26, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"restart_dist", "", nullptr, 27, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"startzeit", "TIMESTAMP", nullptr, 28, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"remote_status", "", nullptr, 29, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"remote_insert", "", nullptr, 30, 100, 0, 0, 0, 0, 3, 4, 0, 0},
    {"statusv_dist", "", nullptr, 31, 4, 0, 0, 0, 0, 1, 4, 0, 0},
    {"statusv_entries", "", nullptr, 32, 4, 0, 0, 0, 0, 1, 4, 0, 0},
    {"outfile_count", "", nullptr, 33, 4, 0, 0, 0, 0, 1, 4, 0, 0},
    {"outfile_dist", "", nullptr, 34, 4, 0, 0, 0, 0, 1, 4, 0, 0},
    {"steplist", "STEPLIST", nullptr, 35, 0, -24, -25, 0, 0, 8, 1, 0, 0},
    {"restartinfo", "", nullptr, 36, -26, 0, -27, 0, 0, 7, 1, 2, 0},
    {"statusv", "STATUS_VALUE", nullptr, 37, 0, -32, -31, 0, 0, 8, 4, 0, 0},
    {"outfiles", "OUTFILE", nullptr, 38, 0, -33, -34, 0, 0, 8, 4, 0, 0},
};

inline constexpr msg_el EXSTAJQU_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"status", "", nullptr, 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 3, 3, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el JOB_INF_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"restart_len", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"restart_dist", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"processid", "", nullptr, 4, 10, 0, 0, 0, 0, 3, 1, 1, 0},
    {"status", "", "enum('R','W')", 5, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"last_jobinf", "", nullptr, 8, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"cnt", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"restart", "", nullptr, 11, -2, 0, -3, 0, 0, 7, 1, 0, 0},
};

inline constexpr msg_el JOB_CAN_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el JOB_DEL_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el MELD_elements[] = {
    {"msgnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 2, 256, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el EXREQCMD_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"max_rows", "", "gt(0)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jcl_dist", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jcl_len", "", "gt(0)", 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jobfile", "", nullptr, 5, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"jobreport", "", nullptr, 6, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"logininfo", "", nullptr, 7, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"passw", "", nullptr, 8, 63, 0, 0, 0, 0, 6, 1, 0, 0},
    {"filler", "", nullptr, 9, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"pwd_dist", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"pwd_len", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jcl", "", nullptr, 12, -4, 0, -3, 0, 0, 4, 1, 2, 0},
    {"password", "", nullptr, 13, -11, 0, -10, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el EXREQCAN_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el EXRESCMD_elements[] = {
    {"ah_idnr", "", "gt(0)", 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_dist", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_len", "", "gt(0)", 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 4, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"report", "", nullptr, 5, -3, 0, -2, 0, 0, 4, 1, 2, 0},
};

// clang-format on

inline constexpr catalogue_part job_catalogue[] = {
    {"EXAKTJ  ", EXAKTJ_elements, 1836},  {"EXAKTJQU", EXAKTJQU_elements, 260},
    {"EXSTAJ  ", EXSTAJ_elements, 512},   {"EXSTAJQU", EXSTAJQU_elements, 24},
    {"JOB_INF ", JOB_INF_elements, 44},   {"JOB_CAN ", JOB_CAN_elements, 20},
    {"JOB_DEL ", JOB_DEL_elements, 20},   {"MELD    ", MELD_elements, 276},
    {"EXREQCMD", EXREQCMD_elements, 816}, {"EXREQCAN", EXREQCAN_elements, 20},
    {"EXRESCMD", EXRESCMD_elements, 32},
};
