// Transfers by the older protocol: every byte arrives, or the end says why not.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "legacy_fixture.h"

namespace {

struct legacy_transfer : legacy_test {
    std::string source = folder / "source";
    std::string place = folder / "there";
    std::string destination = place + "/file";

    void SetUp() override {
        legacy_test::SetUp();
        std::filesystem::create_directory(place);
    }
    legacy_order order_of(char type = FT_BINARY) const {
        return {.source = source, .destination = destination, .type = type};
    }
};

TEST_F(legacy_transfer, every_byte_of_a_binary_file_arrives) {
    int id = 0;
    for (const size_t size : {0u, 1u, 32231u, 32232u, 32233u, 65536u, 300000u}) {
        for (const char compress : {FT_PLAIN, FT_PACKED, FT_STRONG}) {
            const std::string content = some_bytes(size / 2) + std::string(size - size / 2, 'z');
            write_text(source, content);
            legacy_order order = order_of();
            order.id = ++id;
            order.compress = compress;
            order.overwrite = FT_REPLACE;
            order.version = 1 + id % 2;
            transfer(order);
            ASSERT_EQ(end().msgnr, 0) << size << compress << end().msg_insert;
            ASSERT_TRUE(read_text(destination) == content) << size << compress;
            EXPECT_EQ(end().anzahl, static_cast<int64_t>(size));
            EXPECT_EQ(files_in(place), 1u);
            EXPECT_TRUE(firstFT().empty());
        }
    }
}

// The lines of a text, each with the given end; the last keeps none where the source had none.
std::string with_ends(const std::string& text, const std::string& line_end, bool strip_cr) {
    std::string result;
    size_t at = 0;
    while (at < text.size()) {
        const size_t found = text.find('\n', at);
        std::string one = text.substr(at, found == std::string::npos ? found : found - at);
        if (strip_cr && one.ends_with('\r')) {
            one.pop_back();
        }
        result += one + (found == std::string::npos ? "" : line_end);
        at = found == std::string::npos ? text.size() : found + 1;
    }
    return result;
}

TEST_F(legacy_transfer, lines_of_a_text_get_the_ends_that_were_ordered) {
    const std::string texts[] = {"",
                                 "\n",
                                 "a",
                                 "a\n",
                                 "a\r\nb\n\nc",
                                 "\n\n\n",
                                 some_lines(3000),
                                 std::string(31744, 'l') + "\n" + std::string("x\0y", 3) + "\r"};
    int id = 100;
    for (const std::string& text : texts) {
        for (const char* receiver : {"", "nl=lf", "nl=crlf", "nl=none"}) {
            for (const char* sender : {"", "nl=m"}) {
                write_text(source, text);
                legacy_order order = order_of(FT_TEXT);
                order.id = ++id;
                order.overwrite = FT_REPLACE;
                order.compress = id % 3 == 0 ? FT_PACKED : FT_PLAIN;
                order.sender_rest = sender;
                order.receiver_rest = receiver;
                transfer(order);
                const std::string rule = receiver;
                const std::string line_end = rule == "nl=crlf" ? "\r\n" : rule == "nl=none" ? "" : "\n";
                ASSERT_EQ(end().msgnr, 0) << text.size() << sender << receiver << end().msg_insert;
                ASSERT_EQ(read_text(destination), with_ends(text, line_end, *sender != '\0'))
                    << sender << receiver;
            }
        }
    }
}

TEST_F(legacy_transfer, records_without_ends_and_code_tables) {
    write_text(source, "abcdefgh");
    legacy_order order = order_of(FT_TEXT);
    order.sender_rest = "RECLEN=3";
    order.code.resize(512, '\1');
    for (int i = 0; i < 256; ++i) {
        order.code[static_cast<size_t>(i)] = static_cast<char>(i == 'b' ? 'B' : i);
    }
    transfer(order);
    EXPECT_EQ(read_text(destination), "aBc\ndef\ngh\n");
    EXPECT_EQ(end().records, 3);
    EXPECT_EQ(end().anzahl, 8 + 3 * 2);
}

TEST_F(legacy_transfer, goes_only_as_far_as_the_order_allows) {
    struct limit_case {
        std::string text;
        int maxrecords;
        int number;
        std::string insert;
    };
    for (const limit_case& one : {limit_case{std::string(31745, 'x') + "\n", 0, 11420, "31744|"},
                                  {"a\nb\nc\n", 2, 1911, ""},
                                  {"a\nb\n", 2, 0, ""}}) {
        write_text(source, one.text);
        legacy_order order = order_of(FT_TEXT);
        order.maxrecords = one.maxrecords;
        transfer(order);
        EXPECT_EQ(end().msgnr, one.number);
        EXPECT_EQ(get_text(end().msg_insert), one.insert);
        EXPECT_EQ(std::filesystem::exists(destination), one.number == 0);
        EXPECT_EQ(files_in(place), one.number == 0 ? 1u : 0u) << "half a file does not stay";
        EXPECT_TRUE(logged(one.number == 0 ? 11408 : 11409));
    }
}

TEST_F(legacy_transfer, what_stands_there_is_kept_replaced_or_extended) {
    struct place_case {
        char overwrite;
        int number;
        const char* content;
    };
    write_text(source, "new");
    for (const place_case& one :
         {place_case{FT_KEEP, 2003041, "old"}, {FT_REPLACE, 0, "new"}, {FT_APPEND, 0, "oldnew"}}) {
        write_text(destination, "old");
        ASSERT_EQ(chmod(destination.c_str(), 0640), 0);
        legacy_order order = order_of();
        order.overwrite = one.overwrite;
        transfer(order);
        EXPECT_EQ(end().msgnr, one.number) << one.overwrite;
        if (one.number != 0) {
            EXPECT_EQ(get_text(end().msg_insert), "FT_Recv()|" + destination + "|17|File exists|");
        }
        EXPECT_EQ(read_text(destination), one.content);
        struct stat status;
        ASSERT_EQ(stat(destination.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777u, 0640u);
    }
}

// Somebody else may have prepared what the name leads to.
TEST_F(legacy_transfer, nothing_is_written_through_a_link) {
    write_text(source, "new");
    const std::string foreign = folder / "foreign";
    for (const char overwrite : {FT_KEEP, FT_REPLACE, FT_APPEND}) {
        write_text(foreign, "foreign");
        unlink(destination.c_str());
        ASSERT_EQ(symlink(foreign.c_str(), destination.c_str()), 0);
        legacy_order order = order_of();
        order.overwrite = overwrite;
        transfer(order);
        EXPECT_EQ(end().msgnr, overwrite == FT_REPLACE ? 0 : 2003041);
        EXPECT_EQ(read_text(foreign), "foreign");
    }
    EXPECT_EQ(symlink(foreign.c_str(), (place + "/TAAAAAAH.tmp").c_str()), 0);
    unlink(destination.c_str());
    legacy_order order = order_of();
    order.id = 7;
    transfer(order);
    EXPECT_EQ(end().msgnr, 11470);
    EXPECT_EQ(read_text(foreign), "foreign");
}

TEST_F(legacy_transfer, a_new_file_has_its_name_only_when_it_is_whole) {
    write_text(source, some_bytes(200000));
    start(order_of());
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(step());
    }
    EXPECT_FALSE(std::filesystem::exists(destination));
    EXPECT_TRUE(std::filesystem::exists(place + "/TAAAAAAB.tmp"));
    EXPECT_TRUE(FT_IsActive());

    auto cancel = new_message<MSG_TYPE_FT_CAN>(client, number);
    cancel.ah_idnr = 2;
    told.clear();
    give(process_ft_cancel, cancel, CCM_FROM_SERVER);
    take_sent();
    EXPECT_EQ(told.at(0).as<MSG_TYPE_QUITT>().msgnr, 11426);
    cancel.ah_idnr = 1;
    give(process_ft_cancel, cancel, CCM_FROM_SERVER);
    run();
    EXPECT_EQ(told.at(1).as<MSG_TYPE_QUITT>().msgnr, 11425);
    EXPECT_EQ(end().msgnr, 1850);
    EXPECT_EQ(files_in(place), 0u);
    EXPECT_FALSE(FT_IsActive());
}

TEST_F(legacy_transfer, erases_the_source_that_has_arrived_and_no_other) {
    legacy_order order = order_of();
    order.erase = FT_ERASE;
    write_text(source, "one");
    transfer(order);
    EXPECT_EQ(end().msgnr, 0);
    EXPECT_FALSE(std::filesystem::exists(source));
    EXPECT_EQ(read_text(destination), "one");

    write_text(source, "two");
    order.overwrite = FT_REPLACE;
    start(order);
    ASSERT_TRUE(step());
    write_text(source + ".new", "three");
    rename((source + ".new").c_str(), source.c_str());
    run();
    EXPECT_EQ(end().msgnr, 11460);
    EXPECT_EQ(get_text(end().msg_insert).substr(0, source.size() + 5), source + "|116|");
    EXPECT_EQ(read_text(source), "three");
    EXPECT_EQ(read_text(destination), "two");
}

TEST_F(legacy_transfer, refusals_tell_their_reason) {
    struct refusal_case {
        const char* source;
        const char* destination;
        int number;
        std::string insert;  // its beginning
    };
    write_text(source, "x");
    const refusal_case cases[] = {
        {"relative", "/x", 2003051, "relative|"},
        {"/no/such/file", "/x", 2003041, "stat|/no/such/file|2|"},
        {folder.path.c_str(), "/x", 2003035, folder.path + "|"},
        {source.c_str(), "relative", 2003051, "relative|"},
        {source.c_str(), "/tmp/", 11405, "/tmp/|"},
        {source.c_str(), "/no/such/place", 2003041, "stat|/no/such|2|"},
        {source.c_str(), place.c_str(), 2003041, "FT_WiteFF()|" + place + "|21|"},
    };
    for (const refusal_case& one : cases) {
        legacy_order order = order_of();
        order.source = one.source;
        order.destination = one.destination;
        transfer(order);
        EXPECT_EQ(end().msgnr, one.number) << one.source << one.destination;
        EXPECT_EQ(get_text(end().msg_insert).substr(0, one.insert.size()), one.insert);
        EXPECT_TRUE(firstFT().empty());
    }
    pcx->pcx_FtPwCheck = 1;
    transfer(order_of());
    EXPECT_EQ(end().msgnr, 2000096);
    pcx->pcx_FtPwCheck = 0;
    pcx->upgrade_ah_idnr = 9;
    transfer(order_of());
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].as<MSG_TYPE_QUITT>().msgnr, 65);
    pcx->upgrade_ah_idnr = 0;
    ccm_channel_silencebyID(ccm, channel);
    transfer(order_of());
    EXPECT_EQ(end().msgnr, 2003029);
    EXPECT_EQ(get_text(end().msg_insert), "PEER|");
}

