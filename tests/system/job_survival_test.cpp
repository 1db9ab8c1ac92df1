// What jobs and agent go through: a line cut at any byte, a lost message, processes that run out, places that
// may not be written, a disk that fills up under a job, a shell that went away.
#include <poll.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>
#include <thread>

#include "loopback.h"
#include "server_fixture.h"

namespace {

struct job_survival : server_test {};

// Stands between agent and server and cuts each of its first connections after some bytes, wherever that is.
struct cutting_line {
    int port = 0;
    std::atomic<int> cuts_left;
    std::atomic<bool> ends = false;
    std::mt19937 random;
    int listener = -1;
    int server_port;
    std::thread worker;

    cutting_line(int to, int cuts, unsigned seed) : cuts_left(cuts), random(seed), server_port(to) {
        listener = listen_on_loopback(&port);
        worker = std::thread([this] { run(); });
    }
    ~cutting_line() {
        ends = true;
        worker.join();
        close(listener);
    }

    void run() {
        while (!ends) {
            pollfd wait{listener, POLLIN, 0};
            if (poll(&wait, 1, 50) <= 0) {
                continue;
            }
            const int agent = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            const int server = connect_to_loopback(server_port);
            if (server >= 0) {
                // Most cuts behind the logon, which takes some 3000 bytes.
                const long budget =
                    cuts_left > 0 ? std::uniform_int_distribution<long>(500, 15000)(random) : -1;
                pass(agent, server, budget);
                if (budget >= 0) {
                    --cuts_left;
                }
            }
            close(agent);
            close(server);
        }
    }

    // Until one side closes or `budget` bytes have passed; -1: without end.
    void pass(int agent, int server, long budget) {
        pollfd ends_of[2] = {{agent, POLLIN, 0}, {server, POLLIN, 0}};
        while (!ends) {
            if (poll(ends_of, 2, 50) <= 0) {
                continue;
            }
            for (int side = 0; side < 2; ++side) {
                if (ends_of[side].revents == 0) {
                    continue;
                }
                char bytes[4096];
                size_t size = sizeof bytes;
                if (budget >= 0 && static_cast<size_t>(budget) < size) {
                    size = static_cast<size_t>(budget);
                }
                const ssize_t got = size == 0 ? 0 : recv(ends_of[side].fd, bytes, size, 0);
                if (got <= 0 ||
                    send(ends_of[1 - side].fd, bytes, static_cast<size_t>(got), MSG_NOSIGNAL) != got) {
                    return;
                }
                if (budget >= 0) {
                    budget -= got;
                }
            }
        }
    }
};

TEST_F(job_survival, loses_no_job_when_the_line_is_cut_at_any_byte) {
    // The same cuts in each run would find one place; a failed run tells its seed.
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    cutting_line line(port(), 0, seed);
    installation host("CUTAGENT", line.port);
    host.ini["TRACE"]["all_trace"] = "4";
    host.start();
    // The key exchange of the first contact is not repeated: a line that breaks between the agent's storing
    // and the server's leaves a key that an operator must remove.
    ASSERT_TRUE(wait_logon("CUTAGENT", 60000)) << story() << host.log();
    line.cuts_left = 6;
    cp_drop_line(server.get(), "CUTAGENT");
    ASSERT_TRUE(wait(10000, [&] { return cp_find_agent(server.get(), "CUTAGENT") == nullptr; })) << story();
    std::vector<int> runs;
    // One after the other while the line stands: each cut then meets jobs at all steps of their lives.
    for (int i = 0; i < 20 || line.cuts_left > 0; ++i) {
        ASSERT_LT(i, 400) << story();
        ASSERT_TRUE(wait_logon("CUTAGENT", 60000)) << story() << host.log();
        runs.push_back(submit("echo job " + std::to_string(i) + "\nexit " + std::to_string(i % 100) + "\n"));
        wait(100, [&] { return cp_find_agent(server.get(), "CUTAGENT") == nullptr; });
    }
    ASSERT_TRUE(wait_logon("CUTAGENT", 60000)) << story() << host.log();
    runs.push_back(submit("exit 0\n"));
    int ended_jobs = 0;
    for (int run : runs) {
        ASSERT_TRUE(wait_done(run, 90000)) << run << "\n" << story() << host.log();
        const cp_job& ended = job(run);
        if (ended.state == cp_job_state::lost) {
            // Only an order that never arrived may be lost.
            EXPECT_FALSE(host.log_has("run number " + std::to_string(run) + " was received")) << host.log();
            EXPECT_NE(access(ended.report_file.c_str(), F_OK), 0) << "the job ran: " << story() << host.log();
            continue;
        }
        ++ended_jobs;
        EXPECT_EQ(ended.state, cp_job_state::ended) << run << story();
        EXPECT_EQ(count_events("end", run), 1) << run;
    }
    EXPECT_GT(ended_jobs, 0);
    EXPECT_TRUE(host.agent.running());
}

TEST_F(job_survival, repeats_what_was_lost_on_the_way) {
    started_agent host(*this, "LOSER");
    // Each job loses another message of its life, and the line with it.
    const char* const lost[] = {"EXAKTJQU", "EXSTAJ", "REP_DATA", "REP_END"};
    for (const char* type : lost) {
        for (int nth = 1; nth <= 2; ++nth) {
            SCOPED_TRACE(std::string(type) + " " + std::to_string(nth));
            int seen = 0;
            bool cut = false;
            cp_server_tap(server.get(), [&](cp_agent&, const cp_received& message) {
                if (cut || message.body.size() < 8 ||
                    std::string(message.body.begin(), message.body.begin() + 8).find(type) != 0) {
                    return false;
                }
                cut = ++seen == nth;
                return cut;
            });
            const int run = submit("exit 5\n");
            const bool happened = wait(5000, [&] { return cut || (nth == 2 && job(run).forgotten); });
            ASSERT_TRUE(happened) << story() << host.log();
            ASSERT_TRUE(cut || nth == 2) << "nothing was lost";
            const int logons = count_events("logon");
            if (cut) {
                cp_drop_line(server.get(), "LOSER");
                ASSERT_TRUE(wait(30000, [&] { return count_events("logon") > logons; }))
                    << story() << host.log();
            }
            ASSERT_TRUE(wait_done(run, 60000)) << story() << host.log();
            EXPECT_EQ(job(run).state, cp_job_state::ended) << story();
            EXPECT_EQ(job(run).return_code, 5);
            EXPECT_EQ(count_events("end", run), 1);
            ASSERT_TRUE(wait_logon("LOSER", 30000));
        }
    }
    cp_server_tap(server.get(), {});
}

// The agent of the test's user, or as root of a user made for the test: root has no limit of processes.
struct limited_agent {
    std::unique_ptr<test_user> user;
    std::string name = server_test::own_user();

