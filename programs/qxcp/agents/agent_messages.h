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
inline constexpr char module_transfers[] = "QXFTXEX";
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

// transfers.cpp
cp_message_handler cp_take_transfer_start;
cp_message_handler cp_take_transfer_status;
cp_message_handler cp_take_transfer_report;
// Stores the transfer and tells those who watch it.
void cp_transfer_changed(cp_server& server, const cp_transfer& transfer);
// An end of which nothing more comes: no worker of it is left.
void cp_end_transfer(cp_server& server, cp_transfer& transfer, cp_transfer_state state, int number,
                     const std::string& insert);
// Asks an agent that has logged on for the transfers that it should have.
void cp_ask_for_transfers(cp_server& server, cp_agent& agent);
// Orders to forget that may have been lost with the line are asked for again.
void cp_doubt_forgotten_transfers(cp_server& server, const cp_agent& agent);

// legacy_transfers.cpp
void cp_order_legacy(cp_server& server, cp_transfer& transfer, cp_agent& source, const cp_agent& destination,
                     const std::string& token);
void cp_cancel_legacy(cp_server& server, const cp_transfer& transfer, cp_agent& source);
cp_message_handler cp_take_legacy_status;
cp_message_handler cp_take_legacy_end;
// They end with their agent.
void cp_lose_legacy_transfers(cp_server& server, const cp_agent& agent);
cp_message_handler cp_take_names;
void cp_end_listing(cp_server& server, int id, cp_answer answer);

// report_control.cpp
cp_message_handler cp_take_report_block;
cp_message_handler cp_take_report_end;
void cp_end_fetch(cp_server& server, int id, const cp_answer& answer);
