// The lines of protocol_*.h (see declare_records.h) as values from which catalogue.cpp makes its tables.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "messages/catalogue.h"
#include "messages/head.h"

namespace declare {

// One line: the begin of an entry, or a field of the entry begun last. Fields that it refers to stand by
// their names, null where there is none.
struct line {
    const char* name;
    bool begins = false;
    int32_t length = 0;  // of an entry: bytes of its fixed part
    int32_t head = 0;    // of an entry: those of them in front of its fields
    const char* structure = "";
    const char* check = nullptr;
    const char* size_field = nullptr;
    const char* dim_field = nullptr;
    const char* position_field = nullptr;
    int32_t size = 0;
    int32_t values = 0;  // named ones
    uint8_t type = 0;
    uint8_t version = 1;
    uint8_t rule = 0;
};

struct since {
    constexpr explicit since(uint8_t first) : version(first) {}
    uint8_t version;
};

struct check {
    constexpr explicit check(std::string_view text) : expression(text) {}
    std::string_view expression;
};

struct values {
    constexpr explicit values(int32_t named) : count(named) {}
    int32_t count;
};

constexpr void qualify(line* field, since from) {
    field->version = from.version;
}

constexpr void qualify(line* field, check that) {
    field->check = that.expression.data();
    if (that.expression.starts_with("enum(")) {
        field->values =
            static_cast<int32_t>(std::count(that.expression.begin(), that.expression.end(), ',')) + 1;
    }
}

constexpr void qualify(line* field, values named) {
    field->values = named.count;
}

constexpr void qualify(line* field, element_rule rule) {
    field->rule = static_cast<uint8_t>(field->rule | rule);
}

template <class... Qualities>
constexpr line field(line plain, Qualities... qualities) {
    (qualify(&plain, qualities), ...);
    return plain;
}

constexpr const char* position(const char* field) {
    return std::string_view(field) == "here" ? nullptr : field;
}

template <class Record, size_t bytes>
constexpr line entry(size_t head) {
    static_assert(sizeof(Record) == bytes, "its fields make another length");
    return {.name = Record::catalogue_name.data(),
            .begins = true,
            .length = bytes,
            .head = static_cast<int32_t>(head)};
}

}  // namespace declare

#define FIELD(text, kind, bytes, ...) \
    declare::field({.name = text, .size = bytes, .type = kind} __VA_OPT__(, ) __VA_ARGS__),
#define MESSAGE(type, bytes) declare::entry<MSG_TYPE_##type, bytes>(sizeof(QX_HEADM)),
#define PART(type, bytes) declare::entry<MSG_TYPE_##type, bytes>(0),
#define END
#define FOREIGN(type) declare::line{.name = #type, .begins = true},
#define I8(name, ...) FIELD(#name, el_signed, 1, __VA_ARGS__)
#define I16(name, ...) FIELD(#name, el_signed, 2, __VA_ARGS__)
#define I32(name, ...) FIELD(#name, el_signed, 4, __VA_ARGS__)
#define I64(name, ...) FIELD(#name, el_signed, 8, __VA_ARGS__)
#define U16(name, ...) FIELD(#name, el_unsigned, 2, __VA_ARGS__)
#define U32(name, ...) FIELD(#name, el_unsigned, 4, __VA_ARGS__)
#define U64(name, ...) FIELD(#name, el_unsigned, 8, __VA_ARGS__)
#define CHAR(name, ...) FIELD(#name, el_text_padded, 1, __VA_ARGS__)
#define DIGIT(name, ...) FIELD(#name, el_zoned, 1, __VA_ARGS__)
#define TEXT(name, bytes, ...) FIELD(#name, el_text_padded, bytes, __VA_ARGS__)
#define STRING(name, bytes, ...) FIELD(#name, el_text_ended, bytes, __VA_ARGS__)
#define BYTES(name, bytes, ...) FIELD(#name, el_binary, bytes, __VA_ARGS__)
#define PAD(member, bytes) FIELD("filler", el_filler, bytes)
#define RECORD(field_name, part, ...) \
    declare::field({.name = #field_name, .structure = #part, .type = el_struct} __VA_OPT__(, ) __VA_ARGS__),
#define SIZED(text, kind, length, place, ...)                    \
    declare::field({.name = text,                                \
                    .size_field = #length,                       \
                    .position_field = declare::position(#place), \
                    .type = kind} __VA_OPT__(, ) __VA_ARGS__),
#define SIZED_TEXT(name, length, place, ...) SIZED(#name, el_text_sized, length, place, __VA_ARGS__)
#define SIZED_BYTES(name, length, place, ...) SIZED(#name, el_binary_sized, length, place, __VA_ARGS__)
#define TABLE(field_name, part, count, place, ...)               \
    declare::field({.name = #field_name,                         \
                    .structure = #part,                          \
                    .dim_field = #count,                         \
                    .position_field = declare::position(#place), \
                    .type = el_struct} __VA_OPT__(, ) __VA_ARGS__),
