// The commands about jobs that were submitted.
#include <memory>

#include "common.h"
#include "qxcp/store/store.h"

namespace {

void add_run_number(CLI::App* command, int& run) {
    command->add_option("run", run, "run number of the job")->required()->check(whole_number(1));
}

command_action add_jobs(CLI::App* command, cp_console_options& console) {
    auto listed = std::make_shared<cp_jobs_options>();
    command->add_option("--state", listed->states, "only those in this state; may be repeated")
        ->check(CLI::IsMember(cp_shown_states()));
    command->add_option("--agent", listed->agent, "only those of this agent");
    command->add_option("--last", listed->last, "only the newest, so many of them")->check(whole_number(1));
    add_common_options(command, console);
    return [=, &console] { return cp_console_jobs(console, *listed); };
}

command_action add_cancel(CLI::App* command, cp_console_options& console) {
    auto run = std::make_shared<int>();
    add_run_number(command, *run);
    add_common_options(command, console);
    return [=, &console] { return cp_console_cancel(console, *run); };
}

command_action add_info(CLI::App* command, cp_console_options& console) {
    auto run = std::make_shared<int>();
    add_run_number(command, *run);
    add_common_options(command, console);
    return [=, &console] { return cp_console_info(console, *run); };
}

struct report_options {
    int run = 0;
    std::string match;
    bool tail = false;
    std::string path;
};

command_action add_report(CLI::App* command, cp_console_options& console) {
    auto report = std::make_shared<report_options>();
    add_run_number(command, report->run);
    command->add_option("--match", report->match,
                        "only lines that match: * any text, ? any character, case ignored");
    command->add_flag("--tail", report->tail, "only the end");
    command->add_option("--output", report->path, "write to this file");
    add_common_options(command, console);
    return [=, &console] {
        return cp_console_report(console, report->run, report->match, report->tail, report->path);
    };
}

constexpr command_row rows[] = {
    {"jobs", "list jobs, the newest last", add_jobs},
    {"cancel", "cancel a job, also one that waits for its agent", add_cancel},
    {"info", "all that is known of a job, and what its agent says now", add_info},
    {"report", "print the report of a job, also while it runs", add_report},
};

}  // namespace

std::span<const command_row> job_commands() {
    return rows;
}
