// From an order to an entry: the three cases, and each refusal with its number.
#include <sys/stat.h>

#include <cerrno>

#include "base/code_tables.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "ftx_pair.h"
#include "messages/records_server.h"
#include "security/string_cipher.h"

namespace {

struct orders_test : ftx_test {
    std::string home_source;
    qx7_error err;

    void SetUp() override {
        ftx_test::SetUp();
        write_text(folder / "source", "text");
    }
    ordered good() { return {.source = folder / "source", .destination = "/tmp/destination"}; }

    std::unique_ptr<ftx_entry> read(const message_bytes& body, int origin = CCM_FROM_SERVER) {
        ccm_msg_t* msg = message_of(ccm, built_message(std::span<const unsigned char>(body)));
        msg->origin = origin;
        copy_text(msg->addr.src_name, "JPEXEC_R");
        msg->addr.src_acv = asker_code;
        auto entry = CreateFtxEntry(pcx, msg, &err);
        ccm_msg_free(ccm, msg);
        return entry;
    }
    std::unique_ptr<ftx_entry> read(const ordered& order, int origin = CCM_FROM_SERVER) {
        return read(order_of(order), origin);
    }
    // "number insert" of a refusal, "0 " without one.
    std::string refusal(const ordered& order, int origin = CCM_FROM_SERVER) {
        read(order, origin);
        return std::to_string(err.qx_msgnr) + " " + err.qx_msgInsert;
    }
    // The number that the server or the partner is told; 0 when nothing went.
    int told(const ordered& order, int origin = CCM_FROM_SERVER) {
        module_test_log.clear();
        hand_over(ftx_process_ftxsend, order_of(order), origin, 77);
        const sent_message answer = first_sent();
        if (answer.type() == "FTXSENDQ") {
            return answer.as<MSG_TYPE_FTXSENDQ>().msl_no;
        }
        return answer.type() == "QUITT   " ? -answer.as<MSG_TYPE_QUITT>().msgnr : 0;
    }
};

TEST_F(orders_test, WhoTheAgentIsFollowsFromTheNames) {
    struct names {
        const char *host, *connect;
        int origin, flags;
    };
    constexpr int refused = 0;
    const names cases[] = {
        {"FAR", "FAR", CCM_FROM_SERVER, FTX_DIRECT | FTX_SENDER},
        {"FAR", "NEAR", CCM_FROM_PARTNER, FTX_FROM_RECEIVER | FTX_SENDER},
        {"NEAR", "FAR", CCM_FROM_SERVER, FTX_CONNECT_BACK | FTX_RECEIVER},
        {"NEAR", "NEAR", CCM_FROM_SERVER, refused},
        {"FAR", "OTHER", CCM_FROM_SERVER, refused},
        {"FAR", "NEAR", CCM_FROM_SERVER, refused},
        {"FAR", "FAR", CCM_FROM_PARTNER, refused},
        {"NEAR", "FAR", CCM_FROM_PARTNER, refused},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZ012345", "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345", CCM_FROM_SERVER,
         FTX_DIRECT | FTX_SENDER},
    };
    for (const names& c : cases) {
        ordered order = good();
        order.destination_host = c.host;
        order.connect_name = c.connect;
        const auto entry = read(order, c.origin);
        EXPECT_EQ(entry->ftx_flag, c.flags) << c.host << " " << c.connect;
        EXPECT_EQ(err.qx_msgnr, c.flags == refused ? number_order_not_possible : 0);
        EXPECT_STREQ(err.qx_msgInsert, c.flags == refused ? "QXFTXEX|FTXSEND|" : "");
    }
}

