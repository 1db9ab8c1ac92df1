// Starts that fail, users and rights, reports with limits, many jobs at once.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "messages/records_report.h"
#include "security/string_cipher.h"
#include "server_fixture.h"

namespace {

struct jobs : server_test {
    installation host;
    jobs() : host("JOBAGENT", port()) {}
    void start_agent() {
        host.start();
        ASSERT_TRUE(wait_logon("JOBAGENT")) << story() << host.agent.output() << host.log();
    }
    std::string run_and_report(const std::string& script, const std::string& user = "",
                               const std::string& shell = "") {
        const int run = submit(script, "", user, shell);
        EXPECT_TRUE(wait_done(run)) << story() << host.log();
        return report(run);
    }
};

TEST_F(jobs, refuses_what_must_not_start) {
    start_agent();
    const int unknown = submit("true", "", "qx-no-such-user");
    ASSERT_TRUE(wait_done(unknown)) << story();
    EXPECT_EQ(job(unknown).state, cp_job_state::refused);
    EXPECT_EQ(job(unknown).message_number, 2001007);
    EXPECT_TRUE(read_file(job(unknown).job_file).empty()) << "nothing is left half done";
    if (!is_root()) {
        const int foreign = submit("true", "", "root");
        ASSERT_TRUE(wait_done(foreign)) << story();
        EXPECT_EQ(job(foreign).state, cp_job_state::refused);
    }
    // The same run number again leaves the running job alone.
    const int run = submit("sleep 300");
    ASSERT_TRUE(wait_state(run, cp_job_state::running)) << story();
    cp_server_store(server.get()).next_run = run;
    const int twin = run;
    cp_job before = job(run);
    ASSERT_EQ(submit("echo second"), twin);
    ASSERT_TRUE(wait(10000, [&] { return job(run).state == cp_job_state::refused; })) << story();
    EXPECT_EQ(job(run).message_number, 2003026);
    EXPECT_EQ(kill(std::atoi(before.process_id.c_str()), 0), 0);
    job(run) = before;
    ASSERT_TRUE(cp_cancel(server.get(), run, {}));
    EXPECT_TRUE(wait_done(run)) << story();
}

TEST_F(jobs, starts_with_the_shell_that_is_asked_for) {
    start_agent();
    EXPECT_NE(run_and_report("#!/bin/bash\necho ${BASH_VERSION:+bash}\n").find("bash\n"), std::string::npos);
    const std::string filtered =
        run_and_report("##QX7[bash]echo for bash\n##QX7[ksh]echo for ksh\necho for all\n", "", "bash");
    EXPECT_NE(filtered.find("for bash\n"), std::string::npos) << filtered;
    EXPECT_EQ(filtered.find("for ksh"), std::string::npos) << filtered;
    EXPECT_NE(filtered.find("for all\n"), std::string::npos) << filtered;
    EXPECT_NE(run_and_report("echo ran anyway\n", "", "nosuchshell").find("ran anyway\n"), std::string::npos);
    EXPECT_TRUE(host.log_has("U02003028")) << host.log();
}

TEST_F(jobs, registers_texts_variables_and_files) {
    start_agent();
    const int run = submit(
        "md='" QX_MESSENGER_PROGRAM " --address 127.0.0.1 --port " + std::to_string(host.listener_port) +
        " --client 100 --agent JOBAGENT'\n"
        "run=$(basename $0 .TXT | tail -c 8)\n"
        "$md --run $((1$run - 10000000)) status --text 'half way' || exit 90\n"
        "$md --run $((1$run - 10000000)) variable colour blue || exit 91\n"
        "$md --run $((1$run - 10000000)) variable COLOUR green || exit 92\n"
        "$md --run $((1$run - 10000000)) file /tmp/some.file || exit 93\n"
        "$md --run $((1$run - 10000000)) restart --mark STEP2 --text 'second step' || exit 94\n");
    ASSERT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(job(run).return_code, 0) << report(run);
    EXPECT_EQ(job(run).variables["COLOUR"], "green");
    EXPECT_EQ(job(run).variables.size(), 1u);
    ASSERT_EQ(job(run).output_files.size(), 1u) << report(run);
    EXPECT_EQ(job(run).output_files[0], "/tmp/some.file");
    EXPECT_TRUE(host.log_has("STEP2")) << host.log();
}

TEST_F(jobs, fetches_reports_and_erases_them) {
    start_agent();
    const int run = submit(
        "i=0; while [ $i -lt 3000 ]; do echo \"line $i of the report\"; i=$((i+1)); done\n"
        "echo Error at the end\n",
        "", "", "", false);
    ASSERT_TRUE(wait_done(run)) << story();
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        expected += "line " + std::to_string(i) + " of the report\n";
    }
    expected += "Error at the end\n";
    EXPECT_EQ(report(run), expected);

