// The one way to read a received message. It may stop at any field boundary and its distances may lie: a
// field that did not come reads as zero or blank, and variable data outside the received length does not
// exist.
//
//     message_view view = view_message(msg->msg_start, msg->len);
//     auto rec = view_record<MSG_TYPE_EXAKTJ>(view);
//     std::string_view script = view_text(view, rec.jcl_dist, rec.jcl_len);
//     for (table_cursor c = view_table(view, rec.vartab_dist); n-- > 0 && !c.failed;) { name =
//     cursor_text(&c, 200); … }
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "messages/head.h"

// Borrowed bytes of a message; lives no longer than they do.
struct message_view {
    const unsigned char* data = nullptr;
    size_t length = 0;
};

inline message_view view_message(const void* data, size_t length) {
    return {static_cast<const unsigned char*>(data), length};
}

// The head; what did not come is blank (texts) or 0 (numbers).
QX_HEADM view_head(message_view view);

// Reads the fixed part of the message `name` of the catalogue into `record` (`size` bytes, the
// record of that name): each field that came whole at its place, texts also in part, all others zero or
// blank. Fields of versions above that of the head did not come, and those behind them are found where that
// version has them. False when `name` is not in the catalogue or `size` is not its length; `record` is zero
// then.
bool view_fixed_part(message_view view, std::string_view name, void* record, size_t size);

template <class Record>
Record view_record(message_view view) {
    static_assert(std::is_trivially_copyable_v<Record> && offsetof(Record, header) == 0);
    Record record;
    view_fixed_part(view, Record::catalogue_name, &record, sizeof record);
    return record;
}

// A message to be filled and sent: texts blank, numbers, binary fields and fillers zero.
// False as above.
bool blank_fixed_part(std::string_view name, void* record, size_t size);

// A message to be filled: blank, with its head.
template <class Record>
Record new_message(uint16_t mandant, uint32_t usridnr, int version = 1) {
    static_assert(std::is_trivially_copyable_v<Record> && offsetof(Record, header) == 0);
    static const Record blank = [] {
        Record image;
        blank_fixed_part(Record::catalogue_name, &image, sizeof image);
        return image;
    }();
    Record record = blank;
    CreateQxHeadm(&record.header, Record::catalogue_name, mandant, usridnr);
    set_message_version(&record.header, version);
    return record;
}

// Variable data at `dist` (from the first byte of the head), `len` bytes. Empty when any of it lies outside
// the received message, inside the head, or when one of the two is negative.
std::span<const unsigned char> view_data(message_view view, int64_t dist, int64_t len);
std::string_view view_text(message_view view, int64_t dist, int64_t len);

// Whether a field of `size` bytes at `offset` came.
inline bool view_has(message_view view, size_t offset, size_t size) {
    return offset <= view.length && size <= view.length - offset;
}

// Steps through a table in the variable data. A step outside the message sets `failed` and yields nothing, as
// do all steps behind it.
struct table_cursor {
    const unsigned char* at = nullptr;
    const unsigned char* end = nullptr;
    bool failed = false;
};

table_cursor view_table(message_view view, int64_t dist);

// The NUL-terminated text at the cursor, and past its NUL. A text without NUL fails; one of more than `max`
// characters is cut at `max` and passed over whole.
std::string_view cursor_text(table_cursor* cursor, size_t max);

// `size` bytes at the cursor.
std::span<const unsigned char> cursor_bytes(table_cursor* cursor, size_t size);

// A packed record at the cursor, by value; zero when it does not fit.
template <class Record>
Record cursor_record(table_cursor* cursor) {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record{};
    std::span<const unsigned char> bytes = cursor_bytes(cursor, sizeof record);
    if (!bytes.empty()) {
        __builtin_memcpy(&record, bytes.data(), sizeof record);
    }
    return record;
}
