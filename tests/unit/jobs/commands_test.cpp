// Short commands: who may, what comes back, when they are stopped.
#include "jobs/commands.h"

#include <fcntl.h>
#include <sys/mman.h>

#ifdef QX_FAKE_PAM
#include <dlfcn.h>

#include "fake_pam.h"
#endif

#include "base/error.h"
#include "job_fixture.h"
#include "launch/launch.h"

namespace {

struct command_test : job_test {
    void SetUp() override {
        job_test::SetUp();
        copy_text(pcx->efUserName, user);
        pcx->pcx_cmd_timeout = 100;
        ASSERT_EQ(cmdOpen(pcx), 0);
    }
    void TearDown() override {
        cmdClose(pcx);
        job_test::TearDown();
    }

    std::string output_file(int run) const { return folder / ("out/command" + std::to_string(run)); }

    int request(int run, const std::string& command, int rows = 100, const std::string& who = "*",
                bool with_file = true) {
        message_builder<MSG_TYPE_EXREQCMD> record(client, number);
        record->ah_idnr = run;
        record->max_rows = rows;
        put_text(record->jobreport, with_file ? output_file(run) : "");
        put_text(record->logininfo, who == "*" ? user : who);
        record.add(MSG_TYPE_EXREQCMD::jcl, command);
        return receive(process_exreqcmd, record);
    }
    void cancel(int run) {
        auto order = new_message<MSG_TYPE_EXREQCAN>(client, number);
        order.ah_idnr = run;
        receive(process_exreqcancel, order);
    }
    // The end of the newest command, told as the signal layer does.
    void finish() {
        ASSERT_EQ(getCommandCount(), 1);
        const pid_t pid = GetCmdGlb()->cmd_firstCMDA.front().cmda_forkPid;
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(process_command_sigchild(pcx, pid, pr_exit(status), status), 1);
    }
    static std::string output_of(const sent_message& answer) {
        const message_view view = view_message(answer.body.data(), answer.body.size());
        if (answer.type() == "EXRESCMD") {
            auto result = answer.as<MSG_TYPE_EXRESCMD>();
            return std::string(view_text(view, result.rep_dist, result.rep_len));
        }
        auto quitt = answer.as<MSG_TYPE_QUITT>();
        return std::string(view_text(view, quitt.msg_dist, quitt.msg_len));
    }
};

TEST_F(command_test, output_comes_back_with_cr_lf) {
    EXPECT_EQ(request(1, "echo one; printf two >&2"), 0);
    EXPECT_TRUE(sent().empty()) << "no acknowledgment ahead of the answer";
    EXPECT_EQ(getCommandCount(), 1) << "stands in the way of a restart";
    finish();
    const sent_message answer = first_sent();
    ASSERT_EQ(answer.type(), "EXRESCMD");
    EXPECT_EQ(answer.as<MSG_TYPE_EXRESCMD>().ah_idnr, 1);
    EXPECT_EQ(answer.as<MSG_TYPE_EXRESCMD>().rep_dist, 32);
    EXPECT_EQ(output_of(answer), "one\r\ntwo");
    EXPECT_STREQ(answer.addr.dst_addr, "*SERVER");
    EXPECT_STREQ(answer.addr.dst_name, "JPEXEC_R");
    EXPECT_EQ(answer.addr.dst_acv, 55);
    EXPECT_FALSE(std::filesystem::exists(output_file(1)));
    EXPECT_EQ(getCommandCount(), 0);
}

TEST_F(command_test, a_code_is_told_with_the_output) {
    request(2, "echo out; exit 3");
    finish();
    const sent_message answer = first_sent();
    EXPECT_EQ(text_of(answer), "NK 2000172 2|3|echo out; exit 3");
    EXPECT_EQ(get_text(answer.as<MSG_TYPE_QUITT>().msg), "EXREQCMD");
    EXPECT_EQ(output_of(answer), "out\r\n");
}

TEST_F(command_test, without_a_file_there_is_no_output) {
    request(3, "echo lost", 10, "*", false);
    finish();
    EXPECT_EQ(output_of(first_sent()), "");
    EXPECT_TRUE(std::filesystem::exists("/dev/null"));
}

TEST_F(command_test, rows_are_limited) {
    struct row_case {
        int wanted, written;
        size_t bytes;
        bool told;
    };
    constexpr row_case cases[] = {
        {10, 10, 40, true}, {10, 11, 40, true}, {10, 9, 36, false}, {1, 5, 4, true}, {0, 5, 0, true}};
    int run = 20;
    for (const row_case& rows : cases) {
        module_test_log.clear();
        request(++run, "yes 12 | head -" + std::to_string(rows.written), rows.wanted);
        finish();
        EXPECT_EQ(output_of(first_sent()).size(), rows.bytes) << rows.written;
        EXPECT_EQ(logged(2000181), rows.told) << rows.written;
    }
}

TEST_F(command_test, output_is_bounded_by_what_was_there) {
    const std::string path = folder / "file";
    write_text(path, "a\nb\nc");
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string output;
    int rows = 0;
    struct read_case {
        int max_rows;
        const char* output;
        int rows;
    };
    constexpr read_case cases[] = {
        {0, "", 0},           {-1, "", 0},           {1, "a\r\n", 1},
        {2, "a\r\nb\r\n", 2}, {3, "a\r\nb\r\nc", 2}, {2147483647, "a\r\nb\r\nc", 2},
    };
    for (const read_case& one : cases) {
        EXPECT_EQ(command_read_output(fd, one.max_rows, &output, &rows), 0);
        EXPECT_EQ(output, one.output) << one.max_rows;
        EXPECT_EQ(rows, one.rows) << one.max_rows;
    }
    ASSERT_EQ(truncate(path.c_str(), off_t{200} << 20), 0);
    EXPECT_EQ(command_read_output(fd, 2147483647, &output, &rows), 0);
    EXPECT_EQ(output.size(), size_t{32} << 20);
    EXPECT_EQ(command_read_output(fd, 3, &output, &rows), 0);
    EXPECT_EQ(output.size(), 3u * 32770) << "one row cannot hold more than its share";
    close(fd);
    EXPECT_EQ(command_read_output(-1, 3, &output, &rows), -1);
    const int memory = memfd_create("output", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(memory, INT64_MAX), 0) << "a size that a command can give its output";
    EXPECT_EQ(command_read_output(memory, 10, &output, &rows), 0);
    EXPECT_EQ(output.size(), 10u * 32770);
    close(memory);
}

TEST_F(command_test, refusals_name_their_reason) {
    const struct {
        const char* who;
        const char* command;
        char anonymous;
        const char* told;
    } cases[] = {
        {"*", "", 'N', "NK 2000191 30"},
        {"", "id", 'N', "NK 2000184 30|id"},
        {"nosuchuser", "id", 'N', "NK 2001087 30|nosuchuser|No such file or directory|id"},
        {"auserwhosenameislongerthanthirtytwo", "id", 'N',
         "NK 2001087 30|auserwhosenameislongerthanthirtytwo|No such file or directory|id"},
    };
    for (const auto& one : cases) {
        pcx->pcx_anonymusUsr = one.anonymous;
        request(30, one.command, 10, one.who);
        EXPECT_EQ(answer(), one.told);
        EXPECT_EQ(getCommandCount(), 0);
    }
    pcx->upgrade_ah_idnr = 1;
    request(30, "id");
    EXPECT_EQ(answer(), "NK 65 ");
}

TEST_F(command_test, a_request_without_user_runs_as_the_agent_where_the_server_allows_it) {
    pcx->pcx_anonymusUsr = 'Y';
    request(31, "id -un", 10, "");
    finish();
    EXPECT_EQ(output_of(first_sent()), user + "\r\n");
}

TEST_F(command_test, a_password_is_asked_for_where_jobs_are_asked_too) {
    pcx->pcx_JobPwCheck = 1;
    pcx->pcx_strt_euid = 1;  // an agent that was not started as root can check none
    request(32, "id");
    EXPECT_EQ(answer(), "NK 2001088 32|" + user + "|incorrect password|id");
    EXPECT_EQ(getCommandCount(), 0);
    if (runs_as_root()) {
        const made_user other("qxcmdpw");
        ASSERT_TRUE(other.made);
        pcx->pcx_strt_euid = 0;
        pcx->pcx_hardened = 1;
        request(33, "id", 10, other.name);
        pcx->pcx_hardened = 0;
        EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2001088) << "a locked account, and no password";
    }
}

