// Transfers that were cut go on where both sides agree, and only there.
#include <fcntl.h>

#include <functional>

#include "ftx_files_support.h"
#include "transfer/ftx/restart.h"

namespace {

struct ftx_restart : transfer_files {
    // What the first run leaves: the restart records that its last FTXQUIT carried, and the store's facts.
    struct left_over {
        std::string sender_record, receiver_record;
        int64_t size = 0;
        char coding = '0';
        int64_t position() const {
            __ftx_restart_info record;
            memcpy(&record, receiver_record.data(), sizeof record);
            return record.rst_filepos;
        }
    };

    // A first run that ends when the destination has got `most` bytes of the stream; a restart item goes out
    // at every other read.
    left_over cut(file_order order, size_t most, int rifreq = 2) {
        prepare(order);
        EXPECT_EQ(list(), 0);
        source->ftx_attr_rifreq = rifreq;
        EXPECT_TRUE(send(most));
        const ftx_elem& elem = arrived();
        EXPECT_FALSE(folder.exists("to/file") && order.overwrite != 'A');
        return {elem.sender_record, elem.receiver_record, sent_file().ftxe_fileSize,
                sent_file().ftxe_text_coding};
    }

    // The next run over the same files, with the list of the store.
    bool go_on(file_order order, const left_over& left) {
        take_up(order, left);
        return send();
    }
    void take_up(file_order order, const left_over& left) {
        order.restart = ftx_resume;
        order.repeats = id;
        prepare(order);
        ftx_elem* const elem = ftxe_addnew(source.get(), 0);
        elem->source_name = order.source;
        elem->sender_record = left.sender_record;
        elem->receiver_record = left.receiver_record;
        elem->ftxe_fileSize = left.size;
        elem->ftxe_text_coding = left.coding;
    }

