// The commands that use an agent's host: exec, cat, shell, and the files for jobs: resource.
#pragma once

#include <vector>

#include "common.h"

struct host_commands {
    host_commands(CLI::App& app, cp_console_options& console);
    std::optional<int> run(const cp_console_options& console);

  private:
    void add_exec(CLI::App& app);
    void add_cat(CLI::App& app);
    void add_resource(CLI::App& app, cp_console_options& console);

    CLI::App* exec_;
    CLI::Option* exec_cancel_;
    CLI::App* cat_;
    CLI::App* shell_;
    CLI::App* resource_;
    CLI::App* resource_add_;
    cp_exec_options exec_options_;
    cp_cat_options cat_options_;
    std::string shell_agent_;
    std::vector<std::string> shell_words_;
    cp_resource_options resource_options_;
};
