// The open transfers of the process.
#include <cstring>

#include "base/context.h"
#include "base/profile.h"
#include "base/text.h"
#include "log/log.h"
#include "reports/reports.h"

namespace {

REP_Area* first_area(const EX_PCX* pcx) {
    return static_cast<REP_Area*>(pcx->firstREP);
}

void close_area(EX_PCX* pcx, REP_Area* area) {
    if (pcx->running_mode == MODE_AGENT) {  // what a child finds in its memory is the agent's
        drop_block(pcx, &area->ahead);
    }
    delete area;
}

}  // namespace

int REP_Open(EX_PCX* pcx) {
    pcx->firstREP = nullptr;
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
    while (REP_Area* area = first_area(pcx)) {
        pcx->firstREP = area->pNext;
        close_area(pcx, area);
    }
    pcx->pcx_reparea = nullptr;
    return 0;
}

bool checkReportEntry(const REP_Area* area) {
    if (memcmp(area->rep_ID, report_eye_catcher, sizeof area->rep_ID) == 0) {
        return true;
    }
    LogDump("report-entry error", area, sizeof *area);
    return false;
}

REP_Area* getReportEntry(EX_PCX* pcx, int ah_idnr) {
    if (ah_idnr < 1) {
        return nullptr;
    }
    for (REP_Area* area = first_area(pcx); area != nullptr && checkReportEntry(area); area = area->pNext) {
        if (area->iRepGet_ah_idnr == ah_idnr) {
            return area;
        }
    }
    return nullptr;
}

void addReportEntry(EX_PCX* pcx, std::unique_ptr<REP_Area> area) {
    deleteReportEntry(pcx, area->iRepGet_ah_idnr);
    area->pNext = first_area(pcx);
    pcx->firstREP = area.release();
}

void deleteReportEntry(EX_PCX* pcx, int ah_idnr) {
    REP_Area* before = nullptr;
    for (REP_Area* area = first_area(pcx); area != nullptr; before = area, area = area->pNext) {
        if (area->iRepGet_ah_idnr == ah_idnr) {
            if (before == nullptr) {
                pcx->firstREP = area->pNext;
            } else {
                before->pNext = area->pNext;
            }
            close_area(pcx, area);
            return;
        }
    }
}

void deleteAllReportEntry(EX_PCX* pcx) {
    while (REP_Area* area = first_area(pcx)) {
        __log(REPORT_FAILED, "%u|", static_cast<unsigned>(area->iRepGet_ah_idnr));
        pcx->firstREP = area->pNext;
        close_area(pcx, area);
    }
}

void close_idle_reports(EX_PCX* pcx) {
    const time_t now = alarm_now();
    for (REP_Area* area = first_area(pcx); area != nullptr;) {
        REP_Area* next = area->pNext;
        if (now - area->last_use > report_idle_limit) {
            __PutLogText("Report transfer %d of '%s': the server asked for nothing in %d hours.",
                         area->iRepGet_ah_idnr, printable(area->cFile).c_str(), static_cast<int>(report_idle_limit / 3600));
            __log(REPORT_FAILED, "%u|", static_cast<unsigned>(area->iRepGet_ah_idnr));
            deleteReportEntry(pcx, area->iRepGet_ah_idnr);
        }
        area = next;
    }
}
