// File retrieval: requests good and bad, both directions in four encodings, blocks, time, whose rights count.
#include "retrieval/file_retrieval.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "base/message_numbers.h"
#include "file_request_text.h"
#include "messages/records_report.h"
#include "messages/records_server.h"
#include "module_fixture.h"

namespace {

using namespace std::string_literals;

std::string as_text(const sent_message& message) {
    return {message.body.begin(), message.body.end()};
}

struct file_retrieval_test : module_test {
    std::string file = folder / "text";

    void SetUp() override {
        module_test::SetUp();
        ASSERT_EQ(GET_fileOpen(pcx), 0);
    }
    void TearDown() override {
        GET_fileClose(pcx);
        module_test::TearDown();
    }

    int ask(const std::string& xml) { return receive(process_getfile_XML, built_message(xml)); }

    int login(const std::string& name, const std::string& object = "LOGIN.TEST", unsigned usridnr = 7) {
        message_builder<MSG_TYPE_RES_DATA> data(100, usridnr);
        put_text(data->type, "LOGIN");
        put_text(data->name, object);
        std::string content(200, ' ');
        content.replace(0, name.size(), name);
        data.add(MSG_TYPE_RES_DATA::content, content + "0000000000");
        return receive(process_getfile_resdata, data);
    }

    file_answer first_answer() { return read_file_answer(as_text(first_sent())); }

    // Opens the file and gives the first block.
    file_answer open(const file_wish& wish) {
        ask(file_request_xml(wish));
        sent();
        login(user);
        return first_answer();
    }

    // All blocks, until nothing remains.
    std::string fetch(const file_wish& wish) {
        file_answer answer = open(wish);
        std::string all = answer.text;
        for (int i = 0; answer.data && answer.remaining > 0 && i < 10000; ++i) {
            ask(file_request_xml(wish));
            answer = first_answer();
            all += answer.text;
        }
        return answer.data && answer.remaining == 0 ? all : "failed: " + answer.insert;
    }
};

TEST_F(file_retrieval_test, asks_for_the_login_object_before_it_looks_at_the_file) {
    write_text(file, "one\n");
    ASSERT_EQ(ask(file_request_xml({.file = file})), 0);
    const sent_message order = first_sent();
    const auto get = order.as<MSG_TYPE_RES_GET>();
    EXPECT_EQ(order.type(), "RES_GET ");
    EXPECT_EQ(order.body.size(), 432U);
    EXPECT_STREQ(order.addr.dst_addr, "*SERVER");
    EXPECT_STREQ(order.addr.dst_name, "QXVAREXR");
    EXPECT_EQ(get_text(get.type), "LOGIN");
    EXPECT_EQ(get_text(get.name), "LOGIN.TEST");
    EXPECT_EQ(get.client, 100);
    EXPECT_EQ(get.key, 7);
    EXPECT_EQ(get.header.i4UsrIdNr, 7U);
    EXPECT_TRUE(logged(number_file_read_logged));

    // A second XML before the login is no wish for a block.
    EXPECT_EQ(ask(file_request_xml({.file = file})), 0);
    EXPECT_TRUE(sent().empty());
    // Neither another user's data nor another login object open the file.
    EXPECT_EQ(login(user, "LOGIN.TEST", 8), -1);
    EXPECT_EQ(login(user, "LOGIN.OTHER"), -1);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(login(user), 0);
    const sent_message block = first_sent();
    EXPECT_STREQ(block.addr.dst_addr, "*CP001#00000001");
    EXPECT_STREQ(block.addr.dst_name, "JPEXEC_R");
    EXPECT_EQ(block.addr.dst_ID, 0);
    EXPECT_EQ(block.addr.dst_acv, 55);
    const file_answer answer = read_file_answer(as_text(block));
    EXPECT_EQ(answer.key, "K1");
    EXPECT_EQ(answer.text, "one\n");
    EXPECT_EQ(answer.remaining, 0);
    EXPECT_EQ(login(user), -1);  // the same data once more opens nothing
}

TEST_F(file_retrieval_test, lines_of_both_ends_in_each_encoding) {
    const std::string le = "\xFF\xFE"s, be = "\xFE\xFF"s, utf = "\xEF\xBB\xBF"s;
    // U+0A0A and U+0A00 hold the bytes of a line end at odd places.
    const std::string le_text = le + "\x0A\x0A\x0A\0a\0\x0A\0\0\x0A\x0A\0"s;
    const std::string be_text = be + "\x0A\x0A\0\x0A\0a\0\x0A\x0A\0\0\x0A"s;
    const struct {
        std::string content;
        char direction;
        int records;
        std::string wanted;
    } rows[] = {
        {"1\n2\n3\n", 'B', 2, "1\n2\n"},
        {"1\n2\n3\n", 'E', 2, "2\n3\n"},
        {"1\n2\n3", 'B', 9, "1\n2\n3"},
        {"1\n2\n3\n", 'E', 9, "1\n2\n3\n"},
        {"1\n2\n3\n", 'E', 3, "1\n2\n3\n"},
        {"1\n2\n3\n", 'B', 0, ""},
        {"", 'B', 5, ""},
        {"", 'E', 5, ""},
        {"\n\n\n", 'E', 1, "\n"},
        {"a\0b\n\0\n"s, 'E', 1, "\0\n"s},
        {utf + "1\n2\n", 'B', 1, utf + "1\n"},
        {utf + "1\n2\n", 'E', 9, "1\n2\n"},
        {utf + "1\n2\n", 'E', 1, "2\n"},
        {le, 'B', 5, ""},
        {le, 'E', 5, ""},
        {le_text, 'B', 1, le + "\x0A\x0A\x0A\0"s},
        {le_text, 'E', 1, "\0\x0A\x0A\0"s},
        {le_text, 'E', 9, le_text.substr(2)},
        {be_text, 'B', 1, be + "\x0A\x0A\0\x0A"s},
        {be_text, 'E', 1, "\x0A\0\0\x0A"s},
        {"\xFF", 'B', 5, "\xFF"},
        {"x\n" + std::string(9000, 'y') + "\nz\n", 'E', 2, std::string(9000, 'y') + "\nz\n"},
        {"x\n" + std::string(9000, 'y') + "\nz\n", 'B', 2, "x\n" + std::string(9000, 'y') + "\n"},
    };
    int key = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(key);
        write_text(file, row.content);
        EXPECT_EQ(fetch({.key = "K" + std::to_string(++key),
                         .file = file,
                         .direction = row.direction,
                         .records = row.records,
                         .blocksize = 20000}),
                  row.wanted);
    }
}

