#include "base/children.h"

#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "base/descriptor.h"

namespace {

// The end of a child is seen at its pidfd, so that the others cost nothing however many they are. Those
// without one (an old kernel, too few descriptors) are looked for.
struct watched_children {
    std::optional<bool> adopts;  // once it was asked for: nothing here changes it
    qx_descriptor set;           // epoll
    std::unordered_map<pid_t, qx_descriptor> watched;
    std::unordered_set<pid_t> unwatched;
};

watched_children children;
int expected = 0;  // processes that are being made elsewhere and will be noted

// A quarter of the descriptors is left to connections and files.
size_t watch_limit() {
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<size_t>(limit.rlim_cur / 4 * 3) : 0;
}

qx_descriptor watch(pid_t pid) {
    if (children.watched.size() >= watch_limit()) {
        return {};
    }
    if (!children.set.valid()) {
        children.set.reset(epoll_create1(EPOLL_CLOEXEC));
    }
    qx_descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = pid;
    if (!process.valid() || epoll_ctl(children.set.get(), EPOLL_CTL_ADD, process.get(), &event) != 0) {
        return {};
    }
    return process;
}

// Taken out of the set by name: a forked process may still hold the descriptor.
void forget(pid_t pid) {
    if (const auto found = children.watched.find(pid); found != children.watched.end()) {
        epoll_ctl(children.set.get(), EPOLL_CTL_DEL, found->second.get(), nullptr);
        children.watched.erase(found);
    }
    children.unwatched.erase(pid);
}

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
    const pid_t result = wait_for(candidate, status);
    if (result != 0) {
        forget(candidate);  // also when somebody else has waited for it
    }
    if (result != candidate) {
        return false;
    }
    *pid = candidate;
    return true;
}

// One that another process traces has ended and is not ours yet: it is passed over, and tells of itself
// again. The set hands out its members in turn, so one round over all of them leaves nobody out.
bool collect_watched(pid_t* pid, int* status) {
    epoll_event events[16];
    constexpr int most = std::size(events);
    for (size_t seen = 0, all = children.watched.size(); seen < all; seen += most) {
        const int told = epoll_wait(children.set.get(), events, most, 0);
        if (std::any_of(events, events + std::max(told, 0),
                        [&](const epoll_event& event) { return collect(event.data.fd, pid, status); })) {
            return true;
        }
        if (told < most) {
            return false;
        }
    }
    return false;
}

bool collect_unwatched(pid_t* pid, int* status) {
    const std::unordered_set<pid_t> candidates = children.unwatched;
    return std::any_of(candidates.begin(), candidates.end(),
                       [&](pid_t candidate) { return collect(candidate, pid, status); });
}

bool adopts() {
    if (!children.adopts) {
        int subreaper = 0;
        children.adopts = getpid() == 1 || (prctl(PR_GET_CHILD_SUBREAPER, &subreaper) == 0 && subreaper != 0);
    }
    return *children.adopts;
}

}  // namespace

void children_note(pid_t pid) {
    if (pid <= 0) {
        return;
    }
    forget(pid);
    if (qx_descriptor process = watch(pid); process.valid()) {
        children.watched.emplace(pid, std::move(process));
    } else {
        children.unwatched.insert(pid);
    }
}

bool children_known(pid_t pid) {
    return children.watched.contains(pid) || children.unwatched.contains(pid);
}

void children_expect() {
    ++expected;
}

void children_expect_end() {
    --expected;
}

bool children_collect(pid_t* pid, int* status) {
    if (collect_watched(pid, status)) {
        return true;
    }
    if (children.unwatched.empty() && !adopts()) {
        return false;
    }
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
    // A child without a name stands in front: the others are asked one by one.
    return expected > 0 && collect_unwatched(pid, status);
}

size_t children_count() {
    return children.watched.size() + children.unwatched.size();
}

// The set is the parent's, too: nothing may be taken out of it here.
void children_forget_all() {
    children = watched_children{};
    expected = 0;
}
