// EXSTRTQ2: the values of the server. A message may stop early, and a value that cannot work leaves the old
// one.
#include <arpa/inet.h>
#include <ifaddrs.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "agent/log_stream.h"
#include "agent/logon.h"
#include "agent/settings.h"
#include "agent/system_variables.h"
#include "base/code_tables.h"
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/messages.h"
#include "channels/network_thread.h"
#include "channels/resolver.h"
#include "log/log.h"
#include "messages/records_server.h"
#include "messages/view.h"
#include "resources/resources.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/store.h"

namespace {

constexpr size_t own_addresses_max = 100;
constexpr int seconds_of_a_day = 86400;
constexpr int preset_interval = 60;
constexpr int log_block_min = 256;

using logon_answer = MSG_TYPE_EXSTRTQ2;

// A period counts only from 1 on; anything else would make the agent do its work without pause.
void take_period(int* period, int value, const char* what) {
    if (value >= 1) {
        *period = value;
    }
    __log(number_server_period, "%d|%s|", *period, what);
}

void take_short_period(short* period, int value, const char* what) {
    if (value >= 1) {
        *period = static_cast<short>(value);
    }
    __log(number_server_period, "%d|%s|", static_cast<int>(*period), what);
}

// With 'Y' the server lets work without a login start, and the setting says whether a given login is checked.
char check_of(int login_check, char field, int* anonymous, const char* what) {
    *anonymous = field == 'Y' ? 1 : 0;
    const int check = field == 'Y' ? login_check : 1;
    if (check == 0) {
        __log(number_no_login_check, "%s|", what);
    }
    return static_cast<char>(check);
}

void take_password_checks(EX_PCX* pcx, const logon_answer& answer) {
    const int check = ReadLoginCheck(pcx);
    pcx->pcx_JobPwCheck = check_of(check, answer.anonymous_job, &pcx->pcx_anonymusJob, "Job");
    pcx->pcx_FtPwCheck = check_of(check, answer.anonymous_ft, &pcx->pcx_anonymusFt, "FT");
    (void)check_of(check, answer.anonymous_fe, &pcx->pcx_anonymusFe,
                   "File event");  // for its line in the log
    pcx->pcx_anonymusUsr = answer.anonymous_job;
}

void take_report(EX_PCX* pcx, const logon_answer& answer) {
    memcpy(pcx->report_type, answer.rep_type, sizeof pcx->report_type);
    pcx->report_id = answer.ah_idnr;
    pcx->report_id_neu = answer.ah_idnr;
}

// A day's time that differs counts from today on, not behind the run that is planned already.
void take_rollback_time(EX_PCX* pcx, const logon_answer& answer) {
    const auto& check = answer.rb_rt_check;
    if (pcx->pcx_rb_check_hh != check.abs2_hh || pcx->pcx_rb_check_mm != check.abs2_mm ||
        pcx->pcx_rb_check_ss != check.abs2_ss || pcx->pcx_rb_life < 1) {
        pcx->rb_cleanup_time = 0;
    }
    pcx->pcx_rb_life = answer.rb_rt_time;
    pcx->pcx_rb_check_hh = check.abs2_hh;
    pcx->pcx_rb_check_mm = check.abs2_mm;
    pcx->pcx_rb_check_ss = check.abs2_ss;
}

// The first logon after a start plans the cleaning of old status stores, and does the one that is due.
void take_transfers(EX_PCX* pcx, const logon_answer& answer) {
    FTX_GLB& glb = ftx_glb();
    glb.ft_use_md5 = answer.ft_use_md5 == 'Y';
    glb.ft_rst_life = answer.ft_rst_life;
    glb.ft_rst_check_hh = answer.ft_rst_check.hh;
    glb.ft_rst_check_mm = answer.ft_rst_check.mm;
    glb.ft_rst_check_ss = answer.ft_rst_check.ss;
    if (ss_cleanup_due() == 0) {
        qx7_error error;
        ss_ftxCleanup(pcx, glb.ft_rst_life, &error);  // it logs its failure
    }
}

void take_periods(EX_PCX* pcx, const logon_answer& answer) {
    take_period(&pcx->Per_JobCheck, answer.job_check, "Jobs");
    take_period(&pcx->Per_KeepAlive, answer.keep_alive, "Server");
    take_period(&pcx->Per_Reconnect, answer.reconnect, "Reconnect");
    take_period(&pcx->Per_Report, answer.report, "Report");
    pcx->pcx_chglogIntvl = static_cast<time_t>(answer.chglog_intvl) * seconds_of_a_day;
    pcx->pcx_chglogSize = answer.chglog_size;
    take_rollback_time(pcx, answer);
    const int events = answer.check_interval < 1 ? preset_interval : std::min(answer.check_interval, 32767);
    take_short_period(&pcx->fsh_check_interval, events, "File Event");
    take_short_period(&pcx->ftx_restart_intervall, answer.ft_rst_timer, "File Transfer Restart Point");
    take_short_period(&pcx->ftx_sta_intervall, answer.ft_stat_timer, "File Transfer Statistic");
    const int reports = answer.ft_report_time < 1 ? preset_interval : answer.ft_report_time;
    take_short_period(&pcx->ftx_report_intervall, reports, "File Transfer Report");
    take_short_period(&pcx->ftx_con_timeout, answer.ft_con_timeout, "unused FT connection");
    take_period(&pcx->pcx_cmd_timeout, answer.cmd_timeout, "backend command");
}

// ---- own addresses: by them the agent knows that a transfer's partner is itself

struct address_list {
    std::vector<in_addr_t> addresses;

