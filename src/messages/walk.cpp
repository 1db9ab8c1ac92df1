// A walk as a whole: which entry of the catalogue it follows, the head, and what is told of it at the end. The
// records, the message's own first, are walked in walk_record.cpp.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "base/message_numbers.h"
#include "messages/checks.h"
#include "messages/head.h"
#include "messages/walk_state.h"

namespace {

void swap_head(unsigned char* head) {
    std::swap(head[10], head[11]);
    std::reverse(head + 12, head + 16);
}

int parse_message(internal_stack_t* stack) {
    std::string_view type(reinterpret_cast<const char*>(stack->buffer.data), message_type_size);
    const msgtab_el* entry = find_definition(stack->table, type);
    if (entry == nullptr) {
        return fail(stack, number_walk_no_message, "%.8s|%s:%u|", type.data(), "walk.cpp",
                    static_cast<unsigned>(__LINE__));
    }
    QX_HEADM head;
    memcpy(&head, stack->buffer.data, sizeof head);
    stack->message_version = message_version(&head);
    if (stack->buffer.order != stack->request->to_order && (stack->request->iflags & walk_swap_copy) == 0) {
        swap_head(stack->buffer.data);
    }
    stack->buffer.offset = sizeof head;
    int64_t structureSize = 0;
    int result = process_elements(stack, entry, false, &structureSize);
    if (result != walk_failed && stack->error->warning_list.length > 0) {
        return walk_warned;
    }
    return result;
}

// The message whose checks have failed, while errorAction runs on this thread.
thread_local const internal_stack_t* failed_checks = nullptr;

void report_failed_checks(const internal_stack_t& stack) {
    const msgconv_ctx_t* ctx = stack.ctx;
    if (ctx == nullptr || ctx->errorAction == nullptr) {
        return;
    }
    char name[255] = {};
    failed_checks = &stack;
    ctx->errorAction(name, sizeof name);
    failed_checks = nullptr;
    if (name[0] == '\0' || ctx->logWrite == nullptr) {
        return;
    }
    char insert[sizeof name + 1];
    snprintf(insert, sizeof insert, "%.253s|", name);
    ctx->logWrite(number_checks_failed, insert);
}

}  // namespace

byte_order native_order() {
    return std::endian::native == std::endian::little ? order_little : order_big;
}

void msgconv_dump_failed_message() {
    if (failed_checks != nullptr) {
        const internal_stack_t& stack = *failed_checks;
        dump_message(stack.ctx, "message", stack.buffer.data, static_cast<size_t>(stack.buffer.size),
                     stack.request->check, stack.request->to_order, true);
    }
}

int walk(void* msg, size_t msgs, const msgconv_ctx_t* ctx, const walk_request& request, msg_error* error) {
    error->code = 0;
    error->subst[0] = '\0';
    error->warning_list = {0, nullptr};
    const unsigned char* first = static_cast<const unsigned char*>(msg);
    if (msgs == 0 || (msgs > 1 && first[0] == '<')) {
        return walk_accepted;
    }

    internal_stack_t stack;
    stack.current = nullptr;
    stack.buffer = {static_cast<unsigned char*>(msg), static_cast<int64_t>(msgs), 0, order_little};
    stack.request = &request;
    stack.ctx = ctx;
    stack.table = ctx != nullptr && ctx->table != nullptr ? ctx->table : get_msgtab();
    stack.error = error;
    stack.message_version = 0;
    stack.checks = check_stream_built();
    stack.plain = !stack.checks && request.visitor == nullptr && request.to_order == order_little;
    stack.errorsFound = 0;
    stack.parent_list.level = 0;
    if (msgs < sizeof(QX_HEADM) || msgs > INT32_MAX) {
        return fail(&stack, number_walk_too_short, "%u|%u|%s|", static_cast<unsigned>(sizeof(QX_HEADM)),
                    shown(stack.buffer.size), "?NULL?");
    }

    if (tracing(ctx, trace_level_dump)) {
        [[unlikely]] dump_message(ctx, request.check == check_to_lan ? "ToLAN" : "ToHOST", msg, msgs,
                                  request.check, request.to_order, tracing(ctx, trace_level_elements));
    }
    int result = parse_message(&stack);
    if (stack.errorsFound != 0) {
        report_failed_checks(stack);
    }
    if (tracing(ctx, trace_level_dump) && ctx->trcWrite != nullptr) {
        char line[128];
        snprintf(line, sizeof line, "walk: result %d, number %d, %lu warnings, %d failed checks", result,
                 error->code, static_cast<unsigned long>(error->warning_list.length), stack.errorsFound);
        ctx->trcWrite(line);
    }
    return result;
}
