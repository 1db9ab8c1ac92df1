#include "transfer/ftx/interrupt.h"

#include <cstddef>
#include <cstring>

#include "base/context.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "messages/head.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"

namespace {

constexpr int64_t look_each_ms = 100;

bool ends_channel(const ftx_entry* ftx, const ccm_msg_t* msg) {
    if (msg->type != CCM_MSG_IPC || msg->origin != CCM_FROM_SELF ||
        msg->len < static_cast<int>(sizeof(ipcmsg_channel_close_t)) ||
        strncmp(reinterpret_cast<const char*>(msg->msg_start), ipc_channel_close, sizeof(ipcmsg_header_t)) !=
            0) {
        return false;
    }
    const unsigned char* image = msg->msg_start + offsetof(ipcmsg_channel_close_t, ccmch);
    int id;
    memcpy(&id, image + offsetof(ccm_channel_image_t, ID), sizeof id);
    const char* name = reinterpret_cast<const char*>(image) + offsetof(ccm_channel_image_t, name);
    return id == ftx->partnerID || strncmp(name, ccm_name_ipc_agent, sizeof ccm_name_ipc_agent) == 0;
}

bool orders_end(const ftx_entry* ftx, const ccm_msg_t* msg) {
    if (msg->type != CCM_MSG_NAT || msg->origin != CCM_FROM_AGENT) {
        return false;
    }
    const message_view view = view_of(msg);
    return (message_type_is(view.data, view.length, "FTXCANC") &&
            view_record<MSG_TYPE_FTXCANC>(view).ah_idnr == ftx->ftx_transfer_id) ||
           (message_type_is(view.data, view.length, "FTXDEL") &&
            view_record<MSG_TYPE_FTXDEL>(view).ah_idnr == ftx->ftx_transfer_id);
}

// Called under a spin lock.
bool ends_transfer(const ccm_msg_t* msg, const void* entry) {
    const auto* ftx = static_cast<const ftx_entry*>(entry);
    return ends_channel(ftx, msg) || orders_end(ftx, msg);
}

}  // namespace

bool ftx_is_interrupted(ftx_entry* ftx) {
    EX_PCX* pcx = ftx->pcx;
    if (ftx->interrupted || pcx == nullptr || pcx->running_mode != MODE_FTX) {
        return ftx->interrupted;
    }
    const int64_t now = alarm_now_ms();
    if (now < ftx->next_look_ms) {
        return false;
    }
    ftx->next_look_ms = now + look_each_ms;
    ftx->interrupted = pcx->loop >= LOOP_STOP_WANTED || (pcx->flag_signal & SIGNAL_PENDING_TERM) != 0 ||
                       ccm_message_waits(pcx->ccm, ends_transfer, ftx);
    return ftx->interrupted;
}
