// What the server makes of what agents tell of a transfer.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/message_numbers.h"
#include "messages/records_transfer.h"
#include "messages/timestamp.h"
#include "qxcp/agents/server_state.h"
#include "qxcp/agents/transfers.h"
#include "scratch.h"
#include "security/token.h"

namespace {

cp_transfer some_transfer() {
    cp_transfer transfer;
    transfer.run = 7;
    transfer.origin = 3;
    transfer.source = {"ONE", "/a/\xff name", "ann", "secret", "reclen=80"};
    transfer.destination = {"TWO", "/b/x", "bob", "", ""};
    transfer.text = transfer.reverse = true;
    transfer.overwrite = 'A';
    transfer.coding = "UCS-2LE";
    transfer.window_max = 99;
    transfer.figures.sent_size = int64_t{1} << 40;
    transfer.last_line = 12;
    return transfer;
}

TEST(transfer, is_kept_whole_but_for_its_passwords) {
    const nlohmann::json line = cp_transfer_to_journal(some_transfer());
    EXPECT_EQ(line.dump().find("secret"), std::string::npos);
    const cp_transfer back = cp_transfer_from_journal(nlohmann::json::parse(line.dump()));
    EXPECT_EQ(back.source.path, "/a/\xff name");
    EXPECT_EQ(cp_transfer_to_journal(back), line);
}

TEST(transfer, takes_each_line_of_its_report_once) {
    const auto block = [](char status, int last_id, int lines) {
        return cp_report_block{status, last_id, std::vector<cp_report_line>(static_cast<size_t>(lines))};
    };
    struct {
        cp_report_block block;
        size_t fresh;
        int last_line;
        bool complete;
    } const steps[] = {
        {block('C', 3, 3), 3, 3, false},  {block('C', 3, 3), 0, 3, false},  // came twice
        {block('C', 5, 5), 2, 5, false},                                    // the same again, with more
        {block('C', -1, 0), 0, 5, false},  // of an agent whose worker is lost
        {block('C', 9, 2), 2, 9, false},   // some were left out
        {block('E', 10, 0), 0, 10, true}, {block('C', 10, 1), 0, 10, true},
    };
    cp_transfer transfer;
    for (const auto& step : steps) {
        EXPECT_EQ(cp_transfer_take_block(transfer, step.block).size(), step.fresh);
        EXPECT_EQ(transfer.last_line, step.last_line);
        EXPECT_EQ(transfer.report_complete, step.complete);
    }
}

TEST(transfer, names_its_destination_after_its_source) {
    struct {
        const char *source, *destination;
        bool wildcard;
        const char *new_source, *new_destination;
        bool new_wildcard;
    } const cases[] = {
        {"/a/b.txt", "/c/", false, "/a/b.txt", "/c/b.txt", false},
        {"/a/b.txt", "/c/d", false, "/a/b.txt", "/c/d", false},
        {"/a/*.txt", "/c/", true, "/a/*.txt", "/c/*", true},
        {"/a/", "/c/", false, "/a/*", "/c/*", true},
        {"name", "/c/", false, "name", "/c/name", false},
    };
    for (const auto& row : cases) {
        cp_transfer transfer;
        transfer.source.path = row.source;
        transfer.destination.path = row.destination;
        transfer.wildcard = row.wildcard;
        EXPECT_EQ(cp_complete_paths(transfer), "");
        EXPECT_EQ(transfer.source.path, row.new_source);
        EXPECT_EQ(transfer.destination.path, row.new_destination);
        EXPECT_EQ(transfer.wildcard, row.new_wildcard);
    }
}

// A server without agents on line: what it would send goes nowhere, what it learns counts.
struct transfer_messages : ::testing::Test {
    scratch folder;
    cp_options options;
    std::unique_ptr<cp_server, void (*)(cp_server*)> server{nullptr, cp_server_close};
    std::string error;

