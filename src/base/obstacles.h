// What strangers left where something of the agent's must stand: it is moved away, never removed. The folders
// of jobs are everybody's, and the names in them can be guessed.
#pragma once

#include <sys/types.h>

#include <string>

// A name for what is made before it takes its place, which nobody can guess: ".qx-" and 16 hex digits.
std::string hidden_name();
// Gives `made` the name `name`, both in `directory`, in one step, so that nobody can come in between. What
// had the name takes the name `made` and is logged with its kind and owner (`path` is for the log); a regular
// file or link is removed. 0, or -1 with errno: EEXIST when it belongs to root or the agent, or nobody else
// may make names in the folder; EINVAL on file systems that cannot exchange names. Any thread, with the
// agent's own identity.
int take_place(int directory, const char* made, const char* name, const char* path);

// What was moved away; `name` is empty when nothing was.
struct moved_obstacle {
    std::string path;  // where it stood
    std::string name;  // what it is called now, in the same folder
    mode_t mode = 0;
    uid_t owner = 0;
};
// Makes `path` free where a stranger's obstacle (no regular file, no link) stands there, by the rule of
// take_place. Neither logs nor looks accounts up, so that it may be called under the locks of log and trace.
moved_obstacle move_aside(const char* path);
// The line for the log. `owner` is the name of its owner, "?" when it is not known.
std::string obstacle_line(const moved_obstacle& moved, const std::string& owner);
// The name of a user, "?" when there is none. The user lock is taken.
std::string owner_name(uid_t uid);
