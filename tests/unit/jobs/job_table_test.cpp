#include <climits>

#include "job_fixture.h"

TEST_F(job_test, the_table_is_sorted_by_run_number_and_client_and_walked_by_key) {
    Create_JEntry(20, 1);
    Create_JEntry(10, 65535);
    Create_JEntry(10, 2);
    Create_JEntry(-5, 1);
    std::string order;
    for (JP_AREA* job = Next_JEntry(INT_MIN, 0); job != nullptr;) {
        const int run = job->JP_jobNr;
        const uint16_t of = job->JP_Mandant;
        order += std::to_string(run) + "/" + std::to_string(of) + " ";
        Erase_JEntry(run, of);  // a walk survives that
        job = Next_JEntry(run, of);
    }
    EXPECT_EQ(order, "-5/1 10/2 10/65535 20/1 ");
    EXPECT_EQ(jpGetJobCount(), 0);
    EXPECT_EQ(Erase_JEntry(10, 2), -1);
}

TEST_F(job_test, the_index_on_process_ids_follows_every_change) {
    JP_AREA* a = bare_job(1);
    JP_AREA* b = bare_job(2);
    job_table_set_pid(a, 4000);
    job_table_set_pid(b, 4000);
    EXPECT_EQ(job_table_find_pid(4000, a), b);
    job_table_set_pid(b, 4001);
    EXPECT_EQ(job_table_find_pid(4000, a), nullptr);
    EXPECT_EQ(job_table_find_child(4001), b);
    b->JP_flag |= job_flag_end_taken;
    EXPECT_EQ(job_table_find_child(4001), nullptr) << "an end is taken once";
    a->JP_flag &= ~job_flag_own_child;
    EXPECT_EQ(job_table_find_child(4000), nullptr) << "a rebuilt entry has no SIGCHLD";
    Erase_JEntry(1, client);
    int run = 0;
    uint16_t of = 0;
    EXPECT_FALSE(CheckPidJEntry(&run, &of, 4000));
    EXPECT_TRUE(CheckPidJEntry(&run, &of, 4001));
    EXPECT_EQ(run, 2);
    EXPECT_EQ(job_table_find_pid(0), nullptr);
}

// ---- The restart record ----

TEST_F(job_test, a_restart_record_says_the_same_after_its_journey) {
    JP_AREA* job = bare_job(1);
    const living_process alive;
    job_table_set_pid(job, static_cast<uint32_t>(alive.pid));
    job_set_text(job->JP_jFile, std::string(255, 'f'));
    job_set_text(job->JP_jReport, "/out/report");
    job->jp_task_cache_path = std::string(513, 'c');  // fills its field: no terminator
    for (const char* name : {"/cache/one", "/cache/two"}) {
        resource_item item;
        item.file_path = name;
        job->jp_used_task_resource_list.push_back(item);
    }
    const message_bytes bytes = CreateJobRstrtInfo(job, user.c_str(), true, true);
    ASSERT_EQ(bytes.size(), 1336u + 11 + 11);
    EXPECT_TRUE(CreateJobRstrtInfo(job, user.c_str(), true, true).empty()) << "it goes out once";

    procArea_t self;
    ASSERT_TRUE(GetLinuxProcEntry(alive.pid, &self));
    job_record record;
    ASSERT_TRUE(job_record_read(bytes.data(), bytes.size(), &record));
    EXPECT_EQ(record.jStart, self.pa_start);
    EXPECT_EQ(record.pgid, alive.pid);
    EXPECT_EQ(record.jFile, std::string(255, 'f'));
    EXPECT_EQ(record.jReport, "/out/report");
    EXPECT_EQ(record.oName, "JOBS.BARE");
    EXPECT_EQ(record.task_cache_path, std::string(513, 'c'));
    EXPECT_EQ(record.userName, user);
    EXPECT_EQ(record.resNames, (std::vector<std::string>{"/cache/one", "/cache/two"}));

    // Cut anywhere it yields less, and nothing from outside; the copy lets a sanitizer watch the bounds.
    for (size_t length = 0; length <= bytes.size(); ++length) {
        const message_bytes cut(bytes.begin(), bytes.begin() + static_cast<long>(length));
        job_record part;
        EXPECT_EQ(job_record_read(cut.data(), cut.size(), &part), length >= 780) << length;
        if (length <= 1332) {
            EXPECT_EQ(part.userName, "")
                << "what stands behind the file names counts in a longer record only";
        }
    }
    message_bytes lying = bytes;
    memset(lying.data() + 1328, 0x7f, 4);
    job_record liar;
    EXPECT_TRUE(job_record_read(lying.data(), lying.size(), &liar));
    EXPECT_LE(liar.resNames.size(), 6u);
}

TEST_F(job_test, a_restart_record_counts_as_sent_only_with_a_server_connection) {
    JP_AREA* job = bare_job(1);
    EXPECT_FALSE(CreateJobRstrtInfo(job, "", false, true).empty());
    EXPECT_FALSE(CreateJobRstrtInfo(job, "", true, true).empty());
    EXPECT_TRUE(CreateJobRstrtInfo(job, "", true, true).empty());
}