TEST_F(file_retrieval_test, blocks_hold_whole_lines_and_tell_what_is_to_come) {
    write_text(file, "aaaa\nbbbb\ncccc\n");
    const file_wish wish{.file = file, .direction = 'E', .records = 2, .blocksize = 34};
    file_answer answer = open(wish);
    EXPECT_EQ(answer.text, "bbbb\ncccc\n");
    EXPECT_EQ(answer.pos, 5);

    std::string text;
    for (int i = 0; i < 3000; ++i) {
        text += std::string(static_cast<size_t>(i % 9), 'x') + "\n";
    }
    write_text(file, text);
    const file_wish many{.key = "K2", .file = file, .direction = 'E', .records = 3000, .blocksize = 40};
    answer = open(many);
    std::string all = answer.text;
    long long remaining = answer.remaining;
    while (remaining > 0 && answer.data) {
        ask(file_request_xml(many));
        answer = first_answer();
        ASSERT_LE(answer.text.size(), 40U);
        ASSERT_EQ(answer.text.back(), '\n');
        ASSERT_EQ(answer.remaining, remaining - static_cast<long long>(answer.text.size()));
        remaining = answer.remaining;
        all += answer.text;
    }
    EXPECT_EQ(all, text);
    ask(file_request_xml(many));  // behind the end: an empty block
    answer = first_answer();
    EXPECT_TRUE(answer.data && answer.text.empty() && answer.remaining == 0);
}

TEST_F(file_retrieval_test, bytes_come_as_they_are) {
    std::string bytes;
    for (int i = 0; i < 100000; ++i) {
        bytes += static_cast<char>(i * 7 + i / 256);
    }
    write_text(file, bytes);
    EXPECT_EQ(fetch({.file = file, .type = 'B', .blocksize = 40000}), bytes);
    EXPECT_EQ(fetch({.key = "K2", .file = file, .type = 'B', .blocksize = 1 << 30}), bytes);
}

