// Logon, liveness, administration, log and mail: the messages between agent and server that concern the agent
// itself. A part of the catalogue (see catalogue.h for the columns).
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr msg_el EXSTART2_elements[] = {
    {"host", "", "notempty()", 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"hw", "", "notempty()", 2, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"sw", "", "notempty()", 3, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"sw_vers", "", "notempty()", 4, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"version", "VERS", nullptr, 5, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"reserved1", "", nullptr, 6, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"starttype", "", "enum('W', 'C')", 7, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"processid", "", "notempty()", 10, 10, 0, 0, 0, 0, 3, 1, 0, 0},
    {"daylight", "", "enum('Y','N')", 11, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 14, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"ah_idnr", "", nullptr, 15, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rep_type", "", nullptr, 16, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"service", "", nullptr, 17, 4, 0, 0, 0, 0, 2, 1, 0, 0},
    {"starttime", "TIMESTAMP", nullptr, 33, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"acttime", "TIMESTAMP", nullptr, 34, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"zeitzone", "ZEITZONE_STR", nullptr, 35, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"ipadr", "", "notempty()", 36, 64, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ipport", "", "gt(0)", 37, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"codename", "", "notempty()", 38, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"jclvar", "", "notempty()", 39, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"varanz", "", "gt(0)", 40, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"vardist", "", nullptr, 41, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cpu_count", "", "gt(0)", 42, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"erp_user1", "", nullptr, 43, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"erp_user2", "", nullptr, 44, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"erp_user3", "", nullptr, 45, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"erp_user4", "", nullptr, 46, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"erp_user5", "", nullptr, 47, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 48, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"ds", "DS", nullptr, 49, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"inilen", "", nullptr, 50, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"inidist", "", nullptr, 51, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"Components", "SUB_EXSTART_1", nullptr, 52, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"conn_id", "", nullptr, 53, 32, 0, 0, 0, 0, 3, 2, 0, 0},
    {"vartab", "VARTAB", nullptr, 54, 0, -40, -41, 0, 0, 8, 1, 34, 0},
    {"inicontent", "", nullptr, 55, -50, 0, -51, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el EXSTRTQ2_elements[] = {
    {"system_name", "", "notempty()", 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"version", "VERS", nullptr, 2, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"rep_type", "", "notempty()", 3, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"code_dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"code_len", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ip_dist", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ip_len", "", "range(0, 128)", 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"conntab_dist", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"conntab_entrs", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"valuetab_dist", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"valuetab_entrs", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"charset", "", nullptr, 12, 30, 0, 0, 0, 0, 3, 1, 0, 0},
    {"use_event", "", nullptr, 13, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"anonymous_job", "", "enum('Y','N')", 16, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"anonymous_ft", "", "enum('Y','N')", 19, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"log_to_db", "", "enum('Y','N')", 22, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"enc_comp", "", "enum('Y','N')", 25, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"anonymous_fe", "", nullptr, 28, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ah_idnr", "", nullptr, 31, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"job_check", "", nullptr, 32, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"keep_alive", "", nullptr, 33, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"reconnect", "", nullptr, 34, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"report", "", "gt(0)", 35, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"blksize", "", "gt(0)", 36, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cmd_timeout", "", "gt(0)", 37, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"component", "", nullptr, 38, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"compTimeStamp", "TIMESTAMP", nullptr, 39, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"perfcounter", "", nullptr, 40, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"max_file_count", "", nullptr, 41, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"check_interval", "", "gt(0)", 42, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ft_rst_life", "", "gt(0)", 43, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rb_rt_time", "", "gt(0)", 44, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"rb_rt_check", "ABS_TIME2", nullptr, 45, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"ft_rst_check", "ABS_TIME", nullptr, 46, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"ft_stat_timer", "", "gt(0)", 47, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ft_rst_timer", "", "gt(0)", 48, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ft_con_timeout", "", "gt(0)", 49, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ft_report_time", "", "gt(0)", 50, 2, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ft_use_md5", "", "enum('Y','N')", 51, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"fe_version", "", nullptr, 54, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 55, 6, 0, 0, 0, 0, 98, 1, 0, 0},
    {"token", "", nullptr, 56, 128, 0, 0, 0, 0, 3, 1, 0, 0},
    {"settings_dist", "", nullptr, 57, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"settings_entries", "", nullptr, 58, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_timestamp", "TIMESTAMP2", nullptr, 59, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"chglog_intvl", "", nullptr, 60, 4, 0, 0, 0, 0, 2, 2, 0, 0},
    {"chglog_size", "", nullptr, 61, 4, 0, 0, 0, 0, 2, 2, 0, 0},
    {"code", "", nullptr, 62, -5, 0, -4, 0, 0, 7, 1, 2, 0},
    {"ip_list", "", nullptr, 63, -7, 0, -6, 0, 0, 4, 1, 2, 0},
    {"conntab", "CONNTAB1", nullptr, 64, 0, -9, -8, 0, 0, 8, 1, 0, 0},
    {"valuetab", "VALUETAB", nullptr, 65, 0, -11, -10, 0, 0, 8, 1, 0, 0},
    {"settings", "VARTAB", nullptr, 66, 0, -58, -57, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el EXSTOP_elements[] = {
    {"host", "", nullptr, 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"conn_id", "", nullptr, 2, 32, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el EXQUERY_elements[] = {
    {"srvtime", "TIMESTAMP", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"ping1", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ping2", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"connection", "", nullptr, 4, 200, 0, 0, 0, 0, 3, 1, 0, 0},
    {"connection_ts", "TIMESTAMP", nullptr, 5, 0, 0, 0, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el EXINFO_elements[] = {
    {"srvtime", "TIMESTAMP", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"extime", "TIMESTAMP", nullptr, 2, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"ping1", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ping2", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ftcount", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"jobcount", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"connectcount", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"cputime", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"iocount", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"sysflag", "", nullptr, 10, 1, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 12, 3, 0, 0, 0, 0, 98, 1, 0, 0},
    {"pcount", "", nullptr, 13, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"LastCheck", "TIMESTAMP", nullptr, 14, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"msg_nr", "", nullptr, 15, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 16, 1024, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 17, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"hardware", "", nullptr, 18, 32, 0, 0, 0, 0, 3, 2, 0, 0},
    {"software", "", nullptr, 19, 32, 0, 0, 0, 0, 3, 2, 0, 0},
    {"sw_version", "", nullptr, 20, 32, 0, 0, 0, 0, 3, 2, 0, 0},
};

inline constexpr msg_el SRVQUERY_elements[] = {
    {"extime", "TIMESTAMP", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"anonym", "", nullptr, 2, 8, 0, 0, 0, 0, 6, 1, 0, 0},
};

inline constexpr msg_el SRVINFO_elements[] = {
    {"extime", "TIMESTAMP", nullptr, 1, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"srtime", "TIMESTAMP", nullptr, 2, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"anonym", "", nullptr, 3, 8, 0, 0, 0, 0, 6, 1, 0, 0},
};

inline constexpr msg_el CONNECT_elements[] = {
    {"name", "", nullptr, 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ipaddr", "", nullptr, 2, 64, 0, 0, 0, 0, 3, 1, 0, 0},
    {"port", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 4, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"gss_dist", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"gss_len", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"gss_token", "", nullptr, 7, -6, 0, -5, 0, 0, 7, 1, 2, 0},
};

inline constexpr msg_el TRCGET_elements[] = {
    {"host", "", nullptr, 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el TRCSET_elements[] = {
    {"host", "", nullptr, 1, 32, 0, 0, 0, 0, 3, 1, 0, 0},
    {"flags", "", nullptr, 2, 16, 0, 0, 0, 0, 3, 1, 0, 0},
    {"max_task", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"keep_alive", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"max_report", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"log_mb", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"log_days", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"min_envt_int", "", nullptr, 8, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"res_api_users", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"last_use", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"max_ft", "", nullptr, 11, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 12, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"max_size", "", nullptr, 13, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"trigger_type", "", nullptr, 14, 1, 0, 0, 0, 0, 3, 2, 0, 0},
    {"mem_trace", "", nullptr, 17, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"dump_memory", "", nullptr, 20, 1, 0, 0, 0, 0, 3, 2, 0, 0},
    {"force_trace", "", nullptr, 23, 1, 0, 0, 0, 0, 3, 1, 0, 0},
    {"trigger_len", "", nullptr, 27, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"trigger_dist", "", nullptr, 28, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"zwang_info_msgnr", "", nullptr, 29, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"zwang_info_len", "", nullptr, 30, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"zwang_info_dist", "", nullptr, 31, 4, 0, 0, 0, 0, 1, 2, 0, 0},
    {"trigger", "", nullptr, 32, -27, 0, -28, 0, 0, 4, 2, 0, 0},
    {"zwang_info", "", nullptr, 33, -30, 0, -31, 0, 0, 4, 2, 0, 0},
};

inline constexpr msg_el CHGLOG_elements[] = {
    {"rtyp", "", "notempty()", 1, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ah_idnr", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
};

inline constexpr msg_el CHGLOGQU_elements[] = {
    {"ah_idnr_old", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"ah_idnr_new", "", nullptr, 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"timestamp", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"rep_count", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 5, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"wp_name", "", nullptr, 6, 32, 0, 0, 0, 0, 3, 1, 0, 0},
};

inline constexpr msg_el CHGLOGR_elements[] = {
    {"ah_idnr_old", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el WRITE_elements[] = {
    {"typ", "", "notempty()", 1, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"ah_idnr", "", "gt(0)", 2, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"timestamp", "TIMESTAMP", nullptr, 3, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"msgnr", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"blksize", "", "range(0,32768)", 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"inhalt_dist", "", nullptr, 6, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"inhalt_len", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"inhalt", "", nullptr, 8, -7, 0, -6, 0, 0, 4, 1, 0, 0},
};

inline constexpr msg_el SNOOZE_elements[] = {
    {"filler", "", nullptr, 1, 16, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el WAKEUP_elements[] = {
    {"filler", "", nullptr, 1, 16, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el SNDMAIL_elements[] = {
    {"subject", "", nullptr, 1, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 2, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"ah_idnr", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"entries", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 6, 52, 0, 0, 0, 0, 98, 1, 0, 0},
    {"sub", "SNDMAILX", nullptr, 7, 0, -5, -4, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el SNDMAIL2_elements[] = {
    {"subject", "", nullptr, 1, 255, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 2, 1, 0, 0, 0, 0, 98, 1, 0, 0},
    {"ah_idnr", "", nullptr, 3, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"entries", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 6, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"sub", "SDMAIL2X", nullptr, 7, 0, -5, -4, 0, 0, 8, 1, 0, 0},
};

inline constexpr msg_el EX_CLEAN_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el EX_UPGRD_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
    {"cau_report", "", nullptr, 3, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"bintab_dist", "", nullptr, 4, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"bintab_entries", "", nullptr, 5, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"bintab", "BINTAB", nullptr, 6, 0, -5, -4, 0, 0, 8, 1, 32, 0},
};

inline constexpr msg_el EX_UPCAN_elements[] = {
    {"ah_idnr", "", nullptr, 1, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"filler", "", nullptr, 2, 4, 0, 0, 0, 0, 98, 1, 0, 0},
};

inline constexpr msg_el QUITT_elements[] = {
    {"quitt", "", nullptr, 1, 2, 0, 0, 0, 0, 3, 1, 0, 0},
    {"filler", "", nullptr, 4, 2, 0, 0, 0, 0, 98, 1, 0, 0},
    {"msg", "", nullptr, 5, 8, 0, 0, 0, 0, 3, 1, 0, 0},
    {"msg2", "QUITT_MSG2", nullptr, 6, 0, 0, 0, 0, 0, 8, 1, 0, 0},
    {"msgnr", "", nullptr, 7, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_insert", "", nullptr, 8, 256, 0, 0, 0, 0, 3, 1, 0, 0},
    {"msg_dist", "", nullptr, 9, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_len", "", nullptr, 10, 4, 0, 0, 0, 0, 1, 1, 0, 0},
    {"msg_content", "", nullptr, 11, -10, 0, -9, 0, 0, 7, 1, 2, 0},
};

// clang-format on

inline constexpr catalogue_part server_catalogue[] = {
    {"EXSTART2", EXSTART2_elements, 1120}, {"EXSTRTQ2", EXSTRTQ2_elements, 1092},
    {"EXSTOP  ", EXSTOP_elements, 80},     {"EXQUERY ", EXQUERY_elements, 256},
    {"EXINFO  ", EXINFO_elements, 1228},   {"SRVQUERY", SRVQUERY_elements, 40},
    {"SRVINFO ", SRVINFO_elements, 56},    {"CONNECT ", CONNECT_elements, 128},
    {"TRCGET  ", TRCGET_elements, 48},     {"TRCSET  ", TRCSET_elements, 132},
    {"CHGLOG  ", CHGLOG_elements, 28},     {"CHGLOGQU", CHGLOGQU_elements, 80},
    {"CHGLOGR ", CHGLOGR_elements, 24},    {"WRITE   ", WRITE_elements, 60},
    {"SNOOZE  ", SNOOZE_elements, 32},     {"WAKEUP  ", WAKEUP_elements, 32},
    {"SNDMAIL ", SNDMAIL_elements, 336},   {"SNDMAIL2", SNDMAIL2_elements, 288},
    {"EX_CLEAN", EX_CLEAN_elements, 24},   {"EX_UPGRD", EX_UPGRD_elements, 288},
    {"EX_UPCAN", EX_UPCAN_elements, 24},   {"QUITT   ", QUITT_elements, 304},
};
