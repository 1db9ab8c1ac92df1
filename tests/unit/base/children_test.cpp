#include "base/children.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "own_context.h"

namespace {

// This process inherits what its children leave behind, as process 1 of a container does.
struct children : ::testing::Test {
    children() {
        EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), 0);
        children_forget_all();
    }
    ~children() override {
        prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
    static pid_t child_that_ends(int code) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(code);
        }
        wait_for_end(pid);
        return pid;
    }
    // A process that became this one's child without its doing, and has ended.
    static pid_t adopted_that_ends() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const pid_t between = fork();
        if (between == 0) {
            const pid_t orphan = fork();
            if (orphan == 0) {
                _exit(3);
            }
            _exit(write(ends[1], &orphan, sizeof orphan) == sizeof orphan ? 0 : 1);
        }
        waitpid(between, nullptr, 0);
        pid_t orphan = 0;
        EXPECT_EQ(read(ends[0], &orphan, sizeof orphan), static_cast<ssize_t>(sizeof orphan));
        close(ends[0]);
        close(ends[1]);
        wait_for_end(orphan);
        return orphan;
    }
    // Until it can be collected; it stays so.
    static void wait_for_end(pid_t pid) {
        siginfo_t info;
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    }
    static bool still_there(pid_t pid) { return kill(pid, 0) == 0; }
};

TEST_F(children, adopted_ones_are_collected_and_never_told) {
    const pid_t first = adopted_that_ends();
    const pid_t own = child_that_ends(7);
    children_note(own);
    const pid_t second = adopted_that_ends();
    pid_t pid = 0;
    int status = 0;
    ASSERT_TRUE(children_collect(&pid, &status));
    EXPECT_EQ(pid, own);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_FALSE(children_collect(&pid, &status));
    EXPECT_FALSE(still_there(first));
    EXPECT_FALSE(still_there(second)) << "also with nothing noted";
    EXPECT_EQ(children_count(), 0U);
}

// Its number may come only after its end.
TEST_F(children, one_whose_number_is_still_to_come_is_left_alone) {
    children_expect();
    const pid_t expected = child_that_ends(5);
    const pid_t own = child_that_ends(6);
    children_note(own);
    pid_t pid = 0;
    int status = 0;
    ASSERT_TRUE(children_collect(&pid, &status)) << "what is known is found behind it";
    EXPECT_EQ(pid, own);
    EXPECT_FALSE(children_collect(&pid, &status));
    ASSERT_TRUE(still_there(expected));
    children_note(expected);
    children_expect_end();
    ASSERT_TRUE(children_collect(&pid, &status));
    EXPECT_EQ(pid, expected);
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

// Descriptors are kept for other things: whom none is left for is found all the same, and so is one whom
// somebody else has waited for.
TEST_F(children, all_are_found_when_descriptors_are_few) {
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit few{20, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    std::set<pid_t> own;
    for (int i = 0; i < 30; ++i) {
        const pid_t pid = child_that_ends(i);
        children_note(pid);
        own.insert(pid);
    }
    EXPECT_EQ(waitpid(*own.begin(), nullptr, 0), *own.begin());
    own.erase(own.begin());
    pid_t pid = 0;
    int status = 0;
    while (children_collect(&pid, &status)) {
        EXPECT_EQ(own.erase(pid), 1U);
    }
    EXPECT_TRUE(own.empty());
    EXPECT_EQ(children_count(), 0U);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
}

// Its descriptor tells the end, but the one who traces it has it first, for as long as he likes.
TEST_F(children, one_that_another_process_traces_holds_nobody_up) {
    int said[2], wanted[2];
    ASSERT_EQ(pipe(said), 0);
    ASSERT_EQ(pipe(wanted), 0);
    const auto wait_for_byte = [](int fd) {
        char byte;
        return read(fd, &byte, 1) == 1;
    };
    const pid_t traced = fork();
    if (traced == 0) {
        prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
        _exit(wait_for_byte(wanted[0]) ? 3 : 4);
    }
    const pid_t tracer = fork();
    if (tracer == 0) {
        const bool held = ptrace(PTRACE_SEIZE, traced, 0, 0) == 0;
        if (write(said[1], held ? "y" : "n", 1) != 1) {
            _exit(1);
        }
        pause();
    }
    char held = 'n';
    ASSERT_EQ(read(said[0], &held, 1), 1);
    children_note(traced);
    ASSERT_EQ(write(wanted[1], "x", 1), 1);
    pid_t pid = 0;
    int status = 0;
    if (held == 'y') {
        alarm(20);  // ends a search without end
        while (read_text("/proc/" + std::to_string(traced) + "/stat").find(") Z ") == std::string::npos) {
            usleep(1000);
        }
        EXPECT_FALSE(children_collect(&pid, &status));
        const pid_t other = child_that_ends(5);
        children_note(other);
        ASSERT_TRUE(children_collect(&pid, &status));
        EXPECT_EQ(pid, other);
    }
    kill(tracer, SIGKILL);
    EXPECT_EQ(waitpid(tracer, nullptr, 0), tracer);
    wait_for_end(traced);
    ASSERT_TRUE(children_collect(&pid, &status));
    EXPECT_EQ(pid, traced);
    alarm(0);
    for (const int fd : {said[0], said[1], wanted[0], wanted[1]}) {
        close(fd);
    }
}

}  // namespace
