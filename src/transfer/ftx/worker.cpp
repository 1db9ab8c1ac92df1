// The agent's side of its workers: how one is made, what it is known by, and what follows from its end.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/children.h"
#include "base/context.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/ipc.h"
#include "channels/network_thread.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/flow.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/worker_internal.h"

namespace {

std::list<__ftx_process>& processes() {
    return ftx_glb().ftxpq;
}

template <class Condition>
__ftx_process* find_process(Condition wanted) {
    const auto found = std::find_if(processes().begin(), processes().end(), wanted);
    return found == processes().end() ? nullptr : &*found;
}

void forget_process(const __ftx_process* process) {
    processes().remove_if([process](const __ftx_process& one) { return &one == process; });
}

// ---- the start

// Nobody reads the two sockets that go away, so that no byte of them stays in this process.
int hold_channels(EX_PCX* pcx, ftx_worker_plan* plan, int partner, qx7_error* err) {
    ccm_channel_hold(pcx->ccm, plan->worker_end);
    if (partner == 0) {
        return 0;
    }
    ccm_channel_hold(pcx->ccm, partner);
    if (ccm_channel_copy(pcx->ccm, partner, &plan->partner) != 0) {
        return qx_error_set(err, -1, 0, number_transfer_connection_closed, "%d|",
                            plan->entry->ftx_transfer_id);
    }
    return 0;
}

void release_channels(EX_PCX* pcx, const ftx_worker_plan& plan) {
    ccm_channel_silencebyID(pcx->ccm, plan.agent_end);
    ccm_channel_silencebyID(pcx->ccm, plan.worker_end);
    if (ccm_channel_t* partner = ccm_channel_getbyID(pcx->ccm, plan.partner.ID)) {
        partner->flag.fetch_and(~CH_FLAG_NO_READ);
        ccm_channel_unlock(pcx->ccm);
        ccm_wakeup_network(pcx->ccm);
    }
}

__ftx_process record_of(const ftx_entry& entry, pid_t pid, int channel) {
    __ftx_process process{};
    process.ah_idnr = static_cast<uint32_t>(entry.ftx_transfer_id);
    process.ah_idnr2 = static_cast<uint32_t>(entry.ftx_ah_idnr2);
    process.client = entry.ftx_Mandant;
    process.userid = entry.ftx_UsrIdNr;
    process.flag = (entry.is_sender() ? FTX_PROCESS_SENDER : 0) |
                   (entry.has(FTX_ANSWERS_FOR_LOST) ? FTX_PROCESS_REPLACEMENT : 0);
    process.pid = pid;
    process.channel_ID = channel;
    process.srv_acv = entry.ftx_srv_acv;
    return process;
}

// What the worker has is no longer this process's, and its end here is nobody's event.
void give_away(EX_PCX* pcx, const ftx_worker_plan& plan, pid_t pid) {
    const int id = plan.entry->ftx_transfer_id;
    children_note(pid);
    __log(number_worker_started, "%i|FTX(%i)|%i|", static_cast<int>(getpid()), id, static_cast<int>(pid));
    processes().push_back(record_of(*plan.entry, pid, plan.agent_end));
    ccm_channel_silencebyID(pcx->ccm, plan.worker_end);
    if (plan.partner.ID != 0) {
        ccm_channel_silencebyID(pcx->ccm, plan.partner.ID);
    }
    FreeFtxEntry(plan.entry);
}

// ---- the end

// The worker's channel may stand for some seconds yet; a new worker of the same transfer gets the name.
void rename_ended(EX_PCX* pcx, const __ftx_process& process) {
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, process.channel_ID);
    if (channel != nullptr) {
        snprintf(channel->name, sizeof channel->name, "%sended %u)", ccm_name_ipc_worker_prefix,
                 process.ah_idnr);
        ccm_channel_unlock(pcx->ccm);
    }
}

// An entry that stands for a worker which is gone.
std::unique_ptr<ftx_entry> stand_in(EX_PCX* pcx, const __ftx_process& lost) {
    std::unique_ptr<ftx_entry> entry = AllocFtxEntry(pcx);
    entry->ftx_transfer_id = static_cast<int>(lost.ah_idnr);
    entry->ftx_ah_idnr2 = static_cast<int>(lost.ah_idnr2);
    entry->ftx_Mandant = lost.client;
    entry->ftx_UsrIdNr = lost.userid;
    entry->ftx_srv_acv = lost.srv_acv;
    entry->ftx_flag = FTX_SENDER | FTX_ANSWERS_FOR_LOST;
    return entry;
}

void tell_server_lost(EX_PCX* pcx, const __ftx_process& lost, const std::string& insert) {
    const std::unique_ptr<ftx_entry> entry = stand_in(pcx, lost);
    ftx_send_ftxsendq(pcx, entry.get(), number_worker_died, insert);
}

// The question has no source, so that it is not answered by a QUITT that nobody asked for.
void ask_replacement(EX_PCX* pcx, const __ftx_process& lost, int channel) {
    message_builder<MSG_TYPE_FTXINF> question(lost.client, lost.userid);
    question->ah_idnr = static_cast<int>(lost.ah_idnr);
    question->ref_ah_idnr = static_cast<int>(lost.ah_idnr2);
    send_built(pcx->ccm, question, {.dst_ID = channel, .dst_name = ftx_module});
}

