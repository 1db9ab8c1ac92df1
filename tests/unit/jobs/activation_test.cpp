#include "jobs/activation.h"

#include <sys/stat.h>

#include <cerrno>

#include "job_fixture.h"
#include "jobs/who_may_start.h"
#include "launch/job_files.h"
#include "launch/launch.h"

namespace {

pid_t no_process() {
    errno = EAGAIN;
    return -1;
}

int tries = 0;
pid_t no_process_twice() {
    if (++tries <= 2) {
        errno = EAGAIN;
        return -1;
    }
    return fork();
}

struct no_fork {
    explicit no_fork(pid_t (*function)()) { launch_set_fork(function); }
    ~no_fork() { launch_set_fork(fork); }
};

}  // namespace

// ---- Who may start ----

struct start_case {
    const char* ini;
    const char* name;
    uid_t uid;
    char flag;
};

TEST_F(job_test, who_may_start_jobs) {
    constexpr start_case cases[] = {
        {"", "anna", 1000, 'S'},
        {"", "root", 0, 'N'},
        {"", "toor", 0, 'N'},
        {"[USERID]\nroot=START\n", "root", 0, 'S'},
        {"[USERID]\nroot=start\n", "root", 0, 'S'},
        {"[USERID]\nroot=START\n", "toor", 0, 'N'},
        {"[USERID]\ntoor=START\n", "toor", 0, 'S'},
        {"[USERID]\nroot=yes\n", "root", 0, 'N'},
        {"[USERID]\nanna=NO_START\n", "anna", 1000, 'N'},
        {"[USERID]\nanna=whatever\n", "anna", 1000, 'S'},
        {"[USERID]\nanna=NO_START\n", "ann", 1001, 'S'},
        {"[GLOBAL]\nuserid_type=INCL\n[USERID]\nanna=START\n", "anna", 1000, 'S'},
        {"[GLOBAL]\nuserid_type=INCL\n[USERID]\nanna=START\n", "berta", 1000, 'N'},
        {"[GLOBAL]\nuserid_type=INCL\n[USERID]\nanna=whatever\n", "anna", 1000, 'N'},
    };
    for (const start_case& row : cases) {
        for (const bool always : {false, true}) {
            SCOPED_TRACE(std::string(row.ini) + row.name + (always ? " read always" : ""));
            open_with(std::string(row.ini) + "[GLOBAL]\n");
            job_context()->JP_ReadUser = always ? JOB_LISTS_ALWAYS : JOB_LISTS_AT_START;
            EXPECT_EQ(user_start_flag(pcx, job_context(), row.name, row.uid), row.flag);
        }
    }
}

TEST_F(job_test, a_server_user_number_is_admitted_by_the_same_rules) {
    for (const char* always : {"no", "yes"}) {
        const std::string read = std::string("[GLOBAL]\nReadUserAlways=") + always + "\n";
        open_with(read + "[QX_USER]\n7=NO_START\n");
        EXPECT_EQ(number_start_flag(pcx, job_context(), 7), 'N');
        EXPECT_EQ(number_start_flag(pcx, job_context(), 77), 'S');
        open_with(read + "QX_user_type=INCL\n[QX_USER]\n7=START\n");
        EXPECT_EQ(number_start_flag(pcx, job_context(), 7), 'S');
        EXPECT_EQ(number_start_flag(pcx, job_context(), 77), 'N');
    }
}

TEST_F(job_test, a_list_of_any_length_is_read_whole) {
    std::string ini = "[USERID]\n";
    for (int i = 0; i < 4000; ++i) {
        ini += "user" + std::to_string(i) + "=NO_START\n";
    }
    open_with(ini);
    EXPECT_EQ(job_context()->userids.size(), 4000u);
    EXPECT_EQ(user_start_flag(pcx, job_context(), "user3999", 5), 'N');
}

