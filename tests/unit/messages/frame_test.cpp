#include "messages/frame.h"

#include <gtest/gtest.h>

#include <random>

#include "message_images.h"

namespace {

std::string text_of(const image& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

TEST(Frame, HeadersAreWrittenAndReadBack) {
    unsigned char header[48];
    ASSERT_EQ(frame_set_header(header, protocol_native, 353), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(header), 48),
              "00000353QX7:global001NAT" + std::string(24, ' '));
    ASSERT_EQ(frame_set_header(header, protocol_gss, frame_length_max, "Q1"), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(header), 34), "99999999QX7:global001GSSQ1        ");
    EXPECT_EQ(GetProtocolLength(header), frame_length_max);
    EXPECT_EQ(frame_set_header(header, protocol_native, frame_length_max + 1), -1);
    EXPECT_EQ(frame_set_header(header, protocol_native, 47), -1);
    EXPECT_EQ(SetProtocolLength(header, frame_length_max + 1), -1);
    EXPECT_EQ(SetProtocolLength(header, 60), 0);
    EXPECT_EQ(GetProtocolLength(header), 60);
    header[9] = 'x';
    EXPECT_EQ(GetProtocolLength(header), 0);
    EXPECT_EQ(SetProtocolLength(header, 61), -1);
    CrProtocolHeader(header);
    EXPECT_EQ(GetProtocolLength(header), 48);
}

frame_address full_address() {
    frame_address address;
    strcpy(address.dst_addr, "*CP001");
    strcpy(address.dst_name, "SERVER");
    address.dst_acv = 0x01020304;
    strcpy(address.src_addr, "AGENT1");
    strcpy(address.src_name, "QXEXVAR");
    address.src_acv = 7;
    return address;
}

TEST(Frame, BytesOfWholeFrames) {
    image quitt = make_image("QUITT", "01", 304);
    frame_address address;
    strcpy(address.dst_name, "SERVER");
    EXPECT_EQ(text_of(frame_make_message(quitt.data(), quitt.size(), address)),
              "00000367QX7:global001NAT" + std::string(24, ' ') +
                  std::string("\x01\x08SERVER  \xFF\x30\x01\0\0", 15) + text_of(quitt));

    std::string expected = std::string("00000121QX7:global001NAT") + std::string(24, ' ');
    expected += std::string("\x02\x04\x04\x03\x02\x01\x01\x08SERVER  \x03\x06*CP001\xFF\x02\0\0\0hi", 31);
    expected += std::string(
        "\xFD\x18\0\x03\x06"
        "AGENT1\x01\x08QXEXVAR \x02\x04\x07\0\0\0",
        27);
    image frame = frame_make_message("hi", 2, full_address());
    EXPECT_EQ(text_of(frame).substr(8), expected.substr(8));
    EXPECT_EQ(static_cast<size_t>(GetProtocolLength(frame.data())), frame.size());

    // A destination that is no CP is not written; long texts are cut.
    strcpy(address.dst_addr, "*SERVER");
    strcpy(address.dst_name, "LONGERTHAN8");
    memset(address.src_addr, 'a', 63);
    frame = frame_make_message("", 0, address);
    EXPECT_EQ(text_of(frame).substr(48),
              std::string("\x01\x08LONGERTH\xFF\0\0\0\0\xFD\x22\0\x03\x20", 20) + std::string(32, 'a'));
}

TEST(Frame, WrittenFramesReadBack) {
    std::string message(40000, 'm');
    image frame = frame_make_message(message.data(), message.size(), full_address());
    frame_body body;
    qx7_error error;
    ASSERT_EQ(frame_parse_body(frame.data() + 48, frame.size() - 48, &body, &error), 0);
    EXPECT_TRUE(body.is_message);
    EXPECT_FALSE(body.is_xml);
    EXPECT_EQ(body.protocol_key, 0);
    EXPECT_EQ(body.length, message.size());
    EXPECT_EQ(memcmp(frame.data() + 48 + body.offset, message.data(), message.size()), 0);
    EXPECT_STREQ(body.address.dst_addr, "*CP001");
    EXPECT_STREQ(body.address.dst_name, "SERVER");
    EXPECT_EQ(body.address.dst_acv, 0x01020304U);
    EXPECT_STREQ(body.address.src_addr, "AGENT1");
    EXPECT_STREQ(body.address.src_name, "QXEXVAR");
    EXPECT_EQ(body.address.src_acv, 7U);

    for (item_key key : {key_executor_data, key_close_connection, key_server_data, key_cp_list,
                         key_system_shutdown, key_protocol_59}) {
        std::string data(key == key_close_connection ? 20 : key == key_executor_data ? 72 : 300, 'd');
        image item = frame_make_item(key, data.data(), data.size());
        ASSERT_EQ(frame_parse_body(item.data() + 48, item.size() - 48, &body, &error), 0) << +key;
        EXPECT_EQ(body.protocol_key, key);
        EXPECT_EQ(body.length, data.size());
        EXPECT_EQ(item.size(), 48 + body.offset + body.length);
        EXPECT_FALSE(body.is_message);
    }
    EXPECT_TRUE(frame_make_item(4, message.data(), 256).empty());
    EXPECT_TRUE(frame_make_item(249, message.data(), 0x10000).empty());
}

