#include "messages/catalogue.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <span>

#include "messages/records_common.h"
#include "messages/records_event.h"
#include "messages/records_job.h"
#include "messages/records_report.h"
#include "messages/records_server.h"
#include "messages/records_transfer.h"

// Defines what the lists are read by, so that it comes last.
#include "messages/declare_rows.h"

namespace {

using namespace declare;

constexpr line lines[] = {
#include "messages/protocol_common.h"
#include "messages/protocol_event.h"
#include "messages/protocol_foreign.h"
#include "messages/protocol_job.h"
#include "messages/protocol_report.h"
#include "messages/protocol_server.h"
#include "messages/protocol_transfer.h"
};
#include "messages/declare_end.h"

// An entry of the catalogue: a line that begins one, and those of its fields behind it.
struct entry_lines {
    const line* begin;
    std::span<const line> fields;
};

constexpr size_t entry_count = static_cast<size_t>(
    std::count_if(std::begin(lines), std::end(lines), [](const line& line) { return line.begins; }));
constexpr size_t element_count = std::size(lines) - entry_count;
static_assert(entry_count < UINT8_MAX);  // structure_numbers

// Sorting happens while compiling, so that a lookup never depends on who opened the engine first.
constexpr auto sorted_entries = [] {
    std::array<entry_lines, entry_count> sorted{};
    size_t at = 0;
    for (const line* begin = lines; begin != std::end(lines);) {
        const line* end =
            std::find_if(begin + 1, std::end(lines), [](const line& line) { return line.begins; });
        sorted[at++] = {begin, {begin + 1, end}};
        begin = end;
    }
    std::sort(sorted.begin(), sorted.end(), [](const entry_lines& a, const entry_lines& b) {
        return std::string_view(a.begin->name) < b.begin->name;
    });
    return sorted;
}();

constexpr bool names_are_unique() {
    for (size_t i = 1; i < sorted_entries.size(); ++i) {
        if (std::string_view(sorted_entries[i - 1].begin->name) == sorted_entries[i].begin->name) {
            return false;
        }
    }
    return true;
}
static_assert(names_are_unique());

constexpr size_t longest_name = 18;

// Names, blank-padded to 8 characters.
constexpr auto padded_names = [] {
    std::array<std::array<char, longest_name + 1>, entry_count> names{};
    for (size_t i = 0; i < names.size(); ++i) {
        std::string_view name = sorted_entries[i].begin->name;
        std::fill_n(names[i].begin(), message_type_size, ' ');
        std::copy(name.begin(), name.end(), names[i].begin());
    }
    return names;
}();

// Index of the field `name` in front of the field `index`; `index` itself when nothing is referred to. A
// name that is not there does not compile.
constexpr size_t referred_index(std::span<const line> fields, size_t index, const char* name) {
    if (name == nullptr) {
        return index;
    }
    for (size_t i = 0; i < index; ++i) {
        if (std::string_view(fields[i].name) == name) {
            return i;
        }
    }
    throw "a field that is not in front of this one";
}

// A field's number: its place, counted from 1, with room for the named values of those in front of it.
constexpr int32_t field_number(std::span<const line> fields, size_t index) {
    int32_t number = 1;
    for (const line& field : fields.first(index)) {
        number += 1 + field.values;
    }
    return number;
}

constexpr int32_t reference(std::span<const line> fields, size_t index, const char* name) {
    return name == nullptr ? 0 : -field_number(fields, referred_index(fields, index, name));
}

constexpr msg_el element_of(std::span<const line> fields, size_t index) {
    const line& field = fields[index];
    return {.name = field.name,
            .structure = field.structure,
            .chkstr = field.check,
            .count = field_number(fields, index),
            .size = field.size_field == nullptr ? field.size : reference(fields, index, field.size_field),
            .dim = reference(fields, index, field.dim_field),
            .relation = reference(fields, index, field.position_field),
            .isunion = 0,
            .chkptr = 0,
            .type = field.type,
            .version = field.version,
            .rule = field.rule,
            .filler = 0};
}

constexpr auto flat_elements = [] {
    std::array<msg_el, element_count> flat{};
    size_t at = 0;
    for (const entry_lines& entry : sorted_entries) {
        for (size_t i = 0; i < entry.fields.size(); ++i) {
            flat[at++] = element_of(entry.fields, i);
        }
    }
    return flat;
}();

// For each element the number of the record that it names, in the sorted table, plus 1; 0 for other types.
constexpr auto structure_numbers = [] {
    std::array<uint8_t, element_count> numbers{};
    for (size_t i = 0; i < element_count; ++i) {
        if (flat_elements[i].type != el_struct) {
            continue;
        }
        for (size_t k = 0; k < sorted_entries.size() && numbers[i] == 0; ++k) {
            if (std::string_view(sorted_entries[k].begin->name) == flat_elements[i].structure) {
                numbers[i] = static_cast<uint8_t>(k + 1);
            }
        }
    }
    return numbers;
}();

constexpr bool references_are_sound() {
    for (size_t i = 0; i < element_count; ++i) {
        if ((flat_elements[i].type == el_struct) != (structure_numbers[i] != 0)) {
            return false;
        }
    }
    return true;
}
static_assert(references_are_sound());

// Whether the fields of each entry make its length.
constexpr bool lengths_add_up() {
    for (const entry_lines& entry : sorted_entries) {
        int32_t length = entry.begin->head;
        for (const line& field : entry.fields) {
            bool fixed = field.size_field == nullptr && field.dim_field == nullptr;
            bool inner = fixed && field.type == el_struct;
            for (size_t k = 0; k < sorted_entries.size() && inner; ++k) {
                if (std::string_view(sorted_entries[k].begin->name) == field.structure) {
                    length += sorted_entries[k].begin->length;
                }
            }
            length += fixed ? field.size : 0;
        }
        if (length != entry.begin->length) {
            return false;
        }
    }
    return true;
}
static_assert(lengths_add_up());

constexpr auto references = [] {
    std::array<element_references, element_count> table{};
    size_t at = 0;
    for (const auto& [begin, fields] : sorted_entries) {
        for (size_t i = 0; i < fields.size(); ++i) {
            table[at++] = {static_cast<uint8_t>(referred_index(fields, i, fields[i].size_field)),
                           static_cast<uint8_t>(referred_index(fields, i, fields[i].dim_field)),
                           static_cast<uint8_t>(referred_index(fields, i, fields[i].position_field))};
        }
    }
    return table;
}();

// The first 8 characters of each name as a number that sorts like them.
constexpr uint64_t name_key(const char* name) {
    uint64_t key = 0;
    for (size_t i = 0; i < 8; ++i) {
        key = key << 8 | static_cast<unsigned char>(name[i]);
    }
    return key;
}

constexpr auto name_keys = [] {
    std::array<uint64_t, entry_count> keys{};
    for (size_t i = 0; i < keys.size(); ++i) {
        keys[i] = name_key(padded_names[i].data());
    }
    return keys;
}();

// `chkptr` of these is written once, by msgconv_open.
constinit std::array<msg_el, element_count> elements = flat_elements;

constinit std::array<msgtab_el, entry_count> entries = [] {
    std::array<msgtab_el, entry_count> table{};
    size_t at = 0;
    for (size_t i = 0; i < table.size(); ++i) {
        const auto& [begin, fields] = sorted_entries[i];
        table[i] = {padded_names[i].data(), {fields.size(), elements.data() + at}, begin->length};
        at += fields.size();
    }
    return table;
}();

constinit MSGTAB catalogue = {entry_count, entries.data()};

// First entry that does not sort before `text`.
const msgtab_el* first_entry_from(const MSGTAB* table, std::string_view text) {
    if (table == &catalogue && text.size() == 8) {
        auto key = std::lower_bound(name_keys.begin(), name_keys.end(), name_key(text.data()));
        return entries.data() + (key - name_keys.begin());
    }
    return std::lower_bound(table->entries, table->entries + table->count, text,
                            [](const msgtab_el& entry, std::string_view wanted) {
                                return std::string_view(entry.name).substr(0, wanted.size()) < wanted;
                            });
}

bool is_catalogue_element(const msg_el* element) {
    return element >= elements.data() && element < elements.data() + element_count;
}

}  // namespace

