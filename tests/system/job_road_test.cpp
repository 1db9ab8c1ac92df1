// The road of one job: logon, activation, states, times, return code, report; what it registers, who may start it,
// and what its agent and the listener are meanwhile.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>

#include "server_fixture.h"

namespace {

struct job_road : server_test {};

TEST_F(job_road, runs_a_script_and_returns_its_report) {
    started_agent host(*this, "ROADAGENT");
    EXPECT_EQ(count_events("key"), 1) << "first contact agrees on a key";

    const int run = submit(
        "#!/bin/bash\necho hello from $USER ${BASH_VERSION:+in bash}\necho to stderr >&2\necho limit "
        "$(ulimit -Sn)\nexit 3\n");
    ASSERT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(job(run).state, cp_job_state::ended) << story();
    EXPECT_EQ(job(run).return_code, 3);
    EXPECT_EQ(job(run).end_count, 1);
    EXPECT_EQ(count_events("start", run), 1);
    EXPECT_GT(std::atoi(job(run).process_id.c_str()), 1);
    EXPECT_EQ(job(run).start_time.size(), 19u) << job(run).start_time;
    EXPECT_EQ(job(run).end_time.size(), 19u) << job(run).end_time;
    EXPECT_LE(job(run).start_time, job(run).end_time);

    const std::string text = report(run);
    EXPECT_NE(text.find("hello from " + own_user() + " in bash\n"), std::string::npos) << text;
    EXPECT_NE(text.find("to stderr\n"), std::string::npos) << text;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::string own = limit.rlim_cur == RLIM_INFINITY ? "unlimited" : std::to_string(limit.rlim_cur);
    EXPECT_NE(text.find("limit " + own + "\n"), std::string::npos) << "not the agent's lower one: " << text;
    EXPECT_NE(text.find("**  JOB " + std::to_string(run) + " START AT "), std::string::npos) << text;
    EXPECT_NE(text.find("RETCODE=3"), std::string::npos) << text;
    EXPECT_TRUE(wait_until(5000, [&] { return read_file(job(run).job_file).empty(); }))
        << "job file is removed";
    // The log brings run number, user and process together, and holds no lines for calls of the messenger.
    const std::string line = "Job " + std::to_string(run) + " of client ";
    const size_t at = host.log().find(line);
    ASSERT_NE(at, std::string::npos) << host.log();
    const std::string told = host.log().substr(at, 200);
    EXPECT_NE(told.find("user '" + own_user() + "', process id " + job(run).process_id + ", report '"),
              std::string::npos)
        << told;
    for (const char* number : {"U02002039", "U02002040"}) {
        EXPECT_EQ(host.log().find(number), std::string::npos) << host.log();
    }
    EXPECT_TRUE(host.stop()) << host.log();
    EXPECT_EQ(host.agent.exit_code(), 0);
    EXPECT_TRUE(wait(5000, [&] { return count_events("stop") == 1; })) << story();
}

TEST_F(job_road, survives_the_kill_of_its_agent) {
    started_agent host(*this, "PHOENIX");
    const std::string gate = host.path("gate");
    std::vector<int> runs;
    for (int i = 0; i < 20; ++i) {
        runs.push_back(
            submit("while ! test -e " + gate + "; do sleep 0.1; done\nexit " + std::to_string(i) + "\n"));
    }
    const auto is_running = [&](int run) { return job(run).state == cp_job_state::running; };
    ASSERT_TRUE(wait(30000, [&] { return std::all_of(runs.begin(), runs.end(), is_running); })) << story();
    const pid_t listener = host.listener_pid();
    host.agent.kill_now();
    ASSERT_TRUE(wait(10000, [&] { return cp_find_agent(server.get(), "PHOENIX") == nullptr; }));
    EXPECT_TRUE(wait_until(20000, [&] { return kill(listener, 0) != 0; }))
        << "the listener ends with its agent";
    // Half of the jobs end while nobody looks, half after the agent is back.
    write_file(gate, "");
    log_on(host);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(wait_done(runs[static_cast<size_t>(i)], 60000)) << i << "\n" << story() << host.log();
        const cp_job& ended = job(runs[static_cast<size_t>(i)]);
        EXPECT_EQ(ended.state, cp_job_state::ended) << ended.run;
        EXPECT_EQ(ended.return_code, i);
        EXPECT_FALSE(ended.end_time.empty());
        EXPECT_EQ(count_events("end", ended.run), 1);
    }
}

TEST_F(job_road, registers_texts_variables_and_files) {
    started_agent host(*this, "ROADAGENT");
    const int run = submit(
        "md='" QX_MESSENGER_PROGRAM " --address 127.0.0.1 --port " + std::to_string(host.listener_port) +
        " --client 100 --agent ROADAGENT'\n"
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

TEST_F(job_road, checks_passwords_when_both_sides_ask_for_it) {
    if (!is_root()) {
        return;  // the shadow file is root's
    }
    test_user user("qxtest3");
    scratch_folder folder;
    write_file(folder.path + "/set", "#!/bin/sh\necho 'qxtest3:right' | /usr/sbin/chpasswd\n", 0755);
    std::string output;
    ASSERT_EQ(run_program({folder.path + "/set"}, output), 0) << output;
    installation host("ROADAGENT", port());
    host.ini["GLOBAL"]["login_check"] = "yes";
    cp_server_options(server.get()).check_passwords = true;
    log_on(host);
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

TEST_F(job_road, leaves_its_listener_no_rights) {
    if (!is_root()) {
        return;  // without root the listener keeps the agent's identity
    }
    started_agent host(*this, "ROADAGENT");
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
