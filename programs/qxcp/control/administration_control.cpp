// The console's requests about the agent itself.
#include <fmt/format.h>

#include <fstream>
#include <sstream>

#include "control.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "qxcp/agents/agent_messages.h"

using nlohmann::json;

namespace {

constexpr size_t log_lines_shown = 20;
constexpr std::streamoff log_bytes_shown = 65536;

void refuse_agent(const cp_server& server, cp_control_client& client, const std::string& agent) {
    control_refuse(client, control_no_agent_text(server, agent));
}

// Calls `tell` with the answer while the asker is still there; any other answer than OK is told as it is.
cp_answer_handler answer_to(cp_server& server, const cp_control_client& client, std::string what,
                            std::function<json(const cp_answer&)> tell) {
    return
        [&server, id = client.id, what = std::move(what), tell = std::move(tell)](const cp_answer& answer) {
            cp_control_client* asker = control_find_client(server, id);
            if (asker == nullptr) {
                return;
            }
            if (answer.status != "OK") {
                control_refuse(*asker, fmt::format("{}: {}", what, control_answer_text(answer)));
                return;
            }
            json story = tell(answer);
            story["ok"] = true;
            control_finish(*asker, story);
        };
}

json info_of(const cp_answer& answer) {
    const auto info = view_record<MSG_TYPE_EXINFO>(view_message(answer.data.data(), answer.data.size()));
    return {{"jobs", info.jobcount},
            {"transfers", info.ftcount},
            {"connections", info.connectcount},
            {"cpu_seconds", info.cputime / 100.0},
            {"processors", info.pcount}};
}

json trace_of(const cp_answer& answer) {
    // "SIZE", NUL, memory, NUL, type, NUL, text: the type is a NUL itself as long as nobody set one.
    const size_t places = std::min(answer.data.find('\0'), answer.data.size());
    const std::string rest = answer.data.substr(places).append(5, '\0');
    const std::string type(rest, 3, 1);
    return {{"flags", answer.insert},
            {"max_size", std::atoi(answer.data.c_str())},
            {"memory", rest[1] == '1'},
            {"trigger_type", type[0] == '\0' ? "" : type},
            {"trigger", answer.data.size() > places + 5 ? answer.data.substr(places + 5) : ""}};
}

// False when no line of this agent ever came.
bool read_old_lines(const cp_server& server, const std::string& agent, std::string& out) {
    std::ifstream in(cp_log_path(server, agent), std::ios::binary);
    if (!in) {
        return false;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff start = std::max<std::streamoff>(0, in.tellg() - log_bytes_shown);
    in.seekg(start);
    std::stringstream text;
    text << in.rdbuf();
    out = text.str();
    if (start > 0) {
        out.erase(0, out.find('\n') + 1);  // the rest of a line
    }
    size_t from = out.size();
    for (size_t count = 0; count <= log_lines_shown && from != 0 && from != std::string::npos; ++count) {
        from = out.rfind('\n', from - 1);
    }
    if (from != std::string::npos && from != 0) {
        out.erase(0, from + 1);
    }
    return true;
}

}  // namespace

void control_query(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    if (!cp_query(&server, agent, answer_to(server, client, "the query failed", info_of))) {
        refuse_agent(server, client, agent);
    }
}

void control_trace(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    if (request.contains("flags")) {
        cp_trace_wish wish;
        wish.flags = request.value("flags", "");
        wish.extended = request.value("extended", true);
        wish.max_size = request.value("max_size", 0);
        wish.memory = request.value("memory", false);
        wish.dump = request.value("dump", false);
        wish.force = request.value("force", false);
        wish.trigger = request.value("trigger", "");
        wish.trigger_type = request.value("trigger_type", " ").append(" ")[0];
        if (!cp_trace_set(&server, agent, wish)) {
            refuse_agent(server, client, agent);
            return;
        }
    }
    // No answer comes to an order; what holds now is asked for behind it.
    if (!cp_trace_get(&server, agent, answer_to(server, client, "no trace settings", trace_of))) {
        refuse_agent(server, client, agent);
    }
}

void control_log(cp_server& server, cp_control_client& client, const json& request) {
    const cp_agent* agent = cp_find_agent(&server, request.value("agent", ""));
    const std::string name = agent != nullptr ? agent->link.agent : request.value("agent", "");
    if (request.value("change", false)) {
        const auto told = [](const cp_answer& answer) -> json {
            const auto quittung =
                view_record<MSG_TYPE_CHGLOGQU>(view_message(answer.data.data(), answer.data.size()));
            return {{"old_report", quittung.ah_idnr_old}, {"new_report", quittung.ah_idnr_new}};
        };
        if (!cp_change_log(&server, name, answer_to(server, client, "the log was not changed", told))) {
            refuse_agent(server, client, name);
        }
        return;
    }
    std::string lines;
    if (!read_old_lines(server, name, lines) && agent == nullptr) {
        refuse_agent(server, client, name);
        return;
    }
    if (!request.value("follow", false)) {
        control_finish(client, {{"ok", true}, {"lines", lines}});
        return;
    }
    client.watched_log = name;
    client.silence_limit = 0;
    control_tell(client, {{"lines", lines}});
}

void control_mail(cp_server& server, cp_control_client& client, const json& request) {
    cp_mail mail;
    mail.to = request.value("to", std::vector<std::string>());
    mail.cc = request.value("cc", std::vector<std::string>());
    mail.from = request.value("from", "");
    mail.subject = request.value("subject", "");
    mail.text = request.value("text", "");
    mail.html = request.value("html", false);
    mail.attachments = request.value("attachments", std::vector<std::string>());
    mail.server = request.value("server", "");
    mail.user = request.value("user", "");
    mail.password = request.value("password", "");
    mail.timeout = request.value("timeout", 0);
    mail.first_version = request.value("first_version", false);
    std::string error;
    const auto told = [](const cp_answer&) -> json { return {{"text", "the mail was sent"}}; };
    if (!cp_send_mail(&server, request.value("agent", ""), mail, error,
                      answer_to(server, client, "the mail was not sent", told))) {
        control_refuse(client, error);
    }
}

void control_connect(cp_server& server, cp_control_client& client, const json& request) {
    std::string agent = request.value("agent", "");
    std::string partner = request.value("partner", "");
    std::string address = request.value("address", "");
    int port = request.value("port", 0);
    // Keys go by the name as the agent writes it.
    if (const cp_agent* first = cp_find_agent(&server, agent); first != nullptr && !agent.empty()) {
        agent = first->link.agent;
    }
    if (const cp_agent* known = cp_find_agent(&server, partner); known != nullptr && !partner.empty()) {
        partner = known->link.agent;
        address = address.empty() ? known->listener : address;
        port = port == 0 ? known->listener_port : port;
    }
    if (address.size() >= sizeof MSG_TYPE_CONNECT{}.ipaddr) {
        control_refuse(client, fmt::format("the address '{}' is longer than 63 characters", address));
        return;
    }
    if (address.empty() || port == 0) {
        control_refuse(client,
                       fmt::format("agent '{}' is not logged on: give its --address and --port", partner));
        return;
    }
    std::string token;
    std::string error;
    if (!cp_delegation_token(&server, agent, partner, token, error)) {
        control_refuse(client, error);
        return;
    }
    const auto told = [](const cp_answer&) -> json { return {{"text", "the agents are connected"}}; };
    if (!cp_connect_agents(&server, agent, partner, address, port, token,
                           answer_to(server, client, "the agents were not connected", told))) {
        refuse_agent(server, client, agent);
    }
}
