// Stored resources through the real programs: their way to the job, lost lines, what the server lost.
#include "qxcp/store/resources.h"

#include <sys/stat.h>

#include <csignal>

#include "messages/records_report.h"
#include "messages/view.h"
#include "server_fixture.h"

namespace {

struct resources : server_test {
    std::unique_ptr<installation> host;
    int questions = 0;       // BIN_GET seen
    bool hold_back = false;  // and not answered

    void start(const std::string& name) {
        cp_server_tap(server.get(), [this](cp_agent&, const cp_received& received) {
            const bool question = message_type_is(received.body.data(), received.body.size(), "BIN_GET");
            questions += question ? 1 : 0;
            return question && hold_back;
        });
        host = std::make_unique<installation>(name, port());
        log_on(*host);
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
};

TEST_F(resources, reach_the_job_and_go_with_it) {
    start("RESAGENT");
    add("shared", "for all\n");
    add("own", std::string("\0\r\n\xff", 4));
    add("page", "a\r\nb\r\n", true);
    const int run =
        submit_with("cat $QX_CLIENT_CACHE/shared $QX_CLIENT_CACHE/page; cat $QX_TASK_CACHE/own | od -An -tx1",
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

TEST_F(resources, that_the_server_lost_end_all_who_wait) {
    start("LOSTRES");
    add("shared", "x\n");
    const cp_store& store = cp_server_store(server.get());
    write_file(store.folder + "/resources/" + store.resources[0].file, "cut");
    const int first = submit_with("true", {{"FILES", "shared", 'C'}});
    const int second = submit_with("true", {{"FILES", "shared", 'C'}});
    for (int run : {first, second}) {
        ASSERT_TRUE(wait(10000, [&] { return job(run).state == cp_job_state::refused; }))
            << story() << host->log();
    }
}

TEST_F(resources, belong_to_the_jobs_user) {
    if (!is_root()) {
        GTEST_SKIP() << "needs root: jobs of other users";
    }
    const test_user user("qxresuser");
    start("OWNERRES");
    add("own", "x\n");
    const int run =
        submit_with("stat -c '%U %a' $QX_TASK_CACHE $QX_TASK_CACHE/own", {{"FILES", "own", 'T'}}, user.name);
    ASSERT_TRUE(wait_done(run)) << story() << host->log();
    EXPECT_NE(report(run).find(user.name + " 700\n" + user.name + " 700\n"), std::string::npos)
        << report(run);
}

}  // namespace
