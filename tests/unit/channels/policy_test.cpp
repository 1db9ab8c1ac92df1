#include <cstring>
#include <set>

#include "fixture.h"

namespace {

const int receivers[] = {CCM_IN_AGENT, CCM_IN_LISTENER, CCM_IN_WORKER};
const int origins[] = {
    CCM_FROM_SELF,      CCM_FROM_AGENT,   CCM_FROM_LISTENER, CCM_FROM_WORKER,   CCM_FROM_SERVER,
    CCM_FROM_CANDIDATE, CCM_FROM_PARTNER, CCM_FROM_CALLED,   CCM_FROM_STRANGER, 0};

// A record of the size that its table row asks for.
bytes record(const char* name) {
    for (size_t i = 0; i < ccm_policy_ipc_count; ++i) {
        if (strcmp(ccm_policy_ipc[i].name, name) == 0) {
            bytes data(static_cast<size_t>(ccm_policy_ipc[i].size));
            strncpy(reinterpret_cast<char*>(data.data()), name, 16);
            return data;
        }
    }
    ADD_FAILURE() << name;
    return bytes(16);
}

}  // namespace

TEST(policy, records_are_taken_whole_and_never_from_outside) {
    std::set<std::string> from_listener;
    for (size_t i = 0; i < ccm_policy_ipc_count; ++i) {
        const bytes data = record(ccm_policy_ipc[i].name);
        bytes longer = data;
        longer.push_back(0);
        const auto length = static_cast<int>(data.size());
        for (int receiver : receivers) {
            for (int origin : origins) {
                const bool inside = origin == CCM_FROM_SELF || origin == CCM_FROM_AGENT ||
                                    origin == CCM_FROM_LISTENER || origin == CCM_FROM_WORKER;
                const bool accepted =
                    ccm_policy_judge_ipc(receiver, origin, data.data(), length) == CCM_POLICY_ACCEPT;
                EXPECT_TRUE(inside || !accepted) << ccm_policy_ipc[i].name << " from " << origin;
                EXPECT_EQ(ccm_policy_judge_ipc(receiver, origin, data.data(), length - 1), CCM_POLICY_REFUSE);
                EXPECT_EQ(ccm_policy_judge_ipc(receiver, origin, longer.data(), length + 1),
                          CCM_POLICY_REFUSE);
                if (accepted && origin == CCM_FROM_LISTENER) {
                    EXPECT_EQ(receiver, CCM_IN_AGENT);
                    from_listener.insert(ccm_policy_ipc[i].name);
                }
            }
        }
    }
    const std::set<std::string> expected = {"LOGGING", "PINGQ",  "LISTENER_OK",
                                            "NATMELD", "PASSFD", "GSSHS_REMOTE"};
    EXPECT_EQ(from_listener, expected);
    bytes unknown = text_bytes("EXDATA_REMOTE\0\0\0");
    unknown.resize(16);
    EXPECT_EQ(ccm_policy_judge_ipc(CCM_IN_AGENT, CCM_FROM_SELF, unknown.data(), 16), CCM_POLICY_REFUSE);
}

TEST(policy, variable_records_tell_their_length) {
    for (const char* name : {"NATMELD", "GSSHS_REMOTE"}) {
        bytes data = record(name);
        size_t fixed = data.size();
        int origin = CCM_FROM_LISTENER;
        for (int told : {-1, 0, 9, 10, 11, 0x7fffffff}) {
            bytes whole = data;
            whole.resize(fixed + 10);
            memcpy(whole.data() + fixed - 4, &told, 4);
            EXPECT_EQ(ccm_policy_judge_ipc(CCM_IN_AGENT, origin, whole.data(),
                                           static_cast<int>(whole.size())) == CCM_POLICY_ACCEPT,
                      told == 10)
                << name << told;
        }
    }
}

