// The commands about transfers of files between agents.
#include <memory>

#include "common.h"
#include "qxcp/console/console_transfer.h"

namespace {

void add_places(CLI::App* command, cp_transfer_options& transfer) {
    command->add_option(
        "source", transfer.source,
        "AGENT:PATH of a file, of files by * and ?, or of all in a folder that ends with '/'");
    command->add_option("destination", transfer.destination,
                        "AGENT:PATH; a folder that ends with '/' takes the names of the source");
}

void add_users(CLI::App* command, cp_transfer_options& transfer) {
    command->add_option("--user", transfer.source_user, "user on both hosts, '' for the agents' own")
        ->default_val(own_user());
    command->add_option("--destination-user", transfer.destination_user, "user on the destination's host");
    command->add_option("--password-file", transfer.source_password_file,
                        "file whose first line is that user's password");
    command->add_option("--destination-password-file", transfer.destination_password_file,
                        "the same for the destination's user");
}

void add_text(CLI::App* command, cp_transfer_options& transfer) {
    command->add_flag("--text", transfer.text, "lines of text, not bytes");
    command->add_option("--coding", transfer.coding, "coding of text")
        ->check(CLI::IsMember({"utf8", "ucs2be", "ucs2le", "table"}))
        ->capture_default_str();
    command
        ->add_option("--record-length", transfer.record_length, "text has records of so many bytes, no lines")
        ->check(whole_number(1, 65536));
    command->add_option("--line-end", transfer.line_end, "what ends a line of text at the destination")
        ->check(CLI::IsMember({"lf", "crlf", "none"}));
    command->add_flag("--strip-cr", transfer.strip_cr, "lines of the source's text end with CR LF");
}

void add_files(CLI::App* command, cp_transfer_options& transfer) {
    command->add_flag("--wildcard{1},--no-wildcard{0}", transfer.wildcard,
                      "the source is a mask, or is none; else * and ? in it tell");
    command->add_flag("--subfolders", transfer.subfolders, "those below the source, too, also empty ones");
    command->add_option("--overwrite", transfer.overwrite, "what happens to a file that is there")
        ->check(CLI::IsMember({"no", "yes", "append"}))
        ->capture_default_str();
    command->add_flag("--erase", transfer.erase, "remove each source that has arrived");
    command->add_flag("--abort-on-error", transfer.abort_on_error, "end with the first file that fails");
}

void add_way(CLI::App* command, cp_transfer_options& transfer) {
    command->add_option("--compress", transfer.compress, "compress what travels")
        ->check(CLI::IsMember({"no", "yes", "strong"}))
        ->capture_default_str();
    command->add_flag("--reverse", transfer.reverse, "the destination's agent connects to the source's");
    command->add_flag("--legacy", transfer.legacy, "the older protocol: one file, without a worker");
    command->add_option("--client", transfer.client, "client number")
        ->check(whole_number(0, 9999))
        ->capture_default_str();
    command
        ->add_option("--source-attributes", transfer.source_attributes,
                     "'key=value,…' for the source's agent")
        ->group("");
    command
        ->add_option("--destination-attributes", transfer.destination_attributes,
                     "'key=value,…' for the destination's agent")
        ->group("");
}

int run_transfer(const cp_console_options& console, cp_transfer_options& transfer) {
    const bool by_number = transfer.restart != 0 && transfer.source.empty();
    if (!by_number && (transfer.source.empty() || transfer.destination.empty())) {
        std::fprintf(stderr,
                     "qxcp: transfer needs a source and a destination, or --restart with a run. Type "
                     "'qxcp transfer --help'.\n");
        return exit_usage;
    }
    return cp_console_transfer(console, transfer);
}

command_action add_transfer(CLI::App* command, cp_console_options& console) {
    auto transfer = std::make_shared<cp_transfer_options>();
    add_places(command, *transfer);
    add_users(command, *transfer);
    add_files(command, *transfer);
    add_text(command, *transfer);
    add_way(command, *transfer);
    const CLI::Option* restart =
        command
            ->add_option("--restart", transfer->restart,
                         "go on where the transfer with this run, or the last one between these places, "
                         "ended")
            ->expected(0, 1)
            ->check(whole_number(1));
    command->add_flag("--quiet", transfer->quiet, "leave the report away");
    command->footer("Exit code: 0 all is over, 3 ended with errors, 4 cancelled, 5 refused or lost.");
    add_common_options(command, console);
    const CLI::Option* user = command->get_option("--destination-user");
    const CLI::Option* wildcard = command->get_option("--wildcard");
    return [=, &console] {
        transfer->restarts = restart->count() != 0;
        transfer->wildcard = wildcard->count() == 0 ? -1 : transfer->wildcard;
        if (user->count() == 0) {
            transfer->destination_user = transfer->source_user;
            transfer->destination_password_file = transfer->destination_password_file.empty()
                                                      ? transfer->source_password_file
                                                      : transfer->destination_password_file;
        }
        return run_transfer(console, *transfer);
    };
}

struct listed_transfers {
    std::string agent;
    int last = 0;
};

command_action add_transfers(CLI::App* command, cp_console_options& console) {
    auto listed = std::make_shared<listed_transfers>();
    command->add_option("--agent", listed->agent, "only those from or to this agent");
    command->add_option("--last", listed->last, "only the newest, so many of them")->check(whole_number(1));
    add_common_options(command, console);
    return [=, &console] { return cp_console_transfers(console, listed->agent, listed->last); };
}

void add_run_number(CLI::App* command, int& run) {
    command->add_option("run", run, "run number of the transfer")->required()->check(whole_number(1));
}

struct wanted_report {
    int run = 0;
    bool watch = false;
};

command_action add_report(CLI::App* command, cp_console_options& console) {
    auto report = std::make_shared<wanted_report>();
    add_run_number(command, report->run);
    command->add_flag("--watch", report->watch, "follow it to its end, as 'qxcp transfer' does");
    add_common_options(command, console);
    return [=, &console] { return cp_console_transfer_report(console, report->run, report->watch); };
}

command_action add_cancel(CLI::App* command, cp_console_options& console) {
    auto run = std::make_shared<int>();
    add_run_number(command, *run);
    add_common_options(command, console);
    return [=, &console] { return cp_console_transfer_cancel(console, *run); };
}

command_action add_dir(CLI::App* command, cp_console_options& console) {
    auto dir = std::make_shared<cp_dir_options>();
    command->add_option("agent", dir->agent, "name of the agent")->required();
    command->add_option("mask", dir->mask, "full path with * and ?")->required();
    command->add_option("--user", dir->user, "with whose rights")->default_val(own_user());
    command->add_option("--password-file", dir->password_file,
                        "file whose first line is that user's password");
    command->add_flag("--folders", dir->folders, "below its folder, too");
    add_common_options(command, console);
    return [=, &console] { return cp_console_dir(console, *dir); };
}

constexpr command_row rows[] = {
    {"transfer", "copy files from one agent's host to another's", add_transfer},
    {"transfers", "list transfers, the newest last", add_transfers},
    {"transfer-report", "all that is known of a transfer, and its report", add_report},
    {"transfer-cancel", "cancel a transfer", add_cancel},
    {"dir", "list files of an agent's host", add_dir},
};

}  // namespace

std::span<const command_row> transfer_commands() {
    return rows;
}
