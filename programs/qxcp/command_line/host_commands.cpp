#include "host_commands.h"

#include <fmt/format.h>

host_commands::host_commands(CLI::App& app, cp_console_options& console) {
    add_exec(app);
    add_cat(app);
    shell_ = app.add_subcommand(
        "shell", "run a command of the agent's own console, such as GET_COMMANDS, and print what it shows");
    shell_->add_option("agent", shell_agent_, "name of the agent")->required();
    shell_->add_option("command", shell_words_, "the command and its words")->required();
    add_resource(app, console);
    for (CLI::App* command : {exec_, cat_, shell_}) {
        add_common_options(command, console);
    }
}

void host_commands::add_exec(CLI::App& app) {
    exec_ = app.add_subcommand(
        "exec",
        "run a command on an agent's host and print its output; the exit code is the command's "
        "(124: no answer in time, 125: it never ran, was stopped, or its answer was lost)");
    exec_->add_option("agent", exec_options_.agent, "name of the agent")->required();
    exec_->add_option("command", exec_options_.command, "the command, for the user's login shell");
    exec_->add_option("--user", exec_options_.user, "user on the agent's host, '' for the agent's own")
        ->default_val(own_user());
    exec_->add_option("--password-file", exec_options_.password_file,
                      "file whose first line is that user's password");
    exec_->add_option("--rows", exec_options_.rows, "lines of output at most")
        ->check(whole_number(1))
        ->capture_default_str();
    exec_
        ->add_option("--time-limit", exec_options_.seconds,
                     "seconds, then the command is cancelled; 0: the server's limit")
        ->check(whole_number(0))
        ->capture_default_str();
    exec_->add_option("--client", exec_options_.client, "client number")
        ->check(whole_number(0, 9999))
        ->capture_default_str();
    exec_cancel_ =
        exec_->add_option("--cancel", exec_options_.number, "cancel this command, 0: all of the agent's")
            ->check(whole_number(0));
}

void host_commands::add_cat(CLI::App& app) {
    cat_ = app.add_subcommand("cat", "print a file of an agent's host, with the rights of a user there");
    cat_->add_option("agent", cat_options_.agent, "name of the agent")->required();
    cat_->add_option("file", cat_options_.file, "full path of the file")->required();
    auto* tail = cat_->add_option("--tail", cat_options_.tail, "only the last lines, so many of them")
                     ->check(whole_number(0));
    auto* head = cat_->add_option("--head", cat_options_.head, "only the first lines, so many of them")
                     ->check(whole_number(0))
                     ->excludes(tail);
    cat_->add_option("--bytes", cat_options_.bytes, "only the first bytes, so many of them")
        ->check(whole_number(1, INT64_MAX))
        ->excludes(tail)
        ->excludes(head);
    cat_->add_option(
            "--encoding", cat_options_.encoding,
            "print as UTF-8 what is in this encoding; auto: what the file's mark says; raw: as it is")
        ->check(CLI::IsMember({"raw", "auto", "utf8", "ucs2le", "ucs2be"}))
        ->capture_default_str();
    cat_->add_option("--time-limit", cat_options_.seconds, "seconds that the agent may send nothing")
        ->check(whole_number(1, 86400))
        ->capture_default_str();
    cat_->add_option("--user", cat_options_.user, "user on the agent's host")->default_val(own_user());
    cat_->add_option("--password-file", cat_options_.password_file,
                     "file whose first line is that user's password");
}

void host_commands::add_resource(CLI::App& app, cp_console_options& console) {
    resource_ = app.add_subcommand("resource", "files that the server keeps for jobs");
    resource_->require_subcommand(1);
    resource_add_ = resource_->add_subcommand("add", "store a file, or a new version of it");
    resource_add_->add_option("file", resource_options_.path, "the file")->required();
    resource_add_->add_option("--object", resource_options_.object, "storage object that holds it")
        ->required();
    resource_add_->add_option("--name", resource_options_.name,
                              "its name there and in the agent's cache (the file's name)");
    resource_add_->add_flag("--text", resource_options_.text,
                            "text: agents convert its code and its line ends");
    resource_add_->add_option("--client", resource_options_.client, "client number")
        ->check(whole_number(0, 9999))
        ->capture_default_str();
    add_common_options(resource_add_, console);
    add_common_options(resource_->add_subcommand("list", "list all of them"), console);
}

std::optional<int> host_commands::run(const cp_console_options& console) {
    if (*exec_) {
        exec_options_.cancel = exec_cancel_->count() != 0;
        if (exec_options_.command.empty() != exec_options_.cancel) {
            fmt::print(stderr, "qxcp: exec needs either a command or --cancel. Type 'qxcp exec --help'.\n");
            return exit_usage;
        }
        return cp_console_exec(console, exec_options_);
    }
    if (*cat_) {
        return cp_console_cat(console, cat_options_);
    }
    if (*shell_) {
        return cp_console_shell(console, shell_agent_, fmt::format("{}", fmt::join(shell_words_, " ")));
    }
    if (*resource_) {
        return *resource_add_ ? cp_console_resource_add(console, resource_options_)
                              : cp_console_resource_list(console);
    }
    return std::nullopt;
}
