// The flow between sender and receiver: the window, resends, ends, cancel, and partners that lie.
#include "base/message_numbers.h"
#include "channels/internal.h"
#include "channels/ipc.h"
#include "ftx_pair.h"

namespace {

std::string random_text(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(size, '\0');
    for (char& c : text) {
        c = static_cast<char>(random());
    }
    return text;
}

struct flow_test : ftx_test {
    ordered one_file(size_t size, char compress = '0') {
        write_text(folder / "source", random_text(size, 3));
        return {.source = folder / "source", .destination = folder / "destination", .compress = compress};
    }
    bool arrived() const { return read_text(folder / "source") == read_text(folder / "destination"); }

    ordered many_files(int count) {
        std::filesystem::create_directory(folder / "from");
        std::filesystem::create_directory(folder / "to");
        for (int i = 0; i < count; ++i) {
            write_text(folder / ("from/f" + std::to_string(i)), random_text(static_cast<size_t>(i) * 700, 5));
        }
        return {.source = folder / "from/*", .destination = folder / "to/*", .wildcard = 'Y'};
    }
    int files_alike(int count) const {
        int alike = 0;
        for (int i = 0; i < count; ++i) {
            const std::string name = "f" + std::to_string(i);
            alike += read_text(folder / ("from/" + name)) == read_text(folder / ("to/" + name)) ? 1 : 0;
        }
        return alike;
    }
};

TEST_F(flow_test, TheWindowNeitherStallsNorGrows) {
    struct window {
        int min, max, num, most;
    };
    const window windows[] = {{1, 10, 5, 10}, {2, 10, 3, 10},  {10, 10, 5, 10}, {10, 10, 1, 10},
                              {5, 10, 3, 10}, {5, 15, 10, 15}, {1, 5, 10, 5},   {0, 0, 0, 1},
                              {-7, -3, 9, 1}, {99, 4, 4, 4},   {1, 1, 1, 1},    {100, 100, 7, 100}};
    for (const window& w : windows) {
        for (unsigned seed = 1; seed <= 2; ++seed) {
            ordered order = one_file(600000);
            order.min = w.min;
            order.max = w.max;
            order.num = w.num;
            most_open = unanswered = in_group = 0;
            groups.clear();
            pcx->running_mode = MODE_AGENT;
            make_pair(order);
            run(seed);
            EXPECT_TRUE(arrived()) << w.min << "/" << w.max << "/" << w.num;
            EXPECT_EQ(last_status().status_flag, 'F');
            EXPECT_LE(most_open, static_cast<size_t>(w.most)) << w.min << "/" << w.max << "/" << w.num;
            EXPECT_EQ(sender->ftx_nof_unquitted, 0);
        }
    }
}

TEST_F(flow_test, FilesOfAllSizesArriveInOneStream) {
    make_pair(many_files(60));
    run();
    EXPECT_EQ(files_alike(60), 60);
    const auto status = last_status();
    EXPECT_EQ(status.files_successful, 60);
    EXPECT_EQ(status.msl_no, 0);
    EXPECT_TRUE(logged(number_transfer_ended));
    EXPECT_EQ(sender->ftx_status_flag, 'F');
    EXPECT_TRUE(receiver->elements.empty()) << "everything was reported";
}

TEST_F(flow_test, NothingToSendEndsWell) {
    std::filesystem::create_directory(folder / "from");
    make_pair({.source = folder / "from/*", .destination = folder / "to/*", .wildcard = 'Y'});
    run();
    EXPECT_EQ(last_status().status_flag, 'F');
}

TEST_F(flow_test, AFailedFileIsToldAndEndsATransferThatWantsIt) {
    for (const char abort : {'N', 'Y'}) {
        pcx->running_mode = MODE_AGENT;
        to_server_list.clear();
        ordered order = many_files(9);
        order.id += abort;
        order.abort_on_error = abort;
        std::filesystem::remove_all(folder / "to/f3");
        std::filesystem::create_directory(folder / "to/f3");
        make_pair(order);
        run();
        const auto status = last_status();
        EXPECT_EQ(status.status_flag, 'E');
        EXPECT_EQ(status.files_successful, 8) << "they stood in the same block";
        EXPECT_EQ(status.msl_no, number_transfer_open_failed);
        EXPECT_EQ(logged(number_transfer_aborted), abort == 'Y');
        EXPECT_EQ(receiver->ftx_status_flag, 'E');
    }
}

TEST_F(flow_test, ASourceThatVanishesFailsAlone) {
    ordered order = many_files(20);
    order.max = order.num = 1;
    order.compress = '0';
    for (int i = 0; i < 20; ++i) {
        write_text(folder / ("from/f" + std::to_string(i)), random_text(100000, 9));
    }
    make_pair(order);
    start();
    const std::string last = sender->elements.at(19).source_name;
    std::filesystem::remove(last);
    std::mt19937 seed(1);
    while (step(&seed)) {
    }
    EXPECT_EQ(last_status().status_flag, 'E');
    EXPECT_EQ(last_status().files_successful, 19);
    EXPECT_TRUE(logged(number_transfer_open_failed));
}

// ---- Files that are wanted again, or never heard of

TEST_F(flow_test, AFileIsSentAgainInAStreamOfItsOwn) {
    for (const int max : {1, 3, 40}) {
        pcx->running_mode = MODE_AGENT;
        ordered order = many_files(40);
        order.id += max;
        order.max = max;
        order.num = 2;
        order.compress = '0';
        make_pair(order);
        std::map<int, int> wanted = {{0, 1}, {7, 2}, {39, 1}};
        change_quit = [&wanted](message_bytes* quit) {
            each_record(quit, [&wanted](MSG_TYPE_FTXQUIT_RECORD* record) {
                const int oid = record->file_id;
                if (record->status_flag == 'C' && wanted[oid]-- > 0) {
                    record->status_flag = 'R';
                }
            });
        };
        run(static_cast<unsigned>(max));
        EXPECT_EQ(last_status().status_flag, 'F') << max;
        EXPECT_EQ(last_status().files_successful, 40);
        EXPECT_EQ(files_alike(40), 40);
        EXPECT_FALSE(logged(number_partner_misbehaves));
    }
}

TEST_F(flow_test, AFileThatIsNeverGoodIsGivenUp) {
    make_pair(many_files(5));
    change_quit = [](message_bytes* quit) {
        each_record(quit, [](MSG_TYPE_FTXQUIT_RECORD* record) {
            if (record->file_id == 2 && record->status_flag == 'C') {
                record->status_flag = 'R';
            }
        });
    };
    run();
    EXPECT_EQ(last_status().status_flag, 'E');
    EXPECT_EQ(last_status().msl_no, number_transfer_read_failed);
    EXPECT_EQ(ftxe_getbyOID(sender.get(), 2)->ftxe_errno, ESTALE);
    EXPECT_EQ(last_status().files_successful, 4);
}

TEST_F(flow_test, AReceiverThatSaysNothingOfAFileEndsItWithAnError) {
    make_pair(many_files(5));
    change_quit = [](message_bytes* quit) {
        each_record(quit, [](MSG_TYPE_FTXQUIT_RECORD* record) {
            record->status_flag = record->file_id == 2 ? 'A' : record->status_flag;
        });
    };
    run();
    EXPECT_EQ(last_status().status_flag, 'E');
    EXPECT_EQ(last_status().msl_no, number_transfer_write_failed);
    EXPECT_EQ(last_status().files_successful, 4);
}

// ---- Cancel

TEST_F(flow_test, ACancelEndsOnceAndLeavesNoFileWithItsFinalName) {
    ordered order = one_file(900000);
    order.max = order.num = 2;
    make_pair(order);
    start();
    deliver_to_receiver();
    deliver_to_receiver();
    deliver_to_sender();
    auto cancel = new_message<MSG_TYPE_FTXCANC>(client, number);
    cancel.ah_idnr = order.id;
    for (int i = 0; i < 2; ++i) {
        as_worker(&sender, [&](ftx_entry*) {
            hand_over(ftx_process_ftxcancel, built_message(cancel).bytes(), CCM_FROM_AGENT, 5);
        });
    }
    EXPECT_EQ(count_sent(to_receiver_queue, "FTXEND  "), 1U);
    EXPECT_TRUE(logged(number_cancel_too_late)) << "the second one";
    std::mt19937 seed(1);
    while (step(&seed)) {
    }
    const auto status = last_status();
    EXPECT_EQ(status.status_flag, 'C');
    EXPECT_EQ(status.msl_no, number_cancel_begun);
    EXPECT_EQ(status.files_total, 1);
    EXPECT_EQ(status.files_successful, 0);
    EXPECT_EQ(status.file_size, 900000);
    EXPECT_GT(status.sent_size, 60000);
    EXPECT_EQ(ftxe_getbyOID(sender.get(), 0)->ftxe_status, 'X');
    EXPECT_FALSE(std::filesystem::exists(folder / "destination"));
    EXPECT_TRUE(logged(number_transfer_cancelled));
}

// ---- What cuts long work short

// A message that waits until the worker's loop comes by.
void let_wait(ccm_context_t* ccm, const message_bytes& body, int type, int origin) {
    ccm_msg_t* msg = message_of(ccm, built_message(std::span<const unsigned char>(body)));
    msg->type = type;
    msg->origin = origin;
    queue_append(&ccm->recvq, msg);
}

template <class Record>
message_bytes order_about(int id) {
    auto order = new_message<Record>(module_test::client, module_test::number);
    order.ah_idnr = id;
    return built_message(order).bytes();
}

message_bytes end_of_channel(int id, const char* name) {
    ipcmsg_channel_close_t record{};
    memcpy(record.header.msgtype, ipc_channel_close, sizeof record.header.msgtype);
    record.ccmch.ID = id;
    copy_text(record.ccmch.name, name);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return {bytes, bytes + sizeof record};
}

TEST_F(flow_test, WhatEndsATransferStopsItsReading) {
    const message_bytes cancel = order_about<MSG_TYPE_FTXCANC>(4711);
    const struct {
        const char* what;
        message_bytes waits;
        int type;
        int origin;
        int pending;
        bool stops;
    } cases[] = {
        {"nothing", {}, 0, 0, 0, false},
        {"a cancel", cancel, CCM_MSG_NAT, CCM_FROM_AGENT, 0, true},
        {"another's cancel", order_about<MSG_TYPE_FTXCANC>(4712), CCM_MSG_NAT, CCM_FROM_AGENT, 0, false},
        {"a partner's cancel", cancel, CCM_MSG_NAT, CCM_FROM_PARTNER, 0, false},
        {"a delete", order_about<MSG_TYPE_FTXDEL>(4711), CCM_MSG_NAT, CCM_FROM_AGENT, 0, true},
        {"the partner", end_of_channel(partner_of_sender, "FAR"), CCM_MSG_IPC, CCM_FROM_SELF, 0, true},
        {"the agent", end_of_channel(7, ccm_name_ipc_agent), CCM_MSG_IPC, CCM_FROM_SELF, 0, true},
        {"another channel", end_of_channel(7, "FAR"), CCM_MSG_IPC, CCM_FROM_SELF, 0, false},
        {"a signal", {}, 0, 0, SIGNAL_PENDING_TERM, true},
    };
    for (const char type : {'B', 'T'}) {
        for (const auto& one : cases) {
            module_test_log.clear();
            pcx->running_mode = MODE_AGENT;
            ordered order = one_file(300000);
            order.type = type;
            make_pair(order);
            if (!one.waits.empty()) {
                let_wait(ccm, one.waits, one.type, one.origin);
            }
            pcx->flag_signal = one.pending;
            start();
            EXPECT_EQ(to_receiver_queue.empty(), one.stops) << type << one.what;
            EXPECT_NE(sender->ftx_progress, FTX_FINISHED) << one.what;
            EXPECT_FALSE(logged(number_transfer_read_failed)) << one.what;
            to_receiver_queue.clear();
            if (&one == cases + 1) {
                sender->ftx_send_flag |= FTX_SEND_ANSWERED;
                as_worker(&sender,
                          [&](ftx_entry*) { hand_over(ftx_process_ftxcancel, cancel, CCM_FROM_AGENT, 1); });
                EXPECT_EQ(count_sent(to_receiver_queue, "FTXEND  "), 1U);
                std::mt19937 seed(1);
                while (step(&seed)) {
                }
                EXPECT_EQ(last_status().status_flag, 'C');
            }
            pcx->flag_signal = 0;
            queue_free_all(ccm, &ccm->recvq, &ccm->queue_lock);
        }
    }
}

TEST_F(flow_test, ACancelStopsTheListAndLeavesNoStoreThatLooksWhole) {
    const message_bytes cancel = order_about<MSG_TYPE_FTXCANC>(4711);
    make_pair(many_files(5));
    ftx_entry* ftx = AddFtxEntry(std::move(sender));
    ftx->ftx_progress = FTX_BETWEEN_FILES;
    qx7_error err;
    ASSERT_EQ(ss_saveFTX(ftx, &err), 0) << err.qx_msgInsert;
    let_wait(ccm, cancel, CCM_MSG_NAT, CCM_FROM_AGENT);
    EXPECT_EQ(ftx_create_filelist(ftx, &err), -1);
    EXPECT_EQ(ss_saveFTX(ftx, &err), 0) << err.qx_msgInsert;
    EXPECT_EQ(ss_closeFile(ftx, &err), 0) << err.qx_msgInsert;
    EXPECT_FALSE(ss_usable(ftx));
    hand_over(ftx_process_ftxcancel, cancel, CCM_FROM_AGENT, 1);
    EXPECT_EQ(getFtxByIdnr(4711), nullptr);
    EXPECT_TRUE(logged(number_transfer_cancelled));
    for (const sent_message& message : sent()) {
        take_routed(message);
    }
    ASSERT_FALSE(to_server_list.empty());
    EXPECT_EQ(to_server_list.back().as<MSG_TYPE_FTXSENDQ>().msl_no, number_transfer_cancelled);
}

// ---- What no partner says

TEST_F(flow_test, LiesInFtxquitEndTheConnection) {
    using change = std::function<void(MSG_TYPE_FTXQUIT_RECORD*)>;
    const change lies[] = {
        [](auto* record) { record->status_flag = '?'; },
        [](auto* record) { record->filesize = -1; },
        [](auto* record) { record->dstname_len = 1 << 20; },
        [](auto* record) { record->dstname_len = -1; },
        [](auto* record) { record->msl_len = 5, record->msl_dist = INT32_MAX; },
        [](auto* record) { record->res_len = 4000; },
        // Nothing is complete while its end has not gone out.
        [](auto* record) { record->status_flag = 'C'; },
    };
    for (const change& lie : lies) {
        module_test_log.clear();
        pcx->running_mode = MODE_AGENT;
        ordered order = one_file(500000);
        order.erase = 'Y';
        order.max = order.num = 2;
        make_pair(order);
        change_quit = [&lie](message_bytes* quit) { each_record(quit, lie); };
        run();
        EXPECT_TRUE(logged(number_partner_misbehaves)) << &lie - lies;
        EXPECT_TRUE(std::filesystem::exists(folder / "source"));
        to_receiver_queue.clear();
        to_sender_queue.clear();
        unanswered = in_group = 0;
        groups.clear();
    }
}

TEST_F(flow_test, MessagesOutOfTurnEndTheConnection) {
    make_pair(one_file(100));
    const auto of = [this](auto message, int id) {
        message.ah_idnr = id;
        return built_message(message).bytes();
    };
    const auto endq = new_message<MSG_TYPE_FTXENDQ>(client, number);
    const auto quit = new_message<MSG_TYPE_FTXQUIT>(client, number);
    auto counted = quit;
    counted.count = 1;
    const auto end = new_message<MSG_TYPE_FTXEND>(client, number);
    const auto data = new_message<MSG_TYPE_FTXDATA>(client, number);
    message_bytes block = of(data, 4711);
    block.resize(ftx_data_max + 1);
    struct turn {
        const char* what;
        bool at_sender;
        int (*handler)(EX_PCX*, ccm_msg_t*, int);
        message_bytes body;
        int channel;
        int number;
    };
    const turn turns[] = {
        {"FTXENDQ before FTXEND", true, ftx_process_ftxendq, of(endq, 4711), partner_of_sender,
         number_partner_misbehaves},
        {"FTXQUIT of another transfer", true, ftx_process_ftxquitt, of(quit, 1), partner_of_sender,
         number_partner_misbehaves},
        {"FTXQUIT over another channel", true, ftx_process_ftxquitt, of(quit, 4711), 77,
         number_partner_misbehaves},
        {"FTXQUIT without its record", true, ftx_process_ftxquitt, of(counted, 4711), partner_of_sender,
         number_partner_misbehaves},
        {"FTXQUIT to the receiver", false, ftx_process_ftxquitt, of(quit, 4711), partner_of_receiver,
         number_partner_misbehaves},
        {"FTXDATA to the sender", true, ftx_process_ftxdata, of(data, 4711), partner_of_sender,
         number_partner_misbehaves},
        {"FTXDATA of another transfer", false, ftx_process_ftxdata, of(data, 1), partner_of_receiver,
         number_data_unknown},
        {"an empty block", false, ftx_process_ftxdata, of(data, 4711), partner_of_receiver,
         number_partner_misbehaves},
        {"a block that is too long", false, ftx_process_ftxdata, block, partner_of_receiver,
         number_partner_misbehaves},
        {"FTXRECVQ to a worker", true, ftx_process_ftxrecvq,
         of(new_message<MSG_TYPE_FTXRECVQ>(client, number), 4711), partner_of_sender,
         number_partner_misbehaves},
        {"FTXEND", false, ftx_process_ftxend, of(end, 4711), partner_of_receiver, 0},
        {"a second FTXEND", false, ftx_process_ftxend, of(end, 4711), partner_of_receiver,
         number_partner_misbehaves},
    };
    for (const turn& one : turns) {
        module_test_log.clear();
        as_worker(one.at_sender ? &sender : &receiver,
                  [&](ftx_entry*) { hand_over(one.handler, one.body, CCM_FROM_PARTNER, one.channel); });
        EXPECT_EQ(logged(one.number), one.number != 0) << one.what;
        EXPECT_EQ(logged(number_partner_misbehaves), one.number == number_partner_misbehaves) << one.what;
    }
    // In the agent nobody takes any of them.
    pcx->running_mode = MODE_AGENT;
    for (const auto handler :
         {ftx_process_ftxdata, ftx_process_ftxend, ftx_process_ftxquitt, ftx_process_ftxendq}) {
        module_test_log.clear();
        as_worker(&receiver, [&](ftx_entry*) {
            hand_over(handler, of(data, 4711), CCM_FROM_PARTNER, partner_of_receiver);
        });
        EXPECT_TRUE(logged(number_partner_misbehaves));
    }
}

TEST_F(flow_test, ALostPartnerIsToldAndACancelStaysOne) {
    for (const char before : {'R', 'C'}) {
        pcx->running_mode = MODE_AGENT;
        make_pair(one_file(500000));
        start();
        sender->ftx_status_flag = before;
        ccm_channel_image_t channel = {};
        channel.ID = partner_of_sender;
        as_worker(&sender, [&](ftx_entry*) { ftx_connection_closed(pcx, channel); });
        EXPECT_EQ(last_status().status_flag, before == 'R' ? 'E' : 'C');
        EXPECT_EQ(last_status().msl_no, number_transfer_connection_closed);
        to_receiver_queue.clear();
        unanswered = 0;
    }
}

}  // namespace
