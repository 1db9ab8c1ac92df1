#include "agent_commands.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "qxcp/console_administration.h"

agent_commands::agent_commands(CLI::App& app, cp_console_options& console) {
    agents_ = app.add_subcommand("agents", "list the agents that are logged on");
    stop_ = app.add_subcommand("stop", "shut an agent down; its jobs go on");
    stop_->add_option("agent", agent_, "name of the agent")->required();
    add_keys(app);
    query_ = app.add_subcommand("query", "what an agent is doing: jobs, connections, processor time");
    add_trace(app);
    add_log(app);
    add_mail(app);
    add_connect(app);
    for (CLI::App* command : {query_, log_, mail_, trace_}) {
        command->add_option("agent", agent_, "name of the agent; needed when several are logged on");
    }
    trace_->add_option("action", trace_action_, "get, or set with --flags")
        ->check(CLI::IsMember({"get", "set"}))
        ->capture_default_str();
    for (CLI::App* command : {agents_, stop_, package_, forget_key_, query_, trace_, log_, mail_, connect_}) {
        add_common_options(command, console);
    }
}

void agent_commands::add_keys(CLI::App& app) {
    package_ = app.add_subcommand(
        "package",
        "make an initial package: an agent that starts with it needs no key exchange at its first logon");
    package_->add_option("agent", agent_, "name of the agent, as its INI file gives it");
    package_->add_option("--output", package_path_, "write to this new file, mode 0600 (AGENT.package)");
    package_->add_flag(
        "--company-only", company_only_,
        "only the company key, for any agent; the transfer key is then agreed at its first logon");
    forget_key_ = app.add_subcommand(
        "forget-key",
        "give up the key of an agent that has lost its own: the next card of that name gets a new one");
    forget_key_->add_option("agent", agent_, "name of the agent")->required();
}

void agent_commands::add_trace(CLI::App& app) {
    trace_ = app.add_subcommand("trace", "show or set what an agent and its processes trace");
    trace_->add_option("--flags", flags_, "a digit from 0 to 9 for each area, at most 16")
        ->check([](const std::string& text) -> std::string {
            const bool good = text.size() <= 16 && text.find_first_not_of("0123456789") == std::string::npos;
            return good ? "" : fmt::format("'{}' is no text of at most 16 digits", text);
        });
    trace_->add_option("--size", max_size_, "megabytes of the trace in memory")
        ->check(whole_number(0, 1 << 20));
    trace_->add_flag("--memory", memory_, "trace to memory");
    trace_->add_flag("--dump", dump_, "write out what memory holds");
    trace_->add_flag("--force", force_, "start tracing again that a trigger has stopped");
    trace_->add_option("--trigger", trigger_,
                       "text, with * and ?, at which tracing stops; a trace in memory is written out then");
    trace_->add_option("--trigger-type", trigger_type_, "a letter that the agent keeps with the trigger");
    trace_->add_flag("--first-version", first_version_, "send the older form: only the flags");
}

void agent_commands::add_log(CLI::App& app) {
    log_ = app.add_subcommand("log", "the last lines of an agent's log; their times are local there");
    auto* live = log_->add_flag("--follow", follow_, "go on with each line that comes");
    log_->add_flag("--change", change_, "let the agent begin a new log")->excludes(live);
}

void agent_commands::add_mail(CLI::App& app) {
    mail_ = app.add_subcommand("mail", "send a mail from an agent's host");
    mail_->add_option("--to", to_, "recipient, 'address' or 'name <address>'; may be repeated")->required();
    mail_->add_option("--cc", cc_, "recipient of a copy; may be repeated");
    mail_->add_option("--from", from_, "sender; else that of the agent's settings");
    mail_->add_option("--subject", subject_, "subject");
    auto* here = mail_->add_option("--text", text_, "the text");
    mail_->add_option("--text-file", text_file_, "file with the text, '-' for standard input")
        ->excludes(here);
    mail_->add_flag("--html", html_, "the text is HTML");
    mail_->add_option("--attach", attachments_, "full path of a file on the agent's host; may be repeated");
    mail_->add_option("--server", relay_, "mail relay; else that of the agent's settings");
    mail_->add_option("--user", relay_user_, "user for the relay");
    mail_->add_option("--password-file", password_file_, "file whose first line is that user's password");
    mail_->add_option("--timeout", timeout_, "seconds that the relay has for each step")
        ->check(whole_number(1, 600));
    mail_->add_flag("--first-version", first_version_, "send the older form of the order");
}

void agent_commands::add_connect(CLI::App& app) {
    connect_ = app.add_subcommand("connect", "let an agent connect to another one");
    connect_->add_option("agent", agent_, "name of the agent")->required();
    connect_->add_option("partner", partner_, "name of the other agent")->required();
    connect_->add_option("--address", partner_address_, "its address; else that of its listener");
    connect_->add_option("--port", partner_port_, "its port; else that of its listener")
        ->check(whole_number(1, 65535));
}

std::optional<int> agent_commands::run(const cp_console_options& console) {
    if (*agents_) {
        return cp_console_agents(console);
    }
    if (*stop_) {
        return cp_console_stop(console, agent_);
    }
    if (*query_) {
        return cp_console_administration(console, {{"op", "query"}, {"agent", agent_}});
    }
    if (*trace_) {
        return run_trace(console);
    }
    if (*log_) {
        return change_
                   ? cp_console_administration(console, {{"op", "log"}, {"agent", agent_}, {"change", true}})
                   : cp_console_log(console, agent_, follow_);
    }
    if (*mail_) {
        return run_mail(console);
    }
    if (*connect_) {
        return cp_console_administration(console, {{"op", "connect"},
                                                   {"agent", agent_},
                                                   {"partner", partner_},
                                                   {"address", partner_address_},
                                                   {"port", partner_port_}});
    }
    return run_keys(console);
}

std::optional<int> agent_commands::run_keys(const cp_console_options& console) {
    if (*forget_key_) {
        return cp_console_forget_key(console, agent_);
    }
    if (!*package_) {
        return std::nullopt;
    }
    if (agent_.empty() && !company_only_) {
        fmt::print(
            stderr,
            "qxcp: package needs the name of the agent, or --company-only. Type 'qxcp package --help'.\n");
        return exit_usage;
    }
    return cp_console_package(console, agent_, company_only_, package_path_);
}

int agent_commands::run_trace(const cp_console_options& console) {
    if ((trace_action_ == "set") == flags_.empty()) {
        fmt::print(stderr, "qxcp: 'trace AGENT set' needs --flags, 'trace AGENT get' takes none\n");
        return exit_usage;
    }
    nlohmann::json request = {{"op", "trace"}, {"agent", agent_}};
    if (trace_action_ == "set") {
        request.update({{"flags", flags_},
                        {"max_size", max_size_},
                        {"memory", memory_},
                        {"dump", dump_},
                        {"force", force_},
                        {"trigger", trigger_},
                        {"trigger_type", trigger_type_},
                        {"extended", !first_version_}});
    }
    return cp_console_administration(console, request);
}

int agent_commands::run_mail(const cp_console_options& console) {
    nlohmann::json request = {{"op", "mail"},
                              {"agent", agent_},
                              {"to", to_},
                              {"cc", cc_},
                              {"from", from_},
                              {"subject", subject_},
                              {"text", text_},
                              {"html", html_},
                              {"attachments", attachments_},
                              {"server", relay_},
                              {"user", relay_user_},
                              {"timeout", timeout_},
                              {"first_version", first_version_}};
    if (!cp_console_complete_mail(request, text_file_, password_file_)) {
        return exit_usage;
    }
    return cp_console_administration(console, request);
}
