// The field check language: expressions such as "gt(0)" or "enum('Y','N')" of the catalogue, compiled once
// into one stream of bytes and evaluated on each field. A failed check is logged and counted, it refuses
// nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "messages/catalogue.h"
#include "messages/conversion.h"

enum chk_function : uint8_t {
    chk_enum,
    chk_notempty,
    chk_range,
    chk_gt,
    chk_ne,
    chk_eq,
    chk_lt,
    chk_notblank
};

#pragma pack(push, 1)
struct chk_args_t {
    char catcher[4];  // "%FCK"
    uint32_t argc;    // commands that follow
    uint32_t args;    // bytes of the whole record, these 12 included
};
// Followed by the parameters: 32-bit integers, single bytes, or NUL-terminated texts.
struct chk_function_arguments_t {
    uint32_t argument_area_size;  // of the block: this head and the parameters, rounded up to a multiple of 8
    uint32_t parameter_area_length;  // bytes of the parameters
    int32_t parameter_count;
    uint8_t parameter_type;  // the element's type
    uint8_t function_type;   // chk_function
    uint8_t reserved[2];
};
#pragma pack(pop)
static_assert(sizeof(chk_args_t) == 12 && sizeof(chk_function_arguments_t) == 16);

// Returns 0 when the check passes. `error` has the reason otherwise.
using chk_evaluate = int (*)(const msgconv_ctx_t* ctx, const msg_el* element,
                             const chk_function_arguments_t* arguments, const unsigned char* data,
                             size_t length, msg_error* error);

inline constexpr uint8_t chk_any_count = 255;

struct chk_command_t {
    const char* command;  // matched without regard to case
    chk_evaluate evalf;
    uint8_t fcode;        // chk_function
    uint8_t paramscount;  // chk_any_count: any number
    uint8_t intonly;      // not for texts
    uint8_t stringonly;
};
inline constexpr size_t chk_command_count = 8;
extern const chk_command_t chk_commands[chk_command_count];

// Compiles the element's expression into the stream and sets its `chkptr`. 0, also when there is nothing to
// do; -1 with `error` when nothing of the expression compiled. Faults of single commands are logged through
// `ctx`. Before any thread converts.
int compileCheckStream(const msgconv_ctx_t* ctx, msg_el* element, msg_error* error);

// Whether a stream was built; the walk evaluates only then.
bool check_stream_built();
void check_stream_free();

// Evaluates the compiled checks of `element` on a field's bytes. Failures are logged with `path`. Returns how
// many failed.
int readAndEvaluateStream(const msgconv_ctx_t* ctx, const msg_el* element, const unsigned char* data,
                          size_t length, const char* path);
