// The other agent: what it may say, and the channel to it.
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/network_thread.h"
#include "log/log.h"
#include "log/trace.h"
#include "transfer/ftx/flow.h"

int ftx_refuse_partner(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr) {
    __log(number_partner_misbehaves, "%d|", ah_idnr);
    trcdump_limited("message of a partner", msg->msg_start, msg->len, 64);
    ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
    return -1;
}

ftx_entry* ftx_entry_of_partner(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr, int role) {
    if (pcx->running_mode != MODE_FTX || msg->origin != CCM_FROM_PARTNER) {
        return nullptr;
    }
    ftx_entry* ftx = getFtxByIdnr(ah_idnr);
    return ftx != nullptr && ftx->has(role) && ftx->partnerID == msg->addr.src_ID ? ftx : nullptr;
}

void ftx_name_channel(EX_PCX* pcx, int channel_ID, int ah_idnr) {
    ccm_channel_image_t image;
    if (ccm_channel_copy(pcx->ccm, channel_ID, &image) != 0 || field_text(image.name).starts_with("*FTX(")) {
        return;
    }
    const std::string name =
        "*FTX(" + std::string(field_text(image.name).substr(0, 40)) + "," + std::to_string(ah_idnr) + ")";
    if (ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, channel_ID)) {
        copy_text(channel->name, name);
        ccm_channel_unlock(pcx->ccm);
    }
}

void ftx_leave_channel(EX_PCX* pcx, int channel_ID) {
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, channel_ID);
    if (channel != nullptr) {
        channel->flag.fetch_or(CH_FLAG_DELETE_WHEN_SENT);
        ccm_channel_unlock(pcx->ccm);
        ccm_wakeup_network(pcx->ccm);
    }
}

void ftx_drop_channel(EX_PCX* pcx, int channel_ID) {
    if (channel_ID != 0) {
        ccm_channel_silencebyID(pcx->ccm, channel_ID);
    }
}
