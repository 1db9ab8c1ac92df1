// FTXCANC: the end of a transfer by order, in whatever state it is.
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/flow.h"

namespace {

std::string insert_of(int ah_idnr) {
    return std::to_string(ah_idnr) + "|";
}

int tell_cancelled(EX_PCX* pcx, const ftx_asker& asker) {
    __log(number_transfer_cancelled, "%d|", asker.ah_idnr);
    return ftx_answer_order(pcx, asker, number_transfer_cancelled, insert_of(asker.ah_idnr));
}

int unknown(const ccm_msg_t* msg, int ah_idnr) {
    __log(number_cancel_unknown, "%d|", ah_idnr);
    trcdump_limited("FTXCANC", msg->msg_start, msg->len, 64);
    return -1;
}

int cancel_in_agent(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr) {
    if (const auto* area = ftx_area_of(ah_idnr)) {
        ftx_drop_channel(pcx, area->partnerID);
        tell_cancelled(pcx, ftx_asker_of(*area));
        ftx_free_area(area);
        return 0;
    }
    if (ftx_entry* ftx = getFtxByIdnr(ah_idnr)) {
        ftx_drop_channel(pcx, ftx->partnerID != 0 ? ftx->partnerID : ftx->connecting_ID);
        tell_cancelled(pcx, ftx_asker_of(ftx));
        FreeFtxEntry(ftx);
        return 0;
    }
    const __ftx_process* worker = ftx_worker_of(ah_idnr);
    if (worker == nullptr) {
        return unknown(msg, ah_idnr);
    }
    qx7_error err;
    if (ccm_forward_NAT_message(pcx->ccm, msg, worker->channel_ID, nullptr, &err, 1) != 0) {
        __log_error(err);
        return -1;
    }
    return 0;
}

// The list of files was given up for this; the server has no answer to its order yet.
int cancel_order(EX_PCX* pcx, ftx_entry* ftx) {
    ftx_drop_channel(pcx, ftx->partnerID);
    tell_cancelled(pcx, ftx_asker_of(ftx));
    ftx_process_shutdown(pcx, ftx);
    FreeFtxEntry(ftx);
    return 0;
}

int cancel_in_worker(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr) {
    ftx_entry* ftx = getFtxByIdnr(ah_idnr);
    if (ftx == nullptr) {
        return unknown(msg, ah_idnr);
    }
    if (!ftx->is_sender()) {
        // An order that came too early to find the sender. It is the sender who ends a transfer; to him a lost
        // connection would be an error.
        __log(number_cancel_ordered, "%d|", ah_idnr);
        return 0;
    }
    if (ftx_lists_in_vain(ftx)) {
        return cancel_order(pcx, ftx);
    }
    putFtxLog(ftx, number_cancel_ordered, "%d|", ah_idnr);
    if (ftx->ftx_progress == FTX_FINISHED || ftx->end_sent) {
        __log(number_cancel_too_late, "%d|", ah_idnr);
        return 0;
    }
    ftx->ftx_status_flag = FTX_STATUS_CANCELLED;
    ftx_set_message(ftx, number_cancel_begun, std::to_string(ah_idnr));
    ftx_send_end(pcx, ftx);
    ftx->ftx_send_flag |= FTX_SEND_NO_END;
    putFtxLog(ftx, number_cancel_begun, "%d", ah_idnr);
    __log(number_cancel_begun, "%d", ah_idnr);
    if (ftx->has(FTX_IDLE)) {
        ccm_channel_deletebyID(pcx->ccm,
                               ftx->partnerID);  // a partner that takes nothing will not answer either
    }
    return 0;
}

}  // namespace

int ftx_process_ftxcancel(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const int ah_idnr = view_record<MSG_TYPE_FTXCANC>(view_of(msg)).ah_idnr;
    return pcx->running_mode == MODE_FTX ? cancel_in_worker(pcx, msg, ah_idnr)
                                         : cancel_in_agent(pcx, msg, ah_idnr);
}
