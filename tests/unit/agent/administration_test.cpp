#include "agent/administration.h"

#include "agent/listener.h"
#include "agent_fixture.h"
#include "log/trace.h"
#include "messages/conversion.h"
#include "messages/records_server.h"
#include "messages/view.h"

namespace {

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

struct administration : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;
    msgconv_ctx_t conversion;

    administration() {
        pcx->pcx_msgctx = &conversion;
        pcx->pcx_flag = PCX_FLAG_SERVER_CHANNEL;
        pcx->Takt = 100;
        pcx->trcHnd = ZUTRACE_Open(nullptr);
    }
    ~administration() override {
        free(pcx->trc_trigger_text);
        ZUTRACE_Close(pcx->trcHnd);
    }
    int call(int (*handler)(EX_PCX*, ccm_msg_t*, int), const std::string& body) {
        ccm_msg_t* msg = channels.received(body);
        msg->addr.src_ID = 3;
        const int result = handler(pcx, msg, 0);
        ccm_msg_free(pcx->ccm, msg);
        return result;
    }
    template <class Record>
    Record answer(const char* type) {
        const std::string sent = channels.sent(type);
        return view_record<Record>(view_message(sent.data(), sent.size()));
    }
};

MSG_TYPE_TRCSET trace_order(int version, std::string_view flags, std::string_view trigger) {
    auto order = new_message<MSG_TYPE_TRCSET>(0, 0, version);
    put_text(order.flags, flags);
    order.max_size = 64;
    order.trigger_type = 'T';
    order.mem_trace = 'N';
    order.trigger_dist = sizeof order;
    order.trigger_len = static_cast<int32_t>(trigger.size());
    return order;
}

TEST_F(administration, tells_the_state_of_an_idle_agent) {
    auto query = new_message<MSG_TYPE_EXQUERY>(7, 8);
    query.ping1 = 11;
    query.ping2 = 12;
    query.srvtime.jjjj = 2026;
    ASSERT_EQ(call(process_exquery, bytes_of(query)), 0);
    const auto info = answer<MSG_TYPE_EXINFO>("EXINFO");
    EXPECT_EQ(info.header.i2Mandant, 7);
    EXPECT_EQ(info.header.i4UsrIdNr, 8u);
    EXPECT_EQ(info.srvtime.jjjj, 2026);
    EXPECT_EQ(info.ping1, 11);
    EXPECT_EQ(info.ping2, 12);
    EXPECT_EQ(info.jobcount, 0);
    EXPECT_EQ(info.connectcount, 0);
    EXPECT_EQ(info.sysflag, 1);
    EXPECT_GE(info.pcount, 1);
}

TEST_F(administration, trace_order_of_version_1_sets_flags_alone) {
    const std::string trigger = "*stop*";
    call(process_trcset, bytes_of(trace_order(1, "3x20", trigger)) + trigger);
    EXPECT_EQ(pcx->trcFlgs[0], '3');
    EXPECT_EQ(pcx->trcFlgs[1], '0') << "what is no digit is off";
    EXPECT_EQ(pcx->trcFlgs[2], '2');
    EXPECT_EQ(pcx->trc_trigger_text, nullptr);
    EXPECT_EQ(pcx->trc_max_size, 0);
    EXPECT_EQ(logged_count(2000047), 1);

    call(process_trcset, bytes_of(trace_order(2, "1", trigger)) + trigger);
    EXPECT_STREQ(pcx->trc_trigger_text, "*stop*");
    EXPECT_EQ(pcx->trc_max_size, 64);

    MSG_TYPE_TRCSET lying = trace_order(2, "1", trigger);
    lying.trigger_len = 1 << 30;
    call(process_trcset, bytes_of(lying) + trigger);
    EXPECT_EQ(pcx->trc_trigger_text, nullptr) << "text outside the message does not exist";
}

TEST_F(administration, children_follow_a_trace_order_without_a_log_line) {
    pcx->running_mode = MODE_LISTENER;
    call(process_trcset, bytes_of(trace_order(2, "4", "")));
    EXPECT_EQ(pcx->trcFlgs[0], '4');
    EXPECT_EQ(logged_count(2000047), 0);
    EXPECT_EQ(channels.sent_count(), 0);
}

TEST_F(administration, tells_the_trace_settings_in_the_form_that_was_asked_for) {
    call(process_trcset, bytes_of(trace_order(2, "5", "go*")) + "go*");
    auto query = new_message<MSG_TYPE_TRCGET>(0, 0);
    call(process_trcget, bytes_of(query));
    EXPECT_EQ(answer<MSG_TYPE_QUITT>("QUITT").msg_len, 4) << "an older server gets four zero bytes";
    EXPECT_EQ(get_text(answer<MSG_TYPE_QUITT>("QUITT").msg_insert), "5000000000000000");
}

TEST_F(administration, a_refused_logon_ends_the_agent) {
    auto quitt = new_message<MSG_TYPE_QUITT>(0, 0);
    put_text(quitt.msg, "EXSTART2");
    put_text(quitt.quitt, "OK");
    call(process_quitt, bytes_of(quitt));
    EXPECT_EQ(pcx->loop, LOOP_RUNNING);
    put_text(quitt.quitt, "NK");
    put_text(quitt.msg, "EXSTAJ");
    call(process_quitt, bytes_of(quitt));
    EXPECT_EQ(pcx->loop, LOOP_RUNNING);
    put_text(quitt.msg, "EXSTART2");
    quitt.msgnr = 2000999;
    put_text(quitt.msg_insert, "not\nwanted|");
    call(process_quitt, bytes_of(quitt));
    EXPECT_EQ(pcx->loop, LOOP_STOP_WANTED);
    ASSERT_EQ(logged_count(2000999), 1);
    for (const auto& line : log_lines) {
        EXPECT_EQ(line.insert.find('\n'), std::string::npos) << "a partner's text stays on its line";
    }
}

TEST(listener_settings, take_address_and_port_apart_and_never_root) {
    struct listener_case {
        const char* lines;
        const char* address;
        int port;
    };
    for (const listener_case& one : {listener_case{"port=2300\n", "", 2300},
                                     {"port=127.0.0.1:2301\nbindaddr=127.0.0.2\n", "127.0.0.1", 2301},
                                     {"port=2302\nbindaddr=127.0.0.3\n", "127.0.0.3", 2302}}) {
        installed_agent agent;
        agent.sections += std::string("[TCP/IP]\n") + one.lines;
        agent.sections.insert(9, "listenerUID=0\nlistenerGID=-4\n");
        ASSERT_NE(agent.init(), nullptr);
        copy_text(agent.pcx->listener_bindaddr, "192.0.2.1");  // as the last logon left it
        qx7_error error;
        ASSERT_EQ(listener_read_config(agent.pcx, &error), 0);
        EXPECT_STREQ(agent.pcx->listener_bindaddr, one.address);
        EXPECT_EQ(agent.pcx->listener_port, one.port);
        EXPECT_EQ(agent.pcx->ipPort, one.port) << "what the server is told";
        EXPECT_EQ(agent.pcx->listener_uid, 65534u);
        EXPECT_EQ(agent.pcx->listener_gid, 65534u);
    }
}

}  // namespace
