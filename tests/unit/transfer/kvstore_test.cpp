// The store's file to the byte, growth, deletion, crashes and damage.
#include "transfer/kvstore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "scratch.h"
#include "transfer/status_store.h"

namespace {

class Store : public testing::Test {
  protected:
    void TearDown() override { kvstore_close(&db_, nullptr); }
    int open(int mode = kvstore_create) { return kvstore_open(&db_, name_.c_str(), mode, &err_); }
    int put(std::string_view key, const std::string& value) {
        return kvstore_put(&db_, key, value.data(), value.size(), &err_);
    }
    std::string get(std::string_view key) {
        std::string value(100000, '\0');
        size_t len = value.size();
        const int64_t n = kvstore_get(&db_, key, value.data(), &len, &err_);
        return n < 0 ? "<error>" : value.substr(0, static_cast<size_t>(n));
    }
    std::string bytes() const { return dir_.read("FT1.sts"); }
    void write(const std::string& content) const { dir_.write("FT1.sts", content); }

    scratch dir_;
    const std::string name_ = dir_.at("FT1.sts");
    kvstore db_;
    qx7_error err_;
};

TEST_F(Store, RecordStandsInTheFileAsTold) {
    ASSERT_EQ(open(), 0);
    ASSERT_EQ(put("FTX", "abc"), 0);
    ASSERT_EQ(put("OID-1", ""), 0);
    const std::string file = bytes();
    ASSERT_EQ(file.size(), 64u + 3 + 64);
    EXPECT_EQ(file.substr(0, 8), std::string("%KVRFTX\0", 8));
    EXPECT_EQ(file.substr(32, 32),
              std::string("\0\0\0\0\0\0\0\0\3\0\0\0\0\0\0\0\3\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32));
    EXPECT_EQ(file.substr(64, 3), "abc");
    EXPECT_EQ(file.substr(67, 9), "%KVROID-1");
    EXPECT_EQ(static_cast<unsigned char>(file[67 + 56]), 67);
    struct stat facts {};
    ASSERT_EQ(stat(name_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0600u);
}

TEST_F(Store, ValuesShrinkGrowGoAndComeBack) {
    ASSERT_EQ(open(), 0);
    put("a", "12345");
    put("b", "x");
    const size_t before = bytes().size();
    put("a", "123");
    EXPECT_EQ(bytes().size(), before);
    EXPECT_EQ(get("a"), "123");
    put("a", "12345");  // its place is still as long as at first
    EXPECT_EQ(bytes().size(), before);
    put("a", "1234567");
    EXPECT_EQ(bytes().size(), before + 64 + 7);
    EXPECT_EQ(bytes()[32], 1);  // the old record carries the mark of the deleted
    EXPECT_EQ(kvstore_delete(&db_, "b", &err_), 0);
    EXPECT_EQ(kvstore_delete(&db_, "never", &err_), 0);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(get("a"), "1234567");
    EXPECT_EQ(get("b"), "");
    EXPECT_EQ(put("b", "again"), 0);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(get("b"), "again");
}

TEST_F(Store, RefusesWhatDoesNotFit) {
    EXPECT_EQ(open(kvstore_existing), -1);
    EXPECT_EQ(err_.qx_msgnr, 2003041);
    EXPECT_STREQ(err_.qx_msgInsert, ("open()|" + name_ + "|2|No such file or directory|").c_str());
    EXPECT_NE(access(name_.c_str(), F_OK), 0);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(put("123456789012345678901234567", "longest"), 0);
    EXPECT_EQ(put("1234567890123456789012345678", "too long"), -1);
    EXPECT_EQ(put("", "none"), -1);
    put("k", "value");
    char small[3];
    size_t len = sizeof small;
    EXPECT_EQ(kvstore_get(&db_, "k", small, &len, &err_), -1);
    EXPECT_EQ(err_.qx_errno, ERANGE);
    EXPECT_EQ(err_.qx_msgnr, 63047);
    kvstore_close(&db_, nullptr);
    const std::string second = dir_.at("second");
    ASSERT_EQ(link(name_.c_str(), second.c_str()), 0);
    EXPECT_EQ(open(), -1) << "a file with two names";
    unlink(second.c_str());
    ASSERT_EQ(symlink(name_.c_str(), second.c_str()), 0);
    EXPECT_EQ(kvstore_open(&db_, second.c_str(), kvstore_create, &err_), -1);
    unlink(second.c_str());
    write("%KVXsomething that is no record at all, but long enough to hold one header......");
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err_.qx_msgnr, 2003071);
    EXPECT_STREQ(err_.qx_msgInsert, (name_ + "|KVSR EYEC('%KVXsome') wrong").c_str());
}

// A crash leaves the end of the file cut anywhere: what was whole before stays, and the store goes on.
TEST_F(Store, CutAnywhereItOpensWithWhatIsWhole) {
    ASSERT_EQ(open(), 0);
    put("one", "first value");
    put("two", "second");
    const std::string whole = bytes();
    kvstore_close(&db_, nullptr);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        write(whole.substr(0, cut));
        ASSERT_EQ(open(), 0) << cut;
        EXPECT_EQ(get("one"), cut >= 75 ? "first value" : "") << cut;
        EXPECT_EQ(get("two"), "") << cut;
        ASSERT_EQ(put("two", "new"), 0);
        ASSERT_EQ(open(), 0) << cut;
        EXPECT_EQ(get("two"), "new") << cut;
        kvstore_close(&db_, nullptr);
    }
}

// What reaches over the end of the file goes when it is the last record, also one whose value shrank or one
// that is deleted. A wrong length that reaches over other records must not cost them.
TEST_F(Store, OnlyTheLastRecordIsCutOff) {
    ASSERT_EQ(open(), 0);
    put("one", "first value");
    put("two", "second");
    put("two", "2nd");
    const std::string shrunk = bytes();
    kvstore_delete(&db_, "two", &err_);
    const std::string deleted = bytes();
    kvstore_close(&db_, nullptr);
    for (const std::string& whole : {shrunk, deleted}) {
        write(whole.substr(0, whole.size() - 1));
        ASSERT_EQ(open(), 0);
        EXPECT_EQ(get("one") + get("two"), "first value");
        EXPECT_EQ(bytes(), whole.substr(0, 75));
        kvstore_close(&db_, nullptr);
    }
    std::string wrong = shrunk;
    wrong[42] = wrong[50] = 1;  // both lengths of the first
    write(wrong);
    EXPECT_EQ(open(), -1);
    EXPECT_EQ(err_.qx_msgnr, 2003071);
    EXPECT_EQ(bytes(), wrong);
}

TEST_F(Store, OverwrittenAnywhereItOpensOrRefuses) {
    ASSERT_EQ(open(), 0);
    put("one", "first value");
    put("two", "second");
    const std::string whole = bytes();
    kvstore_close(&db_, nullptr);
    int refused = 0;
    for (size_t at = 0; at < whole.size(); ++at) {
        for (const char byte : {'\xff', '\x7f', '\0', '\x41'}) {
            std::string damaged = whole;
            damaged[at] = byte;
            write(damaged);
            err_ = {};
            if (open() == 0) {
                get("one");
                get("two");
                EXPECT_LE(bytes().size(), whole.size());
            } else {
                EXPECT_EQ(err_.qx_msgnr, 2003071) << at;
                ++refused;
            }
            kvstore_close(&db_, nullptr);
        }
    }
    EXPECT_GT(refused, 100);
}

TEST_F(Store, FirstOfTwoEqualKeysStands) {
    ASSERT_EQ(open(), 0);
    put("k", "old");
    const std::string first = bytes();
    kvstore_close(&db_, nullptr);
    std::string second = first;
    second[56] = 67;
    second[64] = 'N';
    write(first + second);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(get("k"), "old");
    EXPECT_EQ(kvstore_delete(&db_, "k", &err_), 0);
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(get("k"), "") << "the second came back";
}

TEST_F(Store, SecondLookNeedsNoLockAndChangesNothing) {
    ASSERT_EQ(open(), 0);
    put("k", "v");
    std::ofstream(name_, std::ios::binary | std::ios::app) << "%KVRcut";
    const std::string before = bytes();
    kvstore look;
    ASSERT_EQ(kvstore_open(&look, name_.c_str(), kvstore_peek, &err_), 0);
    EXPECT_EQ(look.bt_root.size(), 1u);
    EXPECT_EQ(bytes(), before);
    look.only = {"other"};
    ASSERT_EQ(kvstore_open(&look, name_.c_str(), kvstore_peek, &err_), 0);
    EXPECT_EQ(look.bt_root.size(), 0u);
}

TEST_F(Store, BeginsEmptyWhenThatIsWanted) {
    write("no store at all");
    ASSERT_EQ(open(kvstore_empty), 0);
    put("k", "v");
    ASSERT_EQ(open(kvstore_empty), 0);
    EXPECT_EQ(bytes(), "");
}

TEST_F(Store, ManyElementsComeBack) {
    ASSERT_EQ(open(), 0);
    constexpr int count = 20000;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(put(ss_elementKey(i, ""), std::string(144, static_cast<char>(i))), 0);
    }
    ASSERT_EQ(open(), 0);
    EXPECT_EQ(db_.bt_root.size(), static_cast<size_t>(count));
    EXPECT_EQ(get("OID-19999"), std::string(144, static_cast<char>(19999)));
}

TEST(StatusStore, KeysAndVersion) {
    EXPECT_EQ(ss_elementKey(7, key_part_insert), "OID-7-MSGINSER");
    EXPECT_EQ(ss_reportKey(4711, 12), "RPT0000004711-00000012");
    EXPECT_LT(ss_reportKey(UINT32_MAX, 99999999).size(), kvstore_key_size);
    EXPECT_EQ(ss_getVersionText(), "VERSION(20180524),FTX_SIZE(1608),FTXE_SIZE(144)");
    EXPECT_FALSE(ss_checkVersionText(ss_getVersionText() + "x"));
}

}  // namespace
