// What the files that speak to agents share: making messages and answering those who wait.
#pragma once

#include <string>
#include <string_view>

#include "messages/build.h"
#include "messages/records_job.h"
#include "server_state.h"

inline constexpr char module_jobs[] = "JPAKTJ_R";
inline constexpr char module_agent[] = "QXEXVAR";
inline constexpr char module_reports[] = "QXREPEX";
inline constexpr char own_address[] = "*CP";
inline constexpr char own_module[] = "QXCPJOB";

// Hands the answer to whoever asked with this access code, once.
void cp_answer_pending(cp_server& server, uint32_t code, const cp_answer& answer);

// job_control.cpp
void cp_ask_for_active_jobs(cp_server& server, cp_agent& agent);
void cp_take_activation_answer(cp_server& server, cp_agent& agent, message_view view, uint32_t code);
void cp_take_status(cp_server& server, cp_agent& agent, message_view view);

// exec_control.cpp
void cp_take_command_result(cp_server& server, message_view view, uint32_t code);

// resource_control.cpp
// An empty text, or which of the job's resources is not here.
std::string cp_check_resources(const cp_server& server, const cp_job& job);
// Table and paths behind the activation; `cache` is the agent's cache folder, with its '/'.
void cp_append_resources(const cp_server& server, const cp_job& job, const std::string& cache,
                         message_builder<MSG_TYPE_EXAKTJ>& order);
// Lines ahead of the script that tell it where its files are.
std::string cp_resource_lines(const cp_job& job, const std::string& cache, const std::string& shell);
void cp_take_resource_request(cp_server& server, cp_agent& agent, message_view view,
                              const frame_address& from);

// file_control.cpp
void cp_take_login_request(cp_server& server, cp_agent& agent, message_view view, const frame_address& from);
// False when the text is no answer of file retrieval.
bool cp_take_file_answer(cp_server& server, cp_agent& agent, std::string_view text);
void cp_end_file_reads(cp_server& server, const cp_agent& agent);

// report_control.cpp
void cp_take_report_block(cp_server& server, cp_agent& agent, message_view view);
void cp_take_report_end(cp_server& server, message_view view);
void cp_end_transfer(cp_server& server, int id, const cp_answer& answer);
