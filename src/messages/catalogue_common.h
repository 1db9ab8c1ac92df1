// Records that stand inside several messages. A part of the catalogue (see catalogue.h for the columns).
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr msg_el ABS_TIME_elements[] = {
    {"hh", "", "range(0,59)", 1, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"mm", "", "range(0,59)", 2, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ss", "", "range(0,59)", 3, 2, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el ABS_TIME2_elements[] = {
    {"abs2_hh", "", "range(0,59)", 1, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"abs2_mm", "", "range(0,59)", 2, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"abs2_ss", "", "range(0,59)", 3, 2, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el CONNTAB1_elements[] = {
    {"component", "", nullptr, 1, 200, 0, 0, 0, 0, 5, 1, 4, 0},
    {"connection", "", nullptr, 2, 200, 0, 0, 0, 0, 5, 1, 4, 0},
    {"connTimeStamp", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 12, 0},
};

inline constexpr msg_el DS_elements[] = {
    {"dyn_service", "", nullptr, 1, 4, 0, 0, 0, 0, 2, 1, 0, 0},
};

inline constexpr msg_el INFOTEXT_elements[] = {
    {"last_rp", "", nullptr, 1, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"infotext", "", nullptr, 2, 24, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el OUTFILE_elements[] = {
    {"ulogin", "", nullptr, 1, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"outfile", "", "notempty()", 2, 512, 0, 0, 0, 0, 5, 1, 0, 0},
};

inline constexpr msg_el QUITT_MSG2_elements[] = {
    {"msg2_1_4", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg2_5_8", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el SDMAIL2X_elements[] = {
    {"type", "", nullptr, 1, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"flag", "", nullptr, 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 3, 2, 0, 0, 0, 0, 98, 1, 0, 0},
    {"len", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"text", "", nullptr, 5, -4, 0, 0, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el SNDMAILX_elements[] = {
    {"type", "", nullptr, 1, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"flag", "", nullptr, 2, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"len", "", nullptr, 3, 2, 0, 0, 0, 0, 2, 1, 0, 0},
    {"text", "", nullptr, 4, -3, 0, 0, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el STATUS_VALUE_elements[] = {
    {"name", "", nullptr, 1, 200, 0, 0, 0, 0, 5, 1, 0, 0},
    {"value", "", nullptr, 2, 1024, 0, 0, 0, 0, 5, 1, 4, 0},
    {"type", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el STEPLIST_elements[] = {
    {"step_name", "", nullptr, 1, 254, 0, 0, 0, 0, 5, 1, 4, 0},
    {"step_retcode", "", nullptr, 2, 2, 0, 0, 0, 0, 1, 1, 12, 0},
};

inline constexpr msg_el SUB_EXSTART_1_elements[] = {
    {"Comp1", "", nullptr, 1, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"Comp2", "", nullptr, 3, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"Comp3", "", nullptr, 5, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 7, 5, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el TIMESTAMP_elements[] = {
    {"jjjj", "", nullptr, 1, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"mo", "", "range(0,12)", 2, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"tt", "", "range(0,31)", 3, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"hh", "", "range(0,24)", 4, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"mi", "", "range(0,59)", 5, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ss", "", "range(0,59)", 6, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ns", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el TIMESTAMP2_elements[] = {
    {"jjjj", "", nullptr, 1, 2, 0, 0, 0, 0, 1, 1, 8, 0},
    {"mo", "", "range(0,12)", 2, 2, 0, 0, 0, 0, 1, 1, 8, 0},
    {"tt", "", "range(0,31)", 3, 2, 0, 0, 0, 0, 1, 1, 8, 0},
    {"hh", "", "range(0,24)", 4, 2, 0, 0, 0, 0, 1, 1, 8, 0},
    {"mi", "", "range(0,59)", 5, 2, 0, 0, 0, 0, 1, 1, 8, 0},
    {"ss", "", "range(0,59)", 6, 2, 0, 0, 0, 0, 1, 1, 8, 0},
    {"ns", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 8, 0},
};

inline constexpr msg_el VALUETAB_elements[] = {
    {"name", "", nullptr, 1, 200, 0, 0, 0, 0, 5, 1, 4, 0},
    {"value", "", nullptr, 2, 1024, 0, 0, 0, 0, 5, 1, 4, 0},
    {"isencrypted", "", nullptr, 3, 2, 0, 0, 0, 0, 5, 1, 4, 0},
};

inline constexpr msg_el VARTAB_elements[] = {
    {"varname", "", nullptr, 1, 200, 0, 0, 0, 0, 5, 1, 4, 0},
    {"varinhalt", "", nullptr, 2, 255, 0, 0, 0, 0, 5, 1, 4, 0},
};

inline constexpr msg_el VERS_elements[] = {
    {"major", "", "gt(0)", 1, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"minor", "", nullptr, 2, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"patch", "", nullptr, 3, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"release_id", "", "notempty()", 4, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"remote_id", "", nullptr, 5, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 6, 2, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el ZEITZONE_STR_elements[] = {
    {"zz_hh", "", nullptr, 1, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"zz_mi", "", nullptr, 2, 2, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el BINPATHS_elements[] = {
    {"task_cache_path", "", nullptr, 1, 512, 0, 0, 0, 0, 5, 1, 0, 0},
    {"client_cache_path", "", nullptr, 2, 512, 0, 0, 0, 0, 5, 1, 0, 0},
};

inline constexpr msg_el BINTAB_elements[] = {
    {"object_name", "", nullptr, 1, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"resource_name", "", nullptr, 2, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"file_name", "", nullptr, 3, 512, 0, 0, 0, 0, 3, 1, 0, 0},
    {"mod_date", "TIMESTAMP", nullptr, 4, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"cache_type", "", nullptr, 5, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 8, 7, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el REPTAB_elements[] = {
    {"reporttyp", "", nullptr, 1, 4, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filename", "", nullptr, 2, 255, 0, 0, 0, 0, 3, 1, 0, 0},
};

// clang-format on

inline constexpr catalogue_part common_catalogue[] = {
    {"ABS_TIME", ABS_TIME_elements, 6},     {"ABS_TIME2", ABS_TIME2_elements, 6},
    {"CONNTAB1", CONNTAB1_elements, 416},   {"DS      ", DS_elements, 4},
    {"INFOTEXT", INFOTEXT_elements, 32},    {"OUTFILE ", OUTFILE_elements, 513},
    {"QUITT_MSG2", QUITT_MSG2_elements, 8}, {"SDMAIL2X", SDMAIL2X_elements, 8},
    {"SNDMAILX", SNDMAILX_elements, 4},     {"STATUS_VALUE", STATUS_VALUE_elements, 1225},
    {"STEPLIST", STEPLIST_elements, 256},   {"SUB_EXSTART_1", SUB_EXSTART_1_elements, 8},
    {"TIMESTAMP", TIMESTAMP_elements, 16},  {"TIMESTAMP2", TIMESTAMP2_elements, 16},
    {"VALUETAB", VALUETAB_elements, 1226},  {"VARTAB  ", VARTAB_elements, 455},
    {"VERS    ", VERS_elements, 520},       {"ZEITZONE_STR", ZEITZONE_STR_elements, 4},
    {"BINPATHS", BINPATHS_elements, 1024},  {"BINTAB  ", BINTAB_elements, 936},
    {"REPTAB  ", REPTAB_elements, 259},
};
