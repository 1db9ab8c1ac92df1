#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <random>
#include <vector>

#include "base/descriptor.h"
#include "base/file_data.h"
#include "scratch.h"

namespace {

std::string wide(const std::string& text, char code) {
    std::string result;
    for (char c : text) {
        code == TEXT_CODE_UCS2BE ? result.append(1, '\0').append(1, c) : result.append(1, c).append(1, '\0');
    }
    return result;
}

// The plain way, byte by byte or pair by pair: what the readers must agree with.
std::vector<std::string> slow_records(const std::string& data, char code) {
    const size_t unit = static_cast<size_t>(text_code_unit(code));
    const std::string end = unit == 1                  ? "\n"
                            : code == TEXT_CODE_UCS2BE ? std::string("\0\n", 2)
                                                       : std::string("\n\0", 2);
    std::vector<std::string> records;
    std::string record;
    for (size_t at = 0; at < data.size(); at += unit) {
        const std::string piece = data.substr(at, unit);
        record += piece;
        if (piece == end) {
            records.push_back(record);
            record.clear();
        }
    }
    if (!record.empty()) {
        records.push_back(record);
    }
    return records;
}

std::vector<std::string> by_descriptor(int fd, char code) {
    std::vector<std::string> records;
    std::vector<char> buffer(200000);
    int length = 0;
    while ((length = fdReadTextRec(fd, buffer.data(), buffer.size(), code)) > 0) {
        records.emplace_back(buffer.data(), static_cast<size_t>(length));
    }
    EXPECT_EQ(length, 0);
    EXPECT_EQ(errno, read_end_of_file);
    return records;
}

std::vector<std::string> by_reader(int fd, char code) {
    text_reader reader;
    text_reader_open(&reader, fd, code, 0);
    std::vector<std::string> records;
    std::vector<char> buffer(200000);
    int length = 0;
    while ((length = text_reader_next(&reader, buffer.data(), buffer.size())) > 0) {
        records.emplace_back(buffer.data(), static_cast<size_t>(length));
    }
    EXPECT_EQ(errno, read_end_of_file);
    return records;
}

std::string mixed_data(std::mt19937& random, size_t size) {
    // Few different bytes, so that line ends stand at odd places of two-byte codes as well.
    constexpr char alphabet[] = {'\0', '\n', 'a', 'b', '\xFF', '\r', 'c', 'd'};
    std::string data(size, '\0');
    const bool long_lines = random() % 2 == 0;
    for (char& c : data) {
        c = alphabet[random() % sizeof alphabet];
        if (long_lines && random() % 400 != 0 && c == '\n') {
            c = 'x';
        }
    }
    return data;
}

}  // namespace

TEST(TextRecords, AllReadersAgreeInAllCodes) {
    scratch dir;
    std::mt19937 random(7);
    for (size_t size : {0U, 1U, 2U, 3U, 511U, 512U, 513U, 8193U, 65535U, 65536U, 65537U, 150000U}) {
        const std::string data = mixed_data(random, size);
        const std::string name = dir.write("data", data);
        for (char code : {TEXT_CODE_NORMAL, TEXT_CODE_UTF8, TEXT_CODE_UCS2BE, TEXT_CODE_UCS2LE}) {
            qx_descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
            const std::vector<std::string> expected = slow_records(data, code);
            EXPECT_EQ(by_descriptor(file.get(), code), expected) << size << code;
            EXPECT_EQ(by_reader(file.get(), code), expected) << size << code;
        }
    }
}

TEST(TextRecords, APipeGivesOneRecordAtATime) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    qx_descriptor reading(ends[0]);
    qx_descriptor writing(ends[1]);
    ASSERT_EQ(WriteFdWrite(writing.get(), "one\ntwo\nthree", 13), 0);
    char buffer[64];
    EXPECT_EQ(fdReadTextRec(reading.get(), buffer, sizeof buffer, TEXT_CODE_NORMAL), 4);
    EXPECT_STREQ(buffer, "one\n");
    EXPECT_EQ(read(reading.get(), buffer, 1), 1);
    EXPECT_EQ(buffer[0], 't') << "nothing behind the record may be taken";
    writing.reset();
    EXPECT_EQ(fdReadTextRec(reading.get(), buffer, sizeof buffer, TEXT_CODE_NORMAL), 3);
    EXPECT_EQ(fdReadTextRec(reading.get(), buffer, sizeof buffer, TEXT_CODE_NORMAL), 5);
    EXPECT_STREQ(buffer, "three");
}

