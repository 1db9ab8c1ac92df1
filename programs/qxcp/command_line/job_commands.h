// The commands about jobs that were submitted: jobs, cancel, info, report.
#pragma once

#include "common.h"

struct job_commands {
    job_commands(CLI::App& app, cp_console_options& console);
    std::optional<int> run(const cp_console_options& console);

  private:
    CLI::App* jobs_;
    CLI::App* cancel_;
    CLI::App* info_;
    CLI::App* report_;
    cp_jobs_options listed_;
    int run_number_ = 0;
    std::string match_;
    std::string report_path_;
    bool tail_ = false;
};
