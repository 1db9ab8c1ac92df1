// Stored resources through the real programs: shared questions, versions, cancel, lost lines.
#include <sys/stat.h>

#include <csignal>

#include "messages/records_report.h"
#include "messages/view.h"
#include "qxcp/resources.h"
#include "server_fixture.h"

namespace {

struct resources : server_test {
    std::unique_ptr<installation> host;
    int questions = 0;      // BIN_GET seen
    bool hold_back = false;  // and not answered

    void start(const std::string& name) {
        cp_server_tap(server.get(), [this](cp_agent&, const cp_received& received) {
            const bool question = message_type_is(received.body.data(), received.body.size(), "BIN_GET");
            questions += question ? 1 : 0;
            return question && hold_back;
        });
        host = std::make_unique<installation>(name, port());
        host->start();
        ASSERT_TRUE(wait_logon(name)) << story() << host->log();
    }
    void add(const std::string& name, const std::string& content, bool text = false) {
        const std::string path = server_folder.path + "/source";
        write_file(path, content);
        cp_resource resource;
        resource.object = "FILES";
        resource.name = name;
        resource.text = text;
        ASSERT_EQ(cp_resource_add(cp_server_store(server.get()), resource, path), "");
    }
    int submit_with(const std::string& script, std::vector<cp_job_resource> wanted, std::string user = {}) {
        cp_job job;
        job.name = "RESOURCES";
        job.script = script;
        job.user = user.empty() ? own_user() : user;
        job.shell = "sh";
        job.resources = std::move(wanted);
        std::string error;
        const int run = cp_submit(server.get(), job, error);
        EXPECT_NE(run, 0) << error;
        return run;
    }
    std::string gate_script(const std::string& gate) const {
        return "cat $QX_CLIENT_CACHE/shared\nwhile ! test -e " + gate +
               "; do sleep 0.05; done\ncat $QX_CLIENT_CACHE/shared\n";
    }
};

TEST_F(resources, reach_the_job_and_go_with_it) {
    start("RESAGENT");
    add("shared", "for all\n");
    add("own", std::string("\0\r\n\xff", 4));
    add("page", "a\r\nb\r\n", true);
    const int run = submit_with("cat $QX_CLIENT_CACHE/shared $QX_CLIENT_CACHE/page; cat $QX_TASK_CACHE/own | od -An -tx1",
                                {{"FILES", "shared", 'C'}, {"FILES", "page", 'C'}, {"FILES", "own", 'T'}});
    ASSERT_TRUE(wait_done(run)) << story() << host->log();
    const std::string text = report(run);
    EXPECT_EQ(job(run).return_code, 0) << text;
    EXPECT_NE(text.find("for all\na\nb\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" 00 0d 0a ff"), std::string::npos) << text;
    EXPECT_LT(text.find("2001097"), text.find("START AT")) << "ahead of all output\n" << text;
    EXPECT_EQ(questions, 3);
    const int next = submit_with("cat $QX_CLIENT_CACHE/shared", {{"FILES", "shared", 'C'}});
    ASSERT_TRUE(wait_done(next)) << story() << host->log();
    EXPECT_EQ(questions, 3) << "it is there already";
    EXPECT_TRUE(wait_until(5000, [&] {
        std::string left;
        run_program({"/usr/bin/find", host->path("resources/tasks"), "-name", "own"}, left);
        return left.empty();
    }));
}

TEST_F(resources, twenty_jobs_ask_once) {
    start("SHAREAGENT");
    add("shared", "x\n");
    std::vector<int> runs;
    for (int i = 0; i < 20; ++i) {
        runs.push_back(submit_with("cat $QX_CLIENT_CACHE/shared", {{"FILES", "shared", 'C'}}));
    }
    for (int run : runs) {
        ASSERT_TRUE(wait_done(run)) << story() << host->log();
        EXPECT_EQ(job(run).return_code, 0) << report(run);
    }
    EXPECT_EQ(questions, 1);
}

TEST_F(resources, a_new_version_waits_for_a_running_job) {
    start("VERSIONS");
    add("shared", "old\n");
    const std::string gate = host->path("gate");
    const int first = submit_with(gate_script(gate), {{"FILES", "shared", 'C'}});
    ASSERT_TRUE(wait_state(first, cp_job_state::running)) << story() << host->log();
    add("shared", "new\n");
    const int second = submit_with("cat $QX_CLIENT_CACHE/shared", {{"FILES", "shared", 'C'}});
    const int third = submit_with("true", {});
    ASSERT_TRUE(wait_done(third)) << story();
    EXPECT_EQ(questions, 1) << "not while the old version is in use";
    EXPECT_EQ(job(second).state, cp_job_state::submitted);
    write_file(gate, "");
    ASSERT_TRUE(wait_done(first) && wait_done(second)) << story() << host->log();
    EXPECT_NE(report(first).find("old\nold\n"), std::string::npos) << report(first);
    EXPECT_NE(report(second).find("new\n"), std::string::npos) << report(second);
    EXPECT_EQ(questions, 2);
}

TEST_F(resources, are_asked_for_again_after_a_lost_line) {
    start("LINEAGENT");
    add("shared", "after all\n");
    hold_back = true;
    const int run = submit_with("cat $QX_CLIENT_CACHE/shared", {{"FILES", "shared", 'C'}});
    ASSERT_TRUE(wait(10000, [&] { return questions == 1; })) << story() << host->log();
    hold_back = false;
    cp_drop_line(server.get(), "LINEAGENT");
    ASSERT_TRUE(wait_done(run, 40000)) << story() << host->log();
    EXPECT_EQ(questions, 2);
    EXPECT_NE(report(run).find("after all\n"), std::string::npos) << report(run);
}

TEST_F(resources, a_job_that_waits_can_be_cancelled) {
    start("CANCELRES");
    add("shared", "x\n");
    hold_back = true;
    const int first = submit_with("true", {{"FILES", "shared", 'C'}});
    const int second = submit_with("cat $QX_CLIENT_CACHE/shared", {{"FILES", "shared", 'C'}});
    ASSERT_TRUE(wait(10000, [&] { return questions == 1; })) << story() << host->log();
    cp_answer answer;
    ASSERT_TRUE(cp_cancel(server.get(), first, [&](const cp_answer& a) { answer = a; }));
    ASSERT_TRUE(wait(10000, [&] { return !answer.status.empty(); })) << story();
    EXPECT_EQ(answer.number, 2001059);
    EXPECT_EQ(answer.status, "OK");
    ASSERT_TRUE(wait(10000, [&] { return job(first).state == cp_job_state::refused; })) << story();
    hold_back = false;
    cp_drop_line(server.get(), "CANCELRES");
    ASSERT_TRUE(wait_done(second, 40000)) << story() << host->log();
    EXPECT_EQ(job(second).return_code, 0);
}

TEST_F(resources, that_cannot_be_written_end_all_who_wait) {
    start("BROKENRES");
    add("shared", "x\n");
    hold_back = true;
    const int first = submit_with("true", {{"FILES", "shared", 'C'}});
    const int second = submit_with("true", {{"FILES", "shared", 'C'}});
    ASSERT_TRUE(wait(10000, [&] { return questions == 1; })) << story() << host->log();
    std::string made;
    ASSERT_EQ(run_program({"/bin/mkdir", "-p", host->path("resources/clients/0100/shared/in/the/way")}, made), 0) << made;
    hold_back = false;
    cp_drop_line(server.get(), "BROKENRES");
    for (int run : {first, second}) {
        ASSERT_TRUE(wait(40000, [&] { return job(run).state == cp_job_state::refused; })) << story() << host->log();
        EXPECT_EQ(job(run).message_number, 2000242);
    }
    const int next = submit("exit 0");
    EXPECT_TRUE(wait_done(next)) << story();
}

TEST_F(resources, that_the_server_lost_end_all_who_wait) {
    start("LOSTRES");
    add("shared", "x\n");
    const cp_store& store = cp_server_store(server.get());
    write_file(store.folder + "/resources/" + store.resources[0].file, "cut");
    const int first = submit_with("true", {{"FILES", "shared", 'C'}});
    const int second = submit_with("true", {{"FILES", "shared", 'C'}});
    for (int run : {first, second}) {
        ASSERT_TRUE(wait(10000, [&] { return job(run).state == cp_job_state::refused; })) << story() << host->log();
    }
}

TEST_F(resources, belong_to_the_jobs_user) {
    if (!is_root()) {
        GTEST_SKIP() << "needs root: jobs of other users";
    }
    const test_user user("qxresuser");
    start("OWNERRES");
    add("own", "x\n");
    const int run = submit_with("stat -c '%U %a' $QX_TASK_CACHE $QX_TASK_CACHE/own", {{"FILES", "own", 'T'}}, user.name);
    ASSERT_TRUE(wait_done(run)) << story() << host->log();
    EXPECT_NE(report(run).find(user.name + " 700\n" + user.name + " 700\n"), std::string::npos) << report(run);
}

}  // namespace
