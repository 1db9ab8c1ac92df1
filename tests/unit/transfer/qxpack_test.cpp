// The command: what it writes for files at the edges, and that wrong input leaves one line and no file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "compress_support.h"

namespace {

class Command : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qxpackXXXXXX";
        folder_ = mkdtemp(pattern);
    }
    void TearDown() override { EXPECT_EQ(shell("rm -r '" + folder_ + "'"), 0); }
    int shell(const std::string& line) const {
        const int status = system(line.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // In the folder; standard error goes to the file "said".
    int qxpack(const std::string& arguments) const {
        return shell("cd '" + folder_ + "' && '" QX_PACK_PROGRAM "' " + arguments + " 2>said");
    }
    std::string read(const std::string& name) const {
        std::ifstream file(folder_ + "/" + name, std::ios::binary);
        std::stringstream all;
        all << file.rdbuf();
        return all.str();
    }
    void write(const std::string& name, const std::string& content) const {
        std::ofstream(folder_ + "/" + name, std::ios::binary) << content;
    }
    bool exists(const std::string& name) const { return access((folder_ + "/" + name).c_str(), F_OK) == 0; }

    std::string folder_;
};

TEST_F(Command, SizeOfNothingIsKnown) {
    write("empty", "");
    ASSERT_EQ(qxpack("c --id 9 --store-size empty"), 0);
    EXPECT_EQ(toHex(read("empty.qxp")),
              "02090000000000000000"
              "09a2");
    ASSERT_EQ(qxpack("d -f empty.qxp"), 0);
    EXPECT_EQ(read("empty"), "");
    EXPECT_EQ(qxpack("c --id 9 <empty >piped"), 0);
    EXPECT_EQ(toHex(read("piped")), "000909a2");
    // A file of the kernel tells the size 0 and is not empty.
    ASSERT_EQ(qxpack("c --store-size -o version.qxp /proc/version"), 0);
    EXPECT_EQ(qxpack("d version.qxp"), 0);
    EXPECT_EQ(shell("cat /proc/version | cmp -s - '" + folder_ + "/version'"), 0);
}

TEST_F(Command, WrongInputLeavesOneLineAndNoFile) {
    const char* const wrong[] = {
        "",           "00",
        "0204",       "020902000000000000",
        "0009",       "000509ffffffffffffffffffffffffffffffffffffffff",
        "0005",       "000b",
        "007f",       "027f0400",
        "0001",       "000170111000",
        "0100020061",
    };
    for (const char* hex : wrong) {
        SCOPED_TRACE(hex);
        write("x.qxp", fromHex(hex));
        const bool whole = std::string(hex) == "0001" || std::string(hex) == "000170111000";
        EXPECT_EQ(qxpack("d -f x.qxp"), whole ? 0 : 1);
        EXPECT_EQ(exists("x"), whole);
        const std::string said = read("said");
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), whole ? 0 : 1) << said;
        EXPECT_EQ(qxpack("-t x.qxp >/dev/null"), whole ? 0 : 1);
        unlink((folder_ + "/x").c_str());
    }
    EXPECT_EQ(shell("test \"$(ls '" + folder_ + "')\" = \"$(printf 'said\\nx.qxp')\""), 0)
        << "files are left";
}

}  // namespace
