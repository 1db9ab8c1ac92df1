// The settings as the agent took them, in its log at start. Secrets are never written.
#include <cstdio>
#include <cstring>
#include <string>

#include "agent/setting_table.h"
#include "agent/settings.h"
#include "agent/system_variables.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/profile.h"
#include "base/text.h"
#include "jobs/job_context.h"
#include "launch/launch_settings.h"
#include "log/log.h"

namespace {

// As the console shows it, and besides what nearly has the name of a secret.
void log_ini_line(std::string* section, std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        *section = line.size() > 2 && line.front() == '[' ? line.substr(1, line.rfind(']') - 1) : *section;
        __PutLogText("    %s", printable(line).c_str());
        return;
    }
    const std::string shown = clean_setting_line(*section, line.substr(0, equals), line.substr(equals + 1));
    __PutLogText("    %s", printable(shown).c_str());
}

}  // namespace

void LOG_IniFile(EX_PCX* pcx) {
    qx_stream file(fopen(pcx->IniFile, "re"));
    if (!file.valid()) {
        return;  // it was read a moment ago; the settings below tell what came of it
    }
    __PutLogText("INI file '%s'", pcx->IniFile);
    char line[ini_record_size];
    std::string section;
    while (GetProfZeile(file.get(), line, sizeof line) >= 0) {
        log_ini_line(&section, line);
    }
}

void LOG_Pcx(EX_PCX* pcx) {
    __PutLogText("Agent '%s' of system '%s' on host '%s', version %s", pcx->exName, pcx->sysName,
                 pcx->exNodeName, pcx->exVers);
    __PutLogText("    program '%s', work folder '%s'", pcx->ProgPfad, pcx->pcx_WorkFolder);
    __PutLogText("    temp '%s', out '%s', bin '%s'", pcx->pcx_TmpFolder, pcx->pcx_OutFolder,
                 pcx->pcx_BinFolder);
    __PutLogText("    backup '%s', cache '%s'", pcx->pcx_rb_dir, pcx->pcx_res_dir);
    __PutLogText("    log '%s' (%d), trace '%s' (%d)", pcx->logFile, pcx->logCount, pcx->trc_file,
                 pcx->trc_count);
    __PutLogText("    started by '%s', runs as '%s' (%u/%u), status '%c'", pcx->pcx_strt_realUserName,
                 pcx->efUserName, static_cast<unsigned>(pcx->pcx_strt_uid),
                 static_cast<unsigned>(pcx->pcx_strt_euid), pcx->ExecutorStatus);
    __PutLogText("    reconnect %d s, job check %d s, report %d s, keep alive %d s, command limit %d s",
                 pcx->Per_Reconnect, pcx->Per_JobCheck, pcx->Per_Report, pcx->Per_KeepAlive,
                 pcx->pcx_cmd_timeout);
    __PutLogText("    connect wait %d s, largest frame %d bytes", pcx->connwait, SetMaxMsgSize(pcx));
}

void LOG_Varex(EX_PCX* pcx) {
    const _ExecutorVar* var = pcx->pcx_varex;
    if (var == nullptr) {
        return;
    }
    __PutLogText("Host '%s': %s %s (%s) on %s, %d of %d processors, address %s", var->OS_nodename,
                 var->OS_sysname, var->OS_release, var->OS_version, var->OS_machine, var->activeCPU,
                 var->availCPU, var->ipAddr);
}

void LOG_Jpex(EX_PCX*) {
    const launch_settings* launch = launch_context();
    __PutLogText("Jobs: start type '%c', report mode %.4o, job file mode %.4o, messenger '%s'",
                 launch->JobStartType, launch->FileReportMode, launch->JobFileMode,
                 job_context()->meldName.c_str());
}
