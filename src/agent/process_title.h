// The name under which the process list shows a child.
#pragma once

#include <string_view>

// Finds the space of the arguments and moves the environment out of it. Once, before any thread exists.
void process_title_prepare(int argc, char** argv);
// Writes the title over the arguments, cut to their space, and the first 15 bytes as the thread's name.
void process_title_set(std::string_view title);
