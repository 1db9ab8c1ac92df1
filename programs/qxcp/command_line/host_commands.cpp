// The commands that use an agent's host, and those about the files for jobs.
#include <fmt/format.h>

#include <memory>
#include <vector>

#include "common.h"

namespace {

void add_user(CLI::App* command, std::string& user, const char* text) {
    command->add_option("--user", user, text)->default_val(own_user());
}

void add_password_file(CLI::App* command, std::string& path) {
    command->add_option("--password-file", path, "file whose first line is that user's password");
}

void add_client(CLI::App* command, int& client) {
    command->add_option("--client", client, "client number")
        ->check(whole_number(0, 9999))
        ->capture_default_str();
}

int run_exec(const cp_console_options& console, const cp_exec_options& exec) {
    if (exec.command.empty() != exec.cancel) {
        fmt::print(stderr, "qxcp: exec needs either a command or --cancel. Type 'qxcp exec --help'.\n");
        return exit_usage;
    }
    return cp_console_exec(console, exec);
}

command_action add_exec(CLI::App* command, cp_console_options& console) {
    auto exec = std::make_shared<cp_exec_options>();
    command->add_option("agent", exec->agent, "name of the agent")->required();
    command->add_option("command", exec->command, "the command, for the user's login shell");
    add_user(command, exec->user, "user on the agent's host, '' for the agent's own");
    add_password_file(command, exec->password_file);
    command->add_option("--rows", exec->rows, "lines of output at most")
        ->check(whole_number(1))
        ->capture_default_str();
    command
        ->add_option("--time-limit", exec->seconds,
                     "seconds, then the command is cancelled; 0: the server's limit")
        ->check(whole_number(0))
        ->capture_default_str();
    add_client(command, exec->client);
    const CLI::Option* cancel =
        command->add_option("--cancel", exec->number, "cancel this command, 0: all of the agent's")
            ->check(whole_number(0));
    add_common_options(command, console);
    return [=, &console] {
        exec->cancel = cancel->count() != 0;
        return run_exec(console, *exec);
    };
}

command_action add_cat(CLI::App* command, cp_console_options& console) {
    auto cat = std::make_shared<cp_cat_options>();
    command->add_option("agent", cat->agent, "name of the agent")->required();
    command->add_option("file", cat->file, "full path of the file")->required();
    auto* tail = command->add_option("--tail", cat->tail, "only the last lines, so many of them")
                     ->check(whole_number(0));
    auto* head = command->add_option("--head", cat->head, "only the first lines, so many of them")
                     ->check(whole_number(0))
                     ->excludes(tail);
    command->add_option("--bytes", cat->bytes, "only the first bytes, so many of them")
        ->check(whole_number(1, INT64_MAX))
        ->excludes(tail)
        ->excludes(head);
    command
        ->add_option(
            "--encoding", cat->encoding,
            "print as UTF-8 what is in this encoding; auto: what the file's mark says; raw: as it is")
        ->check(CLI::IsMember({"raw", "auto", "utf8", "ucs2le", "ucs2be"}))
        ->capture_default_str();
    command->add_option("--time-limit", cat->seconds, "seconds that the agent may send nothing")
        ->check(whole_number(1, 86400))
        ->capture_default_str();
    add_user(command, cat->user, "user on the agent's host");
    add_password_file(command, cat->password_file);
    add_common_options(command, console);
    return [=, &console] { return cp_console_cat(console, *cat); };
}

struct shell_options {
    std::string agent;
    std::vector<std::string> words;
};

command_action add_shell(CLI::App* command, cp_console_options& console) {
    auto shell = std::make_shared<shell_options>();
    command->add_option("agent", shell->agent, "name of the agent")->required();
    command->add_option("command", shell->words, "the command and its words")->required();
    add_common_options(command, console);
    return [=, &console] {
        return cp_console_shell(console, shell->agent, fmt::format("{}", fmt::join(shell->words, " ")));
    };
}

command_action add_resource_add(CLI::App* command, cp_console_options& console) {
    auto resource = std::make_shared<cp_resource_options>();
    command->add_option("file", resource->path, "the file")->required();
    command->add_option("--object", resource->object, "storage object that holds it")->required();
    command->add_option("--name", resource->name,
                        "its name there and in the agent's cache (the file's name)");
    command->add_flag("--text", resource->text, "text: agents convert its code and its line ends");
    add_client(command, resource->client);
    add_common_options(command, console);
    return [=, &console] { return cp_console_resource_add(console, *resource); };
}

command_action add_resource_list(CLI::App* command, cp_console_options& console) {
    add_common_options(command, console);
    return [&console] { return cp_console_resource_list(console); };
}

constexpr command_row resource_rows[] = {
    {"add", "store a file, or a new version of it", add_resource_add},
    {"list", "list all of them", add_resource_list},
};

command_action add_resource(CLI::App* command, cp_console_options& console) {
    command->require_subcommand(1);
    return add_commands(command, resource_rows, console);
}

constexpr command_row rows[] = {
    {"exec",
     "run a command on an agent's host and print its output; the exit code is the command's "
     "(124: no answer in time, 125: it never ran, was stopped, or its answer was lost)",
     add_exec},
    {"cat", "print a file of an agent's host, with the rights of a user there", add_cat},
    {"shell", "run a command of the agent's own console, such as GET_COMMANDS, and print what it shows",
     add_shell},
    {"resource", "files that the server keeps for jobs", add_resource},
};

}  // namespace

std::span<const command_row> host_commands() {
    return rows;
}
