// The diagnostic file that a failed field check leaves.
#pragma once

#include <cstddef>

// Writes a new file "msgerr_XXXXXX" into the folder for temporary files: the message with its fields, and on
// the main thread the agent's own tables. Its name goes into `buffer`; an empty text when there is no file.
// After the first hundred files of a process none is made any more: a faulty sender must not fill the disk.
// Any thread, called by the conversion engine only.
void message_error_action(char* buffer, size_t size);
