// Report transfer: blocks, limits, patterns, the tail, resuming, and files that mean harm.
#include "reports/reports.h"

#include <sys/stat.h>

#include "base/code_tables.h"
#include "messages/records_report.h"
#include "messages/records_server.h"
#include "module_fixture.h"

namespace {

struct wish {
    int key = 9;
    int block = 0;  // the first one wanted
    int blksize = 32000;
    int maxrecords = 0;
    int maxblk = 0;
    char erase = '0';
    std::string match;
    std::string user;
    std::string code;  // 512 bytes, empty for the default
};

struct outcome {
    std::vector<std::string> blocks;
    std::vector<int> numbers;  // rep_blk of each
    bool ended = false;
    int number = -1;
    std::string insert;
    int64_t bytes = 0;
    int64_t records = 0;

    std::string text() const {
        std::string all;
        for (const std::string& block : blocks) {
            all += block;
        }
        return all;
    }
};

struct report_test : module_test {
    std::string file = folder / "out/report";

    void SetUp() override {
        module_test::SetUp();
        REP_Open(pcx);
    }
    void TearDown() override {
        REP_Close(pcx);
        module_test::TearDown();
    }

    void get(const wish& w, const std::string& name) {
        message_builder<MSG_TYPE_REP_GET> record(client, number, 3);
        record->ah_idnr = w.key;
        record->rep_ah_idnr = 1;
        put_text(record->filename, name);
        put_text(record->rep_type, "REP");
        record->rep_blk = w.block;
        record->blksize = w.blksize;
        put_text(record->logininfo, w.user);
        record->erase = w.erase;
        record->maxrecords = w.maxrecords;
        record->maxblk = w.maxblk;
        record.add(MSG_TYPE_REP_GET::match, w.match);
        record.add(MSG_TYPE_REP_GET::code, w.code);
        receive(process_repget, record);
    }

    void quit(int key, int block, int number = 0, const char* insert = "") {
        auto record = new_message<MSG_TYPE_REP_QUIT>(client, module_test::number);
        record.ah_idnr = key;
        record.rep_blk = block;
        record.msgnr = number;
        put_text(record.msg_insert, insert);
        receive(process_repquit, record);
    }

    // Takes what was sent into `result`; false when it was not exactly one message.
    bool take(outcome* result) {
        const auto messages = sent();
        if (messages.size() != 1) {
            return false;
        }
        if (messages[0].type() == "REP_DATA") {
            const auto data = messages[0].as<MSG_TYPE_REP_DATA>();
            const auto* at = reinterpret_cast<const char*>(messages[0].body.data());
            result->blocks.emplace_back(at + data.data_dist, static_cast<size_t>(data.data_len));
            result->numbers.push_back(data.rep_blk);
            result->bytes = data.transfered;
            result->records = data.reccnt;
            return true;
        }
        const auto end = messages[0].as<MSG_TYPE_REP_END>();
        result->ended = messages[0].type() == "REP_END ";
        result->number = end.msgnr;
        result->insert = get_text(end.msg_insert);
        result->bytes = end.transfered;
        result->records = end.reccnt;
        return true;
    }

    outcome fetch(const wish& w) {
        outcome result;
        get(w, file);
        for (int block = w.block + 1; take(&result) && !result.ended; ++block) {
            quit(w.key, block);
        }
        EXPECT_TRUE(result.ended);
        return result;
    }
};

std::string numbered_lines(int count, const char* end) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "line " + std::to_string(i) + std::string(static_cast<size_t>(i % 40), '.') + end;
    }
    return text;
}

}  // namespace

TEST_F(report_test, blocks_of_every_size_give_the_same_text) {
    write_text(file, numbered_lines(500, "\n") + "last without end");
    const std::string whole = numbered_lines(500, "\r\n") + "last without end\r\n";
    for (const int blksize : {1, 128, 129, 200, 4096, 32768, 1 << 30}) {
        SCOPED_TRACE(blksize);
        wish w;
        w.blksize = blksize;
        const outcome result = fetch(w);
        EXPECT_EQ(result.text(), whole);
        EXPECT_EQ(result.number, 0);
        EXPECT_EQ(result.records, 501);
        EXPECT_EQ(result.bytes, static_cast<int64_t>(whole.size()));
        for (const std::string& block : result.blocks) {
            ASSERT_LE(block.size(), static_cast<size_t>(std::min(std::max(blksize, 128), 32768)));
        }
    }
}

