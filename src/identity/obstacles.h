// What strangers left where something of the agent's must stand: it is moved away, never removed. The folders of
// jobs are everybody's, and the names in them can be guessed.
#pragma once

#include <string>

// A name for what is made before it takes its place, which nobody can guess: ".qx-" and 16 hex digits.
std::string hidden_name();
// Gives `made` the name `name`, both in `directory`, in one step, so that nobody can come in between. What had
// the name takes the name `made` and is logged with its kind and owner (`path` is for the log); a regular file
// or link is removed. 0, or -1 with errno: EEXIST when it belongs to root or the agent, or nobody else may
// make names in the folder; EINVAL on file systems that cannot exchange names. Any thread, with the agent's own identity.
int take_place(int directory, const char* made, const char* name, const char* path);
