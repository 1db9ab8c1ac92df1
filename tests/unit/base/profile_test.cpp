#include "base/profile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "scratch.h"

namespace {

std::string value_of(const std::string& file, const char* section, const char* key,
                     const char* preset = "none") {
    return GetProfileString(file.c_str(), section, key, preset);
}

struct ProfileTest : ::testing::Test {
    scratch dir;
};

}  // namespace

TEST_F(ProfileTest, ValuesAreReadAsTheyStand) {
    const std::string file = dir.write("ini",
                                       "key=outside\n"
                                       "  ; comment=1\n"
                                       "! comment\n"
                                       "[Global]\r\n"
                                       "  Log  Name =  a b \n"
                                       "equals=x=y=z ; stays\n"
                                       "empty=\n"
                                       "empty=later\n"
                                       "twice=1\n"
                                       "TWICE=2\n"
                                       "no equals\n"
                                       "\ttab\t=\tv\n"
                                       "[other]\n"
                                       "twice=3\n"
                                       "[GLOBAL]\n"
                                       "second=1\n"
                                       "[x");
    EXPECT_EQ(value_of(file, "GLOBAL", "logname"), "a b ");
    EXPECT_EQ(value_of(file, "global", "Log Name"), "none");
    EXPECT_EQ(value_of(file, "global", "EQUALS"), "x=y=z ; stays");
    EXPECT_EQ(value_of(file, "global", "empty"), "none") << "the first match decides";
    EXPECT_EQ(value_of(file, "global", "twice"), "1");
    EXPECT_EQ(value_of(file, "global", "tab"), "v");
    EXPECT_EQ(value_of(file, "global", "second"), "none") << "only the first section of a name is seen";
    EXPECT_EQ(value_of(file, "", "key"), "none");
    EXPECT_EQ(value_of(file, "global", "comment"), "none");
    EXPECT_EQ(value_of(dir.at("missing"), "global", "twice"), "none");
    // The preset may be the shared buffer itself.
    const char* shared = GetProfileString(file.c_str(), "global", "twice", "");
    EXPECT_STREQ(GetProfileString(file.c_str(), "global", "nothing", shared), "1");
}

TEST_F(ProfileTest, LongLinesGoOnAsTheNext) {
    const std::string file = dir.write(
        "ini", "[a]\nlong=" + std::string(300, 'x') + "=tail\nlast=" + std::string(251, 'y') + "\n");
    EXPECT_EQ(value_of(file, "a", "long"), std::string(251, 'x'));
    EXPECT_EQ(value_of(file, "a", std::string(49, 'x').c_str()), "tail");
    EXPECT_EQ(value_of(file, "a", "last"), std::string(251, 'y'));
}

TEST_F(ProfileTest, KeyListsEndTwice) {
    const std::string file = dir.write("ini", "[a]\nFirst Key=1\nnone\nsecond=\n[b]\nx=1\n");
    char list[64];
    const int length = GetPrvProfileString("a", "", "none", list, sizeof list, file.c_str());
    EXPECT_EQ(std::string(list, static_cast<size_t>(length)), std::string("FirstKey\0second\0\0", 17));
    EXPECT_EQ(GetPrvProfileString("a", "", "none", list, 12, file.c_str()), 10);
    EXPECT_EQ(std::string(list, 10), std::string("FirstKey\0\0", 10)) << "cut behind a whole name";
    list[1] = 'x';
    EXPECT_EQ(GetPrvProfileString("a", "", "", list, 4, file.c_str()), 2);
    EXPECT_EQ(std::string(list, 2), std::string("\0\0", 2)) << "also when no name fits";
    std::string many = "[a]\n";
    for (int i = 0; i < 1000; ++i) {
        many += "key" + std::to_string(1000 + i) + "=v\n";
    }
    dir.write("many", many);
    char big[16384];
    EXPECT_LE(GetPrvProfileString("a", "", "none", big, sizeof big, dir.at("many").c_str()), 4096);
}

TEST_F(ProfileTest, ABooleanIsOneOfFourWords) {
    EX_PCX pcx;
    const std::string file =
        dir.write("ini", "[a]\na=yes\nb=Ye\nc=1\nd=y\ne=true\nf=11\nn=12x\nbig=99999999999\n");
    strcpy(pcx.IniFile, file.c_str());
    for (const char* key : {"a", "b", "c", "d"}) {
        EXPECT_TRUE(pcx.getProfileBool(&pcx, "a", key, "no")) << key;
    }
    EXPECT_FALSE(m_getProfileBool(&pcx, "a", "e", "yes"));
    EXPECT_FALSE(m_getProfileBool(&pcx, "a", "f", "yes"));
    EXPECT_TRUE(m_getProfileBool(&pcx, "a", "missing", "yes"));
    EXPECT_EQ(m_getProfileInt(&pcx, "a", "n", "0"), 12);
    EXPECT_EQ(m_getProfileInt(&pcx, "a", "big", "0"), 2147483647);
}

