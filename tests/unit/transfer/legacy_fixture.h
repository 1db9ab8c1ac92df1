// Both sides of a transfer by the older protocol in one process: what one sends is handed to the other, and
// what is for the server is kept.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "base/message_numbers.h"
#include "base/time.h"
#include "messages/records_server.h"
#include "messages/records_transfer.h"
#include "module_fixture.h"
#include "transfer/ftx/module.h"
#include "transfer/legacy/area.h"
#include "transfer/legacy/module.h"

struct legacy_order {
    int id = 1;
    std::string source = {};
    std::string destination = {};
    char type = FT_BINARY;
    char overwrite = FT_KEEP;
    char compress = FT_PLAIN;
    char erase = '0';
    char resume = FT_NO_RESUME;
    int maxrecords = 0;
    std::string sender_rest = {};
    std::string receiver_rest = {};
    std::string code = {};  // of the source
    std::string cont = {};
    int version = 2;
};

struct legacy_test : module_test {
    int channel = 0;
    std::vector<sent_message> told;  // to the server
    std::deque<sent_message> line;   // between the two sides
    int blocks = 0;                  // FT_DATA that arrived

    void SetUp() override {
        module_test::SetUp();
        ftx_glb().fgx_TmpTemplate = "T&runtxt.tmp";
        ftx_glb().fgx_Temp_File = '1';
        ftx_glb().ft_compress_strong = 1;
        ftx_glb().fgx_Owner_uid = ftx_glb().fgx_Owner_gid = 'n';
        open_module();
        connect_partner();
    }
    void TearDown() override {
        FT_Close(pcx);
        module_test::TearDown();
    }

    void open_module(const std::string& settings = "") {
        write_text(pcx->IniFile, settings);
        ASSERT_EQ(FT_Open(pcx, 32256), 0);
    }

    void connect_partner() {
        ccm_channel_t* made = nullptr;
        ASSERT_EQ(ccm_channel_new_entry(ccm, &made, nullptr), 0);
        made->type = CH_TYPE_AGENT;
        made->flag.fetch_or(CH_FLAG_SEALED);
        copy_text(made->name, "PEER");
        channel = made->ID;
        ccm_channel_chain(ccm, made);
    }

    int give(int (*handler)(EX_PCX*, ccm_msg_t*, int), const built_message& body, ccm_origin origin,
             int dst_acv = 0, int src_acv = 0) {
        ccm_msg_t* msg = message_of(ccm, body);
        ccm_setaddr(msg, 1, 0, "", "QXFTEX", dst_acv);
        const bool partner = origin == CCM_FROM_PARTNER;
        msg->addr.src_ID = partner ? channel : 4711;
        copy_text(msg->addr.src_addr, partner ? "PEER" : "*CP001#00000001");
        copy_text(msg->addr.src_name, partner ? "QXFTEX" : "JPEXEC_R");
        msg->addr.src_acv = partner ? src_acv : asker_code;
        msg->origin = origin;
        const int result = handler(pcx, msg, 0);
        ccm_msg_free(ccm, msg);
        return result;
    }

    void take_sent() {
        for (sent_message& message : sent()) {
            if (message.addr.dst_ID == channel) {
                line.push_back(std::move(message));
            } else {
                told.push_back(std::move(message));
            }
        }
    }

    // Hands on the next message between the sides. False when there is none.
    bool step() {
        take_sent();
        if (line.empty()) {
            return false;
        }
        const sent_message message = std::move(line.front());
        line.pop_front();
        const std::string type = message.type();
        auto handler = type == "FT_RECV "   ? process_ft_send_recv
                       : type == "FT_DATA " ? process_ft_data
                       : type == "FT_END  " ? process_ft_end_message
                                            : process_ft_quit;
        blocks += type == "FT_DATA " ? 1 : 0;
        give(handler, built_message(std::span(message.body)), CCM_FROM_PARTNER, message.addr.dst_acv,
             message.addr.src_acv);
        take_sent();
        return true;
    }
    void run() {
        while (step()) {
        }
    }

    static std::string rest_of(const legacy_order& order) {
        std::string rest;
        if (!order.sender_rest.empty()) {
            rest += "1=~" + order.sender_rest + "~";
        }
        if (!order.receiver_rest.empty()) {
            rest += "2=~" + order.receiver_rest + "~";
        }
        return rest;
    }

    int start(const legacy_order& order) {
        message_builder<MSG_TYPE_FT_SEND> send(client, number, order.version);
        MSG_TYPE_FT_SENDU& what = send->ft_send;
        what.ah_idnr = order.id;
        put_text(what.src_file, order.source);
        put_text(what.dst_file, order.destination);
        put_text(what.dst_host, "PEER");
        what.type = order.type;
        what.ov = order.overwrite;
        what.erase = order.erase;
        what.compress = order.compress;
        what.flag = order.resume;
        what.maxrecords = order.maxrecords;
        // The parts stand in fields of the record within the record.
        const auto part = [&](int32_t& dist, int32_t& length, std::string_view bytes) {
            if (!bytes.empty()) {
                dist = static_cast<int32_t>(send.size());
                length = static_cast<int32_t>(bytes.size());
                send.put(bytes);
            }
        };
        part(what.rest_dist, what.rest_len, rest_of(order));
        part(what.src_code_dist, what.src_code_len, order.code);
        part(what.cont_dist, what.cont_len, order.cont);
        told.clear();
        blocks = 0;
        return give(process_ft_send_recv, send, CCM_FROM_SERVER);
    }
    void transfer(const legacy_order& order) {
        start(order);
        run();
    }

    // The last FT_QUIT for the server.
    MSG_TYPE_FT_QUIT end() const {
        for (auto message = told.rbegin(); message != told.rend(); ++message) {
            if (message->type() == "FT_QUIT ") {
                return message->as<MSG_TYPE_FT_QUIT>();
            }
        }
        MSG_TYPE_FT_QUIT none{};
        none.msgnr = -1;
        return none;
    }
    std::string restart_data() const {
        for (auto message = told.rbegin(); message != told.rend(); ++message) {
            if (message->type() == "FT_QUIT ") {
                const auto quit = message->as<MSG_TYPE_FT_QUIT>();
                return std::string(view_text(view_message(message->body.data(), message->body.size()),
                                             quit.stp_dist, quit.stp_len));
            }
        }
        return "";
    }
    // The line between the agents breaks.
    void cut() {
        process_ft_stop(pcx, channel);
        take_sent();
        line.clear();
    }
    size_t files_in(const std::string& place) const {
        size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(place)) {
            (void)entry;
            ++count;
        }
        return count;
    }
};

inline std::string some_bytes(size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    uint32_t state = seed;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

inline std::string some_lines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "line " + std::to_string(i) + std::string(static_cast<size_t>(i % 97), 'x') + "\n";
    }
    return text;
}