TEST_F(job_test, settings_fall_back_where_the_text_means_nothing) {
    open_with(
        "[GLOBAL]\nReportMode=text\nJobFileMode=0\n[STARTCMD]\nstart_type=vfork\n[PAM]\npam_setcred=yes\n");
    EXPECT_EQ(launch_context()->FileReportMode, 0600u);
    EXPECT_EQ(launch_context()->JobFileMode, 0700u);
    EXPECT_EQ(launch_context()->JobStartType, 'V');
    EXPECT_EQ(pam_options.do_pam_setcred, false) << "credentials need a session";
    open_with("[GLOBAL]\nReportMode=644\n[STARTCMD]\nstart_type=submit\n");
    EXPECT_EQ(launch_context()->FileReportMode, 0644u);
    EXPECT_EQ(launch_context()->JobStartType, 'B');
    EXPECT_NE(launch_context()->cmdAddr.OTHERcmd.find("&jobFile"), std::string::npos);
}

// ---- Refusals ----

using activation_order = message_builder<MSG_TYPE_EXAKTJ>;

struct refusal {
    const char* what;
    const char* ini;
    void (*change)(job_test* test, activation_order& order);
    int number;
    bool file_goes;
};

TEST_F(job_test, an_activation_is_refused_by_number_and_leaves_nothing) {
    const refusal cases[] = {
        {"upgrade", "", [](job_test* test, activation_order&) { test->pcx->upgrade_ah_idnr = 1; }, 65, false},
        {"unknown user", "",
         [](job_test*, activation_order& order) { put_text(order->logininfo, "no-such-user"); }, 2001007,
         true},
        {"a name that only begins like a user's", "",
         [](job_test* test, activation_order& order) {
             put_text(order->logininfo, test->user + std::string(40, ' ').replace(39, 1, "x"));
         },
         2001007, true},
        {"user not allowed", "[GLOBAL]\nuserid_type=INCL\n", [](job_test*, activation_order&) {}, 2000029,
         true},
        {"number not allowed", "[USERID]\nroot=START\n[QX_USER]\n7=NO_START\n",
         [](job_test*, activation_order&) {}, 2000029, true},
        {"run number 0", "[USERID]\nroot=START\n",
         [](job_test*, activation_order& order) { order->ah_idnr = 0; }, 2003026, true},
        {"a file elsewhere stays", "",
         [](job_test* test, activation_order& order) {
             put_text(order->logininfo, "no-such-user");
             put_text(order->jobfile, test->folder / "temp/../job1");
         },
         2001007, true},
        {"resources", "[USERID]\nroot=START\n",
         [](job_test* test, activation_order& order) {
             copy_text(test->pcx->pcx_res_dir, test->folder / "cache");
             MSG_TYPE_BINPATHS paths{};
             put_text(paths.task_cache_path, test->folder / "cache//task");
             put_text(paths.client_cache_path, test->folder / "cache/client");
             order.begin_table(MSG_TYPE_EXAKTJ::binpaths, 1);
             order.put_record(paths);
             order.begin_table(MSG_TYPE_EXAKTJ::bintab, 1);
             order.put(std::string(sizeof(MSG_TYPE_BINTAB), ' '));
         },
         2000244, true},
        {"cache outside", "[USERID]\nroot=START\n",
         [](job_test* test, activation_order& order) {
             copy_text(test->pcx->pcx_res_dir, test->folder / "cache");
             MSG_TYPE_BINPATHS paths{};
             put_text(paths.task_cache_path, test->folder / "cache/../../etc");
             put_text(paths.client_cache_path, "/etc");
             order.begin_table(MSG_TYPE_EXAKTJ::binpaths, 1);
             order.begin_table(MSG_TYPE_EXAKTJ::bintab, 1);
             order.put_record(paths);
         },
         2000241, true},
    };
    for (const refusal& row : cases) {
        SCOPED_TRACE(row.what);
        open_with(row.ini);
        pcx->upgrade_ah_idnr = 0;
        write_text(job_file(1), "old");
        write_text(folder / "job1", "not the agent's");
        activation_order order = activation_of(1, "true\r\n");
        row.change(this, order);
        activate(order.bytes());
        const auto messages = sent();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].addr.dst_ID, 4711);
        EXPECT_EQ(messages[0].addr.dst_acv, 55);
        EXPECT_TRUE(text_of(messages[0]).starts_with("NK " + std::to_string(row.number) + " "));
        EXPECT_EQ(jpGetJobCount(), 0);
        const bool named_elsewhere = strcmp(row.what, "a file elsewhere stays") == 0;
        EXPECT_EQ(access(job_file(1).c_str(), F_OK) != 0, row.file_goes && !named_elsewhere);
        EXPECT_EQ(access((folder / "job1").c_str(), F_OK), 0);
    }
}