std::string item(unsigned char key, std::string_view data) {
    unsigned char head[8];
    size_t size = item_write_head(head, key, data.size());
    return std::string(reinterpret_cast<char*>(head), size) + std::string(data);
}

TEST(Frame, EachItemHasItsBounds) {
    std::string big(500, 'x');
    auto x = [&big](size_t size) { return big.substr(0, size); };
    std::string message = item(255, x(20));
    struct row {
        std::string body;
        int number;  // 0: accepted
        const char* insert;
    };
    const std::vector<row> rows = {
        {"", 0, ""},
        {message, 0, ""},
        {item(254, x(20)), 0, ""},
        {item(255, ""), 0, ""},
        {item(1, x(8)) + item(2, x(4)) + item(3, x(32)) + message, 0, ""},
        {item(1, x(9)), 1002204, "0|01|9|"},
        {item(2, x(5)), 1002204, "0|02|5|"},
        {item(2, x(3)), 1002204, "0|02|3|"},
        {item(3, x(33)), 1002204, "0|03|33|"},
        {item(4, x(36)), 1002204, "0|04|36|"},
        {item(4, x(37)), 0, ""},
        {item(7, ""), 1002204, "0|07|0|"},
        {item(7, x(32)), 0, ""},
        {item(7, x(33)), 1002204, "0|07|33|"},
        {item(65, x(75)), 1002204, "0|41|75|"},
        {item(65, x(76)), 0, ""},
        {item(249, x(295)), 1002204, "0|f9|295|"},
        {item(249, x(296)), 0, ""},
        {item(68, ""), 0, ""},
        {"A00000x6" + x(76), 1002205, "0|41|"},
        {item(5, x(60)), 1002208, "0|05|Unknown|"},
        {item(6, x(4)), 1002208, "0|06|Unknown|"},
        {item(100, ""), 1002208, "0|64|Unknown|"},
        {item(8, x(3)) + item(9, x(1)) + item(14, x(20)) + item(61, x(12)) + item(62, x(32)) +
             item(63, x(32)) + item(66, x(440)) + message,
         0, ""},
        {item(8, ""), 1002204, "0|08|0|"},
        {item(66, x(439)), 1002204, "0|42|439|"},
        {message + message, 1002208, "25|ff|Repeated|"},
        {item(4, x(72)) + message, 1002208, "74|ff|Repeated|"},
        {message + item(7, x(1)), 1002208, "25|07|Repeated|"},
        {item(253, item(3, x(6)) + item(1, x(8)) + item(2, x(4))) + message, 0, ""},
        {item(253, item(4, x(40))), 1002206, "3|04|"},
        {item(253, item(1, x(9))), 1002204, "3|01|9|"},
        {item(253, item(1, x(8)) + "\x01"), 1002205, "13|01|"},
        {item(253,
              "\x03\x20"
              "a"),
         1002205, "3|03|"},
        {"\xFF", 1002205, "0|ff|"},
        {std::string("\xFF\x05\0\0\0abcd", 9), 1002205, "0|ff|"},
        {"\xFF\xFF\xFF\xFF\xFF"
         "abcd",
         1002205, "0|ff|"},
    };
    for (const row& row : rows) {
        frame_body body;
        qx7_error error;
        // A buffer of exactly the body's size: reading behind it would show.
        image bytes(row.body.begin(), row.body.end());
        EXPECT_EQ(frame_parse_body(bytes.data(), bytes.size(), &body, &error), row.number == 0 ? 0 : -1)
            << row.insert;
        EXPECT_EQ(error.qx_msgnr, row.number) << row.insert;
        EXPECT_STREQ(error.qx_msgInsert, row.insert);
    }
}