    // The stream after an 'R', as the sender makes it.
    bool resend() {
        ftx_elem& elem = source->elements.at(0);
        elem.sender_record.clear();
        elem.receiver_record.clear();
        update_FtxStatus(source.get(), &elem, FTXE_AGAIN);
        source->current = nullptr;
        source->ftx_progress = FTX_BETWEEN_FILES;
        source->ftx_send_flag = FTX_SEND_RESENDING;
        return send();
    }
};

std::string log_text(size_t size) {
    std::string text;
    for (unsigned i = 0; text.size() < size; ++i) {
        text += "line " + std::to_string(i * 2654435761U) + (i % 7 == 0 ? "\r\n" : "\n");
    }
    return text;
}

TEST_F(ftx_restart, cut_transfers_go_on_and_end_right) {
    const std::string text = log_text(2000000);
    const std::string binary = bytes_of(2000000, 5);
    srand(1);
    int resumed = 0;
    for (int round = 0; round < 16; ++round) {
        file_order order;
        order.type = round % 2 == 0 ? 'B' : 'T';
        order.compress = round % 3 == 0 ? '1' : '0';
        order.source_ends = round % 4 == 1 ? 'M' : 'L';
        order.destination_ends = round % 8 == 1 ? 'C' : 'L';
        ftx_glb().ft_use_md5 = round % 5 != 0;
        folder.write("from/file", order.type == 'T' ? text : binary);
        const bool shrinks = order.type == 'T' && order.compress == '1';
        const left_over left = cut(order, static_cast<size_t>(rand()) % (shrinks ? 300000 : 1500000) + 1);
        ASSERT_TRUE(go_on(order, left));
        EXPECT_EQ(arrived().ftxe_status, 'C');
        const std::string result = folder.read("to/file");
        ASSERT_EQ(tree("to").size(), 1U);
        const bool started_late =
            static_cast<int64_t>(stream.size()) + (shrinks ? 1500000 : 100000) < sent_file().ftxe_fileSize;
        resumed += !left.sender_record.empty() && started_late ? 1 : 0;
        ASSERT_TRUE(run({.destination = "to/whole",
                         .type = order.type,
                         .source_ends = order.source_ends,
                         .destination_ends = order.destination_ends}));
        ASSERT_TRUE(result == folder.read("to/whole")) << round;
        std::filesystem::remove_all(folder / "to");
        std::filesystem::create_directory(folder / "to");
    }
    EXPECT_GT(resumed, 7);
}

TEST_F(ftx_restart, text_buffer_is_on_the_disk_before_a_position_is_told) {
    const std::string text = log_text(400000);
    folder.write("from/file", text);
    const left_over left = cut({.type = 'T', .destination_ends = 'C'}, 300000, 1);
    ASSERT_EQ(left.receiver_record.size(), 24U);
    __ftx_restart_info of_sender;
    memcpy(&of_sender, left.sender_record.data(), sizeof of_sender);
    const auto lines = std::count(text.begin(), text.begin() + of_sender.rst_filepos, '\n');
    EXPECT_GT(of_sender.rst_filepos, 100000);
    EXPECT_EQ(left.position(), of_sender.rst_filepos + lines);  // each line end has become one byte longer
}

TEST_F(ftx_restart, changed_files_are_sent_from_their_beginning) {
    const std::string first = bytes_of(2000000, 6);
    std::string second = first;
    second[10] = static_cast<char>(second[10] + 1);
    for (const bool digest : {true, false}) {
        ftx_glb().ft_use_md5 = digest;
        folder.write("from/file", first);
        const left_over left = cut({}, 1000000);
        folder.write("from/file", digest ? second : second + "longer");
        ASSERT_TRUE(go_on({}, left));
        EXPECT_EQ(arrived().ftxe_status, 'C');
        EXPECT_TRUE(folder.read("to/file") == folder.read("from/file"));
        EXPECT_GE(stream.size(), first.size());
        unlink((folder / "to/file").c_str());
    }
}

TEST_F(ftx_restart, both_sides_read_a_long_prefix_at_the_same_time) {
    std::string content = bytes_of(20000000, 14);
    folder.write("from/file", content);
    const left_over left = cut({}, 19000000);
    ASSERT_GT(left.position(), 17000000);
    const std::string half = folder.read("to/AAAAGZF_0.tmp");
    for (const char compress : {'0', '1'}) {
        take_up({.compress = compress}, left);
        qx7_error error;
        ASSERT_EQ(src_openCompress(source.get(), &error) + dst_openCompress(destination.get(), &error), 0);
        std::vector<char> block(32236);
        const int length =
            csRead(source->compressor.get(), block.data(), static_cast<int>(block.size()), &source->message);
        dcsWrite(destination->decompressor.get(), block.data(), length, &destination->message);
        EXPECT_EQ(arrived().ftxe_transferedBytes, left.position());
        EXPECT_EQ(lseek(source->file.get(), 0, SEEK_CUR), 0);  // with a block out, it has read nothing yet
        source.reset();
        ASSERT_TRUE(go_on({.compress = compress}, left));
        EXPECT_EQ(arrived().ftxe_status, 'C');
        EXPECT_LT(stream.size(), 4000000U);
        EXPECT_TRUE(folder.read("to/file") == content);
        unlink((folder / "to/file").c_str());
        folder.write("to/AAAAGZF_0.tmp", half);
    }
    content[10] = static_cast<char>(content[10] + 1);
    folder.write("from/file", content);
    ASSERT_TRUE(go_on({}, left));
    EXPECT_EQ(arrived().ftxe_status, 'C');
    EXPECT_GT(stream.size(), content.size());
    EXPECT_TRUE(folder.read("to/file") == content);
    EXPECT_EQ(source->items, source->items_of_ended);
}

TEST_F(ftx_restart, prefix_that_is_not_read_to_its_end_says_nothing_of_the_file) {
    folder.write("from/file", bytes_of(2000000, 9));
    ftx_glb().ft_use_md5 = true;
    const left_over left = cut({}, 1500000);
    const auto size = std::filesystem::file_size(folder / "to/AAAAGZF_0.tmp");
    take_up({}, left);
    destination->interrupted = true;
    EXPECT_FALSE(send());
    EXPECT_EQ(std::filesystem::file_size(folder / "to/AAAAGZF_0.tmp"), size);
    ASSERT_TRUE(go_on({}, left));
    EXPECT_EQ(arrived().ftxe_status, 'C');
    EXPECT_TRUE(folder.read("to/file") == folder.read("from/file"));
    EXPECT_LT(stream.size(), 1900000U);
}

TEST_F(ftx_restart, destination_that_differs_asks_for_the_file_anew) {
    const std::string content = bytes_of(2000000, 7);
    folder.write("from/file", content);
    const std::string temp = folder / "to/AAAAGZF_0.tmp";
    const std::function<void(left_over*)> changes[] = {
        [&](left_over*) { write_text(temp, bytes_of(1500000, 8)); },
        [&](left_over* left) { EXPECT_EQ(truncate(temp.c_str(), left->position() - 1), 0); },
        [&](left_over*) { unlink(temp.c_str()); },
        [&](left_over* left) { left->receiver_record.resize(23); },
        [&](left_over* left) { left->receiver_record.resize(100); },
        [&](left_over* left) { left->receiver_record.replace(8, 16, 16, '\0'); },
        [&](left_over* left) { left->receiver_record.replace(0, 8, 8, '\xFF'); },
    };
    for (const auto& change : changes) {
        left_over left = cut({}, 1000000);
        change(&left);
        ASSERT_TRUE(go_on({}, left));
        EXPECT_EQ(arrived().ftxe_status, 'R');
        EXPECT_FALSE(folder.exists("to/file"));
        ASSERT_TRUE(resend());
        EXPECT_EQ(arrived().ftxe_status, 'C');
        EXPECT_TRUE(folder.read("to/file") == content);
        unlink((folder / "to/file").c_str());
    }
}

TEST_F(ftx_restart, older_tail_behind_the_position_is_cut_off) {
    ftx_glb().ft_use_md5 = false;
    folder.write("from/file", bytes_of(500000, 9));
    const left_over left = cut({}, 400000);
    const std::string temp = folder / "to/AAAAGZF_0.tmp";
    write_text(temp, read_text(temp) + std::string(1000000, 'x'));
    ASSERT_TRUE(go_on({}, left));
    EXPECT_TRUE(folder.read("to/file") == folder.read("from/file"));
}

TEST_F(ftx_restart, appended_content_is_never_cut) {
    const std::string content = bytes_of(1200000, 10);
    folder.write("from/file", content);
    folder.write("to/file", "old");
    const left_over left = cut({.overwrite = 'A'}, 900000, 1 + 1);
    // With its records the repeat goes on in the destination.
    const std::string half = folder.read("to/file");
    ASSERT_TRUE(go_on({.overwrite = 'A'}, left));
    EXPECT_EQ(arrived().ftxe_status, 'C');
    EXPECT_TRUE(folder.read("to/file") == "old" + content);
    // Without them it leaves it alone.
    folder.write("to/file", half);
    ASSERT_TRUE(go_on({.overwrite = 'A'}, {}));
    EXPECT_EQ(arrived().ftxe_msgnr, number_destination_exists);
    EXPECT_TRUE(folder.read("to/file") == half);
    // A first run appends, whatever the order says of a restart.
    folder.write("from/file", "new");
    folder.write("to/file", "old");
    prepare({.overwrite = 'A'});
    ASSERT_EQ(list(), 0);
    source->ftx_restart = destination->ftx_restart = ftx_resume;
    ASSERT_TRUE(send());
    EXPECT_EQ(folder.read("to/file"), "oldnew");
}

TEST_F(ftx_restart, repeat_prefers_its_temporary_file_and_spares_what_others_made) {
    folder.write("from/file", "content");
    for (const char letter : {'N', 'Y', 'A'}) {
        for (const bool temp : {false, true}) {
            folder.write("to/file", "theirs");
            if (temp) {
                folder.write("to/AAAAGZF_0.tmp", "half of it");
            }
            ASSERT_TRUE(run({.overwrite = letter, .repeats = id}));
            const bool kept = temp ? letter != 'Y' : letter == 'A';
            EXPECT_EQ(folder.read("to/file"), kept ? "theirs" : "content") << letter << temp;
            EXPECT_EQ(arrived().ftxe_msgnr, kept ? number_destination_exists : 0);
            std::filesystem::remove_all(folder / "to");
            std::filesystem::create_directory(folder / "to");
        }
    }
}

TEST_F(ftx_restart, what_an_earlier_run_completed_is_complete_though_it_could_not_tell) {
    const std::string content = bytes_of(100000, 12);
    folder.write("from/file", content);
    for (const char letter : {'N', 'A'}) {
        for (const bool same : {true, false}) {
            std::string there = content;
            there.back() = static_cast<char>(there.back() + (same ? 0 : 1));
            folder.write("to/file", there);
            folder.write("to/AAAAGZF_0.tmp", "begun by a repeat that was broken off");
            ASSERT_TRUE(run({.overwrite = letter, .repeats = id}));
            EXPECT_EQ(arrived().ftxe_status, same ? 'C' : 'E');
            EXPECT_EQ(arrived().ftxe_msgnr, same ? 0 : number_destination_exists);
            EXPECT_TRUE(folder.read("to/file") == there);
            EXPECT_EQ(folder.exists("to/AAAAGZF_0.tmp"), !same);
        }
    }
}

TEST_F(ftx_restart, file_that_goes_on_has_no_final_name_meanwhile) {
    const std::string content = bytes_of(2000000, 13);
    folder.write("from/file", content);
    const std::string temp = folder / "to/AAAAGZF_0.tmp";
    for (const char letter : {'N', 'Y'}) {
        const left_over left = cut({.overwrite = letter}, 1000000);
        folder.write("to/file", content);  // a repeat completed it, and nobody heard
        unlink(temp.c_str());
        prepare({.overwrite = letter, .restart = ftx_resume, .repeats = id});
        ControlStream item;
        cbsPutInt(&item, "OID", 0);
        cbsPutInt64(&item, "SIZ", 2000000);
        cbsPutByteStream(&item, "RST", left.receiver_record.data(), left.receiver_record.size());
        give(CTRL_FILE_OPEN, item);
        EXPECT_EQ(arrived().ftxe_transferedBytes, left.position());
        EXPECT_FALSE(folder.exists("to/file"));
        dst_closeUnfinished(destination.get());
        ASSERT_TRUE(go_on({.overwrite = letter}, left));
        EXPECT_EQ(arrived().ftxe_status, 'C');
        EXPECT_TRUE(folder.read("to/file") == content);
        EXPECT_LT(stream.size(), content.size());
        unlink((folder / "to/file").c_str());
    }
}

TEST_F(ftx_restart, digest_of_a_position_leaves_the_running_one_alone) {
    const std::string content = bytes_of(100000, 11);
    prepare({});
    ftx_entry* const ftx = destination.get();
    ftx->file.reset(open(folder.write("to/file", content).c_str(), O_RDWR | O_CLOEXEC));
    ftx_elem* const elem = ftxe_addnew(ftx, 0);
    elem->ftxe_flag |= FTXE_MD5;
    md5_init(&ftx->md5);
    qx7_error error;
    ASSERT_EQ(ftx_digest_prefix(ftx, elem, 70000, &error), 70000);
    for (int time = 0; time < 2; ++time) {
        const __ftx_restart_info point = ftx_restart_point(ftx, elem);
        unsigned char expected[md5_size];
        MD5Generate(content.data(), 70000, expected);
        EXPECT_EQ(point.rst_filepos, 70000);
        EXPECT_EQ(memcmp(point.digest, expected, sizeof expected), 0);
    }
}

}  // namespace
