// What the server is told of a transfer: its status with the sums, its report block by block, and the answers
// to its questions.
#include <random>

#include "base/time.h"
#include "ftx_store_support.h"
#include "messages/records_server.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/module.h"

namespace {

struct ftx_report_test : ftx_store_test {
    ftx_entry* ftx = nullptr;

    ftx_entry* add(std::unique_ptr<ftx_entry> entry) { return ftx = AddFtxEntry(std::move(entry)); }

    void SetUp() override {
        ftx_store_test::SetUp();
        pcx->ftx_sta_intervall = pcx->ftx_report_intervall = 5;
        pcx->running_mode = MODE_FTX;
    }

    MSG_TYPE_FTXSTA status() {
        ftx_send_ftxsta(pcx, ftx);
        auto all = routed();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? MSG_TYPE_FTXSTA{} : all[0].as<MSG_TYPE_FTXSTA>();
    }

    int ask(int block_size, int last_id, int of = id) {
        auto order = new_message<MSG_TYPE_FTXREPG>(client, number);
        order.ah_idnr = of;
        order.block_size = block_size;
        order.last_id = last_id;
        return receive(ftx_process_ftxrepg, order);
    }
};

// One FTXWRITE taken apart.
struct block {
    size_t size;
    char status;
    int last_id;
    std::vector<std::pair<int, std::string>> lines;

