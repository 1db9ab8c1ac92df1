#include "messages/frame.h"

#include <algorithm>
#include <cstring>

#include "base/message_numbers.h"
#include "messages/frame_items.h"
#include "messages/records_connection.h"

namespace {

constexpr char eye_catcher[] = "QX7:global";
constexpr char frame_version[] = "001";
constexpr size_t name_size = 8;
constexpr size_t address_size = 32;

uint32_t read_little(const unsigned char* bytes, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    }
    return value;
}

void write_little(unsigned char* bytes, size_t size, uint32_t value) {
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

bool has_eye_catcher(const void* buffer) {
    return memcmp(static_cast<const char*>(buffer) + offsetof(QX7_PROTOCOL_HEADER, cEyeCatch), eye_catcher,
                  sizeof eye_catcher - 1) == 0;
}

// -1 when they are none.
int64_t read_digits(const unsigned char* bytes, size_t size) {
    int64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] < '0' || bytes[i] > '9') {
            return -1;
        }
        value = value * 10 + bytes[i] - '0';
    }
    return value;
}

void write_digits(unsigned char* bytes, size_t size, uint64_t value) {
    for (size_t i = size; i > 0; value /= 10) {
        bytes[--i] = static_cast<unsigned char>('0' + value % 10);
    }
}

}  // namespace

void CrProtocolHeader(void* buffer) {
    frame_set_header(buffer, protocol_native, frame_header_size);
}

int64_t GetProtocolLength(const void* buffer) {
    return has_eye_catcher(buffer)
               ? std::max<int64_t>(read_digits(static_cast<const unsigned char*>(buffer), 8), 0)
               : 0;
}

int SetProtocolLength(void* buffer, int64_t length) {
    if (!has_eye_catcher(buffer) || length < 0 || length > frame_length_max) {
        return -1;
    }
    write_digits(static_cast<unsigned char*>(buffer), 8, static_cast<uint64_t>(length));
    return 0;
}

int frame_set_header(void* buffer, const char* protocol, int64_t length, std::string_view coding) {
    if (length < static_cast<int64_t>(frame_header_size) || length > frame_length_max) {
        return -1;
    }
    QX7_PROTOCOL_HEADER header;
    memset(&header, ' ', sizeof header);
    memcpy(header.cEyeCatch, eye_catcher, sizeof header.cEyeCatch);
    memcpy(header.cVersion, frame_version, sizeof header.cVersion);
    memcpy(header.cProtocol, protocol, sizeof header.cProtocol);
    std::copy_n(coding.begin(), std::min(coding.size(), sizeof header.cCoding), header.cCoding);
    SetProtocolLength(&header, length);
    memcpy(buffer, &header, sizeof header);
    return 0;
}

bool frame_protocol_is(const void* buffer, const char* protocol) {
    return memcmp(static_cast<const char*>(buffer) + offsetof(QX7_PROTOCOL_HEADER, cProtocol), protocol, 3) ==
           0;
}

size_t TcpKzLengthFieldLen(unsigned char key) {
    if (key >= 'A' && key <= 'Z') {
        return 7;
    }
    if (key < 160) {
        return 1;
    }
    return key < 255 ? 2 : 4;
}

size_t item_length_field_size(unsigned char key) {
    return key == key_protocol_59 || key == key_system_shutdown ? 2 : TcpKzLengthFieldLen(key);
}

item_state read_item(const unsigned char* bytes, size_t available, size_t whole, size_t field_size,
                     item_view* item) {
    size_t head = 1 + field_size;
    item->key = available > 0 ? bytes[0] : 0;
    item->head = head;
    if (head > whole) {
        return item_cut;
    }
    if (head > available) {
        return item_incomplete;
    }
    int64_t size = field_size == 7 ? read_digits(bytes + 1, 7) : read_little(bytes + 1, field_size);
    if (size < 0 || static_cast<uint64_t>(size) > whole - head) {
        return item_cut;
    }
    item->size = static_cast<size_t>(size);
    item->data = bytes + head;
    return item->size > available - head ? item_incomplete : item_whole;
}

