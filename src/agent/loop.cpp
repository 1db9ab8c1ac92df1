#include "agent/loop.h"

#include <cstring>

#include "agent/dispatch.h"
#include "agent/ipc_dispatch.h"
#include "agent/maintenance.h"
#include "agent/server_connection.h"
#include "agent/shutdown.h"
#include "agent/timers.h"
#include "base/context.h"
#include "base/log.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/handshake.h"
#include "channels/network_thread.h"
#include "channels/policy.h"

namespace {

constexpr int wait_seconds = 5;  // the longest that a periodic check can be late

enum item_key {
    item_visit_card = 4,
    item_close = 7,
    item_server_data = 65,
    item_cp_list = 68,
    item_shutdown = 249
};

#pragma pack(push, 1)
struct _QX7_SYS_SHUTDOWN {
    char cHost[32];
    char bMode;  // nobody looks at it
    char bUnused[3];
    int32_t lMsgNr;
    char cMsgIns[256];
};
#pragma pack(pop)
static_assert(sizeof(_QX7_SYS_SHUTDOWN) == 296);

void take_loop_time(EX_PCX* pcx) {
    DATUM_BUFF now;
    GetDatumZeit2(nullptr, &now);
    pcx->UB_Time = now.utc_seconds;
}

// Seconds until `alarm` has passed, when that is sooner than the usual wait.
int sooner(int seconds, time_t alarm, time_t now) {
    const time_t left = alarm + 1 - now;
    return left >= 1 && left < seconds ? static_cast<int>(left) : seconds;
}

// A search or a listener that is put off for a second shall not wait for five.
int wait_of(const EX_PCX* pcx) {
    int seconds = wait_seconds;
    if (pcx->running_mode != MODE_AGENT) {
        return seconds;
    }
    const time_t now = alarm_now();
    if ((pcx->pcx_flag & (PCX_FLAG_SERVER_CHANNEL | PCX_FLAG_CP_SEARCH)) == 0) {
        seconds = sooner(seconds, pcx->Srv_alarm_time, now);
    }
    if (pcx->listener_pid == 0) {
        seconds = sooner(seconds, pcx->listener_alarm_time, now);
    }
    return seconds;
}

}  // namespace

void agent_loop(EX_PCX* pcx) {
    while (pcx->loop != LOOP_LEAVE) {
        maintenance_common(pcx);
        timer_check(pcx->timer_ctx);
        if (pcx->loop == LOOP_LEAVE) {
            break;
        }
        ccm_msg_t* msg = nullptr;
        ccm_error_t error;
        const int received = ccm_receive_message(pcx->ccm, wait_of(pcx), &msg, &error);
        if (received < 0) {
            ExitCall("ccm_wait_processor", error.msginsert, error.xerrno);
        }
        take_loop_time(pcx);
        if (received > 0) {
            loop_dispatch_message(pcx, msg);
            ccm_msg_free(pcx->ccm, msg);
        }
    }
}

int loop_dispatch_message(EX_PCX* pcx, ccm_msg_t* msg) {
    switch (msg->type) {
        case CCM_MSG_NATIVE:
            return process_protocol_message(pcx, pcx->ccm, msg);
        case CCM_MSG_GSS:
            return process_gss_protocol_message(pcx, pcx->ccm, msg);
        case CCM_MSG_NAT:
            return process_NAT_message(pcx, pcx->ccm, msg);
        case CCM_MSG_IPC:
            return process_IPC_message(pcx, pcx->ccm, msg, ipc_function_list);
        default:
            return 0;
    }
}

int process_protocol_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg) {
    if (ccm_policy_check(pcx, ccm, msg) == 0) {
        return 0;
    }
    switch (msg->protocol_key) {
        case item_visit_card:
            if (pcx->running_mode == MODE_LISTENER) {
                process_executor_data_listener(pcx, msg);
            } else {
                process_executor_data(pcx, msg);
            }
            break;
        case item_close:
            process_close_connection(pcx, msg);
            break;
        case item_server_data:
            process_server_data(pcx, msg);
            break;
        case item_cp_list:
            process_cp_server_list(pcx, msg);
            break;
        case item_shutdown:
            process_system_shutdown(pcx, msg);
            break;
        default:
            break;
    }
    return 0;
}

int process_NAT_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg) {
    if (pcx->loop >= LOOP_STOP_WANTED) {
        return 0;
    }
    if (ccm_policy_check(pcx, ccm, msg) == 0) {
        return 0;
    }
    const int row = dispatch_find_module(msg->addr.dst_name);
    return module_function_list[row].handler(pcx, msg, row);
}

int process_system_shutdown(EX_PCX* pcx, ccm_msg_t* msg) {
    _QX7_SYS_SHUTDOWN order = {};
    memcpy(&order, msg->msg_start,
           msg->len < static_cast<int>(sizeof order) ? static_cast<size_t>(msg->len) : sizeof order);
    if (order.lMsgNr != 0) {
        __log(order.lMsgNr, "%s|", printable(get_field(order.cMsgIns)).c_str());
    }
    return initiate_agent_shutdown(pcx);
}

int process_close_connection(EX_PCX*, ccm_msg_t*) {
    return 0;
}
