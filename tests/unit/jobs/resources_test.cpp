// Stored resources: who asks, who waits, who shares, and what is left on disk.
#include "resources/resources.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "base/error.h"
#include "base/locks.h"
#include "job_fixture.h"
#include "messages/records_report.h"
#include "messages/timestamp.h"
#include "resources/resource_files.h"

namespace {

constexpr time_t version_1 = 1700000000;
constexpr time_t version_2 = version_1 + 60;

struct row {
    const char* name;
    time_t version;
    char kind = RESOURCE_CLIENT;
    std::string file = {};  // the name unless given
};

struct resource_test : job_test {
    void SetUp() override {
        job_test::SetUp();
        umask(022);
        std::filesystem::create_directory(folder / "cache");
        std::filesystem::permissions(folder.path, std::filesystem::perms(0755));
        copy_text(pcx->pcx_res_dir, folder / "cache");
    }

    std::string client_file(const std::string& name) const { return folder / ("cache/clients/" + name); }
    std::string task_file(int run, const std::string& name) const {
        return folder / ("cache/tasks/" + std::to_string(run) + "/" + name);
    }

    message_bytes with_rows(int run, const std::vector<row>& rows, std::string client_path = {},
                            std::string task_path = {}) {
        auto order = activation_of(run, "echo run\r\n");
        order.begin_table(MSG_TYPE_EXAKTJ::bintab, rows.size());
        for (const row& wanted : rows) {
            MSG_TYPE_BINTAB entry{};
            put_text(entry.object_name, "FILES");
            put_text(entry.resource_name, wanted.name);
            put_text(entry.file_name, wanted.file.empty() ? wanted.name : wanted.file);
            entry.mod_date = timestamp_utc(wanted.version);
            entry.cache_type = wanted.kind;
            order.put_record(entry);
        }
        MSG_TYPE_BINPATHS paths{};
        put_text(paths.client_cache_path, client_path.empty() ? client_file("") : client_path);
        put_text(paths.task_cache_path,
                 task_path.empty() ? folder / ("cache/tasks/" + std::to_string(run)) : task_path);
        order.begin_table(MSG_TYPE_EXAKTJ::binpaths, 1);
        order.put_record(paths);
        return order.bytes();
    }

    int give(const char* name, time_t version, int run, const std::string& content, char type = 'B') {
        message_builder<MSG_TYPE_BIN_DATA> data(client, number);
        put_text(data->name, name);
        put_text(data->object_name, "FILES");
        data->timestamp = timestamp_utc(version);
        data->ah_idnr = run;
        data->file_type = type;
        data.add(MSG_TYPE_BIN_DATA::content, content);
        return receive(take, data);
    }
    static int take(EX_PCX* p, ccm_msg_t* msg, int) { return ProcessBinDataMessage(p, msg); }

    // Types of what was sent, in order.
    std::vector<std::string> sent_types() {
        std::vector<std::string> types;
        for (const sent_message& message : sent()) {
            types.push_back(message.type());
        }
        return types;
    }
    using types = std::vector<std::string>;

