// Text arrives as a small model says that was written on its own.
#include "ftx_files_support.h"

namespace {

struct text_case {
    char coding;
    char source_ends;
    char destination_ends;
    int reclen;
};

struct model {
    text_case order;
    std::array<unsigned char, 256> out;  // both code tables, one behind the other
    std::string result;

    size_t unit() const { return order.coding == '3' || order.coding == '4' ? 2 : 1; }
    std::string character(char c) const {
        return unit() == 1           ? std::string(1, c)
               : order.coding == '3' ? std::string{'\0', c}
                                     : std::string{c, '\0'};
    }
    void put_line(std::string line, bool ended) {
        if (ended && order.source_ends == 'M' && line.ends_with(character('\r'))) {
            line.resize(line.size() - unit());
        }
        for (char& c : line) {
            c = order.coding == '1' ? static_cast<char>(out[static_cast<unsigned char>(c)]) : c;
        }
        result += line;
        if (ended && order.destination_ends == 'C') {
            result += character('\r');
        }
        if (ended && order.destination_ends != 'N') {
            result += character('\n');
        }
    }
    std::string take(const std::string& text) {
        std::string line;
        for (size_t at = 0; at < text.size(); at += unit()) {
            const std::string next = text.substr(at, unit());
            if (order.reclen == 0 && next == character('\n')) {
                put_line(std::exchange(line, ""), true);
                continue;
            }
            line += next;
            if (order.reclen != 0 && line.size() + unit() > static_cast<size_t>(order.reclen)) {
                put_line(std::exchange(line, ""), true);
            }
        }
        if (!line.empty()) {
            put_line(line, order.reclen != 0);
        }
        return result;
    }
};

std::string widened(const std::string& text, char coding) {
    if (coding != '3' && coding != '4') {
        return text;
    }
    std::string wide;
    for (const char c : text) {
        wide += coding == '3' ? std::string{'\0', c} : std::string{c, '\0'};
    }
    return wide;
}

// Lines of all lengths around the buffer of 65,536 bytes, with CR, LF and both at its edges.
std::vector<std::string> texts() {
    std::vector<std::string> all = {"",           "a",     "a\n", "\n",          "\n\nb",
                                    "a\r\nb\r\n", "end\r", "\r",  "a\rb\n\r\n\r"};
    for (const size_t length : {32767, 32768, 65535, 65536, 65537}) {
        const std::string line(length, 'x');
        all.push_back(line);
        all.push_back(line + "\r\nrest\r\n");
        all.push_back(line + "\n");
        all.push_back(line + "\r");
    }
    std::string mixed;
    for (const char c : bytes_of(90000, 3)) {
        mixed += c > 100 ? '\n' : c < -100 ? '\r' : static_cast<char>('a' + (c & 15));
    }
    all.push_back(mixed);
    return all;
}

struct ftx_text : transfer_files {
    std::string expected(const text_case& order, const std::string& content) {
        model text{order, {}, ""};
        for (size_t i = 0; i < 256; ++i) {
            text.out[i] = destination->code_table[source->code_table[i]];
        }
        return text.take(content);
    }
};

TEST_F(ftx_text, every_line_arrives_with_the_ends_of_the_order) {
    const text_case orders[] = {{'1', 'L', 'L', 0}, {'1', 'M', 'C', 0},     {'1', 'L', 'L', 80},
                                {'2', 'L', 'L', 0}, {'2', 'L', 'C', 0},     {'2', 'L', 'N', 0},
                                {'2', 'M', 'L', 0}, {'2', 'M', 'C', 0},     {'2', 'L', 'L', 100},
                                {'2', 'M', 'N', 7}, {'2', 'L', 'L', 70000}, {'3', 'L', 'L', 0},
                                {'3', 'L', 'C', 0}, {'3', 'L', 'L', 33},    {'4', 'L', 'L', 0},
                                {'4', 'L', 'C', 0}, {'4', 'L', 'N', 0},     {'4', 'L', 'L', 10}};
    for (const text_case& order : orders) {
        const std::vector<std::string> contents = texts();
        for (size_t i = 0; i < contents.size(); ++i) {
            folder.write("from/" + std::to_string(i), widened(contents[i], order.coding));
        }
        ASSERT_TRUE(run({.source = "from/*",
                         .destination = "to/*",
                         .type = 'T',
                         .overwrite = 'Y',
                         .wildcard = true,
                         .coding = order.coding,
                         .source_ends = order.source_ends,
                         .destination_ends = order.destination_ends,
                         .reclen = order.reclen}));
        for (size_t i = 0; i < contents.size(); ++i) {
            text_case told = order;
            told.reclen = std::min(order.reclen, 65536);
            ASSERT_TRUE(folder.read("to/" + std::to_string(i)) ==
                        expected(told, widened(contents[i], order.coding)))
                << order.coding << order.source_ends << order.destination_ends << order.reclen << " " << i;
        }
    }
}

TEST_F(ftx_text, cr_in_front_of_lf_of_two_bytes_ends_the_file_when_it_shall_be_stripped) {
    for (const char coding : {'3', '4'}) {
        folder.write("from/a1", widened("first\nsecond\r\nthird\n", coding));
        folder.write("from/a2", widened("good\n", coding));
        ASSERT_TRUE(run({.source = "from/*",
                         .destination = "to/*",
                         .type = 'T',
                         .overwrite = 'Y',
                         .wildcard = true,
                         .coding = coding,
                         .source_ends = 'M'}));
        for (const auto& [oid, elem] : source->elements) {
            const bool good = elem.source_name == "from/a2";
            EXPECT_EQ(elem.ftxe_status, good ? 'S' : 'E');
            EXPECT_EQ(arrived(oid).ftxe_status, good ? 'C' : 'E');
            EXPECT_EQ(arrived(oid).ftxe_msgnr, good ? 0 : number_transfer_read_failed);
            EXPECT_EQ(arrived(oid).insert, good ? "" : "4711|from/a1|5(Input/output error)");
        }
        EXPECT_FALSE(folder.exists("to/a1"));
        EXPECT_EQ(folder.read("to/a2"), widened("good\n", coding));
        std::filesystem::remove_all(folder / "to");
        std::filesystem::create_directory(folder / "to");
    }
}

TEST_F(ftx_text, mark_of_another_coding_ends_the_stream_and_the_own_one_is_data) {
    const std::string marks[] = {"\xEF\xBB\xBF", "\xFE\xFF", "\xFF\xFE"};
    for (const char coding : {'1', '2', '3', '4'}) {
        for (int marked = 0; marked < 3; ++marked) {
            folder.write("from/file", marks[marked] + "text");
            const bool fits = coding == '1' || coding - '2' == marked;
            ASSERT_EQ(run({.type = 'T', .overwrite = 'Y', .coding = coding}), fits);
            EXPECT_EQ(source->ftx_progress == FTX_SYNC_ISSUED, fits);
            EXPECT_EQ(sent_file().ftxe_msgnr, fits ? 0 : number_transfer_read_failed);
            if (fits && coding != '1') {
                EXPECT_EQ(folder.read("to/file"), marks[marked] + "text");
            }
        }
    }
}

}  // namespace
