#include "jobs/supervision.h"

#include <signal.h>

#include <random>

#include "job_fixture.h"
#include "jobs/report_scan.h"

// ---- SIGCHLD ----

struct sigchild_case {
    char status;
    int retcode;  // told by the messenger before
    int signal;   // of a cancel
    int exit_code;
    char ends_as;
    int ends_with;
};

TEST_F(job_test, the_end_of_a_child_by_state) {
    constexpr sigchild_case cases[] = {
        {'W', 0, 0, 0, 'E', 0},  {'W', 0, 0, 7, 'A', 7}, {'R', 0, 0, 0, 'E', 0},     {'R', 0, 0, 3, 'A', 3},
        {'E', 4, 0, 0, 'A', 4},  {'E', 0, 0, 0, 'E', 0}, {'E', 4, 0, 9, 'A', 4},     {'C', 0, 0, 0, 'A', 211},
        {'C', 0, 0, 5, 'A', 5},  {'K', 0, 9, 9, 'V', 9}, {'K', 0, 15, 15, 'V', 15},  {'K', 0, 15, 0, 'E', 0},
        {'K', 2, 15, 0, 'A', 2}, {'K', 0, 0, 0, 'E', 0}, {'W', 0, 0, 205, 'A', 205},
    };
    for (const sigchild_case& row : cases) {
        SCOPED_TRACE(std::string(1, row.status) + " " + std::to_string(row.exit_code));
        JP_AREA* job = bare_job(1);
        job_table_set_pid(job, 4000000);  // above the largest process id
        job->JP_status = row.status;
        job->retCode = row.retcode;
        job->JP_sigNum = static_cast<short>(row.signal);
        EXPECT_EQ(process_job_sigchild(pcx, 4000000, row.exit_code, 0), 1);
        EXPECT_EQ(job->JP_status, row.ends_as);
        EXPECT_EQ(job->retCode, row.ends_with);
        EXPECT_NE(job->JP_eTime_t, 0);
        EXPECT_GT(job->JP_alrmTime, alarm_now());
        const auto messages = sent();
        ASSERT_EQ(messages.size(), 1u);
        const auto told = messages[0].as<MSG_TYPE_EXSTAJ>();
        EXPECT_EQ(told.status, row.ends_as == 'A' ? 'E' : row.ends_as) << "'A' is the agent's own";
        EXPECT_EQ(told.retcode, row.ends_with);
        // The number may come again: the end was taken.
        EXPECT_EQ(process_job_sigchild(pcx, 4000000, 1, 0), 0);
        EXPECT_EQ(job->retCode, row.ends_with);
        Erase_JEntry(1, client);
    }
    EXPECT_EQ(process_job_sigchild(pcx, 12345, 0, 0), 0);
}

TEST_F(job_test, exit_codes_and_signals_of_a_wait_status) {
    EXPECT_EQ(pr_exit(0x0700), 7);
    EXPECT_EQ(pr_exit(9), 9);
    EXPECT_EQ(pr_exit(0x137f), 0x13);
}

// ---- MELD ----

TEST_F(job_test, a_report_of_the_messenger_moves_the_state_only_while_the_end_is_open) {
    JP_AREA* job = bare_job(1);
    EXPECT_EQ(tell(meld(1, 'R', 0)), 0);
    EXPECT_EQ(job->JP_status, 'R');
    EXPECT_EQ(job->m_pid, getpid());
    EXPECT_EQ(std::string(job->infoText, 32), std::string(8, ' ') + "from the messenger      ");
    EXPECT_EQ(job->JP_sTime.jjjj, 2026);
    ASSERT_EQ(sent().size(), 1u);

    EXPECT_EQ(tell(meld(1, 'E', 4)), 0);
    EXPECT_EQ(job->JP_status, 'E');
    EXPECT_EQ(job->retCode, 4);
    EXPECT_EQ(sent().size(), 0u) << "the shell still runs: SIGCHLD tells the end";

    job_table_set_pid(job, 4000000);
    process_job_sigchild(pcx, 4000000, 0, 0);
    const auto start = first_sent().as<MSG_TYPE_EXSTAJ>().startzeit;
    EXPECT_EQ(start.mo * 100 + start.tt, 304) << "as the messenger told it";
    EXPECT_EQ(tell(meld(1, 'R', 0)), -1) << "its end was told";
    EXPECT_EQ(job->JP_status, 'A');
    EXPECT_EQ(job->retCode, 4);
    EXPECT_EQ(sent().size(), 0u);
    EXPECT_EQ(tell(meld(2, 'R', 0)), -1) << "an unknown job";
}

