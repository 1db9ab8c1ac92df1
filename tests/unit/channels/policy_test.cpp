#include <cstring>
#include <map>
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

// Every name, every receiver, every sender: what isn't listed here is refused.
TEST(policy, records) {
    struct pair {
        int receiver;
        int origin;
    };
    const std::vector<pair> self_everywhere = {
        {CCM_IN_AGENT, CCM_FROM_SELF}, {CCM_IN_LISTENER, CCM_FROM_SELF}, {CCM_IN_WORKER, CCM_FROM_SELF}};
    const std::vector<pair> self_in_agent = {{CCM_IN_AGENT, CCM_FROM_SELF}};
    const std::vector<pair> listener_to_agent = {{CCM_IN_AGENT, CCM_FROM_LISTENER}};
    const std::vector<pair> worker_to_agent = {{CCM_IN_AGENT, CCM_FROM_WORKER}};
    const std::vector<pair> agent_to_listener = {{CCM_IN_LISTENER, CCM_FROM_AGENT}};
    const std::map<std::string, std::vector<pair>> allowed = {
        {"TIMER_FIRE", self_everywhere},
        {"CHANNEL_CLOSE", self_everywhere},
        {"CHANNEL_ACCEPT", self_everywhere},
        {"GSSHS_OK", self_everywhere},
        {"SIGCHLD", self_everywhere},
        {"JOBCHK", self_in_agent},
        {"FT_CHK", self_in_agent},
        {"FHCHK", self_in_agent},
        {"CMD_CHK", self_in_agent},
        {"IOSCHK", self_in_agent},
        {"FTXCHK", {{CCM_IN_AGENT, CCM_FROM_SELF}, {CCM_IN_WORKER, CCM_FROM_SELF}}},
        {"TRACE_FLUSH",
         {{CCM_IN_AGENT, CCM_FROM_SELF},
          {CCM_IN_LISTENER, CCM_FROM_SELF},
          {CCM_IN_WORKER, CCM_FROM_SELF},
          {CCM_IN_LISTENER, CCM_FROM_AGENT},
          {CCM_IN_WORKER, CCM_FROM_AGENT}}},
        {"LOGGING", {{CCM_IN_AGENT, CCM_FROM_LISTENER}, {CCM_IN_AGENT, CCM_FROM_WORKER}}},
        {"PINGQ", listener_to_agent},
        {"LISTENER_OK", listener_to_agent},
        {"NATMELD", listener_to_agent},
        {"PASSFD", listener_to_agent},
        {"GSSHS_REMOTE", {{CCM_IN_AGENT, CCM_FROM_LISTENER}, {CCM_IN_LISTENER, CCM_FROM_AGENT}}},
        {"ROUTENAT", worker_to_agent},
        {"FTX_FINISH", worker_to_agent},
        {"PING", agent_to_listener},
        {"NATQUITT", agent_to_listener},
        {"PASSFD_QUITT", agent_to_listener},
        {"REMOTE_CLOSE", agent_to_listener},
        {"SHUTDOWN", {{CCM_IN_LISTENER, CCM_FROM_AGENT}, {CCM_IN_WORKER, CCM_FROM_AGENT}}},
    };
    std::set<std::string> named;
    for (size_t i = 0; i < ccm_policy_ipc_count; ++i) {
        named.insert(ccm_policy_ipc[i].name);
    }
    EXPECT_EQ(named.size(), allowed.size());
    for (const auto& [name, pairs] : allowed) {
        bytes data = record(name.c_str());
        for (int receiver : receivers) {
            for (int origin : origins) {
                bool expected = false;
                for (const pair& one : pairs) {
                    expected = expected || (one.receiver == receiver && one.origin == origin);
                }
                auto length = static_cast<int>(data.size());
                EXPECT_EQ(ccm_policy_judge_ipc(receiver, origin, data.data(), length) == CCM_POLICY_ACCEPT,
                          expected)
                    << name << " to " << receiver << " from " << origin;
                // A record of another size is none.
                EXPECT_EQ(ccm_policy_judge_ipc(receiver, origin, data.data(), length - 1), CCM_POLICY_REFUSE)
                    << name;
                bytes longer = data;
                longer.push_back(0);
                EXPECT_EQ(ccm_policy_judge_ipc(receiver, origin, longer.data(), length + 1),
                          CCM_POLICY_REFUSE)
                    << name;
            }
        }
    }
    bytes unknown = text_bytes("EXDATA_REMOTE\0\0\0");
    unknown.resize(16);
    EXPECT_EQ(ccm_policy_judge_ipc(CCM_IN_AGENT, CCM_FROM_SELF, unknown.data(), 16), CCM_POLICY_REFUSE);
}