TEST(policy, a_worker_has_states_reports_and_answers_routed_to_the_server) {
    const auto accepted = [](const char* address, const std::string& type, int told) {
        ipcmsg_routenat_t fixed{};
        strcpy(fixed.header.msgtype, "ROUTENAT");
        strcpy(fixed.addr.dst_addr, address);
        bytes whole(sizeof fixed);
        const bytes body = text_bytes(type);
        fixed.len = static_cast<int>(body.size()) + told;
        memcpy(whole.data(), &fixed, sizeof fixed);
        whole.insert(whole.end(), body.begin(), body.end());
        return ccm_policy_judge_ipc(CCM_IN_AGENT, CCM_FROM_WORKER, whole.data(),
                                    static_cast<int>(whole.size())) == CCM_POLICY_ACCEPT;
    };
    for (const char* type : {"FTXSENDQ", "FTXSTA  ", "FTXWRITE", "QUITT   "}) {
        EXPECT_TRUE(accepted("*SERVER", type, 0)) << type;
    }
    EXPECT_TRUE(accepted("*CP001#00000001", "QUITT   ", 0));
    EXPECT_FALSE(accepted("*SERVER", "QUITT   ", 1)) << "more than came";
    EXPECT_FALSE(accepted("*SERVER", "FTXSTA", 0)) << "no whole type";
    EXPECT_FALSE(accepted("*SERVER", "EXSTOP  ", 0));
    EXPECT_FALSE(accepted("*SERVER", "", 0));
    EXPECT_FALSE(accepted("*IPC(LISTENER)", "QUITT   ", 0));
    EXPECT_FALSE(accepted("", "QUITT   ", 0));
}

TEST(policy, strangers_report_states_and_partners_transfer_files) {
    const auto accepted = [](int receiver, int origin, const char* module, const std::string& type) {
        char field[64] = "";
        strcpy(field, module);
        const bytes body = text_bytes(type + "01123456");
        return ccm_policy_judge_nat(receiver, origin, field, body.data(), static_cast<int>(body.size())) ==
               CCM_POLICY_ACCEPT;
    };
    EXPECT_TRUE(accepted(CCM_IN_LISTENER, CCM_FROM_STRANGER, "JPAKTJ_R", "MELD    "));
    EXPECT_FALSE(accepted(CCM_IN_AGENT, CCM_FROM_STRANGER, "JPAKTJ_R", "MELD    "));
    EXPECT_FALSE(accepted(CCM_IN_LISTENER, CCM_FROM_STRANGER, "JPAKTJ_R", "EXAKTJ  "));
    EXPECT_FALSE(accepted(CCM_IN_LISTENER, CCM_FROM_STRANGER, "EXECCMD", "MELD    "));
    EXPECT_TRUE(accepted(CCM_IN_AGENT, CCM_FROM_SERVER, "NOBODY", "EXAKTJ  "));
    EXPECT_FALSE(accepted(CCM_IN_AGENT, CCM_FROM_CANDIDATE, "JPAKTJ_R", "EXAKTJ  "));
    EXPECT_TRUE(accepted(CCM_IN_WORKER, CCM_FROM_PARTNER, "QXFTXEX", "FTXSENDQ"));
    EXPECT_FALSE(accepted(CCM_IN_WORKER, CCM_FROM_PARTNER, "QXFTXEX", "FTXRECV ")) << "it would fork again";
    EXPECT_FALSE(accepted(CCM_IN_WORKER, CCM_FROM_PARTNER, "QXFTEX", "FT_DATA "));
    EXPECT_TRUE(accepted(CCM_IN_AGENT, CCM_FROM_PARTNER, "QXFTEX", "FT_DATA "));
    EXPECT_FALSE(accepted(CCM_IN_AGENT, CCM_FROM_PARTNER, "QXFTEX", "FTXSENDQ"));
    EXPECT_FALSE(accepted(CCM_IN_AGENT, CCM_FROM_PARTNER, "QXFTXEX", "FTXCANC "));
    EXPECT_FALSE(accepted(CCM_IN_AGENT, CCM_FROM_PARTNER, "JPAKTJ_R", "EXAKTJ  "));
    EXPECT_TRUE(accepted(CCM_IN_WORKER, CCM_FROM_AGENT, "QXFTXEX", "FTXCANC "));
    EXPECT_TRUE(accepted(CCM_IN_LISTENER, CCM_FROM_AGENT, "QXEXVAR", "TRCSET  "));
    char module[64] = "QXFTXEX";
    EXPECT_EQ(ccm_policy_judge_nat(CCM_IN_AGENT, CCM_FROM_PARTNER, module, nullptr, 0), CCM_POLICY_DROP);
    EXPECT_EQ(ccm_policy_judge_nat(CCM_IN_AGENT, CCM_FROM_PARTNER, module, text_bytes("FTXSEND").data(), 7),
              CCM_POLICY_REFUSE);
    EXPECT_EQ(ccm_policy_judge_nat(CCM_IN_AGENT, CCM_FROM_SERVER, module, nullptr, 0), CCM_POLICY_ACCEPT);
}

