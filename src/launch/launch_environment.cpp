// What a job gets from the agent: environment and arguments.
#include <string.h>
#include <unistd.h>

#include <iterator>

#include "base/context.h"
#include "launch/launch_steps.h"
#include "log/trace.h"

namespace {

constexpr size_t environment_limit = 128;
constexpr char root_name[] = "root";
constexpr char root_path[] = ":/sbin:/usr/sbin";

enum class passed_as { user, home, shell, mail, path, unchanged };
struct passed_row {
    std::string_view name;
    passed_as as;
};
constexpr passed_row passed_names[] = {
    {"LOGNAME", passed_as::user},      {"LOGIN", passed_as::user},     {"USER", passed_as::user},
    {"PWD", passed_as::home},          {"HOME", passed_as::home},      {"SHELL", passed_as::shell},
    {"MAIL", passed_as::mail},         {"PATH", passed_as::path},      {"LANG", passed_as::unchanged},
    {"HZ", passed_as::unchanged},      {"TERM", passed_as::unchanged}, {"NETPATH", passed_as::unchanged},
    {"NLSPATH", passed_as::unchanged}, {"TZ", passed_as::unchanged},
};

std::string mail_of_user(std::string_view old, const char* user) {
    const size_t slash = old.rfind('/');
    return slash == std::string_view::npos ? std::string(old) : std::string(old.substr(0, slash + 1)) + user;
}

std::string value_for_job(passed_as as, std::string_view old, const my_passwd_unlimited& passwd,
                          const std::string& path_sh) {
    switch (as) {
        case passed_as::user:
            return passwd.pw_name;
        case passed_as::home:
            return passwd.pw_dir;
        case passed_as::shell:
            return path_sh;
        case passed_as::mail:
            return mail_of_user(old, passwd.pw_name);
        case passed_as::path:
            return std::string(old) + (strcmp(passwd.pw_name, root_name) == 0 ? root_path : "");
        case passed_as::unchanged:
            break;
    }
    return std::string(old);
}

const passed_row* find_passed(std::string_view name) {
    for (const passed_row& row : passed_names) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

bool holds_name(const std::vector<std::string>& environment, std::string_view name) {
    for (const std::string& entry : environment) {
        if (entry.size() > name.size() && entry.starts_with(name) && entry[name.size()] == '=') {
            return true;
        }
    }
    return false;
}

void add_missing(std::vector<std::string>* environment, const char* name, const char* value) {
    if (!holds_name(*environment, name)) {
        environment->push_back(std::string(name) + "=" + value);
    }
}

void fill_pointers(std::vector<std::string>* texts, std::vector<char*>* pointers) {
    pointers->clear();
    for (std::string& text : *texts) {
        pointers->push_back(text.data());
    }
    pointers->push_back(nullptr);
}

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (char c : text) {
        if (c == '\'') {
            result.append("'\\''");
        } else {
            result.push_back(c);
        }
    }
    return result + "'";
}

}  // namespace

std::vector<std::string> launch_environment(char* const* from, const my_passwd_unlimited& passwd,
                                            const std::string& path_sh) {
    std::vector<std::string> environment;
    environment.reserve(std::size(passed_names) + 3);
    size_t seen = 0;
    for (char* const* entry = from; entry != nullptr && *entry != nullptr; ++entry) {
        if (++seen > environment_limit) {
            if (trc_on(TRC_JOB)) {
                _TraceText("program error, too many environment variable, max. 128 allow");
            }
            break;
        }
        const std::string_view text = *entry;
        const size_t equal = text.find('=');
        const passed_row* row =
            equal == std::string_view::npos ? nullptr : find_passed(text.substr(0, equal));
        if (row != nullptr) {
            environment.push_back(std::string(row->name) + "=" +
                                  value_for_job(row->as, text.substr(equal + 1), passwd, path_sh));
        }
    }
    add_missing(&environment, "LOGNAME", passwd.pw_name);
    add_missing(&environment, "HOME", passwd.pw_dir);
    add_missing(&environment, "USER", passwd.pw_name);
    return environment;
}

void Init_Environment(const my_passwd_unlimited& passwd, JOB_START_VAR* startVar) {
    startVar->environment = launch_environment(environ, passwd, startVar->path_sh);
    fill_pointers(&startVar->environment, &startVar->environment_pointers);
}

void launch_prepare_arguments(JOB_START_VAR* startVar) {
    const bool command = startVar->BatFlag == BATCH_COMMAND;
    const std::string option = command ? launch_command_option(startVar->sh_opt) : startVar->sh_opt;
    // The first argument is the name as given: a leading '-' makes a login shell.
    startVar->arguments = {startVar->sh};
    if (!option.empty()) {
        startVar->arguments.push_back(option);
    }
    startVar->arguments.push_back(command ? startVar->jobFile
                                          : launch_file_argument(startVar->jobFile, startVar->sh, option));
    fill_pointers(&startVar->arguments, &startVar->argument_pointers);
}

std::string launch_command_option(std::string option) {
    if (option.empty()) {
        return "-c";
    }
    if (option.find('c') == std::string::npos) {
        option.push_back('c');
    }
    return option;
}

std::string launch_file_argument(const std::string& jobFile, std::string_view sh, const std::string& option) {
    if (option.find('c') == std::string::npos) {
        return jobFile;
    }
    // Without exec some shells stay beside the script and die of a signal that the script survives. An
    // interpreter whose -c means something else gets the name alone.
    const std::string command = sh.ends_with("sh") ? "exec " : "";
    return command + (launch_plain_word(jobFile) ? jobFile : quoted(jobFile));
}

void Put_PInfo(const my_passwd_unlimited& passwd, const char* traceHead, char* const* envp) {
    if (!trc_on(TRC_JOB)) {
        return;
    }
    _TraceText("%s user '%s' uid %u gid %u home '%s' shell '%s'", traceHead, passwd.pw_name, passwd.pw_uid,
               passwd.pw_gid, passwd.pw_dir, passwd.pw_shell);
    for (; envp != nullptr && *envp != nullptr; ++envp) {
        _TraceText("%s %s", traceHead, *envp);
    }
}