// A partner may send what it likes.
TEST_F(legacy_transfer, a_partner_reaches_no_further_than_its_own_transfers) {
    write_text(source, some_bytes(100000));
    start(order_of());
    ASSERT_TRUE(step());
    EXPECT_EQ(firstFT().size(), 2u);
    auto data = new_message<MSG_TYPE_FT_DATA>(client, number);
    data.i4transid = 77;
    give(process_ft_data, data, CCM_FROM_PARTNER, 0, 77);
    take_sent();
    EXPECT_EQ(line.back().as<MSG_TYPE_FT_QUIT>().msgnr, 11462);
    line.pop_back();

    // A second order with the number of the first.
    auto again = new_message<MSG_TYPE_FT_RECV>(client, number, 2);
    again.ft_recv.ah_idnr = 1;
    put_text(again.ft_recv.dst_file, place + "/other");
    give(process_ft_send_recv, again, CCM_FROM_PARTNER);
    take_sent();
    EXPECT_EQ(line.back().as<MSG_TYPE_FT_QUIT>().msgnr, 63048);
    line.pop_back();
    EXPECT_EQ(firstFT().size(), 2u);
    run();
    EXPECT_EQ(end().msgnr, 0);

    // An order is the server's.
    auto send = new_message<MSG_TYPE_FT_SEND>(client, number, 2);
    give(process_ft_send_recv, send, CCM_FROM_PARTNER);
    EXPECT_TRUE(logged(1002207));
    EXPECT_EQ(ccm_channel_existbyID(ccm, channel), 0);
}

