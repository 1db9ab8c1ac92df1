#include "messages/checks.h"

#include <strings.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/message_numbers.h"

namespace {

constexpr int code_unnumbered = 1;  // `lt` and `notblank` fail with this number; that must stay

constexpr size_t stream_step = 4096;
constexpr char stream_head[] = "%CHK    ";  // keeps offset 0 free: it means that an element has no check
constexpr char record_catcher[] = "%FCK";

// Written by msgconv_open alone, read by everybody afterwards.
unsigned char* checkStreamBytes = nullptr;
size_t checkStreamSize = 0;
size_t checkStreamLength = 0;

bool is_integer(int type) {
    return type == el_signed || type == el_unsigned;
}

bool is_text(int type) {
    return type == el_text_padded || type == el_text_sized || type == el_text_ended;
}

__attribute__((format(printf, 3, 4))) int set_error(msg_error* error, int code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    error->code = code;
    vsnprintf(error->subst, sizeof error->subst, format, arguments);
    va_end(arguments);
    return -1;
}

// ---- evaluation ----

int64_t integer_value(const unsigned char* data, size_t length) {
    switch (length) {
        case 1:
            return static_cast<int8_t>(*data);
        case 2: {
            int16_t value;
            memcpy(&value, data, sizeof value);
            return value;
        }
        case 4: {
            int32_t value;
            memcpy(&value, data, sizeof value);
            return value;
        }
        case 8: {
            int64_t value;
            memcpy(&value, data, sizeof value);
            return value;
        }
        default:
            return 0;
    }
}

const unsigned char* parameters(const chk_function_arguments_t* arguments) {
    return reinterpret_cast<const unsigned char*>(arguments + 1);
}

int32_t integer_parameter(const chk_function_arguments_t* arguments, int index) {
    int32_t value = 0;
    memcpy(&value, parameters(arguments) + sizeof value * static_cast<size_t>(index), sizeof value);
    return value;
}

int invalid_integer(msg_error* error, int64_t value, size_t length) {
    if (length == 8) {
        return set_error(error, number_check_failed, "Invalid value '%s'.|", std::to_string(value).c_str());
    }
    return set_error(error, number_check_failed, "Invalid value '%d'.|", static_cast<int>(value));
}

int enum_of_texts(const chk_function_arguments_t* arguments, const unsigned char* data, size_t length,
                  msg_error* error) {
    const char* text = reinterpret_cast<const char*>(data);
    const char* parameter = reinterpret_cast<const char*>(parameters(arguments));
    for (int i = 0; i < arguments->parameter_count; i++, parameter += strlen(parameter) + 1) {
        if (strncmp(text, parameter, length) == 0) {
            return 0;
        }
    }
    return set_error(error, number_check_failed, "Invalid value '%.*s'.|", static_cast<int>(length), text);
}

int chkf_enum(const msgconv_ctx_t*, const msg_el* element, const chk_function_arguments_t* arguments,
              const unsigned char* data, size_t length, msg_error* error) {
    if (is_integer(element->type)) {
        int64_t value = integer_value(data, length);
        for (int i = 0; i < arguments->parameter_count; ++i) {
            if (value == integer_parameter(arguments, i)) {
                return 0;
            }
        }
        return invalid_integer(error, value, length);
    }
    if (element->size != 1) {
        return enum_of_texts(arguments, data, length, error);
    }
    if (length == 1 &&
        memchr(parameters(arguments), *data, static_cast<size_t>(arguments->parameter_count)) != nullptr) {
        return 0;
    }
    return set_error(error, number_check_failed, "Invalid value '%c'.|", length == 1 ? *data : ' ');
}

int chkf_notempty(const msgconv_ctx_t*, const msg_el*, const chk_function_arguments_t*,
                  const unsigned char* data, size_t length, msg_error* error) {
    for (size_t i = 0; i < length; ++i) {
        if (data[i] != ' ') {
            return 0;
        }
    }
    return set_error(error, number_check_failed, "String must not be empty.|");
}

int chkf_range(const msgconv_ctx_t*, const msg_el* element, const chk_function_arguments_t* arguments,
               const unsigned char* data, size_t length, msg_error* error) {
    if (!is_integer(element->type) || arguments->parameter_count < 2) {
        return 0;
    }
    if (length > 8) {
        set_error(error, number_check_too_long, "%d|", static_cast<int>(length));
        return 0;
    }
    if (length != 2 && length != 4 && length != 8) {
        return 0;
    }
    int64_t value = integer_value(data, length);
    if (value >= integer_parameter(arguments, 0) && value <= integer_parameter(arguments, 1)) {
        return 0;
    }
    if (length == 8) {
        return set_error(error, number_check_failed, "Value '%s' not in range.|",
                         std::to_string(value).c_str());
    }
    return set_error(error, number_check_failed, "Value '%d' not in range.|", static_cast<int>(value));
}

int chkf_gt(const msgconv_ctx_t*, const msg_el*, const chk_function_arguments_t* arguments,
            const unsigned char* data, size_t length, msg_error* error) {
    if (length >= 8) {
        return set_error(error, number_check_too_long, "%d|", static_cast<int>(length));
    }
    if (length != 2 && length != 4) {
        return 0;
    }
    int64_t value = integer_value(data, length);
    if (value > integer_parameter(arguments, 0)) {
        return 0;
    }
    return set_error(error, number_check_failed, "%d > %d|", static_cast<int>(value),
                     integer_parameter(arguments, 0));
}

// For texts the result is the comparison itself, the reverse of what integers do. No field of the catalogue
// uses it.
int compare_text(const msg_el* element, const chk_function_arguments_t* arguments, const unsigned char* data,
                 size_t length, msg_error* error) {
    const char* parameter = reinterpret_cast<const char*>(parameters(arguments));
    size_t compared = element->size == 1 ? 1 : length;
    int difference = strncmp(reinterpret_cast<const char*>(data), parameter, compared);
    if (difference == 0) {
        set_error(error, number_check_failed, "%.*s != %.*s|", element->size == 1 ? 1 : 1000, parameter,
                  static_cast<int>(length), reinterpret_cast<const char*>(data));
    }
    return difference;
}

int chkf_ne(const msgconv_ctx_t*, const msg_el* element, const chk_function_arguments_t* arguments,
            const unsigned char* data, size_t length, msg_error* error) {
    if (!is_integer(element->type)) {
        return compare_text(element, arguments, data, length, error);
    }
    if (length != 2 && length != 4 && length != 8) {
        return 0;
    }
    int64_t value = integer_value(data, length);
    int32_t parameter = integer_parameter(arguments, 0);
    if (value != parameter) {
        return 0;
    }
    if (length == 8) {
        return set_error(error, number_check_failed, "%d != %s|", parameter, std::to_string(value).c_str());
    }
    return set_error(error, number_check_failed, "%d != %d|", static_cast<int>(value), parameter);
}

// The mirror image of `ne`: it reports equality, and has a reason only for inequality. No field of the
// catalogue uses it.
int chkf_eq(const msgconv_ctx_t*, const msg_el*, const chk_function_arguments_t* arguments,
            const unsigned char* data, size_t length, msg_error* error) {
    if (length != 2 && length != 4 && length != 8) {
        return 0;
    }
    int64_t value = integer_value(data, length);
    int32_t parameter = integer_parameter(arguments, 0);
    if (value == parameter) {
        return 1;
    }
    set_error(error, number_check_failed, "%d == %d|", static_cast<int>(value), parameter);
    return 0;
}

// The boundary itself passes.
int chkf_lt(const msgconv_ctx_t*, const msg_el* element, const chk_function_arguments_t* arguments,
            const unsigned char* data, size_t length, msg_error* error) {
    if (!is_integer(element->type) || (length != 2 && length != 4 && length != 8)) {
        return 0;
    }
    int64_t value = integer_value(data, length);
    int32_t parameter = integer_parameter(arguments, 0);
    if (value <= parameter) {
        return 0;
    }
    if (length == 8) {
        return set_error(error, code_unnumbered, "%s < %d|", std::to_string(value).c_str(), parameter);
    }
    return set_error(error, code_unnumbered, "%d < %d|", static_cast<int>(value), parameter);
}

int chkf_notblank(const msgconv_ctx_t*, const msg_el* element, const chk_function_arguments_t*,
                  const unsigned char* data, size_t length, msg_error* error) {
    if (!is_integer(element->type) || length == 0 || length > 8 || memcmp(data, "        ", length) != 0) {
        return 0;
    }
    set_error(error, code_unnumbered, "Numeric cannot contain blanks.|");
    return error->code;
}

}  // namespace

