#include "agent/dispatch.h"

#include "agent/ipc_dispatch.h"
#include "agent/loop.h"
#include "agent_fixture.h"
#include "messages/records_server.h"
#include "transfer/legacy/module.h"

namespace {

int module_row_of(const char* name) {
    char field[64] = {};
    copy_text(field, name);
    return dispatch_find_module(field);
}

TEST(dispatch, finds_modules_by_eight_bytes) {
    EXPECT_EQ(module_function_list[module_row_of("JPAKTJ_R")].handler, qxexjp_exec);
    EXPECT_EQ(module_function_list[module_row_of("JPAKTJ_RX")].handler, qxexjp_exec) << "eight bytes count";
    EXPECT_EQ(module_function_list[module_row_of("QXFTEX")].handler, qxexft_exec);
    EXPECT_EQ(module_function_list[module_row_of("QXFTEXX")].handler, process_module_unknown);
    EXPECT_EQ(module_function_list[module_row_of("QXFTE")].handler, process_module_unknown);
    EXPECT_EQ(module_function_list[module_row_of("")].handler, process_module_unknown);
}

TEST(dispatch, a_body_without_a_whole_type_meets_the_default_row) {
    const auto handler = [](const function_row* table, const char* body, int length) {
        return table[dispatch_find_function(table, body, length)].handler;
    };
    EXPECT_EQ(handler(sr_function_list_jp, "EXAKTJ  01", 10), sr_function_list_jp[0].handler);
    EXPECT_EQ(handler(sr_function_list_jp, "EXAKTJ  ", 7), process_function_unknown)
        << "stale bytes behind the body";
    EXPECT_EQ(handler(sr_function_list_jp, "", 0), process_function_unknown);
    EXPECT_EQ(handler(sr_function_list_jp, "EXAKTJX ", 8), process_function_unknown);
    EXPECT_EQ(handler(sr_function_list_ftx, "whatever", 8), process_function_unknown_ftx);
    EXPECT_EQ(handler(sr_function_list_ft, "FT-RECV2", 8), process_ft_send_recv);
    EXPECT_EQ(handler(sr_function_list_ft, "FT_RECV2", 8), process_function_unknown);
}

TEST(dispatch, every_table_is_closed) {
    for (const function_row* table : {sr_function_list, sr_function_list_cmd, sr_function_list_fh,
                                      sr_function_list_ft, sr_function_list_ftx, sr_function_list_getfile,
                                      sr_function_list_jp, sr_function_list_rep, sr_function_list_upgr}) {
        int rows = 0;
        while (table[rows].type[0] != '\0') {
            EXPECT_EQ(strlen(table[rows].type), 8u) << table[rows].type;
            EXPECT_NE(table[rows].handler, nullptr);
            ASSERT_LT(++rows, 30);
        }
        EXPECT_NE(table[rows].handler, nullptr);
    }
    const auto* record = ipc_function_list;
    while (record->name[0] != '\0') {
        ++record;
    }
    EXPECT_EQ(record->handler, process_ipc_unknown);
}

TEST(dispatch, an_unknown_module_answers_a_partner_who_can_be_answered) {
    struct sender {
        const char* what;
        std::string body;
        const char* source;
        int answers;
    };
    const std::string body = "SOMETYPE01" + std::string(20, ' ');
    for (const sender& one : {sender{"a request", body, "QXPARTNR", 1},
                              {"no source", body, "", 0},
                              {"a QUITT", "QUITT   01" + std::string(294, ' '), "QXPARTNR", 0},
                              {"an empty body", "", "QXPARTNR", 0}}) {
        channel_context channels;
        channels.pcx->pcx_flag = PCX_FLAG_SERVER_CHANNEL;
        ccm_msg_t* msg = channels.received(one.body, "NOMODULE", one.source);
        msg->addr.src_ID = 5;
        EXPECT_EQ(process_module_unknown(channels.pcx, msg, 0), -1);
        ccm_msg_free(channels.pcx->ccm, msg);
        EXPECT_EQ(channels.sent_count(), one.answers) << one.what;
        EXPECT_EQ(logged_count(2000033), 1);
    }
}

TEST(dispatch, drops_application_messages_while_the_process_ends) {
    channel_context channels;
    ccm_msg_t* msg = channels.received("EXAKTJ  01" + std::string(20, ' '), "NOMODULE");
    channels.pcx->loop = LOOP_STOP_WANTED;
    EXPECT_EQ(process_NAT_message(channels.pcx, channels.pcx->ccm, msg), 0);
    EXPECT_TRUE(log_lines.empty());
    ccm_msg_free(channels.pcx->ccm, msg);
}

}  // namespace
