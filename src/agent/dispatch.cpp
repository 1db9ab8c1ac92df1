#include "agent/dispatch.h"

#include <cstring>

#include "agent/administration.h"
#include "agent/agent_connect.h"
#include "agent/log_stream.h"
#include "agent/logon.h"
#include "agent/server_connection.h"
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/messages.h"
#include "channels/replies.h"
#include "jobs/activation.h"
#include "jobs/commands.h"
#include "jobs/queries.h"
#include "jobs/supervision.h"
#include "log/log.h"
#include "messages/head.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "reports/reports.h"
#include "resources/resources.h"
#include "retrieval/file_retrieval.h"
#include "services/mail.h"
#include "transfer/ftx/module.h"
#include "transfer/legacy/module.h"

namespace {

constexpr int quitt_module_unknown = 7;

// The module of the message as it came, made harmless for the log.
std::string shown(const char* field) {
    return printable(get_text(field, 64));
}

// Two agents that do not know each other's modules would answer each other for ever.
bool may_answer(const ccm_msg_t* msg) {
    return msg->addr.src_name[0] != '\0' && msg->len > 0 &&
           !message_type_is(msg->msg_start, static_cast<size_t>(msg->len), "QUITT");
}

int refuse_module(ccm_msg_t* msg, const char* what) {
    __log(-1, "MODULE(%s) is not %s", shown(msg->addr.dst_name).c_str(), what);
    __log(number_sender, "%s|", shown(msg->addr.src_name).c_str());
    if (may_answer(msg)) {
        send_quitt(msg, quitt_module_unknown, "");
    }
    return -1;
}

int call(const function_row* table, EX_PCX* pcx, ccm_msg_t* msg) {
    const int row = dispatch_find_function(table, msg->msg_start, msg->len);
    return table[row].handler(pcx, msg, row);
}

}  // namespace

const module_row module_function_list[] = {
    {"JPAKTJ_R", qxexjp_exec},
    {"QXFTEX", qxexft_exec},
    {"QXFTXEX", qxftx_exec},
    {"QXFHEX", qxexfh_exec},
    {"GETFILE", getfile_exec},
    {"EXECCMD", qxexcmd_exec},
    {"BINDATA", process_bindata_message},
    {"UPGRD", qxexupgr_exec},
    {"QXEXVAR", qxexvar_exec},
    {"QXREPEX", qxexrep_exec},
    {"", process_module_unknown},
};

const function_row sr_function_list[] = {
    {"EXSTRTQ2", process_exstartq2},
    {"EXQUERY ", process_exquery},
    {"EXINFO  ", process_function_not_implemented},
    {"SRVINFO ", process_srvinfo},
    {"TRCGET  ", process_trcget},
    {"TRCSET  ", process_trcset},
    {"CHGLOG  ", process_chglog},
    {"CONNECT ", process_connect},
    {"SNOOZE  ", process_function_not_implemented},
    {"WAKEUP  ", process_function_not_implemented},
    {"EXSTOP  ", process_function_not_implemented},
    {"SNDMAIL ", process_sendmail},
    {"SNDMAIL2", process_sendmail2},
    {"CHGLOGQU", process_chglogqu},
    {"QUITT   ", process_quitt},
    // Resources that are asked for again after a reconnect name this module.
    {"BIN_DATA", process_bindata_message},
    {"", process_function_unknown},
};

const function_row sr_function_list_cmd[] = {
    {"EXREQCMD", process_exreqcmd},
    {"EXREQCAN", process_exreqcancel},
    {"", process_function_unknown},
};

const function_row sr_function_list_fh[] = {
    {"FH_PINF ", process_function_not_implemented},
    {"FH_CHK  ", process_function_not_implemented},
    {"FH_CONT ", process_function_not_implemented},
    {"FH_DEL  ", process_function_not_implemented},
    {"FH_WADEL", process_function_not_implemented},
    {"FSCAN   ", process_function_not_implemented},
    {"", process_function_unknown},
};

// "FT-RECV2" is written with a hyphen, and must stay so.
const function_row sr_function_list_ft[] = {
    {"FT_RECV ", process_ft_send_recv},     {"FT_SEND ", process_ft_send_recv},
    {"FT-RECV2", process_ft_send_recv},     {"FT_SEND2", process_ft_send_recv},
    {"FT_END  ", process_ft_end_message},   {"FT_STOP ", process_function_unknown},
    {"FT_DATA ", process_ft_data},          {"FT_QUIT ", process_ft_quit},
    {"FT_CAN  ", process_ft_cancel},        {"FT_DIR  ", process_ft_dir},
    {"QUITT   ", process_ft_quitt_message}, {"", process_function_unknown},
};

