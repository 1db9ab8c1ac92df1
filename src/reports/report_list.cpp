// The open transfers of the process.
#include <algorithm>
#include <cstring>
#include <list>
#include <utility>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/profile.h"
#include "base/text.h"
#include "log/log.h"
#include "reports/reports.h"

namespace {

// The newest first.
std::list<std::unique_ptr<REP_Area>> transfers;

// The transfer out of the list, and closed.
void close_area(EX_PCX* pcx, std::list<std::unique_ptr<REP_Area>>::iterator at) {
    drop_block(pcx, &(*at)->ahead);
    transfers.erase(at);
}

void log_failure(const REP_Area& area) {
    __log(number_report_failed, "%u|", static_cast<unsigned>(area.iRepGet_ah_idnr));
}

}  // namespace

int REP_Open(EX_PCX* pcx) {
    transfers.clear();
    char value[16];
    GetPrvProfileString("GLOBAL", "allow_agentshell", "no", value, sizeof value, pcx->IniFile);
    ToUpperStr(value);
    const std::string_view text = value;
    if (text == "1" || text == "Y" || text == "YE" || text == "YES") {
        pcx->pcx_flag.fetch_or(PCX_FLAG_AGENTSHELL);
    }
    return 0;
}

int REP_Close(EX_PCX* pcx) {
    while (!transfers.empty()) {
        close_area(pcx, transfers.begin());
    }
    return 0;
}

int REP_after_fork(EX_PCX*) {
    transfers.clear();
    return 0;
}

bool checkReportEntry(const REP_Area* area) {
    if (memcmp(area->rep_ID, report_eye_catcher, sizeof area->rep_ID) == 0) {
        return true;
    }
    LogDump("report-entry error", area, sizeof *area);
    return false;
}

REP_Area* getReportEntry(EX_PCX*, int ah_idnr) {
    if (ah_idnr < 1) {
        return nullptr;
    }
    for (const auto& area : transfers) {
        if (!checkReportEntry(area.get())) {
            break;
        }
        if (area->iRepGet_ah_idnr == ah_idnr) {
            return area.get();
        }
    }
    return nullptr;
}

int getReportCount() {
    return static_cast<int>(transfers.size());
}

void addReportEntry(EX_PCX* pcx, std::unique_ptr<REP_Area> area) {
    deleteReportEntry(pcx, area->iRepGet_ah_idnr);
    transfers.push_front(std::move(area));
}

void deleteReportEntry(EX_PCX* pcx, int ah_idnr) {
    const auto at = std::ranges::find_if(
        transfers, [=](const std::unique_ptr<REP_Area>& area) { return area->iRepGet_ah_idnr == ah_idnr; });
    if (at != transfers.end()) {
        close_area(pcx, at);
    }
}

void deleteAllReportEntry(EX_PCX* pcx) {
    while (!transfers.empty()) {
        log_failure(*transfers.front());
        close_area(pcx, transfers.begin());
    }
}

void close_idle_reports(EX_PCX* pcx) {
    const time_t now = alarm_now();
    for (auto at = transfers.begin(); at != transfers.end();) {
        const auto idle = at++;
        if (now - (*idle)->last_use > report_idle_limit) {
            __PutLogText("Report transfer %d of '%s': the server asked for nothing in %d hours.",
                         (*idle)->iRepGet_ah_idnr, printable((*idle)->cFile).c_str(),
                         static_cast<int>(report_idle_limit / 3600));
            log_failure(**idle);
            close_area(pcx, idle);
        }
    }
}