    explicit block(const sent_message& message) : size(message.body.size()) {
        const auto head = message.as<MSG_TYPE_FTXWRITE>();
        status = head.status;
        last_id = head.last_id;
        const message_view view = view_message(message.body.data(), message.body.size());
        table_cursor cursor = view_table(view, sizeof head);
        for (int i = 0; i < head.count; ++i) {
            const auto record = cursor_record<MSG_TYPE_FTXWRITE_RECORD>(&cursor);
            EXPECT_GT(record.timestamp.jjjj, 2020);
            lines.emplace_back(record.msl_id, view_text(view, record.msl_dist, record.msl_len));
            cursor_bytes(&cursor, static_cast<size_t>(record.msl_len));
        }
        EXPECT_FALSE(cursor.failed);
        EXPECT_EQ(cursor.at, cursor.end);
    }
};

TEST_F(ftx_report_test, StatusSumsWhatTheElementsSay) {
    std::mt19937 random(1);
    add(make(ftx_anew));
    MSG_TYPE_FTXSTA want{};
    for (int i = 0; i < 500; ++i) {
        const int kind = std::array{FTXE_FILE, FTXE_LINK, FTXE_DIRECTORY}[random() % 3];
        const char letter = "WARSCEX"[random() % 7];
        ftx_elem* const elem = add_file(ftx, "f", static_cast<int64_t>(random()) << 10, kind);
        elem->ftxe_transferedBytes = static_cast<int64_t>(random());
        elem->ftxe_records = static_cast<int64_t>(random() % 1000);
        update_FtxStatus(ftx, elem, letter);
        const bool folder = kind == FTXE_DIRECTORY;
        want.dir_total += folder;
        want.dir_sent += folder && (letter == 'C' || letter == 'E');
        want.dir_successfull += folder && letter == 'C';
        want.files_total += !folder;
        want.files_sent += !folder && (letter == 'C' || letter == 'E');
        want.files_successful += !folder && letter == 'C';
        want.file_size = want.file_size + (folder ? 0 : elem->ftxe_fileSize);
        want.sent_size = want.sent_size + (folder ? 0 : elem->ftxe_transferedBytes);
        want.records = want.records + (folder ? 0 : elem->ftxe_records);
    }
    const MSG_TYPE_FTXSTA told = status();
    EXPECT_EQ(told.ah_idnr, id);
    EXPECT_EQ(told.status_flag, 'R');
    EXPECT_EQ(told.files_total, want.files_total);
    EXPECT_EQ(told.files_sent, want.files_sent);
    EXPECT_EQ(told.files_successful, want.files_successful);
    EXPECT_EQ(told.dir_total, want.dir_total);
    EXPECT_EQ(told.dir_sent, want.dir_sent);
    EXPECT_EQ(told.dir_successfull, want.dir_successfull);
    EXPECT_EQ(told.file_size, want.file_size);
    EXPECT_EQ(told.sent_size, want.sent_size);
    EXPECT_EQ(told.records, want.records);
    EXPECT_EQ(told.count, 1);
    EXPECT_EQ(status().count, 2);
    const auto& counts = *ftx;
    EXPECT_EQ(counts.ftx_nof_active + counts.ftx_nof_sent + counts.ftx_nof_completed + counts.ftx_nof_error,
              500);
}

TEST_F(ftx_report_test, ASumOfLiesStopsAtTheLargestNumber) {
    add(make(ftx_anew));
    for (int i = 0; i < 3; ++i) {
        add_file(ftx, "f", INT64_MAX)->ftxe_transferedBytes = INT64_MAX;
    }
    EXPECT_EQ(status().file_size, INT64_MAX);
}

TEST_F(ftx_report_test, CompressedSizeIsNeverAboveTheOthers) {
    const struct {
        char state;
        int64_t compressed, file, sent, told_compressed, told_file;
    } cases[] = {{'R', 50, 100, 80, 50, 100}, {'R', 90, 100, 80, 80, 100}, {'R', 150, 100, 120, 100, 100},
                 {'F', 90, 100, 80, 80, 80},  {'F', 90, 50, 95, 90, 95},   {'E', 90, 50, 95, 50, 50}};
    for (const auto& one : cases) {
        ftx_entries().clear();
        add(make(ftx_anew));
        ftx->ftx_status_flag = one.state;
        ftx->ftx_compressed_size = one.compressed;
        add_file(ftx, "f", one.file)->ftxe_transferedBytes = one.sent;
        const MSG_TYPE_FTXSTA told = status();
        EXPECT_EQ(told.compressed_size, one.told_compressed) << one.state << one.compressed;
        EXPECT_EQ(told.file_size, one.told_file) << one.state << one.compressed;
        EXPECT_EQ(told.datastream_size, 0);
    }
}

TEST_F(ftx_report_test, TheEndIsToldAndLoggedOnce) {
    const struct {
        char state;
        int end;
    } cases[] = {{'F', 11408}, {'E', 11409}, {'C', 11427}};
    for (const auto& one : cases) {
        ftx_entries().clear();
        module_test_log.clear();
        add(started(1));
        ftx->ftx_status_flag = one.state;
        EXPECT_EQ(status().status_flag, 'R');
        EXPECT_EQ(status().end_time.jjjj, 0);
        ftx->ftx_progress = FTX_FINISHED;
        const MSG_TYPE_FTXSTA first = status();
        const MSG_TYPE_FTXSTA second = status();
        EXPECT_EQ(first.status_flag, one.state);
        EXPECT_GT(first.end_time.jjjj, 2020);
        EXPECT_EQ(memcmp(&first.end_time, &second.end_time, sizeof first.end_time), 0);
        EXPECT_EQ(second.count, 4);
        ASSERT_EQ(module_test_log.size(), 1u);
        EXPECT_EQ(module_test_log[0].number, one.end);
        EXPECT_EQ(module_test_log[0].inserts, "4711|");
        ASSERT_EQ(ftx->report.size(), 1u);
        EXPECT_EQ(ftx->report[0].msl_id, one.end);
        auto stored = make('0');
        ftx->store.reset();
        ASSERT_EQ(ss_loadFTX(stored.get(), &err), 0);
        EXPECT_EQ(stored->ftx_status_flag, one.state) << "a lost worker's end is known";
        EXPECT_EQ(stored->ftx_progress, FTX_FINISHED);
    }
}

TEST_F(ftx_report_test, TheReasonIsTheTransfersOrElseThatOfAnElement) {
    add(make(ftx_anew));
    ftxe_set_message(add_file(ftx, "a", 1), -1, 0, "existed");
    ftxe_set_message(add_file(ftx, "b", 1), 11404, 17, "b|");
    ftxe_set_message(add_file(ftx, "c", 1), 63018, 2, "c|");
    ftx_send_ftxsta(pcx, ftx);
    const auto text = [](const sent_message& message) {
        const auto told = message.as<MSG_TYPE_FTXSTA>();
        return std::to_string(told.msl_no) + " " +
               std::string(view_text(view_message(message.body.data(), message.body.size()), told.msl_dist,
                                     told.msl_len));
    };
    EXPECT_EQ(text(routed().at(0)), "11404 b|");
    EXPECT_EQ(ftx->ftx_msgNr, 0) << "a number that stays would end the partner's side as cancelled";
    ftx_set_message(ftx, 63049, "4711|");
    ftx_send_ftxsta(pcx, ftx);
    EXPECT_EQ(text(routed().at(0)), "63049 4711|");
}

TEST_F(ftx_report_test, ServerPullsTheReportBlockByBlock) {
    for (const int block_size : {-1, 0, 1, 31, 500, 1200, 32768, INT32_MAX}) {
        ftx_entries().clear();
        add(started(0));
        std::vector<std::pair<int, std::string>> want;
        for (int i = 0; i < 150; ++i) {
            const std::string text(static_cast<size_t>(i * 7 % 1023), 'x');
            const int line = i % 10 == 9 ? 0 : 11133;  // those with number 0 stay here
            putFtxLog(ftx, line, "%s", text.c_str());
            if (line != 0) {
                want.emplace_back(line, text);
            }
        }
        ftx->ftx_progress = FTX_FINISHED;
        std::vector<std::pair<int, std::string>> got;
        int last_id = -1;
        char state = 'C';
        for (int turn = 0; turn < 200 && state == 'C'; ++turn) {
            ASSERT_EQ(ask(block_size, last_id), 0);
            const auto first = routed();
            ASSERT_EQ(ask(block_size, last_id), 0);
            const auto again = routed();
            ASSERT_EQ(first.size(), 1u);
            ASSERT_EQ(first[0].body, again.at(0).body) << "what is not confirmed comes again";
            const block one(first[0]);
            EXPECT_TRUE(one.lines.size() == 1 || static_cast<int>(one.size) <= block_size) << one.size;
            EXPECT_LE(one.size, 32768u);
            got.insert(got.end(), one.lines.begin(), one.lines.end());
            last_id = one.last_id;
            state = one.status;
        }
        EXPECT_EQ(state, 'E');
        EXPECT_EQ(got, want) << block_size;
        ASSERT_EQ(ask(block_size, last_id), 0);
        const block behind(routed().at(0));
        EXPECT_TRUE(behind.lines.empty() && behind.status == 'E');
        EXPECT_EQ(behind.last_id, last_id + 1);
    }
}

TEST_F(ftx_report_test, AReportGoesOnlyWhenItWasAskedFor) {
    add(started(0));
    putFtxLog(ftx, 11133, "%s", std::string(100, 'x').c_str());
    EXPECT_EQ(ftx_send_ftxwrite(pcx, ftx, 1), -1);
    EXPECT_EQ(ask(165, 0), 0);
    EXPECT_TRUE(routed().empty()) << "164 bytes do not fill the block";
    EXPECT_EQ(ask(164, 0), 0);
    EXPECT_EQ(routed().size(), 1u);
    EXPECT_EQ(ftx_send_ftxwrite(pcx, ftx, 1), -1);
    EXPECT_EQ(ask(32768, 0), 0);
    EXPECT_TRUE(routed().empty());
    ftx->ftx_rep_timeStamp = alarm_now();
    ftx_periodical_report_check(pcx);
    EXPECT_EQ(routed().size(), 1u) << "what waits goes after a time";
    ftx_periodical_report_check(pcx);
    EXPECT_TRUE(routed().empty());
    EXPECT_EQ(ask(32768, 1), 0);
    ftx->ftx_rep_timeStamp = alarm_now();
    ftx_periodical_report_check(pcx);
    EXPECT_TRUE(routed().empty()) << "nothing waits";
    EXPECT_EQ(ask(0, 0, 1), -1);
    EXPECT_TRUE(logged(2003072));
}

TEST_F(ftx_report_test, AReceiverKeepsNoReport) {
    add(make(ftx_anew));
    ftx->ftx_flag = FTX_RECEIVER;
    putFtxLog(ftx, 11411, "x|");
    EXPECT_TRUE(ftx->report.empty());
}

TEST_F(ftx_report_test, ChecksTellWhatIsDueAndFreeWhatIsDeleted) {
    ftx_entry* const deleted = AddFtxEntry(make(ftx_anew, 1));
    ftx_deleteFtx(deleted);
    EXPECT_EQ(getFtxByIdnr(1), nullptr);
    ftx_entry* const waiting = AddFtxEntry(make(ftx_anew, 2));
    waiting->ftx_progress = FTX_STARTING;
    add(make(ftx_anew, 3));
    pcx->running_mode = MODE_AGENT;
    ftx_periodical_status_check(pcx);
    const auto told = sent();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].as<MSG_TYPE_FTXSTA>().ah_idnr, 3);
    EXPECT_STREQ(told[0].addr.dst_name, "JPEXEC_R");
    ftx_periodical_status_check(pcx);
    EXPECT_TRUE(sent().empty());
    alarm_clock_advance(5);
    ftx_periodical_status_check(pcx);
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(ftx_entries().size(), 2u);
}

