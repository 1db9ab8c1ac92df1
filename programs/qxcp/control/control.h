// What the handlers of the console's requests share; their table is in control.cpp.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "qxcp/agents/server_state.h"

// A line on the way to the answer.
void control_tell(cp_control_client& client, const nlohmann::json& line);
// The answer to a request, the last one: the line is closed behind it.
void control_finish(cp_control_client& client, const nlohmann::json& answer);
// The same for a failure: {"ok": false, "error": text}.
void control_refuse(cp_control_client& client, const std::string& text);
// The asker, for answers that come later; null when it went away.
cp_control_client* control_find_client(cp_server& server, int id);
// An agent's answer in words.
std::string control_answer_text(const cp_answer& answer);
// Why an order for the agent of that name cannot be sent: it is not logged on, or with an empty name, not
// alone.
std::string control_no_agent_text(const cp_server& server, const std::string& agent);
// Where the server puts what this client is to print; the console removes it.
std::string control_copy_path(const cp_server& server, const cp_control_client& client);

// Handlers of requests, one of the files *_control.cpp each.
using control_handler = void (*)(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void cp_control_cat(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void cp_control_shell(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void cp_control_exec(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void cp_control_exec_cancel(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void cp_control_resource_add(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void cp_control_resource_list(cp_server& server, cp_control_client& client, const nlohmann::json& request);
// administration_control.cpp
void control_query(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_trace(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_log(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_mail(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_connect(cp_server& server, cp_control_client& client, const nlohmann::json& request);
// transfer_requests.cpp
void control_transfer(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_transfers(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_transfer_report(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_transfer_watch(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_transfer_cancel(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_dir(cp_server& server, cp_control_client& client, const nlohmann::json& request);
// keys.cpp
void control_package(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_forget_key(cp_server& server, cp_control_client& client, const nlohmann::json& request);
// job_requests.cpp
void control_run(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_jobs(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_cancel(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_info(cp_server& server, cp_control_client& client, const nlohmann::json& request);
void control_report(cp_server& server, cp_control_client& client, const nlohmann::json& request);