TEST_F(job_test, a_cancelled_job_stays_cancelled_and_a_rebuilt_one_ends_by_word) {
    JP_AREA* cancelled = bare_job(1);
    cancelled->JP_status = JOB_STATUS_CANCEL;
    tell(meld(1, 'R', 3));
    EXPECT_EQ(cancelled->JP_status, 'K');
    EXPECT_EQ(cancelled->retCode, 3);
    sent();

    JP_AREA* rebuilt = rebuilt_job(2);
    tell(meld(2, 'E', 3));
    EXPECT_EQ(rebuilt->JP_status, 'A');
    const auto messages = sent();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].as<MSG_TYPE_EXSTAJ>().retcode, 3);
}

TEST_F(job_test, a_cancelled_job_that_still_runs_is_not_told_as_gone) {
    JP_AREA* cancelled = bare_job(1);
    cancelled->JP_status = JOB_STATUS_CANCEL;
    const living_process alive;
    job_table_set_pid(cancelled, static_cast<uint32_t>(alive.pid));
    tell(meld(1, 'R', 0));
    EXPECT_TRUE(sent().empty()) << "the server would close a living job";
    EXPECT_EQ(cancelled->m_pid, getpid());
}

TEST_F(job_test, what_a_job_leaves_behind_does_not_take_its_last_word_back) {
    JP_AREA* job = bare_job(1);
    job_table_set_pid(job, 4000000);
    tell(meld(1, 'R', 0));
    tell(meld(1, 'E', 4));
    sent();
    for (const char late : {'R', 'C'}) {
        tell(meld(1, late, 0));
        EXPECT_EQ(job->JP_status, 'E');
        EXPECT_EQ(job->retCode, 4);
        EXPECT_TRUE(sent().empty()) << "the shell still runs";
    }
    process_job_sigchild(pcx, 4000000, 0, 0);
    EXPECT_EQ(job->retCode, 4);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(job_test, only_the_jobs_user_root_and_the_agent_may_speak_for_a_job) {
    JP_AREA* job = bare_job(1);
    job->jp_uid = 54321;
    const message_bytes body = meld(1, 'R', 0);
    for (const uid_t stranger : {static_cast<uid_t>(54322), meld_unknown_uid}) {
        EXPECT_EQ(job_take_meld(pcx, body.data(), body.size(), stranger), -1);
        EXPECT_EQ(job->JP_status, 'W') << stranger;
    }
    EXPECT_EQ(job_take_meld(pcx, body.data(), body.size(), 54321), 0);
    EXPECT_EQ(job->JP_status, 'R');
    EXPECT_EQ(job->m_pid, 0) << "a process of another user is not the job's";
}

TEST_F(job_test, a_message_cut_anywhere_or_of_another_version_changes_nothing) {
    JP_AREA* job = bare_job(1);
    const message_bytes whole = meld(1, 'R', 0);
    for (size_t length = 0; length < 20 + sizeof(JP_EXMLDJ); ++length) {
        const message_bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
        tell(cut);
        ASSERT_EQ(job->JP_status, 'W') << length;
    }
    message_bytes other = whole;
    other[20 + 70] = 11;
    tell(other);
    EXPECT_TRUE(logged(2000023));
    for (const int status : {0, 1, 65, 75, 87, 114, 255}) {  // A, K, W and r among them
        message_bytes strange = whole;
        strange[24] = static_cast<unsigned char>(status);
        tell(strange);
        ASSERT_EQ(job->JP_status, 'W') << status;
    }
}

namespace {

message_bytes with_record(const QX_HEADM& head, const message_bytes& record) {
    message_bytes body(std::max<size_t>(276, 20 + record.size()));
    memcpy(body.data(), &head, sizeof head);
    memcpy(body.data() + 20, record.data(), record.size());
    return body;
}

message_bytes variable(const char* name, const char* value, int32_t dist = 112) {
    JP_EXMLDV record{};
    record.jobNr = 1;
    record.status = meld_variable;
    record.mdMajor = 12;
    record.variable_dist = dist;
    record.variable_len = 1225;
    MSG_TYPE_STATUS_VALUE told{};
    copy_text(told.name, name);
    copy_text(told.value, value);
    told.type = 'C';
    message_bytes bytes(sizeof record + sizeof told);
    memcpy(bytes.data(), &record, sizeof record);
    memcpy(bytes.data() + sizeof record, &told, sizeof told);
    return bytes;
}

message_bytes file(const std::string& name) {
    JP_EXMLDO record{};
    record.jobNr = 1;
    record.status = meld_file;
    record.mdMajor = 12;
    record.loginCheck = 'N';
    memcpy(record.fileName, name.data(), std::min(name.size(), sizeof record.fileName));
    message_bytes bytes(sizeof record);
    memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

}  // namespace

TEST_F(job_test, variables_and_files_are_registered_within_their_bounds) {
    JP_AREA* job = bare_job(1);
    const QX_HEADM header = head("MELD", 3);
    tell(with_record(header, variable("Name", "one")));
    tell(with_record(header, variable("nAME", "two")));
    ASSERT_EQ(job->jp_variables.size(), 1u) << "names differ in case only";
    EXPECT_EQ(job->jp_variables[0].name, "NAME");
    EXPECT_EQ(job->jp_variables[0].value, "two");
    for (const int32_t dist : {-1, 113, 1 << 30, INT32_MAX, INT32_MIN}) {
        tell(with_record(header, variable("OTHER", "x", dist)));
    }
    EXPECT_EQ(job->jp_variables.size(), 1u);

    tell(with_record(header, file(std::string(512, 'f'))));  // no terminator
    tell(with_record(header, file("")));
    ASSERT_EQ(job->jp_files.size(), 1u);
    EXPECT_EQ(job->jp_files[0].fle_name.size(), job_file_name_limit);
    EXPECT_EQ(job->jp_files[0].fle_login, 'Y');

    while (job->jp_files.size() < job_files_limit) {
        job_add_file(job, 'Y', "/x");
    }
    tell(with_record(header, file("/one/too/many")));
    EXPECT_EQ(job->jp_files.size(), job_files_limit);
    for (size_t i = 0; i <= job_variables_limit; ++i) {
        tell(with_record(header, variable(("V" + std::to_string(i)).c_str(), "")));
    }
    EXPECT_EQ(job->jp_variables.size(), job_variables_limit);
}

// ---- The periodic check ----

TEST_F(job_test, an_own_child_that_is_gone_waits_for_its_sigchld_until_the_fourth_check) {
    for (const char status : {'W', 'R', 'C', 'E', 'K'}) {
        SCOPED_TRACE(status);
        JP_AREA* job = bare_job(1);
        job_table_set_pid(job, 4000000);
        job->JP_status = status;
        job->retCode = status == 'E' ? 5 : 0;
        job->JP_sigNum = status == 'K' ? 15 : 0;
        const bool tells = status == 'R' || status == 'C';
        for (int check = 1; check <= 3; ++check) {
            check_now(job);
            EXPECT_EQ(sent().size(), tells ? 1u : 0u) << check;
            EXPECT_EQ(job->JP_status, status);
        }
        check_now(job);
        EXPECT_EQ(sent().size(), 1u);
        EXPECT_EQ(job->JP_status, status == 'E' ? 'A' : 'V');
        EXPECT_EQ(job->JP_flag & job_flag_end_taken, job_flag_end_taken);
        Erase_JEntry(1, client);
    }
}

TEST_F(job_test, without_a_sigchld_to_come_the_first_check_decides) {
    for (const bool with_end : {false, true}) {
        JP_AREA* job = rebuilt_job(1);
        job->JP_status = JOB_STATUS_RUNNING;
        job_table_set_pid(job, 4000000);
        job_set_text(job->JP_jReport, folder / "report");
        write_text(job->JP_jReport, with_end
                                        ? "**  JOB 1 ENDED AT 04.03.2026 / 08:00:01 UTC TIME 04.03.2026 / "
                                          "07:00:01 ProcID:4242\n**  TEXT=\"\" RETCODE=6\n"
                                        : "");
        check_now(job);
        EXPECT_EQ(job->JP_status, with_end ? 'A' : 'V');
        EXPECT_EQ(job->retCode, with_end ? 6 : -1);
        Erase_JEntry(1, client);
        sent();
    }
    JP_AREA* cancelled = rebuilt_job(2);
    cancelled->JP_status = JOB_STATUS_CANCEL;
    job_table_set_pid(cancelled, 4000000);
    check_now(cancelled);
    EXPECT_EQ(cancelled->JP_status, 'V');
    EXPECT_EQ(cancelled->retCode, 9);
    EXPECT_TRUE(logged(2003046));

    // Still dying at the first check, so it read as running once more.
    JP_AREA* dying = rebuilt_job(3);
    dying->JP_status = JOB_STATUS_CANCEL;
    dying->JP_sigNum = 9;
    const living_process alive;
    job_table_set_pid(dying, static_cast<uint32_t>(alive.pid));
    check_now(dying);
    EXPECT_EQ(dying->JP_status, 'R');
    job_table_set_pid(dying, 4000000);
    check_now(dying);
    EXPECT_EQ(dying->JP_status, 'V');
    EXPECT_EQ(dying->retCode, 9);
}

TEST_F(job_test, an_end_is_told_again_until_the_entry_goes) {
    JP_AREA* job = bare_job(1);
    job_table_set_pid(job, 4000000);
    process_job_sigchild(pcx, 4000000, 0, 0);
    for (int count = 2; count <= 4; ++count) {
        sent();
        check_in(31);
        const auto messages = sent();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].as<MSG_TYPE_EXSTAJ>().cnt, count);
    }
    auto order = new_message<MSG_TYPE_JOB_DEL>(client, number);
    order.ah_idnr = 1;
    receive(process_jobdel, order);
    EXPECT_EQ(jpGetJobCount(), 0);
    EXPECT_EQ(sent().size(), 0u);
}

