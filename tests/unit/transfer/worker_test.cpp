// The agent's records of its workers, what follows from their ends, and who may say what.
#include <sys/wait.h>

#include "base/message_numbers.h"
#include "base/sanitizer.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "channels/policy.h"
#include "messages/records_transfer.h"
#include "module_fixture.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"

namespace {

constexpr int transfer = 4711;

struct worker_test : module_test {
    void SetUp() override {
        module_test::SetUp();
        pcx->loop = LOOP_RUNNING;
        pcx->pcx_hTcpMsg = TcpMsg_Open(tcp_used_by_agent);
        qx7_error error;
        ASSERT_EQ(FTX_Open(pcx, &error), 0);
        // A worker of the test has no modules above it.
        ftx_set_worker_rooms({[](EX_PCX* own) { FTX_after_fork(own); }, [](std::string_view) {}, log_dummy});
    }
    void TearDown() override {
        ccm_thread_end(ccm);
        pcx->running_mode = MODE_AGENT;
        FTX_Close(pcx);
        module_test::TearDown();
        TcpMsg_Close(pcx->pcx_hTcpMsg);
        pcx->pcx_hTcpMsg = nullptr;
    }

    ftx_entry* add_entry(int flags) {
        std::unique_ptr<ftx_entry> entry = AllocFtxEntry(pcx);
        entry->ftx_transfer_id = transfer;
        entry->ftx_flag = flags;
        entry->ftx_Mandant = client;
        entry->ftx_UsrIdNr = number;
        entry->ftx_srv_acv = 77;
        return AddFtxEntry(std::move(entry));
    }

    // A record as a start leaves it, with a channel of that ID.
    __ftx_process& add_worker(int flags, pid_t pid = 999999) {
        int agent_end = 0;
        int worker_end = 0;
        ccm_error_t error;
        EXPECT_EQ(ccm_channel_create_pair(ccm, ftx_worker_name(transfer).c_str(), ccm_name_ipc_agent,
                                          &agent_end, &worker_end, &error),
                  0);
        ccm_channel_silencebyID(ccm, worker_end);
        __ftx_process process{};
        process.ah_idnr = transfer;
        process.ah_idnr2 = 12;
        process.client = client;
        process.userid = number;
        process.flag = flags;
        process.pid = pid;
        process.channel_ID = agent_end;
        process.srv_acv = 77;
        return ftx_glb().ftxpq.emplace_back(process);
    }

