// Real starts: what a job finds, and what is left when a start fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "base/children.h"
#include "identity/user_files.h"
#include "job_start.h"
#include "launch/launch_steps.h"
#include "own_context.h"

#ifdef QX_FAKE_PAM
#include <dlfcn.h>

#include "fake_pam.h"
#endif

namespace {

struct Launch : testing::Test, job_start {
    own_context context;
    own_folder folder;
    launch_started started;
    uint32_t pid = 0;
    std::string file = folder / "job", report = folder / "report", rest, script;
    pam_handle_t* pam = nullptr;

    void SetUp() override { prepare(context.pcx.get(), folder.path); }
    void TearDown() override {
        launch_set_fork(nullptr);
        children_forget_all();
    }
    launch_result start() {
        launch_order order;
        order.run = 4711;
        order.code_table = table;
        order.jobfile = file;
        order.jobreport = report;
        order.name = "JOB.TEST";
        order.rest = rest;
        order.jcl = script;
        const launch_result result = start_job(context.pcx.get(), order, user, pam, &started, &error);
        pid = started.pid;
        return result;
    }
    // The wait status of the job.
    int finish() const {
        int status = -1;
        while (waitpid(static_cast<pid_t>(pid), &status, 0) < 0 && errno == EINTR) {
        }
        return status;
    }
    int run(const std::string& text) {
        script = text;
        EXPECT_EQ(start(), LAUNCH_STARTED) << error.qx_msgInsert;
        const int status = finish();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    bool exists(const std::string& path) const {
        struct stat status;
        return lstat(path.c_str(), &status) == 0;
    }
};

TEST_F(Launch, OutputExitCodeAndFiles) {
    EXPECT_EQ(run("echo out\r\necho err >&2\r\nexit 7\r\n"), 7);
    EXPECT_EQ(read_text(report), "out\nerr\n");
    EXPECT_EQ(read_text(file),
              "#!  " + GetShellPath(context.pcx.get(), "sh") + "\necho out\necho err >&2\nexit 7\n");
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_EQ(status.st_uid, user.pw_uid);
    ASSERT_EQ(stat(report.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);

    launch_context()->FileReportMode = 0044;
    launch_context()->JobFileMode = 0055;
    EXPECT_EQ(run("true"), 0);
    EXPECT_EQ(read_text(report), "") << "the report starts anew";
    ASSERT_EQ(stat(report.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(Launch, AJobLeadsItsOwnGroupAndIsKnownAsAChild) {
    script = "exec sleep 60";
    ASSERT_EQ(start(), LAUNCH_STARTED);
    EXPECT_EQ(getpgid(static_cast<pid_t>(pid)), static_cast<pid_t>(pid)) << "a cancel may come at once";
    EXPECT_TRUE(children_known(static_cast<pid_t>(pid)));
    kill(-static_cast<pid_t>(pid), SIGKILL);
    EXPECT_EQ(WTERMSIG(finish()), SIGKILL);
}

// A cancel's signal would end a shell that stays beside its script, while the script runs on.
TEST_F(Launch, TheShellBecomesTheScript) {
    script = "trap 'echo cleaned; exit 6' TERM\r\necho $$\r\nwhile :; do sleep 0.01; done";
    ASSERT_EQ(start(), LAUNCH_STARTED);
    while (read_text(report).empty()) {
        usleep(1000);
    }
    kill(-static_cast<pid_t>(pid), SIGTERM);
    EXPECT_EQ(finish(), 6 << 8);
    EXPECT_TRUE(read_text(report).starts_with(std::to_string(pid) + "\n"));
    EXPECT_TRUE(read_text(report).ends_with("cleaned\n"));
}

TEST_F(Launch, NothingOfTheAgentReachesTheJob) {
    const int left_open = open("/etc/passwd", O_RDONLY);  // without close-on-exec
    ASSERT_GE(left_open, 3);
    setenv("QX_SECRET", "1", 1);
    signal(SIGHUP, SIG_DFL);  // the tests may run under nohup
    for (int number : {SIGINT, SIGPIPE, SIGALRM, SIGIO, SIGUSR1}) {
        signal(number, SIG_IGN);
    }
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    EXPECT_EQ(run("ls /proc/self/fd | wc -l\r\nenv | grep -c QX_SECRET\r\ngrep -E '^Sig(Blk|Ign)' "
                  "/proc/self/status\r\n"
                  "readlink /proc/self/fd/0\r\npwd"),
              0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (int number : {SIGINT, SIGPIPE, SIGALRM, SIGIO, SIGUSR1}) {
        signal(number, SIG_DFL);
    }
    unsetenv("QX_SECRET");
    close(left_open);
    EXPECT_EQ(read_text(report),
              "4\n0\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n/dev/null\n" + folder.path + "\n")
        << "descriptors 0, 1, 2 and that of ls itself";
}

TEST_F(Launch, TheAgentsLowerLimitOfDescriptorsIsNotTheJobs) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    launch_context()->descriptor_limit = before;
    const rlimit lowered = {64, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    EXPECT_EQ(run("ulimit -Sn"), 0);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(read_text(report),
              (before.rlim_cur == RLIM_INFINITY ? "unlimited" : std::to_string(before.rlim_cur)) + "\n");
}

TEST_F(Launch, WithoutTheSignalNoListOfChildrenGrows) {
    launch_context()->Fl_Sigchld = 0;
    EXPECT_EQ(run("true"), 0);
    EXPECT_EQ(children_count(), 0U);
}

TEST_F(Launch, DescriptorsOfAnAgentWithoutStandardOutput) {
    const int saved = fcntl(1, F_DUPFD_CLOEXEC, 10);
    fflush(stdout);
    close(1);
    const int code = run("echo still here");
    children_forget_all();  // what it opened may stand in the place of the output
    dup2(saved, 1);
    close(saved);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(read_text(report), "still here\n");
}

TEST_F(Launch, ShellsAndOptionsOfTheMessage) {
    rest = "M='no-such-shell'";
    EXPECT_EQ(run("echo $0"), 0) << "another shell takes over";
    rest = "";
    copy_text(user.pw_shell, "/no/such/qxshell");
    EXPECT_EQ(run("echo $0"), 0) << "also for the user's own";
    rest = "M='-bash'N='-ec'";
    EXPECT_EQ(run("##QX7[bash]ps -o args= -p $PPID | cut -d' ' -f1,2\r\n##QX7[ksh]echo wrong"), 0);
    EXPECT_EQ(read_text(report).find("wrong"), std::string::npos);
    rest = "2='B'Y='echo command $((6*7))'";
    file = folder / "unused";
    EXPECT_EQ(run("echo the JCL does not count"), 0);
    EXPECT_EQ(read_text(report), "command 42\n");
    EXPECT_FALSE(exists(file));
}

TEST_F(Launch, NamesWithBlanksAndQuotes) {
    file = folder / "a job's $file";
    report = folder / "a report";
    EXPECT_EQ(run("echo fine"), 0);
    EXPECT_EQ(read_text(report), "fine\n");
}

TEST_F(Launch, WithoutAReportTheOutputGoesNowhere) {
    report = "";
    EXPECT_EQ(run("readlink /proc/self/fd/1 > seen"), 0);
    struct stat status;
    ASSERT_EQ(stat("/dev/null", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST_F(Launch, StdinIsInheritedWhenTheDummyIsOff) {
    write_text(folder / "agent.ini", "[STARTCMD]\nstdin_dummy=no\n");
    copy_text(context.pcx->IniFile, folder / "agent.ini");
    write_text(folder / "input", "from the agent\n");
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    const int input = open((folder / "input").c_str(), O_RDONLY);
    dup2(input, 0);
    EXPECT_EQ(run("cat"), 0);
    EXPECT_EQ(read_text(report), "from the agent\n");
    write_text(folder / "agent.ini", "[STARTCMD]\nstdin_dummy=yes\n");
    EXPECT_EQ(run("cat"), 0);
    EXPECT_EQ(read_text(report), "") << "a changed INI file counts at the next start";
    dup2(saved, 0);
    close(saved);
    close(input);
}

TEST_F(Launch, AMissingHomeEndsTheJobAndIsTold) {
    copy_text(user.pw_dir, folder / "gone");
    EXPECT_EQ(run("echo never"), 205);
    const std::string text = read_text(report);
    EXPECT_EQ(text.find("never"), std::string::npos);
    EXPECT_NE(text.find("2003041"), std::string::npos) << text;
    EXPECT_NE(text.find("chdir()|" + (folder / "gone") + "|2|No such file or directory|\n"),
              std::string::npos)
        << text;
}

TEST_F(Launch, AShellThatCannotBeExecuted) {
    launch_context()->firstSD.push_back({"sh", folder / "vanished"});
    EXPECT_EQ(run("echo never"), 210);
    EXPECT_NE(read_text(report).find("execle()|2|"), std::string::npos) << read_text(report);
}

// Puts another file in the place of the report between its making and the child.
std::string report_to_replace;
pid_t fork_behind_a_swap() {
    rename(report_to_replace.c_str(), (report_to_replace + ".old").c_str());
    write_text(report_to_replace, "victim");
    return fork();
}

TEST_F(Launch, AReplacedReportIsNeitherOpenedNorWritten) {
    report_to_replace = report;
    launch_set_fork(fork_behind_a_swap);
    EXPECT_EQ(run("echo here"), 0);
    EXPECT_EQ(read_text(report), "victim");
    EXPECT_EQ(read_text(report + ".old"), "here\n");
}

TEST_F(Launch, OutOfProcessesLeavesNoFilesAndOtherFailuresFail) {
    launch_set_fork([]() -> pid_t {
        errno = EAGAIN;
        return -1;
    });
    EXPECT_EQ(start(), LAUNCH_NO_PROCESS);
    EXPECT_EQ(error.qx_msgnr, 2003043);
    EXPECT_STREQ(error.qx_msgInsert, "fork|11|Resource temporarily unavailable|");
    EXPECT_FALSE(exists(file));
    EXPECT_FALSE(exists(report));
    launch_context()->JobStartType = JOB_START_VFORK;
    launch_set_fork([]() -> pid_t {
        errno = ENOMEM;
        return -1;
    });
    EXPECT_EQ(start(), LAUNCH_FAILED);
    EXPECT_STREQ(error.qx_msgInsert, "vfork|12|Cannot allocate memory|");
    EXPECT_FALSE(exists(file));
    EXPECT_FALSE(exists(report));
    launch_set_fork(nullptr);
    EXPECT_EQ(run("echo later"), 0);
    EXPECT_EQ(read_text(report), "later\n");
}

TEST_F(Launch, FilesThatCannotBeMade) {
    file = folder / "no/job";
    EXPECT_EQ(start(), LAUNCH_FAILED);
    EXPECT_EQ(error.qx_msgnr, 2003041);
    EXPECT_EQ(std::string(error.qx_msgInsert), "FileFOpen()|" + file + "|2|No such file or directory|");
    file = folder / "job";
    report = folder / "no/report";
    EXPECT_EQ(start(), LAUNCH_FAILED);
    EXPECT_EQ(std::string(error.qx_msgInsert), "FileCreate()|" + report + "|2|No such file or directory|");
    EXPECT_FALSE(exists(file)) << "no half start";

    script = std::string(20000, 'x');
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small = {4096, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const launch_result result = start();
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(result, LAUNCH_FAILED);
    EXPECT_EQ(std::string(error.qx_msgInsert), "WriteFwrite()|" + file + "|27|File too large|");
    EXPECT_FALSE(exists(file));
}

TEST_F(Launch, WhatStrangersPutInTheWayIsMovedAway) {
    if (!runs_as_root()) {
        return;
    }
    copy_text(context.pcx->pcx_TmpFolder, folder.path);
    copy_text(context.pcx->pcx_OutFolder, folder.path);
    chmod(folder.path.c_str(), 01777);
    const uid_t stranger = 12345;
    const auto make_pipe = [](const char* path) { return mkfifo(path, 0600); };
    const auto make_folder = [](const char* path) { return mkdir(path, 0700); };
    int run_number = 0;
    for (int (*make)(const char*) : {+make_pipe, +make_folder}) {
        for (std::string* name : {&file, &report}) {
            *name = folder / ("taken" + std::to_string(++run_number));
            ASSERT_EQ(make(name->c_str()), 0);
            ASSERT_EQ(chown(name->c_str(), stranger, stranger), 0);
            testing::internal::CaptureStdout();
            const int result = run("echo " + std::to_string(run_number));
            const std::string log = testing::internal::GetCapturedStdout();
            ASSERT_EQ(result, 0) << log;
            EXPECT_NE(log.find("'" + *name + "' was taken: a "), std::string::npos) << log;
            EXPECT_NE(log.find("(12345)"), std::string::npos) << log;
            EXPECT_EQ(read_text(report), std::to_string(run_number) + "\n");
        }
    }
    const auto entries = std::filesystem::directory_iterator(folder.path);
    EXPECT_EQ(
        std::count_if(begin(entries), end(entries),
                      [](const auto& entry) { return entry.path().filename().string().starts_with(".qx-"); }),
        4)
        << "nothing of a stranger's is removed";

    // Root's own is not a stranger's, and where nobody else may make names there are no strangers.
    file = folder / "mine";
    ASSERT_EQ(mkdir(file.c_str(), 0700), 0);
    EXPECT_EQ(start(), LAUNCH_FAILED);
    ASSERT_EQ(chown(file.c_str(), stranger, stranger), 0);
    chmod(folder.path.c_str(), 0755);
    EXPECT_EQ(start(), LAUNCH_FAILED);
    EXPECT_EQ(std::string(error.qx_msgInsert), "FileFOpen()|" + file + "|17|File exists|");
}

TEST_F(Launch, AnotherUserWithoutRoot) {
    if (geteuid() == 0) {
        return;  // root may
    }
    my_passwd_unlimited root;
    ASSERT_TRUE(GetPwdNameStruct("root", &user, &error));
    EXPECT_EQ(start(), LAUNCH_FAILED);
    EXPECT_EQ(std::string(error.qx_msgInsert), "chown|" + file + "|1|Operation not permitted|");
    EXPECT_FALSE(exists(file));
}

TEST_F(Launch, BatchCommandsTakePlainNamesOnly) {
    launch_context()->JobStartType = JOB_START_BATCH;
    launch_context()->cmdAddr.BSHcmd = "echo &USER &jobFile &jobReport > " + (folder / "told") + "; exit 3";
    const bool root = getuid() == 0;
    const launch_result result = start();
    EXPECT_EQ(result, root ? LAUNCH_STARTED : LAUNCH_FAILED);
    if (root) {
        EXPECT_EQ(pid, 3U << 8) << "the command's wait status";
        EXPECT_EQ(read_text(folder / "told"), std::string(user.pw_name) + " " + file + " " + report + "\n");
    } else {
        EXPECT_STREQ(error.qx_msgInsert, "setuid(0)|13|switch to root user is not possible!|");
    }
    file = folder / "$(touch evil)";
    EXPECT_EQ(start(), LAUNCH_FAILED);
    EXPECT_EQ(error.qx_msgnr, 2003030);
    EXPECT_FALSE(exists(folder / "evil"));
}

TEST_F(Launch, AsRootTheJobIsTheUserWholly) {
    if (!runs_as_root()) {
        return;
    }
    made_user group("qxlg"), ann("qxlj", "!", "-G qxlg" + std::to_string(getpid()));
    ASSERT_TRUE(ann.made);
    ASSERT_TRUE(GetPwdNameStruct(ann.name.c_str(), &user, &error));
    EXPECT_EQ(run("id -u\r\nid -ru\r\nid -G\r\npwd\r\necho $HOME $LOGNAME $USER\r\numask"), 0)
        << read_text(report);
    std::ostringstream expected;
    expected << ann.uid << "\n"
             << ann.uid << "\n"
             << ann.gid << " " << group.gid << "\n"
             << user.pw_dir << "\n"
             << user.pw_dir << " " << ann.name << " " << ann.name << "\n0022\n";
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(mask, 0022U);
    EXPECT_EQ(read_text(report), expected.str());
    struct stat status;
    ASSERT_EQ(stat(report.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ann.uid);
    EXPECT_EQ(status.st_gid, ann.gid);
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ann.uid);
    EXPECT_EQ(geteuid(), 0U);
}

pid_t plain_fork() {
    return fork();
}

// The child that shares the agent's memory leaves it as it was, and finds the same world as one that was
// forked.
TEST_F(Launch, ASharingChildAndAForkedOneAreAlike) {
    std::vector<std::string> seen;
    for (pid_t (*function)() : {static_cast<pid_t (*)()>(nullptr), plain_fork}) {
        launch_set_fork(function);
        char** const environment = environ;
        context.pcx->trcFlgs[0] = '1';
        signal(SIGUSR1, SIG_IGN);
        EXPECT_EQ(
            run("env | sort\r\nulimit -n\r\nid\r\numask\r\ngrep -E '^Sig(Blk|Ign|Cgt)' /proc/self/status"),
            0);
        EXPECT_EQ(environ, environment);
        EXPECT_EQ(context.pcx->trcFlgs[0].load(), '1');
        EXPECT_EQ(signal(SIGUSR1, SIG_DFL), SIG_IGN) << "the job's dispositions are its own";
        seen.push_back(read_text(report));
        const std::string home = user.pw_dir;
        copy_text(user.pw_dir, "/no/home");
        EXPECT_EQ(run("true"), 205);
        EXPECT_NE(read_text(report).find("chdir()|/no/home|2|"), std::string::npos);
        copy_text(user.pw_dir, home);
    }
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[0].find("SigBlk:\t0000000000000000"), seen[0].find("SigBlk:"));
}

TEST_F(Launch, TheUsersLimitOfProcesses) {
    if (geteuid() == 0) {
        return;  // root has none
    }
    rlimit before;
    getrlimit(RLIMIT_NPROC, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NPROC, &none);
    const launch_result result = start();
    setrlimit(RLIMIT_NPROC, &before);
    EXPECT_EQ(result, LAUNCH_NO_PROCESS);
    EXPECT_FALSE(exists(file));
    EXPECT_EQ(run("true"), 0);
}

#ifdef QX_FAKE_PAM
TEST_F(Launch, ThePamSessionBelongsToTheChild) {
    void* library = nullptr;
    ASSERT_EQ(loadDLL(context.pcx.get(), QX_FAKE_PAM, &library, &error), 0);
    char missing[64];
    ASSERT_EQ(LoadPamFunctions(library, missing, sizeof missing, &error), 0);
    auto* state = reinterpret_cast<fake_pam_state* (*)()>(dlsym(library, fake_pam_symbol))();
    *state = {};
    state->styles = {PAM_PROMPT_ECHO_OFF};
    state->environment = {"QX_TICKET=/tmp/t", "PATH=/evil", "HOME=/from/pam"};
    pam_options = {true, true, true};
    std::string text;
    ASSERT_EQ(PamPasswordCheck(context.pcx->pcx_runUserName, "x", &text, &pam), 1) << text;
    EXPECT_EQ(run("echo $QX_TICKET $HOME\r\ncase $PATH in *evil*) echo $PATH;; esac"), 0);
    EXPECT_EQ(read_text(report), "/tmp/t /from/pam\n");
    state->open_session = 14;
    EXPECT_EQ(run("echo never"), 204);
    EXPECT_EQ(read_text(report),
              "Error opening PAM session for user '" + std::string(user.pw_name) +
                  "'.  Typically this is a result of a wrong PAM or LDAP configuration.\n");
    PamEndAfterStart(pam);
    EXPECT_EQ(state->calls.back(), "end");
    pam_options = {};
    unloadDLL(context.pcx.get(), library, QX_FAKE_PAM, &error);
}
#endif

}  // namespace