TEST_F(job_test, an_entry_without_alarm_is_not_looked_at) {
    JP_AREA* job = bare_job(1);
    job->JP_status = JOB_STATUS_RUNNING;
    process_jobchk(pcx, nullptr, 0);
    EXPECT_EQ(sent().size(), 0u);
    EXPECT_EQ(job->JP_alrmTime, 0);
    EXPECT_EQ(pcx->Job_alarm_time, 0);
}

// ---- EXSTAJ on its way ----

TEST_F(job_test, a_status_with_files_and_variables_passes_the_conversion) {
    std::mt19937 random(1);
    const auto pick = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    for (int round = 0; round < 2000; ++round) {
        JP_AREA* job = bare_job(1);
        job->JP_RstInfo = pick(2) == 0 ? JOB_RECORD_DUE : JOB_RECORD_SENT;
        job->JP_status = "WRCKEAV"[pick(7)];
        for (unsigned i = pick(5); i > 0; --i) {
            job_add_file(job, pick(2) == 0 ? 'Y' : 'N', std::string(1 + pick(600), 'f'));
        }
        for (unsigned i = pick(7); i > 0; --i) {
            job->jp_variables.push_back({std::string(1 + pick(199), 'V'), std::string(pick(1024), 'x'), 'C'});
        }
        message_bytes body = job_build_exstaj(pcx, job, true).bytes();
        const auto told = view_record<MSG_TYPE_EXSTAJ>(view_message(body.data(), body.size()));
        if (!job->jp_files.empty()) {
            table_cursor cursor = view_table(view_message(body.data(), body.size()), told.outfile_dist);
            cursor_bytes(&cursor, 1);
            EXPECT_EQ(cursor_text(&cursor, 511), job->jp_files[0].fle_name);
        }
        msg_error error;
        ASSERT_EQ(ToLAN(body.data(), body.size(), &conversion, 0, nullptr, &error), walk_accepted)
            << error.code << " " << error.subst << " in round " << round;
        Erase_JEntry(1, client);
    }
}

TEST_F(job_test, a_status_goes_to_the_module_that_activated) {
    JP_AREA* job = bare_job(1);
    job->ccmaddr = new ccm_addr_t{};
    copy_text(job->ccmaddr->src_name, "JPEXEC_R");
    copy_text(job->ccmaddr->src_addr, "*CP001#00000001");
    job->ccmaddr->src_acv = 9;
    job->JP_status = JOB_STATUS_RUNNING;
    create_and_send_exstaj(pcx, job);
    auto messages = sent();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_STREQ(messages[0].addr.dst_addr, "*SERVER");
    EXPECT_STREQ(messages[0].addr.dst_name, "JPEXEC_R");
    EXPECT_EQ(messages[0].addr.dst_acv, 0);
    EXPECT_EQ(messages[0].as<MSG_TYPE_EXSTAJ>().restart_len, 1336);

    // While the line is down nothing is lost: the record is still due.
    pcx->pcx_flag &= ~PCX_FLAG_SERVER_CHANNEL;
    job->JP_RstInfo = JOB_RECORD_DUE;
    create_and_send_exstaj(pcx, job);
    EXPECT_EQ(sent().size(), 0u);
    EXPECT_EQ(job->JP_RstInfo, JOB_RECORD_DUE);
}
