// From a copy of the agent to a worker. It begins as a process with all of the agent's rights, memory and
// descriptors; what it does not need is gone before it reads a byte of its partner.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/children.h"
#include "base/locks.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/fork.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "identity/switch_user.h"
#include "log/log.h"
#include "log/message_library.h"
#include "log/trace.h"
#include "security/key_store.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/worker_internal.h"

namespace {

constexpr int exit_failure = 1;
constexpr int shutdown_seconds = 5;  // in which the last messages leave

ftx_entry* own_entry = nullptr;  // only while the process becomes a worker
int own_id = 0;
bool finish_told = false;
ftx_worker_rooms rooms;

int socket_of(ccm_context_t* ccm, int id) {
    ccm_channel_image_t image;
    return id != 0 && ccm_channel_copy(ccm, id, &image) == 0 ? image.s : -1;
}

// Every other descriptor leads nowhere from now on, so that no owner of one, whenever it closes it, meets
// a descriptor of this process's own.
void keep_own_descriptors(EX_PCX* pcx, const ftx_worker_plan& plan) {
    const int kept[] = {socket_of(pcx->ccm, plan.worker_end), socket_of(pcx->ccm, plan.partner.ID),
                        ZUHELP_GetFd(pcx->hlpHnd)};
    ccm_blind_descriptors_except(kept, 3);
}

void take_name(EX_PCX* pcx, const ftx_entry& entry) {
    pcx->running_mode = MODE_FTX;
    pcx->ex_pid = getpid();
    snprintf(pcx->process_name, sizeof pcx->process_name, "FTX(%i)", entry.ftx_transfer_id);
    const std::string title =
        std::string("ft-") + (entry.is_sender() ? "src-" : "dst-") + std::to_string(entry.ftx_transfer_id);
    rooms.set_title(title);
}

// The agent's log stays the agent's; the library of texts is read by position and may be shared.
void open_trace(EX_PCX* pcx, int id) {
    log_leave_in_child(pcx);
    const std::string own = "-ftx-" + std::to_string(id);
    char name[sizeof pcx->trc_file];
    trace_name_for_child(pcx->trc_file, own.c_str(), name, sizeof name);
    copy_text(pcx->trc_file, name);
    if (pcx->trcHnd != nullptr) {
        zutrace_forget_file(pcx->trcHnd);
        OpenTraceFile(pcx);
    }
}

// State of the context that tells of the agent's own connections and children.
void forget_agent(EX_PCX* pcx) {
    rooms.forget(pcx);
    children_forget_all();
    GssClose();
    pcx->pcx_flag = 0;
    pcx->listener_pid = 0;
    pcx->listener_channel_ID = 0;
    pcx->listener_port = 0;
    pcx->upgrade_ah_idnr = 0;
    pcx->upgrade_exit_code = 0;
    pcx->shutdown_timer = 0;
    pcx->timer_global = 0;
}

void keep_channels(EX_PCX* pcx, const ftx_worker_plan& plan) {
    const int kept[] = {plan.worker_end, plan.partner.ID};
    ccm_child_keep_channels(pcx->ccm, kept, plan.partner.ID == 0 ? 1 : 2, plan.partner.ID);
}

// A partner whose host is gone says nothing for ever; the transfer itself has no question that waits for an
// answer in all of its phases.
void watch_partner(int s) {
    struct option {
        int level;
        int name;
        int value;
    };
    for (const option& one : {option{SOL_SOCKET, SO_KEEPALIVE, 1}, option{IPPROTO_TCP, TCP_KEEPIDLE, 60},
                              option{IPPROTO_TCP, TCP_KEEPINTVL, 15}, option{IPPROTO_TCP, TCP_KEEPCNT, 4}}) {
        if (setsockopt(s, one.level, one.name, &one.value, sizeof one.value) != 0) {
            __log(number_call_failed, "setsockopt(%d)|%d-%s", one.name, errno, strerror(errno));
            return;  // it is watched less well then
        }
    }
}

// The connection may have ended between the last look at it and the fork; this process is told then, as it
// would be later.
void tell_lost_partner(EX_PCX* pcx, const ccm_channel_image_t& partner) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_channel_close, sizeof(ipcmsg_channel_close_t));
    if (msg == nullptr) {
        _exit(exit_failure);
    }
    ipcmsg_channel_close_t record{};
    memcpy(record.header.msgtype, ipc_channel_close, sizeof record.header.msgtype);
    record.ccmch = partner;
    record.ccmch.cuc = 0;
    memcpy(ccm_msg_body(msg), &record, sizeof record);
    send_IPC_internal(pcx->ccm, msg);
}

