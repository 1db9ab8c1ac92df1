#include "jobs/queries.h"

#include <signal.h>
#include <unistd.h>

#include "job_fixture.h"
#include "jobs/process_group.h"
#include "launch/launch.h"

struct queries_test : job_test {
    int query(int run, const message_bytes& record, int count = 0) {
        message_builder<MSG_TYPE_JOB_INF> order(client, number);
        order->ah_idnr = run;
        put_text(order->processid, "77");
        order->status = 'R';
        order->cnt = count;
        order.add(MSG_TYPE_JOB_INF::restart, record);
        return receive(process_jobinf, order);
    }

    message_bytes start(int run, const std::string& script) {
        activate(activation(run, script));
        const auto messages = sent();
        return messages.size() == 1 && messages[0].type() == "EXAKTJQU"
                   ? message_bytes(messages[0].body.begin() + 264, messages[0].body.end())
                   : message_bytes{};
    }

    // The agent was killed and started again: nothing is left but the processes.
    void lose_memory() {
        Reset_JTab();
        process_info_forget();
        sent();
    }
};

TEST_F(queries_test, signal_names_stand_for_their_numbers) {
    EXPECT_EQ(GetSigInt("term"), 15);
    EXPECT_EQ(GetSigInt("SigAbrt"), 6);
    EXPECT_EQ(GetSigInt("KILL"), 9);
    for (const char* other : {"SIGHUP", "", "15", "TERM ", "SIGTERMSIGTERMSIGTERM"}) {
        EXPECT_EQ(GetSigInt(other), 9) << other;
    }
}

TEST_F(queries_test, a_cancel_reaches_the_whole_group_and_sigchld_closes_the_job) {
    for (const char* name : {"term", "SIGHUP"}) {
        open_with(std::string("[USERID]\nroot=START\n[GLOBAL]\nKillSignal=") + name + "\n");
        start(1, "sleep 600 & sleep 600\r\n");
        JP_AREA* job = Find_JEntry(1, client);
        const pid_t group = static_cast<pid_t>(job->fork_pid);
        cancel(1);
        EXPECT_EQ(answer(), "OK 2000039 JOBS.TEST|1|");
        EXPECT_EQ(job->JP_status, 'K');
        end_child(job);
        const int signal = strcmp(name, "term") == 0 ? 15 : 9;
        EXPECT_EQ(job->JP_status, 'V');
        EXPECT_EQ(job->retCode, signal);
        EXPECT_EQ(first_sent().as<MSG_TYPE_EXSTAJ>().status, 'V');
        // The children of the shell are gone too, or are about to be collected by init.
        eventually([&] { return kill(-group, 0) != 0; });
        cancel(1);
        EXPECT_EQ(answer(), "NK 2003038 1|") << "an ended job has no process";
        Erase_JEntry(1, client);
    }
    cancel(2);
    EXPECT_EQ(answer(), "NK 2003038 2|");
}

TEST_F(queries_test, a_job_that_ignores_the_signal_is_running_again_at_the_next_check) {
    open_with("[USERID]\nroot=START\n[GLOBAL]\nKillSignal=TERM\n");
    rest = "M='sh'N='-u'";  // without -c the script runs in the shell that was forked, and not below it
    const std::string ready = folder / "ready";
    start(1, "trap '' TERM\r\ntouch " + ready + "\r\nsleep 600\r\n");
    JP_AREA* job = Find_JEntry(1, client);
    eventually([&] { return access(ready.c_str(), F_OK) == 0; });
    cancel(1);
    sent();
    check_now(job);
    EXPECT_EQ(job->JP_status, 'R');
    EXPECT_EQ(first_sent().as<MSG_TYPE_EXSTAJ>().status, 'R');
    kill(-static_cast<pid_t>(job->fork_pid), SIGKILL);
    end_child(job);
}

TEST_F(queries_test, a_cancelled_job_ends_with_the_last_process_of_its_group) {
    copy_text(job_context()->KillSignal, "TERM");
    const std::string ready = folder / "ready";
    start(1, "(trap '' TERM; touch " + ready + "; exec sleep 600) & wait\r\n");
    JP_AREA* job = Find_JEntry(1, client);
    const pid_t group = static_cast<pid_t>(job->fork_pid);
    eventually([&] { return access(ready.c_str(), F_OK) == 0; });
    cancel(1);
    sent();
    end_child(job);
    EXPECT_EQ(job->JP_status, 'K');
    EXPECT_TRUE(sent().empty()) << "the server would close a job that runs";
    process_jobchk(pcx, nullptr, 0);
    EXPECT_EQ(first_sent().as<MSG_TYPE_EXSTAJ>().status, 'R');
    query(1, {});
    EXPECT_EQ(answer(), "OK 0 ");
    EXPECT_EQ(module_test_log.back().inserts, "1|100|RUNNING|");

    copy_text(job_context()->KillSignal, "KILL");
    cancel(1);
    EXPECT_EQ(answer(), "OK 2000039 JOBS.TEST|1|");
    eventually([&] { return !process_group_lives(group); });
    process_jobchk(pcx, nullptr, 0);
    const auto told = first_sent().as<MSG_TYPE_EXSTAJ>();
    EXPECT_EQ(told.status, 'V');
    EXPECT_EQ(told.retcode, 9);
}

