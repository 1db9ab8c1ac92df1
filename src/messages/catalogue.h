// The catalogue: every message and every record inside messages, field by field.
//
// It is made while compiling from protocol_*.h, the only place that tells a field's type, size, version and
// check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

enum element_type : uint8_t {
    el_signed = 1,        // 1, 2, 4 or 8 bytes
    el_unsigned = 2,      //
    el_text_padded = 3,   // blank-padded
    el_text_sized = 4,    // length in another field
    el_text_ended = 5,    // up to a NUL, at most `size` bytes
    el_binary = 6,        //
    el_binary_sized = 7,  // length in another field
    el_struct = 8,        // a record of its own
    el_const = 9,         // never valid in a message
    el_union = 10,        // never valid in a message
    el_zoned = 11,        // decimal digits as text
    el_filler = 98,       // reserved bytes
    el_array = 99         // bytes that are passed over
};

enum element_rule : uint8_t {
    rule_no_touch = 1,    // neither swapped nor checked
    rule_variable = 2,    // stands in the variable data; the walk does not act on it
    rule_terminated = 4,  // ends with a NUL that must be there
    rule_filter = 8,      // the walk does not act on it
    rule_displaced = 32,  // the table stands at its "dist" position, outside the walk's order
    rule_content = 64     // the message's content field
};

// One field. References to other fields are negative `count` values.
struct msg_el {
    const char* name;
    const char* structure;  // of el_struct: name of the record in the catalogue
    const char* chkstr;     // check expression, or null
    int32_t count;          // the field's number within its record, rising, with gaps
    int32_t size;           // bytes; negative: the field that holds the size
    int32_t dim;            // 0 scalar; positive: repetitions; negative: the field that holds their number
    int32_t relation;       // 0: at the current place; negative: the field that holds the position
    int32_t isunion;        // always 0
    int32_t chkptr;         // offset of the compiled check in the check stream, 0 without
    uint8_t type;           // element_type
    uint8_t version;        // first message version that has the field
    uint8_t rule;           // element_rule bits
    uint8_t filler;
};

struct element_array_t {
    uint64_t length;
    msg_el* elements;
};

struct msgtab_el {
    const char* name;         // upper case, blank-padded to at least 8 characters
    element_array_t msg_def;  // no elements: a name that only other components use
    int32_t msg_len;          // bytes of the fixed part, head included
};

// count  entries of the catalogue
// entries  sorted by name
struct MSGTAB {
    int64_t count;
    msgtab_el* entries;
};

// The catalogue. Sorted from the start; only `msgconv_open` changes it (the `chkptr` of its elements), so
// every thread may read it. Never null.
MSGTAB* get_msgtab();

// The entry whose name is `name` (any case): `name` must be followed in the table by its end or a blank, so
// "FTXQUIT " is FTXQUIT and never a longer name. Null when there is none.
const msgtab_el* find_definition(const MSGTAB* table, std::string_view name);

// The record that an el_struct element names, null when there is none. Quick for the catalogue's own
// elements.
const msgtab_el* element_structure(const MSGTAB* table, const msg_el* element);

// Indexes of the fields that an element refers to, so that the walk need not search; the element's own index
// where there is no such reference.
struct element_references {
    uint8_t size;
    uint8_t dim;
    uint8_t relation;
};

// One for each element of a record of the catalogue; null for other tables.
const element_references* catalogue_references(const element_array_t* definition);

// Compares names of the catalogue: `text` matches when `entry` begins with it and then ends or has a blank.
constexpr bool catalogue_name_matches(std::string_view entry, std::string_view text) {
    return entry.starts_with(text) && (entry.size() == text.size() || entry[text.size()] == ' ');
}

// A name without the blanks that pad it.
constexpr std::string_view catalogue_trimmed_name(std::string_view entry) {
    return entry.substr(0, entry.find(' '));
}
