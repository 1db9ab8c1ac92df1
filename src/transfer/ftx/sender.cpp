// The sender, from the order to the end: FTXSEND and FTXRECVQ in the agent, FTXQUIT and FTXENDQ in its worker.
#include <cerrno>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/orders.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

namespace {

constexpr int knows_folders = 1;
constexpr int relays = 2;
constexpr int last_of_group = 1;
constexpr size_t longest_quit = 65536;

// ---- FTXSEND

// FTXSENDQ, and the channel that brought the order has no other use.
int refuse(EX_PCX* pcx, const ccm_msg_t* msg, ftx_entry* ftx, int number, std::string_view insert) {
    ftx_send_ftxsendq(pcx, ftx, number, insert);
    if (msg->origin == CCM_FROM_PARTNER && getFtxByPartnerID(msg->addr.src_ID) == nullptr) {
        ftx_leave_channel(pcx, msg->addr.src_ID);
    }
    return -1;
}

// What is known already is left alone.
int refuse_known(EX_PCX* pcx, const ccm_msg_t* msg, const MSG_TYPE_FTXSEND& order) {
    const std::string insert = std::to_string(order.ftxsndrcv.ah_idnr) + "|";
    __log(number_transfer_known, "%s", insert.c_str());
    ftx_entry answer;
    answer.ftx_transfer_id = order.ftxsndrcv.ah_idnr;
    answer.ftx_Mandant = order.header.i2Mandant;
    answer.ftx_UsrIdNr = order.header.i4UsrIdNr;
    answer.order_address = msg->addr;
    answer.ftx_srv_acv = static_cast<uint32_t>(msg->addr.src_acv);
    if (msg->origin == CCM_FROM_PARTNER) {
        answer.ftx_sReverseConnect = 1;
        answer.ftx_sSvcList = order.ftxsndrcv.svc_list;
        answer.partnerID = msg->addr.src_ID;
    }
    return refuse(pcx, msg, &answer, number_transfer_known, insert);
}

int refuse_order(EX_PCX* pcx, const ccm_msg_t* msg, ftx_entry* ftx, const qx7_error& err) {
    if (msg->origin == CCM_FROM_PARTNER) {
        ftx->partnerID = msg->addr.src_ID;
    }
    __log_error(err);
    __log(number_transfer_failed, "%d|", ftx->ftx_transfer_id);
    return refuse(pcx, msg, ftx, err.qx_msgnr, err.qx_msgInsert);
}

// The connection does not come about: FTXSENDQ where the order is at fault, else QUITT.
int refuse_connection(EX_PCX* pcx, ftx_entry* ftx, ftx_connect_result result) {
    const std::string insert(field_text(ftx->ftx_Insert));
    __log(ftx->ftx_msgNr, "%s", insert.c_str());
    __log(number_transfer_failed, "%d|", ftx->ftx_transfer_id);
    if (result == FTX_CONNECT_REFUSED) {
        ftx_answer_order(pcx, ftx_asker_of(ftx), ftx->ftx_msgNr, insert);
    } else {
        ftx_quit_order(pcx, ftx_asker_of(ftx), ftx->ftx_msgNr, insert.c_str());
    }
    return -1;
}

int connect_back(EX_PCX* pcx, const ccm_msg_t* msg, ftx_entry* ftx) {
    const ftx_connect_result result = ftx_initiate_connection(pcx, ftx, msg);
    if (result != FTX_CONNECT_BEGUN) {
        return refuse_connection(pcx, ftx, result);
    }
    ftx_add_area(ftx);
    return 0;
}

int connect_directly(EX_PCX* pcx, const ccm_msg_t* msg, std::unique_ptr<ftx_entry> entry) {
    if (pcx->upgrade_ah_idnr != 0) {
        __log(number_upgrade_running, "%s", "");
        __log(number_transfer_failed, "%d|", entry->ftx_transfer_id);
        ftx_answer_order(pcx, ftx_asker_of(entry.get()), number_upgrade_running, "");
        return -1;
    }
    const ftx_connect_result result = ftx_initiate_connection(pcx, entry.get(), msg);
    if (result != FTX_CONNECT_BEGUN) {
        return refuse_connection(pcx, entry.get(), result);
    }
    AddFtxEntry(std::move(entry));
    return 0;
}

int answer_receiver(EX_PCX* pcx, const ccm_msg_t* msg, std::unique_ptr<ftx_entry> entry) {
    ftx_entry* ftx = AddFtxEntry(std::move(entry));
    ftx->partnerID = msg->addr.src_ID;
    ftx->waits_since = alarm_now();
    ftx_name_channel(pcx, ftx->partnerID, ftx->ftx_transfer_id);
    if (ftx_send_ftxrecv(pcx, ftx) != 0) {
        ccm_channel_deletebyID(pcx->ccm, ftx->partnerID);  // its end tells the server
        return -1;
    }
    return 0;
}

// ---- FTXRECVQ

// The partner cannot, or must not.
int end_refused(EX_PCX* pcx, ftx_entry* ftx, int number, const std::string& insert) {
    __log(number, "%s", insert.c_str());
    __log(number_transfer_failed, "%d|", ftx->ftx_transfer_id);
    ftx_send_ftxsendq(pcx, ftx, number, insert);
    ftx_leave_channel(pcx, ftx->partnerID);
    FreeFtxEntry(ftx);
    return -1;
}

void take_abilities(ftx_entry* ftx, const MSG_TYPE_FTXRECVQ& answer) {
    ftx->ftx_sSvcList = static_cast<int16_t>(ftx->ftx_sSvcList | (answer.svc_list & relays));
    ftx->ftx_flag |= answer.can_continue == ftx_yes ? FTX_CAN_CONTINUE : 0;
}

// An old partner would not know what to do with the items of folders.
void leave_out_folders(ftx_entry* ftx, const MSG_TYPE_FTXRECVQ& answer) {
    if (!ftx->has(FTX_SUBDIRSTRUCT) || (answer.svc_list & knows_folders) != 0) {
        return;
    }
    ftx->ftx_flag &= ~FTX_SUBDIRSTRUCT;
    const std::string partner = printable(get_text(ftx->ftx_dst_host));
    __log(number_no_empty_folders, "%s|", partner.c_str());
    putFtxLog(ftx, number_no_empty_folders, "%s|", partner.c_str());
}

int prepare(ftx_entry* ftx, const MSG_TYPE_FTXRECVQ& answer, qx7_error* err) {
    if (ftx_take_identity(ftx, err) != 0 || ss_saveFTX(ftx, err) != 0) {
        return -1;
    }
    leave_out_folders(ftx, answer);
    if (ftx_create_filelist(ftx, err) != 0 || ss_saveFTX(ftx, err) != 0) {
        return -1;
    }
    return src_openCompress(ftx, err);
}

int begin_as_worker(EX_PCX* pcx, ftx_entry* ftx, const MSG_TYPE_FTXRECVQ& answer) {
    qx7_error err;
    if (prepare(ftx, answer, &err) != 0) {
        if (ftx->interrupted) {
            return 0;  // what waits says how it ends
        }
        __log_error(err);
        __log(number_transfer_failed, "%d|", ftx->ftx_transfer_id);
        ftx_send_ftxsendq(pcx, ftx, err.qx_msgnr, err.qx_msgInsert);
        ftx_process_shutdown(pcx, ftx);
        FreeFtxEntry(ftx);
        return -1;
    }
    ftx_send_ftxsendq(pcx, ftx, 0, "");
    ftx_transfer_data(pcx, ftx);
    return 0;
}

int start_worker(EX_PCX* pcx, ftx_entry* ftx, const MSG_TYPE_FTXRECVQ& answer) {
    ftx->ftx_progress = FTX_BETWEEN_FILES;
    ftx->ftx_status_flag = FTX_STATUS_RUNNING;
    ftx->ftx_send_flag &= ~(FTX_SEND_EXHAUSTED | FTX_SEND_NO_END);
    qx7_error err;
    const pid_t pid = ftx_start_process(pcx, ftx, &err);
    if (pid > 0) {
        return 0;
    }
    return pid == 0 ? begin_as_worker(pcx, ftx, answer)
                    : end_refused(pcx, ftx, err.qx_msgnr, err.qx_msgInsert);
}

ftx_entry* waiting_entry(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr) {
    ftx_entry* ftx = getFtxByIdnr(ah_idnr);
    const bool waits = pcx->running_mode == MODE_AGENT && msg->origin == CCM_FROM_PARTNER && ftx != nullptr &&
                       ftx->is_sender() && ftx->ftx_progress == FTX_STARTING && ftx->waits_since != 0 &&
                       ftx->partnerID == msg->addr.src_ID;
    return waits ? ftx : nullptr;
}

}  // namespace

