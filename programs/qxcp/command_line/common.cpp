#include "common.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <utility>
#include <vector>

command_action add_commands(CLI::App* app, std::span<const command_row> rows, cp_console_options& console) {
    std::vector<std::pair<CLI::App*, command_action>> commands;
    for (const command_row& row : rows) {
        CLI::App* command = app->add_subcommand(row.name, row.help);
        commands.emplace_back(command, row.add(command, console));
    }
    return [commands] {
        const auto given = [](const auto& command) { return command.first->parsed(); };
        return std::find_if(commands.begin(), commands.end(), given)->second();
    };
}

void add_common_options(CLI::App* command, cp_console_options& console) {
    command->add_option("--data", console.folder, "the server's data folder (or set QXCP_DATA)")
        ->capture_default_str();
    command->add_flag("--json", console.json, "print JSON, one object a line, for programs");
}

CLI::Validator whole_number(int64_t low, int64_t high) {
    const std::string range =
        high == INT_MAX ? fmt::format("from {}", low) : fmt::format("{} to {}", low, high);
    return CLI::Validator(
        [=](const std::string& text) -> std::string {
            int64_t number = 0;
            const auto end = text.data() + text.size();
            const auto result = std::from_chars(text.data(), end, number);
            const bool good =
                result.ec == std::errc{} && result.ptr == end && number >= low && number <= high;
            return good ? ""
                        : fmt::format("'{}' is no whole number from {} to {}", text.substr(0, 40), low, high);
        },
        range);
}

std::string own_user() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : "";
}

std::string default_folder() {
    if (const char* folder = std::getenv("QXCP_DATA"); folder != nullptr && *folder != '\0') {
        return folder;
    }
    const char* home = std::getenv("HOME");
    return fmt::format("{}/.qxcp", home != nullptr && *home != '\0' ? home : "/tmp");
}
