// What this floor has to say. Log and trace stand on the floor above and put their functions in here before
// main; in a program without them a note goes nowhere.
#pragma once

#include "base/trace_area.h"

struct note_functions {
    void (*message)(int number, const char* inserts);  // up to 1023 characters, "|" behind each insert
    void (*text)(const char* text);
    void (*trace)(const char* text);
};
// Constant afterwards. Called while the process has one thread.
void notes_go_to(const note_functions& functions);

// A message to the logger of this process, a line of text to its log, and one to its trace. Any thread.
void note_message(int number, const char* format, ...) __attribute__((format(printf, 2, 3)));
void note_text(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Guarded by trc_on, as every trace call.
void note_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
