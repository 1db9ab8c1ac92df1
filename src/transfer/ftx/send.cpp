// What goes to the partner, and the answers to orders.
#include <cstring>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/replies.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/source.h"

namespace {

constexpr int relays = 2;           // svc_list: FTXSENDQ is handed on
constexpr int understands_all = 3;  // and folders are understood
constexpr size_t quit_full = 28672;
constexpr int last_of_group = 1;

message_route to_partner(const EX_PCX* pcx, int channel) {
    return {.dst_ID = channel, .dst_name = ftx_module, .src_addr = pcx->exName, .src_name = ftx_module};
}

message_route to_asker(const EX_PCX* pcx, int acv) {
    return to_server(pcx, ftx_server_module, ftx_module, acv);
}

message_builder<MSG_TYPE_FTXSENDQ> make_sendq(const ftx_asker& asker, int number, std::string_view insert) {
    message_builder<MSG_TYPE_FTXSENDQ> answer(asker.client, asker.user);
    answer->ah_idnr = asker.ah_idnr;
    answer->msl_no = number;
    answer.add(MSG_TYPE_FTXSENDQ::msl_text, insert);
    return answer;
}

constexpr size_t place_of(size_t field) {
    return offsetof(MSG_TYPE_FTXSEND, ftxsndrcv) + field;
}

template <class Value>
void write_at(std::vector<unsigned char>* body, size_t place, Value value) {
    memcpy(body->data() + place, &value, sizeof value);
}

}  // namespace

// ---- Answers

ftx_asker ftx_asker_of(const ftx_entry* ftx) {
    return {ftx->ftx_transfer_id, ftx->ftx_Mandant, ftx->ftx_UsrIdNr, ftx->order_address};
}

ftx_asker ftx_asker_of(const __ftx_reverse_connect_savearea& area) {
    return {area.ah_idnr, area.ftx_Mandant, area.ftx_UsrIdNr, area.order_address};
}

int ftx_quit_order(EX_PCX* pcx, const ftx_asker& asker, int number, const char* insert) {
    return send_quitt_extended(pcx, 0, asker.address.src_name, ftx_module, asker.address.src_acv, "FTXSEND ",
                               asker.client, static_cast<int>(asker.user), number, insert, "NK", nullptr, 0);
}

int ftx_answer_order(EX_PCX* pcx, const ftx_asker& asker, int number, std::string_view insert) {
    return send_built(pcx->ccm, make_sendq(asker, number, insert), to_asker(pcx, asker.address.src_acv));
}

int ftx_send_ftxsendq(EX_PCX* pcx, ftx_entry* ftx, int msl_no, std::string_view text) {
    auto answer = make_sendq(ftx_asker_of(ftx), msl_no, text);
    answer->files_total = ftx->ftx_files_total;
    answer->size_total = ftx->ftx_size_total;
    ftx->ftx_send_flag |= FTX_SEND_ANSWERED;
    const int acv = static_cast<int>(ftx->ftx_srv_acv);
    const bool relayed = (ftx->ftx_sSvcList & relays) != 0 && ftx->ftx_sReverseConnect != 0 &&
                         ccm_channel_existbyID(pcx->ccm, ftx->partnerID) != 0;
    if (!relayed) {
        return send_built(pcx->ccm, answer, to_asker(pcx, acv));
    }
    return send_built(pcx->ccm, answer,
                      {.dst_ID = ftx->partnerID,
                       .dst_name = ftx_module,
                       .dst_acv = acv,
                       .src_addr = ccm_name_server,
                       .src_name = ftx_server_module});
}

int ftx_send_ftxrecvq(EX_PCX* pcx, const ccm_msg_t* msg, ftx_entry* ftx, int msl_no, std::string_view text) {
    const auto order = view_record<MSG_TYPE_FTXRECV>(view_of(msg));
    message_builder<MSG_TYPE_FTXRECVQ> answer(order.header);
    answer->ah_idnr = ftx == nullptr ? order.ftxsndrcv.ah_idnr : ftx->ftx_transfer_id;
    answer->can_continue = ftx_yes;
    answer->svc_list = understands_all;
    answer->msl_no = msl_no;
    answer.add(MSG_TYPE_FTXRECVQ::msl_text, text);
    return send_built(pcx->ccm, answer, to_partner(pcx, msg->addr.src_ID));
}