    void start(installation& host) {
        if (!is_root()) {
            host.start();
            return;
        }
        user = std::make_unique<test_user>("qxtest4");
        name = user->name;
        host.write_ini();
        for (const auto& entry : std::filesystem::recursive_directory_iterator(host.folder.path)) {
            ASSERT_EQ(lchown(entry.path().c_str(), user->uid, user->gid), 0);
        }
        ASSERT_EQ(chown(host.folder.path.c_str(), user->uid, user->gid), 0);
        start_program(host.agent,
                      {"/usr/bin/setpriv", "--reuid=" + name, "--regid=" + name, "--clear-groups",
                       host.path("bin/qxxjlnx")},
                      host.path("agent.out"));
    }
};

// Done by the agent's user himself: a root without all capabilities may not.
void limit_processes(const std::string& user, pid_t process, bool none) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NPROC, &limit), 0);
    const std::string hard = limit.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(limit.rlim_max);
    std::vector<std::string> command = {"/usr/bin/prlimit", "--pid", std::to_string(process),
                                        "--nproc=" + (none ? "1" : hard) + ":"};
    if (is_root()) {
        command.insert(command.begin(),
                       {"/usr/bin/setpriv", "--reuid=" + user, "--regid=" + user, "--clear-groups"});
    }
    std::string output;
    ASSERT_EQ(run_program(command, output), 0) << output;
}