const function_row sr_function_list_ftx[] = {
    {"FTXDATA ", ftx_process_ftxdata},   {"FTXQUIT ", ftx_process_ftxquitt},
    {"FTXSEND ", ftx_process_ftxsend},   {"FTXRECV ", ftx_process_ftxrecv},
    {"FTXRECVQ", ftx_process_ftxrecvq},  {"FTXEND  ", ftx_process_ftxend},
    {"FTXENDQ ", ftx_process_ftxendq},   {"FTXREPG ", ftx_process_ftxrepg},
    {"FTXDEL  ", ftx_process_ftxdelete}, {"FTXINF  ", ftx_process_ftxinf},
    {"FTXCANC ", ftx_process_ftxcancel}, {"FTXSENDQ", ftx_process_ftxsendq},
    {"", process_function_unknown_ftx},
};

// XML requests have no type of 8 bytes, so they arrive at the default row.
const function_row sr_function_list_getfile[] = {
    {"RES_DATA", process_getfile_resdata},
    {"QUITT   ", process_getfile_quitt},
    {"", process_getfile_XML},
};

const function_row sr_function_list_jp[] = {
    {"EXAKTJ  ", process_aktj},   {"MELD    ", process_exmeld},   {"EXSTAJQU", process_exstajqu},
    {"JOB_CAN ", process_jobcan}, {"JOB_DEL ", process_jobdel},   {"JOB_INF ", process_jobinf},
    {"EXCHKJ  ", process_jobchk}, {"", process_function_unknown},
};

const function_row sr_function_list_rep[] = {
    {"REP_GET ", process_repget},    {"REP_QUIT", process_repquit},  {"REP_STOP", process_repstop},
    {"PRCWRITE", process_iprcwrite}, {"", process_function_unknown},
};

const function_row sr_function_list_upgr[] = {
    {"EX_UPGRD", process_function_not_implemented},
    {"EX_CLEAN", process_function_not_implemented},
    {"EX_UPCAN", process_function_not_implemented},
    {"", process_function_unknown},
};

int dispatch_find_module(const char* name) {
    int row = 0;
    while (module_function_list[row].name[0] != '\0' &&
           memcmp(module_function_list[row].name, name, 8) != 0) {
        ++row;
    }
    return row;
}

int dispatch_find_function(const function_row* table, const void* body, int length) {
    int row = 0;
    while (table[row].type[0] != '\0' && (length < 8 || memcmp(table[row].type, body, 8) != 0)) {
        ++row;
    }
    return row;
}

int qxexjp_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const int result = call(sr_function_list_jp, pcx, msg);
    JP_after_call(pcx);
    return result;
}

int qxexft_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return call(sr_function_list_ft, pcx, msg);
}

int qxftx_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return ftx_may_say(pcx, msg) ? call(sr_function_list_ftx, pcx, msg) : -1;
}

int qxexfh_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return call(sr_function_list_fh, pcx, msg);
}

int getfile_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return call(sr_function_list_getfile, pcx, msg);
}

int qxexcmd_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return call(sr_function_list_cmd, pcx, msg);
}

// Resources of jobs and those of an upgrade both come this way; the upgrade is no part of this build.
int process_bindata_message(EX_PCX* pcx, ccm_msg_t* msg, int row) {
    const message_view view = view_of(msg);
    if (pcx->upgrade_ah_idnr != 0 && view_record<MSG_TYPE_BIN_DATA>(view).ah_idnr == pcx->upgrade_ah_idnr) {
        return process_function_not_implemented(pcx, msg, row);
    }
    const int result = ProcessBinDataMessage(pcx, msg);
    JP_after_call(pcx);
    constexpr int not_processed = 2;
    return result == not_processed ? process_function_unknown(pcx, msg, row) : result;
}

int qxexupgr_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return call(sr_function_list_upgr, pcx, msg);
}

// Its result is always 0, unlike that of the others.
int qxexvar_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    call(sr_function_list, pcx, msg);
    return 0;
}

int qxexrep_exec(EX_PCX* pcx, ccm_msg_t* msg, int) {
    return call(sr_function_list_rep, pcx, msg);
}

int process_module_unknown(EX_PCX*, ccm_msg_t* msg, int) {
    return refuse_module(msg, "known");
}

int process_module_not_implemented(EX_PCX*, ccm_msg_t* msg, int) {
    return refuse_module(msg, "implemented");
}

int process_function_unknown(EX_PCX*, ccm_msg_t*, int) {
    __log(-1, "FUNCTION is not known");
    return -1;
}

int process_function_not_implemented(EX_PCX*, ccm_msg_t*, int) {
    __log(-1, "FUNCTION is not implemented");
    return -1;
}

int process_function_unknown_ftx(EX_PCX*, ccm_msg_t* msg, int) {
    const size_t length = msg->len < 8 ? 0 : 8;
    const std::string type =
        printable(std::string_view(reinterpret_cast<const char*>(msg->msg_start), length));
    __log(-1, "FUNCTION(%.8s) is not known", type.c_str());
    return -1;
}
