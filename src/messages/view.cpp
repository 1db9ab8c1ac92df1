#include "messages/view.h"

#include <algorithm>
#include <cstring>

#include "messages/catalogue.h"

namespace {

constexpr bool is_text(uint8_t type) {
    return type == el_text_padded || type == el_text_sized || type == el_zoned;
}

constexpr bool is_fixed(const msg_el& element) {
    return element.size >= 0 && element.dim == 0 && element.relation == 0;
}

// Carries the fields of one record from the message, where those of higher versions have no bytes, to their
// fixed places.
struct fixed_reader {
    message_view view;
    int version;
    unsigned char* record;
    size_t record_size;
    size_t from;  // in the message
    size_t to;    // in the record
};

void read_field(fixed_reader* reader, const msg_el& element) {
    size_t size = static_cast<size_t>(element.size);
    if (size > reader->record_size - reader->to) {
        return;
    }
    unsigned char* field = reader->record + reader->to;
    memset(field, is_text(element.type) ? ' ' : 0, size);
    reader->to += size;
    if (element.version > reader->version) {
        return;
    }
    size_t there = reader->from < reader->view.length ? reader->view.length - reader->from : 0;
    size_t copied = there >= size ? size : is_text(element.type) ? there : 0;
    if (copied > 0) {
        memcpy(field, reader->view.data + reader->from, copied);
    }
    reader->from += size;
}

void read_fields(fixed_reader* reader, const msgtab_el* definition) {
    for (uint64_t i = 0; i < definition->msg_def.length; ++i) {
        const msg_el& element = definition->msg_def.elements[i];
        if (!is_fixed(element)) {
            continue;
        }
        if (element.type != el_struct) {
            read_field(reader, element);
            continue;
        }
        const msgtab_el* inner = element_structure(get_msgtab(), &element);
        if (inner == nullptr) {
            continue;
        }
        if (element.version <= reader->version) {
            read_fields(reader, inner);
            continue;
        }
        fixed_reader absent = *reader;
        absent.view = {};
        read_fields(&absent, inner);
        reader->to = absent.to;
    }
}

// Definition of `name` when a record of `size` bytes is its fixed part.
const msgtab_el* definition_of_size(std::string_view name, void* record, size_t size) {
    const msgtab_el* definition = find_definition(get_msgtab(), name);
    if (size >= sizeof(QX_HEADM) && definition != nullptr &&
        static_cast<size_t>(definition->msg_len) == size && definition->msg_def.length > 0) {
        return definition;
    }
    memset(record, 0, size);
    return nullptr;
}

}  // namespace

QX_HEADM view_head(message_view view) {
    QX_HEADM head;
    memset(&head, 0, sizeof head);
    memset(&head, ' ', offsetof(QX_HEADM, i2Mandant));
    size_t length = view.length;
    if (length > 0 && length < offsetof(QX_HEADM, i2Mandant)) {
        memcpy(&head, view.data, length);
    } else if (length >= sizeof head) {
        memcpy(&head, view.data, sizeof head);
    } else if (length > 0) {
        memcpy(&head, view.data,
               length < offsetof(QX_HEADM, i4UsrIdNr) ? offsetof(QX_HEADM, i2Mandant)
                                                      : offsetof(QX_HEADM, i4UsrIdNr));
    }
    return head;
}

bool view_fixed_part(message_view view, std::string_view name, void* record, size_t size) {
    const msgtab_el* definition = definition_of_size(name, record, size);
    if (definition == nullptr) {
        return false;
    }
    QX_HEADM head = view_head(view);
    memcpy(record, &head, sizeof head);
    fixed_reader reader = {
        view, message_version(&head), static_cast<unsigned char*>(record), size, sizeof head, sizeof head};
    read_fields(&reader, definition);
    return true;
}

bool blank_fixed_part(std::string_view name, void* record, size_t size) {
    return view_fixed_part({}, name, record, size);
}

std::span<const unsigned char> view_data(message_view view, int64_t dist, int64_t len) {
    if (dist < static_cast<int64_t>(sizeof(QX_HEADM)) || len <= 0) {
        return {};
    }
    if (!view_has(view, static_cast<size_t>(dist), static_cast<size_t>(len))) {
        return {};
    }
    return {view.data + dist, static_cast<size_t>(len)};
}

std::string_view view_text(message_view view, int64_t dist, int64_t len) {
    std::span<const unsigned char> data = view_data(view, dist, len);
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

table_cursor view_table(message_view view, int64_t dist) {
    if (dist < static_cast<int64_t>(sizeof(QX_HEADM)) || static_cast<uint64_t>(dist) > view.length) {
        return {nullptr, nullptr, true};
    }
    return {view.data + dist, view.data + view.length, false};
}

std::string_view cursor_text(table_cursor* cursor, size_t max) {
    size_t there = static_cast<size_t>(cursor->end - cursor->at);
    const void* nul = cursor->failed || there == 0 ? nullptr : memchr(cursor->at, 0, there);
    if (nul == nullptr) {
        cursor->failed = true;
        return {};
    }
    const char* text = reinterpret_cast<const char*>(cursor->at);
    size_t length = static_cast<size_t>(static_cast<const unsigned char*>(nul) - cursor->at);
    cursor->at += length + 1;
    return {text, std::min(length, max)};
}

std::span<const unsigned char> cursor_bytes(table_cursor* cursor, size_t size) {
    if (cursor->failed || static_cast<size_t>(cursor->end - cursor->at) < size) {
        cursor->failed = true;
        return {};
    }
    std::span<const unsigned char> bytes(cursor->at, size);
    cursor->at += size;
    return bytes;
}