TEST(policy, variable_records_tell_their_length) {
    for (const char* name : {"NATMELD", "GSSHS_REMOTE", "ROUTENAT"}) {
        bytes data = record(name);
        size_t fixed = data.size();
        int origin = strcmp(name, "ROUTENAT") == 0 ? CCM_FROM_WORKER : CCM_FROM_LISTENER;
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

TEST(policy, application_messages) {
    const std::set<std::string> ftx = {"FTXSEND ", "FTXSENDQ", "FTXRECV ", "FTXRECVQ",
                                       "FTXDATA ", "FTXQUIT ", "FTXEND  ", "FTXENDQ "};
    const std::set<std::string> ft = {"FT_RECV ", "FT_DATA ", "FT_END  ", "FT_QUIT "};
    const std::set<std::string> to_worker = {"FTXCANC ", "FTXDEL  ", "FTXREPG ", "FTXINF  "};
    const char* modules[] = {"JPAKTJ_R", "QXFTEX", "QXFTXEX", "QXFHEX",  "GETFILE", "EXECCMD",
                             "BINDATA",  "UPGRD",  "QXEXVAR", "QXREPEX", "NOBODY",  ""};
    std::vector<std::string> types = {"EXAKTJ  ", "MELD    ", "TRCSET  ", "EXREQCMD",
                                      "QUITT   ", "PRCWRITE", "FT_SEND ", "FTXSTA  "};
    types.insert(types.end(), ftx.begin(), ftx.end());
    types.insert(types.end(), ft.begin(), ft.end());
    types.insert(types.end(), to_worker.begin(), to_worker.end());
    for (const std::string& type : types) {
        bytes body = text_bytes(type + "01123456");
        for (std::string module : modules) {
            for (int receiver : receivers) {
                for (int origin : origins) {
                    bool in_agent = receiver == CCM_IN_AGENT;
                    bool in_worker = receiver == CCM_IN_WORKER;
                    bool expected = (in_agent && origin == CCM_FROM_SERVER) ||
                                    (origin == CCM_FROM_PARTNER && (in_agent || in_worker) &&
                                     ((module == "QXFTXEX" && ftx.contains(type)) ||
                                      (module == "QXFTEX" && ft.contains(type)))) ||
                                    (origin == CCM_FROM_AGENT && !in_agent && module == "QXEXVAR" &&
                                     type == "TRCSET  ") ||
                                    (origin == CCM_FROM_AGENT && in_worker && module == "QXFTXEX" &&
                                     to_worker.contains(type)) ||
                                    (origin == CCM_FROM_STRANGER && receiver == CCM_IN_LISTENER &&
                                     module == "JPAKTJ_R" && type == "MELD    ");
                    char field[64] = "";
                    strcpy(field, module.c_str());
                    EXPECT_EQ(ccm_policy_judge_nat(receiver, origin, field, body.data(),
                                                   static_cast<int>(body.size())) == CCM_POLICY_ACCEPT,
                              expected)
                        << type << module << " to " << receiver << " from " << origin;
                }
            }
        }
    }
    char module[64] = "QXFTXEX";
    EXPECT_EQ(ccm_policy_judge_nat(CCM_IN_AGENT, CCM_FROM_PARTNER, module, nullptr, 0), CCM_POLICY_DROP);
    EXPECT_EQ(ccm_policy_judge_nat(CCM_IN_AGENT, CCM_FROM_PARTNER, module, text_bytes("FTXSEND").data(), 7),
              CCM_POLICY_REFUSE);
    EXPECT_EQ(ccm_policy_judge_nat(CCM_IN_AGENT, CCM_FROM_SERVER, module, nullptr, 0), CCM_POLICY_ACCEPT);
}

TEST(policy, items_and_handshakes) {
    auto item = [](int receiver, int origin, int key) {
        return ccm_policy_judge_native(receiver, origin, key);
    };
    for (int receiver : receivers) {
        for (int origin : origins) {
            bool server = receiver == CCM_IN_AGENT && origin == CCM_FROM_SERVER;
            bool candidate = receiver == CCM_IN_AGENT && origin == CCM_FROM_CANDIDATE;
            bool called = receiver == CCM_IN_AGENT && origin == CCM_FROM_CALLED;
            bool stranger = receiver == CCM_IN_LISTENER && origin == CCM_FROM_STRANGER;
            EXPECT_EQ(item(receiver, origin, 249) == CCM_POLICY_ACCEPT, server);
            EXPECT_EQ(item(receiver, origin, 68) == CCM_POLICY_ACCEPT, server);
            EXPECT_EQ(item(receiver, origin, 65) == CCM_POLICY_ACCEPT, server || candidate);
            EXPECT_EQ(item(receiver, origin, 4) == CCM_POLICY_ACCEPT, called || stranger);
            EXPECT_EQ(item(receiver, origin, 5), CCM_POLICY_REFUSE);
            EXPECT_NE(item(receiver, origin, 0), CCM_POLICY_ACCEPT);
            EXPECT_EQ(ccm_policy_judge_gss(receiver, origin) == CCM_POLICY_ACCEPT,
                      candidate || called || stranger);
        }
    }
    EXPECT_EQ(item(CCM_IN_AGENT, CCM_FROM_CANDIDATE, 68), CCM_POLICY_DROP);
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
        ccm_msg_t* msg = receive_type(CCM_MSG_IPC);
        ASSERT_NE(msg, nullptr);
        process_IPC_message(&pcx, ccm, msg, functions);
        free(msg);
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
    ccm_msg_t* msg = receive_record(ipc_jobchk);
    ASSERT_NE(msg, nullptr);
    process_IPC_message(&pcx, ccm, msg, functions);  // accepted, and by the default row
    free(msg);
    EXPECT_EQ(called, 2);
}