// What a script leaves behind does not keep a job open that nobody cancelled.
TEST_F(queries_test, a_job_ends_with_its_process_while_its_group_lives) {
    start(1, "sleep 600 &\r\n");
    JP_AREA* job = Find_JEntry(1, client);
    end_child(job);
    EXPECT_EQ(first_sent().as<MSG_TYPE_EXSTAJ>().status, 'E');
    kill(-static_cast<pid_t>(job->fork_pid), SIGKILL);
}

struct batch_test : queries_test {
    pid_t script = 0;

    // Starts a script that runs, and waits until it told its process id.
    JP_AREA* start_batch(const std::string& text) {
        open_with(
            "[USERID]\nroot=START\n[STARTCMD]\nstart_type=batch\n"
            "Bourne-Shell=&jobFile > &jobReport 2>&1 &\nOther-Shell=&jobFile > &jobReport 2>&1 &\n");
        start(1, "echo $$\r\n" + text + "\r\n");
        JP_AREA* job = Find_JEntry(1, client);
        eventually([&] { return (script = atoi(read_text(report_file(1)).c_str())) != 0; });
        return job;
    }
    // The next check of the job, made now, and what it tells.
    char status_after_check(JP_AREA* job) {
        EXPECT_GT(job->JP_alrmTime, 0) << "a job without alarm is never looked at";
        check_now(job);
        return first_sent().as<MSG_TYPE_EXSTAJ>().status;
    }
};

TEST_F(batch_test, a_cancel_reaches_the_job_with_and_without_a_word_of_it) {
    if (!runs_as_root()) {
        GTEST_SKIP() << "batch start needs root";
    }
    for (const bool spoke : {false, true}) {
        script = 0;
        JP_AREA* job = start_batch("sleep 600 & sleep 600");
        ASSERT_NE(job, nullptr);
        ASSERT_GT(script, 1);
        sent();
        job->m_ppid = spoke ? script : 0;
        EXPECT_EQ(status_after_check(job), 'R');
        cancel(1);
        EXPECT_EQ(answer(), "OK 2000039 JOBS.TEST|1|");
        EXPECT_TRUE(eventually([&] { return kill(script, 0) != 0; }));
        EXPECT_TRUE(eventually([&] { return !process_group_lives(job->jp_group); })) << "its children, too";
        EXPECT_EQ(status_after_check(job), 'V');
        Erase_JEntry(1, client);
    }
}

TEST_F(batch_test, a_job_that_never_speaks_ends_at_a_check) {
    if (!runs_as_root()) {
        GTEST_SKIP() << "batch start needs root";
    }
    JP_AREA* job = start_batch("exit 0");
    ASSERT_NE(job, nullptr);
    sent();
    ASSERT_TRUE(eventually([&] { return kill(script, 0) != 0; }));
    job_context()->batch_wait = 100;
    EXPECT_EQ(status_after_check(job), ' ') << "it may wait in a queue";
    job_context()->batch_wait = 0;
    EXPECT_EQ(status_after_check(job), 'V');
}

TEST_F(batch_test, under_vfork_without_the_signal_a_job_ends_at_a_check) {
    open_with("[USERID]\nroot=START\n[GLOBAL]\nsigchld=no\n[STARTCMD]\nstart_type=vfork\n");
    start(1, "exit 0\r\n");
    JP_AREA* job = Find_JEntry(1, client);
    ASSERT_EQ(waitpid(static_cast<pid_t>(job->fork_pid), nullptr, 0), static_cast<pid_t>(job->fork_pid));
    EXPECT_EQ(status_after_check(job), 'V');
}