bool item_size_allowed(unsigned char key, size_t size) {
    struct limit {
        unsigned char key;
        size_t least;
        size_t most;
    };
    constexpr size_t any = SIZE_MAX;
    static constexpr limit limits[] = {
        {key_name, 0, name_size},
        {key_acv, 4, 4},
        {key_address, 0, address_size},
        {key_executor_data, 37, any},
        {key_define_addr, 52, any},
        {key_scramble, 4, 4},
        {key_close_connection, 1, 32},
        {8, 1, 3},
        {9, 1, 3},
        {14, 20, any},
        {61, 12, any},
        {62, 32, any},
        {63, 32, any},
        {key_server_data, 76, any},
        {66, 440, any},
    };
    for (const limit& row : limits) {
        if (row.key == key) {
            return size >= row.least && size <= row.most;
        }
    }
    return true;
}

int64_t extract_protocol_data(const unsigned char* src, size_t available, size_t keylen, unsigned char* dst,
                              size_t dst_size) {
    item_view item;
    if (read_item(src, available, available, keylen, &item) != item_whole) {
        return -1;
    }
    if (dst != nullptr) {
        if (item.size > dst_size) {
            return -1;
        }
        memcpy(dst, item.data, item.size);
    }
    return static_cast<int64_t>(item.head + item.size);
}

size_t item_write_head(unsigned char* dst, unsigned char key, size_t length) {
    size_t field = item_length_field_size(key);
    if (field == 7) {
        if (length > 9'999'999) {
            return 0;
        }
        write_digits(dst + 1, field, length);
    } else {
        if (length > UINT32_MAX || (field < 4 && length >> (8 * field) != 0)) {
            return 0;
        }
        write_little(dst + 1, field, static_cast<uint32_t>(length));
    }
    dst[0] = key;
    return 1 + field;
}

namespace {

// Writes one address item at `at` and returns the place behind it.
unsigned char* write_name(unsigned char* at, const char* name) {
    at += item_write_head(at, key_name, name_size);
    size_t length = strnlen(name, name_size);
    memcpy(at, name, length);
    memset(at + length, ' ', name_size - length);
    return at + name_size;
}

unsigned char* write_address(unsigned char* at, const char* address) {
    size_t length = strnlen(address, address_size);
    at += item_write_head(at, key_address, length);
    memcpy(at, address, length);
    return at + length;
}

unsigned char* write_acv(unsigned char* at, uint32_t acv) {
    at += item_write_head(at, key_acv, 4);
    write_little(at, 4, acv);
    return at + 4;
}

size_t write_destination(unsigned char* items, const frame_address& address, size_t message_length) {
    unsigned char* at = items;
    if (address.dst_acv != 0) {
        at = write_acv(at, address.dst_acv);
    }
    if (address.dst_name[0] != '\0') {
        at = write_name(at, address.dst_name);
    }
    if (strncmp(address.dst_addr, "*CP", 3) == 0) {
        at = write_address(at, address.dst_addr);
    }
    at += item_write_head(at, key_message, message_length);
    return static_cast<size_t>(at - items);
}

size_t write_source(unsigned char* items, const frame_address& address) {
    unsigned char group[frame_tailroom];
    unsigned char* at = group;
    if (address.src_addr[0] != '\0') {
        at = write_address(at, address.src_addr);
    }
    if (address.src_name[0] != '\0') {
        at = write_name(at, address.src_name);
    }
    if (address.src_acv != 0) {
        at = write_acv(at, address.src_acv);
    }
    size_t length = static_cast<size_t>(at - group);
    if (length == 0) {
        return 0;
    }
    size_t head = item_write_head(items, key_source_group, length);
    memcpy(items + head, group, length);
    return head + length;
}

}  // namespace

size_t frame_wrap_message(unsigned char* message, size_t length, const frame_address& address,
                          unsigned char** body) {
    unsigned char items[frame_headroom];
    size_t front = write_destination(items, address, length);
    memcpy(message - front, items, front);
    *body = message - front;
    return front + length + write_source(message + length, address);
}

int64_t frame_wrap_body(unsigned char* body, size_t length, const char* protocol, unsigned char** frame) {
    if (length > static_cast<uint64_t>(frame_length_max) - frame_header_size) {
        return -1;
    }
    int64_t whole = static_cast<int64_t>(length + frame_header_size);
    *frame = body - frame_header_size;
    frame_set_header(*frame, protocol, whole);
    return whole;
}

