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

// Numbers of the mail client's messages.
enum mail_number : int {
    MAIL_NO_SERVER = 50001,        // no such name, or none given: "server|reason|"
    MAIL_NO_CONNECTION = 50002,    // "server|errno|reason|"
    MAIL_SOCKET = 50003,           // failure, time-out or end of the line: "server|errno|reason|"
    MAIL_FILE = 50004,             // "file|errno|reason|"
    MAIL_GREETING = 50005,         // "server|reply|"
    MAIL_SENDER_REFUSED = 50006,   // "address|reply|"
    MAIL_RECIPIENT_REFUSED = 50007,  // warning: "address|reply|"
    MAIL_DATA_REFUSED = 50009,     // "server|reply|"
    MAIL_REFUSED = 50010,          // "server|reply|"
    MAIL_NO_MEMORY = 50015,
    MAIL_ADDRESS = 50016,          // "address|whose|"
    MAIL_LOGON_REFUSED = 50027,    // "user|reply|"
    MAIL_NO_RECIPIENT = 50028,     // "server|"
    MAIL_SENT = 2000259,           // "order|"
};

struct mail_order {
    int ah_idnr = 0;
    std::string subject;
    std::string from;    // these four: empty when the order leaves them to the settings
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

// Reads both messages by their type. 0, or -1 with MAIL_ADDRESS or MAIL_FILE: an order that ends in the midst of
// an element, or names more attachments than can be sent, isn't sent in part.
int mail_read_order(message_view view, mail_order* order, qx7_error* error);
