// Compile-time comparison of a packed record with its catalogue entry.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "messages/catalogue.h"
#include "messages/head.h"

struct record_field {
    std::string_view name;
    size_t offset;
    size_t size;
};

// A list of fields needs each field's name as text beside its place; only a macro can write a name once.
#define QX_FIELD(field)                                        \
    record_field {                                             \
#field, offsetof(Record, field), sizeof(Record::field) \
    }
