#include "base/folder_walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <set>

#include "base/descriptor.h"
#include "base/time.h"
#include "scratch.h"

namespace {

struct folder_walk : ::testing::Test {
    scratch folder;
    qx_descriptor base;
    std::set<std::string> files, folders, failed;
    std::function<int(const std::string&)> on_entry;
    _My_Area area;

    static int take(_My_Area* area, const std::string& name, const walk_entry& entry,
                    folder_walk_event event) {
        auto* const self = static_cast<folder_walk*>(area->my_struct);
        if (event == WALK_FOLDER_FAILED) {
            self->failed.insert(name);
        } else if (event == WALK_ENTRY) {
            (entry.kind == FILE_KIND_DIRECTORY ? self->folders : self->files).insert(name);
            return self->on_entry ? self->on_entry(name) : 0;
        }
        return 0;
    }

    int walk(qx7_error* error = nullptr) {
        files = folders = failed = {};
        area.depth_met = area.files_met = area.deadline_met = false;
        area.files = area.folders = 0;
        area.my_struct = this;
        area.path = "p/";
        base.reset(open(folder.path.c_str(), O_PATH | O_CLOEXEC));
        area.folder = base.get();
        qx7_error ignored;
        return tq_FileHandler(&area, take, error == nullptr ? &ignored : error);
    }

    void make_tree() {
        std::filesystem::create_directories(folder / "a/b/c");
        for (const char* name : {"1.txt", "2.bin", "a/3.txt", "a/b/4.txt", "a/b/c/5.txt"}) {
            folder.write(name, name);
        }
        ASSERT_EQ(symlink("a", (folder / "link").c_str()), 0);
    }
};

using names = std::set<std::string>;

TEST_F(folder_walk, tells_what_mask_depth_and_count_allow) {
    make_tree();
    area.mask = "*.txt";
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(files, names{"p/1.txt"});
    EXPECT_EQ(folders, names{"p/a"});
    area.recursion = true;
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(files, (names{"p/1.txt", "p/a/3.txt", "p/a/b/4.txt", "p/a/b/c/5.txt"}));
    EXPECT_EQ(folders, (names{"p/a", "p/a/b", "p/a/b/c"}));
    EXPECT_FALSE(area.depth_met || area.files_met);
    area.max_depth = 1;
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(files, (names{"p/1.txt", "p/a/3.txt"}));
    EXPECT_TRUE(area.depth_met);
    area.max_depth = 0;
    area.max_files = 4;
    EXPECT_EQ(walk(), 0);
    EXPECT_FALSE(area.files_met);
    area.max_files = 3;
    EXPECT_EQ(walk(), 0);
    EXPECT_TRUE(area.files_met);
    EXPECT_EQ(files.size(), 3U);
}

TEST_F(folder_walk, ends_at_its_time_and_when_it_is_told_to) {
    for (int i = 0; i < 600; ++i) {
        folder.write(std::to_string(i), "");
    }
    area.deadline_ms = alarm_now_ms() - 1;
    EXPECT_EQ(walk(), 0);
    EXPECT_TRUE(area.deadline_met);
    EXPECT_LT(files.size(), 600U);
    area.deadline_ms = 0;
    on_entry = [](const std::string&) { return 7; };
    EXPECT_EQ(walk(), 1);
    EXPECT_EQ(files.size(), 1U);
}

TEST_F(folder_walk, needs_few_descriptors_for_a_deep_tree) {
    std::string deep;
    for (int i = 0; i < 200; ++i) {
        deep += "d/";
    }
    std::filesystem::create_directories(folder / deep);
    folder.write(deep + "file", "");
    rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    const int used = dup(0);
    close(used);
    const rlimit few = {static_cast<rlim_t>(used) + 8, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    area.recursion = true;
    EXPECT_EQ(walk(), 0);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(files, names{"p/" + deep + "file"});
    EXPECT_TRUE(failed.empty());
}

TEST_F(folder_walk, folder_that_changes_leads_nowhere_else) {
    make_tree();
    std::filesystem::create_directories(folder / "secret/b");
    folder.write("secret/b/hidden", "");
    area.recursion = true;
    on_entry = [&](const std::string& name) {
        if (name == "p/a/b") {
            std::filesystem::rename(folder / "a", folder / "was");
            EXPECT_EQ(symlink("secret", (folder / "a").c_str()), 0);
        }
        return 0;
    };
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(files.count("p/a/b/hidden"), 0U);
    EXPECT_TRUE(failed.empty());
}

TEST_F(folder_walk, folder_that_cannot_be_read_is_told_and_the_first_one_is_an_error) {
    make_tree();
    area.recursion = true;
    if (geteuid() != 0) {
        ASSERT_EQ(chmod((folder / "a/b").c_str(), 0), 0);
        EXPECT_EQ(walk(), 0);
        EXPECT_EQ(failed, names{"p/a/b"});
        EXPECT_EQ(files.count("p/a/3.txt"), 1U);
        chmod((folder / "a/b").c_str(), 0700);
    }
    std::filesystem::remove_all(folder.path);
    std::ofstream(folder.path) << "";
    qx7_error error;
    EXPECT_EQ(walk(&error), -1);
    EXPECT_STREQ(error.qx_msgInsert, "DirOpen()|p/|20|Not a directory|");
    unlink(folder.path.c_str());
}

}  // namespace