    cp_answer answer;
    cp_report_wish erase;
    erase.path = server_folder.path + "/part";
    erase.erase = true;
    EXPECT_TRUE(cp_fetch_report(server.get(), run, erase, [&](const cp_answer& a) { answer = a; }));
    EXPECT_TRUE(wait(10000, [&] { return !answer.status.empty(); })) << story();
    EXPECT_EQ(answer.status, "OK") << answer.number << answer.insert;
    EXPECT_EQ(read_file(erase.path), expected);
    EXPECT_NE(access(job(run).report_file.c_str(), F_OK), 0) << "erased after the transfer";
}

TEST_F(jobs, writes_files_by_order) {
    start_agent();
    std::string folder = host.path("out");
    auto order = [&](char mode, const std::string& text) {
        message_builder<MSG_TYPE_PRCWRITE> write(100, 1);
        write->ah_idnr = 77;
        write->mode = mode;
        put_text(write->logininfo, own_user());
        write.add(MSG_TYPE_PRCWRITE::file, folder + "/deeper/file.txt");
        write.add(MSG_TYPE_PRCWRITE::text, text);
        cp_answer answer;
        EXPECT_TRUE(cp_send(server.get(), *cp_find_agent(server.get(), "JOBAGENT"), "QXREPEX", write,
                            [&](const cp_answer& a) { answer = a; }));
        EXPECT_TRUE(wait(10000, [&] { return !answer.status.empty(); })) << host.log();
        return answer.number;
    };
    const std::string path = folder + "/deeper/file.txt";
    EXPECT_EQ(order('O', "one\r\ntwo\r\n"), 0) << host.log();
    EXPECT_EQ(read_file(path), "one\ntwo\n");
    EXPECT_EQ(order('A', "three"), 0);
    EXPECT_EQ(read_file(path), "one\ntwo\nthree\n");
    EXPECT_EQ(order('C', "no"), 2000223);
    EXPECT_EQ(order('O', ""), 0);
    EXPECT_EQ(read_file(path), "");
}

TEST_F(jobs, runs_a_hundred_with_trace_and_line_losses) {
    host.ini["TRACE"]["all_trace"] = "4";
    start_agent();
    std::vector<int> runs;
    for (int i = 0; i < 100; ++i) {
        runs.push_back(submit("exit " + std::to_string(i)));
        if (i % 30 == 29) {
            cp_drop_line(server.get(), "JOBAGENT");
            ASSERT_TRUE(wait_logon("JOBAGENT", 30000)) << story();
        }
    }
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(wait_done(runs[static_cast<size_t>(i)], 120000)) << i << story();
        const cp_job& ended = job(runs[static_cast<size_t>(i)]);
        // A line that was cut between order and arrival leaves a job that never came: known to both as lost.
        if (ended.state != cp_job_state::lost) {
            EXPECT_EQ(ended.return_code, i) << story();
            EXPECT_EQ(count_events("end", ended.run), 1) << ended.run;
        }
    }
    EXPECT_TRUE(host.agent.running());
}

TEST_F(jobs, tells_a_full_disk_by_number) {
    if (!is_root()) {
        return;  // only root can mount a small file system
    }
    ASSERT_EQ(mount("tmpfs", host.path("temp").c_str(), "tmpfs", 0, "size=200k"), 0);
    host.ini["GLOBAL"]["logging"] = "../backup/agent.l##";
    host.ini["TRACE"]["file"] = "../backup/agent.t##";
    start_agent();
    write_file(host.path("temp/filler"), std::string(300 * 1024, 'x'));
    const int run = submit("echo never\n");
    EXPECT_TRUE(wait_done(run)) << story();
    EXPECT_EQ(job(run).state, cp_job_state::refused);
    EXPECT_EQ(job(run).message_number, 2003041);
    EXPECT_NE(job(run).message_insert.find("No space"), std::string::npos) << job(run).message_insert;
    unlink(host.path("temp/filler").c_str());
    const int next = submit("exit 4\n");
    EXPECT_TRUE(wait_done(next)) << story();
    EXPECT_EQ(job(next).return_code, 4) << "it goes on when there is room again";
    EXPECT_TRUE(host.stop());
    umount(host.path("temp").c_str());
}