TEST_F(orders_test, WhatCannotBeDoneIsRefusedWithItsNumber) {
    const auto with = [this](auto change) {
        ordered order = good();
        change(&order);
        return refusal(order);
    };
    EXPECT_EQ(with([](ordered*) {}), "0 ");
    EXPECT_EQ(with([](ordered* o) { o->wildcard = 'Y'; }), "11496 4711|" + good().source + "|");
    EXPECT_EQ(with([](ordered* o) {
                  o->wildcard = 'Y';
                  o->source += "*";
                  o->destination = "/tmp/a&0&b&";
              }),
              "11499 4711|/tmp/a&0&b&|");
    EXPECT_EQ(with([](ordered* o) {
                  o->wildcard = 'Y';
                  o->source += "*";
                  o->destination = "/tmp/a&9";
              }),
              "0 ");
    EXPECT_EQ(with([](ordered* o) { o->source_user = "nobody-has-this-name"; }),
              "2001007 nobody-has-this-name|");
    EXPECT_EQ(with([](ordered* o) { o->source = "/dev/null"; }), "63017 4711|/dev/null|");
    EXPECT_EQ(with([](ordered* o) { o->source = "/no/such/file"; }), "0 ")
        << "it fails as one of the transfer";
    EXPECT_EQ(with([](ordered* o) { o->source.clear(); }), "3610 QXFTXEX|FTXSEND|");
    EXPECT_EQ(with([](ordered* o) { o->id = 0; }), "3610 QXFTXEX|FTXSEND|");
    EXPECT_TRUE(with([](ordered* o) {
                    o->source = "/" + std::string(2047, 'x');
                }).starts_with("2003041 create_Path()|"));
    EXPECT_EQ(err.qx_errno, ENAMETOOLONG);
    EXPECT_EQ(with([](ordered* o) { o->source = "/" + std::string(2046, 'x'); }), "0 ");
    EXPECT_EQ(with([](ordered* o) {
                  o->type = 'T';
                  o->source_code = "EBCDIC";
              }),
              "3610 QXFTXEX|FTXSEND|");
    EXPECT_TRUE(
        with([](ordered* o) { o->rest = std::string(66000, 'x'); }).starts_with("2000102 FTXSEND|90-"));

    ASSERT_EQ(symlink("/dev/null", (folder / "link").c_str()), 0);
    const std::string link = folder / "link";
    EXPECT_EQ(with([&](ordered* o) { o->source = link; }), "63077 4711|" + link + "|");
    ftx_glb().fgx_Linkfiles = true;
    EXPECT_EQ(with([&](ordered* o) { o->source = link; }), "0 ");

    ftx_glb().fgx_PwCheck = 1;
    EXPECT_EQ(with([](ordered*) {}), "2000096 |");
    const std::string wrong = with([&](ordered* o) {
        o->source_user = user;
        o->source_password = build_password_field(o->id, "surely not this one");
    });
    EXPECT_TRUE(wrong.starts_with(geteuid() == 0 ? "2001007 " : "2000102 PasswordCheck(")) << wrong;
}

TEST_F(orders_test, AShortOrderIsNotFilledFromBehindIt) {
    message_bytes body = order_of(good());
    for (const size_t size : {size_t{0}, size_t{7}, size_t{16}, size_t{19}, sizeof(MSG_TYPE_FTXSEND) - 1}) {
        message_bytes cut = body;
        cut.resize(size);
        read(cut);
        EXPECT_EQ(err.qx_msgnr, number_order_not_possible) << size;
    }
}

TEST_F(orders_test, TheEntryHoldsWhatWasOrdered) {
    ordered order = good();
    order.type = 'T';
    order.source_code = "UCS-2LE";
    order.rest =
        "1=|nl=m,reclen=80,connect_name=ELSEWHERE,connect_port=77,rifreq=3,simulate_readerror=9|2='nl=none,"
        "uid=parent'";
    order.min = -1;
    order.max = 1000000;
    order.num = 2000000;
    order.repeats = 4700;
    order.overwrite = 'A';
    const auto sender = read(order);
    EXPECT_EQ(sender->ftx_text_coding, '4');
    EXPECT_EQ(sender->ftx_separate, 'M');
    EXPECT_EQ(sender->ftx_reclen, 80);
    EXPECT_EQ(get_text(sender->ftx_connect_name), "ELSEWHERE");
    EXPECT_EQ(sender->ftx_connect_port, 77);
    EXPECT_EQ(sender->simulate_readerror, 9);
    EXPECT_EQ(sender->ftx_overwrite, 'Y') << "a repeat";
    EXPECT_EQ(sender->ftx_async_quit_max, sender->ftx_async_quit_num);
    EXPECT_EQ(sender->user_name, user);
    EXPECT_EQ(sender->ftx_pw_uid, UINT32_MAX);

    // What the receiver gets has the same limits, and its own part of the rest.
    ftx_send_ftxrecv(pcx, sender.get());
    const sent_message recv = first_sent();
    EXPECT_EQ(recv.addr.src_acv, asker_code);
    const auto receiver = read(recv.body, CCM_FROM_PARTNER);
    EXPECT_EQ(receiver->ftx_flag, FTX_RECEIVER);
    EXPECT_EQ(receiver->ftx_async_quit_max, sender->ftx_async_quit_max);
    EXPECT_EQ(receiver->ftx_separate, 'N');
    EXPECT_EQ(receiver->ftx_OwnerUid, 'p');
    EXPECT_EQ(receiver->ftx_src_hosttype, 0);
    EXPECT_EQ(receiver->simulate_readerror, 0);

    order.rest = "1=|QX_subdirstruct=Y|";
    order.source_code = std::string(code_table_message_size, '\1');
    const auto folders = read(order);
    EXPECT_TRUE(folders->has(FTX_SUBDIRSTRUCT));
    EXPECT_TRUE(folders->rest_text.empty());
    EXPECT_EQ(folders->code_table[0], 1);
}