TEST_F(file_retrieval_test, lines_and_requests_beyond_the_bounds_fail) {
    write_text(file, "aaaaaaaaaa\n");
    EXPECT_EQ(open({.key = "A", .file = file, .blocksize = 5}).insert,
              file + "|-4720 - record size too long|");
    EXPECT_EQ(open({.key = "B", .file = file, .direction = 'E', .blocksize = 34}).insert,
              file + "|record size is too long|");
    EXPECT_EQ(get_fileReqCount(pcx), 0);  // what failed leaves its key free

    const int sparse = ::open((folder / "huge").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const off_t size = 10LL << 30;
    ASSERT_EQ(ftruncate(sparse, size), 0);
    ASSERT_EQ(pwrite(sparse, "\nlast\n", 6, size), 6);
    close(sparse);
    const int64_t before = bytes_read_so_far();
    EXPECT_EQ(fetch({.key = "C", .file = folder / "huge", .direction = 'E', .records = 1}), "last\n");
    EXPECT_LT(bytes_read_so_far() - before, 100000);
    EXPECT_EQ(open({.key = "D", .file = folder / "huge", .direction = 'E'}).number, number_file_read_failed);
    EXPECT_LT(bytes_read_so_far() - before, 70LL << 20);
}

TEST_F(file_retrieval_test, a_file_that_changes_is_never_read_past_what_it_holds) {
    write_text(file, std::string(100, 'x'));
    const file_wish wish{.file = file, .type = 'B', .blocksize = 40};
    EXPECT_EQ(open(wish).remaining, 60);
    ASSERT_EQ(truncate(file.c_str(), 50), 0);
    ask(file_request_xml(wish));
    EXPECT_EQ(first_answer().number, number_file_read_failed);

    // A text is what it was when it was opened.
    write_text(file, "1\n2\n3\n");
    const file_wish lines{.key = "K2", .file = file, .blocksize = 27};
    std::string all = open(lines).text;
    write_text(file, "");
    ask(file_request_xml(lines));
    EXPECT_EQ(all + first_answer().text, "1\n2\n3\n");
}

TEST_F(file_retrieval_test, only_regular_files_are_read) {
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    int key = 0;
    const std::pair<std::string, std::string> rows[] = {{pipe, "22 - no regular file"},
                                                        {"/dev/zero", "22 - no regular file"},
                                                        {folder.path, "21 - Is a directory"},
                                                        {folder / "missing", "2 - No such file or directory"},
                                                        {"/proc/self/maps", "13 - Permission denied"},
                                                        {"", ""}};
    for (const auto& [name, reason] : rows) {
        for (const char type : {'T', 'B'}) {
            const file_answer answer = open({.key = std::to_string(++key), .file = name, .type = type});
            EXPECT_EQ(answer.number, number_file_read_failed) << name;
            EXPECT_NE(answer.insert.find(reason), std::string::npos) << name << " " << answer.insert;
        }
    }
    // Without a user the agent's own rights would count.
    write_text(file, "secret\n");
    ask(file_request_xml({.file = file}));
    sent();
    EXPECT_EQ(login(""), -1);
    EXPECT_EQ(first_answer().number, 2001007);
    ask(file_request_xml({.file = file}));
    sent();
    EXPECT_EQ(login("no-such-user-here"), -1);
    EXPECT_FALSE(first_answer().data);
}

TEST_F(file_retrieval_test, the_rights_are_those_of_the_login_object) {
    if (!runs_as_root()) {
        GTEST_SKIP();
    }
    const made_user other("qxfile");
    ASSERT_TRUE(other.made);
    chmod(folder.path.c_str(), 0755);
    write_text(file, "secret\n");
    chmod(file.c_str(), 0600);
    const std::string link = folder / "link";
    ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
    int key = 0;
    for (const std::string& name : {file, link, "/etc/shadow"s}) {
        ask(file_request_xml({.key = "K" + std::to_string(++key), .file = name}));
        sent();
        login(other.name);
        const file_answer answer = first_answer();
        EXPECT_EQ(answer.insert, name + "|13 - Permission denied|");
        EXPECT_EQ(geteuid(), 0U);
    }
    ASSERT_EQ(chown(file.c_str(), other.uid, other.gid), 0);
    ask(file_request_xml({.file = link}));
    sent();
    login(other.name);
    EXPECT_EQ(first_answer().text, "secret\n");
}

TEST_F(file_retrieval_test, a_refusal_of_the_server_goes_to_the_asker) {
    ask(file_request_xml({.key = "first", .file = file, .login = "A"}));
    ask(file_request_xml({.key = "second", .file = file, .login = "B"}));
    sent();
    auto quitt = new_message<MSG_TYPE_QUITT>(100, 7);
    put_text(quitt.quitt, "OK");
    EXPECT_EQ(receive(process_getfile_quitt, quitt), 0);
    EXPECT_TRUE(sent().empty());
    put_text(quitt.quitt, "NK");
    quitt.msgnr = 4711;
    put_text(quitt.msg_insert, "a<\"b\">&|");
    receive(process_getfile_quitt, quitt);
    const file_answer answer = first_answer();
    EXPECT_EQ(answer.key, "first");
    EXPECT_EQ(answer.number, 4711);
    EXPECT_EQ(answer.insert, "a&lt;&quot;b&quot;&gt;&amp;|");
    receive(process_getfile_quitt, quitt);
    EXPECT_EQ(first_answer().key, "second");
    EXPECT_EQ(receive(process_getfile_quitt, quitt), -1);
}

TEST_F(file_retrieval_test, silence_ends_a_request) {
    write_text(file, "1\n2\n");
    EXPECT_EQ(get_fileReqTimeout(pcx), 0);
    const file_wish wish{.file = file, .blocksize = 26};
    EXPECT_EQ(open(wish).text, "1\n2\n");
    EXPECT_NEAR(get_fileReqTimeout(pcx), 30, 1);
    EXPECT_EQ(check_fileReqTimeout(pcx), 0);
    get_fileReqKey(pcx, "K1")->gf_timeStamp -= 31;
    EXPECT_EQ(get_fileReqTimeout(pcx), 1);
    EXPECT_EQ(check_fileReqTimeout(pcx), 1);
    EXPECT_EQ(open(wish).text, "1\n2\n");  // from the beginning
}

TEST_F(file_retrieval_test, all_requests_together_have_a_bound) {
    write_text(file, "1\n2\n");
    const std::string refused = file + "|too many files are being read, try again in half a minute|";
    for (int i = 0; i < file_requests_max; ++i) {
        EXPECT_EQ(ask(file_request_xml({.key = "K" + std::to_string(i), .file = file})), 0);
    }
    sent();
    EXPECT_EQ(ask(file_request_xml({.key = "more", .file = file})), -1);
    const file_answer answer = first_answer();
    EXPECT_EQ(answer.number, number_file_read_failed);
    EXPECT_EQ(answer.insert, refused);
    EXPECT_EQ(get_fileReqCount(pcx), file_requests_max);
    // One whose time is over makes room at once.
    get_fileReqKey(pcx, "K50")->gf_timeStamp -= 31;
    EXPECT_EQ(ask(file_request_xml({.key = "more", .file = file})), 0);
    sent();

    // Text that waits to be sent: bytes do not count, they stay in their file.
    login(user);
    EXPECT_EQ(first_answer().text, "1\n2\n");
    GETF_PL* large = get_fileReqKey(pcx, "more");
    ASSERT_NE(large, nullptr);
    large->gf_restSendSize = file_requests_bytes_max;
    for (const char direction : {'B', 'E'}) {
        free_fileReqEntry(pcx, get_fileReqKey(pcx, direction == 'B' ? "K1" : "K2"));
        EXPECT_EQ(open({.key = "text", .file = file, .direction = direction}).insert, refused);
    }
    EXPECT_EQ(open({.key = "bytes", .file = file, .type = 'B'}).text, "1\n2\n");
    EXPECT_FALSE(get_fileReqKey(pcx, "bytes")->gf_fd.valid());  // all was read
    large->gf_restSendSize = file_requests_bytes_max - 3;
    EXPECT_EQ(open({.key = "less", .file = file, .direction = 'E', .records = 1}).text, "2\n");
    large->gf_restSendSize = 0;
    // So does one that was sent whole.
    EXPECT_EQ(get_fileReqCount(pcx), file_requests_max);
    EXPECT_EQ(open({.key = "text", .file = file}).text, "1\n2\n");
    EXPECT_EQ(get_fileReqKey(pcx, "more"), nullptr);
    EXPECT_NE(get_fileReqKey(pcx, "bytes"), nullptr);
}

TEST_F(file_retrieval_test, a_request_that_lacks_something_tells_what) {
    const std::string good = file_request_xml({.file = "/x"});
    const auto with = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    std::string cut_record;
    base64_encode(file_request_record({}).substr(0, 739), &cut_record);
    const std::string cdata = between(good, "<![CDATA[", "]]>");
    const struct {
        std::string text;
        std::string insert;
    } rows[] = {
        {"", ""},
        {with(" request=", " requst="), "request='"},
        {with("request=\"K1\"", "request=K1"), "request=\"'"},
        {with("request=\"K1\"", "request=\"\""), "request=\"'"},
        {with("request=\"K1\"", "request=\"" + std::string(64, 'k') + "\""), "request=\"'"},
        {"<?xml <qx-env request=\"K1", "request=\"'"},
        {with("<![CDATA[", "<![CDOTO["), "<![CDATA['"},
        {with("]]></request></qx-env>", ""), "]'"},
        {with("addr=", "adr="), "addr='"},
        {with("addr=\"*CP001\"", "addr=*CP001"), "addr=\"'"},
        {with(" name=\"UI\"", " name=UI"), "name=\"'"},
        {with("session=", "lastsession="), "session='"},
        {with("session=\"5\"", "comment=\" session=\""), "session='"},
        {with("useridnr=\"7\"", "useridnr=\"7x\""), "useridnr=\"'"},
        {with(" useridnr=\"7\">", "><!-- useridnr=\"7\" -->"), "useridnr='"},
        {with("<request name=\"GETFILE\"", "<request nome=\"GETFILE\""), "<request name='"},
        {with(" src=\"UI\"", ""), "src='"},
        {with(cdata, "!!!!"), "requesttype'-error"},
        {with(cdata, cut_record), "requesttype'-error"},
        {with(cdata, ""), "requesttype'-error"},
        {with(cdata, "<![CDATA[" + cdata), "requesttype'-error"},
        {file_request_xml({.file = "/x", .request_type = "GETFILEX"}), "requesttype'-error"},
        {std::string(100000, '"') + good, "length'"},
        {"<?xml" + std::string(60000, '<') + std::string(5000, '"'), "request='"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.insert + " " + row.text.substr(0, 300));
        module_test_log.clear();
        EXPECT_EQ(ask(row.text), -1);
        const sent_message message = first_sent();
        if (row.text.empty()) {
            continue;
        }
        std::string wanted = "XML-format error '" + row.insert;
        for (const auto& [from, to] : {std::pair{"<"s, "&lt;"s}, std::pair{"\""s, "&quot;"s}}) {
            for (size_t at = 0; (at = wanted.find(from, at)) != std::string::npos; at += to.size()) {
                wanted.replace(at, from.size(), to);
            }
        }
        EXPECT_EQ(read_file_answer(as_text(message)).insert, wanted);
        EXPECT_TRUE(logged(number_file_read_form));
    }
    EXPECT_EQ(ask(file_request_xml({.file = "/x", .login = ""})), -1);
    EXPECT_EQ(first_answer().number, number_file_read_no_login);
    EXPECT_EQ(get_fileReqCount(pcx), 0);
    ask("<?xml none?>");
    EXPECT_EQ(first_answer().key, "error, file request key not exist");
}

TEST(file_answer_test, an_error_fits_its_bound_and_cuts_no_entity) {
    for (size_t extra = 0; extra < 8; ++extra) {
        const std::string text =
            file_answer_error("key of mine", 1, std::string(extra, 'x') + std::string(900, '"'));
        EXPECT_LE(text.size(), 2048U);
        EXPECT_EQ(between(text, "request=\"", "\""), "key");
        EXPECT_TRUE(between(text, "insert=\"", "\"").ends_with("&quot;"));
    }
}

TEST(base64_test, known_texts_go_both_ways) {
    const struct {
        const char* plain;
        const char* coded;
    } rows[] = {{"", ""},        {"f", "Zg=="},        {"fo", "Zm8="},
                {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xFB\xFF", "+/8="}};
    for (const auto& row : rows) {
        std::string coded, plain;
        base64_encode(row.plain, &coded);
        EXPECT_EQ(coded, row.coded);
        EXPECT_TRUE(base64_decode(coded, &plain));
        EXPECT_EQ(plain, row.plain);
    }
    std::string out;
    EXPECT_TRUE(base64_decode(" Zm\r\n9v ", &out));
    for (const char* bad : {"Zg", "Zg=", "Z===", "Zg==Zg==", "Z-9v", "Zm9vY", "===="}) {
        out.clear();
        EXPECT_FALSE(base64_decode(bad, &out)) << bad;
    }
}

}  // namespace
