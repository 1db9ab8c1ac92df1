#include "messages/catalogue.h"

#include <algorithm>
#include <array>

#include "messages/catalogue_common.h"
#include "messages/catalogue_event.h"
#include "messages/catalogue_foreign.h"
#include "messages/catalogue_job.h"
#include "messages/catalogue_report.h"
#include "messages/catalogue_server.h"
#include "messages/catalogue_transfer.h"

namespace {

constexpr std::array<std::span<const catalogue_part>, 7> all_parts = {
    common_catalogue,   server_catalogue, job_catalogue,     report_catalogue,
    transfer_catalogue, event_catalogue,  foreign_catalogue,
};

constexpr size_t count_entries() {
    size_t count = 0;
    for (const auto& parts : all_parts)
        count += parts.size();
    return count;
}
static_assert(count_entries() == catalogue_count);

// Sorting happens while compiling, so that a lookup never depends on who opened the engine first.
constexpr auto sorted_parts = [] {
    std::array<catalogue_part, catalogue_count> sorted{};
    size_t at = 0;
    for (const auto& parts : all_parts)
        for (const catalogue_part& part : parts)
            sorted[at++] = part;
    std::sort(sorted.begin(), sorted.end(), [](const catalogue_part& a, const catalogue_part& b) {
        return std::string_view(a.name) < std::string_view(b.name);
    });
    return sorted;
}();

constexpr bool names_are_unique() {
    for (size_t i = 1; i < sorted_parts.size(); i++)
        if (std::string_view(sorted_parts[i - 1].name) == sorted_parts[i].name)
            return false;
    return true;
}
static_assert(names_are_unique());

constexpr size_t element_count = [] {
    size_t count = 0;
    for (const catalogue_part& part : sorted_parts)
        count += part.elements.size();
    return count;
}();

constexpr auto flat_elements = [] {
    std::array<msg_el, element_count> flat{};
    size_t at = 0;
    for (const catalogue_part& part : sorted_parts)
        for (const msg_el& element : part.elements)
            flat[at++] = element;
    return flat;
}();

// For each element the number of the record that it names, in the sorted table, plus 1; 0 for other types.
constexpr auto structure_numbers = [] {
    std::array<uint8_t, element_count> numbers{};
    for (size_t i = 0; i < element_count; i++) {
        if (flat_elements[i].type != el_struct)
            continue;
        for (size_t k = 0; k < sorted_parts.size() && numbers[i] == 0; k++)
            if (catalogue_name_matches(sorted_parts[k].name, flat_elements[i].structure))
                numbers[i] = static_cast<uint8_t>(k + 1);
    }
    return numbers;
}();

constexpr bool references_are_sound() {
    for (size_t i = 0; i < element_count; i++)
        if ((flat_elements[i].type == el_struct) != (structure_numbers[i] != 0))
            return false;
    return true;
}
static_assert(references_are_sound());

constexpr uint8_t referred_index(const catalogue_part& part, size_t index, int32_t reference) {
    for (size_t k = 0; reference < 0 && k < index; k++)
        if (part.elements[k].count == -reference)
            return static_cast<uint8_t>(k);
    return static_cast<uint8_t>(index);
}

constexpr auto references = [] {
    std::array<element_references, element_count> table{};
    size_t at = 0;
    for (const catalogue_part& part : sorted_parts)
        for (size_t k = 0; k < part.elements.size(); k++)
            table[at++] = {referred_index(part, k, part.elements[k].size),
                           referred_index(part, k, part.elements[k].dim),
                           referred_index(part, k, part.elements[k].relation)};
    return table;
}();

// The first 8 characters of each name as a number that sorts like them.
constexpr uint64_t name_key(const char* name) {
    uint64_t key = 0;
    for (size_t i = 0; i < 8; i++)
        key = key << 8 | static_cast<unsigned char>(name[i]);
    return key;
}

constexpr auto name_keys = [] {
    std::array<uint64_t, catalogue_count> keys{};
    for (size_t i = 0; i < keys.size(); i++)
        keys[i] = name_key(sorted_parts[i].name);
    return keys;
}();

// `chkptr` of these is written once, by msgconv_open.
constinit std::array<msg_el, element_count> elements = flat_elements;

constinit std::array<msgtab_el, catalogue_count> entries = [] {
    std::array<msgtab_el, catalogue_count> table{};
    size_t at = 0;
    for (size_t i = 0; i < table.size(); i++) {
        const catalogue_part& part = sorted_parts[i];
        table[i] = {part.name, {part.elements.size(), elements.data() + at}, part.msg_len};
        at += part.elements.size();
    }
    return table;
}();

constinit MSGTAB catalogue = {catalogue_count, entries.data()};

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
    if (name.empty() || name.size() > sizeof upper)
        return nullptr;
    for (size_t i = 0; i < name.size(); i++)
        upper[i] = name[i] >= 'a' && name[i] <= 'z' ? static_cast<char>(name[i] - 'a' + 'A') : name[i];
    std::string_view text(upper, name.size());

    const msgtab_el* end = table->entries + table->count;
    const msgtab_el* entry = first_entry_from(table, text);
    // Entries that only begin with the text stand next to each other: TIMESTAMP, TIMESTAMP2.
    for (; entry != end && std::string_view(entry->name).starts_with(text); entry++)
        if (catalogue_name_matches(entry->name, text))
            return entry;
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
    if (definition->length == 0 || !is_catalogue_element(definition->elements))
        return nullptr;
    return &references[static_cast<size_t>(definition->elements - elements.data())];
}
