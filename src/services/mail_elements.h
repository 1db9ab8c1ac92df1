// The order to send a mail: what SNDMAIL and SNDMAIL2 carry. Any thread.
#pragma once

#include <string>
#include <vector>

#include "base/error.h"
#include "base/memory.h"
#include "messages/view.h"

inline constexpr int mail_attachments_max = 255;
inline constexpr int mail_timeout_default = 30;  // seconds
inline constexpr int mail_timeout_max = 600;

struct mail_order {
    int ah_idnr = 0;
    std::string subject;
    std::string from;  // these four: empty when the order leaves them to the settings
    std::string server;
    std::string user;
    qx_secret_text password;
    std::vector<std::string> to;
    std::vector<std::string> cc;
    std::vector<std::string> attachments;
    std::string text;
    bool html = false;
    int timeout = mail_timeout_default;  // 1 to 600 seconds
};

// Reads both messages by their type. 0, or -1 with number_mail_address or number_mail_file: an order that
// ends in the midst of an element, or names more attachments than can be sent, isn't sent in part.
int mail_read_order(message_view view, mail_order* order, qx7_error* error);
