#include "agent/ipc_dispatch.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "agent/agent_connect.h"
#include "agent/listener.h"
#include "agent/server_connection.h"
#include "agent/timers.h"
#include "agent/worker_process.h"
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/line_budget.h"
#include "channels/network_thread.h"
#include "jobs/activation.h"
#include "jobs/commands.h"
#include "jobs/supervision.h"
#include "launch/starter.h"
#include "log/log.h"
#include "log/trace.h"
#include "transfer/ftx/module.h"
#include "transfer/legacy/module.h"

namespace {

constexpr int waiting_lines_max = 1000;
constexpr size_t insert_max = 1023;

// A record as a value. The policy has tested its size.
template <class Record>
Record record_of(const ccm_msg_t* msg) {
    Record record = {};
    memcpy(&record, msg->msg_start,
           std::min(sizeof record, static_cast<size_t>(msg->len < 0 ? 0 : msg->len)));
    return record;
}

void stop_child(EX_PCX* pcx) {
    int expected = LOOP_RUNNING;
    pcx->loop.compare_exchange_strong(expected, LOOP_STOP_WANTED);
}

// A check of a module that this build does not have: it has no waiting work.
int check_nothing(EX_PCX*, ccm_msg_t*, int) {
    return 0;
}

int process_ipc_ping(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto ping = record_of<ipcmsg_ping_t>(msg);
    timer_reset(pcx->timer_ctx, listener_watchdog_timer, "*", 0, listener_silence_limit);
    ccm_msg_t* reply = ipc_record_alloc(pcx->ccm, ipc_pingq, sizeof(ipcmsg_ping_t));
    if (reply == nullptr) {
        return -1;
    }
    auto answer = record_of<ipcmsg_ping_t>(reply);
    answer.send_time = ping.send_time;
    memcpy(ccm_msg_body(reply), &answer, sizeof answer);
    ccm_setaddr_reply(reply, msg);
    return send_IPC_message(pcx->ccm, reply);
}

int process_ipc_pingq(EX_PCX* pcx, ccm_msg_t*, int) {
    pcx->listener_last_pingq = alarm_now();
    return 0;
}

int listener_ended(EX_PCX* pcx, const ipcmsg_sigchld_t& end) {
    pcx->listener_pid = 0;
    // One that never was ready keeps the pause between two starts.
    // One that was ready is replaced at once, but not twice in one second: whoever can make it end must not
    // make the agent fork without pause.
    if (pcx->listener_start_counter == 0) {
        pcx->listener_alarm_time = listener_last_start() + 1;
    }
    __log(number_process_ended, "LISTENER|%i|%i(status=%i)", end.pid, end.ret, end.status);
    listener_log_start_failure();
    return 0;
}

int process_ipc_sigchld(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto end = record_of<ipcmsg_sigchld_t>(msg);
    if (end.pid == pcx->listener_pid) {
        return listener_ended(pcx, end);
    }
    if (starter_ended(end.pid)) {
        __log(-1, "the starter %d has ended (status %d), the next start makes a new one", end.pid,
              end.status);
        return 0;
    }
    if (process_command_sigchild(pcx, end.pid, end.ret, end.status) != 0) {
        return 0;
    }
    const int known = process_job_sigchild(pcx, end.pid, end.ret, end.status);
    JP_after_call(pcx);
    return known != 0 || ftx_check_sigchild(pcx, end.pid, end.ret, end.status) != 0 ? 0 : -1;
}

bool is_agent_channel(const ccm_channel_image_t& channel) {
    return channel.type == CH_TYPE_IPC && strcmp(channel.name, ccm_name_ipc_agent) == 0;
}

// Another server channel may have taken the place already.
bool other_server_stands(EX_PCX* pcx) {
    int id;
    return ccm_channel_collect(pcx->ccm, CH_TYPE_SERVER, &id, 1) > 0;
}

// The number behind "FTX " in the key of a connection that a transfer's order has made; 0 for other keys.
int transfer_of(std::string_view key) {
    int64_t id = 0;
    const bool transfer = get_word_delimited(key, ' ', 1) == "FTX" &&
                          parse_number(get_word_delimited(key, ' ', 2), 1, INT_MAX, &id);
    return transfer ? static_cast<int>(id) : 0;
}

void partner_gone(EX_PCX* pcx, const ipcmsg_channel_close_t& record) {
    const int id = record.ccmch.cuc == 0 ? 0 : transfer_of(field_text(record.cuc.key));
    if (id != 0) {
        ftx_connection_failed(pcx, id, record.ccmch);
        return;
    }
    ftx_connection_closed(pcx, record.ccmch);
    agent_connection_closed(pcx, record.ccmch, record.cuc);
}

void channel_of_child_closed(EX_PCX* pcx, const ccm_channel_image_t& channel) {
    if (is_agent_channel(channel)) {
        stop_child(pcx);
    } else if (pcx->running_mode == MODE_FTX && channel.type == CH_TYPE_AGENT) {
        ftx_connection_closed(pcx, channel);
    }
}

int process_ipc_channel_close(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto record = record_of<ipcmsg_channel_close_t>(msg);
    const ccm_channel_image_t& channel = record.ccmch;
    if (pcx->running_mode != MODE_AGENT) {
        channel_of_child_closed(pcx, channel);
        return 0;
    }
    if (channel.type == CH_TYPE_CP_CANDIDATE) {
        if (strcmp(channel.name, ccm_name_server) == 0 && pcx->loop == LOOP_RUNNING) {
            server_handshake_failed(pcx, channel);
        }
        cp_connection_closed(pcx, channel.ID, channel.port);
    } else if (channel.type == CH_TYPE_SERVER && !other_server_stands(pcx)) {
        server_connection_lost(pcx);
    } else if (channel.type == CH_TYPE_AGENT) {
        partner_gone(pcx, record);
    }
    return 0;
}

int process_ipc_channel_accept(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto record = record_of<ipcmsg_channel_id_t>(msg);
    ccm_channel_image_t channel;
    if (ccm_channel_copy(pcx->ccm, record.ID, &channel) != 0) {
        __log(number_no_connection, "LISTENER/%s()|%d", "process_ipc_channel_accept", record.ID);
        return -1;
    }
    ccm_caller caller;
    if (ccm_channel_caller(pcx->ccm, record.ID, &caller) != 0 || !caller.own_host) {
        __log(number_accepted, "s=%d(ID=%d)|%s:%d", channel.s, channel.ID, channel.addr, channel.port);
    } else if (trc_on(TRC_TCPIP)) {
        // Each call of a job's messenger is one; an agent of this host is told at its handshake.
        _TraceText("connection from %s:%d (s=%d,ID=%d) is accepted", channel.addr, channel.port, channel.s,
                   channel.ID);
    }
    return send_visitcard(pcx, record.ID);
}

int transfer_connected(EX_PCX* pcx, int channel_id, int id, const std::string& name, int s) {
    ftx_connection_succeeded(pcx, id, channel_id);
    const std::string own = "*FTX(" + name + "," + std::to_string(id) + ")";
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, channel_id);
    if (channel == nullptr) {
        return 0;  // it has ended already
    }
    copy_text(channel->name, own);
    ccm_channel_unlock(pcx->ccm);
    __log(number_connection_of_transfer, "%s,(s=%d,ID=%i)|%s", own.c_str(), s, channel_id, name.c_str());
    return 0;
}

