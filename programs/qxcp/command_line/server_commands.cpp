// The commands that hold a server: serve, and run, which may.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "common.h"
#include "qxcp/agents/server.h"

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
    print_event(
        {cp_time_text(), "serve", "", 0,
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
    add("--port", server.port, "TCP port for agents, 0: any free one")
        ->check(whole_number(0, 65535))
        ->default_val(2217);
    add("--address", server.address, "IPv4 address to listen on");
    add("--server-name", server.name, "name of this server process");
    add("--ranking", server.ranking, "1: agents take this server at once; 9999: it refuses them")
        ->check(whole_number(1, 9999));
    add("--cp-list", server.cp_list, "other servers, as 'host:port;host:port;'");
    add("--job-check", server.job_check, "seconds between two status reports of a job")
        ->check(whole_number(1));
    add("--keep-alive", server.keep_alive, "seconds of silence before an agent asks")->check(whole_number(1));
    add("--reconnect", server.reconnect, "seconds between two connection attempts of an agent")
        ->check(whole_number(1));
    add("--log-interval", server.report_interval, "seconds between two looks for new log lines")
        ->check(whole_number(1));
    add("--log-size", server.log_megabytes, "megabytes after which agents begin a new log, 0: never")
        ->check(whole_number(0));
    add("--block-size", server.block_size, "bytes of a report block")->check(whole_number(128, 32767));
    add("--command-limit", server.command_limit, "seconds that agents give a command of 'exec'")
        ->check(whole_number(1));
    options.push_back(command->add_flag("--check-passwords", server.check_passwords,
                                        "agents shall check the passwords of jobs"));
    options.push_back(
        command->add_flag("--own-company-key", server.own_company_key,
                          "make a company key if the data folder is new; agents get it by 'qxcp package'"));
    return options;
}

bool server_name_good(const cp_options& server) {
    if (server.name.empty() || server.name.front() == '*') {
        fmt::print(stderr, "qxcp: the server's name must not be empty or begin with '*'\n");
        return false;
    }
    return true;
}

command_action add_serve(CLI::App* command, cp_console_options& console) {
    auto server = std::make_shared<cp_options>();
    add_server_options(command, *server);
    add_common_options(command, console);
    return [=, &console] {
        server->folder = console.folder;
        return server_name_good(*server) ? serve(*server, console.json) : exit_usage;
    };
}

struct run_options {
    cp_options server;
    cp_run_options job;
    bool here = false;
    std::vector<CLI::Option*> here_options;
};

// The name of a server's option that stands without --here; empty when none does.
std::string misplaced_option(const run_options& run) {
    const auto given = [](const CLI::Option* option) { return option->count() != 0; };
    const auto found = std::find_if(run.here_options.begin(), run.here_options.end(), given);
    return run.here || found == run.here_options.end() ? "" : (*found)->get_name();
}

int run_job(const cp_console_options& console, run_options& run) {
    run.server.folder = console.folder;
    if (!server_name_good(run.server)) {
        return exit_usage;
    }
    if (const std::string option = misplaced_option(run); !option.empty()) {
        fmt::print(stderr,
                   "qxcp: {} is an option of the server that --here starts. Type 'qxcp run --help'.\n",
                   option);
        return exit_usage;
    }
    const std::string& path = run.job.script_path;
    if (run.job.name.empty()) {
        run.job.name = path == "-" ? "stdin" : path.substr(path.rfind('/') + 1);
    }
    return run.here ? run_here(run.server, console, run.job) : cp_console_run(console, run.job);
}

void add_job_options(CLI::App* command, cp_run_options& job) {
    command->add_option("script", job.script_path, "the script, '-' for standard input")->required();
    command->add_option("--agent", job.agent, "agent that runs it; needed when several are logged on");
    command->add_option("--user", job.user, "user on the agent's host")->default_val(own_user());
    command->add_option("--password-file", job.password_file,
                        "file whose first line is that user's password");
    command->add_option("--shell", job.shell, "shell, if neither the script's first line nor the user's own");
    command->add_option("--name", job.name, "name of the job (the script's file name)");
    command->add_option("--client", job.client, "client number")
        ->check(whole_number(0, 9999))
        ->capture_default_str();
    command->add_option("--report", job.report_path, "write the report to this file");
    command->add_option(
        "--client-resource", job.client_resources,
        "OBJECT/NAME, a stored file that all jobs of the client share; in $QX_CLIENT_CACHE/NAME");
    command->add_option("--task-resource", job.task_resources,
                        "OBJECT/NAME, a stored file for this job alone; in $QX_TASK_CACHE/NAME");
    command->add_flag("--plain", job.plain, "without the messenger's calls around the script");
}

command_action add_run(CLI::App* command, cp_console_options& console) {
    auto run = std::make_shared<run_options>();
    add_job_options(command, run->job);
    command->add_flag("--here", run->here, "start a server for this job alone and wait for an agent");
    add_common_options(command, console);
    run->here_options = add_server_options(command, run->server);
    for (CLI::Option* option : run->here_options) {
        option->group("Options of the server, with --here only");
    }
    return [=, &console] { return run_job(console, *run); };
}

constexpr command_row rows[] = {
    {"serve", "run the server: agents log on, events are printed", add_serve},
    {"run",
     "run a script as a job, show its states and its report; the exit code is the job's "
     "(125: it never ran, 128 and the signal's number: it was cancelled)",
     add_run},
};

}  // namespace

std::span<const command_row> server_commands() {
    return rows;
}
