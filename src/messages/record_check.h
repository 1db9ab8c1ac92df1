// Compile-time comparison of a packed record with its catalogue entry: every field at its place, with its
// size, in the catalogue's order and under its name. A field that one of the two lacks, or has elsewhere,
// does not compile.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "messages/catalogue.h"

struct record_field {
    std::string_view name;
    size_t offset;
    size_t size;
};

// A field's name as text beside its place; nothing but a macro can write the name once.
#define QX_FIELD(field)                                        \
    record_field {                                             \
#field, offsetof(Record, field), sizeof(Record::field) \
    }

constexpr bool is_filler(std::string_view name) {
    return name.starts_with("filler");
}

// Length of the record `name` among `parts`, 0 when it is not there.
constexpr size_t part_length(std::span<const catalogue_part> parts, std::string_view name) {
    for (const catalogue_part& part : parts)
        if (catalogue_name_matches(part.name, name))
            return static_cast<size_t>(part.msg_len);
    return 0;
}

// Whether `fields`, all but the fillers, are the fixed fields of the entry `name` of `own`, and the record
// has its length. Records inside it are looked up in `own` and `common`. A record that begins with `start`
// bytes of head has its fields behind it.
constexpr bool record_matches(std::span<const catalogue_part> own, std::span<const catalogue_part> common,
                              std::string_view name, size_t start, size_t record_size,
                              std::span<const record_field> fields) {
    size_t index = 0;
    while (index < own.size() && !catalogue_name_matches(own[index].name, name))
        index++;
    if (index == own.size() || static_cast<size_t>(own[index].msg_len) != record_size)
        return false;
    size_t offset = start;
    size_t next = 0;
    for (const msg_el& element : own[index].elements) {
        if (element.size < 0 || element.dim != 0 || element.relation != 0)
            continue;
        size_t size = static_cast<size_t>(element.size);
        if (element.type == el_struct) {
            size = part_length(own, element.structure);
            if (size == 0)
                size = part_length(common, element.structure);
        }
        if (!is_filler(element.name)) {
            if (next == fields.size() || fields[next].name != element.name || fields[next].offset != offset ||
                fields[next].size != size)
                return false;
            next++;
        }
        offset += size;
    }
    return next == fields.size() && offset == record_size;
}