TEST_F(report_test, an_empty_file_ends_at_once_and_any_goes_when_asked) {
    wish w;
    w.erase = '1';
    for (const char* const content : {"", "text\n"}) {
        write_text(file, content);
        const outcome result = fetch(w);
        EXPECT_EQ(result.number, 0);
        EXPECT_EQ(result.blocks.empty(), *content == 0);
        EXPECT_TRUE(logged(29001));
        EXPECT_NE(access(file.c_str(), F_OK), 0);
    }
}

TEST_F(report_test, a_resumed_transfer_continues_with_the_same_blocks) {
    // Lines at the edges of a block: there the size of the reading and the size of the block differ.
    std::string text;
    for (const int length : {10, 126, 127, 125, 128, 300, 0, 62, 62, 60, 124}) {
        text += std::string(static_cast<size_t>(length), 'a') + "\n";
    }
    write_text(file, text);
    wish w;
    w.blksize = 128;
    const outcome whole = fetch(w);
    ASSERT_GT(whole.blocks.size(), 5u);
    for (size_t first = 1; first < whole.blocks.size(); ++first) {
        w.block = static_cast<int>(first);
        const outcome rest = fetch(w);
        EXPECT_EQ(rest.blocks, std::vector<std::string>(whole.blocks.begin() + static_cast<long>(first),
                                                        whole.blocks.end()))
            << first;
    }
    w.block = static_cast<int>(whole.blocks.size());
    const outcome behind = fetch(w);
    EXPECT_TRUE(behind.blocks.empty());
    EXPECT_EQ(behind.number, 0);
}

TEST_F(report_test, limits_of_lines_and_blocks) {
    write_text(file, numbered_lines(100, "\n"));
    wish lines;
    lines.maxrecords = 5;
    outcome result = fetch(lines);
    EXPECT_EQ(result.text(), numbered_lines(5, "\r\n"));
    EXPECT_EQ(result.number, 29008);
    EXPECT_EQ(result.insert, file + "|5|");

    write_text(file, std::string(60, 'x') + "\n" + std::string(60, 'x') + "\n" + std::string(60, 'x') + "\n" +
                         std::string(60, 'x') + "\n" + std::string(60, 'x') + "\n" + std::string(60, 'x') +
                         "\n" + std::string(60, 'x') + "\n");
    lines.blksize = 128;
    result = fetch(lines);
    EXPECT_EQ(result.records, 6) << "behind the first block one line more is let through";
    EXPECT_EQ(result.number, 29008);

    write_text(file, numbered_lines(100, "\n"));
    wish blocks;
    blocks.maxblk = 3;
    blocks.blksize = 200;
    result = fetch(blocks);
    ASSERT_EQ(result.blocks.size(), 4u);
    EXPECT_EQ(result.blocks[3].rfind("QX7:global report truncated\r\n", 0), 0u);
    EXPECT_TRUE(
        result.blocks[3].ends_with(numbered_lines(100, "\r\n").substr(numbered_lines(99, "\r\n").size())));
    EXPECT_LE(result.blocks[3].size(), 200u);
    EXPECT_EQ(result.number, 29007);
    EXPECT_EQ(result.insert, file + "|3|");

    blocks.blksize = 32000;
    result = fetch(blocks);
    EXPECT_EQ(result.text(), numbered_lines(100, "\r\n"));
    EXPECT_EQ(result.number, 0) << "nothing was cut";
}

