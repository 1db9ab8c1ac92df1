// The command: what it writes for files at the edges, and that wrong input leaves one line and no file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "compress_support.h"
#include "scratch.h"

namespace {

class Command : public testing::Test {
  protected:
    static int shell(const std::string& line) {
        const int status = system(line.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // In the folder; standard error goes to the file "said".
    int qxpack(const std::string& arguments) const {
        return shell("cd '" + dir_.path + "' && '" QX_PACK_PROGRAM "' " + arguments + " 2>said");
    }

    scratch dir_;
};

TEST_F(Command, SizeOfNothingIsKnown) {
    dir_.write("empty", "");
    ASSERT_EQ(qxpack("c --id 9 --store-size empty"), 0);
    EXPECT_EQ(toHex(dir_.read("empty.qxp")),
              "02090000000000000000"
              "09a2");
    ASSERT_EQ(qxpack("d -f empty.qxp"), 0);
    EXPECT_EQ(dir_.read("empty"), "");
    EXPECT_EQ(qxpack("c --id 9 <empty >piped"), 0);
    EXPECT_EQ(toHex(dir_.read("piped")), "000909a2");
    // A file of the kernel tells the size 0 and is not empty.
    ASSERT_EQ(qxpack("c --store-size -o version.qxp /proc/version"), 0);
    EXPECT_EQ(qxpack("d version.qxp"), 0);
    EXPECT_EQ(shell("cat /proc/version | cmp -s - '" + dir_.path + "/version'"), 0);
}

TEST_F(Command, TellsItsVersion) {
    ASSERT_EQ(qxpack("--version >told"), 0);
    EXPECT_EQ(dir_.read("told"), "qxpack 12.2.0+build.2108\n");
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
        dir_.write("x.qxp", fromHex(hex));
        const bool whole = std::string(hex) == "0001" || std::string(hex) == "000170111000";
        EXPECT_EQ(qxpack("d -f x.qxp"), whole ? 0 : 1);
        EXPECT_EQ(dir_.exists("x"), whole);
        const std::string said = dir_.read("said");
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), whole ? 0 : 1) << said;
        EXPECT_EQ(qxpack("-t x.qxp >/dev/null"), whole ? 0 : 1);
        unlink(dir_.at("x").c_str());
    }
    EXPECT_EQ(shell("test \"$(ls '" + dir_.path + "')\" = \"$(printf 'said\\nx.qxp')\""), 0)
        << "files are left";
}

}  // namespace
