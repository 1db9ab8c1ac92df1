#include "base/notes.h"

#include <cstdarg>
#include <cstdio>

namespace {

constexpr size_t insert_size = 1024;
constexpr size_t line_size = 2048;

note_functions functions = {};

void tell(void (*to)(const char*), const char* format, va_list arguments) {
    if (to == nullptr) {
        return;
    }
    char text[line_size];
    vsnprintf(text, sizeof text, format, arguments);
    to(text);
}

}  // namespace

void notes_go_to(const note_functions& upward) {
    functions = upward;
}

void note_message(int number, const char* format, ...) {
    if (functions.message == nullptr) {
        return;
    }
    char inserts[insert_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(inserts, sizeof inserts, format, arguments);
    va_end(arguments);
    functions.message(number, inserts);
}

void note_text(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    tell(functions.text, format, arguments);
    va_end(arguments);
}

void note_trace(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    tell(functions.trace, format, arguments);
    va_end(arguments);
}