TEST_F(job_survival, starts_jobs_later_when_processes_run_out) {
    installation host("STARVED", port());
    limited_agent as;
    as.start(host);
    ASSERT_TRUE(wait_logon("STARVED")) << story() << host.agent.output() << host.log();
    ASSERT_EQ(submit("exit 2", "", as.name), 1);
    ASSERT_TRUE(wait_done(1)) << story() << host.log();
    EXPECT_EQ(job(1).return_code, 2);

    limit_processes(as.name, host.agent.pid, true);
    const int waits = submit("exit 3", "", as.name);
    const int gives_up = submit("exit 4", "", as.name);
    const std::string text =
        "Error starting job with RunID " + std::to_string(gives_up) + ": fork() returned error EAGAIN.";
    ASSERT_TRUE(wait(10000, [&] { return host.log_has(text); })) << host.log();
    EXPECT_NE(access(job(waits).job_file.c_str(), F_OK), 0) << "nothing is left of the try";
    EXPECT_NE(access(job(waits).report_file.c_str(), F_OK), 0);
    cp_answer answer;
    ASSERT_TRUE(cp_job_info(server.get(), waits, [&](const cp_answer& a) { answer = a; }));
    ASSERT_TRUE(wait(5000, [&] { return !answer.status.empty(); }));
    EXPECT_EQ(answer.status, "OK");
    ASSERT_TRUE(cp_cancel(server.get(), gives_up, [&](const cp_answer& a) { answer = a; }));
    ASSERT_TRUE(wait(5000, [&] { return answer.number == 2001059; })) << story() << host.log();

    limit_processes(as.name, host.agent.pid, false);
    ASSERT_TRUE(wait_done(waits, 40000)) << story() << host.log();
    EXPECT_EQ(job(waits).state, cp_job_state::ended) << story();
    EXPECT_EQ(job(waits).return_code, 3);
    EXPECT_EQ(count_events("end", waits), 1);
    EXPECT_FALSE(host.log_has("run number " + std::to_string(gives_up) + " was started"))
        << "it was cancelled";
    EXPECT_TRUE(host.stop());
}

TEST_F(job_survival, tells_by_number_where_it_may_not_write) {
    installation host("FORBIDDEN", port());
    for (const char* part : {"temp", "out"}) {
        SCOPED_TRACE(part);
        const std::string place = host.path(part);
        const bool mounted = is_root() && mount("tmpfs", place.c_str(), "tmpfs", 0, "size=2m,mode=1777") == 0;
        if (is_root()) {
            ASSERT_TRUE(mounted);
        }
        host.ini["GLOBAL"]["logging"] = "../backup/agent.l##";
        host.ini["TRACE"]["file"] = "../backup/agent.t##";
        log_on(host);
        if (mounted) {
            ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=2m"), 0);
        } else {
            ASSERT_EQ(chmod(place.c_str(), 0555), 0);
        }
        const int run = submit("echo never\n");
        ASSERT_TRUE(wait_done(run)) << story();
        EXPECT_EQ(job(run).state, cp_job_state::refused);
        EXPECT_EQ(job(run).message_number, 2003041);
        const char* step = std::string(part) == "out" ? "FileCreate()|" : "FileFOpen()|";
        EXPECT_EQ(job(run).message_insert.rfind(step, 0), 0u) << job(run).message_insert;
        EXPECT_NE(access(job(run).job_file.c_str(), F_OK), 0) << "nothing is left half done";
        EXPECT_NE(access(job(run).report_file.c_str(), F_OK), 0);
        EXPECT_NE(read_file(host.path("backup/agent.l00")).find("2000109"), std::string::npos);
        if (mounted) {
            ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", MS_REMOUNT, "size=2m"), 0);
        } else {
            ASSERT_EQ(chmod(place.c_str(), 01777), 0);
        }
        const int next = submit("exit 6\n");
        EXPECT_TRUE(wait_done(next)) << story();
        EXPECT_EQ(job(next).return_code, 6) << "it goes on when it may";
        EXPECT_TRUE(host.stop());
        ASSERT_TRUE(wait(10000, [&] { return cp_find_agent(server.get(), "FORBIDDEN") == nullptr; }));
        if (mounted) {
            EXPECT_EQ(umount(place.c_str()), 0);
        }
    }
}

TEST_F(job_survival, brings_the_end_of_a_job_that_filled_the_disk) {
    if (!is_root()) {
        return;  // only root can mount a small file system
    }
    installation host("FILLER", port());
    ASSERT_EQ(mount("tmpfs", host.path("out").c_str(), "tmpfs", 0, "size=256k,mode=1777"), 0);
    log_on(host);
    const int run = submit("yes | head -c 1000000\nexit 7\n");
    ASSERT_TRUE(wait_done(run)) << story() << host.log();
    EXPECT_EQ(job(run).state, cp_job_state::ended);
    EXPECT_EQ(job(run).return_code, 7) << "the messenger's word arrives without its line in the report";
    EXPECT_GT(report(run).size(), 100000u) << "what found room is fetched";
    EXPECT_EQ(count_events("end", run), 1);
    EXPECT_TRUE(host.stop());
    EXPECT_EQ(umount(host.path("out").c_str()), 0);
}

}  // namespace
