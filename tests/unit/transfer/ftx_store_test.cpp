// The status store of a transfer: its images to the byte, runs one behind the other, crashes, and files that
// somebody made up.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "ftx_store_support.h"
#include "transfer/ftx/module.h"

namespace {

struct range {
    size_t from;
    size_t to;
};

// Pointers, descriptors, handles, lengths of buffers, timers, the mutex, and what pads the record.
constexpr range area_live[] = {{16, 104},  {428, 472},   {524, 568},   {580, 596},   {900, 916},  {931, 932},
                               {972, 976}, {1012, 1016}, {1128, 1160}, {1424, 1532}, {1536, 1608}};
constexpr range area_identity[] = {{0, 16}, {104, 112}, {400, 406}};
constexpr range elem_live[] = {{0, 8}, {21, 24}, {32, 56}, {80, 112}, {141, 144}};

template <size_t N>
void set_ranges(std::string* bytes, const range (&ranges)[N], char value) {
    for (const range& one : ranges) {
        std::fill(bytes->begin() + static_cast<long>(one.from), bytes->begin() + static_cast<long>(one.to),
                  value);
    }
}

template <class Record>
Record filled(char value) {
    Record record;
    memset(&record, value, sizeof record);
    return record;
}

template <class Record>
std::string bytes_as_text(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST(FtxImages, HoldEachFieldThatCountsAndNothingElse) {
    std::string area(1608, '\x5e');
    set_ranges(&area, area_live, '\0');
    // ftx_userLength is no length of a buffer, ftx_passw_len is.
    std::fill_n(area.begin() + 916, 4, '\x5e');
    const std::string written = bytes_as_text(ftx_to_image(filled<FTX_AREA>('\x5e')));
    for (size_t at = 0; at < area.size(); ++at) {
        ASSERT_EQ(written[at], area[at]) << at;
    }
    std::string elem(144, '\x5e');
    set_ranges(&elem, elem_live, '\0');
    EXPECT_EQ(bytes_as_text(ftxe_to_image(filled<__ftx_elem>('\x5e'))), elem);
}

TEST(FtxImages, GiveNothingThatBelongsToTheProcess) {
    std::string area(1608, '\x5e');
    set_ranges(&area, area_live, '\x11');
    set_ranges(&area, area_identity, '\x11');
    auto target = filled<FTX_AREA>('\x11');
    ftx_from_image(filled<FTX_AREA>('\x5e'), &target);
    const std::string taken = bytes_as_text(target);
    for (size_t at = 0; at < area.size(); ++at) {
        ASSERT_EQ(taken[at], area[at]) << at;
    }
    std::string elem(144, '\x5e');
    set_ranges(&elem, elem_live, '\x11');
    auto target_elem = filled<__ftx_elem>('\x11');
    ftxe_from_image(filled<__ftx_elem>('\x5e'), &target_elem);
    EXPECT_EQ(bytes_as_text(target_elem), elem);
}

TEST_F(ftx_store_test, WhatWasSavedComesBackForAQuestion) {
    {
        auto ftx = started(3);
        ftx_elem* const elem = ftxe_getbyOID(ftx.get(), 1);
        elem->destination_name = std::string(2047, 'd');
        elem->sender_record = std::string("\0\1binary", 8) + std::string(16, 's');
        elem->receiver_record = std::string(24, 'r');
        elem->ftxe_rss_records = 17;
        elem->ftxe_flag |= FTXE_SAVE_DESTINATION | FTXE_SAVE_RESTART | FTXE_MD5;
        ftxe_set_message(elem, 11404, 17, std::string(2000, 'i'));
        update_FtxStatus(ftx.get(), elem, FTXE_ERROR);
        save(ftx.get(), elem);
        EXPECT_EQ(elem->ftxe_flag & FTXE_MUST_SAVE, 0);
        putFtxLog(ftx.get(), 11133, "%s|%d", "first", 1);
        putFtxLog(ftx.get(), 11134, "%s", std::string(3000, 'x').c_str());
        ftx->ftx_status_flag = FTX_STATUS_FINISHED;
        ftx->ftx_srv_acv = 99;
        ASSERT_EQ(ss_saveFTX(ftx.get(), &err), 0);
    }
    auto asked = make('0', id);
    asked->ftx_Mandant = 1;
    ASSERT_EQ(ss_loadFTX(asked.get(), &err), 0) << err.qx_msgInsert;
    EXPECT_EQ(asked->source_file + asked->destination_file, "/data/*/in/*");
    EXPECT_EQ(asked->ftx_status_flag, 'F');
    EXPECT_EQ(asked->ftx_srv_acv, 99u);
    EXPECT_EQ(asked->ftx_Mandant, 1) << "the question knows better";
    ASSERT_EQ(asked->elements.size(), 3u);
    const ftx_elem* const elem = ftxe_getbyOID(asked.get(), 1);
    EXPECT_EQ(elem->source_name, "/data/1");
    EXPECT_EQ(elem->destination_name, std::string(2047, 'd'));
    EXPECT_EQ(elem->sender_record, std::string("\0\1binary", 8) + std::string(16, 's'));
    EXPECT_EQ(elem->receiver_record, std::string(24, 'r'));
    EXPECT_EQ(elem->ftxe_rss_records, 17);
    EXPECT_EQ(elem->ftxe_flag, FTXE_FILE);
    EXPECT_EQ(elem->insert, std::string(1023, 'i'));
    EXPECT_EQ(asked->ftx_nof_error, 1);
    EXPECT_EQ(asked->ftx_nof_active, 2);
    ASSERT_EQ(asked->report.size(), 2u);
    EXPECT_EQ(asked->report[0].insert, "first|1");
    EXPECT_EQ(asked->report[1].insert, std::string(1023, 'x'));
    EXPECT_EQ(asked->ftx_last_log_nr, 2);
    EXPECT_EQ(get_raw("RPT0000004711-00000001").size(), strlen("first|1") + 41);
}

TEST_F(ftx_store_test, NothingOfAnEarlierRunStaysBehindANewOne) {
    started(5)->ftx_flag = 0;
    {
        auto first = started(4);
        for (int i = 0; i < 6; ++i) {
            putFtxLog(first.get(), 11133, "first run|");
        }
    }
    started(2);
    auto asked = make('0');
    ASSERT_EQ(ss_loadFTX(asked.get(), &err), 0);
    EXPECT_EQ(asked->elements.size(), 2u);
    EXPECT_EQ(asked->report.size(), 0u);
}

// A line may come before the worker has its store; the report of the run before is no part of this one.
TEST_F(ftx_store_test, AResumedRunBeginsItsReportAnew) {
    {
        auto first = started(2);
        for (int i = 0; i < 6; ++i) {
            putFtxLog(first.get(), 11133, "first run|");
        }
    }
    auto second = make(ftx_resume);
    putFtxLog(second.get(), 63057, "early|");
    ASSERT_EQ(ss_saveFTX(second.get(), &err), 0);
    putFtxLog(second.get(), 11408, "late|");
    second.reset();
    auto asked = make('0');
    ASSERT_EQ(ss_loadREPORT(asked.get(), id, &err), 0);
    ASSERT_EQ(asked->report.size(), 2u);
    EXPECT_EQ(asked->report[0].insert + asked->report[1].insert, "early|late|");
}

TEST_F(ftx_store_test, ARepeatUsesTheStoreOfTheFirstRun) {
    started(1);
    auto repeat = make(ftx_resume, 5000, id);
    EXPECT_TRUE(ss_usable(repeat.get()));
    ASSERT_EQ(ss_saveFTX(repeat.get(), &err), 0);
    putFtxLog(repeat.get(), 63003, "|");
    EXPECT_NE(get_raw("RPT0000004711-00000001"), "");
    EXPECT_NE(access(store_path(5000).c_str(), F_OK), 0);
    auto own_id = make(ftx_resume, 5000);
    EXPECT_FALSE(ss_usable(own_id.get()));
    EXPECT_EQ(ss_saveFTX(own_id.get(), &err), -1) << "a resumed run makes no store";
    EXPECT_NE(access(store_path(5000).c_str(), F_OK), 0);
}

TEST_F(ftx_store_test, ARestartWantsAWholeListInASoundStore) {
    const std::string path = store_path();
    const auto usable = [this] { return ss_usable(make(ftx_resume).get()); };
    EXPECT_FALSE(usable()) << "no file";
    EXPECT_TRUE(module_test_log.empty());
    {
        auto begun = make(ftx_anew);
        ASSERT_EQ(ss_saveFTX(begun.get(), &err), 0);
        EXPECT_FALSE(usable()) << "an empty list is not known to be whole";
        save(begun.get(), add_file(begun.get(), "a", 1));
        EXPECT_FALSE(usable());
        ASSERT_EQ(ss_saveFTX(begun.get(), &err), 0);
        EXPECT_TRUE(usable());
    }
    started(0);
    EXPECT_TRUE(usable()) << "a list without files";
    started(3);
    const std::string whole = read_text(path);
    write_text(path, whole.substr(0, whole.rfind("%KVR")));
    EXPECT_FALSE(usable()) << "the last file was lost";
    write_text(path, whole);
    put_raw(key_version, "VERSION(1)");
    EXPECT_FALSE(usable());
    EXPECT_TRUE(logged(63011));
    write_text(path, "no store");
    EXPECT_FALSE(usable());
    EXPECT_TRUE(logged(2003071));
    EXPECT_EQ(read_text(path + ".bad"), "no store");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    write_text(folder / "elsewhere", whole);
    ASSERT_EQ(symlink((folder / "elsewhere").c_str(), path.c_str()), 0);
    EXPECT_FALSE(usable()) << "a link";
    EXPECT_EQ(ss_saveFTX(make(ftx_anew).get(), &err), -1);
    EXPECT_EQ(read_text(folder / "elsewhere"), whole);
}

// Whose files are sent must not be told by a stranger, not to root either. A question only looks.
TEST_F(ftx_store_test, AnothersStoreIsNoneToRunBy) {
    if (!runs_as_root()) {
        GTEST_SKIP();
    }
    started(1);
    ASSERT_EQ(chown(store_path().c_str(), 65534, 65534), 0);
    EXPECT_FALSE(ss_usable(make(ftx_resume).get()));
    EXPECT_EQ(ss_saveFTX(make(ftx_resume).get(), &err), -1);
    EXPECT_EQ(ss_saveFTX(make(ftx_anew).get(), &err), -1);
    EXPECT_EQ(ss_loadFTX(make('0').get(), &err), 0);
}

// While the first one changes the second one is void.
TEST_F(ftx_store_test, RestartRecordsAreAPairOrNone) {
    auto ftx = started(1);
    ftx_elem* const elem = ftxe_getbyOID(ftx.get(), 0);
    for (const char c : {'1', '2'}) {
        elem->sender_record = std::string(24, c);
        elem->receiver_record = std::string(24, c);
        elem->ftxe_flag |= FTXE_SAVE_RESTART;
        save(ftx.get(), elem);
    }
    ftx.reset();
    auto loaded = make('0');
    ASSERT_EQ(ss_loadFTXEall(loaded.get(), id, &err), 0);
    EXPECT_EQ(ftxe_getbyOID(loaded.get(), 0)->sender_record, std::string(24, '2'));
    EXPECT_EQ(ftxe_getbyOID(loaded.get(), 0)->receiver_record, std::string(24, '2'));
    put_raw("OID-0-RSR", "");
    ASSERT_EQ(ss_loadFTXEall(loaded.get(), id, &err), 0);
    EXPECT_EQ(ftxe_getbyOID(loaded.get(), 0)->sender_record, "");
}

TEST_F(ftx_store_test, AFileThatIsSentAnewHasNoRestartRecords) {
    auto ftx = started(1);
    ftx_elem* const elem = ftxe_getbyOID(ftx.get(), 0);
    elem->sender_record = elem->receiver_record = std::string(24, 'x');
    elem->ftxe_flag |= FTXE_SAVE_RESTART;
    save(ftx.get(), elem);
    elem->sender_record.clear();
    elem->receiver_record.clear();
    update_FtxStatus(ftx.get(), elem, FTXE_AGAIN);
    save(ftx.get(), elem);
    auto loaded = make('0');
    ASSERT_EQ(ss_loadFTXEall(loaded.get(), id, &err), 0);
    EXPECT_EQ(ftxe_getbyOID(loaded.get(), 0)->sender_record, "");
}

TEST_F(ftx_store_test, ArrivedFilesStaySoAndTheOthersAreTakenUp) {
    {
        auto ftx = started(4);
        const char status[] = {'C', 'E', 'S', 'X'};
        for (auto& [oid, elem] : ftx->elements) {
            elem.destination_name = "/in/" + std::to_string(oid);
            elem.ftxe_flag |= FTXE_SAVE_DESTINATION;
            elem.ftxe_transferedBytes = 500;
            ftxe_set_message(&elem, elem.ftxe_oId == 1 ? 63024 : 0, 28, "full");
            update_FtxStatus(ftx.get(), &elem, status[oid]);
            save(ftx.get(), &elem);
        }
    }
    for (int run = 0; run < 2; ++run) {
        auto again = make(ftx_resume);
        ASSERT_EQ(ss_saveFTX(again.get(), &err), 0);
        ASSERT_EQ(ftx_create_filelist_from_statusstore(again.get(), &err), 0) << err.qx_msgInsert;
        ASSERT_EQ(ss_saveFTX(again.get(), &err), 0);
        EXPECT_EQ(again->elements.size(), 3u);
        EXPECT_EQ(again->ftx_files_total, 3);
        EXPECT_EQ(again->ftx_nof_active, 3);
        EXPECT_EQ(again->ftx_nof_completed + again->ftx_nof_error + again->ftx_nof_sent, 0);
        EXPECT_EQ(again->ftx_size_total, 1001 + 1002 + 1003);
        EXPECT_EQ(again->ftx_max_oid, 4);
        for (const auto& [oid, elem] : again->elements) {
            EXPECT_EQ(elem.ftxe_status, 'W') << oid;
            EXPECT_EQ(elem.ftxe_msgnr, 0);
            EXPECT_EQ(elem.insert, "");
        }
        std::vector<int> numbers;
        for (const ftx_log_line& line : again->report) {
            numbers.push_back(line.msl_id);
        }
        EXPECT_EQ(numbers, (std::vector<int>{63000, 63001, 11133, 63002}));
        EXPECT_EQ(again->report[2].insert, "/in/0|500|0|/data/0|000:00:00");
    }
}

TEST_F(ftx_store_test, AMadeUpStoreIsRefusedWithItsKey) {
    auto ftx = started(2);
    putFtxLog(ftx.get(), 11133, "line|");
    ftx.reset();
    const auto elem = [this](size_t at, char byte) {
        std::string image = get_raw("OID-1");
        image[at] = byte;
        return image;
    };
    const auto line = [this](size_t at, char byte) {
        std::string image = get_raw("RPT0000004711-00000001");
        image[at] = byte;
        return image;
    };
    const struct {
        const char* key;
        std::string value;
        int number;
        const char* insert;
    } cases[] = {
        {"STATUS_STORE_VERSION", "VERSION(20180524),FTX_SIZE(1608),FTXE_SIZE(145)", 63011, nullptr},
        {"STATUS_STORE_VERSION", std::string(5000, 'v'), 63047, "key: STATUS_STORE_VERSION"},
        {"FTX", std::string(1607, 'x'), 63047, "key: FTX"},
        {"FTX", std::string(1609, 'x'), 63047, "key: FTX"},
        {"FTX", "", 63047, "key: FTX"},
        {"FTX-SRCFILE", std::string(2048, 'n'), 63047, "key: FTX-SRCFILE"},
        {"OID-1", std::string(143, 'x'), 63047, "key: OID-1"},
        {"OID-1", elem(76, 2), 63047, "key: OID-1"},
        {"OID-1", elem(140, 'Q'), 63047, "key: OID-1"},
        {"OID-1", elem(140, 0), 63047, "key: OID-1"},
        {"OID-1", elem(63, '\x80'), 63047, "key: OID-1"},
        {"OID-1", elem(119, '\x80'), 63047, "key: OID-1"},
        {"OID-1", elem(16, '7'), 63047, "key: OID-1"},
        {"OID-1-SRCFILE", std::string(2049, 'n'), 63047, "key: OID-1-SRCFILE"},
        {"OID-1-RSR", std::string(129, 'n'), 63047, "key: OID-1-RSR"},
        {"RPT0000004711-00000001", line(32, 6), 63047, "key: RPT0000004711-00000001"},
        {"RPT0000004711-00000001", line(35, '\x80'), 63047, "key: RPT0000004711-00000001"},
        {"RPT0000004711-00000001", line(8, 2), 63047, "key: RPT0000004711-00000001"},
        {"RPT0000004711-00000001", "short", 63047, "key: RPT0000004711-00000001"},
    };
    const std::string sound = read_text(store_path());
    for (const auto& one : cases) {
        put_raw(one.key, one.value);
        auto asked = make('0');
        err = {};
        EXPECT_EQ(ss_loadFTX(asked.get(), &err), -1) << one.key;
        EXPECT_EQ(err.qx_msgnr, one.number) << one.key;
        if (one.insert != nullptr) {
            EXPECT_STREQ(err.qx_msgInsert, one.insert);
        }
        EXPECT_EQ(asked->store, nullptr);
        write_text(store_path(), sound);
    }
}

TEST_F(ftx_store_test, AMadeUpTransferTakesNoRights) {
    started(1);
    FTX_AREA image = filled<FTX_AREA>('\xff');
    image.ftx_status_flag = 'Z';
    put_raw("FTX", bytes_as_text(image));
    auto asked = make('0');
    ASSERT_EQ(ss_loadFTX(asked.get(), &err), 0) << err.qx_msgInsert;
    EXPECT_EQ(asked->ftx_flag & (FTX_RECEIVER | FTX_DELETED | FTX_ANSWERS_FOR_LOST), 0);
    EXPECT_TRUE(asked->is_sender());
    EXPECT_EQ(asked->ftx_status_flag, 'E');
    EXPECT_EQ(asked->ftx_transfer_id, id);
    EXPECT_EQ(asked->partnerID, 0);
    EXPECT_LE(strlen(asked->ftx_Insert), 255u);
}

// A kill at any moment leaves a file that is cut somewhere behind its last whole write.
TEST_F(ftx_store_test, CutAnywhereItGoesOnOrCountsAsMissing) {
    {
        auto ftx = started(2);
        putFtxLog(ftx.get(), 11133, "line|");
    }
    const std::string whole = read_text(store_path());
    const size_t list_end = whole.find("%KVRRPT");
    for (size_t cut = 0; cut < whole.size(); cut += 23) {
        write_text(store_path(), whole.substr(0, cut));
        EXPECT_EQ(ss_usable(make(ftx_resume).get()), cut >= list_end) << cut;
        auto again = make(ftx_resume);
        if (cut >= list_end) {
            ASSERT_EQ(ss_saveFTX(again.get(), &err), 0) << cut;
            ASSERT_EQ(ftx_create_filelist_from_statusstore(again.get(), &err), 0) << cut;
            EXPECT_EQ(again->elements.size(), 2u);
        }
    }
}

TEST_F(ftx_store_test, OldStoresGoOnceADay) {
    pcx->UB_Time = time(nullptr);
    FTX_GLB& glb = ftx_glb();
    const tm at = [&] {
        tm local;
        qx_localtime(pcx->UB_Time, &local);
        return local;
    }();
    glb.ft_rst_check_hh = at.tm_hour;
    glb.ft_rst_check_mm = at.tm_min;
    glb.ft_rst_check_ss = at.tm_sec;
    const struct {
        const char* name;
        int days;
        bool goes;
    } files[] = {{"FTAAAAAAB.sts", 4, true}, {"FTAAAAAAC.sts", 2, false},     {"FTAAAAAAD.sts.bad", 4, true},
                 {"old.ftx", 4, true},       {"J1000000.report", 400, false}, {"folder.sts", 4, false}};
    const std::string out = pcx->pcx_OutFolder;
    std::filesystem::create_directory(out + "/folder.sts");
    for (const auto& file : files) {
        const std::string path = out + "/" + file.name;
        if (!std::filesystem::exists(path)) {
            write_text(path, "x");
        }
        const timespec stamp = {pcx->UB_Time - file.days * 86400L, 0};
        const timespec times[] = {stamp, stamp};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    ASSERT_EQ(symlink("/etc/passwd", (out + "/link.sts").c_str()), 0);
    EXPECT_EQ(ss_ftxCleanup(pcx, 0, &err), 1);
    EXPECT_TRUE(std::filesystem::exists(out + "/FTAAAAAAB.sts")) << "0 days remove nothing";
    EXPECT_EQ(ss_ftxCleanup(pcx, 3, &err), 1);
    for (const auto& file : files) {
        EXPECT_EQ(std::filesystem::exists(out + "/" + file.name), !file.goes) << file.name;
    }
    EXPECT_EQ(ss_cleanup_due(), pcx->UB_Time + 86400);
    ss_set_cleanup_time(pcx->UB_Time - 60);
    EXPECT_EQ(ss_cleanup_due(), pcx->UB_Time);
    copy_text(pcx->pcx_OutFolder, folder / "none");
    EXPECT_EQ(ss_ftxCleanup(pcx, 3, &err), -1);
    EXPECT_TRUE(logged(2003041));
}

}  // namespace
