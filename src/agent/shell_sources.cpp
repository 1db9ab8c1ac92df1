#include "agent/shell_sources.h"

#include "base/context.h"
#include "jobs/job_table.h"
#include "reports/reports.h"
#include "services/agent_shell.h"

namespace {

void each_job(agent_shell_job_taker take, void* place) {
    for (const JP_AREA* job = Next_JEntry(-1, 0); job != nullptr;
         job = Next_JEntry(job->JP_jobNr, job->JP_Mandant)) {
        take(place, {job->JP_jobNr, job->JP_status, job->JP_oName, std::to_string(job->fork_pid)});
    }
}

}  // namespace

void open_agent_shell() {
    agent_shell_sources sources;
    sources.each_job = each_job;
    sources.report_count = [](EX_PCX*) { return getReportCount(); };
    agent_shell_set_sources(sources);
    REP_set_shell(process_agent_shell_command);
}