TEST_F(orders_test, ARestartWithoutAStoreBeginsAnewOnBothSides) {
    ordered order = good();
    order.restart = '1';
    const auto entry = read(order);
    EXPECT_EQ(entry->ftx_restart, '2');
    ftx_send_ftxrecv(pcx, entry.get());
    EXPECT_EQ(first_sent().as<MSG_TYPE_FTXRECV>().ftxsndrcv.restart, '2');
}

// ---- Answers

TEST_F(orders_test, ARefusalReachesWhomItMust) {
    ordered order = good();
    order.wildcard = 'Y';
    EXPECT_EQ(told(order), number_wildcard_no_source_mask);
    EXPECT_TRUE(logged(number_transfer_failed));
    EXPECT_EQ(told(good()), number_security_call) << "a token that is none";
    order = good();
    order.connect_name = order.destination_host = "*FAR";
    EXPECT_EQ(told(order), -number_read_failed) << "no agent's name: QUITT NK";
    pcx->upgrade_ah_idnr = 9;
    EXPECT_EQ(told(good()), number_upgrade_running);
    pcx->upgrade_ah_idnr = 0;

    AddFtxEntry(AllocFtxEntry(pcx))->ftx_transfer_id = 4711;
    EXPECT_EQ(told(good()), number_transfer_known);
    EXPECT_NE(getFtxByIdnr(4711), nullptr);

    // From a partner it goes back over the same connection, if that one hands it on.
    order = good();
    order.connect_name = "NEAR";
    hand_over(ftx_process_ftxsend, order_of(order), CCM_FROM_PARTNER, 77);
    EXPECT_EQ(first_sent().addr.dst_ID, 0) << "there is no such channel any more";
    order.id = 1;
    order.destination_host = "NEAR";
    hand_over(ftx_process_ftxsend, order_of(order), CCM_FROM_PARTNER, 77);
    EXPECT_TRUE(logged(number_partner_misbehaves));
    EXPECT_TRUE(sent().empty());
}

TEST_F(orders_test, AReceiverRefusesWithFtxrecvq) {
    message_bytes recv = order_of(good());
    memcpy(recv.data(), "FTXRECV ", 8);
    const auto answer = [&](const message_bytes& body) {
        hand_over(ftx_process_ftxrecv, body, CCM_FROM_PARTNER, 77);
        const sent_message message = first_sent();
        EXPECT_EQ(message.addr.dst_ID, 77);
        return message.type() == "FTXRECVQ" ? message.as<MSG_TYPE_FTXRECVQ>() : MSG_TYPE_FTXRECVQ{};
    };
    ftx_glb().fgx_PwCheck = 1;
    const auto refused = answer(recv);
    EXPECT_EQ(refused.msl_no, number_login_required);
    EXPECT_EQ(refused.svc_list, 3);
    EXPECT_EQ(refused.can_continue, 'Y');
    ftx_glb().fgx_PwCheck = 0;
    ftx_glb().ftxpq.push_back(
        {.ah_idnr = 4711, .ah_idnr2 = 0, .client = 1, .userid = 1, .flag = 0, .pid = 1, .channel_ID = 0});
    EXPECT_EQ(answer(recv).msl_no, number_transfer_known);
    ftx_glb().ftxpq.clear();

    // Only an agent's partner may send it.
    EXPECT_EQ(hand_over(ftx_process_ftxrecv, recv, CCM_FROM_SERVER, 77), -1);
    EXPECT_TRUE(sent().empty());

    ordered silent = good();
    silent.rest = "2=|skip_ftxrecvq|";
    recv = order_of(silent);
    memcpy(recv.data(), "FTXRECV ", 8);
    EXPECT_EQ(hand_over(ftx_process_ftxrecv, recv, CCM_FROM_PARTNER, 77), 0);
    EXPECT_TRUE(logged(number_transfer_receives));
    EXPECT_TRUE(sent().empty());
    EXPECT_TRUE(ftx_entries().empty());
}

