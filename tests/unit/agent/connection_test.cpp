// Logon, its answer, liveness, the log on its way, and the gates of the maintenance cycle.
#include "agent/cp_search.h"
#include "agent/log_stream.h"
#include "agent/logon.h"
#include "agent/maintenance.h"
#include "agent/server_connection.h"
#include "agent/system_variables.h"
#include "agent_fixture.h"
#include "base/time.h"
#include "messages/conversion.h"
#include "messages/records_connection.h"
#include "messages/records_server.h"
#include "messages/view.h"

namespace {

struct connection : ::testing::Test {
    channel_context channels;
    EX_PCX* pcx = channels.pcx;
    msgconv_ctx_t conversion;

    connection() {
        qx7_error error;
        EXPECT_EQ(Var_Open(pcx, &error), 0);
        pcx->pcx_msgctx = &conversion;
        pcx->pcx_flag = PCX_FLAG_SERVER_CHANNEL;
        pcx->Per_KeepAlive = 60;
        pcx->Per_JobCheck = 30;
        pcx->Per_Report = 20;
        pcx->pcx_cmd_timeout = 180;
        pcx->ipPort = 2300;
        pcx->listener_alarm_time = alarm_now() + 100000;  // no fork in a test
        copy_text(pcx->listener_bindaddr, "192.0.2.9");
        memset(pcx->report_type, ' ', sizeof pcx->report_type);
    }
    ~connection() override {
        if (pcx->logHnd != nullptr) {
            DeleteLogHandle(pcx);
        }
        free(pcx->pcx_pIPList);
        Var_Close(pcx);
    }
    int add_server_channel() {
        ccm_channel_t* channel = nullptr;
        ccm_error_t error;
        EXPECT_EQ(ccm_channel_new_entry(pcx->ccm, &channel, &error), 0);
        channel->type = CH_TYPE_SERVER;
        channel->timestamp_last_read = alarm_now();
        channel->flag.fetch_or(CH_FLAG_SEALED);
        copy_text(channel->name, ccm_name_server);
        const int id = channel->ID;
        ccm_channel_chain(pcx->ccm, channel);
        return id;
    }
    void take(const std::string& body) {
        ccm_msg_t* msg = channels.received(body);
        EXPECT_EQ(process_exstartq2(pcx, msg, 0), 0);
        ccm_msg_free(pcx->ccm, msg);
    }
};

template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

MSG_TYPE_EXSTRTQ2 good_answer() {
    auto answer = new_message<MSG_TYPE_EXSTRTQ2>(0, 0, 2);
    put_text(answer.rep_type, "LOG");
    answer.anonymous_job = 'Y';
    answer.anonymous_ft = 'N';
    answer.log_to_db = 'Y';
    answer.ah_idnr = 4711;
    answer.job_check = 40;
    answer.keep_alive = 50;
    answer.reconnect = 33;
    answer.report = 25;
    answer.blksize = 8000;
    answer.cmd_timeout = 99;
    answer.chglog_intvl = 2;
    answer.chglog_size = 7;
    return answer;
}

TEST_F(connection, start_message_passes_the_walk_and_tells_a_cold_start) {
    ASSERT_EQ(send_exstart(pcx), 0);
    const std::string sent = channels.sent("EXSTART2");
    ASSERT_GE(sent.size(), sizeof(MSG_TYPE_EXSTART2));
    MSG_TYPE_EXSTART2 start;
    memcpy(&start, sent.data(), sizeof start);
    EXPECT_EQ(message_version(&start.header), 2);
    EXPECT_EQ(get_text(start.host), "AGENT1");
    EXPECT_EQ(start.starttype, 'C');
    EXPECT_EQ(start.version.major, 12);
    EXPECT_EQ(get_text(start.version.release_id), "+build.2108");
    EXPECT_EQ(start.service, 0x6F9Eu);
    EXPECT_EQ(get_text(start.ipadr), "192.0.2.9");
    EXPECT_EQ(start.ipport, 2300);
    EXPECT_EQ(std::string(start.processid, 10), "     32768");
    EXPECT_EQ(get_text(start.hw).find_first_of(" /"), std::string_view::npos);
    EXPECT_EQ(start.vardist, 1120);
    EXPECT_EQ(start.varanz, 5) << "two folders and three presets without an INI file";
}

TEST_F(connection, answer_sets_periods_and_makes_the_next_start_warm) {
    pcx->report_id = 1;
    take(bytes_of(good_answer()));
    EXPECT_NE(pcx->pcx_flag & PCX_FLAG_LOGGED_IN, 0);
    EXPECT_EQ(pcx->Per_JobCheck, 40);
    EXPECT_EQ(pcx->Per_KeepAlive, 50);
    EXPECT_EQ(pcx->Per_Reconnect, 33);
    EXPECT_EQ(pcx->Per_Report, 25);
    EXPECT_EQ(pcx->pcx_cmd_timeout, 99);
    EXPECT_EQ(pcx->logBlksize, 8000);
    EXPECT_EQ(pcx->report_id, 4711);
    EXPECT_EQ(pcx->report_id_neu, 4711);
    EXPECT_EQ(pcx->pcx_chglogIntvl, 2 * 86400);
    EXPECT_EQ(pcx->pcx_chglogSize, 7u);
    EXPECT_EQ(pcx->pcx_anonymusJob, 1);
    EXPECT_EQ(pcx->pcx_JobPwCheck, 0) << "login_check is off";
    EXPECT_EQ(pcx->pcx_FtPwCheck, 1);
    EXPECT_EQ(logged_count(2000231), 1);
    EXPECT_GE(pcx->pcx_iIPCount, 2);
    EXPECT_EQ(pcx->waitForChglogQu, 1) << "another report than the known one: the log changes";
    EXPECT_FALSE(channels.sent("CHGLOGR").empty());
    send_exstart(pcx);
    MSG_TYPE_EXSTART2 start;
    memcpy(&start, channels.sent("EXSTART2").data(), sizeof start);
    EXPECT_EQ(start.starttype, 'W');
}

TEST_F(connection, answer_that_stops_early_or_says_0_leaves_the_periods) {
    MSG_TYPE_EXSTRTQ2 zeros = good_answer();
    zeros.job_check = zeros.keep_alive = zeros.reconnect = 0;
    zeros.report = zeros.cmd_timeout = -3;
    zeros.blksize = 100;
    pcx->logBlksize = 5000;
    const std::string whole = bytes_of(good_answer());
    for (const std::string& body : {bytes_of(zeros), whole.substr(0, 648), whole.substr(0, 16)}) {
        take(body);
        EXPECT_EQ(pcx->Per_JobCheck, 30);
        EXPECT_EQ(pcx->Per_KeepAlive, 60);
        EXPECT_EQ(pcx->Per_Reconnect, 60);
        EXPECT_EQ(pcx->Per_Report, 20);
        EXPECT_EQ(pcx->pcx_cmd_timeout, 180);
        EXPECT_EQ(pcx->logBlksize, 5000);
    }
}

TEST_F(connection, another_time_for_the_rollback_folder_counts_from_today_on) {
    MSG_TYPE_EXSTRTQ2 answer = good_answer();
    answer.rb_rt_time = 3;
    answer.rb_rt_check.abs2_hh = 4;
    take(bytes_of(answer));
    constexpr time_t planned = 4711;
    pcx->rb_cleanup_time = planned;
    take(bytes_of(answer));
    EXPECT_EQ(pcx->rb_cleanup_time, planned) << "a logon by itself must not put it off";
    answer.rb_rt_check.abs2_hh = 5;
    take(bytes_of(answer));
    EXPECT_EQ(pcx->rb_cleanup_time, 0) << "planned anew";
}

TEST_F(connection, silence_is_asked_twice_and_then_ends_the_connection) {
    const int id = add_server_channel();
    pcx->pcx_flag.fetch_or(PCX_FLAG_LOGGED_IN);
    maintenance_server_connection(pcx);
    EXPECT_EQ(channels.sent_count(), 0);
    for (int asked = 1; asked <= 2; ++asked) {
        alarm_clock_advance(61);
        maintenance_server_connection(pcx);
        EXPECT_EQ(pcx->unquitted_srvqry, asked);
        EXPECT_EQ(channels.sent_count(), asked);
        EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, id), 1);
    }
    alarm_clock_advance(61);
    maintenance_server_connection(pcx);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, id), 0);
    EXPECT_EQ(pcx->pcx_flag & PCX_FLAG_LOGGED_IN, 0) << "or the next search would begin at once";
    EXPECT_NEAR(static_cast<double>(pcx->Srv_alarm_time), static_cast<double>(alarm_now() + 30), 1);
}