void look_at_partner(EX_PCX* pcx, const ftx_worker_plan& plan) {
    if (plan.partner.ID == 0) {
        return;
    }
    const int s = socket_of(pcx->ccm, plan.partner.ID);
    if (s < 0) {
        tell_lost_partner(pcx, plan.partner);
    } else {
        watch_partner(s);
    }
}

void tell_finish(EX_PCX* pcx) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_ftx_finish, sizeof(ipcmsg_ftx_finish_t));
    if (msg == nullptr) {
        return;  // the end of the process tells it as well, as one that was not meant
    }
    ipcmsg_ftx_finish_t record{};
    memcpy(record.header.msgtype, ipc_ftx_finish, sizeof record.header.msgtype);
    record.ah_idnr = own_id;
    record.pid = getpid();
    memcpy(ccm_msg_body(msg), &record, sizeof record);
    ccm_setaddr(msg, 0, 0, ccm_name_ipc_agent, "", 0);
    send_IPC_message(pcx->ccm, msg);
}

}  // namespace

void ftx_set_worker_rooms(const ftx_worker_rooms& given) {
    rooms = given;
}

ftx_entry* ftx_entry_of_worker() {
    return own_entry;
}

void ftx_become_worker(EX_PCX* pcx, const ftx_worker_plan& plan) {
    const int id = plan.entry->ftx_transfer_id;
    own_entry = plan.entry;
    own_id = id;
    finish_told = false;
    __log_set_logger(log_dummy);
    global_fork_init_locks(pcx);
    keep_own_descriptors(pcx, plan);
    take_name(pcx, *plan.entry);
    open_trace(pcx, id);
    forget_agent(pcx);
    keep_channels(pcx, plan);
    __log_set_logger(rooms.logger);
    ccm_error_t error;
    if (ccm_thread_start(pcx->ccm, &error) != 0) {
        _exit(exit_failure);  // the agent tells the server
    }
    look_at_partner(pcx, plan);
    __log(number_worker_runs, "%i|%s|%i|", id, pcx->process_name, static_cast<int>(getpid()));
    own_entry = nullptr;
}

int ftx_take_identity(ftx_entry* entry, qx7_error* err) {
    EX_PCX* pcx = entry->pcx;
    const uid_t uid = entry->ftx_uid;
    const gid_t gid = entry->ftx_gid;
    if (uid == geteuid() && gid == getegid()) {
        return 0;
    }
    qx7_error reason;
    if (subtitute_user_identity(uid, gid, entry->user_name.c_str(), &reason, trc_on(TRC_FT)) != 0) {
        __log_error(reason);
        return qx_error_set(err, -1, reason.qx_errno, number_transfer_identity_failed, "%d",
                            entry->ftx_transfer_id);
    }
    // The user must not read what is left of the agent's memory, even where the host opens such processes.
    if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        return qx_error_set(err, -1, errno, number_transfer_identity_failed, "%d", entry->ftx_transfer_id);
    }
    // Whoever borrows an identity here later comes back to this one.
    pcx->pcx_run_uid = pcx->pcx_run_euid = uid;
    pcx->pcx_run_gid = pcx->pcx_run_egid = gid;
    copy_text(pcx->pcx_runUserName, entry->user_name);
    copy_text(pcx->efUserName, entry->user_name);
    pcx->pcx_run_gid_tab[0] = gid;
    pcx->pcx_run_gid_tab[1] = static_cast<gid_t>(-1);
    return 0;
}

void ftx_process_shutdown(EX_PCX* pcx, ftx_entry*) {
    if (pcx->running_mode != MODE_FTX) {
        return;
    }
    // Also without an entry: an end that was meant is none that the agent has to make good.
    if (!finish_told) {
        finish_told = true;
        tell_finish(pcx);
    }
    pcx->shutdown_timer = alarm_now() + shutdown_seconds;
}