// A group that a batch system made is signalled only where nothing else can be in it.
TEST_F(batch_test, whom_a_cancel_signals) {
    launch_context()->JobStartType = JOB_START_BATCH;
    const living_process alive, second;
    JP_AREA* job = bare_job(1);
    job->m_ppid = alive.pid;
    EXPECT_EQ(job_signal_target(job, alive.pid), alive.pid) << "the agent's own group";
    ASSERT_EQ(setpgid(alive.pid, alive.pid), 0);
    EXPECT_EQ(job_signal_target(job, alive.pid), -alive.pid);
    job->JP_cTime_t += 3600;
    EXPECT_EQ(job_signal_target(job, alive.pid), alive.pid) << "older than the job";
    job->jp_group = alive.pid;
    EXPECT_EQ(job_signal_target(job, alive.pid), -alive.pid) << "made by the agent";
    job->jp_group = 0;
    job->JP_cTime_t -= 3600;
    job->jp_uid = geteuid() + 1;
    EXPECT_EQ(job_signal_target(job, alive.pid), alive.pid) << "somebody else's";
    job->jp_uid = geteuid();
    ASSERT_EQ(setpgid(second.pid, alive.pid), 0);
    EXPECT_EQ(job_signal_target(job, alive.pid), -alive.pid);
    bare_job(2)->m_ppid = second.pid;
    EXPECT_EQ(job_signal_target(job, alive.pid), alive.pid) << "another job is in it";
}

TEST_F(queries_test, a_cancel_of_a_waiting_job_answers_twice_and_starts_nothing) {
    launch_set_fork([]() -> pid_t {
        errno = EAGAIN;
        return -1;
    });
    activate(activation(1, "true\r\n"));
    cancel(1);
    launch_set_fork(fork);
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 2u);
    const auto to_cancel = messages[0].as<MSG_TYPE_QUITT>();
    EXPECT_EQ(get_text(to_cancel.quitt), "OK");
    EXPECT_EQ(to_cancel.msgnr, 2001059);
    const auto to_activation = messages[1].as<MSG_TYPE_QUITT>();
    EXPECT_EQ(get_text(to_activation.quitt), "NK");
    EXPECT_EQ(get_text(to_activation.msg), "EXAKTJ");
    EXPECT_EQ(to_activation.msgnr, 2001059);
    EXPECT_EQ(jpGetJobCount(), 0);
}

TEST_F(queries_test, a_known_job_is_told_running_ended_or_waiting) {
    start(1, "sleep 600\r\n");
    JP_AREA* job = Find_JEntry(1, client);
    query(1, {});
    EXPECT_EQ(answer(), "OK 0 ");
    EXPECT_EQ(job->JP_RstInfo, ' ') << "a server without the record gets it again";
    EXPECT_EQ(module_test_log.back().inserts, "1|100|RUNNING|");
    kill(-static_cast<pid_t>(job->fork_pid), SIGKILL);
    end_child(job);
    const int count = job->sta_cnt;
    sent();
    query(1, {});
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].as<MSG_TYPE_QUITT>().msgnr, 0);
    EXPECT_EQ(messages[1].as<MSG_TYPE_EXSTAJ>().cnt, count + 1);

    JP_AREA* waiting = bare_job(2);
    waiting->jobstart = 1;
    query(2, {});
    EXPECT_EQ(answer(), "OK 0 ") << "and no status";
    query(3, {});
    EXPECT_EQ(answer(), "NK 2003010 3|100|LOST|");
    EXPECT_EQ(Find_JEntry(3, client), nullptr);
}

TEST_F(queries_test, twenty_jobs_outlive_the_agents_memory) {
    constexpr int jobs = 20;
    const std::string go = folder / "go";
    std::vector<message_bytes> records(jobs + 1);
    std::vector<pid_t> pids(jobs + 1);
    for (int run = 1; run <= jobs; ++run) {
        const std::string number = std::to_string(run);
        records[static_cast<size_t>(run)] =
            start(run, "echo '**  JOB " + number +
                           " START AT 04.03.2026 / 07:06:07 UTC TIME 04.03.2026 / 06:06:07 ProcID:'$$\r\n" +
                           (run % 2 == 0 ? "while [ ! -e " + go + " ]; do sleep 0.05; done\r\n" : "") +
                           "echo '**  JOB " + number +
                           " ENDED AT 04.03.2026 / 08:06:07 UTC TIME 04.03.2026 / 07:06:07 ProcID:'$$\r\n"
                           "echo '**  TEXT=\"\" RETCODE=" +
                           number + "'\r\n");
        ASSERT_EQ(records[static_cast<size_t>(run)].size(), 1336u);
        pids[static_cast<size_t>(run)] = static_cast<pid_t>(Find_JEntry(run, client)->fork_pid);
        const std::string report = Find_JEntry(run, client)->JP_jReport;
        for (int tries = 0; tries < 2000 && read_text(report).find(" START AT ") == std::string::npos;
             ++tries) {
            usleep(5000);  // the script has written its first line
        }
    }
    // The odd ones end before the agent is back; nobody takes their SIGCHLD.
    for (int run = 1; run <= jobs; run += 2) {
        ASSERT_EQ(waitpid(pids[static_cast<size_t>(run)], nullptr, 0), pids[static_cast<size_t>(run)]);
    }
    lose_memory();

    for (int run = 1; run <= jobs; ++run) {
        query(run, records[static_cast<size_t>(run)], 3);
        EXPECT_EQ(answer(), "OK 0 ");
        const JP_AREA* job = Find_JEntry(run, client);
        ASSERT_NE(job, nullptr) << run;
        EXPECT_EQ(job->JP_status, run % 2 == 0 ? 'R' : 'A');
        EXPECT_EQ(job->JP_sTime.hh, 6) << "the start comes from the report";
    }
    query(2, records[2]);
    EXPECT_EQ(answer(), "OK 0 ") << "a second query finds the entry";
    write_text(go, "");
    for (int run = 2; run <= jobs; run += 2) {
        ASSERT_EQ(waitpid(pids[static_cast<size_t>(run)], nullptr, 0), pids[static_cast<size_t>(run)]);
    }
    process_jobchk(pcx, nullptr, 0);
    std::vector<int> ends(jobs + 1);
    for (const sent_message& message : sent()) {
        const auto told = message.as<MSG_TYPE_EXSTAJ>();
        ASSERT_TRUE(told.ah_idnr >= 1 && told.ah_idnr <= jobs);
        ++ends[static_cast<size_t>(told.ah_idnr)];
        EXPECT_EQ(told.status, 'E');
        EXPECT_EQ(told.retcode, told.ah_idnr);
        EXPECT_EQ(told.endzeit.hh, 7);
        EXPECT_EQ(told.cnt, 4);
    }
    for (int run = 1; run <= jobs; ++run) {
        EXPECT_EQ(ends[static_cast<size_t>(run)], 1) << run;
    }
}

