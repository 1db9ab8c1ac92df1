// The process has one effective identity for all its threads, so it is borrowed under one lock, from the
// switch to the way back, and account lookups take the same lock. The real ids never change in the agent:
// they are the way back. An identity is three things that the kernel changes one by one, groups, effective
// gid and effective uid, and only root may change the first two: away from root the uid comes last, back to
// root it comes first. So when a step away fails the process holds at most the groups of the user with the
// uid of root; that is mended at once, and whoever borrows next sets all three anyway. Nobody lets the lock
// go while the identity is another's: `effective_user` sees to it, and who calls the functions below it has
// to.
#include "identity/switch_user.h"

#include <grp.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "log/trace.h"

namespace {

constexpr int gid_count_limit = 65536;

int count_gids(const gid_t* list) {
    int count = 0;
    while (count < gid_count_limit && list[count] != gid_list_end) {
        ++count;
    }
    return count;
}

int switch_failure(const char* name, const std::string& call, int error_number, std::string* text) {
    if (text != nullptr) {
        *text = std::string(name) + " - " + call;
    }
    errno = error_number;
    return SWITCH_FAILED;
}

// All gids but the first, which is the primary one; with nothing left the supplementary groups become none.
int take_groups(const char* name, const gid_t* list, int count, std::string* text) {
    const size_t others = static_cast<size_t>(count - 1);
    if (setgroups(others, others == 0 ? nullptr : list + 1) != 0) {
        return switch_failure(name, "setgroups(" + std::to_string(others) + ", ..)", errno, text);
    }
    if (setregid(static_cast<gid_t>(-1), list[0]) != 0) {
        return switch_failure(name, "setregid(-1, " + std::to_string(static_cast<int>(list[0])) + ")", errno,
                              text);
    }
    return SWITCH_DONE;
}

int take_uid(const char* name, uid_t uid, std::string* text) {
    if (seteuid(uid) != 0) {
        return switch_failure(name, "seteuid(" + std::to_string(static_cast<int>(uid)) + ")", errno, text);
    }
    return SWITCH_DONE;
}

int switch_error(qx7_error* error, const char* name, int error_number) {
    return call_error(error, "SwitchToEffUser(" + std::string(name) + ")", error_number);
}

void tell_identical(const char* function, const char* name) {
    if (trc_on(TRC_FILE, '2')) {
        _TraceText("%s - usernames (Agent and to user) '%s' are identicals", function, name);
    }
}

int back_to_agent(std::string* text) {
    const EX_PCX* pcx = GlbPcx;
    return SwitchToEffUser(pcx->pcx_runUserName, pcx->pcx_run_euid, pcx->pcx_run_gid_tab, pcx->pcx_work_dir,
                           text);
}

// The name of the user that the process is now.
int current_user(my_passwd_unlimited* record, qx7_error* error) {
    const uid_t uid = geteuid();
    if (GetPwdIdEntry(uid, record, nullptr)) {
        record->pw_passwd.clear();
        return 0;
    }
    const int number = errno == EPERM ? number_call_failed : number_user_unknown;
    return qx_error_set(error, SWITCH_FAILED, errno, number, "%s(%i)|", "getpwuid", static_cast<int>(uid));
}

int target_user(const char* name, my_passwd_unlimited* record, qx7_error* error) {
    if (AccountOfUser(name, record, error)) {
        return 0;
    }
    const int error_number = errno;
    if (error_number != ENOENT && error_number != EPERM) {
        call_error(error, "getpwnam(" + std::string(name) + ")", error_number);
    }
    return SWITCH_FAILED;
}

}  // namespace

int SwitchToEffUser(const char* name, uid_t uid, const gid_t* gidList, const char* homeDir,
                    std::string* text) {
    (void)homeDir;
    const int count = count_gids(gidList);
    if (count == 0) {
        // An empty list would leave the effective group as it is, which is root's.
        return switch_failure(name, "setgroups(0, ..)", EINVAL, text);
    }
    if (uid == 0) {
        // Only root may change groups, so on the way to root the uid comes first.
        const int taken = take_uid(name, uid, text);
        return taken == SWITCH_DONE ? take_groups(name, gidList, count, text) : taken;
    }
    const int taken = take_groups(name, gidList, count, text);
    return taken == SWITCH_DONE ? take_uid(name, uid, text) : taken;
}