TEST_F(job_test, a_known_run_number_leaves_that_job_alone) {
    JP_AREA* job = bare_job(1);
    for (const char status : {'W', 'R'}) {
        job->JP_status = status;
        write_text(job_file(1), "x");
        activate(activation(1, "true\r\n"));
        EXPECT_EQ(answer(), "NK 2003026 1|");
        EXPECT_EQ(Find_JEntry(1, client), job);
        // A waiting job's shell may not have opened its file yet.
        EXPECT_EQ(access(job_file(1).c_str(), F_OK) == 0, status == 'W');
    }
}

TEST_F(job_test, a_file_is_the_agents_below_its_folders_only) {
    EXPECT_TRUE(job_file_is_ours(pcx, folder / "temp/a/b"));
    EXPECT_TRUE(job_file_is_ours(pcx, folder / "out//a"));
    for (const char* other : {"temp", "temp/", "temporary/a", "temp/../a", "temp/a/..", "a"}) {
        EXPECT_FALSE(job_file_is_ours(pcx, folder / other)) << other;
    }
    EXPECT_FALSE(job_file_is_ours(pcx, ""));
}

// ---- From activation to the end ----

TEST_F(job_test, a_job_runs_and_its_end_arrives) {
    activate(activation(1, "echo from the job\r\nexit 7\r\n"));
    JP_AREA* job = Find_JEntry(1, client);
    ASSERT_NE(job, nullptr);
    const auto started = sent();
    ASSERT_EQ(started.size(), 1u);
    EXPECT_EQ(started[0].type(), "EXAKTJQU");
    EXPECT_EQ(started[0].addr.dst_ID, 4711);
    const auto answer = started[0].as<MSG_TYPE_EXAKTJQU>();
    EXPECT_EQ(get_text(answer.processid), std::to_string(job->fork_pid));
    EXPECT_EQ(answer.restart_dist, 264);
    EXPECT_EQ(answer.restart_len, 1336);
    EXPECT_EQ(started[0].body.size(), 264u + 1336);
    job_record record;
    ASSERT_TRUE(job_record_read(started[0].body.data() + 264, 1336, &record));
    EXPECT_EQ(record.pgid, static_cast<int32_t>(job->fork_pid));
    EXPECT_EQ(record.userName, user);
    EXPECT_GT(record.jStart, 0);
    EXPECT_EQ(job->JP_status, 'W');
    EXPECT_NEAR(static_cast<double>(job->JP_alrmTime), static_cast<double>(alarm_now() + 30), 1);
    EXPECT_TRUE(logged(2000005));
    EXPECT_TRUE(logged(2000003));

    end_child(job);
    EXPECT_EQ(job->JP_status, 'A');
    EXPECT_EQ(read_text(report_file(1)), "from the job\n");
    const auto ended = sent();
    ASSERT_EQ(ended.size(), 1u);
    const auto told = ended[0].as<MSG_TYPE_EXSTAJ>();
    EXPECT_EQ(told.status, 'E');
    EXPECT_EQ(told.retcode, 7);
    EXPECT_EQ(told.restart_len, 0);
    EXPECT_NE(told.startzeit.jjjj, 0);
    EXPECT_NE(told.endzeit.jjjj, 0);
    EXPECT_TRUE(logged(2000009));
}

TEST_F(job_test, the_job_file_goes_with_the_acknowledged_good_end_or_with_job_del) {
    for (const char* code : {"0", "1"}) {
        activate(activation(1, std::string("exit ") + code + "\r\n"));
        end_child(Find_JEntry(1, client));
        auto confirmed = new_message<MSG_TYPE_EXSTAJQU>(client, number);
        confirmed.ah_idnr = 1;
        receive(process_exstajqu, confirmed);
        EXPECT_EQ(access(job_file(1).c_str(), F_OK) == 0, *code == '1')
            << "a failed job's file is for inspection";
        auto order = new_message<MSG_TYPE_JOB_DEL>(client, number);
        order.ah_idnr = 1;
        receive(process_jobdel, order);
        EXPECT_NE(access(job_file(1).c_str(), F_OK), 0);
        EXPECT_EQ(access(report_file(1).c_str(), F_OK), 0) << "the report stays";
        EXPECT_EQ(jpGetJobCount(), 0);
    }
}

