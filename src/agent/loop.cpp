#include "agent/loop.h"

#include <algorithm>
#include <cstring>

#include "agent/dispatch.h"
#include "agent/ipc_dispatch.h"
#include "agent/maintenance.h"
#include "agent/server_connection.h"
#include "agent/shutdown.h"
#include "agent/timers.h"
#include "agent/waiting.h"
#include "base/context.h"
#include "base/give_back.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/handshake.h"
#include "channels/network_thread.h"
#include "channels/policy.h"
#include "log/log.h"
#include "log/log_output.h"
#include "messages/frame.h"
#include "messages/records_connection.h"

namespace {

void take_loop_time(EX_PCX* pcx) {
    DATUM_BUFF now;
    GetDatumZeit2(nullptr, &now);
    pcx->UB_Time = now.utc_seconds;
}

// A line that another thread logs is sent at its time, however long the loop meant to wait.
void wake_for_line() {
    EX_PCX* pcx = GlbPcx;
    if (pcx != nullptr && pcx->ccm != nullptr) {
        ccm_wakeup_processor(pcx->ccm);
    }
}

// Messages since memory was last given back.
struct burst {
    int messages = 0;
    time_t last = 0;
};

constexpr int quiet_seconds = 5;

// After many messages the loop comes by in the first moment of quiet; after a few its next pass will do.
time_t due_of(EX_PCX* pcx, const burst& past) {
    constexpr int many = 100;
    const time_t due = loop_due(pcx);
    return past.messages < many ? due : std::min(due, past.last + quiet_seconds);
}

// After a wait that no message has ended.
void rest(EX_PCX* pcx, burst* past) {
    constexpr int pool_in_quiet = 2;
    if (past->messages == 0 || alarm_now() - past->last < quiet_seconds) {
        return;
    }
    *past = {};
    ccm_msg_pool_trim(pcx->ccm, pool_in_quiet);
    memory_give_back();
}

}  // namespace

void agent_loop(EX_PCX* pcx) {
    burst past;
    log_set_waker(wake_for_line);
    while (pcx->loop != LOOP_LEAVE) {
        maintenance_common(pcx);
        timer_check(pcx->timer_ctx);
        if (pcx->loop == LOOP_LEAVE) {
            break;
        }
        ccm_msg_t* msg = nullptr;
        ccm_error_t error;
        const int received = ccm_receive_message_until(pcx->ccm, due_of(pcx, past), &msg, &error);
        if (received < 0) {
            ExitCall("ccm_wait_processor", error.qx_msgInsert, error.qx_errno);
        }
        take_loop_time(pcx);
        if (received > 0) {
            loop_dispatch_message(pcx, msg);
            ccm_msg_free(pcx->ccm, msg);
            ++past.messages;
            past.last = alarm_now();
        } else {
            rest(pcx, &past);
        }
    }
    log_set_waker(nullptr);
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
        case key_executor_data:
            if (pcx->running_mode == MODE_LISTENER) {
                process_executor_data_listener(pcx, msg);
            } else {
                process_executor_data(pcx, msg);
            }
            break;
        case key_close_connection:
            process_close_connection(pcx, msg);
            break;
        case key_server_data:
            process_server_data(pcx, msg);
            break;
        case key_cp_list:
            process_cp_server_list(pcx, msg);
            break;
        case key_system_shutdown:
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
        __log(order.lMsgNr, "%s|", printable(get_text(order.cMsgIns)).c_str());
    }
    return initiate_agent_shutdown(pcx);
}

int process_close_connection(EX_PCX*, ccm_msg_t*) {
    return 0;
}