int PrepToEffUser(const char* userName, qx7_error* error) {
    my_passwd_unlimited current;
    if (current_user(&current, error) != 0) {
        return SWITCH_FAILED;
    }
    if (strncmp(current.pw_name, userName, sizeof current.pw_name) == 0) {
        tell_identical("PrepToEffUser", userName);
        return SWITCH_NOT_NEEDED;
    }
    my_passwd_unlimited target;
    if (target_user(userName, &target, error) != 0) {
        return SWITCH_FAILED;
    }
    gid_t gids[account_group_limit];
    std::string text;
    GetGroupIdsForUserTh(userName, gids, account_group_limit, &text);
    const uid_t before = geteuid();
    if (SwitchToEffUser(userName, target.pw_uid, gids, target.pw_dir, &text) == SWITCH_DONE) {
        return SWITCH_DONE;
    }
    const int error_number = errno;
    if (trc_on(TRC_FILE)) {
        _TraceText("PrepToEffUser - %s: %s", text.c_str(), error_text(error_number).c_str());
    }
    if (GlbPcx != nullptr && before == 0 && gids[0] != gid_list_end) {
        // Groups may have been taken before the uid was refused. When the way back fails too, there is
        // nothing more to be done here; the next borrower sets all of them again.
        back_to_agent(nullptr);
    }
    return switch_error(error, userName, error_number);
}

int PrepToExUser(qx7_error* error) {
    const EX_PCX* pcx = GlbPcx;
    if (geteuid() == pcx->pcx_run_euid) {
        tell_identical("PrepToExUser", pcx->pcx_runUserName);
        return SWITCH_NOT_NEEDED;
    }
    std::string text;
    if (back_to_agent(&text) == SWITCH_DONE) {
        return SWITCH_DONE;
    }
    const int error_number = errno;
    if (trc_on(TRC_FILE)) {
        _TraceText("PrepToExUser - %s: %s", text.c_str(), error_text(error_number).c_str());
    }
    return switch_error(error, pcx->pcx_runUserName, error_number);
}

int subtitute_user_identity(uid_t uid, gid_t gid, const char* name, qx7_error* error, bool trace) {
    qx_error_clear(error);
    const auto failed = [&](const std::string& call) {
        const int error_number = errno;
        if (trace) {
            _TraceText("subtitute_user_identity - %s: %s", call.c_str(), error_text(error_number).c_str());
        }
        return qx_error_set(error, -1, error_number, number_call_failed, "%s|%d-%s", call.c_str(),
                            error_number, error_text(error_number).c_str());
    };
    const std::string uid_text = std::to_string(static_cast<int>(uid));
    const std::string gid_text = std::to_string(static_cast<int>(gid));
    // The order must stay: groups can only be set while the process is root.
    if (setgid(gid) != 0) {
        return failed("setgid(" + gid_text + ")");
    }
    if (initgroups(name, gid) != 0) {
        return failed("initgroups('" + std::string(name) + "'," + gid_text + ")");
    }
    if (setuid(uid) != 0) {
        return failed("setuid(" + uid_text + ")");
    }
    if (seteuid(uid) != 0) {
        return failed("seteuid(" + uid_text + ")");
    }
    if (setreuid(static_cast<uid_t>(-1), uid) != 0) {
        return failed("setreuid(-1, " + uid_text + ")");
    }
    return 0;
}

effective_user::effective_user(const char* userName, qx7_error* error) {
    set_effUserLock();
    if (userName != nullptr && *userName != 0) {
        state_ = PrepToEffUser(userName, error);
    }
}

effective_user::~effective_user() {
    if (held_) {
        go_back(nullptr);
    }
}

int effective_user::go_back(qx7_error* error) {
    const int result = state_ == SWITCH_DONE ? PrepToExUser(error) : SWITCH_NOT_NEEDED;
    held_ = false;
    reset_effUserLock();
    return result;
}

int effective_user::finish(int result, qx7_error* error) {
    if (!held_) {
        return result;
    }
    const int error_number = errno;
    qx7_error second;
    const bool returned = go_back(&second) != SWITCH_FAILED;
    if (!returned && result >= 0) {
        if (error != nullptr) {
            *error = second;
        }
        return -1;
    }
    errno = error_number;
    return result;
}