TEST_F(job_test, a_start_that_cannot_work_leaves_nothing) {
    activation_order order = activation_of(1, "true\r\n");
    put_text(order->jobreport, folder / "no/such/folder/report");
    activate(order.bytes());
    EXPECT_TRUE(answer().starts_with("NK 2003041 "));
    EXPECT_TRUE(logged(2000109));
    EXPECT_EQ(jpGetJobCount(), 0);
    EXPECT_NE(access(job_file(1).c_str(), F_OK), 0);
}

TEST_F(job_test, an_acknowledged_entry_under_the_same_process_id_is_pushed_out) {
    JP_AREA* heard = bare_job(10);
    JP_AREA* unheard = bare_job(11);
    heard->JP_flag |= job_flag_acknowledged | job_flag_end_taken;
    unheard->JP_flag |= job_flag_end_taken;
    // The next child's number is not known before; so both get it once it is.
    activate(activation(1, "true\r\n"));
    JP_AREA* job = Find_JEntry(1, client);
    const uint32_t pid = job->fork_pid;
    end_child(job);
    Erase_JEntry(1, client);
    static uint32_t forced = 0;
    forced = pid;
    const no_fork same([]() -> pid_t { return static_cast<pid_t>(forced); });
    job_table_set_pid(heard, pid);
    job_table_set_pid(unheard, pid);
    activate(activation(2, "true\r\n"));
    EXPECT_EQ(Find_JEntry(10, client), nullptr);
    ASSERT_EQ(Find_JEntry(11, client), unheard) << "its end is still to be told";
    EXPECT_EQ(unheard->fork_pid, 0u);
    EXPECT_EQ(job_table_find_child(pid), Find_JEntry(2, client));
}

// ---- Deferred starts ----

TEST_F(job_test, out_of_processes_a_start_is_tried_again_until_it_works) {
    tries = 0;
    const no_fork twice(no_process_twice);
    activate(activation(1, "exit 3\r\n"));
    JP_AREA* job = Find_JEntry(1, client);
    ASSERT_NE(job, nullptr);
    EXPECT_EQ(job->jobstart, 1u);
    EXPECT_NEAR(static_cast<double>(job->JP_alrmTime), static_cast<double>(alarm_now() + 5), 1);
    EXPECT_EQ(sent().size(), 0u) << "the server hears nothing yet";
    check_in(6);
    EXPECT_EQ(job->jobstart, 2u);
    check_in(6);
    EXPECT_EQ(job->jobstart, 0u);
    EXPECT_TRUE(job->ccmmsg.empty());
    EXPECT_EQ(job->passwd, nullptr);
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].type(), "EXAKTJQU");
    EXPECT_EQ(messages[0].body.size(), 260u);
    // The channel of the activation may be gone: the answer goes by name.
    EXPECT_EQ(messages[0].addr.dst_ID, 0);
    EXPECT_STREQ(messages[0].addr.dst_addr, "*CP001#00000001");
    EXPECT_EQ(messages[0].addr.dst_acv, 55);
    end_child(job);
    EXPECT_EQ(job->retCode, 3);
    EXPECT_EQ(first_sent().as<MSG_TYPE_EXSTAJ>().restart_len, 1336)
        << "the record goes with the first status";
}

TEST_F(job_test, the_eleventh_try_is_the_last) {
    const no_fork never(no_process);
    activate(activation(1, "true\r\n"));
    for (int count = 2; count <= 10; ++count) {
        check_in(6);
        ASSERT_NE(Find_JEntry(1, client), nullptr) << count;
    }
    EXPECT_EQ(sent().size(), 0u);
    check_in(6);
    EXPECT_EQ(jpGetJobCount(), 0);
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].as<MSG_TYPE_QUITT>().msgnr, 2003043);
    EXPECT_EQ(get_text(messages[0].as<MSG_TYPE_QUITT>().msg), "EXAKTJ");
    EXPECT_NE(access(job_file(1).c_str(), F_OK), 0);
}