TEST(Frame, NamesAreTrimmed) {
    std::string body = item(1, " AB  ") + item(3, "   ") + item(253, item(1, std::string("CD\0EF", 5))) +
                       item(254, "<?xml version");
    frame_body parsed;
    qx7_error error;
    ASSERT_EQ(
        frame_parse_body(reinterpret_cast<const unsigned char*>(body.data()), body.size(), &parsed, &error),
        0);
    EXPECT_STREQ(parsed.address.dst_name, "AB");
    EXPECT_STREQ(parsed.address.dst_addr, "");
    EXPECT_STREQ(parsed.address.src_name, "CD");
    EXPECT_TRUE(parsed.is_xml);
}

TEST(Frame, MutatedBodiesEndCleanly) {
    std::mt19937 random(7);
    image frame = frame_make_message("0123456789abcdef", 16, full_address());
    int refused = 0;
    for (int round = 0; round < 50000; ++round) {
        image body(frame.begin() + 48, frame.end() - static_cast<long>(random() % 3));
        for (int k = 0; k < 2; ++k) {
            body[random() % body.size()] = static_cast<unsigned char>(random());
        }
        frame_body parsed;
        qx7_error error;
        if (frame_parse_body(body.data(), body.size(), &parsed, &error) != 0) {
            ++refused;
            continue;
        }
        ASSERT_LE(parsed.offset + parsed.length, body.size());
    }
    EXPECT_GT(refused, 1000);
}

// ---- the frame check ----

struct handle {
    TCPMSG_WORK_AREA* area = TcpMsg_Open(tcp_used_by_agent);
    ~handle() { TcpMsg_Close(area); }
};

struct verdict {
    int number;
    std::string insert;
    bool operator==(const verdict&) const = default;
};

verdict check(const handle& handle, std::string bytes, unsigned flags = tcp_chk_reader) {
    image exact(bytes.begin(), bytes.end());
    char text[200] = {};
    int number = TCP_Chk(handle.area, exact.data(), exact.size(), flags, text, sizeof text);
    return {number, text};
}

std::string header(const std::string& protocol = "NAT", const std::string& length = "00000367") {
    return length + "QX7:global001" + protocol + std::string(24, ' ');
}

TEST(FrameCheck, AHeaderIsJudgedByteByByte) {
    handle handle;
    TCPMSG_PARMS parms{};
    parms.iMaxPhysMsgSize = 1000;
    ASSERT_EQ(TCP_Parms(handle.area, &parms), 0);
    const std::string good = header();
    for (size_t length = 0; length <= good.size(); ++length) {
        EXPECT_EQ(check(handle, good.substr(0, length)).number, 0) << length;
    }
    // Each of the first 24 bytes counts as soon as it is there (the protocol's when it is whole).
    for (size_t i = 0; i < 24; ++i) {
        std::string bad = good;
        bad[i] = '?';
        const char* field = i < 8 ? "Length|" : i < 18 ? "EyeCatcher|" : i < 21 ? "Version|" : "Protocol|";
        EXPECT_EQ(check(handle, bad), (verdict{1002203, field})) << i;
        EXPECT_EQ(check(handle, bad.substr(0, i)).number, 0) << i;
        EXPECT_EQ(check(handle, bad.substr(0, i < 21 ? i + 1 : 24)).number, 1002203) << i;
    }
    EXPECT_EQ(check(handle, header("NAT", "00000048")), (verdict{1002203, "Length|"}));
    EXPECT_EQ(check(handle, header("NAT", "00000049")).number, 0);
    EXPECT_EQ(check(handle, header("NAT", "00001000")).number, 0);
    EXPECT_EQ(check(handle, header("NAT", "00001001")), (verdict{1002210, "1001|"}));
    EXPECT_EQ(check(handle, header("NAT", "00001001"), tcp_chk_reader | TCP_CHK_SERVER).number, 0);
    EXPECT_EQ(check(handle, header("NAT", "00001001"), tcp_chk_reader | TCP_CHK_NO_LIMIT).number, 0);
    EXPECT_EQ(check(handle, header("GSS")).number, 0);
    EXPECT_EQ(check(handle, header("IPC")).number, 0);
    EXPECT_EQ(check(handle, header("XML")), (verdict{1002203, "Protocol|"}));
    EXPECT_EQ(check(handle, header("XML"), TCP_CHK_HEADER | TCP_CHK_XML).number, 0);
    EXPECT_EQ(TCP_Chk(nullptr, nullptr, 0, tcp_chk_reader, nullptr, 0), 1002201);
}

std::string whole(const std::string& body) {
    char length[9];
    snprintf(length, sizeof length, "%08zu", body.size() + 48);
    return header("NAT", length) + body;
}