    void add(in_addr_t address) {
        const bool known = std::find(addresses.begin(), addresses.end(), address) != addresses.end();
        if (!known && addresses.size() < own_addresses_max) {
            addresses.push_back(address);
        }
    }
    void add_text(const std::string& text) {
        in_addr address;
        if (inet_pton(AF_INET, text.c_str(), &address) == 1) {
            add(address.s_addr);
        }
    }
};

void add_interfaces(address_list* list) {
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0) {
        return;  // what the host's name resolves to is left
    }
    for (const ifaddrs* at = found; at != nullptr; at = at->ifa_next) {
        if (at->ifa_addr != nullptr && at->ifa_addr->sa_family == AF_INET) {
            sockaddr_in address;
            memcpy(&address, at->ifa_addr, sizeof address);
            list->add(address.sin_addr.s_addr);
        }
    }
    freeifaddrs(found);
}

void take_own_addresses(EX_PCX* pcx, const logon_answer& answer, message_view view) {
    address_list list;
    list.add_text(pcx->pcx_varex->ipAddr);
    list.add_text(pcx->listener_bindaddr);
    list.add_text("127.0.0.1");
    // What the host's own name resolves to comes from a look-up that began with the search for a server; a
    // logon before its end goes without, the interfaces tell the same but for an address outside the host.
    for (const in_addr_t address : resolver_own_host()) {
        list.add(address);
    }
    add_interfaces(&list);
    for (const std::string_view word : split_words(view_text(view, answer.ip_dist, answer.ip_len), ';')) {
        std::string text(word);
        text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
        list.add_text(text);
    }
    const size_t size = list.addresses.size() * sizeof(in_addr_t);
    in_addr_t* copy = static_cast<in_addr_t*>(malloc(size));
    if (copy == nullptr) {
        return;  // the addresses of the last logon stay
    }
    memcpy(copy, list.addresses.data(), size);
    free(pcx->pcx_pIPList);
    pcx->pcx_pIPList = copy;
    pcx->pcx_iIPCount = static_cast<int>(list.addresses.size());
}

// ---- log and code table

void take_log_mode(EX_PCX* pcx, const logon_answer& answer) {
    if (pcx->cLogToDb == 0) {
        LOG_CreateMsgStack(pcx);
        pcx->cLogToDb = answer.log_to_db;
    }
    if (pcx->cLogToDb == 'N') {
        ZULOGG_UseMsg(pcx->logHnd, false);
        ZULOGG_FreeMsg(pcx->logHnd);
        pcx->LogBuffRecNr = 0;
    }
}

void take_block_and_code(EX_PCX* pcx, const logon_answer& answer, message_view view) {
    if (answer.blksize >= log_block_min) {
        pcx->logBlksize = answer.blksize;
    }
    const std::span<const unsigned char> code = view_data(view, answer.code_dist, answer.code_len);
    if (code.size() == code_table_message_size && SetDefaultCode(pcx, code.data(), code.size()) == 0) {
        pcx->code_len = static_cast<int>(code.size());
    }
}

void take_server_version(EX_PCX* pcx, const logon_answer& answer) {
    const std::string release(get_text(answer.version.release_id));
    snprintf(pcx->srvVers, sizeof pcx->srvVers, "%d.%d.%d%.40s", answer.version.major, answer.version.minor,
             answer.version.patch, printable(release).c_str());
}

}  // namespace

int process_exstartq2(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    const auto answer = view_record<logon_answer>(view);
    pcx->pcx_flag.fetch_or(PCX_FLAG_LOGGED_IN);
    pcx->unquitted_srvqry = 0;
    pcx->waitForChglogQu = 0;
    // Only now: a start message that got lost leaves the start cold.
    pcx->pcx_varex->ExStart_Typ = START_WARM;
    pcx->ExStart_Typ = START_WARM;
    const bool other_report = pcx->report_id != 0 && pcx->report_id != answer.ah_idnr;
    take_server_version(pcx, answer);
    take_password_checks(pcx, answer);
    take_report(pcx, answer);
    take_periods(pcx, answer);
    take_transfers(pcx, answer);
    take_own_addresses(pcx, answer, view);
    take_log_mode(pcx, answer);
    take_block_and_code(pcx, answer, view);
    pcx->Log_alarm_time = alarm_now() + pcx->Per_Report;
    ccm_wakeup_network(pcx->ccm);  // what has waited for a logon goes now
    SendBinGetMessagesAfterReconnect(pcx);
    if (other_report) {
        send_chglogr(pcx);
    }
    return 0;
}
