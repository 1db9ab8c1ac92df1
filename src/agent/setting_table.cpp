// The rows of the table of settings. Values and their defaults stand beside each other as the readers use
// them.
#include "agent/setting_table.h"

#include <climits>

namespace {

constexpr long long any_count = INT_MAX;

constexpr known_setting text(std::string_view section, std::string_view key, std::string_view preset,
                             long long longest = 0) {
    return {section, key, SETTING_TEXT, preset, 0, longest};
}

// Without which, or with a longer one, there is no start.
constexpr known_setting needed(std::string_view section, std::string_view key, long long longest) {
    return {section, key, SETTING_TEXT, "", 0, longest, {}, "nothing, the agent does not start"};
}

constexpr known_setting yes_no(std::string_view section, std::string_view key, std::string_view preset) {
    return {section, key, SETTING_SWITCH, preset};
}

// Read as no where nobody can tell what was meant; so such a value ends the start.
constexpr known_setting guard(std::string_view section, std::string_view key, std::string_view preset) {
    known_setting row = yes_no(section, key, preset);
    row.protects = true;
    return row;
}

constexpr known_setting number(std::string_view section, std::string_view key, std::string_view preset,
                               long long low, long long high, std::string_view otherwise = {}) {
    return {section, key, SETTING_NUMBER, preset, low, high, {}, otherwise};
}

constexpr known_setting size(std::string_view section, std::string_view key, std::string_view preset) {
    return {section, key, SETTING_SIZE, preset, 0, any_count};
}

constexpr known_setting word(std::string_view section, std::string_view key, std::string_view preset,
                             std::string_view words, std::string_view otherwise,
                             setting_kind kind = SETTING_WORD) {
    return {section, key, kind, preset, 0, 0, words, otherwise};
}

constexpr known_setting level(std::string_view key) {
    return {"TRACE", key, SETTING_LEVEL, ""};
}

constexpr known_setting protecting(known_setting row) {
    row.protects = true;
    return row;
}

// Known, so that an INI file that has it is right; nothing reads it yet.
constexpr known_setting later(std::string_view section, std::string_view key) {
    known_setting row = text(section, key, "");
    row.later = true;
    return row;
}

constexpr std::string_view list_words = "START|NO_START";
constexpr std::string_view list_otherwise =
    "START, but NO_START for root and where only listed users may start";
constexpr std::string_view at_command = "nohup at -c $(su - &user -c \"&jobFile 1>> &jobReport 2>&1\")&";

constexpr known_setting rows[] = {
    needed("GLOBAL", "system", 32),
    needed("GLOBAL", "name", 32),
    text("GLOBAL", "helplib", "./QXX.msl"),
    {"GLOBAL", "language", SETTING_LANGUAGES, "(E,D)"},
    text("GLOBAL", "logging", "../temp/QXXJxxx.l##"),
    number("GLOBAL", "logcount", "3", 0, SHRT_MAX),
    text("GLOBAL", "log_group", ""),
    number("GLOBAL", "logMsgProcessing", "10", 0, any_count),
    number("GLOBAL", "job_timeout", "18000", 0, any_count),
    yes_no("GLOBAL", "ft_checkpoint", "yes"),
    yes_no("GLOBAL", "acl_check", "yes"),
    yes_no("GLOBAL", "DevPriv", "NO"),
    number("GLOBAL", "EventVersion", "1", 1, 2, "1"),
    guard("GLOBAL", "login_check", "no"),
    guard("GLOBAL", "hardened", "no"),
    number("GLOBAL", "WRITE_TIME", "30", 0, any_count),
    number("GLOBAL", "rcv_max", "30", 0, SHRT_MAX),
    size("GLOBAL", "ft_compress_strong", "10"),
    number("GLOBAL", "open_file_max", "32768", 0, any_count),
    text("GLOBAL", "hw", ""),
    text("GLOBAL", "sw", ""),
    text("GLOBAL", "sw_vers", ""),
    guard("GLOBAL", "allow_agentshell", "no"),
    number("GLOBAL", "chkstr", "0", 0, any_count),
    protecting(number("GLOBAL", "listenerUID", "65534", 0, any_count, "65534")),
    number("GLOBAL", "listenerGID", "65534", 0, any_count, "65534"),
    number("GLOBAL", "FileProcessingMaxDepth", "0", 0, any_count),
    number("GLOBAL", "FileProcessingTimeout", "0", 0, any_count),
    word("GLOBAL", "KillSignal", "SIGKILL", "TERM|ABRT|KILL|SIGTERM|SIGABRT|SIGKILL", "SIGKILL"),
    yes_no("GLOBAL", "ReadUserAlways", "no"),
    {"GLOBAL", "ReportMode", SETTING_OCTAL, "600"},
    {"GLOBAL", "JobFileMode", SETTING_OCTAL, "700"},
    protecting(word("GLOBAL", "userid_type", "EXCL", "EXCL|INCL", "EXCL")),
    protecting(word("GLOBAL", "QX_user_type", "EXCL", "EXCL|INCL", "EXCL")),
    yes_no("GLOBAL", "sigterm", "yes"),
    yes_no("GLOBAL", "sighup", "yes"),
    yes_no("GLOBAL", "sigchld", "yes"),
    yes_no("GLOBAL", "sigint", "no"),
    yes_no("GLOBAL", "sigio", "no"),
    yes_no("GLOBAL", "sigpipe", "no"),
    yes_no("GLOBAL", "sigusr1", "yes"),
    yes_no("GLOBAL", "sigusr2", "yes"),
    yes_no("GLOBAL", "sigill", "no"),
    yes_no("GLOBAL", "sigbus", "no"),
    yes_no("GLOBAL", "sigfpe", "no"),
    yes_no("GLOBAL", "sigsegv", "no"),
    text("GLOBAL", "FT_Owner", "user"),
    word("GLOBAL", "FT_uid", "none", "PARENT|USER|NONE", "NONE"),
    word("GLOBAL", "FT_gid", "", "PARENT|USER|NONE", "NONE"),
    yes_no("GLOBAL", "ft_temp_file", "yes"),
    later("GLOBAL", "ServiceProgramStartCommand"),

    {"TCP/IP", "cp", SETTING_ENDPOINT, ""},
    {"TCP/IP", "port", SETTING_PORT, ""},
    text("TCP/IP", "bindaddr", ""),
    yes_no("TCP/IP", "bindlocal", "0"),
    number("TCP/IP", "connect", "", 0, any_count, "0, so the value of alarm counts"),
    number("TCP/IP", "alarm", "60", 1, any_count, "60"),
    number("TCP/IP", "connwait", "20", 1, any_count),
    number("TCP/IP", "maxrepcnt", "8", 0, any_count),
    number("TCP/IP", "SnoozeDelay", "0", 0, SHRT_MAX),
    size("TCP/IP", "RecvBufferSize", "1048576"),
    size("TCP/IP", "SendBufferSize", "1048576"),
    number("TCP/IP", "maxMsgSize", "500000", 0, any_count),
    word("TCP/IP", "send_thread", "FT", "FT|IO", "FT"),
    yes_no("TCP/IP", "tcp_nodelay", "yes"),
    yes_no("TCP/IP", "tcp_keepalive", "yes"),
    number("TCP/IP", "tcp_keepalive_time", "0", 0, any_count),
    number("TCP/IP", "chiffre", "1", 0, SCHAR_MAX),
    yes_no("TCP/IP", "CloseConnection", "no"),
    {"CP_LIST", "*", SETTING_TEXT, "", 1, 65535},

    needed("VARIABLES", "QX_EX_JOB_MD", 128),
    text("VARIABLES", "QX_EX_PATH_TEMP", "../temp"),
    text("VARIABLES", "QX_EX_PATH_JOBREPORT", "../out"),
    text("VARIABLES", "QX_EX_PATH_BACKUP", "../backup"),
    text("VARIABLES", "QX_EX_PATH_CACHE", ""),
    text("VARIABLES", "QX_EX_PATH_BIN", "./"),
    text("VARIABLES", "QX_EX_JOB_SERVICE", "./qxxjlnxs"),
    text("VARIABLES", "QX_HOST_CODE", ""),
    text("VARIABLES", "QX_HOST_JCL_VAR", ""),
    text("VARIABLES", "QX_AGENT_SW", ""),
    text("VARIABLES", "QX_AGENT_HW", ""),
    text("VARIABLES", "QX_AGENT_PLATFORM", ""),
    text("VARIABLES", "*", ""),

    word("STARTCMD", "start_type", "fork", "fork|vfork|batch", "batch"),
    number("STARTCMD", "batch_wait", "0", 0, any_count, "0"),
    text("STARTCMD", "Bourne-Shell", at_command),
    text("STARTCMD", "Korn-Shell", at_command),
    text("STARTCMD", "C-Shell", at_command),
    text("STARTCMD", "Other-Shell", at_command),
    text("STARTCMD", "Bourne_Shell_Opt", "-c", 15),
    text("STARTCMD", "Korn_Shell_Opt", "-c", 15),
    text("STARTCMD", "C_Shell_Opt", "-c", 15),
    text("STARTCMD", "shell_pfad", ""),
    word("STARTCMD", "close_stdin", "no", "yes|no", "no", SETTING_EXACT),
    word("STARTCMD", "stdin_dummy", "yes", "yes|no", "no", SETTING_EXACT),
    word("USERID", "*", "", list_words, list_otherwise),
    {"QX_USER", "*", SETTING_WORD, "", 0, any_count, list_words, list_otherwise},

    protecting(word("MISC", "authentication", "local", "PAM|local", "local")),
    text("PAM", "libname", "libpam.so"),
    yes_no("PAM", "pam_open_session", "no"),
    yes_no("PAM", "pam_open_session_child_process", "yes"),
    yes_no("PAM", "pam_setcred", "yes"),
    text("AUTHORIZATION", "KeyStore", "KStore.ini"),
    text("AUTHORIZATION", "InitialPackage", ""),
    guard("AUTHORIZATION", "first_contact", "yes"),

    yes_no("MISC", "MsgToStdout", "NO"),
    yes_no("MISC", "ProcessInfo", "yes"),
    yes_no("MISC", "StartBatchJobWithRootPrivileges", "no"),
    size("MISC", "TraceFileSize", "0"),
    size("MISC", "FileBufferSize", "0"),
    size("MISC", "FtpSendMessageSize", "32256"),
    yes_no("MISC", "FileNameLowerCase", "no"),
    yes_no("MISC", "FileEndDelimiter", "no"),
    yes_no("MISC", "FileRemoveCheck", "yes"),
    number("MISC", "ServerFaktor", "5", 0, SHRT_MAX),
    number("MISC", "ERP_chkj2", "20", 0, any_count),
    number("MISC", "InfoMsg", "0", 0, SCHAR_MAX),
    number("MISC", "maxtakt", "100", 0, SHRT_MAX),
    later("MISC", "iosMaxIdle"),
    yes_no("MISC", "FT_Performance_Test", "no"),
    yes_no("MISC", "FT_Linkfiles", "no"),
    number("FILETRANSFER", "ftx_restart_intervall", "5", 0, SHRT_MAX),
    number("FILETRANSFER", "ftx_status_intervall", "5", 0, SHRT_MAX),
    number("FILETRANSFER", "ftx_report_intervall", "5", 0, SHRT_MAX),
    text("FILETRANSFER", "ft_template", "T&runtxt.tmp"),
    yes_no("FILETRANSFER", "ft_check_free_disk_space", "no"),
    yes_no("FILETRANSFER", "FT_Linkfiles", "no"),
    number("FILETRANSFER", "ft_ConnectingTimeout", "10", 1, any_count, "1"),
    yes_no("FILETRANSFER", "ftxinf_simulation", "no"),
    yes_no("FILETRANSFER", "FT_HostResolving", "yes"),
    number("FILETRANSFER", "ft_delayed_shutdown", "0", 0, any_count),
    yes_no("FT", "FtRemoveFile", "YES"),
    yes_no("SAP_BW", "enabled", "0"),
    yes_no("SAP_BCA", "enabled", "0"),
    yes_no("SAP_XI", "enabled", "0"),

    text("MAIL", "smtp_server", ""),
    text("MAIL", "smtp_from_addr", ""),
    text("MAIL", "smtp_username", ""),
    {"MAIL", "smtp_password", SETTING_ENCIPHERED, "", 0, 62},
    text("MAIL", "charset", "iso-8859-1"),

    text("TRACE", "file", "../temp/QXXJxxx.t##"),
    number("TRACE", "trccount", "3", 0, SHRT_MAX),
    {"TRACE", "memory", SETTING_LEVEL, "0", 0, 0, {}, "1"},
    number("TRACE", "MaxTraceSize", "128", 0, any_count),
    yes_no("TRACE", "log_thread_id", "no"),
    number("TRACE", "MNRdark", "0", 0, SCHAR_MAX),
    level("all_trace"),
    level("tcp/ip"),
    level("ft_debug"),
    level("filetransfer"),
    level("job_debug"),
    level("ex_init"),
    level("signal"),
    level("event"),
    level("fh_debug"),
    level("mail"),
    level("var_debug"),
    level("log_debug"),
    level("getfile"),
    level("zu_debug"),
    level("dnst_debug"),
    level("file_debug"),
};

}  // namespace

std::span<const known_setting> all_settings() {
    return rows;
}
