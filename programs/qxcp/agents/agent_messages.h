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

// Takes one type of message, in host form. What answers a request has the request's access code in
// `from.dst_acv`.
using cp_message_handler = void(cp_server& server, cp_agent& agent, message_view view,
                                const frame_address& from);

// job_control.cpp
void cp_ask_for_active_jobs(cp_server& server, cp_agent& agent);
cp_message_handler cp_take_activation_answer;
cp_message_handler cp_take_status;

// exec_control.cpp
cp_message_handler cp_take_command_result;

// resource_control.cpp
// An empty text, or which of the job's resources is not here.
std::string cp_check_resources(const cp_server& server, const cp_job& job);
// Table and paths behind the activation; `cache` is the agent's cache folder, with its '/'.
void cp_append_resources(const cp_server& server, const cp_job& job, const std::string& cache,
                         message_builder<MSG_TYPE_EXAKTJ>& order);
// Lines ahead of the script that tell it where its files are.
std::string cp_resource_lines(const cp_job& job, const std::string& cache, const std::string& shell);
cp_message_handler cp_take_resource_request;

// file_control.cpp
cp_message_handler cp_take_login_request;
// False when the text is no answer of file retrieval.
bool cp_take_file_answer(cp_server& server, cp_agent& agent, std::string_view text);
void cp_end_file_reads(cp_server& server, const cp_agent& agent);

// report_control.cpp
cp_message_handler cp_take_report_block;
cp_message_handler cp_take_report_end;
void cp_end_fetch(cp_server& server, int id, const cp_answer& answer);