#ifdef QX_FAKE_PAM
TEST_F(command_test, pam_decides_and_its_handle_is_ended) {
    if (!runs_as_root()) {
        return;
    }
    void* library = nullptr;
    qx7_error error;
    ASSERT_EQ(loadDLL(pcx, QX_FAKE_PAM, &library, &error), 0) << error.qx_msgInsert;
    char name[64];
    ASSERT_EQ(LoadPamFunctions(library, name, sizeof name, &error), 0);
    auto* state = reinterpret_cast<fake_pam_state* (*)()>(dlsym(library, fake_pam_symbol))();
    pcx->pcx_JobPwCheck = 1;
    pcx->pcx_strt_euid = 0;
    pcx->pcx_Auth = 'P';
    *state = {};
    state->styles = {PAM_PROMPT_ECHO_OFF};
    request(34, "echo in");
    finish();
    EXPECT_EQ(output_of(first_sent()), "in\r\n");
    EXPECT_EQ(state->open_handles, 0);
    state->authenticate = 7;
    request(35, "echo in");
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2001088);
    EXPECT_EQ(state->open_handles, 0);
    pcx->pcx_Auth = 'L';
    unloadDLL(pcx, library, QX_FAKE_PAM, &error);
}
#endif

TEST_F(command_test, the_lists_are_read_once) {
    write_text(pcx->IniFile, "[GLOBAL]\nuserid_type=INCL\nReadUserAlways=yes\n[USERID]\n" + user +
                                 "=START\n[QX_USER]\n7=NO_START\n");
    cmdOpen(pcx);
    request(40, "id");
    EXPECT_EQ(answer(), "NK 2000029 7");
    write_text(pcx->IniFile, "[GLOBAL]\nuserid_type=INCL\n");
    cmdOpen(pcx);
    request(41, "id");
    EXPECT_EQ(answer(), "NK 2000029 " + user);
    write_text(pcx->IniFile, "[USERID]\n" + user + "=START\n");
    request(42, "id");
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2000029) << "a later change does not count";
}

