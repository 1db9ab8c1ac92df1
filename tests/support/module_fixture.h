// A module in the test's own process: a context, a queue whose messages nobody takes away, and what was
// logged. What the module sends is taken from the queue.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "channels/internal.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/conversion.h"
#include "messages/frame.h"
#include "messages/head.h"
#include "messages/records_server.h"
#include "messages/view.h"
#include "own_context.h"

using message_bytes = std::vector<unsigned char>;

// Bytes that this process has read so far: says more than a clock about work that must be bounded.
inline int64_t bytes_read_so_far() {
    std::ifstream io("/proc/self/io");
    std::string name;
    int64_t count = 0;
    io >> name >> count;
    return count;
}

// Waits until `done`; false after five seconds.
template <class Done>
bool eventually(Done done) {
    for (int i = 0; i < 500 && !done(); ++i) {
        usleep(10000);
    }
    return done();
}

struct sent_message {
    ccm_addr_t addr;
    message_bytes body;

    std::string type() const { return std::string(body.begin(), body.begin() + 8); }
    template <class Record>
    Record as() const {
        return view_record<Record>(view_message(body.data(), body.size()));
    }
};

struct logged_message {
    int number;
    std::string inserts;
};

inline std::vector<logged_message> module_test_log;

inline void module_test_logger(int number, const char* inserts) {
    module_test_log.push_back({number, inserts == nullptr ? "" : inserts});
}

struct module_test : ::testing::Test {
    own_context context;
    own_folder folder;
    EX_PCX* pcx = context.pcx.get();
    ccm_context_t* ccm = nullptr;
    msgconv_ctx_t conversion;
    log_function former_logger = nullptr;
    std::string user;
    int asker_code = 55;  // what the server tells the answer to its message by

    static constexpr uint16_t client = 100;
    static constexpr uint32_t number = 7;

    void SetUp() override {
        module_test_log.clear();
        former_logger = __log_set_logger(module_test_logger);
        user = pcx->pcx_runUserName;
        ASSERT_EQ(ccm_open(pcx, &ccm, nullptr), 0);
        pcx->ccm = ccm;
        msgconv_open(&conversion, nullptr, nullptr, nullptr, nullptr, nullptr, 1);
        pcx->pcx_msgctx = &conversion;
        copy_text(pcx->pcx_TmpFolder, folder / "temp");
        copy_text(pcx->pcx_OutFolder, folder / "out");
        copy_text(pcx->pcx_WorkFolder, folder.path);
        copy_text(pcx->pcx_work_dir, folder.path);
        copy_text(pcx->IniFile, folder / "agent.ini");
        std::filesystem::create_directory(folder / "temp");
        std::filesystem::create_directory(folder / "out");
        write_text(pcx->IniFile, "[USERID]\nroot=START\n");
        connect_server();
    }

    void TearDown() override {
        ccm_msg_emptying_queues(ccm);
        ccm_channel_closeall(ccm);
        ccm_close(ccm, nullptr);
        msgconv_close();
        __log_set_logger(former_logger);
    }

    void connect_server() {
        ccm_channel_t* channel = nullptr;
        ASSERT_EQ(ccm_channel_new_entry(ccm, &channel, nullptr), 0);
        channel->type = CH_TYPE_SERVER;
        copy_text(channel->name, ccm_name_server);
        ccm_channel_chain(ccm, channel);
        pcx->pcx_flag |= PCX_FLAG_SERVER_CHANNEL;
    }

    // Hands a message to a handler as if the server had sent it.
    int receive(int (*handler)(EX_PCX*, ccm_msg_t*, int), const built_message& body) {
        ccm_msg_t* msg = message_of(ccm, body);
        ccm_setaddr(msg, 1, 0, "", "JPAKTJ_R", 0);
        msg->addr.src_ID = 4711;
        copy_text(msg->addr.src_addr, "*CP001#00000001");
        copy_text(msg->addr.src_name, "JPEXEC_R");
        msg->addr.src_acv = asker_code;
        const int result = handler(pcx, msg, 0);
        ccm_msg_free(ccm, msg);
        return result;
    }

    // Everything that was sent since the last call.
    std::vector<sent_message> sent() {
        std::vector<sent_message> all;
        for (ccm_msg_t* msg = ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
            frame_body items;
            const unsigned char* body = msg->msg_start + frame_header_size;
            const size_t length = static_cast<size_t>(msg->len) - frame_header_size;
            if (msg->type == CCM_MSG_NAT && frame_parse_body(body, length, &items, nullptr) == 0) {
                all.push_back(
                    {msg->addr, message_bytes(body + items.offset, body + items.offset + items.length)});
            } else {
                all.push_back({msg->addr, message_bytes(body, body + length)});
            }
        }
        queue_free_all(ccm, &ccm->sendq, &ccm->queue_lock);
        return all;
    }

    // The first of them; an empty one, which says nothing, when there is none.
    sent_message first_sent() {
        auto all = sent();
        return all.empty() ? sent_message{{}, message_bytes(8, ' ')} : all[0];
    }

    // Word, number and insert of a QUITT.
    static std::string text_of(const sent_message& message) {
        const auto quitt = message.as<MSG_TYPE_QUITT>();
        return std::string(get_text(quitt.quitt)) + " " + std::to_string(quitt.msgnr) + " " +
               std::string(get_text(quitt.msg_insert));
    }
    // The same of what was sent, when that is one QUITT.
    std::string answer() {
        const auto messages = sent();
        return messages.size() == 1 && messages[0].type() == "QUITT   "
                   ? text_of(messages[0])
                   : std::to_string(messages.size()) + " messages";
    }

    static QX_HEADM head(const char* type, int version) {
        QX_HEADM head;
        CreateQxHeadm(&head, type, client, number);
        set_message_version(&head, version);
        return head;
    }

    bool logged(int wanted) const {
        for (const logged_message& line : module_test_log) {
            if (line.number == wanted) {
                return true;
            }
        }
        return false;
    }
};