TEST_F(legacy_transfer, a_damaged_block_ends_it) {
    write_text(source, std::string(50000, 'a') + some_bytes(50000));
    legacy_order order = order_of();
    order.compress = FT_PACKED;
    start(order);
    ASSERT_TRUE(step());
    ASSERT_TRUE(step());
    ASSERT_EQ(line.front().type(), "FT_DATA ");
    std::fill(line.front().body.begin() + 26, line.front().body.end(), static_cast<unsigned char>(0xff));
    run();
    EXPECT_NE(end().msgnr, 0);
    EXPECT_EQ(files_in(place), 0u);
    EXPECT_TRUE(firstFT().empty());
}

TEST_F(legacy_transfer, a_silent_partner_is_given_up) {
    write_text(source, some_bytes(100000));
    start(order_of());
    ASSERT_TRUE(step());
    take_sent();
    alarm_clock_advance(ft_idle_limit - 60);
    process_ft_chk(pcx, nullptr, 0);
    EXPECT_FALSE(logged(11415));
    alarm_clock_advance(60);
    process_ft_chk(pcx, nullptr, 0);
    EXPECT_TRUE(logged(11415));
    take_sent();
    EXPECT_EQ(end().msgnr, 11415);
    // The receiving side of this process shares the connection, so it stays.
    EXPECT_EQ(firstFT().size(), 1u);
    EXPECT_TRUE(firstFT().front()->destination);
    alarm_clock_advance(ft_idle_limit);
    process_ft_chk(pcx, nullptr, 0);
    EXPECT_TRUE(firstFT().empty());
    EXPECT_EQ(files_in(place), 0u);

    // Alone on its connection it takes that along.
    start(order_of());
    alarm_clock_advance(ft_idle_limit);
    process_ft_chk(pcx, nullptr, 0);
    EXPECT_EQ(ccm_channel_existbyID(ccm, channel), 0);
    take_sent();
    told.clear();
    cut();
    EXPECT_TRUE(told.empty()) << "the server knows it already";
    EXPECT_TRUE(firstFT().empty());
}