TEST_F(connection, a_logon_that_nobody_answers_ends_the_connection) {
    const int id = add_server_channel();
    ASSERT_EQ(server_connection_established(pcx, id), 0);
    alarm_clock_advance(pcx->connwait - 1);
    maintenance_server_connection(pcx);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, id), 1);
    // Whatever else the server says: without its answer no job comes from it.
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, id);
    ASSERT_NE(channel, nullptr);
    channel->timestamp_last_read = alarm_now();
    ccm_channel_unlock(pcx->ccm);
    alarm_clock_advance(2);
    maintenance_server_connection(pcx);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, id), 0);
    server_connection_lost(pcx);

    const int next = add_server_channel();
    ASSERT_EQ(server_connection_established(pcx, next), 0);
    take(bytes_of(good_answer()));
    alarm_clock_advance(pcx->connwait + 1);
    maintenance_server_connection(pcx);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, next), 1) << "an answered logon has no limit";
}

TEST_F(connection, a_loss_ends_an_upgrade_that_runs_and_no_restart_that_waits) {
    pcx->upgrade_exit_code = 248;
    server_connection_lost(pcx);
    EXPECT_EQ(pcx->upgrade_exit_code, 248);
    pcx->upgrade_ah_idnr = 7;
    server_connection_lost(pcx);
    EXPECT_EQ(pcx->upgrade_exit_code, 0);
}