// An empty piece of the report: the server then asks for the rest, which the replacement has.
void send_empty_report(EX_PCX* pcx, const __ftx_process& lost) {
    message_builder<MSG_TYPE_FTXWRITE> report(lost.client, lost.userid);
    report->ah_idnr = static_cast<int>(lost.ah_idnr);
    report->status = 'C';
    report->last_id = -1;
    report->count = 0;
    send_built(pcx->ccm, report,
               to_server(pcx, ftx_server_module, ftx_module, static_cast<int>(lost.srv_acv)));
}

void replace_sender(EX_PCX* pcx, const __ftx_process& lost, const std::string& insert) {
    ftx_entry* entry = AddFtxEntry(stand_in(pcx, lost));
    qx7_error error;
    const pid_t pid = ftx_start_process(pcx, entry, &error);
    if (pid == 0) {
        return;  // the replacement; the question comes over its pair
    }
    if (pid < 0) {
        __log_error(error);
        FreeFtxEntry(entry);
        tell_server_lost(pcx, lost, insert);
        return;
    }
    const __ftx_process* started = find_process([pid](const auto& one) { return one.pid == pid; });
    ask_replacement(pcx, lost, started->channel_ID);
    send_empty_report(pcx, lost);
}

}  // namespace

pid_t ftx_start_process(EX_PCX* pcx, ftx_entry* entry, qx7_error* err) {
    ftx_worker_plan plan{};
    plan.entry = entry;
    const int id = entry->ftx_transfer_id;
    if (ccm_channel_create_pair(pcx->ccm, ftx_worker_name(id).c_str(), ccm_name_ipc_agent, &plan.agent_end,
                                &plan.worker_end, err) != 0) {
        return -1;
    }
    if (hold_channels(pcx, &plan, entry->partnerID, err) != 0) {
        release_channels(pcx, plan);
        return -1;
    }
    global_fork_lock(pcx);
    const pid_t pid = fork();
    const int number = errno;
    if (pid == 0) {
        ftx_become_worker(pcx, plan);
        return 0;
    }
    global_fork_unlock(pcx);
    if (pid < 0) {
        release_channels(pcx, plan);
        return qx_error_set(err, -1, number, number_call_failed, "fork(FTX(%d))|%d-%s", id, number,
                            strerror(number));
    }
    give_away(pcx, plan, pid);
    return pid;
}

std::string ftx_worker_name(int ah_idnr) {
    return ccm_name_ipc_worker_prefix + std::to_string(ah_idnr) + ")";
}

__ftx_process* ftx_worker_of(int ah_idnr) {
    return find_process([ah_idnr](const auto& one) { return one.ah_idnr == static_cast<uint32_t>(ah_idnr); });
}

int ftx_process_finished(EX_PCX* pcx, ccm_msg_t* msg, int row) {
    ipcmsg_ftx_finish_t record;
    memcpy(&record, msg->msg_start, sizeof record);
    const __ftx_process* process = find_process([&](const auto& one) {
        return one.channel_ID == msg->addr.src_ID && one.pid == record.pid &&
               one.ah_idnr == static_cast<uint32_t>(record.ah_idnr);
    });
    if (process == nullptr) {
        ccm_channel_deletebyID(pcx->ccm, msg->addr.src_ID);
        return process_ipc_unknown(pcx, msg, row);
    }
    rename_ended(pcx, *process);
    forget_process(process);
    return 0;
}

int ftx_check_sigchild(EX_PCX* pcx, pid_t pid, int exit_code, int status) {
    const __ftx_process* process = find_process([pid](const auto& one) { return one.pid == pid; });
    if (process == nullptr) {
        return 0;
    }
    const __ftx_process lost = *process;
    forget_process(process);
    // Its channel has the name that a replacement gets.
    ccm_channel_silencebyID(pcx->ccm, lost.channel_ID);
    char insert[128];
    snprintf(insert, sizeof insert, "%d|%d|%d,status=%d", static_cast<int>(lost.ah_idnr),
             static_cast<int>(pid), exit_code, status);
    __log(number_worker_died, "%s", insert);
    if ((lost.flag & FTX_PROCESS_SENDER) == 0 || pcx->loop != LOOP_RUNNING) {
        return 1;  // the sender sees the receiver's connection end
    }
    if ((lost.flag & FTX_PROCESS_REPLACEMENT) != 0) {
        tell_server_lost(pcx, lost, insert);
    } else {
        replace_sender(pcx, lost, insert);
    }
    return 1;
}

int ftx_get_nof_ftx_processes() {
    return static_cast<int>(processes().size());
}

void ftx_log_ftx_processes() {
    for (const __ftx_process& process : processes()) {
        __log(number_upgrade_waits_for_transfers, "%d(pid=%d)|", static_cast<int>(process.ah_idnr),
              static_cast<int>(process.pid));
    }
}
