// The start through a batch system's command.
#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iterator>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "launch/launch_steps.h"

namespace {

constexpr std::string_view plain_marks = "_./+-@%:,=";

struct key_value {
    std::string_view key;
    std::string_view value;
};

// One pass, so that a value that holds a key is not looked at again.
std::string replace_keys(std::string_view text, const key_value* pairs, size_t count) {
    std::string result;
    while (!text.empty()) {
        const key_value* found = nullptr;
        for (size_t i = 0; i < count && found == nullptr; ++i) {
            if (text.size() >= pairs[i].key.size() &&
                equal_ignore_case(text.substr(0, pairs[i].key.size()), pairs[i].key)) {
                found = &pairs[i];
            }
        }
        if (found != nullptr) {
            result.append(found->value);
            text.remove_prefix(found->key.size());
        } else {
            result.push_back(text.front());
            text.remove_prefix(1);
        }
    }
    return result;
}

const std::string& batch_command(const my_passwd_unlimited& passwd) {
    const UNIX_CMD& commands = launch_context()->cmdAddr;
    std::string_view shell = passwd.pw_shell;
    if (const size_t slash = shell.rfind('/'); slash != std::string_view::npos) {
        shell.remove_prefix(slash + 1);
    }
    if (shell.empty() || shell.starts_with("sh")) {
        return commands.BSHcmd;
    }
    if (shell.starts_with("csh")) {
        return commands.CSHcmd;
    }
    return shell.starts_with("ksh") ? commands.KSHcmd : commands.OTHERcmd;
}

int not_allowed(const char* call, const char* reason, qx7_error* error) {
    errno = EACCES;
    return qx_error_set(error, -1, EACCES, number_system_call, "%s|%d|%s|", call, EACCES, reason);
}

// Only root may take up the command. A set-user-id agent is root by its effective uid alone.
int become_root(bool* switched, qx7_error* error) {
    *switched = false;
    if (getuid() == 0) {
        return 0;
    }
    if (geteuid() != 0) {
        return not_allowed("setuid(0)", "switch to root user is not possible!", error);
    }
    if (launch_context()->JP_SwitchToRealUser == 0) {
        return not_allowed("switch to real user(0)", "StartBatchJobWithRootPrivileges=no", error);
    }
    if (setuid(0) != 0) {
        return call_error(error, "setuid(0)", errno);
    }
    *switched = true;
    return 0;
}

// What system() does, but the command starts with default signal actions, since the agent's own would stick
// to the job, and in a group of its own, by which the job's processes are known. The wait status, or -1.
int run_command(const char* command, pid_t* group) {
    posix_spawnattr_t attributes;
    sigset_t defaults, none;
    sigfillset(&defaults);
    sigemptyset(&none);
    if (posix_spawnattr_init(&attributes) != 0) {
        return -1;
    }
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    const char* arguments[] = {"sh", "-c", command, nullptr};
    pid_t pid = 0;
    const int spawned =
        posix_spawn(&pid, "/bin/sh", nullptr, &attributes, const_cast<char**>(arguments), environ);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        errno = spawned;
        return -1;
    }
    *group = pid;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno == ECHILD) {
            return 0;  // with SIGCHLD ignored nobody tells how it ended, but it ran
        }
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

}  // namespace

std::string Change_Key(std::string_view text, std::string_view key, std::string_view value) {
    const key_value pair = {key, value};
    return replace_keys(text, &pair, 1);
}

bool launch_plain_word(std::string_view text) {
    for (char c : text) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!letter && !(c >= '0' && c <= '9') && plain_marks.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return !text.empty();
}

int doit_cmd(EX_PCX* pcx, const my_passwd_unlimited& passwd, const JOB_START_VAR& startVar, pid_t* group,
             qx7_error* error) {
    (void)pcx;
    const std::string& pattern = batch_command(passwd);
    for (std::string_view word : {std::string_view(passwd.pw_name), std::string_view(startVar.jobFile),
                                  std::string_view(startVar.jobReport)}) {
        if (!launch_plain_word(word)) {
            // The command runs as root: nothing but a name may get into it.
            return qx_error_set(error, -1, EINVAL, number_start_command, "%s|", printable(word).c_str());
        }
    }
    const key_value pairs[] = {
        {"&user", passwd.pw_name}, {"&jobFile", startVar.jobFile}, {"&jobReport", startVar.jobReport}};
    const std::string command = replace_keys(pattern, pairs, std::size(pairs));
    const uid_t real = getuid();
    const uid_t effective = geteuid();
    effUser_guard lock;
    bool switched = false;
    if (become_root(&switched, error) != 0) {
        return -1;
    }
    const int status = run_command(command.c_str(), group);
    const int command_errno = errno;
    if (switched && setreuid(real, effective) != 0) {
        const int error_number = errno;
        return call_error(error,
                          "setreuid(" + std::to_string(static_cast<int>(real)) + ", " +
                              std::to_string(static_cast<int>(effective)) + ")",
                          error_number);
    }
    if (status < 0) {
        return qx_error_set(error, -1, command_errno, number_start_command, "%s|", command.c_str());
    }
    return status;
}