// ---- Handlers

int ftx_process_ftxsend(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto order = view_record<MSG_TYPE_FTXSEND>(view_of(msg));
    const int ah_idnr = order.ftxsndrcv.ah_idnr;
    const bool from_partner = msg->origin == CCM_FROM_PARTNER;
    if (pcx->running_mode != MODE_AGENT || (!from_partner && msg->origin != CCM_FROM_SERVER)) {
        return ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    if (ftx_is_known(ah_idnr)) {
        return refuse_known(pcx, msg, order);
    }
    // A connection serves one transfer.
    if (from_partner && getFtxByPartnerID(msg->addr.src_ID) != nullptr) {
        return ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    qx7_error err;
    std::unique_ptr<ftx_entry> entry = CreateFtxEntry(pcx, msg, &err);
    if (from_partner && !entry->has(FTX_FROM_RECEIVER)) {
        return ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    if (err.qx_result != 0) {
        return refuse_order(pcx, msg, entry.get(), err);
    }
    if (entry->has(FTX_CONNECT_BACK)) {
        return connect_back(pcx, msg, entry.get());
    }
    __log(number_transfer_sends, "%d|%d|", ah_idnr, entry->ftx_ah_idnr2);
    return entry->has(FTX_DIRECT) ? connect_directly(pcx, msg, std::move(entry))
                                  : answer_receiver(pcx, msg, std::move(entry));
}

int ftx_process_ftxrecvq(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto answer = view_record<MSG_TYPE_FTXRECVQ>(view);
    ftx_entry* ftx = waiting_entry(pcx, msg, answer.ah_idnr);
    if (ftx == nullptr) {
        return ftx_refuse_partner(pcx, msg, answer.ah_idnr);
    }
    take_abilities(ftx, answer);
    if (answer.msl_no != 0) {
        return end_refused(pcx, ftx, answer.msl_no,
                           printable(view_text(view, answer.msl_dist, answer.msl_len)).substr(0, 255));
    }
    return start_worker(pcx, ftx, answer);
}

int ftx_process_ftxquitt(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto quit = view_record<MSG_TYPE_FTXQUIT>(view);
    ftx_entry* ftx = ftx_entry_of_partner(pcx, msg, quit.ah_idnr, FTX_SENDER);
    if (ftx == nullptr || view.length > longest_quit) {
        return ftx_refuse_partner(pcx, msg, quit.ah_idnr);
    }
    if (ftx->ftx_progress == FTX_FINISHED) {
        return 0;  // the answer to blocks that were under way when the transfer failed
    }
    if (ftx_take_quit_records(pcx, ftx, view, quit.count) != 0) {
        return ftx_refuse_partner(pcx, msg, quit.ah_idnr);
    }
    if ((quit.flag & last_of_group) != 0) {
        ftx_group_quitted(pcx, ftx);
    }
    return 0;
}

int ftx_process_ftxendq(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const int ah_idnr = view_record<MSG_TYPE_FTXENDQ>(view_of(msg)).ah_idnr;
    ftx_entry* ftx = ftx_entry_of_partner(pcx, msg, ah_idnr, FTX_SENDER);
    if (ftx == nullptr || !ftx->end_sent) {
        return ftx_refuse_partner(pcx, msg, ah_idnr);
    }
    if (ftx->ftx_progress == FTX_FINISHED) {
        return 0;
    }
    if (ftx->has(FTX_ABORT_ON_ERROR) && ftx->ftx_status_flag == FTX_STATUS_ERROR) {
        putFtxLog(ftx, number_transfer_aborted, "%d", ah_idnr);
        __log(number_transfer_aborted, "%d", ah_idnr);
    }
    ftx_finish(pcx, ftx);
    return 0;
}
