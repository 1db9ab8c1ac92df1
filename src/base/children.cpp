#include "base/children.h"

#include <sys/wait.h>

#include <cerrno>
#include <unordered_set>

namespace {

std::unordered_set<pid_t> noted;
int expected = 0;  // processes that are being made elsewhere and will be noted

// waitpid that is repeated when a signal came in between.
pid_t wait_for(pid_t pid, int* status) {
    pid_t result;
    do {
        result = waitpid(pid, status, WNOHANG);
    } while (result < 0 && errno == EINTR);
    return result;
}

// The pid of some ended child, which stays waitable; 0 when there is none.
pid_t peek_ended_child() {
    siginfo_t info;
    info.si_pid = 0;
    int result;
    do {
        result = waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
    } while (result < 0 && errno == EINTR);
    return result < 0 ? 0 : info.si_pid;
}

bool collect(pid_t candidate, pid_t* pid, int* status) {
    if (wait_for(candidate, status) != candidate) {
        return false;
    }
    noted.erase(candidate);
    *pid = candidate;
    return true;
}

}  // namespace

void children_note(pid_t pid) {
    if (pid > 0) {
        noted.insert(pid);
    }
}

bool children_known(pid_t pid) {
    return noted.contains(pid);
}

void children_expect() {
    ++expected;
}

void children_expect_end() {
    --expected;
}

bool children_collect(pid_t* pid, int* status) {
    while (const pid_t ended = peek_ended_child()) {
        if (children_known(ended)) {
            return collect(ended, pid, status);
        }
        if (expected > 0) {
            break;  // it may be one whose number has not come yet
        }
        int forgotten;
        if (wait_for(ended, &forgotten) != ended) {
            break;
        }
    }
    if (expected == 0) {
        return false;
    }
    // A child without a name stands in front: the others are asked one by one.
    const std::unordered_set<pid_t> candidates = noted;
    for (pid_t candidate : candidates) {
        if (collect(candidate, pid, status)) {
            return true;
        }
    }
    return false;
}

size_t children_count() {
    return noted.size();
}

void children_forget_all() {
    noted.clear();
    expected = 0;
}