TEST_F(ProfileTest, WritingChangesOneLineAndCopiesTheRest) {
    const std::string start =
        "; head\r\n[CP_LIST]\n2217= one\n221 =two\n\n[B]\nx=" + std::string(400, 'v') + "\nlast";
    struct {
        const char* section;
        const char* key;
        const char* value;
        std::string expected;
    } rows[] = {
        {"cp_list", "221", "new",
         "; head\r\n[CP_LIST]\n2217= one\n221 =  new\n\n[B]\nx=" + std::string(400, 'v') + "\nlast"},
        {"CP_LIST", "22", "n",
         "; head\r\n[CP_LIST]\n2217= one\n221 =two\n\n22=n\n[B]\nx=" + std::string(400, 'v') + "\nlast"},
        {"B", "key", "v", start + "\nkey                  =  v\n"},
        {"NEW", "key", "v", start + "\n\n\n[NEW]\n\nkey                  =  v\n"},
        {"CP_LIST", "2217", "one", start},
    };
    for (const auto& row : rows) {
        const std::string file = dir.write("ini", start);
        EXPECT_EQ(WritePrivateProfileString(row.section, row.key, row.value, file.c_str()), 1);
        EXPECT_EQ(dir.read("ini"), row.expected) << row.section << row.key;
        EXPECT_EQ(value_of(file, row.section, row.key), row.value);
        EXPECT_FALSE(dir.exists("ini.tmp"));
    }
    EXPECT_EQ(WritePrivateProfileString("", "k", "v", dir.at("ini").c_str()), 0);
    EXPECT_EQ(WritePPString("s", "k", "v", dir.at("missing").c_str()), 0);
    EXPECT_FALSE(dir.exists("missing"));
}

TEST_F(ProfileTest, NoValueBecomesAnotherLine) {
    const std::string file = dir.write("ini", "[a]\nk=1\n");
    EXPECT_EQ(WritePPString("a", "k", "x\n[GLOBAL]\nServiceProgramStartCommand=rm", file.c_str()), 0);
    EXPECT_EQ(WritePPString("a", "k\n", "x", file.c_str()), 0);
    EXPECT_EQ(WritePPString("a", "k=", "x", file.c_str()), 0);
    EXPECT_EQ(WritePPString("a]\n[b", "k", "x", file.c_str()), 0);
    EXPECT_EQ(__PutProfileString("a", "k", "x\ny=1", file.c_str()), 0);
    EXPECT_EQ(dir.read("ini"), "[a]\nk=1\n");
}

TEST_F(ProfileTest, OwnerModeAndLinkStay) {
    dir.write("real", "[a]\nk=1\n");
    ASSERT_EQ(chmod(dir.at("real").c_str(), 0640), 0);
    ASSERT_EQ(symlink("real", dir.at("link").c_str()), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(dir.at("real").c_str(), 12, 34), 0);
    }
    // What waits under the temporary name must not be followed.
    dir.write("victim", "precious");
    ASSERT_EQ(symlink("victim", dir.at("real.tmp").c_str()), 0);
    EXPECT_EQ(WritePPString("a", "k", "2", dir.at("link").c_str()), 1);
    EXPECT_EQ(__PutProfileString("a", "k", "3", dir.at("link").c_str()), 1);
    struct stat status;
    ASSERT_EQ(lstat(dir.at("link").c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    ASSERT_EQ(lstat(dir.at("real").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    if (geteuid() == 0) {
        EXPECT_EQ(status.st_uid, 12U);
        EXPECT_EQ(status.st_gid, 34U);
    }
    EXPECT_EQ(dir.read("real"), "[a]\nk=3\n");
    EXPECT_EQ(dir.read("victim"), "precious");
}

// In a child, so that the limit ends with it: a file that cannot be written whole leaves the old one.
TEST_F(ProfileTest, AFullDiskLeavesTheOldFile) {
    const std::string start = "[a]\nk=1\nfill=" + std::string(3000, 'x') + "\n";
    const std::string file = dir.write("ini", start);
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(WritePPString("a", "k", "2", file.c_str()) +
              2 * __PutProfileString("a", "k", "2", file.c_str()));
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << "both calls must report the failure";
    EXPECT_EQ(dir.read("ini"), start);
    EXPECT_FALSE(dir.exists("ini.tmp"));
}
