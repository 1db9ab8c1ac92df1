// What the daily clearing of the rollback folder takes away, and what it must leave.
#include "agent/rollback_folder.h"

#include <gtest/gtest.h>

#include "base/time.h"
#include "own_context.h"

namespace {

namespace fs = std::filesystem;

struct rollback_test : ::testing::Test {
    own_context context;
    own_folder folder;

    std::string put(const std::string& name) {
        const std::string path = folder / name;
        fs::create_directories(fs::path(path).parent_path());
        write_text(path, "x");
        return path;
    }
};

TEST_F(rollback_test, only_days_up_to_the_due_date_go) {
    put("one/20260101/part/file");
    put("one/20260101/part/other");
    put("one/20260102/part/file");
    put("one/20260103/part/file");
    put("two/2026/part/file");  // sorts before
    put("two/latest/part/file");
    put("two/20260101.txt");
    put("stray");
    qx7_error error;
    EXPECT_EQ(rb_expiredDirsCheck(folder.path.c_str(), "20260102", &error), 4);
    EXPECT_FALSE(fs::exists(folder / "one/20260101"));
    EXPECT_FALSE(fs::exists(folder / "one/20260102"));
    EXPECT_FALSE(fs::exists(folder / "two/2026"));
    for (const char* kept : {"one/20260103/part/file", "two/latest/part/file", "two/20260101.txt", "stray"}) {
        EXPECT_TRUE(fs::exists(folder / kept)) << kept;
    }
    EXPECT_EQ(rb_expiredDirsCheck((folder / "none").c_str(), "20260102", &error), -1);
    EXPECT_EQ(error.qx_msgnr, 2003041);
}

TEST_F(rollback_test, links_are_not_followed_and_failures_are_passed_over) {
    put("outside/20250101/part/file");
    put("rb/one/20260101/part/file");
    put("rb/one/20260101/file at a place for directories");
    put("rb/one/20260102/part/deep/file");
    put("rb/one/20260103/part/file");
    fs::create_directory_symlink(folder / "outside", folder / "rb/link");
    fs::create_directory_symlink(folder / "outside/20250101", folder / "rb/one/20250101");
    qx7_error error;
    EXPECT_EQ(rb_expiredDirsCheck((folder / "rb").c_str(), "20260103", &error), 1);
    EXPECT_TRUE(fs::exists(folder / "outside/20250101/part/file"));
    EXPECT_FALSE(fs::exists(folder / "rb/one/20260103"));
    EXPECT_TRUE(fs::exists(folder / "rb/one/20260101/file at a place for directories"));
    EXPECT_EQ(rb_expiredDirsRemove((folder / "rb/one/20260102").c_str(), &error), -1);
    EXPECT_NE(std::string(error.qx_msgInsert).find("|"), std::string::npos);
}

TEST_F(rollback_test, runs_once_a_day_and_not_without_a_life) {
    EX_PCX* pcx = context.pcx.get();
    copy_text(pcx->pcx_rb_dir, folder.path);
    put("one/20200101/part/file");
    const time_t now = time(nullptr);
    rb_maintenance(pcx, now);
    EXPECT_EQ(pcx->rb_cleanup_time, 0) << "a life of 0 is off";
    pcx->pcx_rb_life = 1;
    rb_maintenance(pcx, now);
    EXPECT_GT(pcx->rb_cleanup_time, now);
    EXPECT_LE(pcx->rb_cleanup_time, now + 90000);
    EXPECT_TRUE(fs::exists(folder / "one/20200101")) << "not before its time";
    rb_maintenance(pcx, pcx->rb_cleanup_time);
    EXPECT_FALSE(fs::exists(folder / "one/20200101"));
    EXPECT_GT(pcx->rb_cleanup_time, now);
    put("one/20200101/part/file");
    rb_maintenance(pcx, now + 60);
    EXPECT_TRUE(fs::exists(folder / "one/20200101"));
    // The longest life that a server can tell: more seconds than an int holds must not become a life of none.
    char today[16];
    tm parts{};
    localtime_r(&now, &parts);
    strftime(today, sizeof today, "%Y%m%d", &parts);
    put(std::string("one/") + today + "/part/file");
    pcx->pcx_rb_life = 32767;
    rb_maintenance(pcx, pcx->rb_cleanup_time);
    EXPECT_TRUE(fs::exists(folder / (std::string("one/") + today)));
}

}  // namespace
