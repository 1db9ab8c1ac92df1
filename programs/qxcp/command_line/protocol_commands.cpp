// The commands that need no server.
#include <fmt/format.h>

#include <memory>

#include "common.h"
#include "qxcp/catalogue_page.h"
#include "qxcp/decode.h"

namespace {

struct decode_options {
    cp_decode_options how;
    bool to_host = false;
    std::string file;
};

command_action add_decode(CLI::App* command, cp_console_options&) {
    auto decode = std::make_shared<decode_options>();
    auto* lan = command->add_flag("--to-lan", decode->how.to_lan, "walk them as outgoing messages");
    command->add_flag("--to-host", decode->to_host, "walk them as received messages (the default)")
        ->excludes(lan);
    command->add_option("file", decode->file, "input, standard input unless given");
    return [=] { return cp_decode(decode->how, decode->file); };
}

command_action add_catalogue(CLI::App*, cp_console_options&) {
    return [] {
        fmt::print("{}", cp_catalogue_page());
        return 0;
    };
}

constexpr command_row rows[] = {
    {"decode", "show messages, one a line in hex, or frames, as JSON lines: result, warnings, fields",
     add_decode},
    {"catalogue", "print all messages with their fields and positions, as Markdown", add_catalogue},
};

}  // namespace

std::span<const command_row> protocol_commands() {
    return rows;
}
