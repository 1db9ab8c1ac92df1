// PcxInit: the context from the INI file, step by step. The order of the steps must stay: each needs the ones
// before.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "agent/modules.h"
#include "agent/settings.h"
#include "agent/settings_check.h"
#include "agent/start_warnings.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/profile.h"
#include "base/text.h"
#include "log/log.h"
#include "log/trace.h"

#ifndef QX_CHANGELIST
#define QX_CHANGELIST 1
#endif

namespace {

constexpr int name_max = 32;
constexpr int messenger_max = 128;
constexpr mode_t shared_folder_mode = 01777;  // the sticky bit keeps one user's files from another
constexpr mode_t permission_bits = 07777;

// The setting that the current step reads, for the explanation of a failure.
struct failing_setting {
    const char* section;
    const char* key;
};
failing_setting current = {"", ""};

void reading(const char* section, const char* key) {
    current = {section, key};
}

int setting_error(qx7_error* error, const char* insert) {
    return qx_error_set(error, -1, 0, number_bad_setting, "%s", insert);
}

// ---- names, library, languages

void read_trace_memory(EX_PCX* pcx) {
    pcx->trc_count = 0;
    pcx->trc_trigger_text = nullptr;
    char memory[32];
    pcx->getProfileString(pcx, "TRACE", "memory", "0", memory, sizeof memory);
    if (memory[0] != '0') {
        pcx->trc_flag |= TRC_SETTING_MEMORY;
    }
    pcx->trc_max_size = std::max(pcx->getProfileInt(pcx, "TRACE", "MaxTraceSize", "128"), 0);
}

int read_name(EX_PCX* pcx, qx7_error* error) {
    reading("GLOBAL", "name");
    char name[512];
    pcx->getProfileString(pcx, "GLOBAL", "name", pcx->exNodeName, name, sizeof name);
    const size_t length = EatString(name);
    if (length == 0 || length > name_max) {
        return setting_error(error, "name|GLOBAL");
    }
    copy_text(pcx->exName, upper(name));
    return 0;
}

int read_system(EX_PCX* pcx, qx7_error* error) {
    reading("GLOBAL", "system");
    char name[512];
    pcx->getProfileString(pcx, "GLOBAL", "system", "", name, sizeof name);
    const size_t length = EatString(name);
    if (length == 0 || length > name_max) {
        return setting_error(error, "system|GLOBAL");
    }
    copy_text(pcx->sysName, upper(name));
    return 0;
}

int open_message_library(EX_PCX* pcx, qx7_error* error) {
    reading("GLOBAL", "helplib");
    char name[qx_path_size];
    pcx->getProfileString(pcx, "GLOBAL", "helplib", "./QXX.msl", name, sizeof name);
    if (GetFilePfad(name, pcx->pcx_WorkFolder, pcx->hlpFile, sizeof pcx->hlpFile) != 0) {
        return file_error(error, "GetFilePfad()", name, errno);
    }
    if (access(pcx->hlpFile, R_OK) != 0) {
        return file_error(error, "access()", pcx->hlpFile, errno);
    }
    pcx->hlpHnd = ZUHELP_Open(pcx->hlpFile, 2);
    if (pcx->hlpHnd == nullptr) {
        return file_error(error, "ZUHELP_Open()", pcx->hlpFile, errno);
    }
    return 0;
}

void read_languages(EX_PCX* pcx) {
    char text[64];
    char main_language;
    char sub_language;
    pcx->getProfileString(pcx, "GLOBAL", "language", "(E,D)", text, sizeof text);
    settings_languages(text, &main_language, &sub_language);
    ZUHELP_SetLang(pcx->hlpHnd, main_language, sub_language);
}

// ---- trace and log

// A larger number means the largest, not what is left of it in 16 bits.
short read_short(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    return static_cast<short>(std::clamp(pcx->getProfileInt(pcx, section, key, preset), 0, SHRT_MAX));
}

void read_intervals(EX_PCX* pcx) {
    pcx->trc_count = read_short(pcx, "TRACE", "trccount", "3");
    pcx->ftx_restart_intervall = read_short(pcx, "FILETRANSFER", "ftx_restart_intervall", "5");
    pcx->ftx_sta_intervall = read_short(pcx, "FILETRANSFER", "ftx_status_intervall", "5");
    pcx->ftx_report_intervall = read_short(pcx, "FILETRANSFER", "ftx_report_intervall", "5");
}

// The folder of a log or trace file, completed against the work folder and made when it is missing: these
// files are opened before the directories of section VARIABLES are looked at, and usually stand in one of
// them.
int complete_file_name(const EX_PCX* pcx, const char* name, char* out, size_t size, qx7_error* error) {
    std::string folder(path_folder_name(name));
    const std::string file(path_file_name(name));
    if (folder.empty()) {
        folder = "./";
    }
    char completed[qx_path_size];
    if (GetFilePfad(folder.c_str(), pcx->pcx_WorkFolder, completed, sizeof completed) != 0) {
        return file_error(error, "GetFilePfad()", folder.c_str(), errno);
    }
    if (CheckDir(completed) != 0 && create_Dir_Mode(completed, 0755, error) != 0) {
        return file_error(error, "mkdir()", completed, errno);
    }
    const std::string whole = std::string(completed) + "/" + file;
    if (copy_text(out, size, whole) < whole.size()) {
        errno = ERANGE;
        return file_error(error, "GetFilePfad()", name, errno);
    }
    return 0;
}

int open_trace(EX_PCX* pcx, qx7_error* error, bool* no_handle) {
    reading("TRACE", "file");
    char name[qx_path_size];
    pcx->getProfileString(pcx, "TRACE", "file", "../temp/QXXJxxx.t##", name, sizeof name);
    if (complete_file_name(pcx, name, pcx->trc_file, sizeof pcx->trc_file, error) != 0) {
        return -1;
    }
    pcx->trcHnd = ZUTRACE_Open(pcx->trc_file);
    if (pcx->trcHnd == nullptr) {
        printf("Unable to activate trace module\n");
        *no_handle = true;
        return -1;
    }
    InitTrcFlgs(pcx);
    OpenTraceFile(pcx);
    return 0;
}

int open_log(EX_PCX* pcx, qx7_error* error) {
    reading("GLOBAL", "logging");
    pcx->logCount = read_short(pcx, "GLOBAL", "logcount", "3");
    char name[qx_path_size];
    pcx->getProfileString(pcx, "GLOBAL", "logging", "../temp/QXXJxxx.l##", name, sizeof name);
    if (complete_file_name(pcx, name, pcx->logFile, sizeof pcx->logFile, error) != 0) {
        return -1;
    }
    pcx->iMsgToStdout = pcx->getProfileBool(pcx, "MISC", "MsgToStdout", "NO") ||
                        pcx->getProfileBool(pcx, "GLOBAL", "DevPriv", "NO");
    pcx->cLogToDb = 0;
    if (CreateLogHandle(pcx) != 0) {
        return file_error(error, "CreateLogHandle()", pcx->logFile, errno);
    }
    ZULOGG_UsePrintMsg(pcx->logHnd, pcx->iMsgToStdout != 0);
    if (OpenLogFile(pcx) != 0) {
        return file_error(error, "OpenLogFile()", pcx->logFile, errno);
    }
    return 0;
}

// For a person at a terminal and for the service manager's journal, which see nothing else of the start.
void tell_warnings(const EX_PCX* pcx) {
    for (const std::string& warning : start_warnings(pcx)) {
        fprintf(stderr, "%s: warning: %s\n", pcx->ProgName, warning.c_str());
        __PutLogText("warning: %s", warning.c_str());
    }
    char resolved[qx_path_size];
    const char* log = pcx->logHnd->filename;
    fprintf(stderr, "%s: agent %s of system %s, its log is '%s'\n", pcx->ProgName, pcx->exName, pcx->sysName,
            realpath(log, resolved) == nullptr ? log : resolved);
}

int read_messenger(EX_PCX* pcx, qx7_error* error) {
    reading("VARIABLES", "QX_EX_JOB_MD");
    char name[512];
    pcx->getProfileString(pcx, "VARIABLES", "QX_EX_JOB_MD", "", name, sizeof name);
    const size_t length = strlen(name);
    if (length == 0 || length > messenger_max) {
        return setting_error(error, "QX_EX_JOB_MD|VARIABLES|");
    }
    copy_text(pcx->meldName, name);
    return 0;
}

// ---- directories

int read_folder(EX_PCX* pcx, const char* key, const char* preset, char (&out)[qx_path_size],
                qx7_error* error) {
    reading("VARIABLES", key);
    char name[qx_path_size];
    pcx->getProfileString(pcx, "VARIABLES", key, preset, name, sizeof name);
    return createUnixPath(pcx->pcx_WorkFolder, name, out, error);
}

// A path that did not exist was not resolved: once its folder is made, the short form goes to the server.
void resolve_made_folder(char (&path)[qx_path_size]) {
    char resolved[qx_path_size];
    if (realpath(path, resolved) != nullptr) {
        copy_text(path, resolved);
    }
}

// No call when the mode is right already: an ordinary user may work in a directory that is not his own.
int share_folder(const char* path, qx7_error* error) {
    struct stat status;
    if (stat(path, &status) == 0 && (status.st_mode & permission_bits) == shared_folder_mode) {
        return 0;
    }
    return chmod(path, shared_folder_mode) == 0 ? 0 : file_error(error, "chmod()", path, errno);
}

int open_shared_folder(EX_PCX* pcx, const char* key, const char* preset, mode_t first_mode,
                       char (&out)[qx_path_size], qx7_error* error) {
    if (read_folder(pcx, key, preset, out, error) != 0) {
        return -1;
    }
    if (CheckDir(out) != 0 && mkdir(out, first_mode) != 0) {
        return file_error(error, "mkdir()", out, errno);
    }
    resolve_made_folder(out);
    return share_folder(out, error);
}

int open_backup_folder(EX_PCX* pcx, qx7_error* error) {
    if (read_folder(pcx, "QX_EX_PATH_BACKUP", "../backup", pcx->pcx_rb_dir, error) != 0) {
        return -1;
    }
    if (CheckDir(pcx->pcx_rb_dir) != 0 && create_Dir(pcx->pcx_rb_dir, error) != 0) {
        const int number = error->qx_errno != 0 ? error->qx_errno : errno;
        return qx_error_set(error, -1, number, number_file_call, "create_Dir()|%s|%u|%s", pcx->pcx_rb_dir,
                            static_cast<unsigned>(number), strerror(number));
    }
    resolve_made_folder(pcx->pcx_rb_dir);
    return 0;
}

int open_cache_folder(EX_PCX* pcx, qx7_error* error) {
    char preset[qx_path_size + 32];
    snprintf(preset, sizeof preset, "%s/../resources/", pcx->pcx_work_dir);
    if (read_folder(pcx, "QX_EX_PATH_CACHE", preset, pcx->pcx_res_dir, error) != 0) {
        return -1;
    }
    if (CheckDir(pcx->pcx_res_dir) != 0 && create_Dir_Mode(pcx->pcx_res_dir, 0775, error) != 0) {
        const int number = error->qx_errno != 0 ? error->qx_errno : errno;
        return qx_error_set(error, -1, number, number_file_call, "create_Dir_Mode()|%s|%d|%s",
                            pcx->pcx_res_dir, number, strerror(number));
    }
    resolve_made_folder(pcx->pcx_res_dir);
    return 0;
}

// A service program that does not exist is no error: file events then work without it.
int find_programs(EX_PCX* pcx, qx7_error* error) {
    if (read_folder(pcx, "QX_EX_PATH_BIN", "./", pcx->pcx_BinFolder, error) != 0) {
        return -1;
    }
    reading("VARIABLES", "QX_EX_JOB_SERVICE");
    char name[qx_path_size];
    pcx->getProfileString(pcx, "VARIABLES", "QX_EX_JOB_SERVICE", "./qxxjlnxs", name, sizeof name);
    return createUnixPath(pcx->pcx_BinFolder, name, pcx->pcx_ioService, error);
}

int open_folders(EX_PCX* pcx, qx7_error* error) {
    if (open_shared_folder(pcx, "QX_EX_PATH_TEMP", "../temp", 0777, pcx->pcx_TmpFolder, error) != 0 ||
        open_shared_folder(pcx, "QX_EX_PATH_JOBREPORT", "../out", 0700, pcx->pcx_OutFolder, error) != 0 ||
        open_backup_folder(pcx, error) != 0 || open_cache_folder(pcx, error) != 0) {
        return -1;
    }
    return find_programs(pcx, error);
}

// ---- identity, modules, the rest

int catalogue_error(qx7_error* error, const char* path, const FILE_CAT& catalogue) {
    return file_error(error, "GetFileCatalog()", path, catalogue.fc_errno);
}

int find_status(EX_PCX* pcx, qx7_error* error) {
    reading("", "");
    static FILE_CAT catalogue;  // 12 KB of names
    GetFileCatalog(pcx->ProgPfad, 0, CATALOGUE_ALL, nullptr, &catalogue);
    if (catalogue.fc_errno != 0) {
        return catalogue_error(error, pcx->ProgPfad, catalogue);
    }
    __log(number_file_attributes, "%s|", PutFileAttr(&catalogue).c_str());
    pcx->ExecutorStatus = EXECUTOR_PRIVILEGED;
    const bool set_user_id = catalogue.fc_uid == 0 && (catalogue.fc_statmode & S_ISUID) != 0;
    if (pcx->pcx_strt_euid != 0 && !set_user_id) {
        pcx->ExecutorStatus = EXECUTOR_UNPRIVILEGED;
        __log(number_agent_without_root, "%s|", pcx->efUserName);
    }
    GetFileCatalog(pcx->IniFile, 0, CATALOGUE_ALL, nullptr, &catalogue);
    if (catalogue.fc_errno != 0) {
        return catalogue_error(error, pcx->IniFile, catalogue);
    }
    __log(number_file_attributes, "%s|", PutFileAttr(&catalogue).c_str());
    if (pcx->ExecutorStatus == EXECUTOR_PRIVILEGED) {
        __log(number_agent_with_root, "%s|", pcx->efUserName);
    }
    return 0;
}

void read_rest(EX_PCX* pcx) {
    pcx->pcx_Auth = AUTH_LOCAL;
    const int seconds = pcx->getProfileInt(pcx, "TCP/IP", "connwait", "20");
    pcx->connwait = seconds < 1 ? 1 : seconds;
}

int run_steps(EX_PCX* pcx, const char* program_path, qx7_error* error, bool* no_handle) {
    settings_program(pcx, program_path);
    read_trace_memory(pcx);
    if (read_name(pcx, error) != 0 || read_system(pcx, error) != 0 || open_message_library(pcx, error) != 0) {
        return -1;
    }
    read_languages(pcx);
    read_intervals(pcx);
    if (open_trace(pcx, error, no_handle) != 0 || open_log(pcx, error) != 0) {
        return -1;
    }
    reading("", "");
    if (settings_log_faults(pcx, error) != 0) {
        return -1;
    }
    tell_warnings(pcx);
    const int timeout = pcx->getProfileInt(pcx, "GLOBAL", "job_timeout", "18000");
    pcx->Per_JobTimeout = timeout < 0 ? 0 : timeout;
    if (read_messenger(pcx, error) != 0 || open_folders(pcx, error) != 0) {
        return -1;
    }
    __log(number_agent_starts, "%s|%s|%i|", pcx->exName, pcx->exVers, QX_CHANGELIST);
    __log(number_agent_built, "%s|%s|", __DATE__, __TIME__);
    if (find_status(pcx, error) != 0 || open_modules(pcx, error) != 0) {
        return -1;
    }
    read_rest(pcx);
    return 0;
}

const char* remedy_of(const qx7_error& error) {
    if (error.qx_msgnr != number_bad_setting) {
        return "name a path that the agent's user may use, or give that user the right";
    }
    return std::string_view(current.key) == "QX_EX_JOB_MD"
               ? "set it to the job messenger's path, at most 128 characters"
               : "set it to a name of 1 to 32 characters";
}

}  // namespace

