// The commands about agents themselves: agents, stop, package, forget-key, query, trace, log, mail, connect.
#pragma once

#include <vector>

#include "common.h"

struct agent_commands {
    agent_commands(CLI::App& app, cp_console_options& console);
    std::optional<int> run(const cp_console_options& console);

  private:
    void add_keys(CLI::App& app);
    void add_trace(CLI::App& app);
    void add_log(CLI::App& app);
    void add_mail(CLI::App& app);
    void add_connect(CLI::App& app);
    std::optional<int> run_keys(const cp_console_options& console);
    int run_trace(const cp_console_options& console);
    int run_mail(const cp_console_options& console);

    CLI::App* agents_;
    CLI::App* stop_;
    CLI::App* package_;
    CLI::App* forget_key_;
    CLI::App* query_;
    CLI::App* trace_;
    CLI::App* log_;
    CLI::App* mail_;
    CLI::App* connect_;
    std::string agent_;
    std::string package_path_;
    bool company_only_ = false;
    std::string trace_action_ = "get";
    std::string flags_, trigger_, trigger_type_;
    int max_size_ = 0;
    bool memory_ = false, dump_ = false, force_ = false, first_version_ = false;
    bool follow_ = false, change_ = false;
    std::vector<std::string> to_, cc_, attachments_;
    std::string from_, subject_, text_, text_file_, relay_, relay_user_, password_file_;
    bool html_ = false;
    int timeout_ = 0;
    std::string partner_, partner_address_;
    int partner_port_ = 0;
};
