// A sender and a receiver in one process: what one sends is handed to the other, in an order that the test
// chooses. Each is in the list of transfers only while it handles a message, as if it were alone in its worker.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>

#include "base/message_numbers.h"
#include "messages/records_transfer.h"
#include "module_fixture.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/orders.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

// Calls `change` with each record of a FTXQUIT, in its place.
inline void each_record(message_bytes* quit, const std::function<void(MSG_TYPE_FTXQUIT_RECORD*)>& change) {
    int32_t count;
    memcpy(&count, quit->data() + offsetof(MSG_TYPE_FTXQUIT, count), sizeof count);
    size_t place = sizeof(MSG_TYPE_FTXQUIT);
    while (count-- > 0) {
        auto* record = reinterpret_cast<MSG_TYPE_FTXQUIT_RECORD*>(quit->data() + place);
        place +=
            sizeof *record + static_cast<size_t>(record->msl_len + record->dstname_len + record->res_len);
        change(record);
    }
}

// An order of the server, as far as a test changes it.
struct ordered {
    int id = 4711;
    int repeats = 0;
    std::string source = {};
    std::string destination = {};
    std::string destination_host = "FAR";
    std::string connect_name = "FAR";
    char type = 'B';
    char overwrite = 'Y';
    char erase = 'N';
    char subdir = 'N';
    char compress = '1';
    char restart = '2';
    char wildcard = 'N';
    char abort_on_error = 'N';
    int min = 3;
    int max = 10;
    int num = 5;
    int svc_list = 3;
    std::string source_user = {};
    std::string destination_user = {};
    std::string source_code = {};
    std::string rest = {};
    std::string token = std::string(406, 't');
    std::string source_password = {};
};

inline message_bytes order_of(const ordered& order) {
    message_builder<MSG_TYPE_FTXSEND> message(module_test::client, module_test::number);
    MSG_TYPE_FTXSNDRCV& fields = message->ftxsndrcv;
    fields.ah_idnr = order.id;
    fields.ah_idnr2 = order.repeats;
    put_text(fields.dst_host, order.destination_host);
    put_text(fields.connect_name, order.connect_name);
    put_text(fields.connect_ip, "127.0.0.1");
    fields.connect_port = 9;
    put_text(fields.src_logininfo, order.source_user);
    put_text(fields.dst_logininfo, order.destination_user);
    fields.type = order.type;
    fields.override = order.overwrite;
    fields.erase = order.erase;
    fields.subdir = order.subdir;
    fields.compress = order.compress;
    fields.restart = order.restart;
    fields.wildcard = order.wildcard;
    fields.abort_on_error = order.abort_on_error;
    fields.async_quit_min = order.min;
    fields.async_quit_max = order.max;
    fields.async_quit_num = order.num;
    fields.svc_list = static_cast<int16_t>(order.svc_list);
    const auto add = [&](auto part, const std::string& bytes) {
        message.add(
            [part](auto* record, size_t place, size_t size) { part(&record->ftxsndrcv, place, size); },
            bytes);
    };
    add(MSG_TYPE_FTXSNDRCV::src_file, order.source);
    add(MSG_TYPE_FTXSNDRCV::dst_file, order.destination);
    add(MSG_TYPE_FTXSNDRCV::src_code, order.source_code);
    add(MSG_TYPE_FTXSNDRCV::gss_token, order.token);
    add(MSG_TYPE_FTXSNDRCV::rest, order.rest);
    add(MSG_TYPE_FTXSNDRCV::src_password, order.source_password);
    return message.bytes();
}

struct ftx_test : module_test {
    static constexpr int partner_of_sender = 1001;
    static constexpr int partner_of_receiver = 1002;
    std::unique_ptr<ftx_entry> sender;
    std::unique_ptr<ftx_entry> receiver;
    std::deque<sent_message> to_sender_queue;
    std::deque<sent_message> to_receiver_queue;
    std::vector<sent_message> to_server_list;
    size_t most_open = 0;  // FTXDATA that the receiver has not answered yet
    size_t unanswered = 0;

    void SetUp() override {
        module_test::SetUp();
        copy_text(pcx->exName, "NEAR");
        pcx->ftx_con_timeout = 60;
        ftx_glb() = FTX_GLB{};
        ftx_entries().clear();
    }
    void TearDown() override {
        sender.reset();
        receiver.reset();
        ftx_entries().clear();
        ftx_glb() = FTX_GLB{};
        module_test::TearDown();
    }

    // A message from `origin` over the channel `id`, as that process would get it.
    int hand_over(int (*handler)(EX_PCX*, ccm_msg_t*, int), const message_bytes& body, int origin, int id) {
        ccm_msg_t* msg = message_of(ccm, built_message(std::span<const unsigned char>(body)));
        msg->origin = origin;
        msg->addr.src_ID = id;
        copy_text(msg->addr.src_addr, "*CP001#00000001");
        copy_text(msg->addr.src_name, "JPEXEC_R");
        msg->addr.src_acv = asker_code;
        const int result = handler(pcx, msg, 0);
        ccm_msg_free(ccm, msg);
        return result;
    }
    int from_server(int (*handler)(EX_PCX*, ccm_msg_t*, int), const message_bytes& body) {
        return hand_over(handler, body, CCM_FROM_SERVER, 1);
    }