TEST_F(connection, a_lost_close_event_does_not_hang_the_agent) {
    maintenance_server_connection(pcx);
    EXPECT_EQ(pcx->pcx_flag & PCX_FLAG_SERVER_CHANNEL, 0);
}

// ---- gates of the search

struct gates : connection {
    gates() {
        pcx->pcx_flag = PCX_FLAG_LISTENER_READY;
        pcx->timer_global = pcx->Log_alarm_time = alarm_now() + 100000;
    }
    // A search without candidates ends in the same moment and is told by its message.
    int found() {
        maintenance_agent(pcx);
        return logged_count(2000355);
    }
};

TEST_F(gates, no_search_before_the_listener_is_ready_or_the_time_has_come) {
    pcx->pcx_flag = 0;
    EXPECT_EQ(found(), 0);
    pcx->pcx_flag = PCX_FLAG_LISTENER_READY;
    EXPECT_EQ(found(), 1);
    EXPECT_EQ(found(), 1) << "Per_Reconnect seconds lie between two searches";
    alarm_clock_advance(61);
    EXPECT_EQ(found(), 2);
}

TEST_F(gates, after_a_loss_the_search_begins_at_once) {
    alarm_clock_advance(2);
    pcx->Srv_alarm_time = alarm_now() + 1000;
    pcx->pcx_flag = PCX_FLAG_LISTENER_READY | PCX_FLAG_LOGGED_IN;
    EXPECT_EQ(found(), 1) << "whatever time was set before";
    EXPECT_EQ(pcx->pcx_flag & PCX_FLAG_LOGGED_IN, 0);
    EXPECT_EQ(found(), 1);
    // A server that takes each logon and hangs up is not called as fast as it can answer.
    int searches = 0;
    for (int loss = 0; loss < 1000; ++loss) {
        pcx->pcx_flag.fetch_or(PCX_FLAG_LOGGED_IN);
        searches = found();
    }
    EXPECT_LE(searches, 10);
    alarm_clock_advance(2);
    EXPECT_GT(found(), searches);
}

TEST_F(gates, no_search_while_the_agent_ends) {
    pcx->loop = LOOP_STOP_WANTED;
    EXPECT_EQ(found(), 0);
}

// ---- the log on its way

struct log_stream : connection {
    log_stream() {
        EXPECT_EQ(CreateLogHandle(pcx), 0);
        ZULOGG_UseMsg(pcx->logHnd, true);
        ZULOGG_FreeMsg(pcx->logHnd);
        put_text(pcx->report_type, "LOG");
        pcx->report_id = pcx->report_id_neu = 5;
        pcx->pcx_flag |= PCX_FLAG_LOGGED_IN;
    }
    void line(const std::string& text) {
        ZULOGG_SetMsg(pcx->logHnd, text.data(), static_cast<int>(text.size()));
    }
    // Text of the first WRITE that waits.
    std::string block() const {
        const std::string sent = channels.sent("WRITE");
        const message_view view = view_message(sent.data(), sent.size());
        const auto head = view_record<MSG_TYPE_WRITE>(view);
        EXPECT_EQ(head.inhalt_dist, 60);
        EXPECT_EQ(head.ah_idnr, 5);
        EXPECT_EQ(head.blksize, pcx->logBlksize);
        return std::string(view_text(view, head.inhalt_dist, head.inhalt_len));
    }
};