    bool runs(int run) const {
        const JP_AREA* job = Find_JEntry(run, client);
        return job != nullptr && job->jobstart == 0;
    }
    bool waits(int run) const {
        const JP_AREA* job = Find_JEntry(run, client);
        return job != nullptr && job->jobstart != 0;
    }
    void end(int run) {
        end_child(Find_JEntry(run, client));
        sent();
    }
    bool lists_are_empty() const {
        const resource_state* context = resource_context();
        return context->requested_resource_list.empty() && context->used_resource_list.empty() &&
               context->waiting_resource_list.empty();
    }
};

mode_t mode_of(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

time_t time_of(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

TEST_F(resource_test, a_job_starts_with_the_last_of_its_resources) {
    activate(with_rows(1, {{"shared", version_1}, {"own", version_1, RESOURCE_TASK}}));
    EXPECT_EQ(sent_types(), (types{"BIN_GET ", "BIN_GET "})) << "and no EXAKTJQU yet";
    EXPECT_EQ(give("shared", version_1, 1, "abc"), 0);
    EXPECT_TRUE(waits(1));
    EXPECT_EQ(sent_types(), types{});
    EXPECT_EQ(give("own", version_1, 1, std::string("\0x", 2)), 0);
    EXPECT_TRUE(runs(1));
    const sent_message started = first_sent();
    EXPECT_EQ(started.type(), "EXAKTJQU");
    EXPECT_EQ(started.body.size(), 260u) << "the restart record goes with the first status";
    EXPECT_EQ(read_text(client_file("shared")), "abc");
    EXPECT_EQ(read_text(task_file(1, "own")), std::string("\0x", 2));
    EXPECT_EQ(mode_of(client_file("shared")), 0777u);
    EXPECT_EQ(mode_of(client_file("")), 01777u);
    EXPECT_EQ(mode_of(task_file(1, "own")), 0700u);
    EXPECT_EQ(mode_of(folder / "cache/tasks/1"), 0700u);
    EXPECT_EQ(mode_of(folder / "cache/tasks"), 01777u);
    end(1);
    EXPECT_TRUE(lists_are_empty());
    EXPECT_EQ(read_text(client_file("shared")), "abc") << "lives on";
    EXPECT_FALSE(std::filesystem::exists(folder / "cache/tasks/1"));
    const std::string report = read_text(report_file(1));
    EXPECT_NE(report.find("2001094"), std::string::npos) << report;
    EXPECT_LT(report.find("2001097"), report.find("run\n")) << "ahead of all output: " << report;
}

TEST_F(resource_test, the_question_says_who_asks_and_where_the_answer_goes) {
    copy_text(pcx->exName, "AGENT1");
    activate(with_rows(7, {{"shared", version_1}}));
    const sent_message asked = first_sent();
    ASSERT_EQ(asked.body.size(), sizeof(MSG_TYPE_BIN_GET));
    auto question = asked.as<MSG_TYPE_BIN_GET>();
    EXPECT_EQ(get_text(question.name), "FILES");
    EXPECT_EQ(get_text(question.subname), "shared");
    EXPECT_EQ(question.ah_idnr, 7);
    EXPECT_EQ(question.header.i2Mandant, client);
    EXPECT_EQ(question.header.i4UsrIdNr, number);
    EXPECT_EQ(std::string(question.header.version, 2), "01");
    EXPECT_STREQ(asked.addr.dst_name, "QXVAREXR");
    EXPECT_STREQ(asked.addr.src_name, "BINDATA ");
    EXPECT_STREQ(asked.addr.src_addr, "AGENT1");
    EXPECT_EQ(SendBinGetMessagesAfterReconnect(pcx), 0);
    const sent_message again = first_sent();
    EXPECT_EQ(std::string(again.as<MSG_TYPE_BIN_GET>().header.version, 2), "04");
    EXPECT_STREQ(again.addr.src_name, "QXEXVAR ");
}

TEST_F(resource_test, jobs_share_one_question_unless_one_wants_a_newer_version) {
    activate(with_rows(1, {{"shared", version_1}}));
    activate(with_rows(2, {{"shared", version_1}}));
    EXPECT_EQ(sent_types(), types{"BIN_GET "});
    activate(with_rows(3, {{"shared", version_2}}));
    EXPECT_EQ(sent_types(), types{"BIN_GET "}) << "for the newer one";
    EXPECT_EQ(give("shared", version_1, 1, "old"), 0);
    EXPECT_TRUE(waits(1) && waits(2) && waits(3)) << "an older version is dropped";
    EXPECT_FALSE(std::filesystem::exists(client_file("shared")));
    EXPECT_EQ(give("shared", version_2, 1, "new"), 0);
    EXPECT_TRUE(runs(1) && runs(2) && runs(3));
    EXPECT_EQ(sent_types().size(), 3u);
    EXPECT_EQ(give("shared", version_2, 1, "again"), 0);
    EXPECT_TRUE(logged(2000245)) << "nobody waits for it any more";
    EXPECT_EQ(read_text(client_file("shared")), "new");
    for (int run : {1, 2, 3}) {
        end(run);
    }
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, what_is_current_on_disk_is_not_asked_for) {
    activate(with_rows(1, {{"shared", version_1}}));
    give("shared", version_1, 1, "abc");
    EXPECT_EQ(time_of(client_file("shared")), version_1);
    end(1);
    activate(with_rows(2, {{"shared", version_1}}));
    EXPECT_EQ(first_sent().type(), "EXAKTJQU");
    end(2);
    const std::string report = read_text(report_file(2));
    EXPECT_EQ(report.find("2001094"), std::string::npos) << "nothing was fetched";
    EXPECT_NE(report.find("2001096"), std::string::npos);
}

TEST_F(resource_test, a_fifo_with_the_right_time_is_no_resource) {
    activate(with_rows(1, {{"shared", version_1}}));
    give("shared", version_1, 1, "abc");
    end(1);
    std::filesystem::remove(client_file("shared"));
    ASSERT_EQ(mkfifo(client_file("shared").c_str(), 0666), 0);
    const timespec times[2] = {{version_1, 0}, {version_1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, client_file("shared").c_str(), times, 0), 0);
    activate(with_rows(2, {{"shared", version_1}}));
    EXPECT_EQ(first_sent().type(), "BIN_GET ");
    EXPECT_EQ(give("shared", version_1, 2, "abc"), -1);
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2000242) << "a job that reads it would wait for ever";
}

TEST_F(resource_test, a_new_version_waits_for_those_who_use_the_old_one) {
    activate(with_rows(1, {{"shared", version_1}}));
    give("shared", version_1, 1, "old");
    activate(with_rows(2, {{"shared", version_2}}));
    sent();
    EXPECT_TRUE(waits(2));
    activate(with_rows(3, {{"shared", version_2}}));
    EXPECT_EQ(sent_types(), types{}) << "not while job 1 runs with the old one";
    EXPECT_EQ(read_text(client_file("shared")), "old");
    end_child(Find_JEntry(1, client));
    EXPECT_EQ(sent_types(), (types{"EXSTAJ  ", "BIN_GET "}));
    give("shared", version_2, 2, "new");
    EXPECT_TRUE(logged(2000240));
    EXPECT_TRUE(runs(2) && runs(3));
    EXPECT_EQ(read_text(client_file("shared")), "new");
    end(2);
    end(3);
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, jobs_share_a_file_however_its_path_is_spelt) {
    activate(with_rows(1, {{"shared", version_1}}));
    activate(with_rows(2, {{"shared", version_1, RESOURCE_CLIENT, "./shared"}}, folder / "cache//clients//"));
    EXPECT_EQ(sent_types(), types{"BIN_GET "});
    give("shared", version_1, 1, "abc");
    EXPECT_TRUE(runs(1) && runs(2));
    end(1);
    end(2);
}

TEST_F(resource_test, an_order_that_names_two_versions_does_not_wait_for_itself) {
    activate(with_rows(1, {{"shared", version_1}}));
    give("shared", version_1, 1, "old");
    end(1);
    activate(with_rows(2, {{"shared", version_1}, {"shared", version_2}}));
    EXPECT_EQ(sent_types(), types{"BIN_GET "});
    give("shared", version_2, 2, "new");
    EXPECT_TRUE(runs(2));
    end(2);
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, content_that_did_not_come_whole_is_not_stored) {
    activate(with_rows(1, {{"shared", version_1}}));
    sent();
    auto record = new_message<MSG_TYPE_BIN_DATA>(client, number);
    put_text(record.name, "shared");
    put_text(record.object_name, "FILES");
    record.timestamp = timestamp_utc(version_1);
    record.ah_idnr = 1;
    record.content_len = 100;
    EXPECT_EQ(receive(take, record), -1);
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2000242);
    EXPECT_FALSE(std::filesystem::exists(client_file("shared"))) << "it would count as current";
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, what_a_waiting_job_has_already_goes_with_the_agent) {
    activate(with_rows(1, {{"shared", version_1}, {"own", version_1, RESOURCE_TASK}}));
    give("own", version_1, 1, "x");
    EXPECT_TRUE(std::filesystem::exists(task_file(1, "own")));
    JP_Close(pcx);
    EXPECT_FALSE(std::filesystem::exists(folder / "cache/tasks/1"));
}

TEST_F(resource_test, a_waiting_version_goes_with_the_last_who_wants_it) {
    activate(with_rows(1, {{"shared", version_1}}));
    give("shared", version_1, 1, "old");
    activate(with_rows(2, {{"shared", version_2}}));
    cancel(2);
    sent();
    end_child(Find_JEntry(1, client));
    EXPECT_EQ(sent_types(), types{"EXSTAJ  "});
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, a_cancelled_job_leaves_the_question_to_the_others) {
    activate(with_rows(1, {{"shared", version_1}, {"own", version_1, RESOURCE_TASK}}));
    activate(with_rows(2, {{"shared", version_1}}));
    give("own", version_1, 1, "x");
    sent();
    cancel(1);
    EXPECT_EQ(Find_JEntry(1, client), nullptr);
    EXPECT_FALSE(std::filesystem::exists(folder / "cache/tasks/1"));
    const auto answers = sent();
    ASSERT_EQ(answers.size(), 2u) << "the order, and the activation that was never answered";
    EXPECT_EQ(answers[1].as<MSG_TYPE_QUITT>().msgnr, 2001059);
    EXPECT_EQ(resource_context()->requested_resource_list.front().ah_idnr, 2);
    EXPECT_EQ(give("shared", version_1, 1, "abc"), 0) << "the answer names the job that asked first";
    EXPECT_TRUE(runs(2));
    end(2);
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, a_resource_that_cannot_be_written_cancels_all_who_wait) {
    activate(with_rows(1, {{"shared", version_1}, {"other", version_1}}));
    activate(with_rows(2, {{"shared", version_1}}));
    activate(with_rows(3, {{"other", version_1}}));
    sent();
    std::filesystem::create_directories(client_file("shared/inside"));
    EXPECT_EQ(give("shared", version_1, 1, "abc"), -1);
    EXPECT_EQ(Find_JEntry(1, client), nullptr);
    EXPECT_EQ(Find_JEntry(2, client), nullptr);
    EXPECT_TRUE(waits(3)) << "waits for something else";
    const auto answers = sent();
    ASSERT_EQ(answers.size(), 2u);
    for (const sent_message& answer : answers) {
        EXPECT_EQ(answer.as<MSG_TYPE_QUITT>().msgnr, 2000242);
        EXPECT_EQ(std::string(answer.as<MSG_TYPE_QUITT>().quitt, 2), "NK");
    }
    EXPECT_EQ(give("other", version_1, 1, "abc"), 0);
    EXPECT_TRUE(runs(3));
    end(3);
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, texts_lose_their_carriage_returns_and_go_through_the_jobs_code_table) {
    struct text_case {
        const char* sent;
        size_t length;
        const char* kept;
    };
    constexpr text_case cases[] = {
        {"a\r\nb\r\n", 6, "a\nb\n"}, {"a\rb", 3, "a\rb"}, {"a\r\r\n", 4, "a\r\n"},
        {"a\r", 2, "a\r"},           {"ab\0cd", 5, "ab"}, {"", 0, ""},
    };
    int run = 10;
    for (const text_case& text : cases) {
        ++run;
        activate(with_rows(run, {{"own", version_1, RESOURCE_TASK}}));
        Find_JEntry(run, client)->cCodeTab[static_cast<unsigned char>('x')] = 'y';
        EXPECT_EQ(give("own", version_1, run, std::string(text.sent, text.length), 'T'), 0);
        EXPECT_EQ(read_text(task_file(run, "own")), text.kept);
        EXPECT_EQ(time_of(task_file(run, "own")), version_1);
        end(run);
    }
    activate(with_rows(99, {{"own", version_1, RESOURCE_TASK}}));
    Find_JEntry(99, client)->cCodeTab[static_cast<unsigned char>('x')] = 'y';
    give("own", version_1, 99, "xxx", 'T');
    EXPECT_EQ(read_text(task_file(99, "own")), "yyy");
    end(99);
}

TEST_F(resource_test, places_outside_the_cache_are_refused) {
    struct place_case {
        const char* what;
        row wanted;
        std::string client_path, task_path;
        int number;
    };
    const place_case cases[] = {
        {"path elsewhere", {"a", version_1}, "/etc", {}, 2000241},
        {"path that climbs", {"a", version_1}, folder / "cache/../etc", {}, 2000241},
        {"the cache folder's neighbour", {"a", version_1}, folder / "cache2/", {}, 2000241},
        {"task path elsewhere", {"a", version_1, RESOURCE_TASK}, {}, "/root/x", 2000241},
        {"absolute name", {"a", version_1, RESOURCE_CLIENT, "/etc/passwd"}, {}, {}, 2000242},
        {"name that climbs", {"a", version_1, RESOURCE_CLIENT, "x/../../y"}, {}, {}, 2000242},
        {"name that is only dots", {"a", version_1, RESOURCE_TASK, ".."}, {}, {}, 2000242},
        {"no name", {"a", version_1, RESOURCE_CLIENT, " "}, {}, {}, 2000242},
        {"the folder itself", {"a", version_1, RESOURCE_CLIENT, "./."}, {}, {}, 2000242},
        {"unknown kind", {"a", version_1, 'X'}, {}, {}, 2000244},
    };
    for (const place_case& place : cases) {
        activate(with_rows(5, {place.wanted}, place.client_path, place.task_path));
        EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, place.number) << place.what;
        EXPECT_EQ(Find_JEntry(5, client), nullptr) << place.what;
        EXPECT_TRUE(lists_are_empty()) << place.what;
    }
}

