#include "jobs/process_info.h"

#include <signal.h>

#include "job_fixture.h"

namespace {

struct child_process {
    pid_t pid;
    explicit child_process(bool sleeps) : pid(fork()) {
        if (pid == 0) {
            if (sleeps) {
                pause();
            }
            _exit(0);
        }
    }
    // Ended, but not waited for.
    void become_zombie() const {
        siginfo_t info;
        kill(pid, SIGKILL);
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
    void reap() const { waitpid(pid, nullptr, 0); }
};

}  // namespace

TEST_F(job_test, the_stat_line_is_read_behind_its_last_bracket) {
    const std::string fields = " S 1 42 43 0 -1 0 1 2 30 40 100 200 300 400 20 0 1 0 5000000000 0 0";
    procArea_t process;
    ASSERT_TRUE(GetLinuxStaEntry("42 (a) Z 1 (x) y)" + fields, &process));
    EXPECT_EQ(process.pa_pid, 42);
    EXPECT_EQ(process.pa_ppid, 1);
    EXPECT_EQ(process.pa_pgid, 42);
    EXPECT_EQ(process.pa_state, 'S');
    EXPECT_EQ(process.pa_start, 5000000000);
    EXPECT_EQ(process.pa_fname, "a) Z 1 (x) y");
    EXPECT_EQ(process.pa_ioCount, 70);
    EXPECT_EQ(process.pa_ucpu * sysconf(_SC_CLK_TCK), (100 + 300) * 1000);
    EXPECT_EQ(process.pa_scpu * sysconf(_SC_CLK_TCK), (200 + 400) * 1000);
    for (const char* bad : {"", "42", "42 (a", "42 (a)", "(a) S 1 2", "42 (a) S 1 x 3", ") 42 ("}) {
        EXPECT_FALSE(GetLinuxStaEntry(bad, &process)) << bad;
    }
}

TEST_F(job_test, a_process_id_alone_is_no_identity) {
    JP_AREA* job = bare_job(1);
    const child_process child(true);
    procArea_t process;
    ASSERT_TRUE(GetLinuxProcEntry(child.pid, &process));
    job_table_set_pid(job, static_cast<uint32_t>(child.pid));
    EXPECT_EQ(CheckProzessId(job), child.pid);
    job->JP_jStart = process.pa_start;
    EXPECT_EQ(CheckProzessId(job), child.pid);
    job->JP_jStart = process.pa_start - 1;
    EXPECT_EQ(CheckProzessId(job), 0) << "another start time: the number was given anew";
    job->JP_jStart = 0;
    job->JP_flag |= job_flag_end_taken;
    EXPECT_EQ(CheckProzessId(job), 0);
    job->JP_flag &= ~job_flag_end_taken;

    child.become_zombie();
    EXPECT_EQ(CheckProzessId(job), child.pid) << "its SIGCHLD is still to come";
    job->JP_flag &= ~job_flag_own_child;
    EXPECT_EQ(CheckProzessId(job), 0) << "somebody else's zombie";
    job->JP_flag |= job_flag_own_child;
    child.reap();
    EXPECT_EQ(CheckProzessId(job), 0);
    for (const uint32_t never : {0u, 1u, 0xffffffffu}) {
        job_table_set_pid(job, never);
        EXPECT_EQ(CheckProzessId(job), 0) << never;
    }
}

TEST_F(job_test, one_pass_over_proc_serves_all_entries_of_a_second) {
    const child_process child(true);
    for (int run = 1; run <= 50; ++run) {
        JP_AREA* job = bare_job(run);
        job_table_set_pid(job, static_cast<uint32_t>(child.pid));
        job->JP_create = JOB_ORIGIN_QUERY;
    }
    const unsigned before = process_info_passes();
    for (int run = 1; run <= 50; ++run) {
        JP_AREA* job = Find_JEntry(run, client);
        EXPECT_EQ(Get_Proc_Attr(job), child.pid);
        EXPECT_NE(job->ImageName[0], 0);
    }
    EXPECT_LE(process_info_passes() - before, 2u);
    pcx->pcx_ProcInfo = 0;
    const unsigned off = process_info_passes();
    process_info_forget();
    EXPECT_EQ(Get_Proc_Attr(Find_JEntry(1, client)), child.pid);
    EXPECT_EQ(process_info_passes(), off);
    child.become_zombie();
    child.reap();
}

TEST_F(job_test, the_start_of_a_process_lies_between_boot_and_now) {
    procArea_t process;
    ASSERT_TRUE(GetLinuxProcEntry(getpid(), &process));
    const time_t start = process_start_time(process.pa_start);
    EXPECT_LE(start, time(nullptr) + 1);
    EXPECT_GE(start, time(nullptr) - 600);
    EXPECT_EQ(CnvTimeLinux(process.pa_start).size(), 15u);
    EXPECT_EQ(CnvTimeLinux(0), "");
}