TEST_F(queries_test, a_record_whose_process_id_was_given_anew_does_not_read_as_running) {
    message_bytes record = start(1, "true\r\n");
    end_child(Find_JEntry(1, client));
    lose_memory();
    const int32_t own = getpid();  // alive, and not the job
    memcpy(record.data() + 8, &own, sizeof own);
    int64_t started;  // both may have begun within one tick of the clock
    memcpy(&started, record.data(), sizeof started);
    started -= 100;
    memcpy(record.data(), &started, sizeof started);
    query(1, record);
    EXPECT_EQ(answer(), "NK 2003010 1|100|LOST|");
    EXPECT_EQ(jpGetJobCount(), 0);
    EXPECT_NE(access(report_file(1).c_str(), F_OK), 0);

    // Without a start time only the number tells, and the agent's own is nobody's job: a cancel would end the
    // agent.
    const int64_t unknown = 0;
    memcpy(record.data(), &unknown, sizeof unknown);
    query(2, record);
    EXPECT_EQ(answer(), "NK 2003010 2|100|LOST|");
}

TEST_F(queries_test, a_cancel_after_a_restart_ends_without_sigchld) {
    const message_bytes record = start(1, "sleep 600\r\n");
    const pid_t pid = static_cast<pid_t>(Find_JEntry(1, client)->fork_pid);
    lose_memory();
    query(1, record);
    sent();
    JP_AREA* job = Find_JEntry(1, client);
    EXPECT_NE(job->JP_sTime_t, 0) << "from the process, since the report tells none";
    cancel(1);
    EXPECT_EQ(answer(), "OK 2000039 JOBS.TEST|1|");
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    process_jobchk(pcx, nullptr, 0);
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].as<MSG_TYPE_EXSTAJ>().status, 'V');
    EXPECT_EQ(messages[0].as<MSG_TYPE_EXSTAJ>().retcode, 9);
}

TEST_F(queries_test, queries_cut_anywhere_or_with_lying_lengths_are_answered_and_kill_nothing) {
    const message_bytes record = start(1, "true\r\n");
    end_child(Find_JEntry(1, client));
    lose_memory();
    for (const auto& [length, dist] : {std::pair{1336, 45}, {-1, 44}, {1 << 30, 44}, {10, 44}, {1336, -44}}) {
        auto order = new_message<MSG_TYPE_JOB_INF>(client, number);
        order.ah_idnr = 1;
        order.restart_len = length;
        order.restart_dist = dist;
        message_bytes body(sizeof order);
        memcpy(body.data(), &order, sizeof order);
        body.insert(body.end(), record.begin(), record.end());
        receive(process_jobinf, built_message(body));
        EXPECT_EQ(answer(), "NK 2003010 1|100|LOST|") << length;
    }
    for (size_t length = 8; length < 60; ++length) {
        message_bytes body(length, 0);
        memcpy(body.data(), "JOB_INF ", 8);
        receive(process_jobinf, built_message(body));
        receive(process_jobcan, built_message(body));
        receive(process_jobdel, built_message(body));
        receive(process_exstajqu, built_message(body));
    }
    EXPECT_EQ(jpGetJobCount(), 0);
}
