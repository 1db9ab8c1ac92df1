// The commands about the agent itself.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "console.h"

// One request, as the server's socket takes it; the answer is printed: a text, or a line for each member.
// Each returns the exit code of the command.
int cp_console_administration(const cp_console_options& options, const nlohmann::json& request);
// The last lines of an agent's log, and with `follow` each that comes, until the command is interrupted.
int cp_console_log(const cp_console_options& options, const std::string& agent, bool follow);
// Adds the text of a mail (`-`: standard input) and the first line of a password file to the request. False
// after an error, which has been told.
bool cp_console_complete_mail(nlohmann::json& request, const std::string& text_path,
                              const std::string& password_file);
