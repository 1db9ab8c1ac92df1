#include "agent/check.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "agent/check_network.h"
#include "agent/check_report.h"
#include "agent/setting_table.h"
#include "agent/settings.h"
#include "agent/settings_check.h"
#include "agent/shutdown.h"
#include "agent/start_warnings.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/text.h"
#include "log/log.h"
#include "security/key_reason.h"
#include "security/key_store.h"

namespace {

constexpr size_t longest_name = 32;
constexpr unsigned shared_number = 65534;  // nobody's user, which other services use too

std::string setting(EX_PCX* pcx, const char* section, const char* key) {
    char value[1024];
    const std::string preset(find_setting(section, key)->preset);
    pcx->getProfileString(pcx, section, key, preset.c_str(), value, sizeof value);
    return value;
}

// A path of the settings, complete.
std::string setting_path(EX_PCX* pcx, const char* section, const char* key) {
    char path[qx_path_size];
    std::string name = setting(pcx, section, key);
    if (name.empty() && std::string_view(key) == "QX_EX_PATH_CACHE") {
        name = "../resources/";
    }
    return GetPfad(pcx->pcx_WorkFolder, name.c_str(), path, sizeof path) == 0 ? path_clean(path) : name;
}

// ---- settings

// 0, or -1 when it is no name.
int take_name(EX_PCX* pcx, const char* key, const char* preset, char* out, size_t size) {
    const std::string given = setting(pcx, "GLOBAL", key);
    const std::string name = upper(strip(given.empty() ? preset : given));
    copy_text(out, size, name);
    return name.empty() || name.size() > longest_name ? -1 : 0;
}

void check_name(check_report* report, const char* key, int result) {
    if (result != 0) {
        check_say(report, CHECK_FAILED, "settings",
                  std::string("GLOBAL/") + key + " must be a name of 1 to 32 characters");
    }
}

void check_settings(check_report* report, EX_PCX* pcx) {
    if (access(pcx->IniFile, R_OK) != 0) {
        check_say(report, CHECK_FAILED, "settings",
                  "'" + std::string(pcx->IniFile) + "' cannot be read: " + strerror(errno));
    }
    const std::vector<setting_fault> faults = settings_faults(pcx->IniFile);
    for (const setting_fault& fault : faults) {
        check_say(report, CHECK_FAILED, "settings", fault_line(pcx->IniFile, fault));
    }
    check_name(report, "system", take_name(pcx, "system", "", pcx->sysName, sizeof pcx->sysName));
    check_name(report, "name", take_name(pcx, "name", pcx->exNodeName, pcx->exName, sizeof pcx->exName));
    if (faults.empty()) {
        check_say(report, CHECK_OK, "settings", "'" + std::string(pcx->IniFile) + "' holds nothing unknown");
    }
}

void check_warnings(check_report* report, EX_PCX* pcx) {
    const std::vector<std::string> warnings = start_warnings(pcx);
    for (const std::string& warning : warnings) {
        check_say(report, CHECK_WARNING, "safety", warning);
    }
    if (warnings.empty()) {
        check_say(report, CHECK_OK, "safety", "hardened; program folder and INI file are safe from others");
    }
}

// ---- files and folders

void check_library(check_report* report, EX_PCX* pcx) {
    const std::string path = setting_path(pcx, "GLOBAL", "helplib");
    PZUHELP library = access(path.c_str(), R_OK) == 0 ? ZUHELP_Open(path.c_str(), 0) : nullptr;
    const int number = errno;
    if (library == nullptr) {
        check_say(report, CHECK_FAILED, "message library",
                  "'" + path + "': " + strerror(number) + "; set GLOBAL/helplib");
        return;
    }
    const size_t texts = library->entries.size();
    ZUHELP_Close(library);
    check_say(report, texts == 0 ? CHECK_FAILED : CHECK_OK, "message library",
              "'" + path + "' holds " + std::to_string(texts) + " texts");
}

// The nearest folder above that is there; what is missing is made in it.
std::string existing_above(std::string path) {
    while (access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR) && path.size() > 1) {
        path = path_folder_name(path);
        path = path.empty() ? "." : path;
    }
    return path;
}

