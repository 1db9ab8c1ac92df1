#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/message_numbers.h"
#include "messages/walk_state.h"

namespace {

constexpr size_t path_limit = 228;

void append(char* text, size_t size, size_t* length, std::string_view part) {
    size_t room = size - 1 - *length;
    size_t count = std::min(room, part.size());
    memcpy(text + *length, part.data(), count);
    *length += count;
    text[*length] = '\0';
}

void format_insert(char* text, const char* format, va_list arguments) {
    vsnprintf(text, msg_error_text_size, format, arguments);
}

}  // namespace

const char* dump_path(const internal_stack_t* stack, char* text, size_t size) {
    size_t length = 0;
    text[0] = '\0';
    for (int i = 0; i < stack->parent_list.level; ++i) {
        std::string_view name = catalogue_trimmed_name(stack->parent_list.entries[i].name);
        if (length + name.size() > path_limit) {
            append(text, size, &length,
                   catalogue_trimmed_name(stack->parent_list.entries[stack->parent_list.level - 1].name));
            append(text, size, &length, "...");
            break;
        }
        append(text, size, &length, name);
        append(text, size, &length, ".");
    }
    append(text, size, &length, stack->current != nullptr ? stack->current->name : "?NULL?");
    return text;
}

int fail(internal_stack_t* stack, int code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    stack->error->code = code;
    format_insert(stack->error->subst, format, arguments);
    va_end(arguments);
    return walk_failed;
}

void warn(internal_stack_t* stack, int code, const char* format, ...) {
    err_list_t* warnings = &stack->error->warning_list;
    void* grown = realloc(warnings->list, (warnings->length + 1) * sizeof(err_element_t));
    if (grown == nullptr) {
        free_warning_list(stack->error);
        return;
    }
    warnings->list = static_cast<err_element_t*>(grown);
    err_element_t* warning = &warnings->list[warnings->length++];
    warning->code = code;
    va_list arguments;
    va_start(arguments, format);
    format_insert(warning->subst, format, arguments);
    va_end(arguments);
}

int fail_overflow(internal_stack_t* stack, int64_t position, int64_t size) {
    char path[512];
    int64_t remaining = position >= 0 && position <= stack->buffer.size ? stack->buffer.size - position : 0;
    return fail(stack, number_walk_overflow, "%s|%u|%d|%u|%s|", type2string(stack->current->type),
                shown(position), static_cast<int>(size), shown(remaining),
                dump_path(stack, path, sizeof path));
}

int fail_type(internal_stack_t* stack, int code, const char* name) {
    char path[512];
    return fail(stack, code, "%s|%u|%s|", name, shown(stack->buffer.offset),
                dump_path(stack, path, sizeof path));
}
