// `qxcp resource`: the files that the server keeps for jobs.
#include <fmt/format.h>

#include <filesystem>

#include "console_line.h"

using nlohmann::json;

int cp_console_resource_add(const cp_console_options& options, const cp_resource_options& resource) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(resource.path, error);
    if (error || !std::filesystem::is_regular_file(path, error)) {
        return console_fail(fmt::format("'{}' is no file", resource.path));
    }
    int exit_code;
    const std::optional<json> answer =
        console_ask(options,
                    {{"op", "resource_add"},
                     {"path", path.string()},
                     {"object", resource.object},
                     {"name", resource.name.empty() ? path.filename().string() : resource.name},
                     {"text", resource.text},
                     {"client", resource.client}},
                    exit_code);
    if (answer) {
        fmt::print("{}\n", options.json ? (*answer)["resource"].dump() : answer->value("text", ""));
    }
    return exit_code;
}

int cp_console_resource_list(const cp_console_options& options) {
    int exit_code;
    const std::optional<json> answer = console_ask(options, {{"op", "resource_list"}}, exit_code);
    if (answer && options.json) {
        console_lines((*answer)["resources"]);
    } else if (answer) {
        console_table((*answer)["resources"], {{"client", "CLIENT"},
                                               {"object", "OBJECT"},
                                               {"name", "NAME"},
                                               {"type", "TYPE"},
                                               {"size", "SIZE"},
                                               {"modified", "MODIFIED (UTC)"}});
    }
    return exit_code;
}
