// `qxcp package` and `qxcp forget-key`.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/descriptor.h"
#include "base/memory.h"
#include "console_line.h"
#include "qxcp/hex.h"

using nlohmann::json;

namespace {

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return fsync(fd) == 0;
}

std::string default_path(const std::string& agent) {
    std::string path = (agent.empty() ? "company" : agent) + ".package";
    std::replace(path.begin(), path.end(), '/', '_');
    return path;
}

}  // namespace

int cp_console_package(const cp_console_options& options, const std::string& agent, bool company_only,
                       const std::string& wanted_path) {
    const std::string path = wanted_path.empty() ? default_path(agent) : wanted_path;
    // The file first: a key that was stored and could not be handed on would shut its agent out.
    const qx_descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.valid()) {
        return console_fail(fmt::format("cannot make '{}': {}", path, std::strerror(errno)));
    }
    int exit_code;
    const std::optional<json> answer = console_ask(
        options, {{"op", "package"}, {"agent", agent}, {"company_only", company_only}}, exit_code);
    if (!answer) {
        unlink(path.c_str());
        return exit_code;
    }
    std::string package = cp_from_hex(answer->value("package_hex", "")).value_or("");
    const bool good = !package.empty() && fchmod(file.get(), 0600) == 0 && write_all(file.get(), package);
    const int number = errno;
    qx_wipe(package.data(), package.size());
    if (!good) {
        unlink(path.c_str());
        return console_fail(
            fmt::format("the package could not be written to '{}': {}{}", path, std::strerror(number),
                        company_only ? "" : "; type 'qxcp forget-key " + agent + "' before the next try"));
    }
    const std::string fingerprint = answer->value("fingerprint", "");
    if (options.json) {
        fmt::print("{}\n", json{{"agent", agent}, {"path", path}, {"fingerprint", fingerprint}}.dump());
        return 0;
    }
    fmt::print("{} is the initial package {}.\n", path,
               company_only ? "with the company key, for any agent"
                            : fmt::format("of agent {}, fingerprint {}", agent, fingerprint));
    fmt::print(
        "Carry it over a safe road to the agent's host, name it there by InitialPackage in section "
        "AUTHORIZATION of "
        "the INI file, start the agent, and remove it.\n");
    if (company_only && answer->value("derived", false)) {
        fmt::print(
            stderr,
            "qxcp: this company key follows from the system's name and keeps nobody out: see 'qxcp serve "
            "--own-company-key'\n");
    }
    return 0;
}

int cp_console_forget_key(const cp_console_options& options, const std::string& agent) {
    int exit_code;
    const std::optional<json> answer =
        console_ask(options, {{"op", "forget_key"}, {"agent", agent}}, exit_code);
    if (answer) {
        fmt::print("{}\n", options.json ? answer->dump() : answer->value("text", ""));
    }
    return exit_code;
}