// ---- Orders between the agents

int ftx_send_ftxsend2sender(EX_PCX* pcx, __ftx_reverse_connect_savearea* area) {
    // The sender answers as if the server had asked it.
    return send_built(pcx->ccm, built_message(std::span<const unsigned char>(area->ftxsend)),
                      {.dst_ID = area->partnerID,
                       .dst_name = ftx_module,
                       .src_addr = ccm_name_server,
                       .src_name = area->order_address.src_name,
                       .src_acv = area->order_address.src_acv});
}

int ftx_send_ftxrecv(EX_PCX* pcx, ftx_entry* ftx) {
    std::vector<unsigned char> body = ftx->order;
    memcpy(body.data(), "FTXRECV ", message_type_size);
    write_at(&body, place_of(offsetof(MSG_TYPE_FTXSNDRCV, can_continue)), ftx_yes);
    write_at(&body, place_of(offsetof(MSG_TYPE_FTXSNDRCV, src_fs_type)), int32_t{0});
    write_at(&body, place_of(offsetof(MSG_TYPE_FTXSNDRCV, async_quit_max)), ftx->ftx_async_quit_max);
    write_at(&body, place_of(offsetof(MSG_TYPE_FTXSNDRCV, async_quit_num)), ftx->ftx_async_quit_num);
    message_route route = to_partner(pcx, ftx->partnerID);
    route.src_acv = static_cast<int>(ftx->ftx_srv_acv);
    return send_built(pcx->ccm, built_message(std::span<const unsigned char>(body)), route);
}

// ---- Data

int ftx_send_ftxdata(EX_PCX* pcx, ftx_entry* ftx) {
    ccm_msg_t* msg = outgoing_message(pcx->ccm, ftx_data_max);
    if (msg == nullptr) {
        ftx_set_message(ftx, number_no_memory, "FTXDATA|");
        return -1;
    }
    auto head = new_message<MSG_TYPE_FTXDATA>(ftx->ftx_Mandant, ftx->ftx_UsrIdNr);
    head.ah_idnr = ftx->ftx_transfer_id;
    memcpy(msg->msg_start, &head, sizeof head);
    const int length = csRead(ftx->compressor.get(), reinterpret_cast<char*>(msg->msg_start) + sizeof head,
                              static_cast<int>(ftx_data_max - sizeof head), &ftx->message);
    if (ftx->interrupted || ftx->message.code != 0 || length <= 0) {
        ccm_msg_free(pcx->ccm, msg);
    }
    if (ftx->interrupted) {
        return -1;
    }
    if (ftx->message.code != 0) {
        __log(ftx->message.code, "%s", ftx->message.text);
        ftx_set_message(ftx, ftx->message.code, ftx->message.text);
        return -1;
    }
    if (length <= 0) {
        src_closeCompress(ftx);
        return 0;
    }
    msg->len = static_cast<int>(sizeof head) + length;
    const int sent = msg->len;
    if (send_outgoing(pcx->ccm, msg, to_partner(pcx, ftx->partnerID)) != 0) {
        ftx_set_message(ftx, number_transfer_connection_lost, std::to_string(ftx->ftx_transfer_id) + "|");
        return -1;
    }
    ftx->ftx_compressed_size += length;
    ftx->ftx_flag &= ~FTX_IDLE;
    ftx->ftx_con_timeStamp = pcx->ftx_con_timeout > 0 ? alarm_now() + pcx->ftx_con_timeout : 0;
    return sent;
}

// ---- What the receiver tells of its files