TEST_F(report_test, patterns_choose_lines_also_at_the_tail) {
    write_text(file, "start\nError one\nfine\nerror TWO\nan error\n");
    const std::pair<const char*, const char*> cases[] = {
        {"ERROR*", "Error one\r\nerror TWO\r\n"},
        {"*err?r*", "Error one\r\nerror TWO\r\nan error\r\n"},
        {"*", "start\r\nError one\r\nfine\r\nerror TWO\r\nan error\r\n"},
        {"nothing", ""},
    };
    for (const auto& [pattern, expected] : cases) {
        wish w;
        w.match = pattern;
        const outcome result = fetch(w);
        EXPECT_EQ(result.text(), expected) << pattern;
        EXPECT_EQ(result.number, 0) << pattern;
    }
    std::string text;
    for (int i = 0; i < 400; ++i) {
        text += (i % 2 == 0 ? "yes " : "no ") + std::to_string(i) + "\n";
    }
    write_text(file, text);
    wish w;
    w.match = "YES*";
    w.maxblk = 1;
    w.blksize = 200;
    const outcome result = fetch(w);
    ASSERT_EQ(result.blocks.size(), 2u);
    EXPECT_EQ(result.blocks[1].find("no "), std::string::npos);
    EXPECT_TRUE(result.blocks[1].ends_with("yes 398\r\n")) << result.blocks[1];
}

TEST_F(report_test, long_lines_are_cut_and_the_transfer_goes_on) {
    write_text(file, "a\n" + std::string(100000, 'x') + "\n" + std::string(126, 'y') + "\nb\n");
    wish w;
    w.blksize = 128;
    const outcome result = fetch(w);
    EXPECT_EQ(result.text(), "a\r\n" + std::string(126, 'x') + "\r\n" + std::string(125, 'y') + "\r\nb\r\n");
    EXPECT_EQ(result.number, 0);
    EXPECT_TRUE(logged(29009));
}

TEST_F(report_test, bytes_pass_as_they_are_or_through_the_table) {
    std::string text;
    for (int c = 0; c < 256; ++c) {
        if (c != '\n') {
            text.push_back(static_cast<char>(c));
        }
    }
    write_text(file, text + "\n");
    EXPECT_EQ(fetch({}).text(), text + "\r\n");
    wish w;
    for (int c = 0; c < 256; ++c) {
        w.code.push_back(static_cast<char>(c == 'a' ? 'A' : c));
    }
    w.code += std::string(256, '\0');
    const std::string converted = fetch(w).text();
    EXPECT_EQ(converted.size(), text.size() + 2);
    EXPECT_EQ(converted.find('a'), std::string::npos);
}

TEST_F(report_test, the_server_may_stop_and_ask_again) {
    write_text(file, numbered_lines(200, "\n"));
    wish w;
    w.blksize = 200;
    w.erase = '1';
    outcome result;
    get(w, file);
    ASSERT_TRUE(take(&result));
    quit(9, 1, 4711, "enough|");
    ASSERT_TRUE(take(&result));
    EXPECT_TRUE(result.ended);
    EXPECT_EQ(result.number, 4711);
    EXPECT_EQ(result.insert, "enough|");
    EXPECT_EQ(access(file.c_str(), F_OK), 0) << "a stopped transfer erases nothing";

    quit(9, 2);
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(logged(29005));

    w.erase = '0';
    get(w, file);
    get(w, file);  // the second one of a key closes the first
    sent();
    ASSERT_NE(getReportEntry(pcx, 9), nullptr);
    EXPECT_EQ(getReportCount(), 1);
    auto stop = new_message<MSG_TYPE_REP_STOP>(client, number);
    testing::internal::CaptureStdout();
    receive(process_repstop, stop);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("REP_STOP"), std::string::npos)
        << "29002 points to a message before it";
    EXPECT_EQ(getReportEntry(pcx, 9), nullptr);
    EXPECT_TRUE(sent().empty());
}