TEST_F(command_test, the_time_limit_kills_and_answers_once) {
    request(50, "trap '' TERM INT HUP; while :; do :; done");
    const pid_t pid = GetCmdGlb()->cmd_firstCMDA.front().cmda_forkPid;
    const time_t alarm = pcx->Cmd_alarm_time;
    EXPECT_NE(alarm, 0);
    qx7_error error;
    EXPECT_EQ(commandTimeoutEvent(pcx, &error), 0) << "not yet";
    EXPECT_EQ(pcx->Cmd_alarm_time, alarm);
    alarm_clock_advance(101);
    EXPECT_EQ(commandTimeoutEvent(pcx, &error), 1);
    EXPECT_TRUE(answer().starts_with("NK 2000177 "));
    EXPECT_EQ(commandTimeoutEvent(pcx, &error), 0) << "only what runs is timed out";
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(pcx->Cmd_alarm_time, 0);
    EXPECT_EQ(getCommandCount(), 1) << "listed until its end";
    finish();
    EXPECT_TRUE(sent().empty()) << "the server has its answer";
    EXPECT_EQ(getCommandCount(), 0);
    EXPECT_EQ(kill(pid, 0), -1);
}

// Nobody repeats them, so they wait for the next logon when the line is down.
TEST_F(command_test, answers_are_kept_for_a_server_that_comes_back) {
    const auto waits = [&] {
        const ccm_msg_t* msg = pcx->ccm->sendq.first;
        return msg != nullptr && (msg->flag & CCM_MSG_FLAG_KEEP) != 0;
    };
    for (const char* command : {"echo out", "exit 3", "sleep 60"}) {
        request(60, command);
        pcx->pcx_flag.fetch_and(~PCX_FLAG_SERVER_CHANNEL);
        if (std::string(command) == "sleep 60") {
            alarm_clock_advance(101);
            qx7_error error;
            EXPECT_EQ(commandTimeoutEvent(pcx, &error), 1);
        } else {
            finish();
        }
        EXPECT_TRUE(waits()) << command;
        sent();
        pcx->pcx_flag.fetch_or(PCX_FLAG_SERVER_CHANNEL);
    }
    finish();
}

TEST_F(command_test, an_asker_with_handle_zero_is_answered_once_too) {
    asker_code = 0;
    request(54, "echo out");
    finish();
    const sent_message answer = first_sent();
    EXPECT_EQ(output_of(answer), "out\r\n");
    EXPECT_EQ(answer.addr.dst_acv, 0);
    request(55, "sleep 60");
    alarm_clock_advance(101);
    qx7_error error;
    EXPECT_EQ(commandTimeoutEvent(pcx, &error), 1);
    EXPECT_EQ(sent().size(), 1u);
    finish();
    EXPECT_TRUE(sent().empty()) << "not again with its end";
    request(56, "sleep 60");
    cancel(56);
    finish();
    EXPECT_TRUE(sent().empty());
}

