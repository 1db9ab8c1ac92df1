// The command line of the development server and its console.
#include <fmt/format.h>

#include <vector>

#include "base/context.h"
#include "command_line/common.h"

namespace {

std::vector<command_row> all_commands() {
    std::vector<command_row> rows;
    for (const auto& group : {server_commands(), job_commands(), transfer_commands(), agent_commands(),
                              host_commands(), protocol_commands()}) {
        rows.insert(rows.end(), group.begin(), group.end());
    }
    return rows;
}

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
    const command_action run = add_commands(&app, all_commands(), console);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault) == 0 ? 0 : exit_usage;
    }
    return run();
}
