// The commands about agents themselves.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "common.h"
#include "qxcp/console/console_administration.h"

namespace {

void add_agent(CLI::App* command, std::string& agent) {
    command->add_option("agent", agent, "name of the agent")->required();
}

// Where the only one that is logged on will do.
void add_any_agent(CLI::App* command, std::string& agent) {
    command->add_option("agent", agent, "name of the agent; needed when several are logged on");
}

command_action add_agents(CLI::App* command, cp_console_options& console) {
    add_common_options(command, console);
    return [&console] { return cp_console_agents(console); };
}

command_action add_stop(CLI::App* command, cp_console_options& console) {
    auto agent = std::make_shared<std::string>();
    add_agent(command, *agent);
    add_common_options(command, console);
    return [=, &console] { return cp_console_stop(console, *agent); };
}

struct package_options {
    std::string agent;
    std::string path;
    bool company_only = false;
};

int run_package(const cp_console_options& console, const package_options& package) {
    if (package.agent.empty() && !package.company_only) {
        fmt::print(
            stderr,
            "qxcp: package needs the name of the agent, or --company-only. Type 'qxcp package --help'.\n");
        return exit_usage;
    }
    return cp_console_package(console, package.agent, package.company_only, package.path);
}

command_action add_package(CLI::App* command, cp_console_options& console) {
    auto package = std::make_shared<package_options>();
    command->add_option("agent", package->agent, "name of the agent, as its INI file gives it");
    command->add_option("--output", package->path, "write to this new file, mode 0600 (AGENT.package)");
    command->add_flag(
        "--company-only", package->company_only,
        "only the company key, for any agent; the transfer key is then agreed at its first logon");
    add_common_options(command, console);
    return [=, &console] { return run_package(console, *package); };
}

command_action add_forget_key(CLI::App* command, cp_console_options& console) {
    auto agent = std::make_shared<std::string>();
    add_agent(command, *agent);
    add_common_options(command, console);
    return [=, &console] { return cp_console_forget_key(console, *agent); };
}

command_action add_query(CLI::App* command, cp_console_options& console) {
    auto agent = std::make_shared<std::string>();
    add_any_agent(command, *agent);
    add_common_options(command, console);
    return [=, &console] { return cp_console_administration(console, {{"op", "query"}, {"agent", *agent}}); };
}

struct trace_options {
    std::string agent;
    std::string action = "get";
    std::string flags, trigger, trigger_type;
    int max_size = 0;
    bool memory = false, dump = false, force = false, first_version = false;
};

int run_trace(const cp_console_options& console, const trace_options& trace) {
    const bool set = trace.action == "set";
    if (set == trace.flags.empty()) {
        fmt::print(stderr, "qxcp: 'trace AGENT set' needs --flags, 'trace AGENT get' takes none\n");
        return exit_usage;
    }
    nlohmann::json request = {{"op", "trace"}, {"agent", trace.agent}};
    if (set) {
        request.update({{"flags", trace.flags},
                        {"max_size", trace.max_size},
                        {"memory", trace.memory},
                        {"dump", trace.dump},
                        {"force", trace.force},
                        {"trigger", trace.trigger},
                        {"trigger_type", trace.trigger_type},
                        {"extended", !trace.first_version}});
    }
    return cp_console_administration(console, request);
}

std::string fault_of_flags(const std::string& text) {
    const bool good = text.size() <= 16 && text.find_first_not_of("0123456789") == std::string::npos;
    return good ? "" : fmt::format("'{}' is no text of at most 16 digits", text);
}

command_action add_trace(CLI::App* command, cp_console_options& console) {
    auto trace = std::make_shared<trace_options>();
    command->add_option("--flags", trace->flags, "a digit from 0 to 9 for each area, at most 16")
        ->check(fault_of_flags);
    command->add_option("--size", trace->max_size, "megabytes of the trace in memory")
        ->check(whole_number(0, 1 << 20));
    command->add_flag("--memory", trace->memory, "trace to memory");
    command->add_flag("--dump", trace->dump, "write out what memory holds");
    command->add_flag("--force", trace->force, "start tracing again that a trigger has stopped");
    command->add_option("--trigger", trace->trigger,
                        "text, with * and ?, at which tracing stops; a trace in memory is written out then");
    command->add_option("--trigger-type", trace->trigger_type,
                        "a letter that the agent keeps with the trigger");
    command->add_flag("--first-version", trace->first_version, "send the older form: only the flags");
    add_any_agent(command, trace->agent);
    command->add_option("action", trace->action, "get, or set with --flags")
        ->check(CLI::IsMember({"get", "set"}))
        ->capture_default_str();
    add_common_options(command, console);
    return [=, &console] { return run_trace(console, *trace); };
}

struct log_options {
    std::string agent;
    bool follow = false, change = false;
};

int run_log(const cp_console_options& console, const log_options& log) {
    if (log.change) {
        return cp_console_administration(console, {{"op", "log"}, {"agent", log.agent}, {"change", true}});
    }
    return cp_console_log(console, log.agent, log.follow);
}

command_action add_log(CLI::App* command, cp_console_options& console) {
    auto log = std::make_shared<log_options>();
    auto* live = command->add_flag("--follow", log->follow, "go on with each line that comes");
    command->add_flag("--change", log->change, "let the agent begin a new log")->excludes(live);
    add_any_agent(command, log->agent);
    add_common_options(command, console);
    return [=, &console] { return run_log(console, *log); };
}

struct mail_options {
    std::string agent;
    std::vector<std::string> to, cc, attachments;
    std::string from, subject, text, text_file, relay, relay_user, password_file;
    bool html = false, first_version = false;
    int timeout = 0;
};

int run_mail(const cp_console_options& console, const mail_options& mail) {
    nlohmann::json request = {{"op", "mail"},
                              {"agent", mail.agent},
                              {"to", mail.to},
                              {"cc", mail.cc},
                              {"from", mail.from},
                              {"subject", mail.subject},
                              {"text", mail.text},
                              {"html", mail.html},
                              {"attachments", mail.attachments},
                              {"server", mail.relay},
                              {"user", mail.relay_user},
                              {"timeout", mail.timeout},
                              {"first_version", mail.first_version}};
    if (!cp_console_complete_mail(request, mail.text_file, mail.password_file)) {
        return exit_usage;
    }
    return cp_console_administration(console, request);
}

command_action add_mail(CLI::App* command, cp_console_options& console) {
    auto mail = std::make_shared<mail_options>();
    command->add_option("--to", mail->to, "recipient, 'address' or 'name <address>'; may be repeated")
        ->required();
    command->add_option("--cc", mail->cc, "recipient of a copy; may be repeated");
    command->add_option("--from", mail->from, "sender; else that of the agent's settings");
    command->add_option("--subject", mail->subject, "subject");
    auto* here = command->add_option("--text", mail->text, "the text");
    command->add_option("--text-file", mail->text_file, "file with the text, '-' for standard input")
        ->excludes(here);
    command->add_flag("--html", mail->html, "the text is HTML");
    command->add_option("--attach", mail->attachments,
                        "full path of a file on the agent's host; may be repeated");
    command->add_option("--server", mail->relay, "mail relay; else that of the agent's settings");
    command->add_option("--user", mail->relay_user, "user for the relay");
    command->add_option("--password-file", mail->password_file,
                        "file whose first line is that user's password");
    command->add_option("--timeout", mail->timeout, "seconds that the relay has for each step")
        ->check(whole_number(1, 600));
    command->add_flag("--first-version", mail->first_version, "send the older form of the order");
    add_any_agent(command, mail->agent);
    add_common_options(command, console);
    return [=, &console] { return run_mail(console, *mail); };
}

struct connect_options {
    std::string agent, partner, address;
    int port = 0;
};

command_action add_connect(CLI::App* command, cp_console_options& console) {
    auto connect = std::make_shared<connect_options>();
    add_agent(command, connect->agent);
    command->add_option("partner", connect->partner, "name of the other agent")->required();
    command->add_option("--address", connect->address, "its address; else that of its listener");
    command->add_option("--port", connect->port, "its port; else that of its listener")
        ->check(whole_number(1, 65535));
    add_common_options(command, console);
    return [=, &console] {
        return cp_console_administration(console, {{"op", "connect"},
                                                   {"agent", connect->agent},
                                                   {"partner", connect->partner},
                                                   {"address", connect->address},
                                                   {"port", connect->port}});
    };
}

constexpr command_row rows[] = {
    {"agents", "list the agents that are logged on", add_agents},
    {"stop", "shut an agent down; its jobs go on", add_stop},
    {"package",
     "make an initial package: an agent that starts with it needs no key exchange at its first logon",
     add_package},
    {"forget-key",
     "give up the key of an agent that has lost its own: the next card of that name gets a new one",
     add_forget_key},
    {"query", "what an agent is doing: jobs, connections, processor time", add_query},
    {"trace", "show or set what an agent and its processes trace", add_trace},
    {"log", "the last lines of an agent's log; their times are local there", add_log},
    {"mail", "send a mail from an agent's host", add_mail},
    {"connect", "let an agent connect to another one", add_connect},
};

}  // namespace

std::span<const command_row> agent_commands() {
    return rows;
}