TEST_F(ftx_report_test, ASilentPartnerCannotHoldUpACancel) {
    pcx->ftx_con_timeout = 60;
    ccm_channel_t* channel = nullptr;
    ASSERT_EQ(ccm_channel_new_entry(ccm, &channel, nullptr), 0);
    channel->type = CH_TYPE_AGENT;
    ccm_channel_chain(ccm, channel);
    add(make(ftx_anew));
    ftx->partnerID = channel->ID;
    for (const char state : {'R', 'C'}) {
        ftx->ftx_status_flag = state;
        ftx->ftx_con_timeStamp = alarm_now();
        ftx_periodical_report_check(pcx);
        EXPECT_TRUE(ftx->has(FTX_IDLE));
        EXPECT_EQ(ccm_channel_existbyID(ccm, ftx->partnerID) != 0, state == 'R');
    }
}

struct ftx_question_test : ftx_report_test {
    // As the agent hands it on.
    int question(int of) {
        auto question = new_message<MSG_TYPE_FTXINF>(client, number);
        question.ah_idnr = of;
        return receive(ftx_process_ftxinf, question);
    }
    ftx_entry* replacement() {
        auto entry = AllocFtxEntry(pcx);
        entry->ftx_transfer_id = id;
        entry->ftx_flag = FTX_SENDER | FTX_ANSWERS_FOR_LOST;
        return add(std::move(entry));
    }
    static std::string verdict(const sent_message& message) {
        const auto quitt = message.as<MSG_TYPE_QUITT>();
        return std::string(get_text(quitt.quitt)) + " " + std::to_string(quitt.msgnr);
    }
};

