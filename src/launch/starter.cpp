// The agent's side of the starter.
#include "launch/starter.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/children.h"
#include "base/descriptor.h"
#include "base/sanitizer.h"
#include "base/time.h"
#include "launch/starter_limits.h"
#include "launch/starter_link.h"
#include "launch/starter_record.h"
#include "log/log.h"

namespace {

constexpr int usual_limit_ms = 2000;
constexpr int64_t pause_ms = 1000;  // between two starters, so that one that cannot live costs little

struct starter_state {
    std::string program;  // empty: none is wanted
    qx_descriptor socket;
    qx_descriptor handle;  // of the process: its id may be another one's once it is collected
    pid_t pid = 0;
    int64_t made_ms = 0;
    int limit_ms = usual_limit_ms;
};
starter_state the_starter;

// With 1 a user could look into the memory that his half-made process still shares with the starter.
bool memory_is_open() {
    const qx_descriptor setting(open("/proc/sys/fs/suid_dumpable", O_RDONLY | O_CLOEXEC));
    char value = '0';
    return setting.valid() && read(setting.get(), &value, 1) == 1 && value == '1';
}

// What the loader and the sanitizers need; anything else of the environment is none of the starter's
// business.
std::vector<char*> starter_environment() {
    std::vector<char*> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::string_view name = text.substr(0, text.find('='));
        if (name.starts_with("LD_") || name.ends_with("SAN_OPTIONS")) {
            entries.push_back(*entry);
        }
    }
    entries.push_back(nullptr);
    return entries;
}

int spawn(int socket, pid_t* pid) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);  // neither can fail on this platform
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigfillset(&all);
    int failed = posix_spawn_file_actions_adddup2(&actions, socket, starter_descriptor);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO}) {
        failed =
            failed != 0 ? failed : posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    }
    posix_spawnattr_setsigmask(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::string title = starter_title;
    char* arguments[] = {title.data(), nullptr};
    if (failed == 0) {
        failed = posix_spawn(pid, the_starter.program.c_str(), &actions, &attributes, arguments,
                             starter_environment().data());
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return failed;
}

// One call waits and reads: starts are frequent.
void set_wait(int64_t milliseconds) {
    const timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
    // Cannot fail for such a value.
    (void)setsockopt(the_starter.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

// The thread sanitizer loses its way in a child that has its parent's memory: under it all starts are forks.
constexpr bool memory_can_be_shared = !QX_THREAD_SANITIZER;

int make_starter() {
    the_starter.made_ms = alarm_now_ms();
    int ends[2];
    if (memory_is_open() || !memory_can_be_shared) {
        errno = ENOTSUP;
        return -1;
    }
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return -1;
    }
    qx_descriptor own(ends[0]);
    const qx_descriptor other(ends[1]);
    pid_t pid = 0;
    errno = spawn(other.get(), &pid);
    if (errno != 0) {
        return -1;
    }
    children_note(pid);
    the_starter.pid = pid;
    the_starter.socket = std::move(own);
    set_wait(the_starter.limit_ms);
    // Without a handle, on an old kernel, one that is given up ends when it sees the closed socket.
    the_starter.handle.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return 0;
}

void drop_starter(bool by_force) {
    if (by_force && the_starter.handle.valid()) {
        // One that has ended meanwhile is what was wanted.
        (void)syscall(SYS_pidfd_send_signal, the_starter.handle.get(), SIGKILL, nullptr, 0);
    }
    the_starter.socket.reset();
    the_starter.handle.reset();
    the_starter.pid = 0;
}

bool have_starter() {
    if (the_starter.socket.valid()) {
        return true;
    }
    if (the_starter.program.empty() || alarm_now_ms() - the_starter.made_ms < pause_ms) {
        return false;
    }
    return make_starter() == 0;
}

int send_order(const std::vector<unsigned char>& record, const starter_wish& wish) {
    int descriptors[2];
    size_t count = 0;
    for (const int fd : {wish.output, wish.input}) {
        if (fd >= 0) {
            descriptors[count++] = fd;
        }
    }
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)] = {};
    iovec part = {const_cast<unsigned char*>(record.data()), record.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (count > 0) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(count * sizeof(int));
        memcpy(CMSG_DATA(head), descriptors, count * sizeof(int));
    }
    // It reads as soon as it is free, so a full socket is as good as a lost one.
    const ssize_t sent = sendmsg(the_starter.socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent == static_cast<ssize_t>(record.size()) ? 0 : -1;
}

bool take_answer(int flags, starter_answer* answer, ssize_t* length) {
    *length = recv(the_starter.socket.get(), answer, sizeof *answer, flags);
    return *length == sizeof *answer && memcmp(answer->mark, starter_answer_mark, sizeof answer->mark) == 0;
}

// 1 answered, 0 lost, -1 not in time.
int wait_for_answer(starter_answer* answer) {
    const int64_t deadline = alarm_now_ms() + the_starter.limit_ms;
    int result = -1;
    bool interrupted = false;
    for (int64_t left = the_starter.limit_ms; left > 0; left = deadline - alarm_now_ms()) {
        if (interrupted) {
            set_wait(left);  // ends of other jobs come all the time: none of them makes the wait longer
        }
        ssize_t length = 0;
        if (take_answer(0, answer, &length)) {
            result = 1;
            break;
        }
        if (length >= 0 || (errno != EINTR && errno != EAGAIN)) {
            result = 0;
            break;
        }
        interrupted = true;
    }
    if (interrupted) {
        set_wait(the_starter.limit_ms);
    }
    return result;
}

// After the shutdown no answer can be sent any more, and a child that cannot tell its id ends: what has not
// answered by now never runs.
bool answered_at_last(starter_answer* answer) {
    ssize_t length = 0;
    shutdown(the_starter.socket.get(), SHUT_RD);
    return take_answer(MSG_DONTWAIT, answer, &length);
}

starter_result judge(const starter_answer& answer, pid_t* pid) {
    if (answer.pid > 0) {
        *pid = answer.pid;
        return STARTER_STARTED;
    }
    if (answer.error_number == EBUSY) {
        __log(-1,
              "too many processes stand between their start and their program; the starter %d is replaced",
              static_cast<int>(the_starter.pid));
        drop_starter(true);
        return STARTER_ABSENT;
    }
    if (answer.error_number == EBADMSG) {
        __log(-1, "the starter refused an order; this start takes the slower way");
        return STARTER_ABSENT;
    }
    errno = answer.error_number;
    return STARTER_NO_PROCESS;
}

}  // namespace