TEST(FrameCheck, ABodyIsJudgedByWhoMaySendIt) {
    handle handle;
    constexpr unsigned scan = tcp_chk_reader | TCP_CHK_BODY;
    std::string meld = "MELD    0123456789";
    EXPECT_EQ(check(handle, whole(item(255, meld)), scan).number, 0);
    EXPECT_EQ(check(handle, whole(item(255, "EXAKTJ  0123456789")), scan), (verdict{1002207, "EXAKTJ|"}));
    EXPECT_EQ(check(handle, whole(item(255, "EXAKTJ  0123456789")), scan | TCP_CHK_SERVER).number, 0);
    EXPECT_EQ(check(handle, whole(item(255, "MELD   ")), scan), (verdict{1002204, "48|ff|7|"}));
    EXPECT_EQ(check(handle, whole(item(5, std::string(52, 'x'))), scan),
              (verdict{1002208, "48|05|DefineAddr|"}));
    EXPECT_EQ(check(handle, whole(item(7, "x")), scan), (verdict{1002208, "48|07|CloseConnection|"}));
    EXPECT_EQ(check(handle, whole(item(68, "x")), scan), (verdict{1002208, "48|44|CpList|"}));
    EXPECT_EQ(check(handle, whole(item(249, "x")), scan), (verdict{1002208, "48|f9|SysShutdown|"}));
    EXPECT_EQ(check(handle, whole(item(65, std::string(76, 'x'))), scan | TCP_CHK_SERVER),
              (verdict{1002208, "48|41|ServerData|"}));
    EXPECT_EQ(check(handle, whole(item(65, std::string(76, 'x'))), scan | TCP_CHK_SERVER_DATA).number, 0);
    EXPECT_EQ(check(handle, whole(item(253, item(9, "x"))), scan), (verdict{1002206, "51|09|"}));
    EXPECT_EQ(check(handle, whole(item(253, item(2, "1234") + "\x01")), scan), (verdict{1002205, "57|01|"}));
    EXPECT_EQ(check(handle, whole(item(1, "123456789")), scan), (verdict{1002204, "48|01|9|"}));
    EXPECT_EQ(check(handle, whole("\xFF"), scan), (verdict{1002205, "48|ff|"}));
    EXPECT_EQ(check(handle, whole(std::string("\xFF\x20\0\0\0x", 6)), scan), (verdict{1002205, "48|ff|"}));
    // What has not arrived yet is waited for.
    std::string waiting = whole(item(255, "EXAKTJ  0123456789"));
    EXPECT_EQ(check(handle, waiting.substr(0, waiting.size() - 1), scan).number, 0);
}

TEST(FrameCheck, AScrambledBodyIsReadBack) {
    handle handle;
    std::string plain = item(255, "MELD    0123456789");
    std::string body = item(6, "\x01\x02\x03\x04") + plain;
    image frame;
    add_bytes(&frame, whole(body));
    TcpConvert(0x04030201, frame.data() + 54, plain.size());
    EXPECT_NE(text_of(frame).substr(54), plain);
    char text[100];
    EXPECT_EQ(TCP_Chk(handle.area, frame.data(), frame.size(),
                      tcp_chk_reader | TCP_CHK_BODY | TCP_CHK_DESCRAMBLE, text, sizeof text),
              0);
    EXPECT_EQ(text_of(frame).substr(54), plain);
    // The register: shifted right, the top bit set when bits 0 and 3 differ.
    EXPECT_EQ(TcpNewKey(0x1), 0x80000000U);
    EXPECT_EQ(TcpNewKey(0x8), 0x80000004U);
    EXPECT_EQ(TcpNewKey(0x9), 0x4U);
}

TEST(FrameCheck, OnlyRegisteredTypesAreAllowed) {
    TCPMSG_WORK_AREA* area = TCP_Open(tcp_used_by_agent);
    ASSERT_NE(area, nullptr);
    char text[40];
    EXPECT_EQ(TCP_Allow(area, "NONE", get_msgtab(), text, sizeof text), 1002209);
    EXPECT_STREQ(text, "NONE|");
    EXPECT_EQ(TCP_Allow(area, "NONE", nullptr, text, sizeof text), 0);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(TCP_Allow(area, "MELD", get_msgtab(), text, sizeof text), 0);
    }
    EXPECT_EQ(area->iMsgCnt, 32);
    EXPECT_TRUE(TCP_Allowed(area, "NONE    "));
    EXPECT_FALSE(TCP_Allowed(area, "QUITT   "));
    EXPECT_EQ(TCP_Close(area), 0);
    EXPECT_EQ(TCP_Close(nullptr), 1002201);
}

}  // namespace