namespace {

constexpr size_t shutdown_least = sizeof(_QX7_SYS_SHUTDOWN);

int refuse(qx7_error* error, int number, size_t offset, unsigned char key) {
    return qx_error_set(error, -1, 0, number, "%ld|%.2x|", static_cast<long>(offset), key);
}

int refuse_size(qx7_error* error, size_t offset, const item_view& item) {
    return qx_error_set(error, -1, 0, number_item_wrong_size, "%ld|%.2x|%u|", static_cast<long>(offset),
                        item.key, static_cast<unsigned>(item.size));
}

int refuse_key(qx7_error* error, size_t offset, unsigned char key, const char* reason) {
    return qx_error_set(error, -1, 0, number_item_not_allowed, "%ld|%.2x|%s|", static_cast<long>(offset), key,
                        reason);
}

// Text of an item without the blanks around it; it ends at a NUL.
template <size_t N>
void take_text(char (&field)[N], const item_view& item) {
    const char* text = reinterpret_cast<const char*>(item.data);
    size_t length = strnlen(text, std::min(item.size, N - 1));
    while (length > 0 && *text == ' ') {
        text++, length--;
    }
    while (length > 0 && text[length - 1] == ' ') {
        --length;
    }
    memset(field, 0, N);
    memcpy(field, text, length);
}

int parse_source_group(const item_view& group, size_t offset, frame_address* address, qx7_error* error) {
    for (size_t at = 0; at < group.size;) {
        item_view item;
        size_t left = group.size - at;
        const unsigned char* bytes = group.data + at;
        size_t place = offset + group.head + at;
        if (*bytes != key_name && *bytes != key_acv && *bytes != key_address) {
            return refuse(error, number_item_group_key, place, *bytes);
        }
        if (read_item(bytes, left, left, item_length_field_size(*bytes), &item) != item_whole) {
            return refuse(error, number_item_cut, place, *bytes);
        }
        if (!item_size_allowed(item.key, item.size)) {
            return refuse_size(error, place, item);
        }
        if (item.key == key_name) {
            take_text(address->src_name, item);
        } else if (item.key == key_address) {
            take_text(address->src_addr, item);
        } else {
            address->src_acv = read_little(item.data, 4);
        }
        at += item.head + item.size;
    }
    return 0;
}

void take_message(const item_view& item, size_t offset, frame_body* out) {
    constexpr std::string_view xml = "<?xml";
    out->is_message = true;
    out->offset = offset + item.head;
    out->length = item.size;
    out->is_xml = item.size >= xml.size() && memcmp(item.data, xml.data(), xml.size()) == 0;
}

// Takes one item of a body; its size has passed the limits.
int take_item(const item_view& item, size_t offset, frame_body* out, qx7_error* error) {
    switch (item.key) {
        case key_name:
            take_text(out->address.dst_name, item);
            return 0;
        case key_acv:
            out->address.dst_acv = read_little(item.data, 4);
            return 0;
        case key_address:
            take_text(out->address.dst_addr, item);
            return 0;
        case 8:
        case 9:
        case 14:
        case 61:
        case 62:
        case 63:
        case 66:
            return 0;
        case key_source_group:
            return parse_source_group(item, offset, &out->address, error);
        case key_executor_data:
        case key_close_connection:
        case key_protocol_59:
        case key_server_data:
        case key_cp_list:
        case key_system_shutdown:
        case key_message_short:
        case key_message:
            break;
        default:
            return refuse_key(error, offset, item.key, "Unknown");
    }
    if (out->is_message || out->protocol_key != 0) {
        return refuse_key(error, offset, item.key, "Repeated");
    }
    if (item.key == key_message_short || item.key == key_message) {
        take_message(item, offset, out);
        return 0;
    }
    if (item.key == key_system_shutdown && item.size < shutdown_least) {
        return refuse_size(error, offset, item);
    }
    out->protocol_key = item.key;
    out->offset = offset + item.head;
    out->length = item.size;
    return 0;
}

}  // namespace

int frame_parse_body(const unsigned char* body, size_t length, frame_body* out, qx7_error* error) {
    *out = frame_body{};
    for (size_t at = 0; at < length;) {
        item_view item;
        size_t left = length - at;
        if (read_item(body + at, left, left, item_length_field_size(body[at]), &item) != item_whole) {
            return refuse(error, number_item_cut, at, body[at]);
        }
        // The messages themselves may be of any length here; what is too short for a head the walk refuses.
        if (!item_size_allowed(item.key, item.size)) {
            return refuse_size(error, at, item);
        }
        if (take_item(item, at, out, error) != 0) {
            return -1;
        }
        at += item.head + item.size;
    }
    return 0;
}
