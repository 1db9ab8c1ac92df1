#include "agent/modules.h"

#include <algorithm>
#include <iterator>

#include "agent/message_error.h"
#include "agent/settings.h"
#include "agent/shell_sources.h"
#include "agent/system_variables.h"
#include "agent/worker_process.h"
#include "base/context.h"
#include "base/error.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "jobs/activation.h"
#include "jobs/commands.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/conversion.h"
#include "reports/reports.h"
#include "retrieval/file_retrieval.h"
#include "services/mail.h"
#include "transfer/ftx/module.h"
#include "transfer/legacy/module.h"

namespace {

void conversion_log(int number, const char* insert) {
    __log(number, "%s", insert);
}

void conversion_trace(const char* text) {
    _TraceText("%s", text);
}

void conversion_dump(const char* title, const void* address, size_t length) {
    trcdump(title, address, static_cast<int>(length));
}

int Msg_Open(EX_PCX* pcx, qx7_error*) {
    static msgconv_ctx_t conversion;
    const std::atomic<char>* level = &pcx->trcFlgs[TRC_TCPIP];
    const int checks = pcx->getProfileInt(pcx, "GLOBAL", "chkstr", "0");
    msgconv_open(&conversion, level, conversion_trace, conversion_dump, conversion_log, message_error_action,
                 checks);
    pcx->pcx_msgctx = &conversion;
    return 0;
}

int open_reports(EX_PCX* pcx, qx7_error*) {
    const int result = REP_Open(pcx);
    open_agent_shell();
    return result;
}

int open_legacy_transfers(EX_PCX* pcx, qx7_error*) {
    char size[32];
    pcx->getProfileString(pcx, "MISC", "FtpSendMessageSize", "32256", size, sizeof size);
    return FT_Open(pcx, static_cast<size_t>(settings_ft_message_size(size)));
}

int close_variables(EX_PCX* pcx) {
    mail_close(pcx);
    return Var_Close(pcx);
}

struct module_row {
    const char* name;  // of what opens it, for a message
    int (*open)(EX_PCX* pcx, qx7_error* error);
    int (*close)(EX_PCX* pcx);
    int (*after_fork)(EX_PCX* pcx);
    int closing;             // place in the order of closing; 0 for what outlives the modules
    bool in_worker = false;  // a worker goes on with it, and closes it at its end
};

// In the order of opening.
constexpr module_row modules[] = {
    {"FTX_Open", open_transfers, FTX_Close, FTX_after_fork, 6, true},
    {"FT_Open", open_legacy_transfers, FT_Close, FT_after_fork, 5},
    {"GET_fileOpen", [](EX_PCX* pcx, qx7_error*) { return GET_fileOpen(pcx); }, GET_fileClose, GET_fileClose,
     7},
    {"Msg_Open", Msg_Open, nullptr, nullptr, 0},
    {"Var_Open", Var_Open, close_variables, Var_Close, 2},
    {"JP_Open", JP_Open, JP_Close, JP_after_fork, 1},
    {"REP_Open", open_reports, REP_Close, REP_after_fork, 3},
    {"cmdOpen", [](EX_PCX* pcx, qx7_error*) { return cmdOpen(pcx); }, cmdClose, cmd_after_fork, 4},
};

constexpr bool each_place_once() {
    int places = 0;
    for (const module_row& row : modules) {
        places |= 1 << row.closing;
    }
    // One row has no place, the others have 1, 2, 3 and so on.
    return places == (1 << std::size(modules)) - 1;
}
static_assert(each_place_once());

}  // namespace

int open_modules(EX_PCX* pcx, qx7_error* error) {
    for (const module_row& row : modules) {
        qx7_error detail;
        if (row.open(pcx, &detail) != 0) {
            __log_error(detail);
            return qx_error_set(error, -1, 0, number_file_call, "%s()||||", row.name);
        }
    }
    return 0;
}

void close_modules(EX_PCX* pcx) {
    for (int place = 1; place < static_cast<int>(std::size(modules)); ++place) {
        const module_row* row = std::ranges::find(modules, place, &module_row::closing);
        const bool own = pcx->running_mode == MODE_AGENT || (pcx->running_mode == MODE_FTX && row->in_worker);
        (own ? row->close : row->after_fork)(pcx);
    }
}

void forget_modules(EX_PCX* pcx) {
    for (int place = 1; place < static_cast<int>(std::size(modules)); ++place) {
        std::ranges::find(modules, place, &module_row::closing)->after_fork(pcx);
    }
}
