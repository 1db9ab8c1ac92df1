// Files of the agent's own whose place a stranger may have taken: by path, where all that leads there belongs
// to root and the agent alone.
#pragma once

#include <sys/types.h>

#include <string>

// Gives `made`, which stands in the folder of `path`, that name as take_place does. 0, or -1 with errno;
// EEXIST when the way there is not safe.
int take_place_of_path(const std::string& made, const std::string& path);
// A new file of the agent's own under the name `path` (absolute), open for reading and writing: like
// create_new_file, but what strangers left there is moved away. Descriptor, or -1 with errno.
int create_in_place(const std::string& path, mode_t mode);
