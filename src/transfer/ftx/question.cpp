// FTXINF: the server asks what became of a transfer. A worker that has it says so; without one a new worker
// tells what the status store holds.
#include <algorithm>

#include "base/context.h"
#include "base/message_numbers.h"
#include "channels/replies.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/server_orders.h"
#include "transfer/ftx/store.h"

namespace {

// The agent's own question after a lost worker has no source, so nobody waits for an answer.
bool has_asker(const ccm_msg_t* msg) {
    return msg->addr.src_name[0] != 0;
}

void answer_good(EX_PCX* pcx, ccm_msg_t* msg) {
    if (has_asker(msg)) {
        send_quitt_reply(pcx, msg, 0, "", "OK", nullptr, 0);
    }
}

void answer_bad(EX_PCX* pcx, ccm_msg_t* msg, const qx7_error& error) {
    __log_error(error);
    send_quitt_reply(pcx, msg, error.qx_msgnr, error.qx_msgInsert, "NK", nullptr, 0);
}

// An entry or a save area: the worker is still to come.
bool is_beginning(int ah_idnr) {
    const auto& areas = ftx_glb().reverse_connect_queue;
    return getFtxByIdnr(ah_idnr) != nullptr ||
           std::any_of(areas.begin(), areas.end(),
                       [ah_idnr](const auto& area) { return area.ah_idnr == ah_idnr; });
}

void take_question(ftx_entry* ftx, const MSG_TYPE_FTXINF& question) {
    ftx->ftx_transfer_id = question.ah_idnr;
    ftx->ftx_ah_idnr2 = question.ref_ah_idnr;
    ftx->ftx_UsrIdNr = question.header.i4UsrIdNr;
    ftx->ftx_Mandant = question.header.i2Mandant;
}

// Goes on in the agent and in the new worker.
int ask_new_worker(EX_PCX* pcx, ccm_msg_t* msg, const MSG_TYPE_FTXINF& question) {
    auto entry = AllocFtxEntry(pcx);
    take_question(entry.get(), question);
    entry->ftx_flag = FTX_SENDER | FTX_ANSWERS_FOR_LOST;
    ftx_entry* const ftx = AddFtxEntry(std::move(entry));
    qx7_error error;
    const pid_t pid = ftx_start_process(pcx, ftx, &error);
    if (pid < 0) {
        answer_bad(pcx, msg, error);
        __log(number_transfer_failed, "%d|", question.ah_idnr);
        FreeFtxEntry(ftx);
        return -1;
    }
    if (pid == 0) {
        return 0;  // the question comes again, over the pair
    }
    const std::string worker = ftx_worker_name(question.ah_idnr);
    if (ccm_forward_NAT_message(pcx->ccm, msg, 0, worker.c_str(), &error, 0) != 0) {
        answer_bad(pcx, msg, error);
        return -1;
    }
    return 0;
}

int ask_in_agent(EX_PCX* pcx, ccm_msg_t* msg, const MSG_TYPE_FTXINF& question) {
    qx7_error error;
    if (is_beginning(question.ah_idnr)) {
        answer_good(pcx, msg);
        return 0;
    }
    if (ftx_forward_to_worker(pcx, msg, question.ah_idnr, &error) == 0) {
        return 0;
    }
    // One that has just been lost is replaced by another, which tells without being asked.
    if (ftx_worker_of(question.ah_idnr) != nullptr) {
        answer_good(pcx, msg);
        return 0;
    }
    return ask_new_worker(pcx, msg, question);
}

bool report_has_end(const ftx_entry* ftx) {
    return std::any_of(ftx->report.begin(), ftx->report.end(), [](const ftx_log_line& line) {
        return line.msl_id == number_transfer_ended || line.msl_id == number_transfer_failed ||
               line.msl_id == number_transfer_cancelled;
    });
}

// From here on it is a transfer that has ended.
void bring_to_end(ftx_entry* ftx) {
    ftx->ftx_progress = FTX_FINISHED;
    if (ftx->ftx_status_flag == FTX_STATUS_RUNNING) {
        ftx->ftx_status_flag = FTX_STATUS_ERROR;
    }
    if (report_has_end(ftx)) {
        ftx->ftx_flag |= FTX_END_REPORTED;
    }
}

int answer_for_lost(EX_PCX* pcx, ccm_msg_t* msg, ftx_entry* ftx, const MSG_TYPE_FTXINF& question) {
    ftx->ftx_flag &= ~FTX_ANSWERS_FOR_LOST;
    take_question(ftx, question);
    qx7_error error;
    if (ss_loadFTX(ftx, &error) != 0) {
        if (has_asker(msg)) {
            answer_bad(pcx, msg, error);
        } else {
            __log_error(error);
            ftx_send_ftxsendq(pcx, ftx, error.qx_msgnr, error.qx_msgInsert);
        }
        ftx_process_shutdown(pcx, ftx);
        FreeFtxEntry(ftx);
        return -1;
    }
    bring_to_end(ftx);
    putFtxLog(ftx, -1, "Hello");
    answer_good(pcx, msg);
    ftx_send_ftxsta(pcx, ftx);
    ftx->ftx_flag |= FTX_REPORT_ASKED;
    ftx_send_ftxwrite(pcx, ftx, 1);
    return 0;
}

}  // namespace

int ftx_process_ftxinf(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto question = view_record<MSG_TYPE_FTXINF>(view_of(msg));
    if (pcx->running_mode == MODE_AGENT) {
        return ask_in_agent(pcx, msg, question);
    }
    ftx_entry* const ftx = getFtxByIdnr(question.ah_idnr);
    if (ftx == nullptr) {
        qx7_error error;
        qx_error_set(&error, -1, 0, number_transfer_unknown, "%d|FTXINF", question.ah_idnr);
        if (has_asker(msg)) {
            answer_bad(pcx, msg, error);
        } else {
            __log_error(error);
        }
        ftx_process_shutdown(pcx, nullptr);
        return -1;
    }
    if (!ftx->has(FTX_ANSWERS_FOR_LOST)) {
        answer_good(pcx, msg);
        return 0;
    }
    return answer_for_lost(pcx, msg, ftx, question);
}
