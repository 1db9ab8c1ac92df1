// The command line of the development server and its console.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/context.h"
#include "catalogue_page.h"
#include "command_line/agent_commands.h"
#include "command_line/host_commands.h"
#include "command_line/job_commands.h"
#include "decode.h"
#include "server.h"

namespace {

volatile std::sig_atomic_t stop_wanted = 0;

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
        // The Z tells that the time is UTC.
        const std::string time = event.time.empty() ? "" : event.time.substr(event.time.find(' ') + 1) + "Z";
        fmt::print("{:<9} {:<10} {}\n", time, event.kind, event.text);
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
    print_event({cp_time_text(), "serve", "", 0,
                 fmt::format("server {} of system {} listens on {}:{}, data in {}; times are UTC", options.name,
                             options.system, options.address, cp_server_port(server.get()), options.folder)},
                as_json);
    catch_stop_signals();
    while (stop_wanted == 0) {
        cp_server_step(server.get(), 1000);
    }
    print_event({cp_time_text(), "serve", "", 0, "server stopped; agents and their jobs go on"}, as_json);
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

std::vector<CLI::Option*> add_server_options(CLI::App* command, cp_options& server) {
    std::vector<CLI::Option*> options;
    auto add = [&](const char* name, auto& value, const char* text) {
        options.push_back(command->add_option(name, value, text)->capture_default_str());
        return options.back();
    };
    add("--system", server.system, "system name that agents must name");
    add("--port", server.port, "TCP port for agents, 0: any free one")->check(whole_number(0, 65535))->default_val(2217);
    add("--address", server.address, "IPv4 address to listen on");
    add("--server-name", server.name, "name of this server process");
    add("--ranking", server.ranking, "1: agents take this server at once; 9999: it refuses them")
        ->check(whole_number(1, 9999));
    add("--cp-list", server.cp_list, "other servers, as 'host:port;host:port;'");
    add("--job-check", server.job_check, "seconds between two status reports of a job")->check(whole_number(1));
    add("--keep-alive", server.keep_alive, "seconds of silence before an agent asks")->check(whole_number(1));
    add("--reconnect", server.reconnect, "seconds between two connection attempts of an agent")->check(whole_number(1));
    add("--log-interval", server.report_interval, "seconds between two looks for new log lines")->check(whole_number(1));
    add("--log-size", server.log_megabytes, "megabytes after which agents begin a new log, 0: never")
        ->check(whole_number(0));
    add("--block-size", server.block_size, "bytes of a report block")->check(whole_number(128, 32767));
    add("--command-limit", server.command_limit, "seconds that agents give a command of 'exec'")->check(whole_number(1));
    options.push_back(
        command->add_flag("--check-passwords", server.check_passwords, "agents shall check the passwords of jobs"));
    options.push_back(command->add_flag("--own-company-key", server.own_company_key,
                                        "make a company key if the data folder is new; agents get it by 'qxcp package'"));
    return options;
}

// The commands that hold a server: serve, and run, which may.
struct server_commands {
    server_commands(CLI::App& app, cp_console_options& console) {
        serve_ = app.add_subcommand("serve", "run the server: agents log on, events are printed");
        add_server_options(serve_, server_);
        add_common_options(serve_, console);
        run_ = app.add_subcommand("run",
                                  "run a script as a job, show its states and its report; the exit code is the job's "
                                  "(125: it never ran, 128 and the signal's number: it was cancelled)");
        add_run(console);
    }

    std::optional<int> run(const cp_console_options& console) {
        server_.folder = console.folder;
        if (server_.name.empty() || server_.name.front() == '*') {
            fmt::print(stderr, "qxcp: the server's name must not be empty or begin with '*'\n");
            return exit_usage;
        }
        if (*serve_) {
            return serve(server_, console.json);
        }
        if (!*run_) {
            return std::nullopt;
        }
        if (const std::string option = misplaced_option(); !option.empty()) {
            fmt::print(stderr, "qxcp: {} is an option of the server that --here starts. Type 'qxcp run --help'.\n", option);
            return exit_usage;
        }
        if (job_.name.empty()) {
            job_.name = job_.script_path == "-" ? "stdin" : job_.script_path.substr(job_.script_path.rfind('/') + 1);
        }
        return here_ ? run_here(server_, console, job_) : cp_console_run(console, job_);
    }

