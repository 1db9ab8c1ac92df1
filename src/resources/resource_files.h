// What the files of this folder share: the jobs behind the lists, and files and directories of stored
// resources. Main thread.
#pragma once

#include <climits>
#include <span>
#include <string>
#include <string_view>

struct EX_PCX;
struct key_entry;
struct qx7_error;
struct resource_item;
struct resource_job;
struct resource_owner;

// The owner of the jobs, and a job by an entry of a list; null when it has gone.
const resource_owner& resource_jobs();
resource_job* resource_job_of(const key_entry& entry);
// The one that asked first.
resource_job* resource_first_job(const resource_item& resource);

// A cache path of a message, with a '/' at its end. It counts only below the agent's cache folder and without
// "..", for the agent works there with its own rights: false otherwise, and `path` is empty.
bool resource_take_path(const EX_PCX* pcx, std::string_view told, std::string* path);
// Name of a file below a cache path: relative, without "..".
bool resource_name_is_safe(std::string_view name);

// Of a file that must not be taken for current, whatever the server's time is.
inline constexpr long resource_time_none = LONG_MIN;
// Whether the client resource at `path` is there: fills its modification time. -1 with errno. What is no
// regular file has resource_time_none; under `hardened` also a file that somebody else could have written.
int resource_stat(const std::string& path, long* modified);

// Makes the directory of the resource where it is missing: a client's with the agent's rights, a task's as
// the user of `job`. 1, or -1 with `error`.
int CreateCachePath(EX_PCX* pcx, const resource_job* job, const resource_item& resource, qx7_error* error);
// Writes the file, as the user of the first job that needs it, with the time of the resource. Text goes
// through that job's code table and loses the CR of each CR LF. Nothing is left of a file that could not be
// written whole. 0, or -1 with `error`.
int CreateResourceFile(EX_PCX* pcx, const resource_item& resource, std::span<const unsigned char> data,
                       char fileType, qx7_error* error);
// Each CR LF becomes LF; the text ends at a zero byte. In place; the length that remains.
size_t CrLfCorrection(char* text, size_t length);
