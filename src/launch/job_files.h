// Files that belong to a job. Main thread.
#pragma once

#include <string>
#include <string_view>

struct EX_PCX;

inline constexpr char job_no_report[] = "/dev/null";

// Removes a job file or report: a regular file or a link, nothing else, and never what stands on a way that
// another stranger controls. A file that is missing is no failure; other failures are logged.
void job_remove_file(const char* path);
// Does the path lie below the temp or the report directory? Only such a file is removed on order of an
// activation that was refused.
bool job_file_is_ours(const EX_PCX* pcx, std::string_view path);
