// Keys in the operator's hands: initial packages, an own company key, a key that is given up.
#include <fmt/format.h>
#include <unistd.h>

#include <cstring>

#include "base/memory.h"
#include "qxcp/control/control.h"
#include "qxcp/hex.h"
#include "qxcp/message_text.h"
#include "security/key_store.h"

using nlohmann::json;

namespace {

constexpr size_t longest_name = 32;
constexpr char company_key_name[] = "CompanyKey";

// What the visit card of an agent can hold.
bool is_agent_name(const std::string& name) {
    bool good = !name.empty() && name.size() <= longest_name && name.front() != '*';
    for (char c : name) {
        good = good && c > 32 && c < 127;
    }
    return good;
}

int find_key(const cp_server& server, const std::string& name) {
    qx_secret<gss_key_size> key;
    return get_transfer_key(server.keys, name, key.data());
}

std::string key_fault(const std::string& agent, int number) {
    return fmt::format("the key of agent {} cannot be kept: {}", agent, cp_message_text(number, ""));
}

// An empty text, or what is wrong.
std::string make_transfer_key(cp_server& server, const std::string& agent, initial_package* content) {
    if (!is_agent_name(agent)) {
        return fmt::format("'{}' is no name of an agent: 1 to {} characters without blanks, no '*' in front",
                           agent, longest_name);
    }
    int number = find_key(server, agent);
    if (number == KM_OK) {
        return fmt::format(
            "a key of agent {} is held: with a new one the agent that has it would be refused; type "
            "'qxcp forget-key {}' first if that is wanted",
            agent, agent);
    }
    if (number == KM_NAME_UNKNOWN) {
        number = generateKey(content->transfer_key.data());
    }
    if (number == KM_OK) {
        number = set_transfer_key(&server.keys, agent, content->transfer_key.data());
    }
    return number == KM_OK ? "" : key_fault(agent, number);
}

}  // namespace

std::string cp_make_package(cp_server* server, const std::string& agent, bool company_only,
                            std::string& error) {
    initial_package content;
    content.flags = company_only ? initial_package_company_only : 0;
    content.name = agent;
    const int number = getCompKey(server->keys, content.company_key.data());
    error = number == KM_OK ? "" : fmt::format("there is no company key: {}", cp_message_text(number, ""));
    if (error.empty() && !company_only) {
        error = make_transfer_key(*server, agent, &content);
    }
    if (!error.empty()) {
        return {};
    }
    cp_emit(*server, "package", agent, 0,
            company_only ? "an initial package with the company key alone was made"
                         : fmt::format("an initial package for agent {} was made, fingerprint {}", agent,
                                       key_fingerprint(content.transfer_key.data())));
    return build_initial_package(content, "");
}

std::string cp_forget_key(cp_server* server, const std::string& agent) {
    if (find_key(*server, agent) == KM_NAME_UNKNOWN) {
        return fmt::format("no key of agent '{}' is held", agent);
    }
    // A key that cannot be read is given up as well.
    if (int number = delEncKey(&server->keys, agent, 0, KEY_TYPE_PARTNER); number != KM_OK) {
        return key_fault(agent, number);
    }
    cp_emit(*server, "key", agent, 0,
            fmt::format("the key of agent {} was given up: its next first contact is taken", agent));
    return {};
}

std::string cp_make_company_key(cp_server& server) {
    qx_secret<gss_key_size> key;
    size_t length = key.size();
    int type = 0;
    int number = getEncKey(server.keys, company_key_name, 0, KEY_TYPE_COMPANY, key.data(), &length, &type);
    if (number == KM_OK) {
        return {};
    }
    if (number == KM_NAME_UNKNOWN && access(server.keys.file.c_str(), F_OK) == 0) {
        return fmt::format(
            "'{}' holds keys under the company key of the system's name: an own one needs a new data folder",
            server.keys.file);
    }
    if (number == KM_NAME_UNKNOWN) {
        number = generateKey(key.data());
    }
    if (number == KM_OK) {
        number = KCinit(&server.keys, key.span());
    }
    if (number == KM_OK) {
        number = setEncKey(&server.keys, company_key_name, 0, key.data(), key.size(), KEY_TYPE_COMPANY);
    }
    return number == KM_OK ? ""
                           : fmt::format("no company key could be made: {}", cp_message_text(number, ""));
}

// ---- the console's requests

void control_package(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    const bool company_only = request.value("company_only", false);
    std::string error;
    std::string package = cp_make_package(&server, agent, company_only, error);
    if (package.empty()) {
        control_refuse(client, error);
        return;
    }
    qx_secret<gss_key_size> derived;
    qx_secret<gss_key_size> used;
    default_company_key(server.keys.systemName, derived.data());
    getCompKey(server.keys, used.data());
    std::string bytes = cp_to_hex(package);
    control_finish(client, {{"ok", true},
                            {"package_hex", bytes},
                            {"derived", std::memcmp(derived.data(), used.data(), used.size()) == 0},
                            {"fingerprint", company_only ? "" : key_fingerprint(server.keys, agent)}});
    qx_wipe(package.data(), package.size());
    qx_wipe(bytes.data(), bytes.size());
}

void control_forget_key(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    if (std::string fault = cp_forget_key(&server, agent); !fault.empty()) {
        control_refuse(client, fault);
        return;
    }
    control_finish(
        client, {{"ok", true},
                 {"text", fmt::format("the key of agent {} is given up: the next card of that name with no "
                                      "key gets a new one",
                                      agent)}});
}
