// What the agent's events mean for transfers.
#include "agent/ipc_dispatch.h"
#include "agent/worker_process.h"
#include "agent_fixture.h"
#include "base/text.h"
#include "channels/ipc.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"

namespace {

constexpr int transfer = 4711;
constexpr int channel_of_order = 15;

struct transfer_events : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;

    transfer_events() {
        qx7_error error;
        EXPECT_EQ(open_transfers(pcx, &error), 0);
        pcx->pcx_flag = PCX_FLAG_SERVER_CHANNEL;
    }
    ~transfer_events() override { FTX_Close(pcx); }

    // An order that waits for its partner.
    void wait_for_partner() {
        ftx_entries().clear();
        std::unique_ptr<ftx_entry> entry = AllocFtxEntry(pcx);
        entry->ftx_transfer_id = transfer;
        entry->ftx_flag = FTX_SENDER | FTX_DIRECT;
        entry->connecting_ID = channel_of_order;
        AddFtxEntry(std::move(entry));
    }
    // The end of that channel, which was made with this key.
    void close_channel(const std::string& key) {
        ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_channel_close, sizeof(ipcmsg_channel_close_t));
        ipcmsg_channel_close_t record{};
        memcpy(record.header.msgtype, ipc_channel_close, sizeof record.header.msgtype);
        record.ccmch.type = CH_TYPE_AGENT;
        record.ccmch.ID = channel_of_order;
        record.ccmch.cuc = 1;
        copy_text(record.cuc.key, key);
        memcpy(ccm_msg_body(msg), &record, sizeof record);
        msg->type = CCM_MSG_IPC;
        msg->origin = CCM_FROM_SELF;
        process_IPC_message(pcx, pcx->ccm, msg, ipc_function_list);
        ccm_msg_free(pcx->ccm, msg);
    }
};

TEST_F(transfer_events, the_end_of_a_connection_is_told_to_the_order_that_made_it) {
    for (const auto& [key, told] : {std::pair<std::string, bool>{"FTX 4711", true},
                                    {"FTX 4712", false},
                                    {"FTX", false},
                                    {"FTX -4711", false},
                                    {"FTX 4711x", false},
                                    {"FTXX 4711", false}}) {
        wait_for_partner();
        close_channel(key);
        EXPECT_EQ(ftx_entries().empty(), told) << key;
    }
    EXPECT_NE(channels.sent("FTXSEND "), "") << "the server learns it";
}

TEST_F(transfer_events, a_shutdown_waits_once_and_until_the_last_worker_has_ended) {
    ftx_glb().ftx_delayed_shutdown = 60;
    EXPECT_FALSE(shutdown_waits_for_workers(pcx)) << "no worker";
    ftx_glb().ftxpq.push_back({});
    initiate_agent_shutdown(pcx);
    EXPECT_EQ(pcx->loop, LOOP_RUNNING);
    EXPECT_NE(pcx->shutdown_timer, 0);
    shutdown_when_workers_ended(pcx);
    EXPECT_EQ(pcx->loop, LOOP_RUNNING);
    ftx_glb().ftxpq.clear();
    shutdown_when_workers_ended(pcx);
    EXPECT_EQ(pcx->loop, LOOP_STOP_WANTED);
}

TEST_F(transfer_events, a_second_order_to_shut_down_waits_for_nobody) {
    ftx_glb().ftx_delayed_shutdown = 60;
    ftx_glb().ftxpq.push_back({});
    initiate_agent_shutdown(pcx);
    initiate_agent_shutdown(pcx);
    EXPECT_EQ(pcx->loop, LOOP_STOP_WANTED);
}

}  // namespace