// ---- Lists

struct legacy_list : legacy_transfer {
    void ask(const std::string& mask, char subfolders = ' ') {
        auto order = new_message<MSG_TYPE_FT_DIR>(client, number);
        order.ah_idnr = 5;
        put_text(order.filename, mask);
        order.folder = subfolders;
        told.clear();
        give(process_ft_dir, order, CCM_FROM_SERVER);
        take_sent();
    }
    void acknowledge(const char* status, int acv) {
        auto quitt = new_message<MSG_TYPE_QUITT>(client, number);
        put_text(quitt.quitt, status);
        put_text(quitt.msg, "FT_FILE");
        give(process_ft_quitt_message, quitt, CCM_FROM_SERVER, acv);
        take_sent();
    }
    static void add_names(const sent_message& message, std::vector<std::string>* names) {
        const auto file = message.as<MSG_TYPE_FT_FILE>();
        table_cursor at = view_table(view_message(message.body.data(), message.body.size()), sizeof file);
        for (int i = 0; i < file.fileanz; ++i) {
            const std::string path(cursor_text(&at, 255));
            names->push_back(path + std::string(cursor_text(&at, 255)));
        }
        EXPECT_FALSE(at.failed);
    }
    // All names, one message at a time.
    std::vector<std::string> listed() {
        std::vector<std::string> names;
        while (!told.empty() && told.back().type() == "FT_FILE " &&
               told.back().as<MSG_TYPE_FT_FILE>().fileanz > 0) {
            EXPECT_EQ(told.size(), 1u) << "the next waits for the word on this one";
            add_names(told.back(), &names);
            const int acv = told.back().addr.src_acv;
            EXPECT_EQ(acv, 5);
            told.clear();
            acknowledge("OK", acv);
        }
        EXPECT_EQ(told.size(), 1u) << "an empty one ends the list";
        return names;
    }
};

TEST_F(legacy_list, tells_the_files_of_a_mask) {
    std::filesystem::create_directory(place + "/sub");
    write_text(place + "/b.txt", "");
    write_text(place + "/a.txt", "");
    write_text(place + "/c.log", "");
    write_text(place + "/sub/d.txt", "");
    ask(place + "/*.txt");
    EXPECT_EQ(listed(), (std::vector<std::string>{place + "/a.txt", place + "/b.txt"}));
    EXPECT_FALSE(FT_IsActive());
    ask(place + "/*.txt", '1');
    EXPECT_EQ(listed().size(), 3u);
    ask(place + "/none*");
    EXPECT_TRUE(listed().empty());
    ask("/no/such/folder/*");
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].as<MSG_TYPE_QUITT>().msgnr, 2003041);
}

TEST_F(legacy_list, of_many_names_takes_many_messages_or_is_given_up) {
    for (int i = 0; i < 700; ++i) {
        write_text(place + "/" + std::string(100, 'n') + std::to_string(i), "");
    }
    ask(place + "/");
    EXPECT_EQ(listed().size(), 700u);
    acknowledge("OK", 5);
    ask(place + "/*");
    acknowledge("NK", 5);
    EXPECT_FALSE(FT_IsActive());
    acknowledge("OK", 5);
    EXPECT_TRUE(logged(3610)) << "nobody waits for that";
}

}  // namespace
