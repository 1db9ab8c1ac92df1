// A message for the trace: as it stands, but without what nobody may read there.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "messages/head.h"
#include "messages/walk_state.h"

namespace {

constexpr char hidden = '*';

// What the dump is made of while the walk goes through the message.
struct dump_copy {
    const msgconv_ctx_t* ctx;
    const unsigned char* message;
    size_t length;
    unsigned char* bytes;
    bool elements;   // write a line for each field
    bool in_values;  // the walk is inside a record of the value table
    bool seen_only;  // take over what the walk has read, instead of hiding what is secret
};

// Passwords travel enciphered, but under a key that the message itself tells; values of logins likewise.
bool is_secret(const dump_copy& copy, const msg_el& element) {
    std::string_view name = element.name;
    return name.ends_with("passw") || name.ends_with("password") || (copy.in_values && name == "value");
}

void take_field(void* context, const walk_field& field) {
    auto* copy = static_cast<dump_copy*>(context);
    if (field.event == walk_struct_begin || field.event == walk_struct_end) {
        copy->in_values =
            field.event == walk_struct_begin && strcmp(field.element->structure, "VALUETAB") == 0;
    }
    if (field.event != walk_value || field.size == 0) {
        return;
    }
    size_t at = static_cast<size_t>(field.data - copy->message);
    bool secret = is_secret(*copy, *field.element);
    if (secret) {
        memset(copy->bytes + at, hidden, field.size);
    } else if (copy->seen_only) {
        memcpy(copy->bytes + at, field.data, field.size);
    }
    if (copy->elements) {
        char line[128];
        snprintf(line, sizeof line, "%.64s: %s at %zu, %zu bytes", field.element->name,
                 type2string(field.element->type), at, field.size);
        copy->ctx->trcWrite(line);
    }
}

int walk_silently(const dump_copy& copy, walk_check check, byte_order to_order) {
    msgconv_ctx_t silent;
    silent.table = copy.ctx->table;
    dump_copy context = copy;
    walk_visitor visitor = {take_field, &context};
    msg_error error;
    // With the swap in a copy of its own the walk leaves the message alone.
    int result = walk(const_cast<unsigned char*>(copy.message), copy.length, &silent,
                      {check, walk_swap_copy, to_order, &visitor, nullptr}, &error);
    free_warning_list(&error);
    return result;
}

}  // namespace

void dump_message(const msgconv_ctx_t* ctx, const char* title, const void* msg, size_t msgs, walk_check check,
                  byte_order to_order, bool elements) {
    if (ctx == nullptr || ctx->trcDump == nullptr) {
        return;
    }
    std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[msgs]);
    if (bytes == nullptr) {
        return;
    }
    memcpy(bytes.get(), msg, msgs);
    dump_copy copy = {ctx,         static_cast<const unsigned char*>(msg), msgs,
                      bytes.get(), elements && ctx->trcWrite != nullptr,   false,
                      false};
    if (walk_silently(copy, check, to_order) == walk_failed) {
        // Where the fields behind the fault stand is unknown, the secret ones as well. Nothing is shown that
        // the walk has not read; what it read twice is hidden if it is a secret one of the two times.
        size_t head = msgs < sizeof(QX_HEADM) ? msgs : sizeof(QX_HEADM);
        memset(bytes.get() + head, hidden, msgs - head);
        copy.elements = false;
        copy.seen_only = true;
        walk_silently(copy, check, to_order);
        copy.seen_only = false;
        walk_silently(copy, check, to_order);
    }
    ctx->trcDump(title, bytes.get(), msgs);
    explicit_bzero(bytes.get(), msgs);
}
