// One walk's state, and how it reports what is wrong. Shared by the files of the walk.
#pragma once

#include "messages/walk.h"

inline constexpr int parent_list_size = 14;  // the deepest nesting of the catalogue is 3

struct list_entry_t {
    const char* name;
    int version;
};

// One call's state.
struct internal_stack_t {
    const msg_el* current;
    byte_buffer_t buffer;
    const walk_request* request;
    const msgconv_ctx_t* ctx;
    const MSGTAB* table;
    msg_error* error;
    int message_version;
    bool checks;
    bool plain;  // nobody watches and nothing is swapped or checked: plain fields need only their bounds
    int errorsFound;
    struct {
        int level;
        list_entry_t entries[parent_list_size];
    } parent_list;
};

// Sets the walk's error with its inserts. Always walk_failed.
int fail(internal_stack_t* stack, int code, const char* format, ...)
    __attribute__((format(printf, 3, 4), noinline, cold));

// Adds a warning; without memory the list is emptied and the warning lost.
void warn(internal_stack_t* stack, int code, const char* format, ...)
    __attribute__((format(printf, 3, 4), noinline, cold));

// Error 1002404 for the current element: `size` bytes at its own position do not stand inside the message.
int fail_overflow(internal_stack_t* stack, int64_t position, int64_t size) __attribute__((noinline, cold));

// One of the errors whose inserts are a name, the walk's place and the path.
int fail_type(internal_stack_t* stack, int code, const char* name) __attribute__((noinline, cold));

// Path of the current element for inserts, "EXSTAJ.TIMESTAMP.jjjj", written to `text`.
const char* dump_path(const internal_stack_t* stack, char* text, size_t size);

// Dumps a message of at least a head to the trace of `ctx`: passwords in it are hidden, and of a message that
// the walk refuses everything that it did not read. With `elements` a line for each field precedes.
void dump_message(const msgconv_ctx_t* ctx, const char* title, const void* msg, size_t msgs, walk_check check,
                  byte_order to_order, bool elements);

// Inserts show positions and sizes as unsigned 32-bit numbers.
inline unsigned shown(int64_t number) {
    return static_cast<unsigned>(number);
}

// Walks one record from the walk's place on, and the records in it; `structureSize` becomes the bytes that it
// takes there. walk_failed with the error set, else walk_accepted.
int process_elements(internal_stack_t* stack, const msgtab_el* entry, bool variableDataOnEnd,
                     int64_t* structureSize);

inline bool tracing(const msgconv_ctx_t* ctx, char level) {
    return ctx != nullptr && ctx->trcflag != nullptr &&
           ctx->trcflag->load(std::memory_order_relaxed) >= level;
}