TEST_F(resource_test, a_refused_row_takes_back_what_stood_before_it) {
    activate(with_rows(1, {{"a", version_1}, {"b", version_1, RESOURCE_CLIENT, "/b"}}));
    EXPECT_EQ(sent_types(), (types{"BIN_GET ", "QUITT   "}));
    EXPECT_TRUE(lists_are_empty());
    message_bytes cut = with_rows(2, {{"a", version_1}});
    MSG_TYPE_EXAKTJ record;
    memcpy(&record, cut.data(), sizeof record);
    record.bintab_entries = 1000;
    memcpy(cut.data(), &record, sizeof record);
    activate(cut);
    EXPECT_EQ(Find_JEntry(2, client), nullptr) << "a table that ends early";
    EXPECT_TRUE(lists_are_empty());
}

TEST_F(resource_test, a_directory_with_a_strangers_file_stays) {
    activate(with_rows(1, {{"sub/own", version_1, RESOURCE_TASK}}));
    give("sub/own", version_1, 1, "x");
    write_text(task_file(1, "left"), "by the job");
    end(1);
    EXPECT_FALSE(logged(2000248));
    EXPECT_TRUE(std::filesystem::exists(task_file(1, "left")));
    EXPECT_FALSE(std::filesystem::exists(task_file(1, "sub")));
}