MSGTAB* get_msgtab() {
    return &catalogue;
}

const msgtab_el* find_definition(const MSGTAB* table, std::string_view name) {
    char upper[64];
    if (name.empty() || name.size() > sizeof upper) {
        return nullptr;
    }
    for (size_t i = 0; i < name.size(); ++i) {
        upper[i] = name[i] >= 'a' && name[i] <= 'z' ? static_cast<char>(name[i] - 'a' + 'A') : name[i];
    }
    std::string_view text(upper, name.size());

    const msgtab_el* end = table->entries + table->count;
    const msgtab_el* entry = first_entry_from(table, text);
    // Entries that only begin with the text stand next to each other: TIMESTAMP, TIMESTAMP2.
    for (; entry != end && std::string_view(entry->name).starts_with(text); ++entry) {
        if (catalogue_name_matches(entry->name, text)) {
            return entry;
        }
    }
    return nullptr;
}

const msgtab_el* element_structure(const MSGTAB* table, const msg_el* element) {
    if (table == &catalogue && is_catalogue_element(element)) {
        uint8_t number = structure_numbers[static_cast<size_t>(element - elements.data())];
        return number == 0 ? nullptr : &entries[number - 1U];
    }
    return find_definition(table, element->structure);
}

const element_references* catalogue_references(const element_array_t* definition) {
    if (definition->length == 0 || !is_catalogue_element(definition->elements)) {
        return nullptr;
    }
    return &references[static_cast<size_t>(definition->elements - elements.data())];
}
