// The command line of the development server and its console.
#include <fmt/format.h>
#include <pwd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "catalogue_page.h"
#include "console.h"
#include "console_administration.h"
#include "decode.h"
#include "server.h"

namespace {

constexpr int exit_usage = 64;
volatile std::sig_atomic_t stop_wanted = 0;

std::string default_folder() {
    if (const char* folder = std::getenv("QXCP_DATA"); folder != nullptr && *folder != '\0') {
        return folder;
    }
    const char* home = std::getenv("HOME");
    return fmt::format("{}/.qxcp", home != nullptr && *home != '\0' ? home : "/tmp");
}

std::string own_user() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : "";
}

void print_event(const cp_event& event, bool as_json) {
    if (as_json) {
        nlohmann::json j = {{"time", event.time}, {"event", event.kind}, {"text", event.text}};
        if (!event.agent.empty()) {
            j["agent"] = event.agent;
        }
        if (event.run != 0) {
            j["run"] = event.run;
        }
        fmt::print("{}\n", j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        fmt::print("{} {:<10} {}\n", event.time.substr(event.time.find(' ') + 1), event.kind, event.text);
    }
    std::fflush(stdout);
}

void stop_handler(int) {
    stop_wanted = 1;
}

void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = stop_handler;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int serve(const cp_options& options, bool as_json) {
    std::string error;
    auto server = cp_server_open(options, error);
    if (!server) {
        fmt::print(stderr, "qxcp: {}\n", error);
        return 1;
    }
    cp_server_observe(server.get(), [as_json](const cp_event& event) { print_event(event, as_json); });
    print_event({"", "serve", "", 0,
                 fmt::format("server {} of system {} listens on {}:{}, data in {}", options.name, options.system,
                             options.address, cp_server_port(server.get()), options.folder)},
                as_json);
    catch_stop_signals();
    while (stop_wanted == 0) {
        cp_server_step(server.get(), 1000);
    }
    print_event({"", "serve", "", 0, "server stopped; agents and their jobs go on"}, as_json);
    return 0;
}

// A server in a child process, so that the console's own waiting stays as it is.
int run_here(const cp_options& server_options, const cp_console_options& console, const cp_run_options& run) {
    std::string error;
    auto server = cp_server_open(server_options, error);
    if (!server) {
        fmt::print(stderr, "qxcp: {}\n", error);
        return 1;
    }
    const int port = cp_server_port(server.get());
    const pid_t child = fork();
    if (child < 0) {
        fmt::print(stderr, "qxcp: fork: {}\n", std::strerror(errno));
        return 1;
    }
    if (child == 0) {
        setpgid(0, 0);  // Ctrl-C is for the console
        catch_stop_signals();
        const pid_t parent = getppid();
        while (stop_wanted == 0 && getppid() == parent) {
            cp_server_step(server.get(), 500);
        }
        server.reset();
        _exit(0);
    }
    fmt::print(stderr, "qxcp: server of system {} on {}:{}, waiting for agents\n", server_options.system,
               server_options.address, port);
    const int code = cp_console_run(console, run);
    kill(child, SIGTERM);
    return code;
}

// The commands about the agent itself: query, trace, log, mail.
struct administration_commands {
    CLI::App* query;
    CLI::App* trace;
    CLI::App* log;
    CLI::App* mail;
    CLI::App* connect;
    std::string trace_action = "get";
    std::string flags, trigger, trigger_type;
    int max_size = 0;
    bool memory = false, dump = false, force = false, first_version = false;
    bool follow = false, change = false;
    std::vector<std::string> to, cc, attachments;
    std::string from, subject, text, text_file, relay, relay_user, password_file;
    bool html = false;
    int timeout = 0;
    std::string partner, partner_address;
    int partner_port = 0;

    administration_commands(CLI::App& app, const std::function<void(CLI::App*)>& add_data, std::string& agent) {
        query = app.add_subcommand("query", "what an agent is doing: jobs, connections, processor time");
        add_trace(app);
        add_log(app);
        add_mail(app);
        connect = app.add_subcommand("connect", "let an agent connect to another one");
        for (CLI::App* command : {query, log, mail, trace, connect}) {
            auto* name = command->add_option("agent", agent, "name of the agent; needed when several are logged on");
            if (command == connect) {
                name->required();
            }
            add_data(command);
        }
        connect->add_option("partner", partner, "name of the other agent")->required();
        connect->add_option("--address", partner_address, "its address; else that of its listener");
        connect->add_option("--port", partner_port, "its port; else that of its listener")->check(CLI::Range(1, 65535));
        trace->add_option("action", trace_action, "get, or set with --flags")
            ->check(CLI::IsMember({"get", "set"}))
            ->capture_default_str();
    }

    // The exit code, or nothing when none of these commands was given.
    std::optional<int> run(const cp_console_options& options, const std::string& agent) {
        if (*query) {
            return cp_console_administration(options, {{"op", "query"}, {"agent", agent}});
        }
        if (*trace) {
            return run_trace(options, agent);
        }
        if (*log) {
            return change ? cp_console_administration(options, {{"op", "log"}, {"agent", agent}, {"change", true}})
                          : cp_console_log(options, agent, follow);
        }
        if (*mail) {
            return run_mail(options, agent);
        }
        if (*connect) {
            return cp_console_administration(options, {{"op", "connect"}, {"agent", agent}, {"partner", partner},
                                                       {"address", partner_address}, {"port", partner_port}});
        }
        return std::nullopt;
    }

  private:
    void add_trace(CLI::App& app) {
        trace = app.add_subcommand("trace", "show or set what an agent and its processes trace");
        trace->add_option("--flags", flags, "a digit from 0 to 9 for each area, at most 16")
            ->check([](const std::string& text) -> std::string {
                const bool good =
                    text.size() <= 16 && text.find_first_not_of("0123456789") == std::string::npos;
                return good ? "" : fmt::format("'{}' is no text of at most 16 digits", text);
            });
        trace->add_option("--size", max_size, "megabytes of the trace in memory")
            ->check(CLI::Range(0, 1 << 20));
        trace->add_flag("--memory", memory, "trace to memory");
        trace->add_flag("--dump", dump, "write out what memory holds");
        trace->add_flag("--force", force, "start tracing again that a trigger has stopped");
        trace->add_option(
            "--trigger", trigger,
            "text, with * and ?, at which tracing stops; a trace in memory is written out then");
        trace->add_option("--trigger-type", trigger_type, "a letter that the agent keeps with the trigger");
        trace->add_flag("--first-version", first_version, "send the older form: only the flags");
    }
    void add_log(CLI::App& app) {
        log = app.add_subcommand("log", "the last lines of an agent's log");
        auto* live = log->add_flag("--follow", follow, "go on with each line that comes");
        log->add_flag("--change", change, "let the agent begin a new log")->excludes(live);
    }
    void add_mail(CLI::App& app) {
        mail = app.add_subcommand("mail", "send a mail from an agent's host");
        mail->add_option("--to", to, "recipient, 'address' or 'name <address>'; may be repeated")->required();
        mail->add_option("--cc", cc, "recipient of a copy; may be repeated");
        mail->add_option("--from", from, "sender; else that of the agent's settings");
        mail->add_option("--subject", subject, "subject");
        auto* here = mail->add_option("--text", text, "the text");
        mail->add_option("--text-file", text_file, "file with the text, '-' for standard input")->excludes(here);
        mail->add_flag("--html", html, "the text is HTML");
        mail->add_option("--attach", attachments, "full path of a file on the agent's host; may be repeated");
        mail->add_option("--server", relay, "mail relay; else that of the agent's settings");
        mail->add_option("--user", relay_user, "user for the relay");
        mail->add_option("--password-file", password_file, "file whose first line is that user's password");
        mail->add_option("--timeout", timeout, "seconds that the relay has for each step")->check(CLI::Range(1, 600));
        mail->add_flag("--first-version", first_version, "send the older form of the order");
    }
    int run_trace(const cp_console_options& options, const std::string& agent) {
        if ((trace_action == "set") == flags.empty()) {
            fmt::print(stderr, "qxcp: 'trace AGENT set' needs --flags, 'trace AGENT get' takes none\n");
            return exit_usage;
        }
        nlohmann::json request = {{"op", "trace"}, {"agent", agent}};
        if (trace_action == "set") {
            request.update({{"flags", flags},   {"max_size", max_size}, {"memory", memory},
                            {"dump", dump},     {"force", force},       {"trigger", trigger},
                            {"trigger_type", trigger_type}, {"extended", !first_version}});
        }
        return cp_console_administration(options, request);
    }
    int run_mail(const cp_console_options& options, const std::string& agent) {
        nlohmann::json request = {{"op", "mail"},       {"agent", agent},   {"to", to},          {"cc", cc},
                                  {"from", from},       {"subject", subject}, {"text", text},    {"html", html},
                                  {"attachments", attachments}, {"server", relay}, {"user", relay_user},
                                  {"timeout", timeout}, {"first_version", first_version}};
        if (!cp_console_complete_mail(request, text_file, password_file)) {
            return exit_usage;
        }
        return cp_console_administration(options, request);
    }
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Development server for QX7 agents: runs one, and talks to a running one.", "qxcp"};
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& fault) {
        return fmt::format("qxcp: {}. Type 'qxcp --help' or 'qxcp COMMAND --help'.\n", fault.what());
    });

    cp_options server;
    cp_console_options console;
    cp_run_options run;
    server.folder = console.folder = default_folder();
    bool as_json = false;
    bool here = false;
    int run_number = 0;
    std::string agent;
    std::string match;
    std::string report_path;
    bool tail = false;

    auto add_data = [&](CLI::App* command) {
        command->add_option("--data", console.folder, "the server's data folder (or set QXCP_DATA)")
            ->capture_default_str();
        command->add_flag("--json", as_json, "print JSON, one object a line, for programs");
    };
    auto add_server_options = [&](CLI::App* command) {
        command->add_option("--system", server.system, "system name that agents must name")->capture_default_str();
        command->add_option("--port", server.port, "TCP port for agents, 0: any free one")
            ->check(CLI::Range(0, 65535))
            ->default_val(2217);
        command->add_option("--address", server.address, "IPv4 address to listen on")->capture_default_str();
        command->add_option("--server-name", server.name, "name of this server process")->capture_default_str();
        command->add_option("--ranking", server.ranking, "1: agents take this server at once; 9999: it refuses them")
            ->check(CLI::Range(1, 9999))
            ->capture_default_str();
        command->add_option("--cp-list", server.cp_list, "other servers, as 'host:port;host:port;'");
        command->add_option("--job-check", server.job_check, "seconds between two status reports of a job")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command->add_option("--keep-alive", server.keep_alive, "seconds of silence before an agent asks")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command->add_option("--reconnect", server.reconnect, "seconds between two connection attempts of an agent")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command->add_option("--log-interval", server.report_interval, "seconds between two looks for new log lines")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command
            ->add_option("--log-size", server.log_megabytes,
                         "megabytes after which agents begin a new log, 0: never")
            ->check(CLI::NonNegativeNumber)
            ->capture_default_str();
        command->add_option("--block-size", server.block_size, "bytes of a report block")
            ->check(CLI::Range(128, 32767))
            ->capture_default_str();
        command->add_option("--command-limit", server.command_limit, "seconds that agents give a command of 'exec'")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command->add_flag("--check-passwords", server.check_passwords, "agents shall check the passwords of jobs");
    };

    auto* serve_command = app.add_subcommand("serve", "run the server: agents log on, events are printed");
    add_server_options(serve_command);
    add_data(serve_command);

    auto* run_command = app.add_subcommand(
        "run", "run a script as a job, show its states and its report; the exit code is the job's (125: it never ran)");
    run_command->add_option("script", run.script_path, "the script, '-' for standard input")->required();
    run_command->add_option("--agent", run.agent, "agent that runs it; needed when several are logged on");
    run_command->add_option("--user", run.user, "user on the agent's host")->default_val(own_user());
    run_command->add_option("--password-file", run.password_file, "file whose first line is that user's password");
    run_command->add_option("--shell", run.shell, "shell, if neither the script's first line nor the user's own");
    run_command->add_option("--name", run.name, "name of the job (the script's file name)");
    run_command->add_option("--client", run.client, "client number")->capture_default_str();
    run_command->add_option("--report", run.report_path, "write the report to this file");
    run_command->add_option("--client-resource", run.client_resources,
                            "OBJECT/NAME, a stored file that all jobs of the client share; in $QX_CLIENT_CACHE/NAME");
    run_command->add_option("--task-resource", run.task_resources,
                            "OBJECT/NAME, a stored file for this job alone; in $QX_TASK_CACHE/NAME");
    run_command->add_flag("--plain", run.plain, "without the messenger's calls around the script");
    run_command->add_flag("--here", here, "start a server for this job alone and wait for an agent");
    add_server_options(run_command);
    add_data(run_command);

    auto* agents_command = app.add_subcommand("agents", "list the agents that are logged on");
    add_data(agents_command);
    auto* jobs_command = app.add_subcommand("jobs", "list all jobs");
    add_data(jobs_command);
    auto* cancel_command = app.add_subcommand("cancel", "cancel a job");
    cancel_command->add_option("run", run_number, "run number of the job")->required()->check(CLI::PositiveNumber);
    add_data(cancel_command);
    auto* info_command = app.add_subcommand("info", "all that is known of a job, and what its agent says now");
    info_command->add_option("run", run_number, "run number of the job")->required()->check(CLI::PositiveNumber);
    add_data(info_command);
    auto* report_command = app.add_subcommand("report", "print the report of a job, also while it runs");
    report_command->add_option("run", run_number, "run number of the job")->required()->check(CLI::PositiveNumber);
    report_command->add_option("--match", match, "only lines that match: * any text, ? any character, case ignored");
    report_command->add_flag("--tail", tail, "only the end");
    report_command->add_option("--output", report_path, "write to this file");
    add_data(report_command);
    cp_exec_options exec;
    auto* exec_command = app.add_subcommand(
        "exec", "run a command on an agent's host and print its output; the exit code is the command's "
                "(124: no answer in time, 125: it never ran, was stopped, or its answer was lost)");
    exec_command->add_option("agent", exec.agent, "name of the agent")->required();
    exec_command->add_option("command", exec.command, "the command, for the user's login shell");
    exec_command->add_option("--user", exec.user, "user on the agent's host, '' for the agent's own")
        ->default_val(own_user());
    exec_command->add_option("--password-file", exec.password_file, "file whose first line is that user's password");
    exec_command->add_option("--rows", exec.rows, "lines of output at most")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    exec_command->add_option("--time-limit", exec.seconds, "seconds, then the command is cancelled; 0: the server's limit")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    exec_command->add_option("--client", exec.client, "client number")->capture_default_str();
    auto* exec_cancel = exec_command->add_option("--cancel", exec.number, "cancel this command, 0: all of the agent's")
                            ->check(CLI::NonNegativeNumber);
    add_data(exec_command);

    cp_cat_options cat;
    auto* cat_command = app.add_subcommand("cat", "print a file of an agent's host, with the rights of a user there");
    cat_command->add_option("agent", cat.agent, "name of the agent")->required();
    cat_command->add_option("file", cat.file, "path of the file")->required();
    auto* cat_tail = cat_command->add_option("--tail", cat.tail, "only the last lines, so many of them")
                         ->check(CLI::NonNegativeNumber);
    auto* cat_head = cat_command->add_option("--head", cat.head, "only the first lines, so many of them")
                         ->check(CLI::NonNegativeNumber)
                         ->excludes(cat_tail);
    cat_command->add_option("--bytes", cat.bytes, "only the first bytes, so many of them")
        ->check(CLI::PositiveNumber)
        ->excludes(cat_tail)
        ->excludes(cat_head);
    cat_command->add_option("--encoding", cat.encoding,
                            "print as UTF-8 what is in this encoding; auto: what the file's mark says; raw: as it is")
        ->check(CLI::IsMember({"raw", "auto", "utf8", "ucs2le", "ucs2be"}))
        ->capture_default_str();
    cat_command->add_option("--time-limit", cat.seconds, "seconds that the agent may send nothing")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    cat_command->add_option("--user", cat.user, "user on the agent's host")->default_val(own_user());
    cat_command->add_option("--password-file", cat.password_file, "file whose first line is that user's password");
    add_data(cat_command);

    std::vector<std::string> shell_words;
    auto* shell_command = app.add_subcommand(
        "shell", "run a command of the agent's own console, such as GET_COMMANDS, and print what it shows");
    shell_command->add_option("agent", agent, "name of the agent")->required();
    shell_command->add_option("command", shell_words, "the command and its words")->required();
    add_data(shell_command);

    cp_resource_options resource;
    auto* resource_command = app.add_subcommand("resource", "files that the server keeps for jobs");
    resource_command->require_subcommand(1);
    auto* resource_add = resource_command->add_subcommand("add", "store a file, or a new version of it");
    resource_add->add_option("file", resource.path, "the file")->required();
    resource_add->add_option("--object", resource.object, "storage object that holds it")->required();
    resource_add->add_option("--name", resource.name, "its name there and in the agent's cache (the file's name)");
    resource_add->add_flag("--text", resource.text, "text: agents convert its code and its line ends");
    resource_add->add_option("--client", resource.client, "client number")->capture_default_str();
    add_data(resource_add);
    auto* resource_list = resource_command->add_subcommand("list", "list all of them");
    add_data(resource_list);

    auto* stop_command = app.add_subcommand("stop", "shut an agent down; its jobs go on");
    stop_command->add_option("agent", agent, "name of the agent")->required();
    add_data(stop_command);

    administration_commands administration(app, add_data, agent);

    cp_decode_options decode;
    std::string decode_file;
    auto* decode_command = app.add_subcommand(
        "decode", "show messages, one a line in hex, or frames, as JSON lines: result, warnings, fields");
    bool to_lan = false;
    bool to_host = false;
    auto* lan = decode_command->add_flag("--to-lan", to_lan, "walk them as outgoing messages");
    decode_command->add_flag("--to-host", to_host, "walk them as received messages (the default)")->excludes(lan);
    decode_command->add_option("file", decode_file, "input, standard input unless given");

    auto* catalogue_command =
        app.add_subcommand("catalogue", "print all messages with their fields and positions, as Markdown");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault) == 0 ? 0 : exit_usage;
    }

    server.folder = console.folder;
    console.json = as_json;
    if (server.name.empty() || server.name.front() == '*') {
        fmt::print(stderr, "qxcp: the server's name must not be empty or begin with '*'\n");
        return exit_usage;
    }
    if (*serve_command) {
        return serve(server, as_json);
    }
    if (*run_command) {
        if (run.name.empty()) {
            run.name = run.script_path == "-" ? "stdin" : run.script_path.substr(run.script_path.rfind('/') + 1);
        }
        return here ? run_here(server, console, run) : cp_console_run(console, run);
    }
    if (*agents_command) {
        return cp_console_agents(console);
    }
    if (*jobs_command) {
        return cp_console_jobs(console);
    }
    if (*cancel_command) {
        return cp_console_cancel(console, run_number);
    }
    if (*info_command) {
        return cp_console_info(console, run_number);
    }
    if (*report_command) {
        return cp_console_report(console, run_number, match, tail, report_path);
    }
    if (*exec_command) {
        exec.cancel = exec_cancel->count() != 0;
        if (exec.command.empty() != exec.cancel) {
            fmt::print(stderr, "qxcp: exec needs either a command or --cancel. Type 'qxcp exec --help'.\n");
            return exit_usage;
        }
        return cp_console_exec(console, exec);
    }
    if (*cat_command) {
        return cp_console_cat(console, cat);
    }
    if (*shell_command) {
        return cp_console_shell(console, agent, fmt::format("{}", fmt::join(shell_words, " ")));
    }
    if (*resource_command) {
        return *resource_add ? cp_console_resource_add(console, resource) : cp_console_resource_list(console);
    }
    if (*stop_command) {
        return cp_console_stop(console, agent);
    }
    if (std::optional<int> result = administration.run(console, agent)) {
        return *result;
    }
    if (*catalogue_command) {
        fmt::print("{}", cp_catalogue_page());
        return 0;
    }
    decode.to_lan = to_lan;
    return cp_decode(decode, decode_file);
}
