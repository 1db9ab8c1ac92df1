// The starter's own side: takes orders and makes children.
#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "base/descriptor.h"
#include "launch/starter_child.h"
#include "launch/starter_link.h"

namespace {

constexpr size_t place_count = 32;  // children on their way to exec at the same time
constexpr size_t stack_size = 32 * 1024;
constexpr int descriptors_limit = 2;

// The system sets `busy` to 0 when the child has left this memory, by exec or by its end.
struct workplace {
    alignas(16) char stack[stack_size];
    pid_t busy;
    starter_place place;
    alignas(16) unsigned char record[starter_order_limit];
};

// Places are zero pages until somebody works there.
workplace* make_places() {
    void* memory = mmap(nullptr, place_count * sizeof(workplace), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<workplace*>(memory);
}

bool is_free(const workplace& place) {
    return __atomic_load_n(&place.busy, __ATOMIC_ACQUIRE) == 0;
}

// The last one is never worked at: there the order is received for which no place is left.
workplace* free_place(workplace* places) {
    size_t at = 0;
    while (at + 1 < place_count && !is_free(places[at])) {
        ++at;
    }
    return &places[at];
}

void default_signals() {
    for (int number = 1; number <= 64; ++number) {
        // Directly, since the library refuses those that it uses itself; SIGKILL and SIGSTOP cannot be set.
        const uint64_t action[4] = {0, 0, 0, 0};
        syscall(SYS_rt_sigaction, number, action, nullptr, sizeof(uint64_t));
    }
    const uint64_t all = ~uint64_t{0};
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, nullptr, sizeof all);
}

// A job must not be able to push input into the terminal from which the agent was started.
void drop_terminal() {
    const qx_descriptor terminal(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (terminal.valid()) {
        // Without a terminal there is nothing to give up.
        (void)ioctl(terminal.get(), TIOCNOTTY);
    }
}

// The descriptors of a message, in their order; -1 where there is none. The number that came.
int take_descriptors(msghdr* message, int (&descriptors)[descriptors_limit]) {
    int count = 0;
    for (cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t bytes = part->cmsg_len - CMSG_LEN(0);
        for (size_t at = 0; at + sizeof(int) <= bytes && count < descriptors_limit; at += sizeof(int)) {
            memcpy(&descriptors[count++], CMSG_DATA(part) + at, sizeof(int));
        }
    }
    return count;
}

// Length of the order, 0 at the end, -1 for one that is to be refused.
ssize_t receive(workplace* work, int (&descriptors)[descriptors_limit], int* count) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)];
    iovec part = {work->record, sizeof work->record};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t length = 0;
    do {
        length = recvmsg(starter_descriptor, &message, MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    if (length <= 0) {
        return 0;  // the agent has ended
    }
    *count = take_descriptors(&message, descriptors);
    return (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 ? -1 : length;
}

void refuse(int error_number) {
    starter_answer answer = {};
    memcpy(answer.mark, starter_answer_mark, sizeof answer.mark);
    answer.error_number = error_number;
    // Whoever does not take it notices the end of the line.
    (void)!send(starter_descriptor, &answer, sizeof answer, MSG_NOSIGNAL);
}

// 0, or the reason why there is no child.
int make_child(workplace* work, ssize_t length, const int (&descriptors)[descriptors_limit], int count) {
    if (!is_free(*work)) {
        return EBUSY;
    }
    starter_place& place = work->place;
    if (length < 0 ||
        starter_read_order({work->record, static_cast<size_t>(length)}, count, &place.job) != 0) {
        return EBADMSG;
    }
    const bool output = (place.job.head.flags & STARTER_OUTPUT) != 0;
    const bool input = (place.job.head.flags & STARTER_INPUT) != 0;
    place.output = output ? descriptors[0] : -1;
    place.input = input ? descriptors[output ? 1 : 0] : -1;
    place.socket = starter_descriptor;
    __atomic_store_n(&work->busy, 1, __ATOMIC_RELEASE);
    // No CLONE_VFORK: whoever stops the child on its way stops nobody else, and the next child is made while
    // this one is still busy with exec. CLONE_PARENT makes it a child of the agent.
    constexpr int flags = CLONE_VM | CLONE_PARENT | CLONE_CHILD_CLEARTID | SIGCHLD;
    const int pid =
        clone(starter_child, work->stack + stack_size, flags, &place, nullptr, nullptr, &work->busy);
    if (pid < 0) {
        const int error_number = errno;
        __atomic_store_n(&work->busy, 0, __ATOMIC_RELEASE);
        return error_number;
    }
    return 0;
}

}  // namespace

bool starter_is_wanted(int argc, const char* const* argv) {
    if (argc != 1 || strcmp(argv[0], starter_title) != 0) {
        return false;
    }
    ucred maker = {};
    int type = 0;
    socklen_t size = sizeof maker;
    socklen_t type_size = sizeof type;
    // Made by the parent, and with the rights that this process has: nobody gets root's orders taken by
    // calling a set-user-id program.
    return getsockopt(starter_descriptor, SOL_SOCKET, SO_TYPE, &type, &type_size) == 0 &&
           type == SOCK_SEQPACKET &&
           getsockopt(starter_descriptor, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0 &&
           maker.pid == getppid() && maker.uid == geteuid();
}

int starter_run() {
    prctl(PR_SET_NAME, starter_title);
    // Children share this memory also when they already are their user: he must not look into it.
    prctl(PR_SET_DUMPABLE, 0);
    syscall(SYS_close_range, starter_descriptor + 1, ~0U, 0);  // what the agent's own starter left open
    fcntl(starter_descriptor, F_SETFD, FD_CLOEXEC);
    default_signals();
    drop_terminal();
    (void)!chdir("/");  // no folder of the agent is held; each child has its own
    workplace* places = make_places();
    if (places == nullptr) {
        return 1;
    }
    for (;;) {
        workplace* work = free_place(places);
        int descriptors[descriptors_limit] = {-1, -1};
        int count = 0;
        const ssize_t length = receive(work, descriptors, &count);
        if (length == 0) {
            return 0;
        }
        const bool full = work == &places[place_count - 1];
        const int reason = full ? EBUSY : make_child(work, length, descriptors, count);
        for (const int fd : descriptors) {
            if (fd >= 0) {
                close(fd);  // the child has its own
            }
        }
        if (reason != 0) {
            refuse(reason);
        }
    }
}
