#include "catalogue_page.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>
#include <vector>

#include "messages/catalogue.h"
#include "messages/head.h"

namespace {

bool is_fixed(const msg_el& element) {
    return element.size >= 0 && element.dim == 0 && element.relation == 0;
}

// Bytes of a fixed field.
int fixed_size(const msg_el& element) {
    return element.type == el_struct ? element_structure(get_msgtab(), &element)->msg_len : element.size;
}

int fixed_part(const msgtab_el& entry) {
    int size = 0;
    for (uint64_t i = 0; i < entry.msg_def.length; ++i) {
        if (is_fixed(entry.msg_def.elements[i])) {
            size += fixed_size(entry.msg_def.elements[i]);
        }
    }
    return size;
}

// A message's length counts its head; a record's does not.
bool is_message(const msgtab_el& entry) {
    return fixed_part(entry) + static_cast<int>(sizeof(QX_HEADM)) == entry.msg_len;
}

std::string_view field_of(const msgtab_el& entry, int32_t reference) {
    for (uint64_t i = 0; i < entry.msg_def.length; ++i) {
        if (entry.msg_def.elements[i].count == -reference) {
            return entry.msg_def.elements[i].name;
        }
    }
    return "?";
}

std::string_view type_name(const msg_el& element) {
    switch (element.type) {
        case el_signed:
            return "integer";
        case el_unsigned:
            return "unsigned";
        case el_text_padded:
        case el_text_sized:
            return "text";
        case el_text_ended:
            return "text, NUL";
        case el_binary:
        case el_binary_sized:
            return "bytes";
        case el_struct:
            return "record";
        case el_zoned:
            return "digits";
        case el_filler:
            return "filler";
        default:
            return "?";
    }
}

std::string size_text(const msgtab_el& entry, const msg_el& element) {
    if (element.type == el_struct) {
        return element.structure;
    }
    if (element.size < 0) {
        return std::string(field_of(entry, element.size));
    }
    return (element.type == el_text_ended ? "up to " : "") + std::to_string(element.size);
}

std::string notes(const msgtab_el& entry, const msg_el& element) {
    std::vector<std::string> parts;
    if (element.relation < 0) {
        parts.push_back(fmt::format("at {}", field_of(entry, element.relation)));
    }
    if (element.dim < 0) {
        parts.push_back(fmt::format("{} times", field_of(entry, element.dim)));
    }
    if ((element.rule & rule_displaced) != 0) {
        parts.push_back("out of order");
    }
    if (element.chkstr != nullptr) {
        parts.push_back(element.chkstr);
    }
    return fmt::format("{}", fmt::join(parts, "; "));
}

void append_entry(std::string* page, const msgtab_el& entry) {
    auto out = std::back_inserter(*page);
    bool message = is_message(entry);
    fmt::format_to(out, "### {}\n\n{}, fixed part {} bytes.\n\n", catalogue_trimmed_name(entry.name),
                   message ? "Message" : "Record", entry.msg_len);
    fmt::format_to(out, "| Pos | Field | Type | Bytes | From | Notes |\n|---|---|---|---|---|---|\n");
    int position = message ? static_cast<int>(sizeof(QX_HEADM)) : 0;
    for (uint64_t i = 0; i < entry.msg_def.length; ++i) {
        const msg_el& element = entry.msg_def.elements[i];
        bool fixed = is_fixed(element);
        fmt::format_to(out, "| {} | {} | {} | {} | {:02} | {} |\n", fixed ? std::to_string(position) : "",
                       element.name, type_name(element), size_text(entry, element), element.version,
                       notes(entry, element));
        position += fixed ? fixed_size(element) : 0;
    }
    *page += '\n';
}

void append_entries(std::string* page, bool messages) {
    const MSGTAB* table = get_msgtab();
    for (int64_t i = 0; i < table->count; ++i) {
        if (table->entries[i].msg_def.length > 0 && is_message(table->entries[i]) == messages) {
            append_entry(page, table->entries[i]);
        }
    }
}

void append_foreign(std::string* page) {
    const MSGTAB* table = get_msgtab();
    std::vector<std::string_view> names;
    for (int64_t i = 0; i < table->count; ++i) {
        if (table->entries[i].msg_def.length == 0) {
            names.push_back(catalogue_trimmed_name(table->entries[i].name));
        }
    }
    fmt::format_to(std::back_inserter(*page), "{}.\n", fmt::join(names, ", "));
}

}  // namespace

std::string cp_catalogue_page() {
    std::string page = "## Messages\n\n";
    append_entries(&page, true);
    page += "## Records inside messages\n\n";
    append_entries(&page, false);
    page +=
        "## Names without fields\n\nOther components use these; the agent passes their heads and looks at "
        "nothing "
        "behind them.\n\n";
    append_foreign(&page);
    return page;
}