TEST(TextRecords, TooLongIsToldAtTheExactLength) {
    scratch dir;
    const std::string name = dir.write("data", "12345\nrest\n");
    qx_descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    char buffer[16] = "x";
    EXPECT_EQ(fdReadTextRec(file.get(), buffer, 7, TEXT_CODE_NORMAL), -1);  // 6 bytes reach size - 1
    EXPECT_EQ(errno, read_record_too_long);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(TellFilePos(file.get()), 0);
    EXPECT_EQ(fdReadTextRec(file.get(), buffer, 8, TEXT_CODE_NORMAL), 6);
    text_reader reader;
    text_reader_open(&reader, file.get(), TEXT_CODE_NORMAL, 0);
    EXPECT_EQ(text_reader_next(&reader, buffer, 7), -1);
    EXPECT_EQ(errno, read_record_too_long);
    std::string_view record;
    bool cut = false;
    EXPECT_EQ(text_reader_next_view(&reader, 4, &record, &cut), 4);
    EXPECT_TRUE(cut);
    EXPECT_EQ(text_reader_next_view(&reader, 4, &record, &cut), 2);
    EXPECT_FALSE(cut);
    EXPECT_EQ(record, "5\n");
    EXPECT_EQ(reader.position, 6);
}

TEST(TextRecords, ALineThatGrewSinceItWasReadAheadComesWhole) {
    scratch dir;
    const std::string name = dir.write("data", "one\ntw");
    const qx_descriptor file(open(name.c_str(), O_RDWR | O_APPEND | O_CLOEXEC));
    text_reader reader;
    text_reader_open(&reader, file.get(), TEXT_CODE_NORMAL, 0);
    std::string_view record;
    bool cut = false;
    EXPECT_EQ(text_reader_next_view(&reader, 100, &record, &cut), 4);
    text_reader_read_ahead(&reader, 100);
    ASSERT_EQ(WriteFdWrite(file.get(), "o\n", 2), 0);
    EXPECT_EQ(text_reader_next_view(&reader, 100, &record, &cut), 4);
    EXPECT_EQ(record, "two\n");
    text_reader_read_ahead(&reader, 100);
    ASSERT_EQ(WriteFdWrite(file.get(), "more\n", 5), 0);
    EXPECT_EQ(text_reader_next_view(&reader, 100, &record, &cut), 5);
}

TEST(TextRecords, TheLastOnesAreFoundFromTheEnd) {
    scratch dir;
    const std::string mark8 = "\xEF\xBB\xBF";
    struct {
        char code;
        std::string data;
        int64_t records;
        std::string expected;
    } rows[] = {
        {TEXT_CODE_NORMAL, "a\nb\nc\n", 2, "b\nc\n"},
        {TEXT_CODE_NORMAL, "a\nb\nc\n", 3, "a\nb\nc\n"},
        {TEXT_CODE_NORMAL, "a\nb\nc\n", 99, "a\nb\nc\n"},
        {TEXT_CODE_NORMAL, "a\nb\nc\n", 0, ""},
        {TEXT_CODE_UTF8, mark8 + "a\nb\n", 9, "a\nb\n"},
        {TEXT_CODE_UTF8, "a\nb\n", 9, "a\nb\n"},
        {TEXT_CODE_UCS2BE, "\xFE\xFF" + wide("a\nb\n", '3'), 9, wide("a\nb\n", '3')},
        {TEXT_CODE_UCS2LE, wide("a\nb\nc\n", '4'), 1, wide("c\n", '4')},
        // The pair 00 0A across two characters is no line end.
        {TEXT_CODE_UCS2BE, wide("a\n", '3') + std::string("\x41\x00\x0A\x42", 4) + wide("\n", '3'), 1,
         std::string("\x41\x00\x0A\x42", 4) + wide("\n", '3')},
    };
    for (const auto& row : rows) {
        const std::string name = dir.write("data", row.data);
        qx_descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
        const int64_t size = static_cast<int64_t>(row.data.size());
        const int64_t start = text_last_records(file.get(), size, row.records, row.code);
        ASSERT_GE(start, 0);
        EXPECT_EQ(row.data.substr(static_cast<size_t>(start)), row.expected) << row.records << row.code;
    }
}

TEST(TextRecords, BackwardAgreesWithForwardAcrossPieces) {
    scratch dir;
    std::mt19937 random(11);
    const std::string mixed = mixed_data(random, 40000);
    for (char code : {TEXT_CODE_NORMAL, TEXT_CODE_UCS2LE}) {
        // Ended by a line end: counting from the end takes the last one as the end of the last record.
        const std::string data = mixed + (code == TEXT_CODE_NORMAL ? "\n" : wide("\n", code));
        const std::string name = dir.write("data", data);
        qx_descriptor file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
        std::vector<std::string> records = slow_records(data, code);
        for (size_t wanted : {size_t{1}, size_t{7}, records.size() / 2, records.size() - 1}) {
            size_t length = 0;
            for (size_t i = records.size() - wanted; i < records.size(); ++i) {
                length += records[i].size();
            }
            const int64_t size = static_cast<int64_t>(data.size());
            EXPECT_EQ(text_last_records(file.get(), size, static_cast<int64_t>(wanted), code),
                      size - static_cast<int64_t>(length))
                << wanted << code;
        }
    }
}
