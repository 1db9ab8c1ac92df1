// What an agent starts with and should not: told in one line each at the start and by `qxxjlnx check`.
#pragma once

#include <string>
#include <vector>

struct EX_PCX;

// Why somebody besides root and the agent's user can change the file or folder; "" when nobody can. A sticky
// folder counts as open only when `folder_of_files` says that new files in it matter.
std::string open_to_others(const char* path, bool folder_of_files);

// Program folder and INI file with all folders above them that others can write to, and settings that leave
// the host unprotected. Needs names and settings of the context only.
std::vector<std::string> start_warnings(const EX_PCX* pcx);
