// What a transfer by the older protocol does after it was cut, and what restart data may claim.
#include <unistd.h>

#include <algorithm>

#include "legacy_fixture.h"
#include "transfer/legacy/restart_data.h"

namespace {

struct legacy_restart : legacy_test {
    std::string source = folder / "source";
    std::string place = folder / "there";
    std::string destination = place + "/file";
    legacy_order order;

    void SetUp() override {
        legacy_test::SetUp();
        std::filesystem::create_directory(place);
        order.source = source;
        order.destination = destination;
        order.resume = FT_CAN_RESUME;
    }

    // Begins, and is cut when so many blocks have arrived. `heard`: the sender has the answer to the last.
    void begin(int until, bool heard) {
        start(order);
        while (blocks < until && step()) {
        }
        if (heard) {
            step();
        }
        cut();
    }
    void go_on() {
        order.cont = restart_data();
        order.resume = FT_DO_RESUME;
        order.id += 1;
        transfer(order);
    }
};

TEST_F(legacy_restart, goes_on_where_it_was_cut) {
    std::string text = some_bytes(400000);
    std::replace(text.begin(), text.end(), '\0', '\n');
    const int64_t records = std::count(text.begin(), text.end(), '\n') + 1;
    int id = 0;
    for (const char type : {FT_BINARY, FT_TEXT}) {
        for (const char compress : {FT_PLAIN, FT_PACKED}) {
            for (const bool heard : {true, false}) {
                const std::string content = type == FT_TEXT ? text + "last" : some_bytes(400000);
                write_text(source, content);
                order = {.id = id += 10,
                         .source = source,
                         .destination = destination,
                         .type = type,
                         .compress = compress,
                         .resume = FT_CAN_RESUME};
                begin(3, heard);
                EXPECT_EQ(end().msgnr, 11416);
                EXPECT_EQ(get_text(end().msg_insert), "PEER|");
                EXPECT_FALSE(std::filesystem::exists(destination));
                EXPECT_EQ(files_in(place), 1u) << "what has arrived stays";
                go_on();
                ASSERT_EQ(end().msgnr, 0) << type << compress << heard << end().msg_insert;
                EXPECT_TRUE(read_text(destination) == content) << type << compress << heard;
                EXPECT_EQ(files_in(place), 1u);
                EXPECT_EQ(end().records, type == FT_TEXT ? records : 0);
                EXPECT_FALSE(logged(11445)) << "nothing is sent twice";
                unlink(destination.c_str());
            }
        }
    }
}

TEST_F(legacy_restart, begins_anew_where_it_cannot_go_on) {
    const std::string content = some_bytes(200000);
    const std::string temporary = place + "/TAAAAAAB.tmp";
    const std::function<void()> faults[] = {
        [&] { unlink(temporary.c_str()); },
        [&] { ASSERT_EQ(truncate(temporary.c_str(), 5), 0); },
        [&] { ASSERT_EQ(unlink(temporary.c_str()) | symlink(source.c_str(), temporary.c_str()), 0); },
        [&] { write_text(source, content + "grown"); },
        [&] { order.destination = place + "/another"; },
        [&] { told.clear(); },  // the server gives no restart data back
    };
    for (const auto& fault : faults) {
        write_text(source, content);
        order = {.source = source, .destination = destination, .resume = FT_CAN_RESUME};
        begin(3, true);
        fault();
        const std::string now = read_text(source);
        go_on();
        EXPECT_EQ(end().msgnr, 0) << &fault - faults << " " << end().msg_insert;
        EXPECT_TRUE(logged(11445)) << &fault - faults;
        EXPECT_TRUE(read_text(order.destination) == now) << &fault - faults;
        EXPECT_TRUE(read_text(source) == now) << &fault - faults;
        std::filesystem::remove_all(place);
        std::filesystem::create_directory(place);
        module_test_log.clear();
    }
}

// What a failed block has changed in the receiver's figures is not what stands in its file.
TEST_F(legacy_restart, goes_on_after_a_block_that_failed) {
    const std::string content = some_bytes(300000);
    write_text(source, content);
    order.compress = FT_PACKED;
    start(order);
    while (blocks < 3 && step()) {
    }
    take_sent();
    while (line.front().type() != "FT_DATA ") {
        ASSERT_TRUE(step());
    }
    // Good at its begin.
    std::fill(line.front().body.begin() + 20000, line.front().body.end(), static_cast<unsigned char>(0xff));
    run();
    ASSERT_NE(end().msgnr, 0);
    go_on();
    EXPECT_EQ(end().msgnr, 0) << end().msg_insert;
    EXPECT_FALSE(logged(11445));
    EXPECT_TRUE(read_text(destination) == content);
    // An order that comes to nothing leaves the data as they were.
    order.source = folder / "none";
    transfer(order);
    EXPECT_EQ(end().msgnr, 2003041);
    EXPECT_EQ(restart_data(), "");
}

TEST_F(legacy_restart, what_existed_before_is_not_lost_to_it) {
    write_text(source, some_bytes(200000));
    write_text(destination, "old");
    order.overwrite = FT_APPEND;
    begin(3, true);
    go_on();
    EXPECT_EQ(end().msgnr, 0);
    EXPECT_TRUE(read_text(destination) == "old" + read_text(source));
    // Without restart data nobody knows which part of it is old.
    order.cont.clear();
    order.id += 1;
    transfer(order);
    EXPECT_EQ(end().msgnr, 2003041);
    EXPECT_TRUE(read_text(destination) == "old" + read_text(source));
}

TEST_F(legacy_restart, a_name_that_failed_is_given_alone) {
    const std::string content = some_bytes(100000);
    write_text(source, content);
    open_module("[FT]\nFtRemoveFile=no\n");
    transfer(order);
    EXPECT_EQ(end().msgnr, 11471);
    EXPECT_FALSE(std::filesystem::exists(destination));
    ft_config().rename_file = true;
    order.cont = restart_data();
    order.resume = FT_DO_RESUME;
    order.id += 1;
    unlink(source.c_str());
    transfer(order);
    EXPECT_EQ(end().msgnr, 0) << end().msg_insert;
    EXPECT_EQ(blocks, 0);
    EXPECT_TRUE(read_text(destination) == content);
    EXPECT_EQ(files_in(place), 1u);

    // Only a rename that this agent has told of, and only for the partner of that time.
    transfer(order);
    EXPECT_TRUE(logged(2003053));
    EXPECT_EQ(ccm_channel_existbyID(ccm, channel), 0);
    cut();
    EXPECT_EQ(end().msgnr, 11416);
}

TEST_F(legacy_restart, is_no_matter_where_the_agent_does_without) {
    open_module("[GLOBAL]\nft_checkpoint=no\n");
    write_text(source, some_bytes(100000));
    begin(2, true);
    EXPECT_EQ(restart_data(), "");
    EXPECT_EQ(end().flagResume, '0');
    EXPECT_EQ(files_in(place), 0u);
}

TEST(legacy_restart_data, is_read_as_it_was_made_and_no_lie_of_it) {
    DATA_FT_STP data;
    data.msg_number = 11471;
    data.seek = 5;
    data.folder = "/a/b";
    data.file_name = "c|d";
    data.temp_name = "t";
    const std::string part = make_stp_part(data);
    ASSERT_EQ(part.size(), 56u + 4 + 3 + 1 + 3);
    DATA_FT_STP read;
    ASSERT_TRUE(read_stp_part(part, &read));
    EXPECT_EQ(read.msg_number, 11471);
    EXPECT_EQ(read.seek, 5);
    EXPECT_EQ(read.file_name, "c|d");

    for (size_t length = 0; length < part.size(); ++length) {
        EXPECT_FALSE(read_stp_part(part.substr(0, length), &read)) << length;
    }
    struct lie {
        size_t at;
        std::string bytes;
    };
    for (const lie& one : {lie{0, "\xff\x7f"},
                           {2, "\xff\xff"},
                           {2, "\x05"},
                           {6, "\xff\x7f"},
                           {47, "\x80"},
                           {61, "/"},
                           {65, "/"},
                           {65, std::string(1, '\0')},
                           {64, "x"}}) {
        std::string lying = part;
        lying.replace(one.at, one.bytes.size(), one.bytes);
        EXPECT_FALSE(read_stp_part(lying, &read)) << one.at;
    }
    restart_parts parts;
    const std::string whole = make_restart_data(part, "xyz");
    ASSERT_TRUE(read_restart_data(bytes_of(whole), &parts));
    EXPECT_EQ(parts.copied, "xyz");
    for (const auto& [at, byte] : {std::pair<size_t, char>{0, '\x7f'}, {3, '\x80'}, {4, '\4'}, {7, '\x80'}}) {
        std::string lying = whole;
        lying[at] = byte;
        EXPECT_FALSE(read_restart_data(bytes_of(lying), &parts)) << at;
    }
}

}  // namespace
