// The starter: this program, executed anew, is one.
#include "launch/starter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>

#include "base/children.h"
#include "base/sanitizer.h"
#include "base/time.h"
#include "job_start.h"
#include "launch/launch_steps.h"
#include "launch/starter_record.h"
#include "own_context.h"

namespace {

__attribute__((constructor)) void become_a_starter(int argc, char** argv, char**) {
    if (starter_is_wanted(argc, argv)) {
        _exit(starter_run());
    }
}

int wait_status(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

constexpr bool has_starter = !QX_THREAD_SANITIZER;

struct Starter : testing::Test {
    own_context context;
    own_folder folder;
    std::string text = "true";
    std::vector<char*> arguments, environment;
    starter_wish wish;
    pid_t pid = 0;

    void SetUp() override {
        if (!has_starter) {
            GTEST_SKIP() << "the thread sanitizer knows no children in their parent's memory";
        }
        ASSERT_EQ(starter_open("/proc/self/exe"), 0);
        starter_set_limit(20000);  // it must be executed first, on a busy host
        wish.program = "/bin/sh";
        wish.directory = folder.path.c_str();
        wish.uid = geteuid();
        wish.exit_codes.fill(99);
    }
    void TearDown() override {
        const pid_t starter = starter_process_id();
        starter_close();
        if (starter != 0) {
            EXPECT_EQ(wait_status(starter), 0) << "it ends with the socket";
        }
        children_forget_all();
    }
    starter_result start(const std::string& script) {
        text = script;
        static char sh[] = "sh", option[] = "-c";
        arguments = {sh, option, text.data()};
        wish.arguments = arguments;
        return starter_start(wish, &pid);
    }
};

TEST_F(Starter, AChildIsOurOwnAndTakesWhatTheOrderSays) {
    const int out = open((folder / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    static char entry[] = "NAME=value";
    environment = {entry};
    wish.environment = environment;
    wish.output = out;
    wish.lines = "first line\n";
    wish.descriptor_limit = {77, 4096};
    ASSERT_EQ(start("echo $NAME $PPID; pwd; ulimit -n; ls /proc/self/fd | wc -l; readlink /proc/self/fd/0; "
                    "grep -E '^Sig(Blk|Ign)' /proc/self/status; exit 7"),
              STARTER_STARTED);
    EXPECT_EQ(getpgid(pid), pid) << "the group stands before anybody knows the process";
    EXPECT_EQ(wait_status(pid), 7);
    EXPECT_EQ(read_text(folder / "out"),
              "first line\nvalue " + std::to_string(getpid()) + "\n" + folder.path +
                  "\n77\n4\n/dev/null\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    close(out);
}

// As `prlimit --pid` on the agent while it runs.
TEST_F(Starter, AChildHasTheLimitsThatTheAgentHasNow) {
    const std::string script = "ulimit -S -f >> " + (folder / "out");
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    ASSERT_EQ(start(script), STARTER_STARTED);
    EXPECT_EQ(wait_status(pid), 0);
    const rlimit lower = {512 * 4321, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lower), 0);
    const starter_result result = start(script);
    setrlimit(RLIMIT_FSIZE, &before);
    ASSERT_EQ(result, STARTER_STARTED);
    EXPECT_EQ(wait_status(pid), 0);
    ASSERT_EQ(start(script), STARTER_STARTED);
    EXPECT_EQ(wait_status(pid), 0);
    const std::string told = read_text(folder / "out");
    const std::string first = told.substr(0, told.find('\n') + 1);
    EXPECT_EQ(told, first + "4321\n" + first);
}

TEST_F(Starter, AChildThatIsHeldOnItsWayHoldsNobody) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    while (write(ends[1], "full", 4) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    wish.output = ends[1];
    wish.lines = std::string_view("waits for room, half made as it is\n");
    ASSERT_EQ(start("exit 5"), STARTER_STARTED);
    const pid_t held = pid;
    kill(held, SIGSTOP);
    wish.output = -1;
    wish.lines = {};
    const pid_t starter = starter_process_id();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(start("exit 6"), STARTER_STARTED);
        EXPECT_EQ(wait_status(pid), 6);
    }
    EXPECT_EQ(starter_process_id(), starter);
    kill(held, SIGCONT);
    char gone[65536];
    while (read(ends[0], gone, sizeof gone) > 0) {
    }
    EXPECT_EQ(wait_status(held), 5) << "it goes on as if nothing had been";
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Starter, WhenAllPlacesAreHeldThereIsANewOne) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    while (write(ends[1], "full", 4) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    wish.output = ends[1];
    wish.lines = std::string_view("waits for room, half made as it is\n");
    std::vector<pid_t> held;
    while (held.size() < 100 && start("true") == STARTER_STARTED) {
        held.push_back(pid);
    }
    EXPECT_GT(held.size(), 20U);
    EXPECT_LT(held.size(), 100U) << "a bound there must be";
    EXPECT_EQ(starter_process_id(), 0) << "given up";
    for (const pid_t child : held) {
        EXPECT_EQ(kill(child, SIGKILL), 0) << "they are not lost with it";
        EXPECT_EQ(wait_status(child), -SIGKILL);
    }
    close(ends[0]);
    close(ends[1]);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {  // the old starter
    }
}

// Nothing waits for longer than the limit, and what was not started by then never is.
TEST_F(Starter, AStoppedStarterIsReplacedWithinTheLimit) {
    ASSERT_EQ(start("true"), STARTER_STARTED);
    wait_status(pid);
    starter_set_limit(300);
    const pid_t stopped = starter_process_id();
    kill(stopped, SIGSTOP);
    const int64_t begin = alarm_now_ms();
    EXPECT_EQ(start("echo ran > ran"), STARTER_ABSENT);
    EXPECT_LT(alarm_now_ms() - begin, 2000);
    EXPECT_EQ(wait_status(stopped), -SIGKILL);
    EXPECT_EQ(starter_process_id(), 0);
    EXPECT_NE(access((folder / "ran").c_str(), F_OK), 0);
    starter_set_limit(20000);
    while (alarm_now_ms() - begin < 1400) {
        usleep(20000);  // two starters are a second apart
    }
    ASSERT_EQ(start("exit 4"), STARTER_STARTED);
    EXPECT_EQ(wait_status(pid), 4);
    EXPECT_NE(starter_process_id(), stopped);
}

TEST_F(Starter, AStarterThatIsLostIsNoticed) {
    ASSERT_EQ(start("true"), STARTER_STARTED);
    wait_status(pid);
    const pid_t lost = starter_process_id();
    kill(lost, SIGKILL);
    EXPECT_EQ(wait_status(lost), -SIGKILL);
    EXPECT_EQ(start("true"), STARTER_ABSENT);
    EXPECT_FALSE(starter_ended(lost)) << "the failed order came first";
}

TEST_F(Starter, FailuresOfTheSystemAndOfTheOrder) {
    wish.program = "/no/such/shell";
    const int out = open((folder / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    wish.output = out;
    wish.failures[STARTER_STEP_EXECUTE] = "exec <\1> <\2>\n";
    wish.failures[STARTER_STEP_DIRECTORY] = "\2";
    wish.exit_codes[STARTER_STEP_EXECUTE] = 210;
    ASSERT_EQ(start("true"), STARTER_STARTED) << "told by its end, as ever";
    EXPECT_EQ(wait_status(pid), 210);
    wish.directory = "/no/such/folder";
    wish.exit_codes[STARTER_STEP_DIRECTORY] = 205;
    ASSERT_EQ(start("true"), STARTER_STARTED);
    EXPECT_EQ(wait_status(pid), 205);
    EXPECT_EQ(read_text(folder / "out"), "exec <2> <No such file or directory>\nNo such file or directory");
    close(out);

    const std::string large(starter_order_limit, 'x');
    EXPECT_EQ(start(large), STARTER_ABSENT) << "too large for an order";
    wish.exit_codes[STARTER_STEP_OUTPUT] = 0;
    wish.output = -1;
    EXPECT_EQ(start("true"), STARTER_ABSENT) << "refused, since its end would look like success";
    wish.exit_codes[STARTER_STEP_OUTPUT] = 206;
    wish.directory = "/";
    wish.program = "/bin/sh";
    ASSERT_EQ(start("exit 3"), STARTER_STARTED) << "a refused order harms nobody";
    EXPECT_EQ(wait_status(pid), 3);
}

// ---- The record

TEST(StarterRecord, WhatDoesNotHoldWhatItSaysIsRefused) {
    char argument[] = "sh", entry[] = "A=B";
    std::vector<char*> arguments = {argument, argument}, environment = {entry};
    const std::vector<gid_t> groups = {5, 6, 7};
    starter_wish wish;
    wish.program = "/bin/sh";
    wish.directory = "/";
    wish.arguments = arguments;
    wish.environment = environment;
    wish.groups = groups;
    wish.identity = true;
    wish.exit_codes.fill(1);
    wish.output = 1;
    const std::vector<unsigned char> good = starter_build_order(wish);
    const auto read = [](std::vector<unsigned char> record, int descriptors = 1) {
        static starter_job job;
        return starter_read_order(record, descriptors, &job);
    };
    ASSERT_EQ(read(good), 0);
    EXPECT_EQ(read(good, 0), -1);
    EXPECT_EQ(read(good, 2), -1);
    for (size_t length = 0; length < good.size(); ++length) {
        EXPECT_EQ(read({good.begin(), good.begin() + static_cast<long>(length)}), -1) << length;
    }
    std::vector<unsigned char> longer = good;
    longer.push_back(0);
    EXPECT_EQ(read(longer), -1);
    // Each field of the head changed: mark, size, flags, counts, text size, and an exit code of success.
    for (const size_t offset : {0, 8, 15, 24, 27, 28, 31, 32, 35, 36}) {
        std::vector<unsigned char> other = good;
        other[offset] = static_cast<unsigned char>(other[offset] + 64);
        EXPECT_EQ(read(other), -1) << offset;
    }
    std::vector<unsigned char> success = good;
    success[offsetof(starter_order, exit_codes)] = 0;
    EXPECT_EQ(read(success), -1);
    std::vector<unsigned char> open_end = good;
    open_end.back() = 'x';
    EXPECT_EQ(read(open_end), -1) << "a text without its end";
}

TEST(StarterRecord, NobodyBecomesAStarterByCallingTheProgram) {
    const char* const argv[] = {"qxxjlnx-starter", nullptr};
    const int kept = fcntl(3, F_DUPFD_CLOEXEC, 10);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    dup2(ends[0], 3);
    EXPECT_FALSE(starter_is_wanted(1, argv)) << "the maker of the socket is not the parent";
    close(ends[1] == 3 ? ends[0] : ends[1]);
    if (kept >= 0) {
        dup2(kept, 3);
        close(kept);
    } else {
        close(3);
    }
}

// ---- Jobs by both ways

struct StarterJobs : Starter, job_start {
    std::string report = folder / "report", user_name;

    void SetUp() override {
        Starter::SetUp();
        if (!has_starter) {
            return;
        }
        prepare(context.pcx.get(), folder.path);
    }
    void TearDown() override {
        launch_set_fork(nullptr);
        Starter::TearDown();
    }
    std::string run(const std::string& script) {
        launch_order order;
        order.run = 4711;
        order.code_table = table;
        const std::string file = folder / "job";
        order.jobfile = file;
        order.jobreport = report;
        order.jcl = script;
        launch_started started;
        if (start_job(context.pcx.get(), order, user, nullptr, &started, &error) != LAUNCH_STARTED) {
            return error.qx_msgInsert;
        }
        const int code = wait_status(static_cast<pid_t>(started.pid));
        return std::to_string(code) + "\n" + read_text(report);
    }
};

TEST_F(StarterJobs, AJobFindsTheSameOnBothWays) {
    context.pcx->trcFlgs[0] = '1';
    setenv("QX_SECRET", "1", 1);
    signal(SIGHUP, SIG_IGN);
    signal(SIGUSR1, SIG_IGN);
    const auto all = [this] {
        std::string seen =
            run("env | sort\r\nulimit -a\r\nid\r\numask\r\nls -l /proc/self/fd | wc -l\r\n"
                "grep -E '^Sig' /proc/self/status | grep -v SigQ\r\nps -o sid=,tty= -p $$");
        const std::string home = user.pw_dir;
        copy_text(user.pw_dir, "/no/home");
        seen += run("true");
        copy_text(user.pw_dir, home);
        launch_context()->firstSD = {{"sh", folder / "vanished"}};
        seen += run("true");
        launch_context()->firstSD.clear();
        return seen;
    };
    const std::string started = all();
    EXPECT_NE(starter_process_id(), 0);
    launch_set_fork([]() -> pid_t { return fork(); });
    EXPECT_EQ(all(), started);
    signal(SIGHUP, SIG_DFL);
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(started.find("QX_SECRET"), std::string::npos);
    EXPECT_NE(started.find("SigIgn:\t0000000000000000"), std::string::npos);
    EXPECT_NE(started.find("205\n"), std::string::npos);
    EXPECT_NE(started.find("chdir()|/no/home|2|No such file or directory|\n"), std::string::npos) << started;
    EXPECT_NE(started.find("210\n"), std::string::npos);
    EXPECT_NE(started.find("execle()|2|No such file or directory|\n"), std::string::npos) << started;
}

TEST_F(StarterJobs, ALostStarterCostsNoJob) {
    ASSERT_EQ(run("echo one"), "0\none\n");
    kill(starter_process_id(), SIGKILL);
    EXPECT_EQ(run("echo two"), "0\ntwo\n");
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

TEST_F(StarterJobs, AsRootTheChildIsTheUserWholly) {
    if (!runs_as_root()) {
        return;
    }
    made_user group("qxsg"), ann("qxsj", "!", "-G qxsg" + std::to_string(getpid()));
    ASSERT_TRUE(ann.made);
    ASSERT_TRUE(GetPwdNameStruct(ann.name.c_str(), &user, &error));
    const char script[] = "grep -E '^(Uid|Gid|Groups|Cap|NoNew)' /proc/self/status\r\npwd";
    const std::string started = run(script);
    EXPECT_EQ(started.find("Uid:\t" + std::to_string(ann.uid)), 2U) << started;
    EXPECT_NE(starter_process_id(), 0);
    launch_set_fork([]() -> pid_t { return fork(); });
    EXPECT_EQ(run(script), started);
}

}  // namespace