void check_folder(check_report* report, const char* subject, const std::string& path) {
    const std::string present = existing_above(path);
    struct stat status;
    if (stat(present.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        check_say(report, CHECK_FAILED, subject, "'" + path + "': '" + present + "' is no folder");
        return;
    }
    if (access(present.c_str(), W_OK | X_OK) != 0) {
        check_say(report, CHECK_FAILED, subject,
                  "'" + path + "': this user cannot write '" + present + "': " + strerror(errno));
        return;
    }
    char mode[16];
    snprintf(mode, sizeof mode, "%.4o", status.st_mode & 07777);
    check_say(report, CHECK_OK, subject,
              present == path ? "'" + path + "', mode " + mode : "'" + path + "' will be made at the start");
}

void check_folders(check_report* report, EX_PCX* pcx) {
    for (const auto& [key, subject] : {std::pair{"QX_EX_PATH_TEMP", "job files"},
                                       {"QX_EX_PATH_JOBREPORT", "reports"},
                                       {"QX_EX_PATH_BACKUP", "backups"},
                                       {"QX_EX_PATH_CACHE", "resources"}}) {
        check_folder(report, subject, setting_path(pcx, "VARIABLES", key));
    }
    check_folder(report, "log folder", std::string(path_folder_name(setting_path(pcx, "GLOBAL", "logging"))));
    check_folder(report, "trace folder", std::string(path_folder_name(setting_path(pcx, "TRACE", "file"))));
}

void check_messenger(check_report* report, EX_PCX* pcx) {
    if (setting(pcx, "VARIABLES", "QX_EX_JOB_MD").empty()) {
        check_say(report, CHECK_FAILED, "job messenger", "VARIABLES/QX_EX_JOB_MD names none");
        return;
    }
    const std::string path = setting_path(pcx, "VARIABLES", "QX_EX_JOB_MD");
    struct stat status;
    const bool good =
        stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
    const bool for_all = good && (status.st_mode & S_IXOTH) != 0;
    check_say(report,
              !good     ? CHECK_FAILED
              : for_all ? CHECK_OK
                        : CHECK_WARNING,
              "job messenger",
              "'" + path + "'" +
                  (!good     ? std::string(" is no program that can be run; set VARIABLES/QX_EX_JOB_MD")
                   : for_all ? ""
                             : " cannot be run by the users of all jobs: chmod a+x"));
}

// ---- keys

struct key_facts {
    std::string file;
    std::string package;  // as it is named
    bool package_read;    // it can be
    bool own_company_key;
    bool first_contact;
    std::string fingerprint;  // of the transfer key; empty: none
};

void say_keys(check_report* report, const key_facts& facts) {
    const std::string key =
        facts.fingerprint.empty() ? "no transfer key yet" : "transfer key " + facts.fingerprint;
    const char* first_contact = facts.first_contact && !facts.fingerprint.empty()
                                    ? "; set AUTHORIZATION/first_contact = no now that there is a key"
                                    : "";
    if (facts.fingerprint.empty() && !facts.first_contact && !facts.package_read) {
        check_say(report, CHECK_FAILED, "keys",
                  "no transfer key, no initial package that can be read, and AUTHORIZATION/first_contact is "
                  "no: no server can log this agent on");
    } else if (facts.fingerprint.empty() && facts.package_read) {
        check_say(report, CHECK_OK, "keys",
                  "initial package '" + facts.package + "', which the next start reads");
    } else if (facts.own_company_key && !facts.package.empty()) {
        check_say(report, CHECK_OK, "keys", "initial package; " + key + first_contact);
    } else if (facts.own_company_key) {
        check_say(report, CHECK_OK, "keys", "own company key; " + key + first_contact);
    } else {
        check_say(report, CHECK_WARNING, "keys",
                  "derived company key, which follows from the system name; " + key +
                      ": whoever records the first contact can read everything. Bring an initial package "
                      "(qxcp package AGENT) or an own company key" +
                      first_contact);
    }
}

void check_key_file(check_report* report, const std::string& file) {
    struct stat status;
    if (stat(file.c_str(), &status) != 0) {
        check_folder(report, "key store folder", std::string(path_folder_name(file)));
        return;
    }
    const bool own = status.st_uid == 0 || status.st_uid == geteuid();
    const bool closed = (status.st_mode & 077) == 0;
    check_say(report, own && closed ? CHECK_OK : CHECK_WARNING, "key store",
              "'" + file + "'" + (!own ? " belongs to another user, who can read and change the keys" : "") +
                  (!closed ? " can be read by others until a start makes its mode 0400" : ""));
}

void check_keys(check_report* report, EX_PCX* pcx) {
    const std::string store = setting_path(pcx, "AUTHORIZATION", "KeyStore");
    check_key_file(report, store);
    key_manager keys;
    const int number = KComInit(&keys, pcx->sysName, pcx->exName, {}, store);
    if (number != KM_OK) {
        check_say(report, CHECK_FAILED, "keys", "'" + store + "': " + km_reason_text(number));
        return;
    }
    key_facts facts;
    facts.file = store;
    facts.package = setting(pcx, "AUTHORIZATION", "InitialPackage");
    facts.package_read = !facts.package.empty() &&
                         access(setting_path(pcx, "AUTHORIZATION", "InitialPackage").c_str(), R_OK) == 0;
    uint8_t company[gss_key_size];
    size_t length = sizeof company;
    facts.own_company_key =
        getEncKey(keys, "CompanyKey", 0, KEY_TYPE_COMPANY, company, &length, nullptr) == KM_OK;
    qx_wipe(company, sizeof company);
    facts.first_contact = pcx->getProfileBool(pcx, "AUTHORIZATION", "first_contact", "yes");
    facts.fingerprint = key_fingerprint(keys, pcx->exName);
    KComExit(&keys);
    say_keys(report, facts);
}

// ---- users and libraries

void check_listener_user(check_report* report, EX_PCX* pcx) {
    if (geteuid() != 0) {
        check_say(report, CHECK_OK, "listener user",
                  "an agent without root's rights runs its listener as itself");
        return;
    }
    const int number = pcx->getProfileInt(pcx, "GLOBAL", "listenerUID", "65534");
    const auto uid = number <= 0 ? shared_number : static_cast<unsigned>(number);
    const passwd* entry = getpwuid(uid);
    const std::string who =
        std::to_string(uid) + (entry == nullptr ? "" : std::string(" (") + entry->pw_name + ")");
    if (uid == shared_number) {
        check_say(report, CHECK_WARNING, "listener user",
                  who + " is shared with other services: set GLOBAL/listenerUID to a user of its own");
    } else if (entry == nullptr) {
        check_say(report, CHECK_WARNING, "listener user",
                  "no account has number " + who + " of GLOBAL/listenerUID");
    } else {
        check_say(report, CHECK_OK, "listener user", who);
    }
}

void check_pam(check_report* report, EX_PCX* pcx) {
    if (upper(strip(setting(pcx, "MISC", "authentication"))) != "PAM") {
        return;
    }
    const std::string name = setting(pcx, "PAM", "libname");
    void* library = dlopen(name.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr && name == find_setting("PAM", "libname")->preset) {
        library = dlopen((name + ".0").c_str(), RTLD_LAZY | RTLD_LOCAL);
    }
    if (library == nullptr) {
        check_say(report, CHECK_FAILED, "PAM", "'" + name + "' cannot be loaded; set PAM/libname");
        return;
    }
    dlclose(library);
    check_say(report, CHECK_OK, "PAM", "'" + name + "'");
}

void ignore_line(int, const char*) {}

}  // namespace

void check_say(check_report* report, check_result result, const char* subject, const std::string& text) {
    constexpr const char* words[] = {"ok", "warning", "FAILED"};
    report->failed = report->failed || result == CHECK_FAILED;
    fprintf(report->out, "%-7s  %-16s  %s\n", words[result], subject, printable(text).c_str());
}

int check_command(const char* ini, const char* program, FILE* out) {
    check_report report{out};
    __log_set_logger(ignore_line);
    qx7_error error;
    EX_PCX* pcx = PcxMalloc(ini, &error);
    if (pcx == nullptr) {
        check_say(&report, CHECK_FAILED, "settings", strerror(ENOMEM));
        return 1;
    }
    settings_program(pcx, program);
    check_settings(&report, pcx);
    check_warnings(&report, pcx);
    check_library(&report, pcx);
    check_folders(&report, pcx);
    check_messenger(&report, pcx);
    check_keys(&report, pcx);
    check_listener_user(&report, pcx);
    check_pam(&report, pcx);
    check_port(&report, pcx);
    check_server(&report, pcx);
    freePcx();
    fprintf(out, "%s\n",
            report.failed ? "the agent would not work as it should: see FAILED above" : "nothing failed");
    return report.failed ? 1 : 0;
}