TEST_F(resource_test, a_directory_that_somebody_else_made_is_refused) {
    std::filesystem::create_directories(folder / "cache/tasks/1");
    chmod((folder / "cache/tasks/1").c_str(), 0777);
    activate(with_rows(1, {{"own", version_1, RESOURCE_TASK}}));
    sent();
    EXPECT_EQ(give("own", version_1, 1, "x"), -1);
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2000247);
    std::filesystem::create_directory_symlink("/tmp", folder / "cache/tasks/2");
    activate(with_rows(2, {{"own", version_1, RESOURCE_TASK}}));
    sent();
    EXPECT_EQ(give("own", version_1, 2, "x"), -1);
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2000247);
    if (!runs_as_root()) {
        return;
    }
    // Where everybody may make names, what stands in the way is moved away.
    ASSERT_EQ(mkdir((folder / "cache/tasks/4").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((folder / "cache/tasks/5").c_str(), 0600), 0);
    write_text(folder / "cache/tasks/6", "file");
    chmod((folder / "cache/tasks").c_str(), 01777);
    for (const int run : {4, 5, 6}) {
        ASSERT_EQ(chown((folder / "cache/tasks/" + std::to_string(run)).c_str(), 12345, 12345), 0);
        activate(with_rows(run, {{"own", version_1, RESOURCE_TASK}}));
        sent();
        EXPECT_EQ(give("own", version_1, run, "x"), 0) << run;
        EXPECT_EQ(read_text(task_file(run, "own")), "x") << run;
    }
    std::filesystem::create_directories(folder / "cache/tasks/3");
    ASSERT_EQ(chown((folder / "cache/tasks").c_str(), 12345, 12345), 0);
    activate(with_rows(3, {{"own", version_1, RESOURCE_TASK}}));
    sent();
    EXPECT_EQ(give("own", version_1, 3, "x"), -1) << "whose owner can put another one in its place";
    EXPECT_EQ(first_sent().as<MSG_TYPE_QUITT>().msgnr, 2000247);
    chmod((folder / "cache").c_str(), 01777);
    activate(with_rows(7, {{"own", version_1, RESOURCE_TASK}}));
    sent();
    EXPECT_EQ(give("own", version_1, 7, "x"), 0) << "a folder on the way is moved as well";
}