TEST_F(ftx_question_test, AReplacementTellsWhatTheStoreHolds) {
    for (const char state : {'R', 'F'}) {
        ftx_entries().clear();
        {
            auto lost = started(2);
            lost->ftx_status_flag = state;
            lost->ftx_srv_acv = 31;
            ftx_report_arrived(lost.get(), ftxe_getbyOID(lost.get(), 0));
            if (state == 'F') {
                putFtxLog(lost.get(), 11408, "4711|");
            }
            ASSERT_EQ(ss_saveFTX(lost.get(), &err), 0);
        }
        replacement();
        ASSERT_EQ(question(id), 0);
        const auto all = routed();
        ASSERT_EQ(all.size(), 3u);
        EXPECT_EQ(verdict(all[0]), "OK 0");
        EXPECT_EQ(all[1].as<MSG_TYPE_FTXSTA>().status_flag, state == 'F' ? 'F' : 'E');
        EXPECT_EQ(all[1].addr.dst_acv, 31);
        const block report(all[2]);
        ASSERT_FALSE(report.lines.empty());
        EXPECT_EQ(report.lines[0].first, 11133);
        ftx->ftx_flag &= ~FTX_REPORT_ASKED;
        std::string numbers;
        for (const ftx_log_line& line : ftx->report) {
            numbers += std::to_string(line.msl_id) + " ";
        }
        EXPECT_EQ(numbers, state == 'F' ? "11133 11408 -1 " : "11133 -1 11409 ") << "one end, not two";
        EXPECT_EQ(question(id), 0);
        EXPECT_EQ(verdict(routed().at(0)), "OK 0");
    }
}

TEST_F(ftx_question_test, WithoutAStoreItSaysSoAndEnds) {
    replacement();
    EXPECT_EQ(question(id), -1);
    const auto all = routed();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(verdict(all[0]), "NK 2003041");
    EXPECT_EQ(getFtxByIdnr(id), nullptr);
    EXPECT_NE(access(store_path().c_str(), F_OK), 0) << "a question makes no store";
    EXPECT_EQ(question(12), -1);
    EXPECT_EQ(verdict(routed().at(0)), "NK 2003072");
}

TEST_F(ftx_question_test, BeforeAWorkerExistsTheAgentAnswersItself) {
    pcx->running_mode = MODE_AGENT;
    AddFtxEntry(make(ftx_anew));
    __ftx_reverse_connect_savearea area{};
    area.ah_idnr = 12;
    ftx_glb().reverse_connect_queue.push_back(area);
    const auto remove = [this](int of) {
        auto order = new_message<MSG_TYPE_FTXDEL>(client, number);
        order.ah_idnr = of;
        return receive(ftx_process_ftxdelete, order);
    };
    for (const int of : {id, 12}) {
        EXPECT_EQ(question(of), 0);
        EXPECT_EQ(verdict(first_sent()), "OK 0");
        EXPECT_EQ(remove(of), 0);
        EXPECT_TRUE(sent().empty()) << "a deletion has no answer";
        EXPECT_EQ(remove(of), -1);
        EXPECT_TRUE(logged(2003072));
    }
    EXPECT_TRUE(ftx_entries().empty() && ftx_glb().reverse_connect_queue.empty());
}

TEST_F(ftx_question_test, ADeletionEndsTheWorkerAndKeepsTheStore) {
    add(started(1));
    auto order = new_message<MSG_TYPE_FTXDEL>(client, number);
    order.ah_idnr = id;
    EXPECT_EQ(receive(ftx_process_ftxdelete, order), 0);
    EXPECT_TRUE(ftx_entries().empty());
    EXPECT_TRUE(ss_usable(make(ftx_resume).get()));
}

}  // namespace