const chk_command_t chk_commands[chk_command_count] = {
    {"ENUM", chkf_enum, chk_enum, chk_any_count, 0, 0},
    {"NOTEMPTY", chkf_notempty, chk_notempty, 0, 0, 0},
    {"RANGE", chkf_range, chk_range, chk_any_count, 0, 0},
    {"GT", chkf_gt, chk_gt, 1, 1, 0},
    {"NE", chkf_ne, chk_ne, 1, 0, 0},
    {"EQ", chkf_eq, chk_eq, 1, 1, 0},
    {"LT", chkf_lt, chk_lt, 1, 0, 0},
    {"NOTBLANK", chkf_notblank, chk_notblank, 0, 1, 0},
};

namespace {

// ---- compilation ----

struct parameter_list {
    std::vector<unsigned char> bytes;
    int count = 0;
};

std::string_view trimmed(std::string_view text) {
    size_t first = text.find_first_not_of(' ');
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

void add_bytes(parameter_list* list, const void* bytes, size_t size) {
    const unsigned char* from = static_cast<const unsigned char*>(bytes);
    list->bytes.insert(list->bytes.end(), from, from + size);
    ++list->count;
}

int getIntArgs(std::string_view argument, parameter_list* list, msg_error*) {
    int32_t value = atoi(std::string(argument).c_str());
    add_bytes(list, &value, sizeof value);
    return 0;
}

int getCharArgs(std::string_view argument, parameter_list* list, msg_error* error) {
    std::string_view text = trimmed(argument);
    if (text.empty() || text.front() != '\'' || text.find('\'', 1) == std::string_view::npos) {
        return set_error(error, number_check_syntax, "Missing ''' character.");
    }
    if (text.size() != 3 || text[2] != '\'') {
        return set_error(error, number_check_syntax, "Invalid char '%.*s' argument.",
                         static_cast<int>(text.size()), text.data());
    }
    add_bytes(list, &text[1], 1);
    return 0;
}

int getStringArgs(std::string_view argument, parameter_list* list, msg_error* error) {
    size_t first = argument.find('"');
    size_t last = argument.rfind('"');
    if (first == std::string_view::npos || first == last) {
        return set_error(error, number_check_syntax, "Missing '\"' character.");
    }
    std::string text(argument.substr(first + 1, last - first - 1));
    if (!text.empty()) {
        add_bytes(list, text.c_str(), text.size() + 1);
    }
    return 0;
}

int get_arguments(std::string_view text, int (*parse)(std::string_view, parameter_list*, msg_error*),
                  parameter_list* list, msg_error* error) {
    if (trimmed(text).empty()) {
        return 0;
    }
    for (size_t at = 0; at <= text.size();) {
        size_t comma = std::min(text.find(',', at), text.size());
        if (parse(text.substr(at, comma - at), list, error) != 0) {
            return -1;
        }
        at = comma + 1;
    }
    return 0;
}

// The text between the brackets behind a command; `*end` is where the scan goes on.
int checkArguments(std::string_view rest, std::string_view* arguments, size_t* end, msg_error* error) {
    size_t open = rest.find('(');
    if (open == std::string_view::npos) {
        return set_error(error, number_check_syntax, "Unable to find '(' character.");
    }
    size_t close = rest.find(')', open);
    if (close == std::string_view::npos) {
        return set_error(error, number_check_syntax, "Unable to find ')' character.");
    }
    *arguments = rest.substr(open + 1, close - open - 1);
    if (arguments->find(';') != std::string_view::npos) {
        return set_error(error, number_check_syntax, "Invalid argument syntax '%.*s'.",
                         static_cast<int>(arguments->size()), arguments->data());
    }
    *end = close + 1;
    return 0;
}

int parse_parameters(const msg_el* element, const chk_command_t* command, std::string_view arguments,
                     parameter_list* list, msg_error* error) {
    bool refused = false;
    if (is_integer(element->type)) {
        if (get_arguments(arguments, getIntArgs, list, error) != 0) {
            return -1;
        }
    } else if (is_text(element->type)) {
        refused = command->intonly != 0;
        if (!refused &&
            get_arguments(arguments, element->size == 1 ? getCharArgs : getStringArgs, list, error) != 0) {
            return -1;
        }
    } else {
        refused = element->type != el_const && element->type != el_union && element->type != el_filler;
    }
    if (refused) {
        return set_error(error, number_check_wrong_type, "%s|%s|", command->command,
                         type2string(element->type));
    }
    return 0;
}

void append_block(std::vector<unsigned char>* work, const msg_el* element, const chk_command_t* command,
                  const parameter_list& list) {
    size_t area = (sizeof(chk_function_arguments_t) + list.bytes.size() + 7) & ~size_t{7};
    chk_function_arguments_t block = {static_cast<uint32_t>(area),
                                      static_cast<uint32_t>(list.bytes.size()),
                                      list.count,
                                      element->type,
                                      command->fcode,
                                      {0, 0}};
    size_t at = work->size();
    work->resize(at + area, 0);
    memcpy(work->data() + at, &block, sizeof block);
    if (!list.bytes.empty()) {
        memcpy(work->data() + at + sizeof block, list.bytes.data(), list.bytes.size());
    }
}

// Compiles the command at the beginning of `text`. `*end` is where the scan goes on behind it.
int compile_command(const msg_el* element, const chk_command_t* command, std::string_view text,
                    std::vector<unsigned char>* work, size_t* end, msg_error* error) {
    size_t name_length = strlen(command->command);
    std::string_view arguments;
    parameter_list list;
    if (checkArguments(text.substr(name_length), &arguments, end, error) != 0) {
        return -1;
    }
    *end += name_length;
    if (parse_parameters(element, command, arguments, &list, error) != 0) {
        return -1;
    }
    if (command->paramscount != chk_any_count && list.count != command->paramscount) {
        return set_error(error, number_check_parameter_count, "%.*s|%d|%d|", static_cast<int>(text.size()),
                         text.data(), command->paramscount, list.count);
    }
    append_block(work, element, command, list);
    return 0;
}

const chk_command_t* command_at(std::string_view text) {
    for (const chk_command_t& command : chk_commands) {
        size_t length = strlen(command.command);
        if (text.size() >= length && strncasecmp(text.data(), command.command, length) == 0) {
            return &command;
        }
    }
    return nullptr;
}

// Offset of the record in the stream, 0 without memory.
size_t putToStream(const std::vector<unsigned char>& record) {
    size_t length = checkStreamLength == 0 ? sizeof stream_head - 1 : checkStreamLength;
    size_t wanted = checkStreamSize;
    while (wanted < length + record.size()) {
        wanted += stream_step;
    }
    if (wanted != checkStreamSize) {
        void* grown = realloc(checkStreamBytes, wanted);
        if (grown == nullptr) {
            return 0;
        }
        checkStreamBytes = static_cast<unsigned char*>(grown);
        checkStreamSize = wanted;
    }
    memcpy(checkStreamBytes, stream_head, sizeof stream_head - 1);
    memcpy(checkStreamBytes + length, record.data(), record.size());
    checkStreamLength = length + record.size();
    return length;
}

void log_number(const msgconv_ctx_t* ctx, int number, const char* insert) {
    if (ctx != nullptr && ctx->logWrite != nullptr) {
        ctx->logWrite(number, insert);
    }
}

}  // namespace

int compileCheckStream(const msgconv_ctx_t* ctx, msg_el* element, msg_error* error) {
    if (element->chkstr == nullptr || element->chkptr != 0) {
        return 0;
    }
    std::string_view text = element->chkstr;
    std::vector<unsigned char> work(sizeof(chk_args_t));
    uint32_t argc = 0;
    for (size_t at = 0; at < text.size();) {
        const chk_command_t* command = command_at(text.substr(at));
        if (command == nullptr) {
            ++at;
            continue;
        }
        size_t end = 0;
        msg_error reason;
        if (compile_command(element, command, text.substr(at), &work, &end, &reason) == 0) {
            ++argc;
            at += end;
            continue;
        }
        log_number(ctx, reason.code, reason.subst);
        at += end > 0 ? end : strlen(command->command);
    }
    if (argc == 0) {
        return set_error(error, number_check_syntax, "%s|", element->chkstr);
    }
    chk_args_t head;
    memcpy(head.catcher, record_catcher, sizeof head.catcher);
    head.argc = argc;
    head.args = static_cast<uint32_t>(work.size());
    memcpy(work.data(), &head, sizeof head);
    size_t offset = putToStream(work);
    if (offset == 0) {
        return set_error(error, number_check_syntax, "%s|", element->chkstr);
    }
    element->chkptr = static_cast<int32_t>(offset);
    return 0;
}

bool check_stream_built() {
    return checkStreamLength != 0;
}

void check_stream_free() {
    MSGTAB* table = get_msgtab();
    for (int64_t i = 0; i < table->count; ++i) {
        for (uint64_t k = 0; k < table->entries[i].msg_def.length; ++k) {
            table->entries[i].msg_def.elements[k].chkptr = 0;
        }
    }
    free(checkStreamBytes);
    checkStreamBytes = nullptr;
    checkStreamSize = checkStreamLength = 0;
}

int readAndEvaluateStream(const msgconv_ctx_t* ctx, const msg_el* element, const unsigned char* data,
                          size_t length, const char* path) {
    chk_args_t head;
    size_t at = static_cast<size_t>(element->chkptr);
    if (element->chkptr <= 0 || at + sizeof head > checkStreamLength) {
        return 0;
    }
    memcpy(&head, checkStreamBytes + at, sizeof head);
    int failed = 0;
    auto report = [&](const char* command, const msg_error& error) {
        char insert[msg_error_text_size];
        if (error.code != 0) {
            log_number(ctx, error.code, error.subst);
        }
        snprintf(insert, sizeof insert, "%s|%s|", command, path);
        log_number(ctx, number_check_failed_where, insert);
        ++failed;
    };
    const unsigned char* block = checkStreamBytes + at + sizeof head;
    int last_code = 0;
    for (uint32_t i = 0; i < head.argc; ++i) {
        const chk_function_arguments_t* arguments = reinterpret_cast<const chk_function_arguments_t*>(block);
        const chk_command_t* command = &chk_commands[arguments->function_type];
        msg_error error;
        if (command->evalf(ctx, element, arguments, data, length, &error) != 0) {
            report(command->command, error);
        }
        last_code = error.code;
        block += arguments->argument_area_size;
    }
    if (is_integer(element->type) && last_code == 0) {
        msg_error error;
        if (chkf_notblank(ctx, element, nullptr, data, length, &error) != 0) {
            report(chk_commands[chk_notblank].command, error);
        }
    }
    return failed;
}