// ---- Before a worker exists

struct waiting_test : orders_test {
    static constexpr int channel = 900;
    ccm_channel_image_t image = {};

    void SetUp() override {
        orders_test::SetUp();
        image.ID = channel;
    }
    ftx_entry* waiting_sender(const char* host, const char* connect) {
        ordered order = good();
        order.destination_host = host;
        order.connect_name = connect;
        auto entry = read(order, strcmp(connect, "NEAR") == 0 ? CCM_FROM_PARTNER : CCM_FROM_SERVER);
        EXPECT_EQ(err.qx_msgnr, 0);
        entry->connecting_ID = channel;
        return AddFtxEntry(std::move(entry));
    }
    void waiting_area() {
        ordered order = good();
        order.destination_host = "NEAR";
        auto entry = read(order);
        entry->connecting_ID = channel;
        ftx_add_area(entry.get());
    }
};

TEST_F(waiting_test, TheEndOfAConnectionIsToldOnce) {
    ftx_entry* direct = waiting_sender("FAR", "FAR");
    image.msgnr = number_no_answer;
    copy_text(image.msginsert, "host|10|");
    ftx_connection_failed(pcx, 4711, image);
    sent_message answer = first_sent();
    ASSERT_EQ(answer.type(), "QUITT   ");
    EXPECT_EQ(answer.as<MSG_TYPE_QUITT>().msgnr, number_no_answer);
    EXPECT_EQ(get_text(answer.as<MSG_TYPE_QUITT>().msg), "FTXSEND");
    EXPECT_EQ(getFtxByIdnr(4711), nullptr);
    ftx_connection_failed(pcx, 4711, image);
    EXPECT_TRUE(sent().empty());

    image.msgnr = 0;
    ftx_entry* reversed = waiting_sender("FAR", "NEAR");
    reversed->partnerID = channel;
    ftx_connection_closed(pcx, image);
    answer = first_sent();
    ASSERT_EQ(answer.type(), "FTXSENDQ");
    EXPECT_EQ(answer.as<MSG_TYPE_FTXSENDQ>().msl_no, number_transfer_connection_closed);
    EXPECT_EQ(answer.addr.dst_acv, asker_code);
    (void)direct;

    waiting_area();
    ftx_connection_failed(pcx, 4711, image);
    EXPECT_EQ(first_sent().type(), "QUITT   ");
    waiting_area();
    ftx_area_of(4711)->answered = true;
    ftx_connection_closed(pcx, image);
    EXPECT_TRUE(sent().empty()) << "the sender tells";
    EXPECT_EQ(ftx_area_of(4711), nullptr);
}