int starter_open(const char* program) {
    the_starter.program = program;
    return make_starter();
}

void starter_close() {
    drop_starter(false);
    the_starter.program.clear();
    the_starter.limit_ms = usual_limit_ms;
}

starter_result starter_start(const starter_wish& wish, pid_t* pid) {
    const std::vector<unsigned char> record = starter_build_order(wish);
    if (record.empty() || !have_starter()) {
        return STARTER_ABSENT;
    }
    starter_follow_limits(the_starter.pid);
    if (send_order(record, wish) != 0) {
        __log(-1, "the starter %d takes no orders and is replaced", static_cast<int>(the_starter.pid));
        drop_starter(true);
        return STARTER_ABSENT;
    }
    starter_answer answer = {};
    const int outcome = wait_for_answer(&answer);
    if (outcome == 1) {
        return judge(answer, pid);
    }
    const bool late = answered_at_last(&answer);
    __log(-1, "the starter %d %s and is replaced", static_cast<int>(the_starter.pid),
          outcome == 0 ? "has ended" : "did not answer in time");
    const starter_result result = late ? judge(answer, pid) : STARTER_ABSENT;
    drop_starter(true);
    return result;
}

bool starter_ended(pid_t pid) {
    if (pid <= 0 || pid != the_starter.pid) {
        return false;
    }
    drop_starter(false);
    return true;
}

pid_t starter_process_id() {
    return the_starter.pid;
}

void starter_set_limit(int milliseconds) {
    the_starter.limit_ms = milliseconds;
    set_wait(milliseconds);
}