    int finish(int channel, int id, pid_t pid) {
        ccm_msg_t* msg = ipc_record_alloc(ccm, ipc_ftx_finish, sizeof(ipcmsg_ftx_finish_t));
        ipcmsg_ftx_finish_t record{};
        memcpy(&record, msg->msg_start, sizeof record);
        record.ah_idnr = id;
        record.pid = pid;
        memcpy(msg->msg_start, &record, sizeof record);
        msg->addr.src_ID = channel;
        const int result = ftx_process_finished(pcx, msg, 0);
        ccm_msg_free(ccm, msg);
        return result;
    }
};

TEST_F(worker_test, a_transfer_is_known_by_entry_worker_or_waiting_order) {
    EXPECT_FALSE(ftx_is_known(transfer));
    add_entry(FTX_RECEIVER);
    EXPECT_TRUE(ftx_is_known(transfer));
    ftx_entries().clear();
    add_worker(FTX_PROCESS_SENDER);
    EXPECT_TRUE(ftx_is_known(transfer));
    ftx_glb().ftxpq.clear();
    __ftx_reverse_connect_savearea waiting{};
    waiting.ah_idnr = transfer;
    ftx_glb().reverse_connect_queue.push_back(waiting);
    EXPECT_TRUE(ftx_is_known(transfer));
    EXPECT_FALSE(ftx_is_known(transfer + 1));
}

TEST_F(worker_test, only_the_worker_itself_ends_its_record) {
    const __ftx_process own = add_worker(FTX_PROCESS_SENDER, 1000);
    const __ftx_process other = add_worker(0, 1001);
    EXPECT_EQ(finish(other.channel_ID, transfer, 1000), -1) << "another's process";
    EXPECT_EQ(finish(own.channel_ID, transfer, 1001), -1);
    EXPECT_EQ(finish(own.channel_ID, transfer + 1, 1000), -1);
    EXPECT_EQ(ftx_get_nof_ftx_processes(), 2);
    EXPECT_EQ(ccm_channel_existbyID(ccm, own.channel_ID), 0) << "who lies is heard no more";

    ftx_glb().ftxpq.clear();
    const __ftx_process good = add_worker(FTX_PROCESS_SENDER, 1002);
    EXPECT_EQ(finish(good.channel_ID, transfer, 1002), 0);
    EXPECT_EQ(ftx_get_nof_ftx_processes(), 0);
    EXPECT_EQ(ccm_channel_existbyID(ccm, good.channel_ID), 1) << "its last lines still come";
    EXPECT_EQ(ccm_channel_existbyName(ccm, ftx_worker_name(transfer).c_str()), 0);
}

TEST_F(worker_test, the_end_of_a_worker_whose_record_stands_is_no_good_one) {
    struct end {
        const char* what;
        int flags;
        int loop;
        const char* answer;  // type of the first message to the server, "" for none
    };
    for (const end& one :
         {end{"a receiver", 0, LOOP_RUNNING, ""},
          end{"a replacement", FTX_PROCESS_SENDER | FTX_PROCESS_REPLACEMENT, LOOP_RUNNING, "FTXSENDQ"},
          end{"a sender while the agent ends", FTX_PROCESS_SENDER, LOOP_DRAIN, ""}}) {
        SCOPED_TRACE(one.what);
        module_test_log.clear();
        pcx->loop = one.loop;
        const __ftx_process lost = add_worker(one.flags);
        EXPECT_EQ(ftx_check_sigchild(pcx, lost.pid + 1, 0, 0), 0) << "none of the workers";
        EXPECT_EQ(ftx_check_sigchild(pcx, lost.pid, 0, 0), 1);
        EXPECT_TRUE(logged(number_worker_died));
        EXPECT_EQ(ftx_get_nof_ftx_processes(), 0);
        EXPECT_EQ(ccm_channel_existbyID(ccm, lost.channel_ID), 0);
        const auto told = sent();
        EXPECT_EQ(told.empty() ? "" : told[0].type(), one.answer);
    }
}

#if !QX_THREAD_SANITIZER  // the tool has no threads in a forked child

TEST_F(worker_test, a_lost_sender_is_replaced_by_a_process_that_is_asked) {
    ASSERT_EQ(ccm_thread_start(ccm, nullptr), 0);
    const __ftx_process lost = add_worker(FTX_PROCESS_SENDER);
    EXPECT_EQ(ftx_check_sigchild(pcx, lost.pid, 9, 9), 1);
    if (pcx->running_mode == MODE_FTX) {
        // The replacement: alone with its transfer, and the question comes over the pair.
        int bad = ftx_entries().size() == 1 && ftx_glb().ftxpq.empty() ? 0 : 1;
        bad |= ccm_get_nof_channels(ccm) == 1 ? 0 : 2;
        ccm_msg_t* msg = nullptr;
        for (int at = 0; at < 20 && (msg == nullptr || msg->type != CCM_MSG_NAT); ++at) {
            ccm_receive_message(ccm, 1, &msg, nullptr);
        }
        bad |= msg != nullptr && msg->origin == CCM_FROM_AGENT && msg->addr.src_name[0] == '\0' &&
                       ftx_may_say(pcx, msg) && view_record<MSG_TYPE_FTXINF>(view_of(msg)).ref_ah_idnr == 12
                   ? 0
                   : 4;
        ftx_process_shutdown(pcx, nullptr);
        bad |= ccm_network_sync(ccm, 5000) == 0 && pcx->shutdown_timer != 0 ? 0 : 8;
        _exit(bad);
    }
    ASSERT_EQ(ftx_get_nof_ftx_processes(), 1);
    const __ftx_process started = ftx_glb().ftxpq.front();
    EXPECT_EQ(started.flag, FTX_PROCESS_SENDER | FTX_PROCESS_REPLACEMENT);
    EXPECT_EQ(started.srv_acv, 77u);
    EXPECT_TRUE(ftx_entries().empty());
    int status = -1;
    ASSERT_EQ(waitpid(started.pid, &status, 0), started.pid);
    EXPECT_EQ(status, 0);
    ccm_msg_t* msg = nullptr;
    for (int at = 0; at < 20 && ftx_get_nof_ftx_processes() > 0; ++at) {
        if (ccm_receive_message(ccm, 1, &msg, nullptr) == 1) {
            if (msg->len == sizeof(ipcmsg_ftx_finish_t) && msg->origin == CCM_FROM_WORKER) {
                ftx_process_finished(pcx, msg, 0);
            }
            ccm_msg_free(ccm, msg);
        }
    }
    EXPECT_EQ(ftx_get_nof_ftx_processes(), 0) << "it has told its end";
}

#endif

// ---- who may say what

struct speech {
    const char* type;
    int mode;
    int role;  // flags of the only entry of a worker
    int origin;
    bool allowed;
};

TEST_F(worker_test, each_message_counts_in_its_process_from_its_sender) {
    for (const speech& one : {speech{"FTXSEND ", MODE_AGENT, 0, CCM_FROM_SERVER, true},
                              {"FTXSEND ", MODE_AGENT, 0, CCM_FROM_PARTNER, true},
                              {"FTXSEND ", MODE_FTX, FTX_SENDER, CCM_FROM_PARTNER, false},
                              {"FTXRECV ", MODE_AGENT, 0, CCM_FROM_SERVER, false},
                              {"FTXRECV ", MODE_FTX, FTX_RECEIVER, CCM_FROM_PARTNER, false},
                              {"FTXRECVQ", MODE_AGENT, 0, CCM_FROM_PARTNER, true},
                              {"FTXSENDQ", MODE_AGENT, 0, CCM_FROM_PARTNER, true},
                              {"FTXSENDQ", MODE_FTX, FTX_RECEIVER, CCM_FROM_PARTNER, true},
                              {"FTXSENDQ", MODE_FTX, FTX_SENDER, CCM_FROM_PARTNER, false},
                              {"FTXDATA ", MODE_AGENT, 0, CCM_FROM_PARTNER, false},
                              {"FTXDATA ", MODE_AGENT, 0, CCM_FROM_SERVER, false},
                              {"FTXDATA ", MODE_FTX, FTX_RECEIVER, CCM_FROM_PARTNER, true},
                              {"FTXDATA ", MODE_FTX, FTX_SENDER, CCM_FROM_PARTNER, false},
                              {"FTXDATA ", MODE_FTX, FTX_RECEIVER, CCM_FROM_AGENT, false},
                              {"FTXEND  ", MODE_FTX, FTX_SENDER, CCM_FROM_PARTNER, false},
                              {"FTXQUIT ", MODE_FTX, FTX_SENDER, CCM_FROM_PARTNER, true},
                              {"FTXENDQ ", MODE_FTX, FTX_RECEIVER, CCM_FROM_PARTNER, false},
                              {"FTXDEL  ", MODE_AGENT, 0, CCM_FROM_SERVER, true},
                              {"FTXDEL  ", MODE_AGENT, 0, CCM_FROM_PARTNER, false},
                              {"FTXCANC ", MODE_FTX, FTX_SENDER, CCM_FROM_AGENT, true},
                              {"FTXREPG ", MODE_FTX, FTX_SENDER, CCM_FROM_PARTNER, false}}) {
        SCOPED_TRACE(one.type + std::to_string(one.mode) + "/" + std::to_string(one.origin));
        pcx->running_mode = one.mode;
        ftx_entries().clear();
        if (one.mode == MODE_FTX) {
            add_entry(one.role);
        }
        int partner = 0;
        int other = 0;
        ASSERT_EQ(ccm_channel_create_pair(ccm, "AGENT2", "OTHER", &partner, &other, nullptr), 0);
        MSG_TYPE_FTXDATA body = new_message<MSG_TYPE_FTXDATA>(client, number);
        memcpy(body.header.msg_typ, one.type, 8);
        ccm_msg_t* msg = message_of(ccm, body);
        msg->origin = one.origin;
        msg->addr.src_ID = partner;
        EXPECT_EQ(ftx_may_say(pcx, msg), one.allowed);
        const bool ends = !one.allowed && one.origin == CCM_FROM_PARTNER;
        EXPECT_EQ(ccm_channel_existbyID(ccm, partner), ends ? 0 : 1);
        ccm_msg_free(ccm, msg);
    }
    pcx->running_mode = MODE_AGENT;
}

TEST_F(worker_test, settings_of_transfers_are_read) {
    write_text(pcx->IniFile,
               "[GLOBAL]\nFT_Owner=Directory\nFT_uid=Parent\nft_temp_file=no\n"
               "[FILETRANSFER]\nFT_Linkfiles=yes\nft_ConnectingTimeout=0\nft_delayed_shutdown=30\n");
    qx7_error error;
    ASSERT_EQ(FTX_Open(pcx, &error), 0);
    const FTX_GLB& glb = ftx_glb();
    EXPECT_EQ(glb.fgx_Owner, 'd');
    EXPECT_EQ(glb.fgx_Owner_uid, 'p');
    EXPECT_EQ(glb.fgx_Owner_gid, 'p') << "follows FT_Owner";
    EXPECT_EQ(GetFtTempFile(), '0');
    EXPECT_TRUE(glb.fgx_Linkfiles);
    EXPECT_EQ(glb.ftx_connectionTimeout, 1);
    EXPECT_EQ(glb.ftx_delayed_shutdown, 30);
}

}  // namespace