TEST_F(report_test, what_is_made_ahead_counts_when_it_is_asked_for) {
    const std::string line = std::string(18, 'a') + "\n";
    const auto lines = [&](int count) {
        std::string text;
        for (int i = 0; i < count; ++i) {
            text += line;
        }
        return text;
    };
    wish w;
    w.blksize = 200;  // ten lines
    write_text(file, lines(40));
    outcome result;
    get(w, file);
    ASSERT_TRUE(take(&result));
    quit(9, 1, 4711);
    ASSERT_TRUE(take(&result));
    EXPECT_EQ(result.bytes, 200);
    EXPECT_EQ(result.records, 10) << "the second block was never sent";

    get(w, file);
    result = {};
    ASSERT_TRUE(take(&result));
    quit(9, 7);  // not the number that follows
    ASSERT_TRUE(take(&result));
    EXPECT_EQ(result.numbers, (std::vector<int>{0, 7}));
    EXPECT_EQ(result.blocks[1], result.blocks[0]);
    EXPECT_EQ(result.records, 20);

    write_text(file, lines(16) + "half");  // of a line that its writer has not finished
    get(w, file);
    result = {};
    ASSERT_TRUE(take(&result));
    write_text(file, lines(16) + "half a line\n");
    quit(9, 1);
    ASSERT_TRUE(take(&result));
    EXPECT_TRUE(result.blocks[1].ends_with("\r\nhalf a line\r\n")) << result.blocks[1];
}

TEST_F(report_test, a_file_that_changes_on_the_way_ends_cleanly) {
    write_text(file, numbered_lines(2000, "\n"));
    wish w;
    w.blksize = 200;
    outcome result;
    get(w, file);
    ASSERT_TRUE(take(&result));
    ASSERT_EQ(truncate(file.c_str(), 100), 0);
    for (int block = 1; !result.ended && block < 2000; ++block) {
        quit(9, block);
        ASSERT_TRUE(take(&result));
    }
    EXPECT_TRUE(result.ended);
    EXPECT_EQ(result.number, 0);

    // The tail of a file that has become shorter than a block cannot be read.
    write_text(file, numbered_lines(20000, "\n"));
    w.maxblk = 1;
    get(w, file);
    result = {};
    ASSERT_TRUE(take(&result));
    ASSERT_EQ(truncate(file.c_str(), 100), 0);
    quit(9, 1);
    ASSERT_TRUE(take(&result));
    EXPECT_EQ(result.number, 29004) << result.insert;
    EXPECT_EQ(getReportEntry(pcx, 9), nullptr);
}

TEST_F(report_test, a_line_longer_than_any_disk_does_not_hold_the_agent_up) {
    write_text(file, "before\n" + std::string(300, 'x'));
    ASSERT_EQ(truncate(file.c_str(), off_t{1} << 40), 0);
    wish w;
    w.blksize = 128;
    w.erase = '1';
    const int64_t before = bytes_read_so_far();
    const outcome result = fetch(w);
    EXPECT_LT(bytes_read_so_far() - before, int64_t{1} << 30) << "a terabyte of holes takes minutes";
    EXPECT_EQ(result.text(), "before\r\n" + std::string(126, 'x') + "\r\n");
    EXPECT_EQ(result.number, 29004);
    EXPECT_NE(result.insert.find("File too large"), std::string::npos) << result.insert;
    EXPECT_EQ(access(file.c_str(), F_OK), 0);
}

TEST_F(report_test, what_may_not_be_read_is_not_opened) {
    const auto refused = [&](const wish& w, const std::string& name) {
        outcome result;
        get(w, name);
        EXPECT_TRUE(take(&result));
        EXPECT_TRUE(logged(29002));
        return result.number;
    };
    const std::string secret = folder / "secret";
    write_text(secret, "secret\n");
    chmod(secret.c_str(), 0600);
    EXPECT_EQ(refused({}, folder / "missing"), 29003);
    EXPECT_EQ(refused({}, folder / "out"), 29003);
    ASSERT_EQ(symlink(secret.c_str(), file.c_str()), 0);
    EXPECT_EQ(refused({}, file), 29003);
    // Everybody makes names in the report folder, so a second name of a file does not open it there.
    unlink(file.c_str());
    ASSERT_EQ(link(secret.c_str(), file.c_str()), 0);
    chmod((folder / "out").c_str(), 01777);
    EXPECT_EQ(refused({}, file), 29003);
    chmod((folder / "out").c_str(), 0755);
    EXPECT_EQ(fetch({}).text(), "secret\r\n") << "where only the agent writes it may have two names";

    wish w;
    w.user = "no-such-user";
    EXPECT_EQ(refused(w, secret), 2001007);
    if (runs_as_root()) {
        made_user other("qxrep");
        ASSERT_TRUE(other.made);
        chmod(folder.path.c_str(), 0755);
        w.user = other.name;
        EXPECT_EQ(refused(w, secret), 29003);
        const std::string own = folder / "out/own";
        write_text(own, "his own\n");
        ASSERT_EQ(chown(own.c_str(), other.uid, other.gid), 0);
        chmod(own.c_str(), 0600);
        file = own;
        EXPECT_EQ(fetch(w).text(), "his own\r\n");
    }
}