TEST_F(resource_test, files_belong_to_the_jobs_user_and_under_hardened_to_the_agent) {
    if (!runs_as_root()) {
        return;
    }
    const made_user first("qxresa");
    const made_user second("qxresb");
    ASSERT_TRUE(first.made && second.made);
    open_with("[USERID]\nroot=START\n");
    const auto owner = [](const std::string& path) {
        struct stat status;
        return lstat(path.c_str(), &status) == 0 ? status.st_uid : static_cast<uid_t>(-1);
    };
    user = first.name;
    chmod((folder / "out").c_str(), 0777);
    activate(
        with_rows(1, {{"shared", version_1}, {"sub/deep", version_1}, {"own", version_1, RESOURCE_TASK}}));
    give("shared", version_1, 1, "1");
    give("sub/deep", version_1, 1, "1");
    give("own", version_1, 1, "1");
    EXPECT_EQ(mode_of(client_file("sub")), 01777u);
    EXPECT_EQ(owner(client_file("shared")), first.uid);
    EXPECT_EQ(owner(task_file(1, "own")), first.uid);
    end(1);
    EXPECT_FALSE(std::filesystem::exists(folder / "cache/tasks/1"));
    user = second.name;
    activate(with_rows(2, {{"shared", version_2}, {"sub/deep", version_2}}));
    give("shared", version_2, 2, "2");
    give("sub/deep", version_2, 2, "2");
    EXPECT_EQ(read_text(client_file("sub/deep")), "2");
    EXPECT_EQ(read_text(client_file("shared")), "2") << "another user's job replaces it all the same";
    EXPECT_EQ(owner(client_file("shared")), second.uid);
    end(2);

    pcx->pcx_hardened = 1;
    activate(with_rows(3, {{"shared", version_2}}));
    EXPECT_EQ(first_sent().type(), "BIN_GET ") << "what a user could have written is not trusted";
    give("shared", version_2, 3, "3");
    EXPECT_EQ(owner(client_file("shared")), 0u);
    EXPECT_EQ(mode_of(client_file("shared")), 0755u);
    end(3);
    ASSERT_EQ(chown(client_file("shared").c_str(), first.uid, 0), 0);
    activate(with_rows(5, {{"shared", -1}}));
    EXPECT_EQ(first_sent().type(), "BIN_GET ") << "whatever the server's time is";
    cancel(5);
    sent();
    activate(with_rows(4, {{"fresh", version_1}}, folder / "cache/closed"));
    give("fresh", version_1, 4, "4");
    EXPECT_EQ(mode_of(folder / "cache/closed"), 0755u);
    end(4);
    pcx->pcx_hardened = 0;
}