  private:
    void add_run(cp_console_options& console) {
        run_->add_option("script", job_.script_path, "the script, '-' for standard input")->required();
        run_->add_option("--agent", job_.agent, "agent that runs it; needed when several are logged on");
        run_->add_option("--user", job_.user, "user on the agent's host")->default_val(own_user());
        run_->add_option("--password-file", job_.password_file, "file whose first line is that user's password");
        run_->add_option("--shell", job_.shell, "shell, if neither the script's first line nor the user's own");
        run_->add_option("--name", job_.name, "name of the job (the script's file name)");
        run_->add_option("--client", job_.client, "client number")->check(whole_number(0, 9999))->capture_default_str();
        run_->add_option("--report", job_.report_path, "write the report to this file");
        run_->add_option("--client-resource", job_.client_resources,
                         "OBJECT/NAME, a stored file that all jobs of the client share; in $QX_CLIENT_CACHE/NAME");
        run_->add_option("--task-resource", job_.task_resources,
                         "OBJECT/NAME, a stored file for this job alone; in $QX_TASK_CACHE/NAME");
        run_->add_flag("--plain", job_.plain, "without the messenger's calls around the script");
        run_->add_flag("--here", here_, "start a server for this job alone and wait for an agent");
        add_common_options(run_, console);
        for (CLI::Option* option : add_server_options(run_, server_)) {
            here_options_.push_back(option->group("Options of the server, with --here only"));
        }
    }

    // The name of a server's option that stands without --here; empty when none does.
    std::string misplaced_option() const {
        const auto given = [](const CLI::Option* option) { return option->count() != 0; };
        const auto found = std::find_if(here_options_.begin(), here_options_.end(), given);
        return here_ || found == here_options_.end() ? "" : (*found)->get_name();
    }

    CLI::App* serve_;
    CLI::App* run_;
    cp_options server_;
    cp_run_options job_;
    bool here_ = false;
    std::vector<CLI::Option*> here_options_;
};

// The commands that need no server: decode, catalogue.
struct protocol_commands {
    explicit protocol_commands(CLI::App& app) {
        decode_ = app.add_subcommand(
            "decode", "show messages, one a line in hex, or frames, as JSON lines: result, warnings, fields");
        auto* lan = decode_->add_flag("--to-lan", options_.to_lan, "walk them as outgoing messages");
        decode_->add_flag("--to-host", to_host_, "walk them as received messages (the default)")->excludes(lan);
        decode_->add_option("file", file_, "input, standard input unless given");
        app.add_subcommand("catalogue", "print all messages with their fields and positions, as Markdown");
    }

    int run() const {
        if (*decode_) {
            return cp_decode(options_, file_);
        }
        fmt::print("{}", cp_catalogue_page());
        return 0;
    }

  private:
    CLI::App* decode_;
    cp_decode_options options_;
    bool to_host_ = false;
    std::string file_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Development server for QX7 agents: runs one, and talks to a running one.", "qxcp"};
    app.require_subcommand(1);
    app.set_version_flag("--version", fmt::format("qxcp {}", qx_version));
    app.failure_message([](const CLI::App*, const CLI::Error& fault) {
        return fmt::format("qxcp: {}. Type 'qxcp --help' or 'qxcp COMMAND --help'.\n", fault.what());
    });
    cp_console_options console;
    console.folder = default_folder();
    server_commands servers(app, console);
    job_commands jobs(app, console);
    agent_commands agents(app, console);
    host_commands hosts(app, console);
    const protocol_commands protocol(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault) == 0 ? 0 : exit_usage;
    }
    std::optional<int> code = servers.run(console);
    code = code ? code : jobs.run(console);
    code = code ? code : agents.run(console);
    code = code ? code : hosts.run(console);
    return code ? *code : protocol.run();
}
