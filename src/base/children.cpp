#include "base/children.h"

#include <sys/wait.h>

#include <cerrno>
#include <unordered_set>

namespace {

std::unordered_set<pid_t>& children() {
    static std::unordered_set<pid_t> pids;
    return pids;
}

pid_t collect(pid_t pid, int* status) {
    pid_t result;
    do {
        result = waitpid(pid, status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    if (result != 0) {
        children().erase(pid);  // also when somebody else has taken it: nobody will tell of it any more
    }
    return result;
}

// Somebody else's ended child stands in front of ours: ask for each of ours.
pid_t collect_any(int* status) {
    for (auto at = children().begin(); at != children().end();) {
        const pid_t pid = *at++;
        const pid_t result = collect(pid, status);
        if (result > 0) {
            return result;
        }
        if (result < 0 && errno != ECHILD) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

void child_started(pid_t pid) {
    children().insert(pid);
}

bool child_is_ours(pid_t pid) {
    return children().count(pid) != 0;
}

pid_t child_wait_next(int* status) {
    siginfo_t info = {};
    while (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        if (errno == ECHILD) {
            // With SIGCHLD ignored the system collects them itself.
            children().clear();
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
    if (info.si_pid == 0) {
        return 0;
    }
    if (!child_is_ours(info.si_pid)) {
        return collect_any(status);
    }
    const pid_t result = collect(info.si_pid, status);
    return result < 0 && errno == ECHILD ? 0 : result;
}

void children_forget() {
    children().clear();
}
