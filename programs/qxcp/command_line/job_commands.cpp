#include "job_commands.h"

#include "qxcp/store.h"

job_commands::job_commands(CLI::App& app, cp_console_options& console) {
    jobs_ = app.add_subcommand("jobs", "list jobs, the newest last");
    jobs_->add_option("--state", listed_.states, "only those in this state; may be repeated")
        ->check(CLI::IsMember(cp_shown_states()));
    jobs_->add_option("--agent", listed_.agent, "only those of this agent");
    jobs_->add_option("--last", listed_.last, "only the newest, so many of them")->check(whole_number(1));

    cancel_ = app.add_subcommand("cancel", "cancel a job, also one that waits for its agent");
    info_ = app.add_subcommand("info", "all that is known of a job, and what its agent says now");
    report_ = app.add_subcommand("report", "print the report of a job, also while it runs");
    for (CLI::App* command : {cancel_, info_, report_}) {
        command->add_option("run", run_number_, "run number of the job")->required()->check(whole_number(1));
    }
    report_->add_option("--match", match_,
                        "only lines that match: * any text, ? any character, case ignored");
    report_->add_flag("--tail", tail_, "only the end");
    report_->add_option("--output", report_path_, "write to this file");
    for (CLI::App* command : {jobs_, cancel_, info_, report_}) {
        add_common_options(command, console);
    }
}

std::optional<int> job_commands::run(const cp_console_options& console) {
    if (*jobs_) {
        return cp_console_jobs(console, listed_);
    }
    if (*cancel_) {
        return cp_console_cancel(console, run_number_);
    }
    if (*info_) {
        return cp_console_info(console, run_number_);
    }
    if (*report_) {
        return cp_console_report(console, run_number_, match_, tail_, report_path_);
    }
    return std::nullopt;
}