namespace {

message_builder<MSG_TYPE_FTXQUIT> begin_quit(const ftx_entry* ftx) {
    message_builder<MSG_TYPE_FTXQUIT> quit(ftx->ftx_Mandant, ftx->ftx_UsrIdNr);
    quit->ah_idnr = ftx->ftx_transfer_id;
    return quit;
}

// Both restart records, each behind its length; nothing when there are none.
std::string restart_pair(ftx_elem* elem) {
    std::string pair;
    if (!elem->sender_record.empty() || !elem->receiver_record.empty()) {
        for (std::string* record : {&elem->sender_record, &elem->receiver_record}) {
            record->resize(std::min(record->size(), ftx_restart_item_max));
            pair.push_back(static_cast<char>(record->size()));
            pair += *record;
            record->clear();
        }
    }
    return pair;
}

void add_record(message_builder<MSG_TYPE_FTXQUIT>* quit, ftx_elem* elem) {
    const std::string_view insert = elem->ftxe_msgnr > 0 ? std::string_view(elem->insert) : "";
    const std::string pair = restart_pair(elem);
    MSG_TYPE_FTXQUIT_RECORD record{};
    record.file_id = elem->ftxe_oId;
    record.status_flag = elem->ftxe_status;
    record.filesize = elem->ftxe_transferedBytes;
    record.msl_id = elem->ftxe_msgnr;
    size_t place = quit->size() + sizeof record;
    MSG_TYPE_FTXQUIT_RECORD::msl_insert(&record, place, insert.size());
    place += insert.size();
    MSG_TYPE_FTXQUIT_RECORD::file_name(&record, place, elem->destination_name.size());
    place += elem->destination_name.size();
    MSG_TYPE_FTXQUIT_RECORD::restart_info(&record, place, pair.size());
    quit->put_record(record);
    quit->put(insert);
    quit->put(elem->destination_name);
    quit->put(pair);
    ++quit->record.count;
}

// Whether the element has something to tell. What is final, or left by a cancel, is told for the last time.
bool is_told(ftx_entry* ftx, ftx_elem* elem) {
    if ((elem->ftxe_flag & FTXE_REPORTED) != 0 || elem->ftxe_status == FTXE_WAITING) {
        return false;
    }
    if (elem->ftxe_status == FTXE_ACTIVE && ftx->ftx_status_flag == FTX_STATUS_CANCELLED) {
        update_FtxStatus(ftx, elem, FTXE_LEFT_OUT);
    }
    if (elem->ftxe_status != FTXE_ACTIVE) {
        elem->ftxe_flag |= FTXE_REPORTED;
    }
    return true;
}

int send_quit(EX_PCX* pcx, ftx_entry* ftx, const message_builder<MSG_TYPE_FTXQUIT>& quit) {
    return send_built(pcx->ccm, quit, to_partner(pcx, ftx->partnerID));
}

}  // namespace

int ftx_send_ftxquitt(EX_PCX* pcx, ftx_entry* ftx) {
    dst_settle(ftx);
    auto quit = begin_quit(ftx);
    for (auto next = ftx->elements.begin(); next != ftx->elements.end();) {
        ftx_elem* elem = &next->second;
        ++next;
        if (is_told(ftx, elem)) {
            if (quit.size() > quit_full) {
                if (send_quit(pcx, ftx, quit) != 0) {
                    return -1;
                }
                quit = begin_quit(ftx);
            }
            add_record(&quit, elem);
        }
        if ((elem->ftxe_flag & FTXE_REPORTED) != 0) {
            ftxe_remove(ftx, elem);
        }
    }
    quit->flag = last_of_group;
    return send_quit(pcx, ftx, quit);
}

// ---- Ends

int ftx_send_ftxend(EX_PCX* pcx, ftx_entry* ftx) {
    if ((ftx->ftx_send_flag & (FTX_SEND_NO_END | FTX_SEND_RESEND_WANTED)) != 0) {
        return -1;
    }
    message_builder<MSG_TYPE_FTXEND> end(ftx->ftx_Mandant, ftx->ftx_UsrIdNr);
    end->ah_idnr = ftx->ftx_transfer_id;
    end->msl_no = ftx->ftx_msgNr;
    end.add(MSG_TYPE_FTXEND::msl_text, field_text(ftx->ftx_Insert));
    ftx->end_sent = true;
    return send_built(pcx->ccm, end, to_partner(pcx, ftx->partnerID));
}

int ftx_send_ftxendq(EX_PCX* pcx, ftx_entry* ftx) {
    auto end = new_message<MSG_TYPE_FTXENDQ>(ftx->ftx_Mandant, ftx->ftx_UsrIdNr);
    end.ah_idnr = ftx->ftx_transfer_id;
    ftx->end_answered = true;
    return send_built(pcx->ccm, end, to_partner(pcx, ftx->partnerID));
}