TEST_F(log_stream, joins_lines_until_the_block_is_full) {
    pcx->logBlksize = 400;
    line(std::string(120, 'a'));
    line(std::string(120, 'b'));
    line(std::string(120, 'c'));
    EXPECT_EQ(send_logblock2server(pcx), 2) << "a third would not leave 100 bytes";
    EXPECT_EQ(block(), std::string(120, 'a') + "\r\n" + std::string(120, 'b') + "\r\n");
    EXPECT_EQ(send_logblock2server(pcx), 1);
    EXPECT_EQ(send_logblock2server(pcx), 0);
}

TEST_F(log_stream, cuts_a_line_that_does_not_fit_alone_and_goes_on) {
    pcx->logBlksize = 300;
    line(std::string(1000, 'x'));
    line("next");
    EXPECT_EQ(send_logblock2server(pcx), 1);
    EXPECT_EQ(block(), std::string(298, 'x') + "\r\n");
    EXPECT_EQ(send_logblock2server(pcx), 1);
}

TEST_F(log_stream, keeps_its_lines_while_there_is_no_server) {
    line("one");
    line("two");
    pcx->pcx_flag.fetch_and(~PCX_FLAG_SERVER_CHANNEL);
    send_log2server(pcx, 40);
    send_chglogr(pcx);  // the log has grown to its limit meanwhile
    EXPECT_GE(ZULOGG_NrMsg(pcx->logHnd), 2);
    EXPECT_EQ(send_logblock2server(pcx), 0) << "a block that cannot be sent takes no lines with it";
    EXPECT_GE(ZULOGG_NrMsg(pcx->logHnd), 2);
    // Connected again, and not logged on yet: no report is agreed.
    pcx->pcx_flag = PCX_FLAG_SERVER_CHANNEL;
    pcx->waitForChglogQu = 0;
    send_log2server(pcx, 40);
    EXPECT_GE(ZULOGG_NrMsg(pcx->logHnd), 2);
    pcx->pcx_flag.fetch_or(PCX_FLAG_LOGGED_IN);
    send_log2server(pcx, 40);
    EXPECT_EQ(block().substr(0, 10), "one\r\ntwo\r\n");
}

TEST_F(log_stream, waits_while_the_log_changes) {
    line("one");
    pcx->waitForChglogQu = 1;
    send_log2server(pcx, 40);
    EXPECT_EQ(ZULOGG_NrMsg(pcx->logHnd), 1);
    auto answer = new_message<MSG_TYPE_CHGLOGQU>(0, 0);
    answer.ah_idnr_new = 6;
    ccm_msg_t* msg = channels.received(bytes_of(answer));
    process_chglogqu(pcx, msg, 0);
    ccm_msg_free(pcx->ccm, msg);
    EXPECT_EQ(pcx->report_id, 6);
    EXPECT_EQ(pcx->report_id_neu, 6);
    send_log2server(pcx, 40);
    EXPECT_EQ(ZULOGG_NrMsg(pcx->logHnd), 0);
}

TEST_F(connection, after_a_card_with_another_name_no_other_counts) {
    ccm_channel_t* channel = nullptr;
    ccm_error_t error;
    ASSERT_EQ(ccm_channel_new_entry(pcx->ccm, &channel, &error), 0);
    channel->type = CH_TYPE_AGENT;
    channel->cuc = ccm_user_context_new(0);
    copy_text(channel->cuc->name, "WANTED");
    channel->cuc->pDelegCred = new gss_cred_id_struct;
    const int id = channel->ID;
    ccm_channel_chain(pcx->ccm, channel);
    const auto present = [&](const char* name) {
        executor_data card;
        memset(&card, ' ', sizeof card);
        put_text(card.name, name);
        ccm_msg_t* msg = channels.received(std::string(reinterpret_cast<const char*>(&card), sizeof card));
        msg->addr.src_ID = id;
        const int result = process_executor_data(pcx, msg);
        ccm_msg_free(pcx->ccm, msg);
        return result;
    };
    EXPECT_EQ(present("OTHER"), -1);
    EXPECT_EQ(logged_count(2000061), 1);
    EXPECT_EQ(ccm_channel_existbyID(pcx->ccm, id), 0) << "deleted at once";
    EXPECT_EQ(present("WANTED"), -1);
    EXPECT_EQ(logged_count(2000006), 0);
}

}  // namespace