int process_ipc_gsshs_ok(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto record = record_of<ipcmsg_channel_id_t>(msg);
    ccm_channel_t* channel = ccm_channel_getbyID(pcx->ccm, record.ID);
    if (channel == nullptr) {
        __log(number_no_connection, "AGENT/%s()|%d", "process_ipc_gsshs_ok", record.ID);
        return -1;
    }
    channel->flag.fetch_and(~CH_FLAG_CONNECTING);
    channel->connect_timeout = 0;
    pcx->ccm->flag.fetch_or(CCM_FLAG_CHANNELS_TO_DELETE);
    const int type = channel->type;
    char name[sizeof channel->name];
    copy_text(name, field_text(channel->name));
    const int s = channel->s;
    const int id = channel->cuc == nullptr ? 0 : transfer_of(field_text(channel->cuc->key));
    ccm_channel_unlock(pcx->ccm);
    if (type == CH_TYPE_SERVER) {
        return server_connection_established(pcx, record.ID);
    }
    return id == 0 ? agent_connection_established(pcx, record.ID)
                   : transfer_connected(pcx, record.ID, id, name, s);
}

int process_ipc_listener_ok(EX_PCX* pcx, ccm_msg_t*, int) {
    pcx->listener_start_counter = 0;
    pcx->pcx_flag.fetch_or(PCX_FLAG_LISTENER_READY);
    return 0;
}

int process_ipc_jobchk(EX_PCX* pcx, ccm_msg_t* msg, int row) {
    const int result = process_jobchk(pcx, msg, row);
    JP_after_call(pcx);
    return result;
}

int process_ipc_ft_chk(EX_PCX* pcx, ccm_msg_t* msg, int row) {
    perform_ftx_check(pcx, msg, row);
    return process_ft_chk(pcx, msg, row);
}