TEST_F(resource_test, the_report_begins_with_what_the_job_got) {
    JP_AREA* job = bare_job(77);
    resource_item fetched;
    fetched.object_name = "OBJ";
    fetched.resource_name = "res";
    fetched.file_path = "/cache/res";
    fetched.usage_type = RESOURCE_NEW;
    job->jp_used_task_resource_list = {fetched, fetched};
    job->jp_used_task_resource_list.back().usage_type = RESOURCE_EXISTED;
    const std::string lines = job_report_head(job);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 3) << lines;
    EXPECT_NE(lines.find("2001095"), std::string::npos);
    EXPECT_NE(lines.find("77|100:OBJ/res|/cache/res\n"), std::string::npos)
        << "without a library the inserts stand alone";
}

TEST_F(resource_test, other_messages_are_not_taken) {
    const message_bytes body = activation(1, "x");
    EXPECT_EQ(receive(take, built_message(body)), 2);
    EXPECT_EQ(receive(take, built_message("BIN_DATA")), 0);
    EXPECT_TRUE(logged(2000245));
}

TEST(resource_list, jobs_of_two_clients_may_have_one_number) {
    std::vector<key_entry> entries = {{1, 7, 100}, {2, 7, 200}};
    EXPECT_TRUE(RemoveEntryFromList(&entries, 7, 200));
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].client, 100);
    resource_list items(1);
    items.front().object_name = "FILES";
    items.front().resource_name = "own";
    items.front().ah_idnr = 7;
    items.front().client = 100;
    EXPECT_EQ(FindResourceInList(&items, "FILES", "own", 200, 7), nullptr);
    EXPECT_EQ(FindResourceInList(&items, "FILES", "own", 100, 7), &items.front());
}

}  // namespace