TEST_F(waiting_test, AReversedOrderGoesOnWithItsAskersName) {
    waiting_area();
    EXPECT_TRUE(ftx_is_known(4711));
    ftx_connection_succeeded(pcx, 4711, channel);
    const sent_message order = first_sent();
    EXPECT_EQ(order.type(), "FTXSEND ");
    EXPECT_EQ(order.addr.dst_ID, channel);
    EXPECT_STREQ(order.addr.src_name, "JPEXEC_R");
    EXPECT_EQ(order.addr.src_acv, asker_code);

    // The sender must not make something else of it.
    ordered other = good();
    other.destination_host = "NEAR";
    other.destination = "/etc/passwd";
    message_bytes recv = order_of(other);
    memcpy(recv.data(), "FTXRECV ", 8);
    hand_over(ftx_process_ftxrecv, recv, CCM_FROM_PARTNER, channel);
    EXPECT_TRUE(logged(number_partner_misbehaves));

    // Its refusal is handed on, once, and only for this order.
    auto refusal = new_message<MSG_TYPE_FTXSENDQ>(client, number);
    refusal.ah_idnr = 5;
    EXPECT_EQ(hand_over(ftx_process_ftxsendq, built_message(refusal).bytes(), CCM_FROM_PARTNER, channel), -1);
    refusal.ah_idnr = 4711;
    EXPECT_EQ(hand_over(ftx_process_ftxsendq, built_message(refusal).bytes(), CCM_FROM_PARTNER, channel), 0);
    EXPECT_EQ(first_sent().type(), "FTXSENDQ");
    EXPECT_EQ(hand_over(ftx_process_ftxsendq, built_message(refusal).bytes(), CCM_FROM_PARTNER, channel), -1);
}

TEST_F(waiting_test, FtxrecvqCountsOnceAndOverItsChannel) {
    ftx_entry* ftx = waiting_sender("FAR", "FAR");
    auto answer = new_message<MSG_TYPE_FTXRECVQ>(client, number);
    answer.ah_idnr = 4711;
    answer.msl_no = number_login_required;
    const message_bytes body = built_message(answer).bytes();
    EXPECT_EQ(hand_over(ftx_process_ftxrecvq, body, CCM_FROM_PARTNER, channel), -1);
    EXPECT_TRUE(logged(number_partner_misbehaves)) << "FTXRECV has not gone out";
    ftx_connection_succeeded(pcx, 4711, channel);
    EXPECT_EQ(first_sent().type(), "FTXRECV ");
    hand_over(ftx_process_ftxrecvq, body, CCM_FROM_PARTNER, channel + 1);
    EXPECT_TRUE(sent().empty());
    hand_over(ftx_process_ftxrecvq, body, CCM_FROM_PARTNER, channel);
    EXPECT_EQ(first_sent().as<MSG_TYPE_FTXSENDQ>().msl_no, number_login_required);
    EXPECT_EQ(getFtxByIdnr(4711), nullptr);
    (void)ftx;
}

TEST_F(waiting_test, APartnerThatDoesNotAnswerIsGivenUp) {
    for (const int limit : {5, 0}) {  // 0 is a minute
        pcx->ftx_con_timeout = static_cast<short>(limit);
        ccm_channel_t* partner = nullptr;
        ASSERT_EQ(ccm_channel_new_entry(ccm, &partner, nullptr), 0);
        partner->type = CH_TYPE_AGENT;
        const int id = partner->ID;
        ccm_channel_chain(ccm, partner);
        waiting_sender("FAR", "FAR");
        ftx_connection_succeeded(pcx, 4711, id);
        const int seconds = limit == 0 ? 60 : limit;
        alarm_clock_advance(seconds - 1);
        ftx_check_waiting_orders(pcx);
        EXPECT_EQ(ccm_channel_existbyID(ccm, id), 1);
        alarm_clock_advance(2);
        ftx_check_waiting_orders(pcx);
        EXPECT_EQ(ccm_channel_existbyID(ccm, id), 0);
        ftx_entries().clear();
    }
}

TEST_F(waiting_test, ACancelTakesTheOrderBack) {
    auto cancel = new_message<MSG_TYPE_FTXCANC>(client, number);
    cancel.ah_idnr = 4711;
    const message_bytes body = built_message(cancel).bytes();
    EXPECT_EQ(from_server(ftx_process_ftxcancel, body), -1);
    EXPECT_TRUE(logged(number_cancel_unknown));
    for (int i = 0; i < 2; ++i) {
        if (i == 0) {
            waiting_area();
        } else {
            waiting_sender("FAR", "FAR");
        }
        EXPECT_EQ(from_server(ftx_process_ftxcancel, body), 0);
        EXPECT_EQ(first_sent().as<MSG_TYPE_FTXSENDQ>().msl_no, number_transfer_cancelled);
        EXPECT_FALSE(ftx_is_known(4711));
    }
}

}  // namespace