    transfer_messages() {
        options.folder = folder.path + "/cp";
        options.control = false;
        open();
    }
    void open() {
        server.reset();
        server = cp_server_open(options, error);
        EXPECT_TRUE(server) << error;
    }
    cp_transfer& add(cp_transfer_state state) {
        cp_transfer transfer = some_transfer();
        transfer.state = state;
        transfer.last_line = 0;
        return server->store.transfers[transfer.run] = transfer;
    }
    void take(const char* agent_name, const built_message& message) {
        cp_agent agent;
        agent.link.agent = agent_name;
        agent.link.received.body = message.bytes();
        cp_handle_message(*server, agent);
    }
    static MSG_TYPE_FTXSTA status(char letter) {
        auto record = new_message<MSG_TYPE_FTXSTA>(100, 1);
        record.ah_idnr = 7;
        record.status_flag = letter;
        record.files_total = 4;
        record.dir_successfull = 2;
        record.sent_size = 4096;
        record.end_time = timestamp_now();
        return record;
    }
};

TEST_F(transfer_messages, end_a_transfer_as_the_source_says) {
    struct {
        char letter;
        cp_transfer_state state;
    } const cases[] = {{'R', cp_transfer_state::running},
                       {'F', cp_transfer_state::finished},
                       {'E', cp_transfer_state::failed},
                       {'C', cp_transfer_state::cancelled}};
    for (const auto& row : cases) {
        const cp_transfer& transfer = add(cp_transfer_state::ordered);
        take("ONE", status(row.letter));
        EXPECT_EQ(transfer.state, row.state);
        EXPECT_EQ(transfer.figures.files_total, 4);
        EXPECT_EQ(transfer.figures.dirs_successful, 2);
        EXPECT_EQ(transfer.figures.sent_size, 4096);
    }
    // The end holds against a status that was overtaken, and against an agent that has no part in it.
    const cp_transfer& transfer = add(cp_transfer_state::finished);
    take("ONE", status('R'));
    EXPECT_EQ(transfer.state, cp_transfer_state::finished);
    add(cp_transfer_state::running);
    take("OTHER", status('F'));
    EXPECT_EQ(transfer.state, cp_transfer_state::running);
}

TEST_F(transfer_messages, tell_a_refusal_from_a_failure_and_a_cancel) {
    struct {
        cp_transfer_state before;
        int number;
        cp_transfer_state after;
    } const cases[] = {
        {cp_transfer_state::ordered, 0, cp_transfer_state::running},
        {cp_transfer_state::ordered, 63017, cp_transfer_state::refused},
        {cp_transfer_state::running, 63083, cp_transfer_state::failed},
        {cp_transfer_state::ordered, number_transfer_cancelled, cp_transfer_state::cancelled},
    };
    for (const auto& row : cases) {
        const cp_transfer& transfer = add(row.before);
        message_builder<MSG_TYPE_FTXSENDQ> answer(100, 1);
        answer->ah_idnr = 7;
        answer->msl_no = row.number;
        answer.add(MSG_TYPE_FTXSENDQ::msl_text, row.number == 0 ? "" : "7|/a/b|");
        take("ONE", answer);
        EXPECT_EQ(transfer.state, row.after) << row.number;
        EXPECT_EQ(transfer.message_number, row.number);
        EXPECT_EQ(transfer.message_insert, row.number == 0 ? "" : "7|/a/b|");
    }
}

TEST_F(transfer_messages, keep_a_report_over_a_new_start_of_the_server) {
    add(cp_transfer_state::running);
    message_builder<MSG_TYPE_FTXWRITE> block(100, 1);
    block->ah_idnr = 7;
    block->status = 'C';
    block->last_id = 2;
    block.begin_table(MSG_TYPE_FTXWRITE::records, 2);
    for (const std::string text : {"7|", "7|/a/b|"}) {
        auto record = MSG_TYPE_FTXWRITE_RECORD{};
        record.timestamp = timestamp_now();
        record.msl_id = text.size() > 2 ? 11125 : 11124;
        const size_t place = block.size() + sizeof record;
        MSG_TYPE_FTXWRITE_RECORD::text(&record, place, text.size());
        block.put_record(record);
        block.put(text);
    }
    take("ONE", block);
    take("ONE", block);  // asked for twice
    open();
    const std::vector<cp_report_line> lines = cp_store_lines(server->store, 7);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].number, 11125);
    EXPECT_EQ(lines[1].insert, "7|/a/b|");
    EXPECT_EQ(server->store.transfers[7].last_line, 2);
    EXPECT_EQ(server->store.next_run, 8);
}

// The agent that connects gets a right that names it, under the key of the one that it may call.
TEST_F(transfer_messages, issue_a_token_that_names_its_bearer) {
    aes_key keys[2];
    const char* names[] = {"ONE", "TWO"};
    for (int i = 0; i < 2; ++i) {
        uint8_t key[gss_key_size];
        ASSERT_EQ(generateKey(key), 0);
        ASSERT_EQ(set_transfer_key(&server->keys, names[i], key), 0);
        ASSERT_EQ(aes_set_key(&keys[i], key), 0);
    }
    std::string token;
    ASSERT_TRUE(cp_delegation_token(server.get(), "ONE", "TWO", token, error)) << error;
    ASSERT_EQ(token.size(), gss_init_token_with_credential_size);
    const auto* bytes = reinterpret_cast<const uint8_t*>(token.data());
    init_token outer;
    ASSERT_EQ(splitInitToken(bytes, token.size(), keys[0], &outer), 0u);
    credential_token credential;
    ASSERT_EQ(splitCredToken(bytes + gss_init_token_size, keys[0], &credential), 0u);
    EXPECT_STREQ(credential.target_name, "TWO");
    init_token inner;
    ASSERT_EQ(splitInitToken(credential.init_token_bytes, gss_init_token_size, keys[1], &inner), 0u);
    EXPECT_STREQ(inner.m_pCodName, "ONE");
    EXPECT_FALSE(cp_delegation_token(server.get(), "ONE", "THREE", token, error));
}

}  // namespace
