#include "messages/head.h"

#include <algorithm>
#include <cstring>

void CreateQxHeadm(QX_HEADM* head, std::string_view type, uint16_t mandant, uint32_t usridnr) {
    put_text(head->msg_typ, type);
    set_message_version(head, 1);
    head->i2Mandant = mandant;
    head->i4UsrIdNr = usridnr;
}

void set_message_version(QX_HEADM* head, int version) {
    int value = std::clamp(version, 0, 99);
    head->version[0] = static_cast<char>('0' + value / 10);
    head->version[1] = static_cast<char>('0' + value % 10);
}

namespace {

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

int message_version(const QX_HEADM* head) {
    char first = head->version[0];
    char second = head->version[1];
    if (is_digit(first)) {
        return is_digit(second) ? (first - '0') * 10 + second - '0' : first - '0';
    }
    if (!is_digit(second) || (first != '-' && first != '+' && !is_blank(first))) {
        return 0;
    }
    return first == '-' ? -(second - '0') : second - '0';
}

bool message_type_is(const void* data, size_t length, std::string_view type) {
    if (length < message_type_size) {
        return false;
    }
    char wanted[message_type_size];
    put_text(wanted, type);
    return memcmp(data, wanted, message_type_size) == 0;
}
