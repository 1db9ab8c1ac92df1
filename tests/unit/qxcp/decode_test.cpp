#include "qxcp/decode.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <vector>

#include "message_images.h"
#include "messages/frame.h"
#include "qxcp/hex.h"

namespace {

using json = nlohmann::json;

std::string hex(const image& bytes) {
    return cp_to_hex({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

// The lines that decoding one line of hex gives; each must be JSON.
std::vector<json> decode(const std::string& line, bool good = true) {
    std::string out;
    EXPECT_EQ(cp_decode_line({}, line, &out), good) << line;
    std::vector<json> lines;
    for (size_t start = 0; start < out.size();) {
        size_t end = out.find('\n', start);
        lines.push_back(json::parse(out.substr(start, end - start)));
        start = end + 1;
    }
    return lines;
}

TEST(Decode, EndMessageWithVariableData) {
    json line = decode(hex(make_exstaj())).at(0);
    EXPECT_EQ(line["result"], -1);
    EXPECT_EQ(line["number"], 0);
    EXPECT_EQ(line["insert"], "");
    EXPECT_EQ(line["warnings"], json::array());
    EXPECT_EQ(line["type"], "EXSTAJ");
    EXPECT_EQ(line["version"], "04");
    EXPECT_EQ(line["client"], 100);
    EXPECT_EQ(line["user"], 77);
    const json& fields = line["fields"];
    EXPECT_EQ(fields["ah_idnr"], 4711);
    EXPECT_EQ(fields["processid"], "12345");
    EXPECT_EQ(fields["progname"], "");
    EXPECT_EQ(fields["infotext_alt"], json({{"last_rp", "MARK"}, {"infotext", "text of the job"}}));
    EXPECT_EQ(fields["endzeit"]["jjjj"], 2024);
    EXPECT_EQ(fields["steplist"], json::array({{{"step_name", "step one"}, {"step_retcode", 5}}}));
    EXPECT_EQ(fields["restartinfo"], "hex:010200ff");
    EXPECT_EQ(fields["statusv"], json::array({{{"name", "var1"}, {"value", "value1"}, {"type", "C"}},
                                              {{"name", "var2"}, {"value", ""}, {"type", "N"}}}));
    EXPECT_EQ(fields["outfiles"], json::array({{{"ulogin", "Y"}, {"outfile", "/tmp/out.txt"}}}));
    EXPECT_FALSE(fields.contains("filler"));
}

TEST(Decode, FaultsAndWarnings) {
    image message = make_exstaj();
    set_number(&message, 504, 3);
    json line = decode(hex(message)).at(0);
    EXPECT_EQ(line["result"], -2);
    EXPECT_EQ(line["warnings"].size(), 1U);
    EXPECT_EQ(line["warnings"][0]["number"], 1005415);
    EXPECT_EQ(line["warnings"][0]["insert"],
              "EXSTAJ  .outfile_count|3|" + std::to_string(message.size()) + "|");

    line = decode(hex(make_image("EXSTAJ", "04", 91))).at(0);
    EXPECT_EQ(line["result"], -3);
    EXPECT_EQ(line["number"], 1002404);
    EXPECT_EQ(line["fields"]["endzeit"], json({{"jjjj", 0}}));

    EXPECT_EQ(decode("")[0]["result"], -1);
    EXPECT_EQ(decode("51554954")[0]["number"], 1002409);
    EXPECT_EQ(decode("51554954")[0]["type"], "QUIT");
    EXPECT_EQ(decode("3c613e")[0]["xml"], "<a>");
    EXPECT_EQ(decode(hex(make_image("NOBODY", "01", 20)))[0]["number"], 1002413);
    for (const char* bad : {"5", "zz", "51 5", "515g"}) {
        EXPECT_TRUE(decode(bad, false).at(0).contains("error"));
    }
    EXPECT_EQ(decode("51 55 49 54\r")[0]["type"], "QUIT");
}

TEST(Decode, CachePathsAreFieldsOfFixedWidth) {
    image job = make_exaktj();
    set_number(&job, 1812, job.size());
    set_number(&job, 1816, 1);
    size_t start = job.size();
    job.resize(start + 1024, 0);
    set_text(&job, start, "/cache/task");
    set_text(&job, start + 512, "/cache/client");
    json line = decode(hex(job)).at(0);
    EXPECT_EQ(line["result"], -1);
    EXPECT_EQ(line["fields"]["binpaths"],
              json::array({{{"task_cache_path", "/cache/task"}, {"client_cache_path", "/cache/client"}}}));
    EXPECT_EQ(line["fields"]["jcl"], "#!/bin/sh\necho hello\nexit 0\n");
    EXPECT_EQ(line["fields"]["rest"], "S=|/bin/sh|");
}

TEST(Decode, TextAndBytesCanBeToldApart) {
    struct row {
        std::string bytes;
        const char* shown;
    };
    for (const row& row : {row{"h\xC3\xA4user", "h\xC3\xA4user"},
                           {"\xC3", "hex:c3"},
                           {"hex:00", "hex:6865783a3030"},
                           {"quote\" back\\", "quote\" back\\"},
                           {std::string("a\0b", 3), "hex:610062"},
                           {"\xED\xA0\x80", "hex:eda080"},
                           {"tab\tend\r\n", "tab\tend\r\n"},
                           {"\x1B[0m", "hex:1b5b306d"}}) {
        image message = make_image("QUITT", "01", 304);
        set_number(&message, 296, 304);
        set_number(&message, 300, row.bytes.size());
        add_bytes(&message, row.bytes);
        EXPECT_EQ(decode(hex(message)).at(0)["fields"]["msg_content"], row.shown);
    }
}

TEST(Decode, FramesAndCaptures) {
    frame_address address;
    strcpy(address.dst_name, "QXVAREXR");
    strcpy(address.src_addr, "AGENT");
    address.src_acv = 9;
    image message = make_exstaj();
    image frame = frame_make_message(message.data(), message.size(), address);
    std::string card = "AGENT" + std::string(67, ' ');
    image item = frame_make_item(key_executor_data, card.data(), card.size());
    std::vector<json> lines = decode(hex(frame) + hex(item));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0]["frame"], json({{"length", frame.size()},
                                       {"protocol", "NAT"},
                                       {"dst_name", "QXVAREXR"},
                                       {"src_addr", "AGENT"},
                                       {"src_acv", 9}}));
    EXPECT_EQ(lines[0]["type"], "EXSTAJ");
    EXPECT_EQ(lines[0]["result"], -1);
    EXPECT_EQ(lines[1]["item"]["key"], 4);
    EXPECT_EQ(lines[1]["item"]["name"], "AGENT");

    image sealed(frame.begin(), frame.end());
    sealed[48] = 3;
    sealed[49] = 0x82;
    json line = decode(hex(sealed)).at(0);
    EXPECT_TRUE(line.contains("number"));
    EXPECT_TRUE(line.contains("body"));
    frame.pop_back();
    EXPECT_TRUE(decode(hex(frame), false).at(0).contains("error"));
}

TEST(Decode, AlwaysWritesJson) {
    std::mt19937 random(11);
    for (const image& whole : {make_exstaj(), make_exaktj()}) {
        for (int round = 0; round < 500; ++round) {
            image message(whole.begin(), whole.begin() + static_cast<long>(random() % whole.size()));
            for (int k = 0; k < 5 && !message.empty(); ++k) {
                message[random() % message.size()] = static_cast<unsigned char>(random());
            }
            EXPECT_EQ(decode(hex(message)).size(), 1U);
        }
    }
}

}  // namespace
