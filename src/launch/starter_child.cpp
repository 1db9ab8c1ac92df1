// The child shares the starter's memory, and the starter goes on beside it: nothing here may write to memory
// but the child's own stack, not even errno. So the system is called directly, and of the C library nothing
// is used but the table of error texts. The wrappers of setgid, setgroups and setuid would also try to change
// the threads of a process that is not this one.
#include "launch/starter_child.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

// Sanitizers keep a record of each call in the memory of the thread, which is the starter's.
#define QX_SHARED_MEMORY __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

#if defined(__x86_64__)
QX_SHARED_MEMORY long call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0) {
    register long r10 asm("r10") = d;
    register long r8 asm("r8") = e;
    long result = 0;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8)
                 : "rcx", "r11", "memory");
    return result;  // an errno comes as its negative
}
#else
#error "the starter's child is written for x86-64"
#endif

QX_SHARED_MEMORY long address(const void* pointer) {
    return reinterpret_cast<long>(pointer);
}

[[noreturn]] QX_SHARED_MEMORY void end(int code) {
    for (;;) {
        call(SYS_exit_group, code);
    }
}

// The line of the step: what stands before, between and behind errno and text.
QX_SHARED_MEMORY void write_line(const starter_text& line, long error_number) {
    char digits[12];
    char* first = digits + sizeof digits;
    for (long rest = error_number; first == digits + sizeof digits || rest > 0; rest /= 10) {
        *--first = static_cast<char>('0' + rest % 10);
    }
    const char* reason = strerrordesc_np(static_cast<int>(error_number));
    size_t reason_length = 0;
    while (reason != nullptr && reason[reason_length] != 0) {
        ++reason_length;
    }
    size_t begin = 0;
    for (size_t at = 0; at <= line.length; ++at) {
        const char c = at < line.length ? line.at[at] : starter_errno_byte;
        if (c != starter_errno_byte && c != starter_reason_byte) {
            continue;
        }
        call(SYS_write, 2, address(line.at + begin), static_cast<long>(at - begin));
        if (at < line.length && c == starter_errno_byte) {
            call(SYS_write, 2, address(first), digits + sizeof digits - first);
        } else if (at < line.length) {
            call(SYS_write, 2, address(reason), static_cast<long>(reason_length));
        }
        begin = at + 1;
    }
}

[[noreturn]] QX_SHARED_MEMORY void fail(const starter_job& job, int step, long result) {
    // The exit code says what went wrong also when the line cannot be written.
    write_line(job.failures[step], -result);
    end(job.head.exit_codes[step]);
}

QX_SHARED_MEMORY void need(const starter_job& job, int step, long result) {
    if (result < 0) {
        fail(job, step, result);
    }
}

QX_SHARED_MEMORY void write_lines(const starter_job& job, int fd) {
    const char* at = job.lines.at;
    size_t left = job.lines.length;
    while (left > 0) {
        const long written = call(SYS_write, fd, address(at), static_cast<long>(left));
        if (written == -EINTR) {
            continue;
        }
        need(job, STARTER_STEP_OUTPUT, written == 0 ? -ENOSPC : written);
        at += written;
        left -= static_cast<size_t>(written);
    }
}

QX_SHARED_MEMORY long open_null(int flags) {
    return call(SYS_openat, AT_FDCWD, address("/dev/null"), flags | O_CLOEXEC | O_NOCTTY);
}

// The descriptors that came along are above 2, so that dup3 never meets its own.
QX_SHARED_MEMORY void take_descriptors(const starter_place& place) {
    const starter_job& job = place.job;
    const long output = place.output >= 0 ? place.output : open_null(O_WRONLY | O_APPEND);
    need(job, STARTER_STEP_OUTPUT, output);
    write_lines(job, static_cast<int>(output));
    need(job, STARTER_STEP_DUP_OUTPUT, call(SYS_dup3, output, 1, 0));
    need(job, STARTER_STEP_DUP_ERROR, call(SYS_dup3, output, 2, 0));
    const long input = place.input >= 0 ? place.input : open_null(O_RDONLY);
    need(job, STARTER_STEP_OPEN_INPUT, input);
    need(job, STARTER_STEP_DUP_INPUT, call(SYS_dup3, input, 0, 0));
    // The socket must be gone before the user can hold the child: its end would not be noticed. Kernels
    // without the call close all of them at exec.
    call(SYS_close_range, 3, ~0U, 0);
}

QX_SHARED_MEMORY void take_identity(const starter_job& job) {
    const starter_order& head = job.head;
    if ((head.flags & STARTER_IDENTITY) != 0) {
        need(job, STARTER_STEP_SETGID, call(SYS_setgid, head.gid));
        need(job, STARTER_STEP_GROUPS, call(SYS_setgroups, head.group_count, address(job.groups)));
        need(job, STARTER_STEP_SETUID, call(SYS_setuid, head.uid));
    }
    if (head.uid != 0 && call(SYS_geteuid) == 0) {
        need(job, STARTER_STEP_SETEUID, call(SYS_setresuid, -1, head.uid, -1));
    }
}

QX_SHARED_MEMORY void take_limit(const starter_order& head) {
    if ((head.flags & STARTER_LIMIT) != 0) {
        const uint64_t limit[2] = {head.limit_soft, head.limit_hard};
        // The hard limit never changed; a job with the starter's lower one is better than none.
        call(SYS_prlimit64, 0, RLIMIT_NOFILE, address(limit), 0);
    }
}

// An answer that nobody takes any more: the agent has given the order up and starts the job in another way.
QX_SHARED_MEMORY void tell(int socket) {
    starter_answer answer = {
        {'Q', 'X', 'S', 'T', 'A', 'R', 'T', 'A'}, static_cast<int32_t>(call(SYS_getpid)), 0};
    if (call(SYS_sendto, socket, address(&answer), sizeof answer, MSG_NOSIGNAL) != sizeof answer) {
        end(1);
    }
}

}  // namespace

QX_SHARED_MEMORY int starter_child(void* argument) {
    const starter_place& place = *static_cast<const starter_place*>(argument);
    const starter_job& job = place.job;
    call(SYS_setpgid, 0, 0);  // before the answer: a cancel may follow it at once and must find the group
    tell(place.socket);
    take_descriptors(place);
    take_limit(job.head);
    take_identity(job);
    // A change of identity may have made this memory readable for the user. Until that is taken back no
    // signal gets through: on older kernels a core dump would end everybody who shares the memory.
    call(SYS_prctl, PR_SET_DUMPABLE, 0, 0, 0, 0);
    // The starter has the default action for every signal and blocks all of them.
    const uint64_t none = 0;
    call(SYS_rt_sigprocmask, SIG_SETMASK, address(&none), 0, sizeof none);
    need(job, STARTER_STEP_DIRECTORY, call(SYS_chdir, address(job.directory)));
    fail(job, STARTER_STEP_EXECUTE,
         call(SYS_execve, address(job.program), address(job.arguments), address(job.environment)));
}