TEST_F(report_test, files_are_written_by_order_under_the_users_name) {
    const auto order = [&](char mode, const std::string& name, const std::string& text,
                           const std::string& who) {
        message_builder<MSG_TYPE_PRCWRITE> write(client, number);
        write->ah_idnr = 5;
        write->mode = mode;
        put_text(write->logininfo, who);
        write.add(MSG_TYPE_PRCWRITE::file, name);
        write.add(MSG_TYPE_PRCWRITE::text, text);
        receive(process_iprcwrite, write);
        const auto quitt = first_sent().as<MSG_TYPE_QUITT>();
        EXPECT_EQ(get_text(quitt.quitt), quitt.msgnr == 0 ? "OK" : "NK");
        return quitt.msgnr;
    };
    const std::string path = folder / "new/deep/file";
    EXPECT_EQ(order('O', path, "a\r\n\r\nb\r", user), 0);
    EXPECT_EQ(read_text(path), "a\n\nb\n");
    EXPECT_EQ(order('A', path, "c", user), 0);
    EXPECT_EQ(read_text(path), "a\n\nb\nc\n");
    EXPECT_EQ(order('C', path, "d", user), 2000223);
    EXPECT_EQ(order('O', path, "", ""), 2000220);
    EXPECT_EQ(order('O', path, "", "no-such-user"), 2000220);
    EXPECT_EQ(order('O', folder / "new", "x", user), 2000225) << "a folder is no file";
    EXPECT_EQ(order('C', path + "/below", "x", user), 2000225) << "below a file nothing exists";
    EXPECT_EQ(read_text(path), "a\n\nb\nc\n");
    if (runs_as_root()) {
        made_user other("qxprc");
        ASSERT_TRUE(other.made);
        EXPECT_EQ(order('O', path, "x", other.name), 2000225) << "root's file";
        EXPECT_EQ(order('O', "in/his/home", "x", other.name), 0);
        struct stat status {};
        const std::string home = "/home/" + other.name + "/in/his/home";
        ASSERT_EQ(stat(home.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, other.uid);
    }
}

// A console that has nothing to show: no file that lies at the place of its output counts.
TEST_F(report_test, a_command_without_output_reads_no_file_of_a_stranger) {
    copy_text(pcx->pcx_TmpFolder, folder.path);
    write_text(folder / "S_AAAAAAJ.txt", "planted");
    wish w;
    file = "<AGENTSHELL>GET_VERSION";
    EXPECT_EQ(fetch(w).number, 29003) << "a file name: no console allows commands";
    pcx->pcx_flag |= PCX_FLAG_AGENTSHELL;
    EXPECT_EQ(fetch(w).insert.find("S_AAAAAAJ"), std::string::npos) << "nor is there a console";
    REP_set_shell([](const char*, const char*) {
        errno = ENOSPC;
        return -1;
    });
    const outcome failed = fetch(w);
    EXPECT_EQ(failed.number, 29003);
    EXPECT_EQ(failed.insert, folder / "S_AAAAAAJ.txt(FileFOpen())|28|No space left on device|");
    REP_set_shell([](const char* output, const char* request) {
        write_text(output, request);
        return 0;
    });
    EXPECT_EQ(fetch(w).text(), "GET_VERSION\r\n");
    EXPECT_NE(access((folder / "S_AAAAAAJ.txt").c_str(), F_OK), 0);
    REP_set_shell(nullptr);
    pcx->pcx_flag &= ~PCX_FLAG_AGENTSHELL;
}
