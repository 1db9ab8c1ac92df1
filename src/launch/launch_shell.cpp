// Finding a job's shell.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/context.h"
#include "base/text.h"
#include "launch/launch_steps.h"

namespace {

constexpr size_t search_path_limit = 4095;
constexpr size_t shell_name_limit = 15;  // of a shell that is kept
constexpr size_t shell_path_limit = 63;

enum class shell_family { bourne, korn, c, none };

struct shell_row {
    std::string_view sh;
    char flag;
    shell_family family;
};

constexpr shell_row shells[] = {
    {"sh", '0', shell_family::bourne},   {"-sh", '1', shell_family::bourne},
    {"bash", '6', shell_family::bourne}, {"-bash", '7', shell_family::bourne},
    {"ksh", '2', shell_family::korn},    {"-ksh", '3', shell_family::korn},
    {"csh", '4', shell_family::c},       {"-csh", '5', shell_family::c},
    {"tcsh", '8', shell_family::c},      {"-tcsh", '9', shell_family::c},
};
constexpr char flag_unknown_login = 'X';
constexpr char flag_unknown = 'x';

std::string search_path(EX_PCX* pcx) {
    char setting[search_path_limit + 1] = {};
    pcx->getProfileString(pcx, "STARTCMD", "shell_pfad", "", setting, sizeof setting);
    if (setting[0] != 0) {
        return setting;
    }
    const char* path = getenv("PATH");
    return path == nullptr ? "/bin" : std::string(path).substr(0, search_path_limit);
}

bool is_executable_file(const std::string& path) {
    struct stat status;
    return access(path.c_str(), X_OK) == 0 && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

char launch_shell_flag(std::string_view sh) {
    for (const shell_row& row : shells) {
        if (row.sh == sh) {
            return row.flag;
        }
    }
    return sh.starts_with('-') ? flag_unknown_login : flag_unknown;
}

std::string launch_shell_option(char sh_flag) {
    shell_family family = shell_family::none;
    for (const shell_row& row : shells) {
        if (row.flag == sh_flag) {
            family = row.family;
        }
    }
    const launch_settings* context = launch_context();
    switch (family) {
        case shell_family::bourne:
            return context->Bourne_Shell_opt;
        case shell_family::korn:
            return context->Korn_Shell_opt;
        case shell_family::c:
            return context->C_Shell_opt;
        case shell_family::none:
            break;
    }
    return {};
}

std::string GetShellPath(EX_PCX* pcx, std::string_view shellName) {
    if (shellName.starts_with('-')) {
        shellName.remove_prefix(1);
    }
    if (shellName.empty()) {
        return {};
    }
    std::vector<SHELL_DATA>& kept = launch_context()->firstSD;
    for (const SHELL_DATA& shell : kept) {
        if (shell.sh == shellName) {
            return shell.path_sh;
        }
    }
    const std::string path = search_path(pcx);
    for (std::string_view part : split_words(path, ':')) {
        std::string candidate(part);
        candidate.append("/").append(shellName);
        if (is_executable_file(candidate)) {
            candidate.resize(std::min(candidate.size(), shell_path_limit));
            // A longer name could not be told from another one that begins alike.
            if (shellName.size() <= shell_name_limit) {
                kept.push_back({std::string(shellName), candidate});
            }
            return candidate;
        }
    }
    return {};
}
