// Names that wildcards make, and the control stream.
#include <gtest/gtest.h>

#include <climits>

#include "transfer/control_stream.h"
#include "transfer/file_names.h"

namespace {

struct Conversion {
    const char* srcMask;
    const char* srcFile;
    const char* dstMask;
    int srcType;
    int dstType;
    const char* expected;  // or the insert of an error
    int number;
};

const Conversion conversions[] = {
    {"*", "report.txt", "/a/*.bak", fs_unix, fs_unix, "/a/report.txt.bak", 0},
    {"/in/*.txt", "/in/one.txt", "/out/*.old", fs_unix, fs_unix, "/out/one.old", 0},
    {"/in/*.txt", "/in/x/y/one.txt", "/out/*.old", fs_unix, fs_unix, "/out/x/y/one.old", 0},
    {"/in/a?b*", "/in/a1b22", "/o/&2-&1", fs_unix, fs_unix, "/o/22-1", 0},
    {"/in/a?b*", "/in/a1bcc", "/o/*", fs_unix, fs_unix, "/o/1bcc", 0},
    {"/in/*", "/in/n", "/o/&9&0*&&x", fs_unix, fs_unix, "/o/n&&x", 0},
    {"/in/*.x", "/in/.x", "/o/<&1>", fs_unix, fs_unix, "/o/<>", 0},
    {"/in/??.x", "/in/a.x", "/o/*", fs_unix, fs_unix, "\?\?|a", 63068},
    {"/in/A*", "/in/abc", "/o/*", fs_unix, fs_unix, "/in/abc|/in/A*|", 63069},
    {"c:/in/A*", "C:\\IN\\sub\\abc", "/o/*", fs_windows, fs_unix, "/o/sub/bc", 0},
    {"/in/*", "/in/s/abc", "d:/o/*", fs_unix, fs_windows, "d:\\o\\s\\abc", 0},
    {"A.B.*", "a.b.LAST", "/o/*.txt", fs_zos, fs_unix, "/o/LAST.txt", 0},
    {"LIB/*", "LIB/MEMBER", "/o/*", fs_os400, fs_unix, "/o/MEMBER", 0},
    {"$VOL/*", "$vol/f", "/o/*", fs_nsk, fs_unix, "/o/f", 0},
    {":P:$U.*", ":P:$U.F", "/o/*", fs_bs2000, fs_unix, "/o/F", 0},
    {"/q/*", "/q/f.m", "/o/*", fs_os400_ifs, fs_zos_uss, "/o/f.m", 0},
    {"anything*", "some/name", "/o/x*", fs_gcos, fs_unix, "/o/x", 0},
    {"[dir.sub]*.txt", "[dir.sub]a.txt", "/o/*.t", fs_vms, fs_unix, "/o/a.t", 0},
    {"/in/*", "/in/s/a.txt", "[top]*", fs_unix, fs_vms, "[top.s]a.txt", 0},
    {"*", "x", "*", 10, fs_unix, "SRC-10", 63067},
    {"*", "x", "*", fs_unix, -1, "SRC--1", 63067},
};

TEST(Names, Convert) {
    for (const Conversion& row : conversions) {
        SCOPED_TRACE(std::string(row.srcMask) + " " + row.srcFile + " " + row.dstMask);
        ftxerr err;
        std::string out = "before";
        const int result =
            fngConvert(row.srcMask, row.srcFile, row.dstMask, &out, 4096, row.srcType, row.dstType, &err);
        EXPECT_EQ(err.nr, row.number);
        EXPECT_EQ(result, row.number == 0 ? 0 : -1);
        EXPECT_EQ(row.number == 0 ? out : err.insert, row.expected);
        if (row.number != 0) {
            EXPECT_EQ(out, "before");
        }
    }
}

TEST(Names, LongOnesWorkUpToTheLimitOfTheCaller) {
    const std::string longName(5000, 'n');
    ftxerr err;
    std::string out;
    EXPECT_EQ(fngConvert("/in/*", "/in/" + longName, "/o/*", &out, 5003, fs_unix, fs_unix, &err), 0);
    EXPECT_EQ(out, "/o/" + longName);
    EXPECT_EQ(fngConvert("/in/*", "/in/" + longName, "/o/*", &out, 5002, fs_unix, fs_unix, &err), -1);
    EXPECT_EQ(err.nr, ENAMETOOLONG);
    // Each '*' repeats the whole name: 20 GB, were they built before they are refused.
    EXPECT_EQ(fngConvert("*", std::string(200000, 'n'), std::string(100000, '*'), &out, 4096, fs_unix, fs_vms,
                         &err),
              -1);
    EXPECT_EQ(err.nr, ENAMETOOLONG);
}

TEST(Names, Folders) {
    ftxerr err;
    std::string out;
    EXPECT_EQ(fngConvertDirectory("/in/*", "/in/a/b", "d:\\o\\*", &out, 4096, fs_unix, fs_windows, &err), 0);
    EXPECT_EQ(out, "d:\\o\\a\\b");
    EXPECT_EQ(fngConvertDirectory("/in/*", "/in/a", "/o/*", &out, 4096, fs_vms, fs_unix, &err), 63066);
    EXPECT_EQ(err.insert, "SRC-VMS");
    EXPECT_EQ(fngConvertDirectory("/in/*", "/in/a", "/o/*", &out, 4096, 12, fs_unix, &err), 63067);
    EXPECT_EQ(convertVMS2UNIX("[-.a.b]c.d"), "/../a/b/c.d");
    EXPECT_EQ(convertUNIX2VMS("/../a/b/c.d"), "[-.a.b]c.d");
}

TEST(ControlStream, KnownBytesAndValues) {
    ControlStream cbs;
    EXPECT_EQ(getCbsLen(cbs), 0u);
    ASSERT_EQ(cbsPutInt(&cbs, "OID", 5), 0);
    EXPECT_EQ(cbs, "00020:00014-OID='5';");
    cbsPutInt64(&cbs, "SIZ", 0x7ffffffe);
    cbsPutInt64(&cbs, "BIG", 0x7fffffff);
    cbsPutInt64(&cbs, "NEG", LONG_MIN);
    cbsPutString(&cbs, "FNAME", std::string_view("a';\0b", 5));
    cbsPutByteStream(&cbs, "RST", "\x01\xab", 2);
    EXPECT_NE(cbs.find("SIZ='2147483646';"), std::string::npos);
    EXPECT_NE(cbs.find("BIG='0x000000007FFFFFFF';"), std::string::npos);
    EXPECT_NE(cbs.find("NEG='-9223372036854775808';"), std::string::npos);
    EXPECT_NE(cbs.find("RST='01AB';"), std::string::npos);
    EXPECT_EQ(getCbsLen(cbs), cbs.size());

    int64_t wide = 0;
    EXPECT_EQ(cbsGetInt64(cbs, "BIG", &wide), 0);
    EXPECT_EQ(wide, 0x7fffffff);
    EXPECT_EQ(cbsGetInt64(cbs, "NEG", &wide), 0);
    EXPECT_EQ(wide, LONG_MIN);
    std::string text;
    EXPECT_EQ(cbsGetString(cbs, "FNAME", &text), 0);
    EXPECT_EQ(text, std::string("a';\0b", 5));
    unsigned char raw[2] = {};
    size_t length = sizeof raw;
    EXPECT_EQ(cbsGetByteStream(cbs, "RST", raw, &length), 0);
    EXPECT_EQ(raw[1], 0xab);
    length = 1;
    EXPECT_EQ(cbsGetByteStream(cbs, "RST", raw, &length), -1) << "larger than the buffer";
    text = "kept";
    EXPECT_EQ(cbsGetString(cbs, "NONE", &text), -1);
    EXPECT_EQ(cbsGetString(cbs, "FNAM", &text), -1);
    EXPECT_EQ(text, "kept");
}

TEST(ControlStream, NothingOutsideIsRead) {
    ControlStream cbs;
    cbsPutString(&cbs, "KEY", "value");
    std::string text;
    for (size_t cut = 0; cut < cbs.size(); ++cut) {
        EXPECT_EQ(cbsGetString(cbs.substr(0, cut), "KEY", &text), -1) << cut;
    }
    EXPECT_EQ(cbsGetString("00026:99999-KEY='value';xx", "KEY", &text), -1);
    EXPECT_EQ(cbsGetString("00026:00000-KEY='value';xx", "KEY", &text), -1);
    EXPECT_EQ(cbsGetString("00012:00006-", "", &text), -1);
    ControlStream full;
    EXPECT_EQ(cbsPutString(&full, "K", std::string(99999 - 17, 'x')), 0);
    EXPECT_EQ(full.size(), 99999u);
    const ControlStream before = full;
    EXPECT_EQ(cbsPutString(&full, "L", ""), -1);
    EXPECT_EQ(full, before);
    EXPECT_EQ(cbsPutString(&full, "", "x"), -1);
    EXPECT_EQ(cbsPutString(&full, "a=b", "x"), -1);
}

}  // namespace
