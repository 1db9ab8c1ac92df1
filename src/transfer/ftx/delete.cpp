// FTXDEL: the server needs nothing of a transfer any more.
#include <algorithm>

#include "base/context.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/server_orders.h"
#include "transfer/ftx/store.h"

namespace {

void end_channel(EX_PCX* pcx, int id) {
    if (id != 0) {
        ccm_channel_silencebyID(pcx->ccm, id);
    }
}

void end_channels(EX_PCX* pcx, const ftx_entry* ftx) {
    end_channel(pcx, ftx->connecting_ID);
    end_channel(pcx, ftx->partnerID);
}

bool delete_save_area(EX_PCX* pcx, int ah_idnr) {
    auto& areas = ftx_glb().reverse_connect_queue;
    const auto found = std::find_if(areas.begin(), areas.end(),
                                    [ah_idnr](const auto& area) { return area.ah_idnr == ah_idnr; });
    if (found == areas.end()) {
        return false;
    }
    end_channel(pcx, found->partnerID);
    areas.erase(found);
    return true;
}

int delete_in_agent(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr) {
    if (delete_save_area(pcx, ah_idnr)) {
        return 0;
    }
    if (ftx_entry* const ftx = getFtxByIdnr(ah_idnr); ftx != nullptr) {
        end_channels(pcx, ftx);
        FreeFtxEntry(ftx);
        return 0;
    }
    return ftx_pass_to_worker(pcx, msg, ah_idnr, "FTXDELETE");
}

}  // namespace

int ftx_process_ftxdelete(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const int ah_idnr = view_record<MSG_TYPE_FTXDEL>(view_of(msg)).ah_idnr;
    if (pcx->running_mode == MODE_AGENT) {
        return delete_in_agent(pcx, msg, ah_idnr);
    }
    ftx_entry* const ftx = getFtxByIdnr(ah_idnr);
    if (ftx == nullptr) {
        return ftx_say_unknown(msg, ah_idnr, "FTXDELETE");
    }
    qx7_error error;
    const bool ended = ftx->ftx_progress == FTX_FINISHED && ftx->ftx_status_flag == FTX_STATUS_FINISHED;
    if ((ended ? ss_rm_file(ftx, &error) : ss_closeFile(ftx, &error)) != 0) {
        __log_error(error);
    }
    end_channels(pcx, ftx);
    ftx_process_shutdown(pcx, ftx);
    FreeFtxEntry(ftx);
    return 0;
}
