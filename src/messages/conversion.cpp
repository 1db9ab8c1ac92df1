#include "messages/conversion.h"

#include <cstdlib>
#include <cstring>

#include "base/message_numbers.h"
#include "messages/checks.h"
#include "messages/head.h"
#include "messages/walk.h"

void free_warning_list(msg_error* error) {
    free(error->warning_list.list);
    error->warning_list = {0, nullptr};
}

const char* type2string(int type) {
    switch (type) {
        case el_signed:
            return "Signed Integer";
        case el_unsigned:
            return "Unsigned Integer";
        case el_text_padded:
            return "String Padded";
        case el_text_sized:
            return "String Sized";
        case el_text_ended:
            return "Ascii String";
        case el_binary:
            return "Binary";
        case el_binary_sized:
            return "Binary Sized";
        case el_struct:
            return "Struct";
        case el_const:
            return "Const";
        case el_union:
            return "Union";
        case el_zoned:
            return "Zoned Decimal";
        case el_filler:
            return "Filler";
        case el_array:
            return "Array";
        default:
            return "Unknown";
    }
}

namespace {

void log_number(const msgconv_ctx_t* ctx, int number, const char* insert) {
    if (ctx != nullptr && ctx->logWrite != nullptr) {
        ctx->logWrite(number, insert);
    }
}

// Compiles every check of the catalogue and logs how each one went.
void build_check_stream(const msgconv_ctx_t* ctx) {
    MSGTAB* table = get_msgtab();
    int total = 0;
    int compiled = 0;
    char insert[msg_error_text_size];
    for (int64_t i = 0; i < table->count; ++i) {
        msgtab_el* entry = &table->entries[i];
        int name_length = static_cast<int>(catalogue_trimmed_name(entry->name).size());
        for (uint64_t k = 0; k < entry->msg_def.length; ++k) {
            msg_el* element = &entry->msg_def.elements[k];
            if (element->chkstr == nullptr) {
                continue;
            }
            ++total;
            msg_error error;
            if (compileCheckStream(ctx, element, &error) == 0) {
                ++compiled;
                snprintf(insert, sizeof insert, "%s|%.*s.%s|", element->chkstr, name_length, entry->name,
                         element->name);
                log_number(ctx, number_check_compiled, insert);
                continue;
            }
            log_number(ctx, error.code, error.subst);
            snprintf(insert, sizeof insert, "%.*s.%s|", name_length, entry->name, element->name);
            log_number(ctx, number_check_not_compiled, insert);
        }
    }
    snprintf(insert, sizeof insert, "%d|%d|", compiled, total);
    log_number(ctx, number_checks_compiled, insert);
}

int log_result(const msgconv_ctx_t* ctx, int result, msg_error* error) {
    if (result == walk_accepted) {
        return 0;
    }
    if (error->code != 0) {
        log_number(ctx, error->code, error->subst);
    }
    for (uint64_t i = 0; i < error->warning_list.length; ++i) {
        log_number(ctx, error->warning_list.list[i].code, error->warning_list.list[i].subst);
    }
    free_warning_list(error);
    return -1;
}

bool definition_has_content(const MSGTAB* table, const msgtab_el* entry, int depth) {
    if (entry == nullptr || depth == 0) {
        return false;
    }
    for (uint64_t i = 0; i < entry->msg_def.length; ++i) {
        const msg_el* element = &entry->msg_def.elements[i];
        if ((element->rule & rule_content) != 0) {
            return true;
        }
        if (element->type == el_struct &&
            definition_has_content(table, element_structure(table, element), depth - 1)) {
            return true;
        }
    }
    return false;
}

const MSGTAB* table_of(const msgconv_ctx_t* ctx) {
    return ctx != nullptr && ctx->table != nullptr ? ctx->table : get_msgtab();
}

}  // namespace

int msgconv_open(msgconv_ctx_t* ctx, const std::atomic<char>* flag, void (*tw)(const char*),
                 void (*td)(const char*, const void*, size_t), void (*lw)(int, const char*),
                 void (*ea)(char*, size_t), int buildCheckStream) {
    *ctx = msgconv_ctx_t{tw, td, lw, ea, flag, nullptr};
    if (buildCheckStream != 0) {
        build_check_stream(ctx);
    }
    return 0;
}

void msgconv_close() {
    check_stream_free();
}

int ToLAN(void* msg, size_t msgs, const msgconv_ctx_t* ctx, int internal, const void*, msg_error* error) {
    return walk(msg, msgs, ctx,
                {check_to_lan, internal & ~walk_find_content, native_order(), nullptr, nullptr}, error);
}

int ToHOST(void* msg, size_t msgs, const msgconv_ctx_t* ctx, int internal, const void*, msg_error* error) {
    return walk(msg, msgs, ctx,
                {check_to_host, internal & ~walk_find_content, native_order(), nullptr, nullptr}, error);
}

int walk_message(void* msg, size_t msgs, bool to_lan, const msgconv_ctx_t* ctx, const walk_visitor* visitor,
                 msg_error* error) {
    return walk(msg, msgs, ctx, {to_lan ? check_to_lan : check_to_host, 0, native_order(), visitor, nullptr},
                error);
}

int msgconv_ToHost(void* msg, size_t msgs, const msgconv_ctx_t* ctx) {
    if (msgs >= sizeof(QX_HEADM) && message_type_is(msg, msgs, "MELD")) {
        return 0;
    }
    msg_error error;
    return log_result(ctx, ToHOST(msg, msgs, ctx, 0, nullptr, &error), &error);
}

int msgconv_ToLan(void* msg, size_t msgs, const msgconv_ctx_t* ctx) {
    msg_error error;
    return log_result(ctx, ToLAN(msg, msgs, ctx, 0, nullptr, &error), &error);
}

int has_content_field(const msgconv_ctx_t* ctx, const char* name, size_t name_len) {
    constexpr int deepest = 14;
    const MSGTAB* table = table_of(ctx);
    return definition_has_content(table, find_definition(table, {name, name_len}), deepest) ? 1 : 0;
}

int msgconv_getContentField(void* msg, size_t msgs, const msgconv_ctx_t* ctx, content_info_t* info,
                            msg_error* error) {
    *info = {nullptr, nullptr};
    error->code = 0;
    error->subst[0] = '\0';
    error->warning_list = {0, nullptr};
    const char* type = static_cast<const char*>(msg);
    if (msgs < sizeof(QX_HEADM) || find_definition(table_of(ctx), {type, message_type_size}) == nullptr) {
        return -1;
    }
    if (has_content_field(ctx, type, message_type_size) == 0) {
        return 1;
    }
    walk(msg, msgs, ctx, {check_to_lan, walk_swap_copy | walk_find_content, native_order(), nullptr, info},
         error);
    return info->content_field != nullptr ? 0 : 1;
}
