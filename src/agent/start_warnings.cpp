#include "agent/start_warnings.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "base/context.h"
#include "base/paths.h"

namespace {

constexpr char open_file_advice[] =
    ": who can write there decides what the agent runs; give it to root and take the right away (chmod go-w)";
constexpr char not_hardened[] =
    "GLOBAL/hardened is off: where passwords are checked by shadow and passwd an empty one opens every "
    "account without a real hash (bin, daemon, and root where it may start jobs), and users can change "
    "stored files of each other's jobs; write hardened = yes";

std::string user_name(uid_t uid) {
    const passwd* entry = getpwuid(uid);  // at the start: one thread
    return entry == nullptr ? std::to_string(uid) : entry->pw_name;
}

std::string group_name(gid_t gid) {
    const group* entry = getgrgid(gid);
    return entry == nullptr ? std::to_string(gid) : entry->gr_name;
}

std::string resolved(const char* path) {
    char* found = realpath(path, nullptr);
    const std::string result = found == nullptr ? path : found;
    free(found);
    return result;
}

// The path itself and each folder above it, each once.
void add_open_paths(const char* path, bool folder_of_files, std::set<std::string>* seen,
                    std::vector<std::string>* warnings) {
    for (std::string at = resolved(path); seen->insert(at).second; folder_of_files = false) {
        const std::string reason = open_to_others(at.c_str(), folder_of_files);
        if (!reason.empty()) {
            warnings->push_back("'" + at + "' " + reason + open_file_advice);
        }
        at = path_folder_name(at);
        if (at.empty()) {
            break;
        }
    }
}

}  // namespace

std::string open_to_others(const char* path, bool folder_of_files) {
    struct stat status;
    if (stat(path, &status) != 0) {
        return "";  // what is missing is told where it is used
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return "belongs to user " + user_name(status.st_uid);
    }
    const bool guarded = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0 && !folder_of_files;
    if ((status.st_mode & S_IWOTH) != 0 && !guarded) {
        return "may be written by everybody";
    }
    const bool own_group = status.st_gid == 0 || status.st_gid == getegid();
    if ((status.st_mode & S_IWGRP) != 0 && !own_group && !guarded) {
        return "may be written by group " + group_name(status.st_gid);
    }
    return "";
}

std::vector<std::string> start_warnings(const EX_PCX* pcx) {
    std::vector<std::string> warnings;
    if (pcx->pcx_hardened == 0) {
        warnings.emplace_back(not_hardened);
    }
    std::set<std::string> seen;
    add_open_paths(pcx->pcx_WorkFolder, true, &seen, &warnings);
    add_open_paths(pcx->ProgPfad, false, &seen, &warnings);
    add_open_paths(pcx->IniFile, false, &seen, &warnings);
    return warnings;
}
