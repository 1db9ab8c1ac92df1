// Short commands that run on an agent's host and send their output straight back.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "agent_messages.h"
#include "base/message_numbers.h"
#include "messages/records_job.h"
#include "qxcp/control/control.h"
#include "qxcp/hex.h"
#include "security/string_cipher.h"

using nlohmann::json;

namespace {

constexpr char module_commands[] = "EXECCMD";
constexpr size_t command_limit = size_t{1} << 20;

// The code of a command that failed is the second insert.
int code_of(const cp_answer& answer) {
    if (answer.status == "OK") {
        return 0;
    }
    const size_t bar = answer.insert.find('|');
    return answer.number == number_command_failed && bar != std::string::npos
               ? std::atoi(answer.insert.c_str() + bar + 1)
               : -1;
}

// Lines as the command wrote them; a CR of its own stays.
std::string host_lines(const std::string& data) {
    std::string lines;
    lines.reserve(data.size());
    for (size_t i = 0; i < data.size(); ++i) {
        if (data[i] != '\r' || i + 1 == data.size() || data[i + 1] != '\n') {
            lines += data[i];
        }
    }
    return lines;
}

bool is_utf8(const std::string& text) {
    try {  // the library reports other bytes by an exception
        (void)json(text).dump();
        return true;
    } catch (const json::exception&) {
        return false;
    }
}

}  // namespace

int cp_exec(cp_server* server, const std::string& agent_name, const cp_exec_wish& wish,
            cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, agent_name);
    if (agent == nullptr) {
        return 0;
    }
    const int number = server->store.next_run++;
    if (std::string fault = cp_store_save_numbers(server->store); !fault.empty()) {
        cp_emit(*server, "store", "", 0, fault);
    }
    message_builder<MSG_TYPE_EXREQCMD> record(wish.client, wish.user_id);
    record->ah_idnr = number;
    record->max_rows = wish.rows;
    put_text(record->logininfo, wish.user);
    auto folder = agent->variables.find("QX_EX_PATH_JOBREPORT");
    if (folder != agent->variables.end()) {
        put_text(record->jobreport, fmt::format("{}C{:03}{:07}.TXT", folder->second, wish.client, number));
    }
    record.add(MSG_TYPE_EXREQCMD::jcl, wish.command);
    if (server->options.check_passwords || !wish.password.empty()) {
        const std::string password = build_password_field(number, wish.password);
        record.add(MSG_TYPE_EXREQCMD::password, password);
    }
    cp_send(server, *agent, module_commands, record, std::move(handler));
    cp_emit(*server, "command", agent->link.agent, number,
            fmt::format("command {} sent to agent {}", number, agent->link.agent));
    return number;
}

bool cp_exec_cancel(cp_server* server, const std::string& agent_name, int number) {
    cp_agent* agent = cp_find_agent(server, agent_name);
    if (agent == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_EXREQCAN>(0, 0);
    order.ah_idnr = number;
    return cp_send(server, *agent, module_commands, order);
}

void cp_take_command_result(cp_server& server, cp_agent&, message_view view, const frame_address& from) {
    auto result = view_record<MSG_TYPE_EXRESCMD>(view);
    cp_answer_pending(server, from.dst_acv,
                      {"OK", 0, "", std::string{view_text(view, result.rep_dist, result.rep_len)}});
}

void cp_control_exec(cp_server& server, cp_control_client& client, const json& request) {
    cp_exec_wish wish;
    wish.command = request.value("command", "");
    wish.user = request.value("user", "");
    wish.password = request.value("password", "");
    wish.rows = request.value("rows", wish.rows);
    const int number = request.value("client", int{wish.client});
    if (number < 0 || number > 9999) {
        control_refuse(client, "a client is a number from 0 to 9999");
        return;
    }
    wish.client = static_cast<uint16_t>(number);
    if (wish.command.empty() || wish.command.size() > command_limit) {
        control_refuse(client, "a command has 1 to 1048576 characters");
        return;
    }
    const std::string agent = request.value("agent", "");
    const int id = client.id;
    const int sent = cp_exec(&server, agent, wish, [&server, id](const cp_answer& answer) {
        cp_control_client* asker = control_find_client(server, id);
        if (asker == nullptr) {
            return;
        }
        const std::string output = host_lines(answer.data);
        json story = {{"ok", true},
                      {"status", answer.status},
                      {"code", code_of(answer)},
                      {"message_number", answer.number},
                      {"message_insert", answer.insert},
                      {"text", control_answer_text(answer)},
                      {"output", output}};
        if (!is_utf8(output)) {
            story["output_hex"] = cp_to_hex(output);
        }
        control_finish(*asker, story);
    });
    if (sent == 0) {
        control_refuse(client, control_no_agent_text(server, agent));
        return;
    }
    control_tell(client, {{"command", sent}});
}

void cp_control_exec_cancel(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    const int number = request.value("command", 0);
    if (!cp_exec_cancel(&server, agent, number)) {
        control_refuse(client, control_no_agent_text(server, agent));
        return;
    }
    control_finish(client,
                   {{"ok", true},
                    {"text", number == 0 ? fmt::format("agent {} was told to stop all commands", agent)
                                         : fmt::format("command {} is being cancelled", number)}});
}
