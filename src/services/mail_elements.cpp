#include "services/mail_elements.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "messages/records_common.h"
#include "messages/records_server.h"

namespace {

enum class element_type : char {
    recipient = 'A',
    copy = 'C',
    attachment = 'D',
    sender = 'F',
    timeout = 'I',
    user = 'L',
    password = 'P',
    server = 'S',
    text = 'T',
};
constexpr char flag_html = 'H';

struct element {
    element_type type;
    char flag;
    std::string_view content;
};

// A value of one line: up to its first NUL, without blanks around.
std::string value_of(std::string_view content) {
    return std::string(strip(content.substr(0, content.find('\0'))));
}

// What is no number leaves the default.
int timeout_of(std::string_view content) {
    int64_t seconds = mail_timeout_default;
    parse_number(value_of(content), INT32_MIN, INT32_MAX, &seconds);
    return static_cast<int>(std::clamp<int64_t>(seconds, 1, mail_timeout_max));
}

// An unknown letter is passed over: a newer server may say more than this agent knows.
void take_element(const element& item, mail_order* order) {
    switch (item.type) {
        case element_type::recipient:
            order->to.push_back(value_of(item.content));
            break;
        case element_type::copy:
            order->cc.push_back(value_of(item.content));
            break;
        case element_type::attachment:
            order->attachments.push_back(value_of(item.content));
            break;
        case element_type::sender:
            order->from = value_of(item.content);
            break;
        case element_type::timeout:
            order->timeout = timeout_of(item.content);
            break;
        case element_type::user:
            order->user = value_of(item.content);
            break;
        case element_type::password:
            order->password = qx_secret_text(item.content.substr(0, item.content.find('\0')));
            break;
        case element_type::server:
            order->server = value_of(item.content);
            break;
        case element_type::text:
            order->text += item.content;
            order->html = order->html || item.flag == flag_html;
            break;
    }
}

template <class Record>
bool next_element(table_cursor* cursor, element* item) {
    const auto head = cursor_record<Record>(cursor);
    const auto content = cursor_bytes(cursor, static_cast<size_t>(head.len));
    *item = {static_cast<element_type>(head.type),
             head.flag,
             {reinterpret_cast<const char*>(content.data()), content.size()}};
    return !cursor->failed;
}

template <class Message, class Record>
bool read_elements(message_view view, mail_order* order) {
    const auto message = view_record<Message>(view);
    order->ah_idnr = message.ah_idnr;
    order->subject = get_text(message.subject);
    if (message.entries <= 0) {
        return true;
    }
    table_cursor cursor = view_table(view, message.dist);
    for (int at = 0; at < message.entries; ++at) {
        element item;
        if (!next_element<Record>(&cursor, &item)) {
            return false;
        }
        take_element(item, order);
    }
    return true;
}

}  // namespace

int mail_read_order(message_view view, mail_order* order, qx7_error* error) {
    const bool second = message_type_is(view.data, view.length, "SNDMAIL2");
    const bool whole = second ? read_elements<MSG_TYPE_SNDMAIL2, MSG_TYPE_SDMAIL2X>(view, order)
                              : read_elements<MSG_TYPE_SNDMAIL, MSG_TYPE_SNDMAILX>(view, order);
    if (!whole) {
        return qx_error_set(error, -1, EINVAL, number_mail_address, "%s|", second ? "SNDMAIL2" : "SNDMAIL");
    }
    if (order->attachments.size() > mail_attachments_max) {
        return qx_error_set(error, -1, E2BIG, number_mail_file, "%s",
                            call_insert(order->attachments.back(), E2BIG).c_str());
    }
    return 0;
}