// The process name goes before the last "." of the file name, or to its end.
std::string flush_name(const char* filename, const char* process) {
    const std::string name = filename;
    const size_t slash = name.rfind('/');
    const size_t dot = name.rfind('.');
    const bool extension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    const std::string stem = extension ? name.substr(0, dot) : name;
    const std::string rest = extension ? name.substr(dot) : "";
    return (stem + "-" + process + rest).substr(0, 255);
}

int process_ipc_trace_flush(EX_PCX* pcx, ccm_msg_t* msg, int) {
    auto record = record_of<ipcmsg_trace_flush_t>(msg);
    record.filename[sizeof record.filename - 1] = '\0';
    if (pcx->trcHnd == nullptr || (pcx->trcHnd->flag & TRACE_RING) == 0) {
        // Nothing waits in memory, and the trace that is written is not to change its file.
        __log(-1, "%s: the trace is not kept in memory, TRACE_FLUSH has nothing to write", pcx->process_name);
        return -1;
    }
    const std::string name = flush_name(record.filename, pcx->process_name);
    if (ChangeTraceFile(pcx->trcHnd, name.c_str()) != 0) {
        __log(-1, "the trace cannot be written to '%s'", printable(name).c_str());
        return -1;
    }
    const int count = trc_rt_flush(pcx->trcHnd);
    zutrace_forget_file(pcx->trcHnd);  // what is traced later belongs to the trace's own file
    return count < 0 ? -1 : 0;
}

// Only the listener obeys. A worker ends with its transfer, or with the agent.
int process_shutdown(EX_PCX* pcx, ccm_msg_t*, int) {
    if (pcx->running_mode == MODE_LISTENER) {
        stop_child(pcx);
    }
    return 0;
}

}  // namespace

const ipc_function_t ipc_function_list[] = {
    {"PING", process_ipc_ping},
    {"PINGQ", process_ipc_pingq},
    {"LOGGING", process_ipc_logging},
    {"SIGCHLD", process_ipc_sigchld},
    {"CHANNEL_CLOSE", process_ipc_channel_close},
    {"CHANNEL_ACCEPT", process_ipc_channel_accept},
    {"GSSHS_OK", process_ipc_gsshs_ok},
    {"NATMELD", process_ipc_exmeld},
    {"NATQUITT", process_ipc_natquitt},
    {"JOBCHK", process_ipc_jobchk},
    {"FT_CHK", process_ipc_ft_chk},
    {"FHCHK", check_nothing},
    {"CMD_CHK", process_cmd_chk},
    {"IOSCHK", check_nothing},
    {"FTXCHK", perform_ftx_check},
    {"GSSHS_REMOTE", process_ipc_gsshs_remote},
    {"EXDATA_REMOTE", process_ipc_exdata_remote},
    {"ROUTENAT", process_ipc_routenat},
    {"PASSFD", process_ipc_passfd},
    {"PASSFD_QUITT", process_ipc_passfd_quitt},
    {"REMOTE_CLOSE", process_ipc_remote_close},
    {"LISTENER_OK", process_ipc_listener_ok},
    {"FTX_FINISH", ftx_process_finished},
    {"TRACE_FLUSH", process_ipc_trace_flush},
    {"SHUTDOWN", process_shutdown},
    {"TIMER_FIRE", process_ipc_timer_fire},
    {"", process_ipc_unknown},
};

namespace {

void send_line(EX_PCX* pcx, int number, const char* insert) {
    ccm_msg_t* msg = ipc_record_alloc(pcx->ccm, ipc_logging, sizeof(ipcmsg_logging_t));
    if (msg == nullptr) {
        return;
    }
    auto record = record_of<ipcmsg_logging_t>(msg);
    record.msgnr = number;
    copy_text(record.msginsert, insert_max + 1, insert);
    memcpy(ccm_msg_body(msg), &record, sizeof record);
    ccm_setaddr(msg, 0, 0, ccm_name_ipc_agent, "", 0);
    send_IPC_message(pcx->ccm, msg);
}

// Nearly all lines of a listener are about strangers.
line_budget listener_lines{1000, 10};

}  // namespace

void ipc_logger(int number, const char* insert) {
    EX_PCX* pcx = GlbPcx;
    if (pcx == nullptr || pcx->ccm == nullptr || ccm_holds_spin_lock() ||
        ccm_channel_get_sendq_count(pcx->ccm, ccm_name_ipc_agent) >= waiting_lines_max) {
        return;
    }
    int dropped = 0;
    if (pcx->running_mode == MODE_LISTENER && !listener_lines.take(alarm_now(), &dropped)) {
        return;
    }
    if (dropped > 0) {
        const std::string note =
            std::to_string(dropped) + " lines of the listener were not logged, they came too fast";
        send_line(pcx, -1, note.c_str());
    }
    send_line(pcx, number, insert);
}
