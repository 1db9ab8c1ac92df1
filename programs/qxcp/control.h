// What the handlers of the console's requests share; their table is in control.cpp.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "server_state.h"

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
