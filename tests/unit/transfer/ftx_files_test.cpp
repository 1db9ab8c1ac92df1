// Files and folders of a transfer: every byte, every name, and what is refused.
#include <signal.h>
#include <sys/resource.h>

#include "ftx_files_support.h"
#include "transfer/ftx/folders.h"
#include "transfer/ftx/store.h"

namespace {

using ftx_files = transfer_files;
using tree_of = std::map<std::string, std::string>;

TEST_F(ftx_files, binary_files_of_sizes_around_all_buffers_arrive) {
    const size_t sizes[] = {0, 1, 32235, 32236, 32237, 65535, 65536, 65537, 1048576, 1048577};
    for (const size_t size : sizes) {
        folder.write("from/" + std::to_string(size), bytes_of(size, 1));
    }
    for (const char compress : {'0', '1', 'S'}) {
        ASSERT_TRUE(run({.source = "from/*",
                         .destination = "to/*",
                         .overwrite = 'Y',
                         .compress = compress,
                         .wildcard = true}));
        EXPECT_EQ(tree("to"), tree("from"));
        EXPECT_EQ(source->ftx_nof_sent, 10);
        EXPECT_EQ(destination->ftx_nof_completed, 10);
        for (const auto& [oid, elem] : destination->elements) {
            EXPECT_EQ(elem.ftxe_transferedBytes, sent_file(oid).ftxe_fileSize);
            EXPECT_EQ((elem.ftxe_flag & FTXE_MD5) != 0, elem.ftxe_transferedBytes > 1048576);
        }
        EXPECT_EQ(source->items, source->items_of_ended);
    }
}

TEST_F(ftx_files, names_of_any_bytes_go_through_masks_and_subfolders) {
    const std::string longest(251, 'n');
    std::filesystem::create_directories(folder / "from/empty/deep");
    std::filesystem::create_directories(folder / "from/sub \xFF/x");
    for (const std::string& name :
         {longest + ".txt", std::string("a b'\"\n.txt"), std::string("\xC3\x28|.txt"),
          std::string("sub \xFF/x/y.txt"), std::string("sub \xFF/not.bin")}) {
        folder.write("from/" + name, name);
    }
    ASSERT_EQ(symlink("sub \xFF", (folder / "from/link").c_str()), 0);
    struct {
        std::string from, to;
        bool folders;
        std::string before, after;  // of each file's name there
    } cases[] = {{"from/*.txt", "to/*.bak", false, "", ".bak"},
                 {folder / "from/*.txt", "to/pre_&1", true, "pre_", ""},
                 {"from/*.txt", folder / "to/*.txt", true, "", ".txt"}};
    for (const auto& one : cases) {
        ASSERT_TRUE(run({.source = one.from,
                         .destination = one.to,
                         .wildcard = true,
                         .flags = FTX_CAN_CONTINUE | (one.folders ? FTX_SUBDIRSTRUCT : 0)}));
        tree_of expected = {{"sub \xFF/", ""}, {"sub \xFF/x/", ""}};
        if (one.folders) {
            expected["empty/"] = expected["empty/deep/"] = "";
        }
        for (const std::string& name : {longest, std::string("a b'\"\n"), std::string("\xC3\x28|")}) {
            expected[one.before + name + one.after] = name + ".txt";
        }
        expected["sub \xFF/x/" + one.before + "y" + one.after] = "sub \xFF/x/y.txt";
        EXPECT_EQ(tree("to"), expected);
        EXPECT_EQ(destination->ftx_nof_completed, static_cast<int>(destination->elements.size()));
        std::filesystem::remove_all(folder / "to");
        std::filesystem::create_directory(folder / "to");
    }
}

TEST_F(ftx_files, list_follows_the_order) {
    folder.write("from/a", "1");
    folder.write("from/b", "22");
    std::filesystem::create_directories(folder / "from/sub/sub");
    folder.write("from/sub/sub/a", "333");
    ASSERT_EQ(symlink("b", (folder / "from/link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (folder / "from/broken").c_str()), 0);
    ASSERT_EQ(mkfifo((folder / "from/pipe").c_str(), 0600), 0);
    struct {
        char subdir;
        bool links;
        int flags;
        int elements, bytes;
    } cases[] = {{'N', false, 0, 2, 3},
                 {'N', true, FTX_SUBDIRSTRUCT, 3, 5},
                 {'Y', false, 0, 3, 6},
                 {'Y', true, FTX_SUBDIRSTRUCT, 6, 8}};
    for (const auto& one : cases) {
        ftx_glb().fgx_Linkfiles = one.links;
        prepare({.source = "from/*", .subdir = one.subdir, .wildcard = true, .flags = one.flags});
        ASSERT_EQ(list(), 0);
        EXPECT_EQ(source->ftx_files_total, one.elements);
        EXPECT_EQ(source->ftx_size_total, one.bytes);
        int oid = 0;
        for (const auto& [key, elem] : source->elements) {
            EXPECT_EQ(key, oid++);
        }
    }
    prepare({.source = "from/nothing*", .wildcard = true});
    EXPECT_EQ(list(), 0);
    EXPECT_TRUE(source->elements.empty());
    EXPECT_TRUE(send());
    EXPECT_TRUE(destination->has(FTX_SYNC_SEEN));
}

TEST_F(ftx_files, missing_folder_of_a_mask_is_told_by_number) {
    folder.write("file", "");
    ASSERT_EQ(symlink("nowhere", (folder / "broken").c_str()), 0);
    const std::string long_name(600, 'd');
    struct {
        std::string mask;
        int number;
        std::string insert;
    } cases[] = {{"missing/*", number_folder_missing, "4711|missing/|"},
                 {"file/*", number_source_unusable, "4711|file/|"},
                 {"broken/*", number_source_link_broken, "4711|broken/|nowhere|"},
                 {long_name + "/*", number_file_call, "DirOpen()|" + long_name + "/|36|File name too long|"}};
    for (const auto& one : cases) {
        prepare({.source = one.mask, .wildcard = true});
        qx7_error error;
        EXPECT_EQ(list(&error), -1);
        EXPECT_EQ(error.qx_msgnr, one.number);
        EXPECT_EQ(error.qx_msgInsert, one.insert);
    }
}

TEST_F(ftx_files, source_that_cannot_be_opened_is_an_element_with_its_reason) {
    std::filesystem::create_directory(folder / "from/folder");
    folder.write("from/target", "x");
    ASSERT_EQ(symlink("target", (folder / "from/link").c_str()), 0);
    struct {
        std::string name;
        std::string reason;
    } cases[] = {{"from/missing", "errno 2, No such file or directory"},
                 {"from/folder", "errno 21, Is a directory"},
                 {"from/link", "errno 40, Too many levels of symbolic links"},
                 {"/proc/self/maps", "errno 13, Permission denied"}};
    for (const auto& one : cases) {
        ASSERT_TRUE(run({.source = one.name}));
        EXPECT_EQ(sent_file().ftxe_status, 'E');
        EXPECT_EQ(sent_file().ftxe_msgnr, number_transfer_open_failed);
        EXPECT_EQ(sent_file().insert, "4711|" + one.name + "|" + one.reason);
        EXPECT_TRUE(destination->elements.empty());
        EXPECT_TRUE(destination->has(FTX_SYNC_SEEN));
    }
    ftx_glb().fgx_Linkfiles = true;
    ASSERT_TRUE(run({.source = "from/link"}));
    EXPECT_EQ(folder.read("to/file"), "x");
    EXPECT_EQ(sent_file().ftxe_flag & FTXE_KINDS, FTXE_LINK);
}

TEST_F(ftx_files, abort_on_error_sends_nothing_behind_the_failed_file) {
    folder.write("from/a", "a");
    for (const bool reading : {false, true}) {
        prepare({.source = "from/*",
                 .destination = "to/*",
                 .overwrite = 'Y',
                 .wildcard = true,
                 .flags = FTX_ABORT_ON_ERROR});
        ASSERT_EQ(list(), 0);
        source->simulate_readerror = reading ? 1 : 0;
        if (!reading) {
            ftxe_addnew(source.get(), 0)->source_name = "from/gone";
        }
        ftxe_addnew(source.get(), 1)->source_name = "from/a";
        ASSERT_TRUE(send());
        EXPECT_EQ(sent_file(0).ftxe_status, 'E');
        EXPECT_EQ(sent_file(1).ftxe_status, 'W');
        EXPECT_EQ(source->ftx_msgNr, reading ? 0 : number_transfer_open_failed);
        EXPECT_EQ(source->ftx_progress, FTX_SYNC_ISSUED);
        EXPECT_FALSE(folder.exists("to/a"));
    }
}

TEST_F(ftx_files, overwrite_does_what_its_letter_says) {
    folder.write("from/file", "new");
    struct {
        char letter;
        bool old;
        std::string result;  // empty: refused, and the old one stays
    } cases[] = {{'N', false, "new"}, {'N', true, ""},     {'Y', false, "new"},
                 {'Y', true, "new"},  {'A', false, "new"}, {'A', true, "oldnew"}};
    for (const auto& one : cases) {
        for (const char temp : {'0', '1'}) {
            ftx_glb().fgx_Temp_File = temp;
            unlink((folder / "to/file").c_str());
            if (one.old) {
                folder.write("to/file", "old");
            }
            ASSERT_TRUE(run({.overwrite = one.letter}));
            const bool refused = one.result.empty();
            EXPECT_EQ(folder.read("to/file"), refused ? "old" : one.result) << one.letter << one.old;
            EXPECT_EQ(arrived().ftxe_status, refused ? 'E' : 'C');
            EXPECT_EQ(arrived().ftxe_msgnr, refused ? number_destination_exists : 0);
            EXPECT_EQ(arrived().ftxe_errno, refused ? EEXIST : 0);
            EXPECT_EQ(arrived().insert, refused ? "to/file|" : "");
            EXPECT_EQ(tree("to").size(), 1U);
        }
    }
}

TEST_F(ftx_files, only_a_file_close_without_an_error_gives_the_final_name) {
    const std::string temp = "to/AAAAGZF_3.tmp";
    const auto begin = [&] {
        prepare({});
        give_open(3, "");
        give_data("part");
        EXPECT_TRUE(folder.exists(temp));
    };
    ControlStream error;
    cbsPutInt(&error, "ERROR_NR", number_transfer_read_failed);
    cbsPutString(&error, "ERROR_INSERT", "4711|x|5(why)");
    begin();
    EXPECT_EQ(give(CTRL_FILE_CLOSE, error), 0);
    EXPECT_EQ(arrived(3).ftxe_status, 'E');
    EXPECT_EQ(arrived(3).insert, "4711|x|5(why)");
    EXPECT_EQ(folder.read(temp), "part");
    unlink((folder / temp).c_str());
    for (const int control : {CTRL_SYNC, CTRL_FILE_OPEN, CTRL_MAKE_DIR}) {
        begin();
        ControlStream item;
        cbsPutInt(&item, "OID", 4);
        give(control, item);
        EXPECT_EQ(arrived(3).ftxe_status, 'A');
        EXPECT_EQ(give(CTRL_FILE_CLOSE, ""), 0);
        EXPECT_EQ(folder.read(temp), "part");
        std::filesystem::remove_all(folder / "to");
        std::filesystem::create_directory(folder / "to");
    }
}

TEST_F(ftx_files, file_whose_source_will_go_is_complete_when_it_is_on_the_disk) {
    constexpr int count = 70;  // more than wait at a time
    prepare({.source = "from/*", .destination = "to/*", .wildcard = true});
    destination->ftx_erase = 'Y';
    const auto name = [](int oid) { return "name" + std::to_string(oid); };
    for (int oid = 0; oid < count; ++oid) {
        give_open(oid, "from/" + name(oid));
        give_data(std::to_string(oid));
        EXPECT_EQ(give(CTRL_FILE_CLOSE, ""), 0);
    }
    EXPECT_EQ(arrived(0).ftxe_status, 'C');
    EXPECT_EQ(arrived(count - 1).ftxe_status, 'A');
    EXPECT_FALSE(folder.exists("to/" + name(count - 1)));
    folder.write("to/" + name(count - 2), "theirs");
    dst_settle(destination.get());
    for (int oid = 0; oid < count; ++oid) {
        const bool lost = oid == count - 2;
        EXPECT_EQ(arrived(oid).ftxe_status, lost ? 'E' : 'C') << oid;
        EXPECT_EQ(folder.read("to/" + name(oid)), lost ? "theirs" : std::to_string(oid));
    }
    give_open(count, "from/again");
    give(CTRL_FILE_CLOSE, "");
    give_open(count, "from/again");
    EXPECT_EQ(folder.read("to/again"), "") << "the first one has ended";
}

TEST_F(ftx_files, name_that_appears_meanwhile_is_not_replaced_without_leave) {
    for (const char letter : {'N', 'A', 'Y'}) {
        prepare({.overwrite = letter});
        give_open(0, "");
        give_data("mine");
        folder.write("to/file", "theirs");
        give(CTRL_FILE_CLOSE, "");
        EXPECT_EQ(arrived().ftxe_status, letter == 'Y' ? 'C' : 'E');
        EXPECT_EQ(arrived().ftxe_msgnr, letter == 'Y' ? 0 : number_destination_exists);
        EXPECT_EQ(folder.read("to/file"), letter == 'Y' ? "mine" : "theirs");
        std::filesystem::remove_all(folder / "to");
        std::filesystem::create_directory(folder / "to");
    }
}

TEST_F(ftx_files, names_of_a_partner_stay_where_the_order_says) {
    std::filesystem::create_directory(folder / "to/in");
    struct {
        std::string source, destination, name;
        int type;
        bool refused;
    } cases[] = {
        {"/base/*", "to/in/*", "/base/../../etc/x", 0, true},
        {"/base/*", "to/in/*", "/base/..", 0, true},
        {"/base/*", "to/in/*", "/base/./x", 0, false},
        {"/base/*", "to/in/*", "/base/..x", 0, false},
        {"*", "to/in/&1", "../x", 2, true},
        {"A.*", "to/in/*", "A./../../x", 2, true},
        {"/base/*", "to/in/../*", "/base/x", 0, false},
        {"/base/*", "to/in/*/../y", "/base/x", 0, true},
        {"/base/*", "to/in/*", std::string("/base/a\0b", 9), 0, true},
        {"/base/*", "to/in/*", "/other/x", 0, true},
        {"/base/*", "to/in/*", "", 0, true},
        {"/base/*", "to/in/*", "/base/" + std::string(3000, 'x'), 0, true},
        {"/base/*", "to/in/*", "/base/x", 77, true},
    };
    for (const auto& one : cases) {
        prepare({.source = one.source, .destination = one.destination, .overwrite = 'Y', .wildcard = true});
        destination->ftx_src_hosttype = one.type;
        EXPECT_EQ(give_open(0, one.name), 0);
        EXPECT_EQ(arrived().ftxe_status, one.refused ? 'E' : 'A') << one.name;
        EXPECT_EQ(destination->file.valid(), !one.refused);
        dst_closeUnfinished(destination.get());
        EXPECT_FALSE(folder.exists("to/x") && one.refused);
    }
    const std::string folders[] = {"/base/../x", "/bas", "", "/elsewhere/base/", "/base/x/../../y"};
    for (const std::string& name : folders) {
        prepare({.source = "/base/*", .destination = "to/in/*", .wildcard = true});
        ControlStream item;
        cbsPutInt(&item, "OID", 0);
        cbsPutString(&item, "FNAME", name);
        EXPECT_EQ(give(CTRL_MAKE_DIR, item), 0);
        EXPECT_EQ(arrived().ftxe_msgnr, number_name_differs) << name;
    }
    EXPECT_EQ(tree("to/in").count("y/"), 0U);
}

TEST_F(ftx_files, items_that_no_partner_sends_end_the_stream) {
    prepare({});
    ControlStream no_oid;
    cbsPutString(&no_oid, "FNAME", "x");
    ControlStream negative;
    cbsPutInt(&negative, "OID", -1);
    for (const ControlStream& item : {no_oid, negative, ControlStream("00009:xx"), ControlStream()}) {
        EXPECT_EQ(give(CTRL_FILE_OPEN, item), number_partner_misbehaves);
        EXPECT_EQ(give(CTRL_MAKE_DIR, item), number_partner_misbehaves);
        EXPECT_EQ(give(CTRL_FILE_CLOSE, item), 0);
        EXPECT_EQ(give(CTRL_RESTART_INFO, item), 0);
    }
    for (const int control : {7, 99, -1, CTRL_RECORD_END | CTRL_FILE_OPEN | 0x1000}) {
        EXPECT_EQ(give(control, ""), number_partner_misbehaves);
    }
    give_data("dropped");
    EXPECT_TRUE(destination->elements.empty());
    EXPECT_TRUE(tree("to").empty());
}

TEST_F(ftx_files, missing_folders_are_made_behind_the_fixed_part) {
    struct {
        std::string destination, name;
        bool wildcard;
        bool made;
    } cases[] = {{"to/a/b/*", "from/c/d/e", true, false},
                 {"to/a/*", "from/c/d/e", true, true},
                 {"to/a/file", "", false, true},
                 {"to/b/b/file", "", false, false}};
    for (const auto& one : cases) {
        prepare({.source = "from/*", .destination = one.destination, .wildcard = one.wildcard});
        give_open(0, one.name);
        EXPECT_EQ(arrived().ftxe_status, one.made ? 'A' : 'E') << one.destination;
        EXPECT_EQ(arrived().ftxe_msgnr, one.made ? 0 : number_transfer_open_failed);
        dst_closeUnfinished(destination.get());
        std::filesystem::remove_all(folder / "to/a");
    }
    folder.write("to/file", "");
    prepare({.source = "from/*", .destination = "to/*", .wildcard = true});
    for (const char* name : {"from/new/deep", "from/new", "from/file"}) {
        ControlStream item;
        cbsPutInt(&item, "OID", 0);
        cbsPutString(&item, "FNAME", name);
        give(CTRL_MAKE_DIR, item);
        const bool there = std::string(name) == "from/new";
        const bool file = std::string(name) == "from/file";
        EXPECT_EQ(arrived().ftxe_status, file ? 'E' : 'C');
        EXPECT_EQ(arrived().ftxe_msgnr, file ? number_folder_not_made : there ? -1 : 0);
    }
}

TEST_F(ftx_files, failed_writes_and_full_disks_are_told) {
    folder.write("from/file", bytes_of(100000, 2));
    signal(SIGXFSZ, SIG_IGN);
    for (const bool simulated : {false, true}) {
        for (const char type : {'B', 'T'}) {
            prepare({.type = type});
            ASSERT_EQ(list(), 0);
            rlimit old;
            getrlimit(RLIMIT_FSIZE, &old);
            const rlimit small = {20000, old.rlim_max};
            source->store.reset();
            if (simulated) {
                destination->simulate_writeerror = 1;
            } else {
                setrlimit(RLIMIT_FSIZE, &small);
            }
            EXPECT_TRUE(send());
            setrlimit(RLIMIT_FSIZE, &old);
            EXPECT_EQ(arrived().ftxe_status, 'E');
            EXPECT_EQ(arrived().ftxe_msgnr, number_transfer_write_failed);
            EXPECT_EQ(arrived().insert, simulated ? "4711|to/file|errno 5(Input/output error)"
                                                  : "4711|to/file|errno 27(File too large)");
            EXPECT_FALSE(folder.exists("to/file"));
            std::filesystem::remove_all(folder / "to");
            std::filesystem::create_directory(folder / "to");
        }
    }
    ftx_glb().fgx_fsSpaceCheck = true;
    prepare({});
    give_open(0, "", INT64_MAX);
    EXPECT_EQ(arrived().ftxe_msgnr, number_no_space);
    EXPECT_EQ(arrived().ftxe_errno, ENOSPC);
    EXPECT_TRUE(has_form(arrived().insert, "4711|to/file|9223372036854775807|9*"));
    EXPECT_TRUE(tree("to").empty());
}

TEST_F(ftx_files, source_is_erased_only_as_it_was_sent) {
    const auto file = [&] { return folder.write("from/file", "sent"); };
    const auto erase = [&](auto change) {
        file();
        EXPECT_TRUE(run({.overwrite = 'Y'}));
        change();
        qx7_error error;
        const int result = FTX_removeFile(source.get(), &source->elements.at(0), &error);
        EXPECT_EQ(folder.exists("from/file"), result != 0 && error.qx_errno != ENOENT);
        EXPECT_EQ(error.qx_msgnr, result == 0 ? 0 : number_source_erase_failed);
        return error.qx_errno;
    };
    EXPECT_EQ(erase([] {}), 0);
    EXPECT_EQ(erase([&] { folder.write("from/file", "longer"); }), ESTALE);
    EXPECT_EQ(erase([&] { folder.write("from/file", "same"); }), ESTALE);
    EXPECT_EQ(erase([&] {
                  folder.write("from/other", "sent");
                  rename((folder / "from/other").c_str(), (folder / "from/file").c_str());
              }),
              ESTALE);
    EXPECT_EQ(erase([&] { unlink((folder / "from/file").c_str()); }), ENOENT);
}

TEST_F(ftx_files, source_that_is_too_deep_spoils_neither_the_list_nor_a_restart) {
    std::string deep = "from";
    for (int i = 0; i < 9; ++i) {
        deep += "/" + std::string(240, 'd');
    }
    std::filesystem::create_directories(folder / deep);
    folder.write(deep + "/file", "x");
    folder.write("from/file", "y");
    for (const char restart : {ftx_anew, ftx_resume}) {
        qx7_error error;
        prepare({.source = "from/*",
                 .destination = "to/*",
                 .overwrite = 'Y',
                 .restart = restart,
                 .wildcard = true});
        ASSERT_EQ(ss_saveFTX(source.get(), &error), 0) << error.qx_msgInsert;
        ASSERT_EQ(list(&error), 0) << error.qx_msgInsert;
        ASSERT_EQ(ss_saveFTX(source.get(), &error), 0);
        ASSERT_TRUE(send());
        EXPECT_EQ(tree("to"), (tree_of{{"file", "y"}}));
        EXPECT_EQ(source->ftx_nof_error, 1);
        EXPECT_EQ(source->elements.size(), 2U);
        source.reset();  // and its store
    }
}

// ---- What others have prepared

TEST_F(ftx_files, prepared_temporary_names_lead_nowhere) {
    const std::string victim = folder.write("victim", "precious");
    folder.write("from/file", "content");
    const std::string temp = folder / "to/AAAAGZF_0.tmp";
    ASSERT_EQ(symlink(victim.c_str(), temp.c_str()), 0);
    ASSERT_TRUE(run({}));  // to the destination itself
    EXPECT_EQ(arrived().ftxe_status, 'C');
    EXPECT_EQ(folder.read("to/file"), "content");
    unlink((folder / "to/file").c_str());
    ASSERT_TRUE(run({.repeats = id}));
    EXPECT_EQ(arrived().ftxe_msgnr, number_transfer_open_failed);
    EXPECT_FALSE(folder.exists("to/file"));
    unlink(temp.c_str());
    ASSERT_EQ(link(victim.c_str(), temp.c_str()), 0);
    ASSERT_TRUE(run({.repeats = id}));
    EXPECT_EQ(arrived().ftxe_msgnr, number_transfer_open_failed);
    EXPECT_EQ(folder.read("victim"), "precious");
}

TEST_F(ftx_files, links_of_others_are_not_followed_and_own_ones_are) {
    std::filesystem::create_directory(folder / "secret");
    folder.write("secret/file", "precious");
    folder.write("from/file", "content");
    ASSERT_EQ(symlink("../secret", (folder / "to/sub").c_str()), 0);
    ASSERT_EQ(symlink("../secret/file", (folder / "to/link").c_str()), 0);
    ASSERT_TRUE(run({.destination = "to/sub/new"}));
    EXPECT_EQ(folder.read("secret/new"), "content");
    ASSERT_TRUE(run({.destination = "to/link", .overwrite = 'Y'}));
    EXPECT_EQ(folder.read("secret/file"), "content");
    if (!runs_as_root()) {
        return;
    }
    folder.write("secret/file", "precious");
    ASSERT_EQ(lchown((folder / "to/sub").c_str(), 12345, 12345), 0);
    ASSERT_EQ(lchown((folder / "to/link").c_str(), 12345, 12345), 0);
    ASSERT_TRUE(run({.destination = "to/sub/newer"}));
    EXPECT_EQ(arrived().insert, "4711|to/sub/newer|errno 13, Permission denied");
    ASSERT_TRUE(run({.destination = "to/link", .overwrite = 'Y'}));
    EXPECT_EQ(folder.read("to/link"), "content");  // in the link's place
    EXPECT_EQ(tree("secret"), (tree_of{{"file", "precious"}, {"new", "content"}}));
}

TEST_F(ftx_files, folder_that_becomes_a_link_is_not_entered_for_its_files) {
    std::filesystem::create_directories(folder / "from/sub");
    std::filesystem::create_directory(folder / "secret");
    folder.write("from/sub/file", "public");
    folder.write("secret/file", "secret");
    prepare({.source = "from/*", .destination = "to/*", .wildcard = true});
    ASSERT_EQ(list(), 0);
    std::filesystem::remove_all(folder / "from/sub");
    ASSERT_EQ(symlink("../secret", (folder / "from/sub").c_str()), 0);
    ASSERT_TRUE(send());
    EXPECT_EQ(sent_file().insert, "4711|from/sub/file|errno 40, Too many levels of symbolic links");
    EXPECT_TRUE(tree("to").empty());
}

TEST_F(ftx_files, folder_that_becomes_a_link_is_not_entered_to_erase) {
    std::filesystem::create_directories(folder / "from/sub");
    std::filesystem::create_directory(folder / "precious");
    folder.write("from/sub/file", "public");
    ASSERT_TRUE(run({.source = "from/*", .destination = "to/*", .wildcard = true}));
    ftx_leave_folder(source.get());
    rename((folder / "from/sub/file").c_str(), (folder / "precious/file").c_str());
    std::filesystem::remove(folder / "from/sub");
    ASSERT_EQ(symlink("../precious", (folder / "from/sub").c_str()), 0);
    qx7_error error;
    EXPECT_EQ(FTX_removeFile(source.get(), &source->elements.at(0), &error), -1);
    EXPECT_EQ(error.qx_errno, ELOOP);
    EXPECT_TRUE(folder.exists("precious/file"));
}

}  // namespace