    // The two entries of an order, the receiver's made from what the sender sends.
    void make_pair(const ordered& order) {
        qx7_error err;
        const message_bytes body = order_of(order);
        ccm_msg_t* msg = message_of(ccm, built_message(std::span<const unsigned char>(body)));
        msg->origin = CCM_FROM_SERVER;
        sender = CreateFtxEntry(pcx, msg, &err);
        ccm_msg_free(ccm, msg);
        ASSERT_EQ(err.qx_msgnr, 0) << err.qx_msgInsert;
        sender->partnerID = partner_of_sender;
        ftx_send_ftxrecv(pcx, sender.get());
        const sent_message recv = first_sent();
        ASSERT_EQ(recv.type(), "FTXRECV ");
        msg = message_of(ccm, built_message(std::span<const unsigned char>(recv.body)));
        msg->origin = CCM_FROM_PARTNER;
        receiver = CreateFtxEntry(pcx, msg, &err);
        ccm_msg_free(ccm, msg);
        ASSERT_EQ(err.qx_msgnr, 0) << err.qx_msgInsert;
        receiver->partnerID = partner_of_receiver;
        pcx->running_mode = MODE_FTX;
    }

    // Calls `work` with the entry in the list, and sorts what it sends.
    void as_worker(std::unique_ptr<ftx_entry>* role, const std::function<void(ftx_entry*)>& work) {
        ftx_entry* entry = AddFtxEntry(std::move(*role));
        work(entry);
        *role = ftx_unchain_entry(entry);
        for (sent_message& message : sent()) {
            if (message.addr.dst_ID == partner_of_sender) {
                unanswered += message.type() == "FTXDATA " ? 1 : 0;
                most_open = std::max(most_open, unanswered);
                to_receiver_queue.push_back(std::move(message));
            } else if (message.addr.dst_ID == partner_of_receiver) {
                if (last_of_group(message)) {
                    groups.push_back(in_group);
                    in_group = 0;
                }
                to_sender_queue.push_back(std::move(message));
            } else {
                take_routed(message);
            }
        }
    }
    void take_routed(const sent_message& message) {
        ipcmsg_routenat_t record;
        if (message.body.size() >= sizeof record && memcmp(message.body.data(), ipc_routenat, 16) == 0) {
            memcpy(&record, message.body.data(), sizeof record);
            to_server_list.push_back(
                {record.addr, {message.body.begin() + sizeof record, message.body.end()}});
        }
    }

    void start() {
        as_worker(&sender, [this](ftx_entry* ftx) {
            qx7_error err;
            ftx->ftx_progress = FTX_BETWEEN_FILES;
            ftx->ftx_flag |= FTX_CAN_CONTINUE;
            ASSERT_EQ(ss_saveFTX(ftx, &err), 0) << err.qx_msgInsert;
            ASSERT_EQ(ftx_create_filelist(ftx, &err), 0) << err.qx_msgInsert;
            ASSERT_EQ(src_openCompress(ftx, &err), 0) << err.qx_msgInsert;
            ftx_transfer_data(pcx, ftx);
        });
    }

    static bool last_of_group(const sent_message& message) {
        return message.type() == "FTXQUIT " && (message.as<MSG_TYPE_FTXQUIT>().flag & 1) != 0;
    }
    void deliver_to_receiver() {
        const sent_message message = std::move(to_receiver_queue.front());
        to_receiver_queue.pop_front();
        const bool data = message.type() == "FTXDATA ";
        in_group += data ? 1 : 0;
        as_worker(&receiver, [&](ftx_entry*) {
            hand_over(data ? ftx_process_ftxdata : ftx_process_ftxend, message.body, CCM_FROM_PARTNER,
                      partner_of_receiver);
        });
    }
    void deliver_to_sender() {
        sent_message message = std::move(to_sender_queue.front());
        to_sender_queue.pop_front();
        if (last_of_group(message)) {
            unanswered -= groups.front();
            groups.pop_front();
        }
        const bool quit = message.type() == "FTXQUIT ";
        if (quit && change_quit) {
            change_quit(&message.body);
        }
        as_worker(&sender, [&](ftx_entry*) {
            hand_over(quit ? ftx_process_ftxquitt : ftx_process_ftxendq, message.body, CCM_FROM_PARTNER,
                      partner_of_sender);
        });
    }
    bool step(std::mt19937* order) {
        if (to_receiver_queue.empty() && to_sender_queue.empty()) {
            return false;
        }
        const bool forward = to_sender_queue.empty() || (!to_receiver_queue.empty() && (*order)() % 2 == 0);
        forward ? deliver_to_receiver() : deliver_to_sender();
        return true;
    }
    // Until nothing is under way.
    void run(unsigned seed = 1) {
        std::mt19937 order(seed);
        start();
        while (!HasFatalFailure() && !logged(number_partner_misbehaves) && step(&order)) {
        }
    }

    // The last status that the server heard.
    MSG_TYPE_FTXSTA last_status() const {
        MSG_TYPE_FTXSTA status = {};
        for (const sent_message& message : to_server_list) {
            if (message.type() == "FTXSTA  ") {
                status = message.as<MSG_TYPE_FTXSTA>();
            }
        }
        return status;
    }

    size_t count_sent(const std::deque<sent_message>& queue, const char* type) const {
        return static_cast<size_t>(std::count_if(
            queue.begin(), queue.end(), [type](const auto& message) { return message.type() == type; }));
    }

    std::function<void(message_bytes*)> change_quit;  // what becomes of an FTXQUIT on its way
    size_t in_group = 0;
    std::deque<size_t> groups;  // blocks that each FTXQUIT under way speaks of
};