TEST_F(command_test, without_the_signal_an_end_is_looked_for) {
    open_with("[GLOBAL]\nsigchld=no\n[USERID]\nroot=START\n");
    qx7_error error;
    const auto look = [&] {
        alarm_clock_advance(2);
        EXPECT_LT(pcx->Cmd_alarm_time, alarm_now()) << "due at the next turn of the loop";
        return commandTimeoutEvent(pcx, &error);
    };
    request(57, "echo out; kill -STOP $$");
    const pid_t pid = GetCmdGlb()->cmd_firstCMDA.front().cmda_forkPid;
    ASSERT_EQ(waitpid(pid, nullptr, WUNTRACED), pid);
    EXPECT_EQ(look(), 0);
    EXPECT_TRUE(sent().empty()) << "it is there";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(look(), 0);
    const sent_message answer = first_sent();
    EXPECT_EQ(text_of(answer), "NK 2000172 57|-1|echo out; kill -STOP $$") << "no success";
    EXPECT_EQ(output_of(answer), "out\r\n");
    EXPECT_EQ(getCommandCount(), 0);
    EXPECT_EQ(pcx->Cmd_alarm_time, 0);
    request(58, "sleep 60");
    const pid_t second = GetCmdGlb()->cmd_firstCMDA.front().cmda_forkPid;
    cancel(58);
    waitpid(second, nullptr, 0);
    look();
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(getCommandCount(), 0);
}

TEST_F(command_test, the_output_of_what_still_runs_goes_with_the_agent) {
    request(59, "sleep 60");
    const pid_t pid = GetCmdGlb()->cmd_firstCMDA.front().cmda_forkPid;
    cmdClose(pcx);
    EXPECT_FALSE(std::filesystem::exists(output_file(59)));
    EXPECT_EQ(kill(pid, 0), 0) << "it runs on";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(command_test, each_command_has_its_own_limit) {
    request(51, "sleep 60");
    alarm_clock_advance(50);
    request(52, "sleep 60");
    alarm_clock_advance(51);
    qx7_error error;
    EXPECT_EQ(commandTimeoutEvent(pcx, &error), 1);
    EXPECT_NE(pcx->Cmd_alarm_time, 0) << "for the second";
    alarm_clock_advance(50);
    EXPECT_EQ(commandTimeoutEvent(pcx, &error), 1);
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(command_test, a_process_id_that_was_given_anew_is_not_killed) {
    const living_process stranger;
    request(53, "sleep 60");
    Cmd_Area& entry = GetCmdGlb()->cmd_firstCMDA.front();
    const pid_t own = entry.cmda_forkPid;
    entry.cmda_forkPid = stranger.pid;
    entry.cmda_start_ticks -= 1000;
    qx7_error error;
    EXPECT_EQ(cancelCommandEntry(&entry, &error), -1);
    EXPECT_EQ(error.qx_msgnr, 2000179);
    EXPECT_EQ(kill(stranger.pid, 0), 0);
    kill(own, SIGKILL);
    waitpid(own, nullptr, 0);
}

TEST_F(command_test, cancelled_commands_are_not_answered) {
    request(60, "sleep 60");
    cancel(61);
    EXPECT_EQ(GetCmdGlb()->cmd_firstCMDA.front().cmda_status, COMMAND_RUNNING) << "another number";
    cancel(60);
    EXPECT_TRUE(logged(2001092));
    finish();
    EXPECT_TRUE(sent().empty());
    EXPECT_FALSE(std::filesystem::exists(output_file(60)));
    request(62, "sleep 60");
    cancel(0);
    EXPECT_TRUE(logged(2000173));
    finish();
    EXPECT_TRUE(sent().empty());
}

TEST_F(command_test, an_output_file_that_was_replaced_is_neither_read_nor_deleted) {
    request(70, "echo own; mv " + output_file(70) + " " + output_file(70) + ".moved; ln -s /etc/passwd " +
                    output_file(70));
    finish();
    EXPECT_EQ(output_of(first_sent()), "own\r\n");
    EXPECT_TRUE(std::filesystem::is_symlink(output_file(70)));
}

TEST_F(command_test, what_a_command_leaves_running_holds_nobody_up_and_is_told) {
    request(71, "sleep 60 & echo started");
    const pid_t group = GetCmdGlb()->cmd_firstCMDA.front().cmda_forkPid;
    testing::internal::CaptureStdout();
    finish();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("still run"), std::string::npos);
    EXPECT_EQ(output_of(first_sent()), "started\r\n");
    kill(-group, SIGKILL);
}

TEST_F(command_test, a_start_that_fails_leaves_no_file) {
    std::filesystem::create_directory(output_file(80));
    request(80, "id");
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2003041);
    EXPECT_TRUE(logged(2000170));
    launch_set_fork([]() -> pid_t {
        errno = EAGAIN;
        return -1;
    });
    request(81, "id");
    launch_set_fork(nullptr);
    EXPECT_TRUE(answer().starts_with("NK 2003043 fork|81|"));
    EXPECT_FALSE(std::filesystem::exists(output_file(81)));
    EXPECT_EQ(getCommandCount(), 0);
}

}  // namespace