void settings_program(EX_PCX* pcx, const char* program_path) {
    copy_text(pcx->ProgPfad, program_path);
    const char* slash = strrchr(pcx->ProgPfad, '/');
    copy_text(pcx->ProgName, slash == nullptr ? pcx->ProgPfad : slash + 1);
    if (slash == nullptr) {
        GetCurrDir(pcx->pcx_WorkFolder, sizeof pcx->pcx_WorkFolder);
    } else {
        // A program in the root has the root as its folder, not an empty name.
        const size_t length = slash == pcx->ProgPfad ? 1 : static_cast<size_t>(slash - pcx->ProgPfad);
        copy_text(pcx->pcx_WorkFolder, std::string_view(pcx->ProgPfad, length));
    }
    copy_text(pcx->exVers, qx_version);
    if (gethostname(pcx->exNodeName, sizeof pcx->exNodeName - 1) != 0) {
        copy_text(pcx->exNodeName, "localhost");
    }
}

EX_PCX* PcxInit(const char* ini, const char* program_path, qx7_error* error) {
    reading("", "");
    EX_PCX* pcx = PcxMalloc(ini, error);
    if (pcx == nullptr || error->qx_msgnr != 0) {
        return pcx;
    }
    settings_tell_faults(pcx, stderr);
    bool no_trace_handle = false;
    run_steps(pcx, program_path, error, &no_trace_handle);
    return no_trace_handle ? nullptr : pcx;
}

void settings_explain(const EX_PCX* pcx, const qx7_error& error, FILE* out) {
    if (access(pcx->IniFile, R_OK) != 0) {
        fprintf(out, "%s: the INI file '%s' cannot be read (%s): let the agent's user read it\n",
                pcx->ProgName, pcx->IniFile, strerror(errno));
        return;
    }
    if (current.key[0] == '\0') {
        fprintf(out, "%s: start failed: message %d, %s\n", pcx->ProgName, error.qx_msgnr, error.qx_msgInsert);
        return;
    }
    const char* reason = error.qx_errno == 0 ? "missing or not usable" : strerror(error.qx_errno);
    fprintf(out, "%s: setting '%s' in section [%s] of '%s': %s (%s): %s\n", pcx->ProgName, current.key,
            current.section, pcx->IniFile, reason, error.qx_msgInsert, remedy_of(error));
}