TEST(policy, only_the_server_ends_the_agent_or_names_other_servers) {
    for (int receiver : receivers) {
        for (int origin : origins) {
            const bool server = receiver == CCM_IN_AGENT && origin == CCM_FROM_SERVER;
            EXPECT_EQ(ccm_policy_judge_native(receiver, origin, 249) == CCM_POLICY_ACCEPT, server);
            EXPECT_EQ(ccm_policy_judge_native(receiver, origin, 68) == CCM_POLICY_ACCEPT, server);
            EXPECT_EQ(ccm_policy_judge_native(receiver, origin, 5), CCM_POLICY_REFUSE);
            EXPECT_NE(ccm_policy_judge_native(receiver, origin, 0), CCM_POLICY_ACCEPT);
        }
    }
    EXPECT_EQ(ccm_policy_judge_native(CCM_IN_AGENT, CCM_FROM_CANDIDATE, 68), CCM_POLICY_DROP);
}

TEST_F(ccm_test, a_refused_item_is_told_as_the_checks_of_a_frame_tell_it) {
    int id = 0;
    partner far = open_channel(CH_TYPE_AGENT, "AGENT02", &id);
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, 0, nullptr);
    msg->type = CCM_MSG_NATIVE;
    msg->origin = CCM_FROM_PARTNER;
    msg->protocol_key = 249;
    msg->addr.src_ID = id;
    EXPECT_EQ(ccm_policy_check(&pcx, ccm, msg), 0);
    free(msg);
    ccm_destroy_deleted_channels(ccm);
    EXPECT_EQ(log_text(1002208),
              "0|f9|not from this partner|AGENT02 127.0.0.1(ID=" + std::to_string(id) + ")|");
}

TEST_F(ccm_test, a_refused_record_ends_its_channel_and_reaches_no_handler) {
    int id = 0;
    int old_id = 0;
    start();
    partner far = open_channel(CH_TYPE_IPC, "*IPC(LISTENER)", &id);
    partner old = open_channel(CH_TYPE_IPC, "*IPC(LISTENER)", &old_id);
    pcx.listener_channel_ID = id;
    static int called = 0;
    called = 0;
    auto handler = [](EX_PCX*, ccm_msg_t*, int) { return ++called; };
    const ipc_function_t functions[] = {{"TIMER_FIRE", handler}, {"LISTENER_OK", handler}, {"", handler}};
    auto send = [&](partner& from, const char* name) {
        bytes data = record(name);
        bytes frame(48 + data.size());
        frame_set_header(frame.data(), "IPC", static_cast<int64_t>(frame.size()));
        memcpy(frame.data() + 48, data.data(), data.size());
        from.send(frame);
        ccm_msg_ptr msg = take_type(CCM_MSG_IPC);
        ASSERT_NE(msg, nullptr);
        process_IPC_message(&pcx, ccm, msg.get(), functions);
    };
    send(far, "LISTENER_OK");
    EXPECT_EQ(called, 1);
    send(old, "LISTENER_OK");  // a listener that was given up is heard no more
    EXPECT_EQ(called, 1);
    send(far, "TIMER_FIRE");
    EXPECT_EQ(called, 1);
    EXPECT_TRUE(far.ended());
    EXPECT_EQ(log_text(-1), "IPC message (TIMER_FIRE) is not known");
    EXPECT_EQ(logged(2000033), 1);
    ASSERT_EQ(send_IPC_internal_name(ccm, ipc_jobchk), 0);
    ccm_msg_ptr msg = take_record(ipc_jobchk);
    ASSERT_NE(msg, nullptr);
    process_IPC_message(&pcx, ccm, msg.get(), functions);  // accepted, and by the default row
    EXPECT_EQ(called, 2);
}