TEST_F(jobs, runs_under_the_user_of_the_order) {
    if (!is_root()) {
        return;  // an ordinary user has one identity
    }
    test_user user("qxtest1");
    start_agent();
    const std::string text = run_and_report(
        "id -un; id -gn; id -G; pwd; echo $HOME $LOGNAME; umask; touch made; "
        "cat /proc/self/status | grep -E '^(Uid|Gid|Groups)'\n",
        user.name);
    const std::string uid = std::to_string(user.uid);
    EXPECT_NE(text.find("qxtest1\nqxtest1\n" + std::to_string(user.gid) + "\n" + user.home + "\n" +
                        user.home + " qxtest1\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Uid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid), std::string::npos) << text;
    struct stat made {};
    ASSERT_EQ(stat((user.home + "/made").c_str(), &made), 0);
    EXPECT_EQ(made.st_uid, user.uid);
    struct stat report_file {};
    ASSERT_EQ(stat(job(1).report_file.c_str(), &report_file), 0);
    EXPECT_EQ(report_file.st_uid, user.uid);
    EXPECT_EQ(report_file.st_mode & 0777, 0600u);

    // A link planted under the report's name is replaced, not followed.
    write_file(user.home + "/precious", "precious", 0600);
    cp_store& store = cp_server_store(server.get());
    const std::string next_report =
        host.path("out") + "/O100000000" + std::to_string(store.next_run) + ".TXT";
    ASSERT_EQ(symlink((user.home + "/precious").c_str(), next_report.c_str()), 0);
    const int run = submit("echo over\n", "", user.name);
    EXPECT_TRUE(wait_done(run)) << story();
    EXPECT_EQ(read_file(user.home + "/precious"), "precious");

    test_user homeless("qxtest2", false);
    const int lost = submit("echo never\n", "", homeless.name);
    ASSERT_TRUE(wait_done(lost)) << story();
    EXPECT_EQ(job(lost).return_code, 205);
}

TEST_F(jobs, checks_passwords_when_both_sides_ask_for_it) {
    if (!is_root()) {
        return;  // the shadow file is root's
    }
    test_user user("qxtest3");
    scratch_folder folder;
    write_file(folder.path + "/set", "#!/bin/sh\necho 'qxtest3:right' | /usr/sbin/chpasswd\n", 0755);
    std::string output;
    ASSERT_EQ(run_program({folder.path + "/set"}, output), 0) << output;
    host.ini["GLOBAL"]["login_check"] = "yes";
    cp_server_options(server.get()).check_passwords = true;
    start_agent();
    for (const char* password : {"wrong", "", "right"}) {
        cp_job wanted;
        wanted.name = "PASSWORD";
        wanted.script = "exit 6";
        wanted.user = user.name;
        wanted.password = password;
        std::string error;
        const int run = cp_submit(server.get(), wanted, error);
        ASSERT_TRUE(wait_done(run)) << story();
        if (std::string{password} == "right") {
            EXPECT_EQ(job(run).return_code, 6) << story() << host.log();
        } else {
            EXPECT_EQ(job(run).message_number, 2001007) << password;
        }
    }
}

TEST_F(jobs, leaves_its_listener_no_rights) {
    if (!is_root()) {
        return;  // without root the listener keeps the agent's identity
    }
    start_agent();
    const std::string status = read_file("/proc/" + std::to_string(host.listener_pid()) + "/status");
    EXPECT_NE(status.find("Uid:\t65534\t65534\t65534\t65534"), std::string::npos) << status;
    EXPECT_NE(status.find("Gid:\t65534\t65534\t65534\t65534"), std::string::npos) << status;
    EXPECT_NE(status.find("Groups:\t \n"), std::string::npos) << status;
    EXPECT_NE(status.find("NoNewPrivs:\t1"), std::string::npos) << status;
    // A program of its own start: another place in memory, the files of a process that nobody may trace, and
    // a name in the list.
    const std::string listener = "/proc/" + std::to_string(host.listener_pid());
    const std::string agent = "/proc/" + std::to_string(host.agent.pid);
    const auto place_of_libc = [](const std::string& process) {
        const std::string maps = read_file(process + "/maps");
        const size_t found = maps.find("/libc.so");
        const size_t line = maps.rfind('\n', found) + 1;
        return found == std::string::npos ? "" : maps.substr(line, 12);
    };
    EXPECT_NE(place_of_libc(agent), "");
    EXPECT_NE(place_of_libc(listener), place_of_libc(agent));
    struct stat maps {};
    ASSERT_EQ(stat((listener + "/maps").c_str(), &maps), 0);
    EXPECT_EQ(maps.st_uid, 0u) << "another process of its user could take it over";
    EXPECT_EQ(read_file(listener + "/comm"), "qxxjlnx-listene\n");
    EXPECT_EQ(read_file(listener + "/cmdline").c_str(), std::string("qxxjlnx-listener"));
    EXPECT_EQ(read_file(listener + "/environ").find("HOME="), std::string::npos);
    struct stat store {};
    ASSERT_EQ(stat(host.path("bin/KStore.ini").c_str(), &store), 0);
    EXPECT_EQ(store.st_mode & 07777, 0400u);
    struct stat temp {};
    ASSERT_EQ(stat(host.path("temp").c_str(), &temp), 0);
    EXPECT_EQ(temp.st_mode & 07777, 01777u);
}

}  // namespace
